#include "storage/BlockerPreferenceManager.h"

#include "platform/BuildConfig.h"
#include "platform/InterProcessMutex.h"
#include "platform/Log.h"
#include "platform/Stores.h"
#include "settings/Keys.h"
#include "settings/NotificationNames.h"
#include "storage/PackagePreferences.h"
#include "storage/PathProvider.h"
#include "storage/RebuildLedger.h"

#include <algorithm>
#include <fmt/format.h>
#include <mutex>

namespace tamsel::storage {

namespace {

using platform::consolePrint;

// Beside the shared defaults in the group container, which every program of
// the product sees.
constexpr char lockFileName[] = "disabled-states.lock";

// Runs `update` as one read-modify-write that no other thread or process
// interleaves with.
template <class F>
void exclusively(F&& update) {
    static std::mutex threads;
    std::lock_guard threadLock(threads);
    platform::InterProcessMutex processes(PathProvider::sharedContainerURL() / lockFileName);
    std::lock_guard processLock(processes);
    update();
}

DisabledPackages readPackageMap(const platform::Store& store) {
    return decodeDisabledPackages(store.dictionary(BlockerPreferenceManager::disabledPackageIDsKey));
}

DisabledRules readRuleMap(const platform::Store& store) {
    return decodeDisabledRules(store.dictionary(BlockerPreferenceManager::disabledRuleIDsKey));
}

template <class Map>
void saveMap(platform::Store& store, const Map& map, const std::string& key) {
    store.set(platform::Value(encode(map)), key);
    store.synchronize();
}

// The older layout is dropped from both stores, whichever is chosen now: a
// copy left in the other store would be moved a second time after a switch
// of "StorePreferencesLocally" on a container whose flag was reset.
void removeOldKey(const std::string& key) {
    platform::SharedDefaults::shared()->removeObject(key);
    auto ubiquitous = platform::UbiquitousStore::shared();
    ubiquitous->removeObject(key);
    ubiquitous->synchronize();
}

// Moves one older layout into its map, once per shared container. `move`
// receives the chosen store and returns nothing; the flag is checked again
// under the lock so that only one process or thread moves.
template <class Move>
void moveOnce(const std::string& flag, Move&& move) {
    auto shared = platform::SharedDefaults::shared();
    if (shared->boolValue(flag)) return;
    exclusively([&] {
        if (shared->boolValue(flag)) return;
        // Set first, so that a failure half-way never repeats the move.
        shared->set(platform::Value(true), flag);
        move(*BlockerPreferenceManager::chosenStore());
    });
}

void movePackagesIfNeeded() {
    moveOnce(BlockerPreferenceManager::didMigrateDisabledPackageIDsFromOldArrayOnce, [](platform::Store& store) {
        const platform::Array old = store.array(BlockerPreferenceManager::oldDisabledPackagesKey).value_or(platform::Array{});
        consolePrint(fmt::format("Migrating disabled package IDs ({}) from old array to the new dictionary", old.size()));
        DisabledPackages map = readPackageMap(store);
        consolePrint(fmt::format("BEFORE: dictionary.count = {}", map.size()));
        consolePrint(describe(map));
        for (const platform::Value& value : old) {
            if (auto identifier = value.asString()) map.insert_or_assign(*identifier, true);
        }
        consolePrint(fmt::format("AFTER: dictionary.count = {}", map.size()));
        consolePrint(describe(map));
        saveMap(store, map, BlockerPreferenceManager::disabledPackageIDsKey);
        removeOldKey(BlockerPreferenceManager::oldDisabledPackagesKey);
    });
}

void moveRulesIfNeeded() {
    moveOnce(BlockerPreferenceManager::didMigrateDisabledRuleIDsFromOldArrayOnce, [](platform::Store& store) {
        const platform::Dictionary old =
            store.dictionary(BlockerPreferenceManager::oldDisabledRulesKey).value_or(platform::Dictionary{});
        consolePrint(fmt::format("Migrating disabled rule IDs ({}) from old array to the new dictionary", old.size()));
        DisabledRules map = readRuleMap(store);
        consolePrint(fmt::format("BEFORE: dictionary.count = {}", map.size()));
        consolePrint(describe(map));
        for (const auto& [packageID, value] : old) {
            const auto ruleIDs = value.asArray();
            if (!ruleIDs) continue;
            auto& rules = map[packageID];
            for (const platform::Value& ruleID : *ruleIDs) {
                if (auto identifier = ruleID.asString()) rules.insert_or_assign(*identifier, true);
            }
        }
        consolePrint(fmt::format("AFTER: dictionary.count = {}", map.size()));
        consolePrint(describe(map));
        saveMap(store, map, BlockerPreferenceManager::disabledRuleIDsKey);
        removeOldKey(BlockerPreferenceManager::oldDisabledRulesKey);
    });
}

template <class Change>
void updatePackageMap(Change&& change) {
    movePackagesIfNeeded();
    exclusively([&] {
        auto store = BlockerPreferenceManager::chosenStore();
        DisabledPackages map = readPackageMap(*store);
        change(map);
        saveMap(*store, map, BlockerPreferenceManager::disabledPackageIDsKey);
    });
}

template <class Change>
void updateRuleMap(Change&& change) {
    moveRulesIfNeeded();
    exclusively([&] {
        auto store = BlockerPreferenceManager::chosenStore();
        DisabledRules map = readRuleMap(*store);
        change(map);
        saveMap(*store, map, BlockerPreferenceManager::disabledRuleIDsKey);
    });
}

bool isWhitelistRule(const model::Rule& rule) {
    return rule.blocker.action.type == model::ActionType::ignorePreviousRules;
}

bool holdsWhitelistRule(const model::Package& package) {
    return std::any_of(package.rules.begin(), package.rules.end(), isWhitelistRule);
}

// A switch stored without a rebuild is rebuilt by the caller; should the
// process die first, the debt is on record. Whitelisting entries end every
// extension's file.
void oweRebuildFor(const model::Package& package, bool whitelisting) {
    if (whitelisting) {
        RebuildLedger::oweAll();
    } else {
        RebuildLedger::owe({package.type()});
    }
}

}  // namespace

std::shared_ptr<platform::Store> BlockerPreferenceManager::chosenStore() {
    if (platform::SharedDefaults::shared()->boolValue(settings::Keys::storePreferencesLocally)) {
        return platform::SharedDefaults::shared();
    }
    return platform::UbiquitousStore::shared();
}

BlockerPreferenceManager::BlockerPreferenceManager(Passkey,
                                                   std::weak_ptr<BlockerPreferenceChangesObserver> changesObserver,
                                                   Collaborators collaborators)
    : serialWriteQueue_(std::string(build::baseIdentifier) + ".writeQueue.BlockerPreferenceManager"),
      changesObserver_(std::move(changesObserver)),
      collaborators_(std::move(collaborators)) {}

std::shared_ptr<BlockerPreferenceManager> BlockerPreferenceManager::create(
    std::weak_ptr<BlockerPreferenceChangesObserver> changesObserver) {
    return create(std::move(changesObserver), Collaborators{});
}

std::shared_ptr<BlockerPreferenceManager> BlockerPreferenceManager::create(
    std::weak_ptr<BlockerPreferenceChangesObserver> changesObserver, Collaborators collaborators) {
    auto manager = std::make_shared<BlockerPreferenceManager>(Passkey{}, std::move(changesObserver),
                                                              std::move(collaborators));
    manager->observeExternalChanges();
    return manager;
}

BlockerPreferenceManager::~BlockerPreferenceManager() { externalChanges_.remove(); }

void BlockerPreferenceManager::observeExternalChanges() {
    // The cloud store only reports other writers' changes once it is open.
    platform::UbiquitousStore::shared();
    std::weak_ptr<BlockerPreferenceManager> weakSelf = weak_from_this();
    externalChanges_ = platform::NotificationCenter::defaultCenter().addObserver(
        platform::UbiquitousStore::didChangeExternallyNotification, nullptr,
        [weakSelf](const platform::Notification& notification) {
            const auto* keys = notification.userInfoValue<std::vector<std::string>>(
                platform::UbiquitousStore::changedKeysKey);
            if (!keys || std::find(keys->begin(), keys->end(), disabledPackageIDsKey) == keys->end()) return;
            platform::DispatchQueue::main().async([weakSelf] {
                if (auto self = weakSelf.lock()) self->tellObserver();
            });
        });
}

void BlockerPreferenceManager::tellObserver() {
    if (auto observer = changesObserver_.lock()) observer->blockerPreferencesDidChange(*this);
}

void BlockerPreferenceManager::postWillSaveOnMain() {
    platform::DispatchQueue::main().async([self = shared_from_this()] {
        platform::NotificationCenter::defaultCenter().post(settings::NotificationNames::willPersistPreference,
                                                           self.get());
    });
}

void BlockerPreferenceManager::postDidSaveOnMain() {
    platform::DispatchQueue::main().async([self = shared_from_this()] {
        platform::NotificationCenter::defaultCenter().post(settings::NotificationNames::didPersistPreference,
                                                           self.get());
        self->tellObserver();
    });
}

DisabledPackages BlockerPreferenceManager::disabledPackages() const {
    movePackagesIfNeeded();
    return readPackageMap(*chosenStore());
}

DisabledRules BlockerPreferenceManager::disabledRules() const {
    moveRulesIfNeeded();
    return readRuleMap(*chosenStore());
}

void BlockerPreferenceManager::saveEnabledPreferenceWithoutReload(const model::Rule& rule,
                                                                  const model::Package& inPackage) {
    oweRebuildFor(inPackage, isWhitelistRule(rule));
    postWillSaveOnMain();
    updateRuleMap([&](DisabledRules& map) { map[inPackage.id].insert_or_assign(rule.id, false); });
    postDidSaveOnMain();
}

void BlockerPreferenceManager::saveEnabledPreferenceWithoutReload(const model::Package& package) {
    oweRebuildFor(package, holdsWhitelistRule(package));
    updatePackageMap([&](DisabledPackages& map) { map.insert_or_assign(package.id, false); });
    tellObserver();
}

void BlockerPreferenceManager::saveDisabledPreferenceWithoutReload(const model::Package& package) {
    oweRebuildFor(package, holdsWhitelistRule(package));
    updatePackageMap([&](DisabledPackages& map) { map.insert_or_assign(package.id, true); });
    tellObserver();
}

void BlockerPreferenceManager::savePreferenceWithReload(std::vector<model::Package> packages, bool disabled) {
    postWillSaveOnMain();
    serialWriteQueue_.async([self = shared_from_this(), packages = std::move(packages), disabled] {
        std::vector<model::ExtensionType> types;
        for (const model::Package& package : packages) {
            const model::ExtensionType type = package.type();
            if (std::find(types.begin(), types.end(), type) == types.end()) types.push_back(type);
        }
        const bool changesWhitelist = std::any_of(packages.begin(), packages.end(), holdsWhitelistRule);
        // Owed before the switch is stored, so that the rebuild survives this process.
        if (changesWhitelist) {
            RebuildLedger::oweAll();
        } else {
            RebuildLedger::owe(types);
        }
        updatePackageMap([&](DisabledPackages& map) {
            for (const model::Package& package : packages) map.insert_or_assign(package.id, disabled);
        });

        auto reloading = self->collaborators_.reloading ? self->collaborators_.reloading : ExtensionReloading::shared();
        if (changesWhitelist) {
            // Whitelisting entries end every extension's file.
            reloading->saveToJSONAndReloadAll(std::nullopt, {});
        } else {
            for (model::ExtensionType type : types) reloading->saveToJSONAndReload(type, false, {});
        }

        self->postDidSaveOnMain();
    });
}

void BlockerPreferenceManager::waitForPendingWrites() {
    serialWriteQueue_.sync([] {});
}

EnabledRuleSelection BlockerPreferenceManager::enabledRuleSelection() const {
    return EnabledRuleSelection(disabledPackages(), disabledRules());
}

std::vector<model::Blocker> BlockerPreferenceManager::findEnabledBlockersRemovingWhitelistRules(
    const std::vector<model::Package>& packages) const {
    std::vector<model::Blocker> result;
    findEnabledBlockersRemovingWhitelistRules(packages,
                                              [&result](const model::Blocker& blocker) { result.push_back(blocker); });
    return result;
}

std::size_t BlockerPreferenceManager::findEnabledBlockersRemovingWhitelistRules(
    std::span<const model::Package> packages, const std::function<void(const model::Blocker&)>& found) const {
    const EnabledRuleSelection selection = enabledRuleSelection();
    std::size_t count = 0;
    for (const model::Package& package : packages) {
        const auto choice = selection.forPackage(package.id);
        for (const model::Rule& rule : package.rules) {
            if (!choice.takesBlockingRule(rule)) continue;
            found(rule.blocker);
            ++count;
        }
    }
    return count;
}

std::vector<model::Blocker> BlockerPreferenceManager::findEnabledWhitelistBlockers(
    model::ExtensionType extensionType) const {
    const PackageSource* source = collaborators_.packages ? collaborators_.packages : PackageSource::shared();
    const PackageList configurable = source ? source->configurablePackageList() : nullptr;
    const auto isWhitelist = [](const model::Package& package) { return package.isConfigurableWhitelist(); };
    const auto whitelist = configurable ? std::find_if(configurable->begin(), configurable->end(), isWhitelist)
                                        : std::vector<model::Package>::const_iterator{};
    if (!configurable || whitelist == configurable->end()) {
        consolePrint("Can't find Whitelist package in DataManager.configurablePackages");
        return {};
    }

    const EnabledRuleSelection selection = enabledRuleSelection();
    std::vector<model::Blocker> result;
    const auto append = [&](const model::Package& package) {
        const auto choice = selection.forPackage(package.id);
        for (const model::Rule& rule : package.rules) {
            if (choice.takesWhitelistRule(rule, extensionType)) result.push_back(rule.blocker);
        }
    };
    append(*whitelist);
    const PackageList custom = source->customPackageList();
    for (const model::Package& package : *custom) append(package);
    return result;
}

}  // namespace tamsel::storage
