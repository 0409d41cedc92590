#include "host/SubstituteHost.h"

#include "control/ExtensionManager.h"
#include "control/PauseStatus.h"
#include "control/RuleChangeReporting.h"
#include "platform/Files.h"
#include "platform/LocalContentBlockerManager.h"
#include "settings/App.h"
#include "storage/PathProvider.h"
#include "sync/LocalChangeRecorder.h"
#include "updates/RuleArchive.h"

#include <memory>
#include <mutex>

namespace tamsel::host {

namespace {

// Opens the substitute manager the first time Safari is asked anything.
class LazyContentBlockerManager : public platform::ContentBlockerManager {
public:
    void reloadContentBlocker(const std::string& identifier, ReloadCompletion completion) override {
        manager()->reloadContentBlocker(identifier, std::move(completion));
    }
    void getStateOfContentBlocker(const std::string& identifier, StateCompletion completion) override {
        manager()->getStateOfContentBlocker(identifier, std::move(completion));
    }

    std::shared_ptr<platform::LocalContentBlockerManager> manager() {
        std::call_once(opened_, [this] {
            manager_ = platform::LocalContentBlockerManager::open(
                [](const std::string& identifier) -> std::optional<std::filesystem::path> {
                    const auto type = control::ExtensionManager::extensionType(identifier);
                    if (!type) return std::nullopt;
                    return storage::PathProvider::safariJSONFilePath(*type);
                });
            // The product's content blockers serve an empty list while blocking is paused.
            manager_->setServesEmptyList([] { return control::PauseStatus::isPaused(); });
        });
        return manager_;
    }

private:
    std::once_flag opened_;
    std::shared_ptr<platform::LocalContentBlockerManager> manager_;
};

std::shared_ptr<LazyContentBlockerManager>& installedManager() {
    static std::shared_ptr<LazyContentBlockerManager> manager = std::make_shared<LazyContentBlockerManager>();
    return manager;
}

}  // namespace

void installSubstituteHost() {
    settings::App::setIsMacButtonExtension(true);
    platform::ContentBlockerManager::setShared(installedManager());
    control::ExtensionManager::shared();
    // Rule changes wait for the next push; a long-running process installs
    // the sync manager instead (host/CloudSync.h).
    control::RuleChangeReporting::setShared(std::make_shared<sync::LocalChangeRecorder>());
}

std::shared_ptr<platform::LocalContentBlockerManager> substituteContentBlockerManager() {
    return installedManager()->manager();
}

void startWriter() {
    updates::RuleArchive::finishInterruptedInstall();
    for (const auto& folder : {storage::PathProvider::safariJSONFolderURL(), storage::PathProvider::filtersFolderURL(),
                               storage::PathProvider::sharedContainerURL(),
                               substituteContentBlockerManager()->compiledListsFolder()}) {
        platform::removeStaleTemporaries(folder);
    }
    control::ExtensionManager::shared()->repairOwedRebuilds();
}

std::optional<std::string> rebuildLeftToHostApplication() {
    if (control::ExtensionManager::mayWrite()) return std::nullopt;
    return "left to the host application, which is running";
}

bool finishPendingExtensionWork(std::chrono::milliseconds timeout) {
    return control::ExtensionManager::shared()->waitUntilIdle(timeout);
}

}  // namespace tamsel::host
