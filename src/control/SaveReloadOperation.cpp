#include "control/SaveReloadOperation.h"

#include "control/DataManager.h"
#include "model/JSONFileName.h"
#include "model/Package.h"
#include "model/PackageCategory.h"
#include "platform/DispatchGroup.h"
#include "platform/DispatchQueue.h"
#include "platform/FatalError.h"
#include "platform/InterProcessMutex.h"
#include "platform/Log.h"
#include "storage/PathProvider.h"
#include "storage/PersistentStore.h"
#include "storage/RebuildLedger.h"
#include "storage/SafariJSONBuilder.h"

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace tamsel::control {

namespace {

using model::ExtensionType;
using model::Package;
using storage::PersistentStore;
using storage::RebuildLedger;
using storage::SafariJSONBuilder;

// The package file of each general extension.
model::JSONFileName generalFile(ExtensionType type) {
    switch (type) {
        case ExtensionType::blockAds: return model::JSONFileName::blockAds;
        case ExtensionType::blockTrackers: return model::JSONFileName::blockTrackers;
        case ExtensionType::blockAnnoyances: return model::JSONFileName::blockAnnoyances;
        case ExtensionType::blockSocial: return model::JSONFileName::blockSocial;
        case ExtensionType::blockComments: return model::JSONFileName::blockComments;
        case ExtensionType::blockAdult: return model::JSONFileName::blockAdult;
        case ExtensionType::regionalRules:
        case ExtensionType::customRules: break;
    }
    platform::fatalError("Not a general extension: " + std::string(model::rawValue(type)));
}

bool isGeneral(ExtensionType type) {
    return type != ExtensionType::regionalRules && type != ExtensionType::customRules;
}

// Reads the general file of `type` on another queue than this one and adds
// the blockers of the rules `selection` takes to `file` while they are
// decoded. Returns how many packages the file held: none when it is missing
// or failed to decode part way (what went into `file` is then to be dropped).
std::size_t readGeneralFileInto(SafariJSONBuilder& file, ExtensionType type,
                                const storage::EnabledRuleSelection& selection) {
    std::optional<storage::EnabledRuleSelection::PackageRules> choice;
    std::string choiceFor;
    model::RuleHandler onRule = [&](const std::string& packageID, model::Rule&& rule) {
        if (!choice || choiceFor != packageID) {
            choice = selection.forPackage(packageID);
            choiceFor = packageID;
        }
        if (choice->takesBlockingRule(rule)) file.add(rule.blocker);
    };
    std::size_t packages = 0;
    platform::DispatchGroup group;
    group.enter();
    platform::DispatchQueue::global(platform::QualityOfService::userInitiated).async([&] {
        PersistentStore::readPackageRules(generalFile(type), std::move(onRule), [&](std::vector<Package> read) {
            packages = read.size();
            group.leave();
        });
    });
    group.wait();
    return packages;
}

// The size of a general package file, to size its Safari JSON file by: the
// entries take somewhat less room than the rules that hold them.
std::size_t packageFileBytes(ExtensionType type) {
    std::error_code error;
    const auto bytes =
        std::filesystem::file_size(storage::PathProvider::filtersFolderURL() / model::fileName(generalFile(type)), error);
    return error ? 0 : static_cast<std::size_t>(bytes);
}

}  // namespace

SaveReloadOperation::SaveReloadOperation(ExtensionType extensionType, bool allowsCancelling,
                                         storage::ReloadingCompletion completion, DataManager& dataManager,
                                         ReloadRequest reloadRequest)
    : extensionType_(extensionType),
      allowsCancelling_(allowsCancelling),
      completion_(std::move(completion)),
      dataManager_(dataManager),
      reloadRequest_(std::move(reloadRequest)) {}

bool SaveReloadOperation::reachedCheckpointCancelled() const { return allowsCancelling_ && isCancelled(); }

void SaveReloadOperation::main() {
    if (reachedCheckpointCancelled()) return;
    const std::string displayName = model::localizedName(extensionType_);
    const std::string rawValue(model::rawValue(extensionType_));
    platform::consolePrint("🏳️ START saving JSON for \"" + displayName + "\"");

    // One rebuild of this extension's file at a time across every program
    // of the data root, each from the package files as they are when it
    // starts: the file written last is then never older than the packages.
    platform::InterProcessMutex fileLock(storage::PathProvider::safariJSONLockPath(extensionType_));
    std::lock_guard fileLocked(fileLock);
    // Taken before anything is read: a change that lands while this rebuild
    // runs keeps its debt, and its own rebuild follows.
    const std::optional<RebuildLedger::Ticket> ticket = RebuildLedger::ticket(extensionType_);
    const auto settle = [extension = extensionType_, ticket] {
        if (ticket) RebuildLedger::settle(extension, *ticket);
    };

    // The whitelisting entries of every extension come from the configurable
    // and custom packages, so those two are loaded whatever the extension.
    dataManager_.refreshFromDisk();

    const auto preferences = dataManager_.preferenceManager();
    // The packages to choose from, shared with the data manager, and the
    // lists that hold them (kept alive while the packages are read).
    std::vector<std::span<const Package>> packages;
    std::vector<storage::PackageList> lists;
    const auto take = [&](storage::PackageList list) {
        if (!list->empty()) packages.emplace_back(*list);
        lists.push_back(std::move(list));
    };
    SafariJSONBuilder file(isGeneral(extensionType_) ? packageFileBytes(extensionType_) : 0);
    // A general file that the data manager does not hold is read for this run
    // only, and its blockers go into the Safari JSON file as its rules are
    // decoded: the package itself is never whole in memory.
    bool streamed = false;
    std::size_t streamedPackages = 0;
    if (isGeneral(extensionType_)) {
        storage::PackageList general = dataManager_.generalPackageList();
        const auto held = std::find_if(general->begin(), general->end(),
                                       [this](const Package& package) { return package.type() == extensionType_; });
        if (held != general->end() && !held->rules.empty()) {
            packages.emplace_back(&*held, 1);
            lists.push_back(std::move(general));
        } else {
            streamed = true;
            streamedPackages = readGeneralFileInto(file, extensionType_, preferences->enabledRuleSelection());
        }
    } else if (extensionType_ == ExtensionType::regionalRules) {
        take(dataManager_.internationalPackageList());
        if (packages.empty()) {
            platform::consolePrint("⛔️ Don't writing to " + rawValue +
                                   " because DataManager.internationalPackages is empty");
            settle();
            return;
        }
    } else {
        take(dataManager_.configurablePackageList());
        take(dataManager_.customPackageList());
    }

    std::size_t packageCount = streamedPackages;
    for (const auto& part : packages) packageCount += part.size();
    if (packageCount == 0) {
        platform::consolePrint("⛔️ Don't writing to " + rawValue + " because packages [] is empty");
        settle();
        return;
    }

    platform::consolePrint("Searching enabled rules in " + std::to_string(packageCount) + " packages");
    if (reachedCheckpointCancelled()) return;

    if (!streamed) {
        for (const auto& part : packages) {
            preferences->findEnabledBlockersRemovingWhitelistRules(
                part, [&file](const model::Blocker& blocker) { file.add(blocker); });
        }
    }
    platform::consolePrint("Found " + std::to_string(file.count()) + " enabled rules");
    if (reachedCheckpointCancelled()) return;

    // An extension with nothing enabled gets no whitelisting entries either.
    if (file.count() > 0) {
        const auto whitelist = preferences->findEnabledWhitelistBlockers(extensionType_);
        for (const model::Blocker& blocker : whitelist) file.add(blocker);
        platform::consolePrint("Added " + std::to_string(whitelist.size()) + " whitelist rules");
    }
    if (reachedCheckpointCancelled()) return;

    // A failed write still reloads: Safari then compiles whatever file is on
    // disk, which keeps the extension in a known state.
    const bool written = [&] {
        auto result = PersistentStore::write(file, extensionType_);
        if (!result) {
            platform::consolePrint("Can't save to Safari JSON file and reload Safari: " +
                                   result.error().description());
        }
        return result.has_value();
    }();
    platform::consolePrint("🏁 DONE saving JSON for \"" + displayName + "\"");
    if (reachedCheckpointCancelled()) return;

    didRequestReload_ = true;
    // The debt is paid once Safari has the file that was written from it.
    reloadRequest_(extensionType_, [written, settle, completion = std::move(completion_)](
                                       storage::ReloadingResult result) {
        if (written && result) settle();
        if (completion) completion(std::move(result));
    });
}

}  // namespace tamsel::control
