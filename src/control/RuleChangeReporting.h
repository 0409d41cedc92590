#pragma once

#include "model/Package.h"
#include "model/Rule.h"

#include <memory>
#include <mutex>
#include <vector>

// Where the data manager reports the rules it changed, so that the cloud sync
// can send them to the user's other devices. The sync engine installs itself
// as the shared instance; until it does, the shared instance only records
// the reports.
namespace tamsel::control {

class RuleChangeReporting {
public:
    virtual ~RuleChangeReporting() = default;

    // `rule` was added to or changed in `inPackage` (the package as stored
    // after the change).
    virtual void ruleAdded(const model::Rule& rule, const model::Package& inPackage) = 0;
    // `rule` was removed from `inPackage`.
    virtual void ruleDeleted(const model::Rule& rule, const model::Package& inPackage) = 0;

    // Whole packages and several rules at once (an import, a removed
    // package). Nobody but the sync engine needs them: they do nothing
    // unless overridden.
    virtual void packageAdded(const model::Package& package);
    virtual void packageDeleted(const model::Package& package);
    virtual void ruleCollectionAdded(const std::vector<model::Rule>& rules, const model::Package& inPackage);
    virtual void rulesDeleted(const std::vector<model::Rule>& rules, const model::Package& inPackage);

    // The process's instance; a RecordingRuleChangeReporting until one is set.
    static std::shared_ptr<RuleChangeReporting> shared();
    // nullptr goes back to a fresh recorder.
    static void setShared(std::shared_ptr<RuleChangeReporting> reporting);
};

class RecordingRuleChangeReporting : public RuleChangeReporting {
public:
    struct Report {
        enum class Kind { added, deleted };
        Kind kind;
        std::string ruleID;
        std::string packageID;

        friend bool operator==(const Report&, const Report&) = default;
    };

    void ruleAdded(const model::Rule& rule, const model::Package& inPackage) override;
    void ruleDeleted(const model::Rule& rule, const model::Package& inPackage) override;

    std::vector<Report> reports() const;

private:
    mutable std::mutex mutex_;
    std::vector<Report> reports_;
};

}  // namespace tamsel::control
