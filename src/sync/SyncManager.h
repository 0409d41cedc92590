#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "control/DataManager.h"
#include "control/RuleChangeReporting.h"
#include "model/Package.h"
#include "platform/CKContainer.h"
#include "platform/CKOperations.h"
#include "platform/NotificationCenter.h"
#include "platform/OperationQueue.h"
#include "platform/Store.h"
#include "storage/ExtensionReloading.h"
#include "sync/LocalChangesQueue.h"
#include "sync/RecordMetaData.h"
#include "sync/ResultsHandler.h"

// Keeps the user's own packages and rules in step with the private cloud
// database, so that every device of the user sees the same custom rules.
//
// Local changes wait in the LocalChangesQueue until a push confirms them.
// Pushes run one at a time on `queue`; each new push cancels what has not
// started yet and queues a complete new set of operations built from the
// queue as it stands, so the latest state wins. The zone ("BlockerRulesZone")
// and its subscription are made once per installation. Fetches read the
// zone's changes since the stored server change token and apply them through
// the data manager. Failures are logged and retried with a delay that squares
// (2, 4, 16, 256 … seconds), split into smaller pushes, merged, or parked
// until the account becomes available; nothing is shown to the user.
//
// The shared defaults' "cloudStuffDisabled" switches all of it off: every
// step then returns at once and nothing reaches the cloud.
//
// Preference sync: the key-value store's changed-externally notification
// lands in ubiqStoreDidChange (SyncManagerPreferences.cpp).
namespace tamsel::sync {

class SyncManager : public control::RuleChangeReporting, public std::enable_shared_from_this<SyncManager> {
public:
    // Stored keys.
    static inline const std::string cloudStuffDisabledKey = "cloudStuffDisabled";
    static inline const std::string zoneSubscriptionIDKey = "ZoneSubscribtionID";
    static inline const std::string zoneSavedKey = "ZoneSaved";
    static inline const std::string existingDataMarkedAsAddedKey = "ExistingDataMarkedAsAdded";
    static inline const std::string serverTokenKey = "ServerToken";
    static inline const std::string notifyMacAgentFlagKey = "notifyMacAgentFlagKey";
    static inline const std::string queueName = "Schedule CloudKit requests";
    static constexpr double defaultRequestDelay = 2.0;

    using Scheduler = std::function<void(std::chrono::duration<double> delay, std::function<void()> block)>;

    // Who the manager works with. Empty members mean the process-wide ones.
    struct Configuration {
        // "iCloud." + the base identifier, of the configured account.
        std::shared_ptr<platform::CKContainer> container;
        std::shared_ptr<platform::Store> standardDefaults;
        std::shared_ptr<platform::Store> sharedDefaults;
        std::shared_ptr<platform::Store> ubiquitousStore;
        control::DataManager* dataManager = nullptr;
        std::shared_ptr<storage::ExtensionReloading> reloading;
        // Runs a retry after its delay. Empty: on the main queue.
        Scheduler scheduleAfter;
        // Registers for the account-changed and key-value-changed
        // notifications of the default centre.
        bool observeNotifications = true;
        // Process roles; empty: settings::App and settings::MainApp.
        std::function<bool()> isMainApp;
        std::function<bool()> isButtonExtension;
        std::function<bool()> isMainAppRunning;
        // Whether this process writes the agent-notice lines.
        bool agentNotice = false;
        // Records per page of a fetch; none: the server's limit.
        std::optional<int> fetchResultsLimit;
    };

    // The process's instance, made on first use with the process-wide stores.
    static std::shared_ptr<SyncManager> shared();
    static std::shared_ptr<SyncManager> create(Configuration configuration);
    ~SyncManager() override;
    SyncManager(const SyncManager&) = delete;
    SyncManager& operator=(const SyncManager&) = delete;

    // --- Entry points ------------------------------------------------------------

    // Once the custom packages are loaded: queues them for the initial
    // upload (once per installation), pushes, then fetches once the zone
    // exists.
    void update(const std::vector<model::Package>& packages);

    // Record one local change and push.
    void packageAdded(const model::Package& package) override;
    void packageDeleted(const model::Package& package) override;
    void ruleAdded(const model::Rule& rule, const model::Package& inPackage) override;
    void ruleCollectionAdded(const std::vector<model::Rule>& rules, const model::Package& inPackage) override;
    void ruleDeleted(const model::Rule& rule, const model::Package& inPackage) override;
    void rulesDeleted(const std::vector<model::Rule>& rules, const model::Package& inPackage) override;

