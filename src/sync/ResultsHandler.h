#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "control/DataManager.h"
#include "model/Package.h"
#include "model/Rule.h"
#include "platform/CKRecord.h"

// The records of one fetch, waiting to be applied to the data manager when
// the fetch ends.
namespace tamsel::sync {

class ResultsHandler {
public:
    // Record names deleted on the server.
    std::vector<std::string> deletedPending;
    // Rules with the record name of their package.
    std::vector<std::pair<model::Rule, std::string>> rulesPending;
    std::vector<model::Package> packagesPending;

    // A changed record: a package or a rule joins its list; a rule without
    // its package link, a record that does not map and a record of another
    // type are logged and skipped.
    void recordChanged(const platform::CKRecord& record);
    void recordDeleted(const std::string& recordName);

    // Leaves out every record whose name `waiting` holds (a local change of
    // it has not been pushed yet).
    void dropPending(const std::function<bool(const std::string&)>& waiting);

    bool empty() const { return deletedPending.empty() && rulesPending.empty() && packagesPending.empty(); }

    struct Applied {
        std::size_t packages = 0;
        std::size_t rules = 0;
        std::size_t deleted = 0;
        bool whitelistChanged = false;
        friend bool operator==(const Applied&, const Applied&) = default;
    };

    // Applies the lists to the data manager (packages, then the rules that
    // point at them, then the deletions) in one edit of the package files,
    // saves the user's files and has the extensions rebuilt, then empties
    // the lists. The save's outcome reaches `completion` (may be empty).
    Applied apply(control::DataManager& dataManager, control::DataManager::SaveCompletion completion = {});
};

}  // namespace tamsel::sync
