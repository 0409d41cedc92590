#include "sync/LocalChangesQueue.h"

#include <algorithm>

#include "sync/RecordMapping.h"
#include "sync/SyncStateLock.h"

namespace tamsel::sync {
namespace {

using platform::Dictionary;
using platform::Value;

std::map<std::string, Dictionary> readAdded(const platform::Store& store, std::string_view key) {
    std::map<std::string, Dictionary> result;
    const auto stored = store.dictionary(std::string(key));
    if (!stored) return result;
    for (const auto& [name, value] : *stored) {
        if (const auto* fields = value.getIf<Dictionary>()) result.emplace(name, *fields);
    }
    return result;
}

std::vector<std::string> readDeleted(const platform::Store& store, std::string_view key) {
    std::vector<std::string> result;
    const auto stored = store.array(std::string(key));
    if (!stored) return result;
    for (const Value& value : *stored) {
        if (const auto* name = value.getIf<std::string>()) result.push_back(*name);
    }
    return result;
}

void removeName(std::vector<std::string>& names, const std::string& name) {
    names.erase(std::remove(names.begin(), names.end(), name), names.end());
}

void appendOnce(std::vector<std::string>& names, const std::string& name) {
    if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
}

}  // namespace

std::string_view rawValue(LocalAddKeys key) {
    return key == LocalAddKeys::Packages ? "AddedPackages" : "AddedRules";
}

std::string_view rawValue(LocalDeleteKeys key) {
    return key == LocalDeleteKeys::Packages ? "DeletedPackages" : "DeletedRules";
}

LocalChangesQueue::LocalChangesQueue(std::shared_ptr<platform::Store> defaults, std::filesystem::path lockFile)
    : defaults_(std::move(defaults)), lockFile_(std::move(lockFile)) {}

LocalChangesQueue::Changes LocalChangesQueue::read() const {
    Changes changes;
    changes.addedPackages = readAdded(*defaults_, rawValue(LocalAddKeys::Packages));
    changes.addedRules = readAdded(*defaults_, rawValue(LocalAddKeys::Rules));
    changes.deletedPackages = readDeleted(*defaults_, rawValue(LocalDeleteKeys::Packages));
    changes.deletedRules = readDeleted(*defaults_, rawValue(LocalDeleteKeys::Rules));
    return changes;
}

void LocalChangesQueue::write(const Changes& before, const Changes& after) {
    const auto writeAdded = [this](LocalAddKeys key, const std::map<std::string, Dictionary>& added) {
        Dictionary stored;
        for (const auto& [name, fields] : added) stored.emplace(name, fields);
        defaults_->set(Value(std::move(stored)), std::string(rawValue(key)));
    };
    const auto writeDeleted = [this](LocalDeleteKeys key, const std::vector<std::string>& names) {
        platform::Array stored(names.begin(), names.end());
        defaults_->set(Value(std::move(stored)), std::string(rawValue(key)));
    };
    if (before.addedPackages != after.addedPackages) writeAdded(LocalAddKeys::Packages, after.addedPackages);
    if (before.addedRules != after.addedRules) writeAdded(LocalAddKeys::Rules, after.addedRules);
    if (before.deletedPackages != after.deletedPackages) writeDeleted(LocalDeleteKeys::Packages, after.deletedPackages);
    if (before.deletedRules != after.deletedRules) writeDeleted(LocalDeleteKeys::Rules, after.deletedRules);
}

void LocalChangesQueue::update(const std::function<void(Changes&)>& edit) {
    SyncStateLock lock(lockFile_);
    const Changes before = read();
    Changes after = before;
    edit(after);
    write(before, after);
}

LocalChangesQueue::Changes LocalChangesQueue::changes() const { return read(); }

void LocalChangesQueue::packageAdded(const model::Package& package) {
    update([&](Changes& changes) {
        changes.addedPackages.insert_or_assign(package.id, fieldsOf(package));
        removeName(changes.deletedPackages, package.id);
    });
}

void LocalChangesQueue::packageDeleted(const std::string& packageID) {
    update([&](Changes& changes) {
        changes.addedPackages.erase(packageID);
        appendOnce(changes.deletedPackages, packageID);
    });
}

void LocalChangesQueue::ruleAdded(const model::Rule& rule, const std::string& packageID) {
    rulesAdded({rule}, packageID);
}

void LocalChangesQueue::rulesAdded(const std::vector<model::Rule>& rules, const std::string& packageID) {
    update([&](Changes& changes) {
        for (const auto& rule : rules) {
            changes.addedRules.insert_or_assign(rule.id, fieldsOf(rule, packageID));
            removeName(changes.deletedRules, rule.id);
        }
    });
}

void LocalChangesQueue::rulesDeleted(const std::vector<std::string>& ruleIDs) {
    update([&](Changes& changes) {
        for (const auto& id : ruleIDs) {
            changes.addedRules.erase(id);
            appendOnce(changes.deletedRules, id);
        }
    });
}

void LocalChangesQueue::allAdded(const std::vector<model::Package>& packages) {
    update([&](Changes& changes) {
        for (const auto& package : packages) {
            changes.addedPackages.insert_or_assign(package.id, fieldsOf(package));
            removeName(changes.deletedPackages, package.id);
            for (const auto& rule : package.rules) {
                changes.addedRules.insert_or_assign(rule.id, fieldsOf(rule, package.id));
                removeName(changes.deletedRules, rule.id);
            }
        }
    });
}

void LocalChangesQueue::setAdded(const std::string& recordName, bool isPackage, Dictionary fields) {
    update([&](Changes& changes) {
        (isPackage ? changes.addedPackages : changes.addedRules).insert_or_assign(recordName, std::move(fields));
    });
}

void LocalChangesQueue::drop(const std::string& recordName) {
    update([&](Changes& changes) {
        changes.addedPackages.erase(recordName);
        changes.addedRules.erase(recordName);
        removeName(changes.deletedPackages, recordName);
        removeName(changes.deletedRules, recordName);
    });
}

void LocalChangesQueue::confirm(const std::map<std::string, Dictionary>& saved, const std::vector<std::string>& deleted) {
    if (saved.empty() && deleted.empty()) return;
    update([&](Changes& changes) {
        for (const auto& [name, fields] : saved) {
            for (auto* added : {&changes.addedPackages, &changes.addedRules}) {
                const auto entry = added->find(name);
                // Changed again since it was sent: the newer change still waits.
                if (entry != added->end() && entry->second == fields) added->erase(entry);
            }
        }
        for (const auto& name : deleted) {
            removeName(changes.deletedPackages, name);
            removeName(changes.deletedRules, name);
        }
    });
}

}  // namespace tamsel::sync
