#include "sync/LocalChangeRecorder.h"

#include "platform/Stores.h"
#include "sync/LocalChangesQueue.h"
#include "sync/SyncManager.h"
#include "sync/SyncStateLock.h"

namespace tamsel::sync {

LocalChangeRecorder::LocalChangeRecorder(std::shared_ptr<platform::Store> standardDefaults,
                                         std::shared_ptr<platform::Store> sharedDefaults)
    : standard_(std::move(standardDefaults)), shared_(std::move(sharedDefaults)) {}

bool LocalChangeRecorder::disabled() const {
    const auto shared = shared_ ? shared_ : std::static_pointer_cast<platform::Store>(platform::SharedDefaults::shared());
    return shared->boolValue(SyncManager::cloudStuffDisabledKey);
}

std::shared_ptr<platform::Store> LocalChangeRecorder::standard() const {
    return standard_ ? standard_ : std::static_pointer_cast<platform::Store>(platform::Defaults::standard());
}

void LocalChangeRecorder::ruleAdded(const model::Rule& rule, const model::Package& inPackage) {
    ruleCollectionAdded({rule}, inPackage);
}

void LocalChangeRecorder::ruleDeleted(const model::Rule& rule, const model::Package& inPackage) {
    rulesDeleted({rule}, inPackage);
}

void LocalChangeRecorder::packageAdded(const model::Package& package) {
    if (disabled()) return;
    const auto store = standard();
    LocalChangesQueue(store, syncStateLockFile(store)).packageAdded(package);
}

void LocalChangeRecorder::packageDeleted(const model::Package& package) {
    if (disabled()) return;
    const auto store = standard();
    LocalChangesQueue queue(store, syncStateLockFile(store));
    queue.packageDeleted(package.id);
    std::vector<std::string> rules;
    for (const auto& rule : package.rules) rules.push_back(rule.id);
    if (!rules.empty()) queue.rulesDeleted(rules);
}

void LocalChangeRecorder::ruleCollectionAdded(const std::vector<model::Rule>& rules, const model::Package& inPackage) {
    if (disabled()) return;
    const auto store = standard();
    LocalChangesQueue(store, syncStateLockFile(store)).rulesAdded(rules, inPackage.id);
}

void LocalChangeRecorder::rulesDeleted(const std::vector<model::Rule>& rules, const model::Package&) {
    if (disabled()) return;
    std::vector<std::string> names;
    for (const auto& rule : rules) names.push_back(rule.id);
    const auto store = standard();
    LocalChangesQueue(store, syncStateLockFile(store)).rulesDeleted(names);
}

}  // namespace tamsel::sync
