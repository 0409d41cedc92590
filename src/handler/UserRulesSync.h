#pragma once

#include <memory>
#include <vector>

#include "model/Package.h"

// Where the extension hands the user's own rules to the cloud sync engine.
// The process's sync is installed by whoever builds it; until then the
// default only writes that no sync is there.
namespace tamsel::handler {

class UserRulesSync {
public:
    virtual ~UserRulesSync() = default;
    // The configurable and custom packages as stored now. Asynchronous; no result.
    virtual void syncUserRules(const std::vector<model::Package>& configurable,
                               const std::vector<model::Package>& custom) = 0;

    // The process's sync; the default writes "♻️ iCloud Sync: no sync engine
    // in this build; user rules stay local" and does nothing else.
    static std::shared_ptr<UserRulesSync> shared();
    static void setShared(std::shared_ptr<UserRulesSync> sync);
};

}  // namespace tamsel::handler
