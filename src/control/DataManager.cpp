#include "control/DataManager.h"

#include "platform/DispatchGroup.h"
#include "platform/DispatchQueue.h"
#include "platform/FatalError.h"
#include "platform/Log.h"
#include "settings/NotificationNames.h"
#include "storage/PathProvider.h"
#include "storage/PersistentStore.h"
#include "storage/RebuildLedger.h"

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

storage::PackageList emptyList() { return std::make_shared<const std::vector<Package>>(); }

storage::PackageList listOf(std::vector<Package> packages) {
    return std::make_shared<const std::vector<Package>>(std::move(packages));
}

std::filesystem::path packageFilePath(JSONFileName file) {
    return storage::PathProvider::filtersFolderURL() / model::fileName(file);
}

// The user's own files are small and rewritten by every program in quick
// succession, so their content counts; the rule set's large files change
// only with an update.
platform::StampContent stampContent(JSONFileName file) {
    return file == JSONFileName::blockConfigurable || file == JSONFileName::blockCustom
               ? platform::StampContent::hashed
               : platform::StampContent::ignored;
}

platform::FileStamp stampOf(JSONFileName file) {
    return platform::fileStamp(packageFilePath(file), stampContent(file));
}

std::map<JSONFileName, platform::FileStamp> stampsOf(const std::vector<JSONFileName>& files) {
    std::map<JSONFileName, platform::FileStamp> stamps;
    for (JSONFileName file : files) stamps.emplace(file, stampOf(file));
    return stamps;
}

// Runs a store read and waits for its packages.
std::vector<Package> readNow(void (*read)(PersistentStore::PackagesCompletion)) {
    std::vector<Package> result;
    platform::DispatchGroup group;
    group.enter();
    read([&result, &group](std::vector<Package> packages) {
        result = std::move(packages);
        group.leave();
    });
    group.wait();
    return result;
}

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

DataManager::DataManager(Collaborators collaborators)
    : collaborators_(std::move(collaborators)), lists_{emptyList(), emptyList(), emptyList(), emptyList()} {}

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

std::vector<Package> DataManager::generalPackages() const { return *generalPackageList(); }
std::vector<Package> DataManager::internationalPackages() const { return *internationalPackageList(); }
std::vector<Package> DataManager::configurablePackages() const { return *configurablePackageList(); }
std::vector<Package> DataManager::customPackages() const { return *customPackageList(); }

storage::PackageList DataManager::generalPackageList() const {
    std::lock_guard lock(mutex_);
    return lists_.general;
}

storage::PackageList DataManager::internationalPackageList() const {
    std::lock_guard lock(mutex_);
    return lists_.international;
}

storage::PackageList DataManager::configurablePackageList() const {
    std::lock_guard lock(mutex_);
    return lists_.configurable;
}

storage::PackageList DataManager::customPackageList() const {
    std::lock_guard lock(mutex_);
    return lists_.custom;
}

void DataManager::setGeneralPackages(std::vector<Package> packages) {
    replaceList(ListKind::general, std::move(packages), {});
}

void DataManager::setInternationalPackages(std::vector<Package> packages) {
    replaceList(ListKind::international, std::move(packages), {});
}

void DataManager::setConfigurablePackages(std::vector<Package> packages) {
    replaceList(ListKind::configurable, std::move(packages), {});
}

void DataManager::setCustomPackages(std::vector<Package> packages) {
    replaceList(ListKind::custom, std::move(packages), {});
}

std::vector<Package> DataManager::allPackages() const {
    Lists lists;
    {
        std::lock_guard lock(mutex_);
        lists = lists_;
    }
    std::vector<Package> all;
    all.reserve(lists.general->size() + lists.international->size() + lists.configurable->size() +
                lists.custom->size());
    for (const auto& list : {lists.general, lists.international, lists.configurable, lists.custom}) {
        all.insert(all.end(), list->begin(), list->end());
    }
    return all;
}

void DataManager::loadAllPackages() {
    platform::DispatchGroup group;
    const auto load = [this, &group](void (*read)(PersistentStore::PackagesCompletion), ListKind kind) {
        // Taken before the read: a file replaced meanwhile is read again later.
        auto stamps = stampsOf(filesOf(kind));
        group.enter();
        read([this, &group, kind, stamps = std::move(stamps)](std::vector<Package> packages) mutable {
            replaceList(kind, std::move(packages), std::move(stamps));
            group.leave();
        });
    };
    load(&PersistentStore::readGeneralPackages, ListKind::general);
    load(&PersistentStore::readInternationalPackages, ListKind::international);
    load(&PersistentStore::readConfigurablePackages, ListKind::configurable);
    load(&PersistentStore::readCustomPackages, ListKind::custom);
    group.wait();
}

std::vector<JSONFileName> DataManager::filesOf(ListKind kind) {
    switch (kind) {
        case ListKind::general:
            return {JSONFileName::blockAds,    JSONFileName::blockAdult,    JSONFileName::blockAnnoyances,
                    JSONFileName::blockSocial, JSONFileName::blockComments, JSONFileName::blockTrackers};
        case ListKind::international: return {JSONFileName::blockInternational};
        case ListKind::configurable: return {JSONFileName::blockConfigurable};
        case ListKind::custom: break;
    }
    return {JSONFileName::blockCustom};
}

