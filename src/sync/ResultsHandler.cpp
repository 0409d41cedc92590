#include "sync/ResultsHandler.h"

#include <algorithm>
#include <set>

#include "model/ActionType.h"
#include "platform/Log.h"
#include "sync/RecordMapping.h"

namespace tamsel::sync {
namespace {

bool isWhitelistRule(const model::Rule& rule) {
    return rule.blocker.action.type == model::ActionType::ignorePreviousRules;
}

}  // namespace

void ResultsHandler::recordChanged(const platform::CKRecord& record) {
    const std::string& name = record.recordID().recordName;
    if (record.recordType() == RecordType::package) {
        auto package = packageFromRecord(record);
        if (!package) {
            platform::consolePrint("♻️ iCloud Sync: Can't make a package of " + record.description());
            return;
        }
        packagesPending.push_back(std::move(*package));
        return;
    }
    if (record.recordType() == RecordType::rule) {
        const auto packageName = packageRecordName(record);
        if (!packageName) {
            platform::consolePrint("♻️ iCloud Sync: Can't find package link in " + name + " rule");
            return;
        }
        auto rule = ruleFromRecord(record);
        if (!rule) {
            platform::consolePrint("♻️ iCloud Sync: Can't make a rule of " + record.description());
            return;
        }
        rulesPending.emplace_back(std::move(*rule), *packageName);
        return;
    }
    platform::consolePrint("♻️ iCloud Sync: Unknown record type " + record.recordType());
}

void ResultsHandler::recordDeleted(const std::string& recordName) { deletedPending.push_back(recordName); }

void ResultsHandler::dropPending(const std::function<bool(const std::string&)>& waiting) {
    std::erase_if(deletedPending, waiting);
    std::erase_if(rulesPending, [&](const auto& entry) { return waiting(entry.first.id); });
    std::erase_if(packagesPending, [&](const model::Package& package) { return waiting(package.id); });
}

ResultsHandler::Applied ResultsHandler::apply(control::DataManager& dataManager,
                                              control::DataManager::SaveCompletion completion) {
    Applied applied;
    if (empty()) return applied;
    {
        auto editing = dataManager.beginEditing();
        for (const auto& package : packagesPending) {
            dataManager.addOrReplaceCustomPackage(package);
            ++applied.packages;
        }
        for (const auto& [rule, packageName] : rulesPending) {
            dataManager.setRule(rule, packageName);
            applied.whitelistChanged = applied.whitelistChanged || isWhitelistRule(rule);
            ++applied.rules;
        }
        if (!deletedPending.empty()) {
            const std::set<std::string> names(deletedPending.begin(), deletedPending.end());
            for (const auto& list : {dataManager.configurablePackageList(), dataManager.customPackageList()}) {
                for (const auto& package : *list) {
                    applied.whitelistChanged =
                        applied.whitelistChanged ||
                        std::any_of(package.rules.begin(), package.rules.end(), [&](const model::Rule& rule) {
                            return names.contains(rule.id) && isWhitelistRule(rule);
                        });
                }
            }
            for (const auto& name : deletedPending) {
                if (dataManager.removeByIdentifier(name)) ++applied.deleted;
            }
        }
        dataManager.savePackages({model::JSONFileName::blockConfigurable, model::JSONFileName::blockCustom},
                                 applied.whitelistChanged, std::move(completion));
    }
    deletedPending.clear();
    rulesPending.clear();
    packagesPending.clear();
    return applied;
}

}  // namespace tamsel::sync