    // A push notification (the zone changed elsewhere): fetches.
    void handleNotification(std::function<void()> completion);

    // --- Steps -------------------------------------------------------------------

    // Fetches the zone's changes and applies them; `completion` runs when the
    // fetch has ended, however it ended (may be empty).
    void fetchRemoteChanges(std::function<void()> completion);
    void pushAllLocalUpdates(int split);
    std::vector<std::shared_ptr<platform::CKModifyRecordsOperation>> pushLocalChangesOperations(int split);
    std::shared_ptr<platform::CKModifyRecordZonesOperation> saveZoneOperation();
    std::shared_ptr<platform::CKModifySubscriptionsOperation> subscribeToChangesOperation();
    void updateAccountStatus(std::function<void(bool available)> completion);
    void accountStatusChanged();
    void repushLocalChangesAfter(double seconds);

    // The key-value store changed on another device or in another process.
    void ubiqStoreDidChange(const platform::Notification& notification);

    std::optional<platform::CKServerChangeToken> serverToken() const;
    void setServerToken(const std::optional<platform::CKServerChangeToken>& token);

    // --- State -------------------------------------------------------------------

    bool isDisabled() const;
    LocalChangesQueue& localChanges() { return localChanges_; }
    RecordMetaData& recordMetaData() { return metaData_; }
    std::optional<platform::CKAccountStatus> lastAccountStatus() const;
    bool pendingOnAccountUnavailable() const;
    double lastRequestDelay() const;
    const platform::CKRecordZone& zone() const { return zone_; }
    platform::OperationQueue& queue() { return queue_; }
    const std::shared_ptr<platform::CKContainer>& container() const { return container_; }

    // What the pushes confirmed and the fetches applied since the manager
    // was made.
    struct Totals {
        std::size_t recordsSaved = 0;
        std::size_t recordsDeleted = 0;
        std::size_t pushFailures = 0;
        ResultsHandler::Applied fetched;
        std::size_t fetches = 0;
    };
    Totals totals() const;

    // Waits until no push operation is queued or running and no fetch or
    // account check is under way (retries scheduled for later do not
    // count). False when `timeout` passed first.
    bool waitUntilIdle(std::chrono::milliseconds timeout);

    // "Available", "No account", … as the log lines write them.
    static std::string accountStatusText(std::optional<platform::CKAccountStatus> status);

private:
    struct Passkey {};

public:
    SyncManager(Passkey, Configuration configuration);

private:
    void observe();
    void enqueue(std::vector<std::shared_ptr<platform::Operation>> operations);
    void handleModifyResult(const std::shared_ptr<platform::CKModifyRecordsOperation>& operation,
                            const std::vector<std::shared_ptr<platform::CKRecord>>& saved,
                            const std::vector<platform::CKRecordID>& deleted,
                            const std::optional<platform::CKError>& error, int split);
    void pushSucceeded(const std::vector<std::shared_ptr<platform::CKRecord>>& saved,
                       const std::vector<platform::CKRecordID>& deleted,
                       const std::map<std::string, platform::Dictionary>& sent);
    // Merges one server-record-changed conflict and applies the outcome.
    void merge(const platform::CKError& conflict);
    void fetch(std::function<void()> completion);
    void saveAndReloadAll();
    void beginWork();
    void endWork();
    platform::CKDatabase& database() const { return *container_->privateCloudDatabase(); }

    Configuration configuration_;
    std::shared_ptr<platform::CKContainer> container_;
    std::shared_ptr<platform::Store> standard_;
    std::shared_ptr<platform::Store> shared_;
    std::shared_ptr<platform::Store> ubiquitous_;
    control::DataManager& dataManager_;

    // Fields of the engine, in order.
    LocalChangesQueue localChanges_;
    RecordMetaData metaData_;
    ResultsHandler resultsHandler_;
    platform::OperationQueue queue_;
    bool pendingOnAccountUnavailable_ = false;
    std::optional<platform::CKAccountStatus> lastAccountStatus_;
    platform::CKRecordZone zone_;
    double lastRequestDelay_ = defaultRequestDelay;

    mutable std::mutex mutex_;  // the fields above that change, and the ones below
    std::condition_variable idle_;
    int workInFlight_ = 0;
    Totals totals_;
    std::vector<std::shared_ptr<const platform::CKRecord>> fetchedRecords_;
    std::vector<std::string> fetchedDeletions_;
    platform::ObserverToken accountObserver_;
    platform::ObserverToken storeObserver_;
};

}  // namespace tamsel::sync