DataManager::ListKind DataManager::listKind(JSONFileName file) {
    switch (file) {
        case JSONFileName::blockInternational: return ListKind::international;
        case JSONFileName::blockConfigurable: return ListKind::configurable;
        case JSONFileName::blockCustom: return ListKind::custom;
        default: return ListKind::general;
    }
}

storage::PackageList& DataManager::Lists::of(ListKind kind) {
    switch (kind) {
        case ListKind::general: return general;
        case ListKind::international: return international;
        case ListKind::configurable: return configurable;
        case ListKind::custom: break;
    }
    return custom;
}

void DataManager::replaceList(ListKind kind, std::vector<Package> packages,
                              std::map<JSONFileName, platform::FileStamp> stamps) {
    auto replacement = listOf(std::move(packages));
    std::lock_guard lock(mutex_);
    lists_.of(kind).swap(replacement);
    forgetStamps(kind);
    for (auto& [file, stamp] : stamps) stamps_.insert_or_assign(file, stamp);
}

void DataManager::replaceListIfUnchanged(ListKind kind, const storage::PackageList& expected,
                                         std::vector<Package> packages,
                                         std::map<JSONFileName, platform::FileStamp> stamps) {
    auto replacement = listOf(std::move(packages));
    std::lock_guard lock(mutex_);
    if (lists_.of(kind) != expected) return;
    lists_.of(kind).swap(replacement);
    forgetStamps(kind);
    for (auto& [file, stamp] : stamps) stamps_.insert_or_assign(file, stamp);
}

void DataManager::forgetStamps(ListKind kind) {
    for (JSONFileName file : filesOf(kind)) stamps_.erase(file);
}

void DataManager::refreshFromDisk() {
    refreshListsFromDisk({ListKind::international, ListKind::configurable, ListKind::custom});

    // The general files are large and most readers take them from disk
    // themselves: a changed one is dropped rather than read again here.
    const auto general = stampsOf(filesOf(ListKind::general));
    std::lock_guard lock(mutex_);
    const bool changed = std::any_of(general.begin(), general.end(), [this](const auto& entry) {
        const auto known = stamps_.find(entry.first);
        return known != stamps_.end() && known->second != entry.second;
    });
    if (changed) {
        lists_.general = emptyList();
        forgetStamps(ListKind::general);
    }
}

void DataManager::refreshUserPackagesFromDisk() { refreshListsFromDisk({ListKind::configurable, ListKind::custom}); }

void DataManager::refreshListsFromDisk(std::initializer_list<ListKind> kinds) {
    struct Reader {
        ListKind kind;
        void (*read)(PersistentStore::PackagesCompletion);
    };
    const auto readerOf = [](ListKind kind) {
        switch (kind) {
            case ListKind::international: return Reader{kind, &PersistentStore::readInternationalPackages};
            case ListKind::configurable: return Reader{kind, &PersistentStore::readConfigurablePackages};
            case ListKind::custom: return Reader{kind, &PersistentStore::readCustomPackages};
            case ListKind::general: break;
        }
        platform::fatalError("The general list is not read as a whole");
    };
    for (const ListKind kind : kinds) {
        const Reader reader = readerOf(kind);
        auto stamps = stampsOf(filesOf(reader.kind));
        bool stale = false;
        storage::PackageList before;
        {
            std::lock_guard lock(mutex_);
            before = lists_.of(reader.kind);
            const auto& [file, now] = *stamps.begin();
            const auto known = stamps_.find(file);
            stale = known == stamps_.end() ? before->empty() : known->second != now;
        }
        if (!stale) continue;
        // Under the package files' lock (an edit session) this read is the
        // truth. A rebuild refreshes without that lock while an edit session
        // of this process may be changing the same list: the edit, made on
        // the files as they are under the lock, wins over this read.
        if (storage::PackageFilesLock::isHeld()) {
            replaceList(reader.kind, readNow(reader.read), std::move(stamps));
        } else {
            replaceListIfUnchanged(reader.kind, before, readNow(reader.read), std::move(stamps));
        }
    }
}

DataManager::Editing::Editing(DataManager& manager) { manager.refreshFromDisk(); }

// --- Edits ----------------------------------------------------------------------

void DataManager::addOrReplaceCustomPackage(const Package& package) {
    std::unique_lock lock(mutex_);
    if (std::any_of(lists_.configurable->begin(), lists_.configurable->end(), withID(package.id))) {
        lock.unlock();
        consolePrint("There's already a configurable package with ID " + package.id);
        return;
    }
    auto custom = *lists_.custom;
    if (auto existing = findPackage(custom, package.id); existing != custom.end()) {
        *existing = Package(package.id, package.name, existing->rules);
    } else {
        custom.push_back(package);
    }
    lists_.custom = listOf(std::move(custom));
}

