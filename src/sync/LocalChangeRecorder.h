#pragma once

#include <memory>
#include <vector>

#include "control/RuleChangeReporting.h"
#include "platform/Store.h"

// Records the data manager's changes of the user's packages and rules for
// the next push, without pushing: what a short-lived program installs, so
// that a change it makes is sent by the next `tamsel sync` or by the
// long-running process, which both push whatever waits. Nothing is recorded
// while "cloudStuffDisabled" is set.
namespace tamsel::sync {

class LocalChangeRecorder : public control::RuleChangeReporting {
public:
    // Empty stores mean the process's standard and shared defaults.
    explicit LocalChangeRecorder(std::shared_ptr<platform::Store> standardDefaults = {},
                                 std::shared_ptr<platform::Store> sharedDefaults = {});

    void ruleAdded(const model::Rule& rule, const model::Package& inPackage) override;
    void ruleDeleted(const model::Rule& rule, const model::Package& inPackage) override;
    void packageAdded(const model::Package& package) override;
    void packageDeleted(const model::Package& package) override;
    void ruleCollectionAdded(const std::vector<model::Rule>& rules, const model::Package& inPackage) override;
    void rulesDeleted(const std::vector<model::Rule>& rules, const model::Package& inPackage) override;

private:
    bool disabled() const;
    std::shared_ptr<platform::Store> standard() const;

    std::shared_ptr<platform::Store> standard_;
    std::shared_ptr<platform::Store> shared_;
};

}  // namespace tamsel::sync
