#include "control/DataManager.h"

#include "platform/DispatchGroup.h"
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "runtime/settings/NotificationNames.h"
#include "storage/PersistentStore.h"

#include <algorithm>
#include <fmt/format.h>

namespace tamsel::control {

namespace {

using model::JSONFileName;
using model::Package;
using model::Rule;
using platform::consolePrint;
using storage::PersistentStore;

const platform::SystemLogger logger("Files");

auto withID(const std::string& identifier) {
    return [&identifier](const Package& package) { return package.id == identifier; };
}

std::vector<Package>::iterator findPackage(std::vector<Package>& packages, const std::string& identifier) {
    return std::find_if(packages.begin(), packages.end(), withID(identifier));
}

bool isWhitelistRule(const Rule& rule) { return rule.blocker.action.type == model::ActionType::ignorePreviousRules; }

}  // namespace

DataManager& DataManager::shared() {
    static DataManager* instance = [] {
        auto* manager = new DataManager();  // lives for the process, like its users
        storage::PackageSource::setShared(manager);
        return manager;
    }();
    return *instance;
}

DataManager::DataManager() : DataManager(Collaborators{}) {}

DataManager::DataManager(Collaborators collaborators) : collaborators_(std::move(collaborators)) {}

DataManager::~DataManager() {
    if (storage::PackageSource::shared() == this) storage::PackageSource::setShared(nullptr);
}

std::shared_ptr<storage::BlockerPreferenceManager> DataManager::preferenceManager() {
    std::lock_guard lock(mutex_);
    if (!preferenceManager_) {
        preferenceManager_ = storage::BlockerPreferenceManager::create({}, {this, collaborators_.reloading});
    }
    return preferenceManager_;
}

std::shared_ptr<storage::ExtensionReloading> DataManager::reloading() const {
    return collaborators_.reloading ? collaborators_.reloading : storage::ExtensionReloading::shared();
}

std::shared_ptr<RuleChangeReporting> DataManager::ruleChanges() const {
    return collaborators_.ruleChanges ? collaborators_.ruleChanges : RuleChangeReporting::shared();
}

// --- The four lists -------------------------------------------------------------

std::vector<Package> DataManager::generalPackages() const {
    std::lock_guard lock(mutex_);
    return lists_.general;
}

std::vector<Package> DataManager::internationalPackages() const {
    std::lock_guard lock(mutex_);
    return lists_.international;
}

std::vector<Package> DataManager::configurablePackages() const {
    std::lock_guard lock(mutex_);
    return lists_.configurable;
}

std::vector<Package> DataManager::customPackages() const {
    std::lock_guard lock(mutex_);
    return lists_.custom;
}

void DataManager::setGeneralPackages(std::vector<Package> packages) {
    std::lock_guard lock(mutex_);
    lists_.general = std::move(packages);
}

void DataManager::setInternationalPackages(std::vector<Package> packages) {
    std::lock_guard lock(mutex_);
    lists_.international = std::move(packages);
}

void DataManager::setConfigurablePackages(std::vector<Package> packages) {
    std::lock_guard lock(mutex_);
    lists_.configurable = std::move(packages);
}

void DataManager::setCustomPackages(std::vector<Package> packages) {
    std::lock_guard lock(mutex_);
    lists_.custom = std::move(packages);
}

std::vector<Package> DataManager::allPackages() const {
    std::lock_guard lock(mutex_);
    std::vector<Package> all;
    all.reserve(lists_.general.size() + lists_.international.size() + lists_.configurable.size() +
                lists_.custom.size());
    for (const auto* list : {&lists_.general, &lists_.international, &lists_.configurable, &lists_.custom}) {
        all.insert(all.end(), list->begin(), list->end());
    }
    return all;
}

void DataManager::loadAllPackages() {
    platform::DispatchGroup group;
    const auto load = [this, &group](void (*read)(PersistentStore::PackagesCompletion),
                                     void (DataManager::*store)(std::vector<Package>)) {
        group.enter();
        read([this, &group, store](std::vector<Package> packages) {
            (this->*store)(std::move(packages));
            group.leave();
        });
    };
    load(&PersistentStore::readGeneralPackages, &DataManager::setGeneralPackages);
    load(&PersistentStore::readInternationalPackages, &DataManager::setInternationalPackages);
    load(&PersistentStore::readConfigurablePackages, &DataManager::setConfigurablePackages);
    load(&PersistentStore::readCustomPackages, &DataManager::setCustomPackages);
    group.wait();
}

// --- Edits ----------------------------------------------------------------------

void DataManager::addOrReplaceCustomPackage(const Package& package) {
    std::unique_lock lock(mutex_);
    if (std::any_of(lists_.configurable.begin(), lists_.configurable.end(), withID(package.id))) {
        lock.unlock();
        consolePrint("There's already a configurable package with ID " + package.id);
        return;
    }
    if (auto existing = findPackage(lists_.custom, package.id); existing != lists_.custom.end()) {
        *existing = Package(package.id, package.name, existing->rules);
    } else {
        lists_.custom.push_back(package);
    }
}

std::optional<DataManager::Replacement> DataManager::replacePackage(
    const std::string& packageID, const std::function<std::optional<Package>(const Package&)>& edit) {
    std::lock_guard lock(mutex_);
    for (auto [list, file] : {std::pair{&lists_.configurable, JSONFileName::blockConfigurable},
                              std::pair{&lists_.custom, JSONFileName::blockCustom}}) {
        auto existing = findPackage(*list, packageID);
        if (existing == list->end()) continue;
        std::optional<Package> replacement = edit(*existing);
        if (!replacement) return std::nullopt;
        *existing = std::move(*replacement);
        return Replacement{file, *existing};
    }
    return std::nullopt;
}

void DataManager::setRule(const Rule& rule, const std::string& packageID) {
    const auto replaced = replacePackage(packageID, [&rule](const Package& package) {
        return std::optional(package.packageBySettingRule(rule));
    });
    if (!replaced) consolePrint("Can't find package with identifier " + packageID);
}

bool DataManager::removeByIdentifier(const std::string& identifier) {
    std::lock_guard lock(mutex_);
    if (auto custom = findPackage(lists_.custom, identifier); custom != lists_.custom.end()) {
        lists_.custom.erase(custom);
        return true;
    }
    for (auto* list : {&lists_.configurable, &lists_.custom}) {
        for (Package& package : *list) {
            const auto rule = std::find_if(package.rules.begin(), package.rules.end(),
                                           [&identifier](const Rule& candidate) { return candidate.id == identifier; });
            if (rule == package.rules.end()) continue;
            Package shorter = package.packageByRemovingRuleAtIndex(
                static_cast<std::size_t>(std::distance(package.rules.begin(), rule)));
            // A deletion that arrives from another device does not make the
            // package new.
            shorter.createdAt = package.createdAt;
            package = std::move(shorter);
            return true;
        }
    }
    return false;
}

void DataManager::saveRule(const Rule& rule, const Package& inPackage, SaveCompletion completion) {
    const auto replaced = replacePackage(inPackage.id, [&](const Package&) {
        return std::optional(inPackage.packageBySettingRule(rule));
    });
    if (!replaced) {
        consolePrint("Can't find package with identifier " + inPackage.id);
        return;
    }
    savePackages({replaced->file}, isWhitelistRule(rule), std::move(completion));
    ruleChanges()->ruleAdded(rule, replaced->package);
}

void DataManager::deleteRule(const Rule& rule, const Package& inPackage, SaveCompletion completion) {
    const auto replaced = replacePackage(inPackage.id, [&rule](const Package& held) -> std::optional<Package> {
        const auto found = std::find_if(held.rules.begin(), held.rules.end(),
                                        [&rule](const Rule& candidate) { return candidate.id == rule.id; });
        if (found == held.rules.end()) return std::nullopt;
        return held.packageByRemovingRuleAtIndex(static_cast<std::size_t>(std::distance(held.rules.begin(), found)));
    });
    if (!replaced) {
        consolePrint("Can't delete rule: can't find old package to remove the rule from");
        return;
    }
    savePackages({replaced->file}, isWhitelistRule(rule), std::move(completion));
    ruleChanges()->ruleDeleted(rule, replaced->package);
}

// --- Saving -----------------------------------------------------------------------

void DataManager::savePackages(const std::vector<JSONFileName>& files, bool didChangeWhitelist,
                               SaveCompletion completion) {
    // What each requested file will hold, copied under the lock: a list file
    // its list, a general file its one package (absent when not in memory).
    using Contents = std::variant<std::vector<Package>, std::optional<Package>>;
    std::vector<std::pair<JSONFileName, Contents>> toWrite;
    bool modelIsEmpty = false;
    {
        std::lock_guard lock(mutex_);
        modelIsEmpty = lists_.general.empty() && lists_.international.empty() && lists_.configurable.empty() &&
                       lists_.custom.empty();
        for (const JSONFileName file : modelIsEmpty ? std::vector<JSONFileName>{} : files) {
            switch (file) {
                case JSONFileName::blockInternational: toWrite.emplace_back(file, lists_.international); break;
                case JSONFileName::blockConfigurable: toWrite.emplace_back(file, lists_.configurable); break;
                case JSONFileName::blockCustom: toWrite.emplace_back(file, lists_.custom); break;
                default: {
                    const auto general = findPackage(lists_.general, std::string(model::rawValue(file)));
                    toWrite.emplace_back(file, general == lists_.general.end() ? std::optional<Package>()
                                                                               : std::optional(*general));
                }
            }
        }
    }
    if (modelIsEmpty) {
        if (completion) completion(PersistingError::allPackagesEmpty);
        return;
    }

    platform::DispatchQueue::main().async([this] {
        platform::NotificationCenter::defaultCenter().post(settings::NotificationNames::willSavePackagesToOurJSON,
                                                           this);
    });

    for (const auto& [file, contents] : toWrite) {
        PersistentStore::WriteResult written;
        if (const auto* list = std::get_if<std::vector<Package>>(&contents)) {
            written = PersistentStore::write(*list, file);
        } else if (const auto& general = std::get<std::optional<Package>>(contents)) {
            written = PersistentStore::write(*general, file);
        } else {
            logger.error("Can't save %s: no such package in memory", model::fileName(file).c_str());
            continue;
        }
        if (!written) {
            logger.error("Can't save %s: %s", model::fileName(file).c_str(), written.error().description().c_str());
        }
    }

    reloading()->saveToJSONAndReload(
        model::ExtensionType::customRules, didChangeWhitelist,
        [completion = std::move(completion)](storage::ReloadingResult result) {
            if (!completion) return;
            if (result) {
                completion(std::nullopt);
            } else {
                completion(result.error());
            }
        });
}

void DataManager::setUpdateRulesObserver(platform::ObserverToken token) {
    std::lock_guard lock(mutex_);
    updateRulesObserver_ = std::move(token);
}

}  // namespace tamsel::control
