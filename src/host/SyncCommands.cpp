// tamsel sync [--json]
//     one sync of the user's rules with the cloud: pushes what waits, then
//     fetches what other devices changed, and prints what moved
// tamsel sync status [--json]
//     the pending local changes, the last server change token, whether the
//     zone and its subscription exist, and the account status
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <chrono>
#include <fmt/format.h>
#include <string>

#include "control/DataManager.h"
#include "host/Command.h"
#include "host/SubstituteHost.h"
#include "platform/BuildConfig.h"
#include "platform/CKContainer.h"
#include "platform/CloudAccount.h"
#include "platform/MainRunLoop.h"
#include "platform/Stores.h"
#include "sync/LocalChangesQueue.h"
#include "sync/SyncManager.h"
#include "sync/SyncStateLock.h"

namespace tamsel::host {
namespace {

using namespace std::chrono_literals;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;
using sync::SyncManager;

std::string yesNo(bool value) { return value ? "yes" : "no"; }

// Runs the main queue (the data manager's notices, the rebuilds' answers)
// until the sync manager has nothing under way.
bool settle(SyncManager& manager, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        platform::MainRunLoop::drain();
        if (manager.waitUntilIdle(50ms) && platform::MainRunLoop::drain() == 0 && manager.waitUntilIdle(0ms)) return true;
    }
    return false;
}

int runSync(bool json) {
    const auto account = platform::CloudAccount::load();
    if (!account) return reportFailure("sync: " + account.error());
    if (!*account) return reportFailure("sync: no account; sign in with `tamsel cloud login`");

    auto manager = SyncManager::shared();
    if (manager->isDisabled()) {
        printLine(json ? std::string(R"({"disabled":true})") : "Sync is disabled (cloudStuffDisabled)");
        return exitSuccess;
    }
    const auto standard = platform::Defaults::standard();
    const bool zoneSaved = standard->boolValue(SyncManager::zoneSavedKey);
    control::DataManager& data = control::DataManager::shared();
    data.refreshUserPackagesFromDisk();

    // Push, then (update fetches itself once the zone exists) fetch.
    manager->update(data.customPackages());
    if (!settle(*manager, 10min)) return reportFailure("sync: the push did not finish in time");
    if (!zoneSaved) {
        manager->fetchRemoteChanges({});
        if (!settle(*manager, 10min)) return reportFailure("sync: the fetch did not finish in time");
    }
    finishPendingExtensionWork();

    const auto totals = manager->totals();
    const std::size_t pending = manager->localChanges().changes().count();
    const std::string accountStatus = SyncManager::accountStatusText(manager->lastAccountStatus());
    if (json) {
        rapidjson::StringBuffer buffer;
        Writer w(buffer);
        w.StartObject();
        w.Key("pushed");
        w.StartObject();
        w.Key("saved");
        w.Uint64(totals.recordsSaved);
        w.Key("deleted");
        w.Uint64(totals.recordsDeleted);
        w.EndObject();
        w.Key("fetched");
        w.StartObject();
        w.Key("packages");
        w.Uint64(totals.fetched.packages);
        w.Key("rules");
        w.Uint64(totals.fetched.rules);
        w.Key("deleted");
        w.Uint64(totals.fetched.deleted);
        w.EndObject();
        w.Key("pending");
        w.Uint64(pending);
        w.Key("accountStatus");
        writeString(w, accountStatus);
        w.EndObject();
        printLine(buffer.GetString());
    } else {
        printLine(fmt::format("pushed: {} saved, {} deleted", counted(totals.recordsSaved, "record"),
                              counted(totals.recordsDeleted, "record")));
        printLine(fmt::format("fetched: {}, {}, {} deleted", counted(totals.fetched.packages, "package"),
                              counted(totals.fetched.rules, "rule"), counted(totals.fetched.deleted, "record")));
        printLine(fmt::format("pending: {}", counted(pending, "local change")));
        printLine("account: " + accountStatus);
    }
    if (pending > 0) {
        return reportFailure(fmt::format("sync: {} still waiting to be pushed (see the log; run again later)",
                                         counted(pending, "local change")));
    }
    return exitSuccess;
}

int runStatus(bool json) {
    const auto standard = std::static_pointer_cast<platform::Store>(platform::Defaults::standard());
    const auto changes = sync::LocalChangesQueue(standard, sync::syncStateLockFile(standard)).changes();
    std::optional<std::string> token;
    if (const auto data = standard->data(SyncManager::serverTokenKey)) {
        auto unarchived = platform::CKServerChangeToken::unarchive(
            std::string_view(reinterpret_cast<const char*>(data->data()), data->size()));
        token = unarchived ? unarchived->opaque() : std::string("(unreadable)");
    }
    const auto subscription = standard->string(SyncManager::zoneSubscriptionIDKey);
    const bool zoneSaved = standard->boolValue(SyncManager::zoneSavedKey);
    const bool initialUpload = standard->boolValue(SyncManager::existingDataMarkedAsAddedKey);
    const bool disabled = platform::SharedDefaults::shared()->boolValue(SyncManager::cloudStuffDisabledKey);

    const auto account = platform::CloudAccount::load();
    if (!account) return reportFailure("sync status: " + account.error());
    std::optional<platform::CKAccountStatus> status = platform::CKAccountStatus::noAccount;
    if (*account) {
        status = platform::CKContainer::container(std::string("iCloud.") + build::baseIdentifier)->accountStatusNow().first;
    }
    const std::string statusText = SyncManager::accountStatusText(status);

    if (json) {
        rapidjson::StringBuffer buffer;
        Writer w(buffer);
        w.StartObject();
        w.Key("pending");
        w.StartObject();
        w.Key("addedPackages");
        w.Uint64(changes.addedPackages.size());
        w.Key("addedRules");
        w.Uint64(changes.addedRules.size());
        w.Key("deletedPackages");
        w.Uint64(changes.deletedPackages.size());
        w.Key("deletedRules");
        w.Uint64(changes.deletedRules.size());
        w.EndObject();
        w.Key("serverToken");
        token ? (void)writeString(w, *token) : (void)w.Null();
        w.Key("zoneSaved");
        w.Bool(zoneSaved);
        w.Key("subscriptionID");
        subscription ? (void)writeString(w, *subscription) : (void)w.Null();
        w.Key("initialUploadQueued");
        w.Bool(initialUpload);
        w.Key("disabled");
        w.Bool(disabled);
        w.Key("accountStatus");
        writeString(w, statusText);
        w.EndObject();
        printLine(buffer.GetString());
        return exitSuccess;
    }
    printLine(fmt::format("Pending local changes: {} ({} added or changed, {} added or changed, {} deleted, {} deleted)",
                          changes.count(), counted(changes.addedPackages.size(), "package"),
                          counted(changes.addedRules.size(), "rule"), counted(changes.deletedPackages.size(), "package"),
                          counted(changes.deletedRules.size(), "rule")));
    printLine("Server change token: " + token.value_or("none"));
    printLine("Zone saved: " + yesNo(zoneSaved));
    printLine("Subscription: " + subscription.value_or("none"));
    printLine("Initial upload queued: " + yesNo(initialUpload));
    printLine("Sync disabled: " + yesNo(disabled));
    printLine("Account status: " + statusText);
    return exitSuccess;
}

void addSyncCommands(CommandLine& commandLine) {
    CLI::App* syncCommand =
        commandLine.app().add_subcommand("sync", "Sync the user's rules with the cloud once: push, then fetch");
    commandLine.setAction(syncCommand, [&commandLine] { return runSync(commandLine.options().json); },
                          Preparation::writer);
    CLI::App* status = syncCommand->add_subcommand("status", "Show the sync state: pending changes, token, zone, account");
    commandLine.setAction(status, [&commandLine] { return runStatus(commandLine.options().json); }, Preparation::none);
}

const CommandRegistration registration{"sync", addSyncCommands};

}  // namespace
}  // namespace tamsel::host
