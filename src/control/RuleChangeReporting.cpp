#include "control/RuleChangeReporting.h"

namespace tamsel::control {

namespace {

std::mutex sharedMutex;
std::shared_ptr<RuleChangeReporting> sharedReporting;

}  // namespace

std::shared_ptr<RuleChangeReporting> RuleChangeReporting::shared() {
    std::lock_guard lock(sharedMutex);
    if (!sharedReporting) sharedReporting = std::make_shared<RecordingRuleChangeReporting>();
    return sharedReporting;
}

void RuleChangeReporting::setShared(std::shared_ptr<RuleChangeReporting> reporting) {
    std::lock_guard lock(sharedMutex);
    sharedReporting = std::move(reporting);
}

void RuleChangeReporting::packageAdded(const model::Package&) {}
void RuleChangeReporting::packageDeleted(const model::Package&) {}
void RuleChangeReporting::ruleCollectionAdded(const std::vector<model::Rule>&, const model::Package&) {}
void RuleChangeReporting::rulesDeleted(const std::vector<model::Rule>&, const model::Package&) {}

void RecordingRuleChangeReporting::ruleAdded(const model::Rule& rule, const model::Package& inPackage) {
    std::lock_guard lock(mutex_);
    reports_.push_back({Report::Kind::added, rule.id, inPackage.id});
}

void RecordingRuleChangeReporting::ruleDeleted(const model::Rule& rule, const model::Package& inPackage) {
    std::lock_guard lock(mutex_);
    reports_.push_back({Report::Kind::deleted, rule.id, inPackage.id});
}

std::vector<RecordingRuleChangeReporting::Report> RecordingRuleChangeReporting::reports() const {
    std::lock_guard lock(mutex_);
    return reports_;
}

}  // namespace tamsel::control
