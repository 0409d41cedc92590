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

// Reads the general file of `type` on another queue than this one and encodes
// the blockers of the rules `selection` takes into `entries` while they are
// decoded. Returns how many packages the file held: none when it is missing
// or failed to decode part way (`entries` is then to be dropped), and puts
// the identifier of each package that had rules into `packageIDs`.
std::size_t readGeneralFileInto(storage::EncodedEntries& entries, std::vector<std::string>& packageIDs,
                                ExtensionType type, const storage::EnabledRuleSelection& selection) {
    std::optional<storage::EnabledRuleSelection::PackageRules> choice;
    model::RuleHandler onRule = [&](const std::string& packageID, model::Rule&& rule) {
        if (!choice || packageIDs.back() != packageID) {
            choice = selection.forPackage(packageID);
            packageIDs.push_back(packageID);
        }
        if (choice->takesBlockingRule(rule)) entries.add(rule.blocker);
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

std::filesystem::path generalFilePath(ExtensionType type) {
    return storage::PathProvider::filtersFolderURL() / model::fileName(generalFile(type));
}

// The size of a general package file, to size its encoded entries by: the
// entries take somewhat less room than the rules that hold them.
std::size_t packageFileBytes(ExtensionType type) {
    std::error_code error;
    const auto bytes = std::filesystem::file_size(generalFilePath(type), error);
    return error ? 0 : static_cast<std::size_t>(bytes);
}

using Part = EncodedBodyCache::Part;

// The share of the package at `index` of `list`: the blockers of its enabled,
// non-whitelisting rules, taken from `kept` while a part there still holds.
Part heldPart(const storage::PackageList& list, std::size_t index, const storage::EnabledRuleSelection& selection,
              const EncodedBodyCache::Body& kept, std::size_t expectedBytes) {
    const auto reused = std::find_if(kept.begin(), kept.end(),
                                     [&](const Part& part) { return part.holds(list, index, selection); });
    if (reused != kept.end()) {
        Part part = *reused;
        part.list = list;
        part.index = index;
        return part;
    }
    const Package& package = (*list)[index];
    auto entries = std::make_shared<storage::EncodedEntries>(expectedBytes);
    const auto choice = selection.forPackage(package.id);
    for (const model::Rule& rule : package.rules) {
        if (choice.takesBlockingRule(rule)) entries->add(rule.blocker);
    }
    entries->shrinkToFit();
    Part part;
    part.list = list;
    part.index = index;
    part.states.emplace_back(package.id, selection.stateOf(package.id));
    part.entries = std::move(entries);
    return part;
}

}  // namespace

SaveReloadOperation::SaveReloadOperation(ExtensionType extensionType, bool allowsCancelling,
                                         storage::ReloadingCompletion completion, DataManager& dataManager,
                                         ReloadRequest reloadRequest, std::shared_ptr<EncodedBodyCache> bodies,
                                         std::shared_ptr<storage::RebuildSettler> settler)
    : extensionType_(extensionType),
      allowsCancelling_(allowsCancelling),
      completion_(std::move(completion)),
      dataManager_(dataManager),
      reloadRequest_(std::move(reloadRequest)),
      bodies_(std::move(bodies)),
      settler_(std::move(settler)) {}

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
    // One reading of the disabled states chooses the whole body.
    const storage::EnabledRuleSelection selection = preferences->enabledRuleSelection();
    const EncodedBodyCache::Body kept = bodies_ ? bodies_->body(extensionType_) : EncodedBodyCache::Body{};
    EncodedBodyCache::Body body;
    std::size_t packageCount = 0;
    const auto takeList = [&](const storage::PackageList& list) {
        for (std::size_t index = 0; index < list->size(); ++index) {
            body.push_back(heldPart(list, index, selection, kept, 0));
        }
        packageCount += list->size();
    };
    if (isGeneral(extensionType_)) {
        storage::PackageList general = dataManager_.generalPackageList();
        const auto held = std::find_if(general->begin(), general->end(),
                                       [this](const Package& package) { return package.type() == extensionType_; });
        if (held != general->end() && !held->rules.empty()) {
            const auto index = static_cast<std::size_t>(held - general->begin());
            body.push_back(heldPart(general, index, selection, kept, packageFileBytes(extensionType_)));
            packageCount = 1;
        } else if (const platform::FileStamp stamp = platform::fileStamp(generalFilePath(extensionType_));
                   kept.size() == 1 && kept.front().holds(stamp, selection)) {
            body = kept;
            packageCount = kept.front().packages;
        } else {
            // A general file that the data manager does not hold is read for
            // this run only, and its blockers are encoded as its rules are
            // decoded: the package itself is never whole in memory. Its
            // version is taken before the read, so a file replaced meanwhile
            // is read again next time.
            auto entries = std::make_shared<storage::EncodedEntries>(packageFileBytes(extensionType_));
            std::vector<std::string> packageIDs;
            packageCount = readGeneralFileInto(*entries, packageIDs, extensionType_, selection);
            if (packageCount > 0) {
                entries->shrinkToFit();
                Part part;
                part.file = stamp;
                part.packages = packageCount;
                for (std::string& id : packageIDs) {
                    auto state = selection.stateOf(id);
                    part.states.emplace_back(std::move(id), std::move(state));
                }
                part.entries = std::move(entries);
                body.push_back(std::move(part));
            }
        }
    } else if (extensionType_ == ExtensionType::regionalRules) {
        takeList(dataManager_.internationalPackageList());
        if (packageCount == 0) {
            platform::consolePrint("⛔️ Don't writing to " + rawValue +
                                   " because DataManager.internationalPackages is empty");
            settle();
            return;
        }
    } else {
        takeList(dataManager_.configurablePackageList());
        takeList(dataManager_.customPackageList());
    }

    if (packageCount == 0) {
        platform::consolePrint("⛔️ Don't writing to " + rawValue + " because packages [] is empty");
        settle();
        return;
    }
    if (bodies_) bodies_->keep(extensionType_, body);

    platform::consolePrint("Searching enabled rules in " + std::to_string(packageCount) + " packages");
    if (reachedCheckpointCancelled()) return;

    SafariJSONBuilder file;
    for (const Part& part : body) file.add(part.entries);
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
    std::shared_ptr<platform::UnflushedFile> written;
    if (auto result = PersistentStore::writeUnflushed(file, extensionType_); result) {
        written = std::make_shared<platform::UnflushedFile>(std::move(*result));
        // Without a settler the file is on disk before Safari is asked.
        if (!settler_ && platform::flushFiles(std::span(written.get(), 1))) written.reset();
    } else {
        platform::consolePrint("Can't save to Safari JSON file and reload Safari: " + result.error().description());
    }
    platform::consolePrint("🏁 DONE saving JSON for \"" + displayName + "\"");
    if (reachedCheckpointCancelled()) return;

    didRequestReload_ = true;
    // The debt is paid once Safari has the file that was written from it,
    // and the file is on disk.
    reloadRequest_(extensionType_, [written, settle, settler = settler_, extension = extensionType_, ticket,
                                    completion = std::move(completion_)](storage::ReloadingResult result) {
        if (written && result) {
            if (settler) {
                settler->settleWhenFlushed(std::move(*written), extension, ticket);
            } else {
                settle();
            }
        }
        if (completion) completion(std::move(result));
    });
}

}  // namespace tamsel::control