std::optional<DataManager::Replacement> DataManager::replacePackage(
    const std::string& packageID, const std::function<std::optional<Package>(const Package&)>& edit) {
    std::lock_guard lock(mutex_);
    for (auto [list, file] : {std::pair{&lists_.configurable, JSONFileName::blockConfigurable},
                              std::pair{&lists_.custom, JSONFileName::blockCustom}}) {
        const auto existing = std::find_if((*list)->begin(), (*list)->end(), withID(packageID));
        if (existing == (*list)->end()) continue;
        std::optional<Package> replacement = edit(*existing);
        if (!replacement) return std::nullopt;
        auto edited = **list;
        Package& slot = edited[static_cast<std::size_t>(std::distance((*list)->begin(), existing))];
        slot = std::move(*replacement);
        Replacement result{file, slot};
        *list = listOf(std::move(edited));
        return result;
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
    if (const auto custom = std::find_if(lists_.custom->begin(), lists_.custom->end(), withID(identifier));
        custom != lists_.custom->end()) {
        auto shorter = *lists_.custom;
        shorter.erase(shorter.begin() + std::distance(lists_.custom->begin(), custom));
        lists_.custom = listOf(std::move(shorter));
        return true;
    }
    for (auto* list : {&lists_.configurable, &lists_.custom}) {
        for (std::size_t index = 0; index < (*list)->size(); ++index) {
            const Package& package = (**list)[index];
            const auto rule = std::find_if(package.rules.begin(), package.rules.end(),
                                           [&identifier](const Rule& candidate) { return candidate.id == identifier; });
            if (rule == package.rules.end()) continue;
            Package shorter = package.packageByRemovingRuleAtIndex(
                static_cast<std::size_t>(std::distance(package.rules.begin(), rule)));
            // A deletion that arrives from another device does not make the
            // package new.
            shorter.createdAt = package.createdAt;
            auto edited = **list;
            edited[index] = std::move(shorter);
            *list = listOf(std::move(edited));
            return true;
        }
    }
    return false;
}

void DataManager::saveRule(const Rule& rule, const Package& inPackage, SaveCompletion completion) {
    auto editing = beginEditing();
    const auto replaced = replacePackage(inPackage.id, [&](const Package& held) {
        return std::optional(held.packageBySettingRule(rule));
    });
    if (!replaced) {
        consolePrint("Can't find package with identifier " + inPackage.id);
        return;
    }
    savePackages({replaced->file}, isWhitelistRule(rule), std::move(completion));
    ruleChanges()->ruleAdded(rule, replaced->package);
}

void DataManager::deleteRule(const Rule& rule, const Package& inPackage, SaveCompletion completion) {
    auto editing = beginEditing();
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

void DataManager::writePackageFiles(const std::vector<JSONFileName>& files, const Lists& lists) {
    storage::PackageFilesLock filesLock;
    for (const JSONFileName file : files) {
        PersistentStore::WriteResult written;
        switch (file) {
            case JSONFileName::blockInternational: written = PersistentStore::write(*lists.international, file); break;
            case JSONFileName::blockConfigurable: written = PersistentStore::write(*lists.configurable, file); break;
            case JSONFileName::blockCustom: written = PersistentStore::write(*lists.custom, file); break;
            default: {
                // A general file holds its one package, when it is in memory.
                const auto general = std::find_if(lists.general->begin(), lists.general->end(),
                                                  withID(std::string(model::rawValue(file))));
                if (general == lists.general->end()) {
                    logger.error("Can't save %s: no such package in memory", model::fileName(file).c_str());
                    continue;
                }
                written = PersistentStore::write(*general, file);
            }
        }
        if (!written) {
            logger.error("Can't save %s: %s", model::fileName(file).c_str(), written.error().description().c_str());
            continue;
        }
        // The file now holds the list as it was taken above; while the list
        // is still that one, it matches the file.
        const ListKind kind = listKind(file);
        const storage::PackageList saved = Lists(lists).of(kind);
        const auto stamp = stampOf(file);
        std::lock_guard lock(mutex_);
        if (lists_.of(kind) == saved) stamps_.insert_or_assign(file, stamp);
    }
}

void DataManager::savePackages(const std::vector<JSONFileName>& files, bool didChangeWhitelist,
                               SaveCompletion completion) {
    // The lists as they stand now; what each requested file will hold is
    // taken from these, whatever edits follow meanwhile.
    Lists lists;
    {
        std::lock_guard lock(mutex_);
        lists = lists_;
    }
    const bool modelIsEmpty = lists.general->empty() && lists.international->empty() &&
                              lists.configurable->empty() && lists.custom->empty();
    if (modelIsEmpty) {
        if (completion) completion(PersistingError::allPackagesEmpty);
        return;
    }

    platform::DispatchQueue::main().async([this] {
        platform::NotificationCenter::defaultCenter().post(settings::NotificationNames::willSavePackagesToOurJSON,
                                                           this);
    });

    // Owed before anything is written: a process that dies between the
    // package files and the rebuild leaves the rebuild to the next writer.
    if (didChangeWhitelist) {
        storage::RebuildLedger::oweAll();
    } else {
        storage::RebuildLedger::owe({model::ExtensionType::customRules});
    }

    writePackageFiles(files, lists);

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
