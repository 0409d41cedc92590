#include "host/CloudSync.h"

#include "control/RuleChangeReporting.h"
#include "handler/UserRulesSync.h"
#include "platform/CKPushConnection.h"
#include "sync/SyncManager.h"

namespace tamsel::host {
namespace {

// The handler's sync of user rules runs the sync manager's update with the
// custom packages.
class SyncManagerUserRules final : public handler::UserRulesSync {
public:
    void syncUserRules(const std::vector<model::Package>&, const std::vector<model::Package>& custom) override {
        sync::SyncManager::shared()->update(custom);
    }
};

class RunningCloudSync final : public CloudSync {
public:
    RunningCloudSync() {
        auto manager = sync::SyncManager::shared();
        control::RuleChangeReporting::setShared(manager);
        handler::UserRulesSync::setShared(std::make_shared<SyncManagerUserRules>());
        manager->container()->startMonitoringAccountChanges();
        std::weak_ptr<sync::SyncManager> weak = manager;
        push_ = std::make_unique<platform::CKPushConnection>(
            manager->container()->transport(), [weak](const std::string& kind, const std::string&) {
                if (kind != "zoneChanged") return;
                if (auto sync = weak.lock()) sync->handleNotification({});
            });
        push_->start();
    }

    ~RunningCloudSync() override {
        push_->stop();
        handler::UserRulesSync::setShared(nullptr);
    }

private:
    std::unique_ptr<platform::CKPushConnection> push_;
};

}  // namespace

std::unique_ptr<CloudSync> CloudSync::start() { return std::make_unique<RunningCloudSync>(); }

}  // namespace tamsel::host
