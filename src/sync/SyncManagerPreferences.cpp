// The key-value store's side of the sync: which process applies a change of
// the mirrored preferences, and the push counter that tells the toolbar
// extension to fetch.
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "settings/App.h"
#include "settings/Keys.h"
#include "settings/MainApp.h"
#include "settings/NotificationNames.h"
#include "sync/SyncManager.h"

namespace tamsel::sync {
namespace {

const platform::SystemLogger agentLogger("Sync");

bool ask(const std::function<bool()>& question, bool (*fallback)()) { return question ? question() : fallback(); }

}  // namespace

void SyncManager::saveAndReloadAll() {
    auto reloading = configuration_.reloading ? configuration_.reloading : storage::ExtensionReloading::shared();
    reloading->saveToJSONAndReloadAll(std::nullopt, {});
}

void SyncManager::ubiqStoreDidChange(const platform::Notification&) {
    platform::consolePrint("♻️ iCloud Sync: Ubiquitous store got remote changes!");
    const bool isButtonExtension = ask(configuration_.isButtonExtension, &settings::App::isMacButtonExtension);
    const bool isMainApp = ask(configuration_.isMainApp, &settings::App::isMacMainApp);

    if (isButtonExtension) {
        const auto remote = ubiquitous_->integer(notifyMacAgentFlagKey).value_or(0);
        const auto acted = standard_->integer(notifyMacAgentFlagKey).value_or(0);
        if (remote != acted) {
            if (configuration_.agentNotice) {
                agentLogger.info("🕵🏻♂️ TamselAgent got HACKY notification to fetch changes from CloudKit");
            }
            // This process acts on the counter: the next change of it is new.
            standard_->set(platform::Value(remote), notifyMacAgentFlagKey);
            std::weak_ptr<SyncManager> weak = weak_from_this();
            fetchRemoteChanges([weak] {
                if (auto self = weak.lock()) self->saveAndReloadAll();
            });
        }
    }

    if (shared_->boolValue(settings::Keys::storePreferencesLocally)) return;

    const bool mainAppRunning = ask(configuration_.isMainAppRunning, &settings::MainApp::isRunning);
    if ((mainAppRunning || !isButtonExtension) && !isMainApp) {
        platform::consolePrint(
            "♻️ iCloud Sync: Ignoring this Ubiquitous KVS notification, because Main app is running and this is not "
            "Main app.");
        return;
    }

    ubiquitous_->synchronize();
    std::weak_ptr<SyncManager> weak = weak_from_this();
    platform::DispatchQueue::main().async([weak] {
        auto self = weak.lock();
        if (!self) return;
        platform::NotificationCenter::defaultCenter().post(settings::NotificationNames::RemotePreferenceSync,
                                                           std::shared_ptr<SyncManager>(self));
    });
    saveAndReloadAll();
}

}  // namespace tamsel::sync
