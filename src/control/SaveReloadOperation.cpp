#include "control/SaveReloadOperation.h"

#include "control/DataManager.h"
#include "model/JSONFileName.h"
#include "model/Package.h"
#include "model/PackageCategory.h"
#include "platform/DispatchGroup.h"
#include "platform/DispatchQueue.h"
#include "platform/FatalError.h"
#include "platform/Log.h"
#include "storage/PersistentStore.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace tamsel::control {

namespace {

using model::ExtensionType;
using model::Package;
using storage::PersistentStore;

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

// Runs a store read on another queue than the waiting one, inside `group`,
// and hands its packages to `store`. The store calls back on the reading
// thread or on its own queues, never on the thread that waits.
void readInGroup(platform::DispatchGroup& group,
                 void (*read)(PersistentStore::PackagesCompletion),
                 std::function<void(std::vector<Package>)> store) {
    group.enter();
    platform::DispatchQueue::global(platform::QualityOfService::userInitiated)
        .async([&group, read, store = std::move(store)] {
            read([&group, &store](std::vector<Package> packages) {
                store(std::move(packages));
                group.leave();
            });
        });
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

    // The whitelisting entries of every extension come from the configurable
    // and custom packages, so those two are loaded whatever the extension.
    {
        platform::DispatchGroup group;
        if (dataManager_.configurablePackages().empty()) {
            readInGroup(group, &PersistentStore::readConfigurablePackages,
                        [this](std::vector<Package> packages) {
                            dataManager_.setConfigurablePackages(std::move(packages));
                        });
        }
        if (dataManager_.customPackages().empty()) {
            readInGroup(group, &PersistentStore::readCustomPackages, [this](std::vector<Package> packages) {
                dataManager_.setCustomPackages(std::move(packages));
            });
        }
        group.wait();
    }

    std::vector<Package> packages;
    if (isGeneral(extensionType_)) {
        const auto general = dataManager_.generalPackages();
        const auto held = std::find_if(general.begin(), general.end(),
                                       [this](const Package& package) { return package.type() == extensionType_; });
        if (held != general.end() && !held->rules.empty()) {
            packages.push_back(*held);
        } else {
            // Read for this run only: the data manager keeps what it holds.
            platform::DispatchGroup group;
            group.enter();
            const model::JSONFileName file = generalFile(extensionType_);
            platform::DispatchQueue::global(platform::QualityOfService::userInitiated).async([&] {
                PersistentStore::readPackages(model::PackageCategory::general, file,
                                              [&](std::vector<Package> read) {
                                                  packages = std::move(read);
                                                  group.leave();
                                              });
            });
            group.wait();
        }
    } else if (extensionType_ == ExtensionType::regionalRules) {
        if (dataManager_.internationalPackages().empty()) {
            platform::DispatchGroup group;
            readInGroup(group, &PersistentStore::readInternationalPackages, [this](std::vector<Package> read) {
                dataManager_.setInternationalPackages(std::move(read));
            });
            group.wait();
        }
        packages = dataManager_.internationalPackages();
        if (packages.empty()) {
            platform::consolePrint("⛔️ Don't writing to " + rawValue +
                                   " because DataManager.internationalPackages is empty");
            return;
        }
    } else {
        packages = dataManager_.configurablePackages();
        auto custom = dataManager_.customPackages();
        packages.insert(packages.end(), std::make_move_iterator(custom.begin()),
                        std::make_move_iterator(custom.end()));
    }

    if (packages.empty()) {
        platform::consolePrint("⛔️ Don't writing to " + rawValue + " because packages [] is empty");
        return;
    }

    platform::consolePrint("Searching enabled rules in " + std::to_string(packages.size()) + " packages");
    if (reachedCheckpointCancelled()) return;

    const auto preferences = dataManager_.preferenceManager();
    std::vector<model::Blocker> blockers = preferences->findEnabledBlockersRemovingWhitelistRules(std::move(packages));
    platform::consolePrint("Found " + std::to_string(blockers.size()) + " enabled rules");
    if (reachedCheckpointCancelled()) return;

    // An extension with nothing enabled gets no whitelisting entries either.
    if (!blockers.empty()) {
        auto whitelist = preferences->findEnabledWhitelistBlockers(extensionType_);
        const std::size_t added = whitelist.size();
        blockers.insert(blockers.end(), std::make_move_iterator(whitelist.begin()),
                        std::make_move_iterator(whitelist.end()));
        platform::consolePrint("Added " + std::to_string(added) + " whitelist rules");
    }
    if (reachedCheckpointCancelled()) return;

    // A failed write still reloads: Safari then compiles whatever file is on
    // disk, which keeps the extension in a known state.
    if (auto written = PersistentStore::write(std::move(blockers), extensionType_); !written) {
        platform::consolePrint("Can't save to Safari JSON file and reload Safari: " +
                               written.error().description());
    }
    platform::consolePrint("🏁 DONE saving JSON for \"" + displayName + "\"");
    if (reachedCheckpointCancelled()) return;

    didRequestReload_ = true;
    reloadRequest_(extensionType_, std::move(completion_));
}

}  // namespace tamsel::control
