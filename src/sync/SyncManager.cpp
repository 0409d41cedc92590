#include "sync/SyncManager.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

#include "platform/BuildConfig.h"
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "platform/Stores.h"
#include "platform/UUID.h"
#include "sync/RecordMapping.h"
#include "sync/RecordMerge.h"
#include "sync/SyncStateLock.h"

namespace tamsel::sync {
namespace {

using platform::CKAccountStatus;
using platform::CKError;
using platform::CKRecord;
using platform::CKRecordID;
using Code = platform::CKError::Code;

const platform::SystemLogger agentLogger("Sync");

void log(const std::string& text) { platform::consolePrint("♻️ iCloud Sync: " + text); }

std::string containerIdentifier() { return std::string("iCloud.") + build::baseIdentifier; }

// The error that tells what went wrong: a partial failure's first item error
// that is not just "the batch failed with it", with the item's name.
std::pair<CKError, std::string> primaryError(const CKError& error) {
    if (error.code != Code::partialFailure || !error.partialErrors || error.partialErrors->empty()) {
        return {error, std::string()};
    }
    const auto& items = *error.partialErrors;
    const auto cause = std::find_if(items.begin(), items.end(),
                                    [](const platform::CKItemError& item) { return item.error.code != Code::batchRequestFailed; });
    const auto& item = cause != items.end() ? *cause : items.front();
    return {item.error, item.recordID ? item.recordID->recordName : item.name};
}

bool saysExists(const CKError& error) {
    if (error.serverErrorCode == "EXISTS") return true;
    if (!error.partialErrors) return false;
    return std::any_of(error.partialErrors->begin(), error.partialErrors->end(),
                       [](const platform::CKItemError& item) { return item.error.serverErrorCode == "EXISTS"; });
}

template <class T>
std::vector<std::vector<T>> batches(std::vector<T> items, std::size_t size) {
    std::vector<std::vector<T>> result;
    for (std::size_t start = 0; start < items.size(); start += size) {
        const std::size_t end = std::min(items.size(), start + size);
        result.emplace_back(std::make_move_iterator(items.begin() + static_cast<std::ptrdiff_t>(start)),
                            std::make_move_iterator(items.begin() + static_cast<std::ptrdiff_t>(end)));
    }
    return result;
}

std::string secondsText(double seconds) {
    if (seconds == std::floor(seconds) && std::abs(seconds) < 1e15) return fmt::format("{:.1f}", seconds);
    return fmt::format("{}", seconds);
}

}  // namespace

// --- Making -----------------------------------------------------------------------

std::shared_ptr<SyncManager> SyncManager::shared() {
    static std::shared_ptr<SyncManager> instance = [] {
        Configuration configuration;
        return create(std::move(configuration));
    }();
    return instance;
}

std::shared_ptr<SyncManager> SyncManager::create(Configuration configuration) {
    auto manager = std::make_shared<SyncManager>(Passkey{}, std::move(configuration));
    if (manager->configuration_.observeNotifications) manager->observe();
    return manager;
}

SyncManager::SyncManager(Passkey, Configuration configuration)
    : configuration_(std::move(configuration)),
      container_(configuration_.container ? configuration_.container : platform::CKContainer::container(containerIdentifier())),
      standard_(configuration_.standardDefaults ? configuration_.standardDefaults : platform::Defaults::standard()),
      shared_(configuration_.sharedDefaults ? configuration_.sharedDefaults : platform::SharedDefaults::shared()),
      ubiquitous_(configuration_.ubiquitousStore ? configuration_.ubiquitousStore
                                                 : std::static_pointer_cast<platform::Store>(platform::UbiquitousStore::shared())),
      dataManager_(configuration_.dataManager ? *configuration_.dataManager : control::DataManager::shared()),
      localChanges_(standard_, syncStateLockFile(standard_)),
      metaData_(standard_, syncStateLockFile(standard_)),
      queue_(queueName),
      zone_(std::string(zoneName)) {
    queue_.setMaxConcurrentOperationCount(1);
    queue_.setQualityOfService(platform::QualityOfService::userInitiated);
}

SyncManager::~SyncManager() {
    accountObserver_ = {};
    storeObserver_ = {};
    queue_.cancelAllOperations();
    queue_.waitUntilAllOperationsAreFinished();
}

void SyncManager::observe() {
    std::weak_ptr<SyncManager> weak = weak_from_this();
    auto& center = platform::NotificationCenter::defaultCenter();
    accountObserver_ = center.addObserver(platform::CKContainer::accountChangedNotification, nullptr,
                                          [weak](const platform::Notification&) {
                                              if (auto self = weak.lock()) self->accountStatusChanged();
                                          });
    storeObserver_ = center.addObserver(platform::UbiquitousStore::didChangeExternallyNotification, nullptr,
                                        [weak](const platform::Notification& notification) {
                                            if (auto self = weak.lock()) self->ubiqStoreDidChange(notification);
                                        });
}

// --- State -------------------------------------------------------------------------

bool SyncManager::isDisabled() const { return shared_->boolValue(cloudStuffDisabledKey); }

std::optional<CKAccountStatus> SyncManager::lastAccountStatus() const {
    std::lock_guard lock(mutex_);
    return lastAccountStatus_;
}

bool SyncManager::pendingOnAccountUnavailable() const {
    std::lock_guard lock(mutex_);
    return pendingOnAccountUnavailable_;
}

double SyncManager::lastRequestDelay() const {
    std::lock_guard lock(mutex_);
    return lastRequestDelay_;
}

SyncManager::Totals SyncManager::totals() const {
    std::lock_guard lock(mutex_);
    return totals_;
}

std::string SyncManager::accountStatusText(std::optional<CKAccountStatus> status) {
    if (!status) return "Unknown Account Status";
    switch (*status) {
        case CKAccountStatus::couldNotDetermine: return "Could not determine";
        case CKAccountStatus::available: return "Available";
        case CKAccountStatus::restricted: return "Restricted";
        case CKAccountStatus::noAccount: return "No account";
        default: return "Unknown Account Status";
    }
}

void SyncManager::beginWork() {
    std::lock_guard lock(mutex_);
    ++workInFlight_;
}

void SyncManager::endWork() {
    std::lock_guard lock(mutex_);
    --workInFlight_;
    idle_.notify_all();
}

bool SyncManager::waitUntilIdle(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        if (queue_.operationCount() == 0) {
            std::lock_guard lock(mutex_);
            if (workInFlight_ == 0) return true;
        }
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) return false;
        // Woken early when a fetch or an account check ends; the queue's
        // operations are looked at again every few milliseconds.
        std::unique_lock lock(mutex_);
        idle_.wait_until(lock, std::min(deadline, now + std::chrono::milliseconds(2)));
    }
}

std::optional<platform::CKServerChangeToken> SyncManager::serverToken() const {
    const auto data = standard_->data(serverTokenKey);
    if (!data) return std::nullopt;
    auto token = platform::CKServerChangeToken::unarchive(
        std::string_view(reinterpret_cast<const char*>(data->data()), data->size()));
    if (!token) {
        platform::consolePrint("Error unarchiving serverToken: " + token.error());
        return std::nullopt;
    }
    return *token;
}

void SyncManager::setServerToken(const std::optional<platform::CKServerChangeToken>& token) {
    if (!token) {
        standard_->removeObject(serverTokenKey);
        return;
    }
    const std::string bytes = token->archive();
    if (bytes.empty()) {
        platform::consolePrint("Error archiving serverToken: empty archive");
        return;
    }
    standard_->set(platform::Value(platform::Data(bytes.begin(), bytes.end())), serverTokenKey);
}

// --- Entry points -------------------------------------------------------------------

void SyncManager::update(const std::vector<model::Package>& packages) {
    if (isDisabled()) {
        log("SyncManager is disabled");
        return;
    }
    if (!standard_->boolValue(existingDataMarkedAsAddedKey) && !packages.empty()) {
        log("Preparing packages for initial sync");
        localChanges_.allAdded(packages);
        standard_->set(platform::Value(true), existingDataMarkedAsAddedKey);
    }
    pushAllLocalUpdates(1);
    if (standard_->boolValue(zoneSavedKey)) fetchRemoteChanges({});
}

void SyncManager::packageAdded(const model::Package& package) {
    if (isDisabled()) return;
    localChanges_.packageAdded(package);
    pushAllLocalUpdates(1);
}

void SyncManager::packageDeleted(const model::Package& package) {
    if (isDisabled()) return;
    localChanges_.update([&](LocalChangesQueue::Changes& changes) {
        // The package's rules go with it.
        changes.addedPackages.erase(package.id);
        if (std::find(changes.deletedPackages.begin(), changes.deletedPackages.end(), package.id) ==
            changes.deletedPackages.end()) {
            changes.deletedPackages.push_back(package.id);
        }
        for (const auto& rule : package.rules) {
            changes.addedRules.erase(rule.id);
            if (std::find(changes.deletedRules.begin(), changes.deletedRules.end(), rule.id) == changes.deletedRules.end()) {
                changes.deletedRules.push_back(rule.id);
            }
        }
    });
    pushAllLocalUpdates(1);
}

void SyncManager::ruleAdded(const model::Rule& rule, const model::Package& inPackage) {
    if (isDisabled()) return;
    localChanges_.ruleAdded(rule, inPackage.id);
    pushAllLocalUpdates(1);
}

void SyncManager::ruleCollectionAdded(const std::vector<model::Rule>& rules, const model::Package& inPackage) {
    if (isDisabled()) return;
    localChanges_.rulesAdded(rules, inPackage.id);
    pushAllLocalUpdates(1);
}

void SyncManager::ruleDeleted(const model::Rule& rule, const model::Package& inPackage) {
    rulesDeleted({rule}, inPackage);
}

void SyncManager::rulesDeleted(const std::vector<model::Rule>& rules, const model::Package&) {
    if (isDisabled()) return;
    std::vector<std::string> names;
    for (const auto& rule : rules) names.push_back(rule.id);
    localChanges_.rulesDeleted(names);
    pushAllLocalUpdates(1);
}

void SyncManager::handleNotification(std::function<void()> completion) { fetchRemoteChanges(std::move(completion)); }

// --- Pushing -----------------------------------------------------------------------

void SyncManager::pushAllLocalUpdates(int split) {
    if (isDisabled()) return;
    split = std::max(split, 1);
    std::vector<std::shared_ptr<platform::Operation>> operations;
    if (!standard_->string(zoneSubscriptionIDKey)) operations.push_back(subscribeToChangesOperation());
    for (auto& operation : pushLocalChangesOperations(split)) operations.push_back(std::move(operation));
    if (!standard_->boolValue(zoneSavedKey)) {
        auto zoneOperation = saveZoneOperation();
        for (const auto& operation : operations) operation->addDependency(zoneOperation);
        operations.push_back(std::move(zoneOperation));
    }

    const auto status = lastAccountStatus();
    if (status == CKAccountStatus::available) {
        enqueue(std::move(operations));
        return;
    }
    if (status == CKAccountStatus::restricted || status == CKAccountStatus::noAccount) {
        log("Account status: " + accountStatusText(status));
        std::lock_guard lock(mutex_);
        pendingOnAccountUnavailable_ = true;
        return;
    }
    beginWork();
    std::weak_ptr<SyncManager> weak = weak_from_this();
    updateAccountStatus([weak, operations = std::move(operations)](bool available) mutable {
        auto self = weak.lock();
        if (!self) return;
        if (available) {
            self->enqueue(std::move(operations));
        } else {
            // Parked until the account changes, as for a known status.
            std::lock_guard lock(self->mutex_);
            self->pendingOnAccountUnavailable_ = true;
        }
        self->endWork();
    });
}

void SyncManager::enqueue(std::vector<std::shared_ptr<platform::Operation>> operations) {
    {
        std::lock_guard lock(mutex_);
        pendingOnAccountUnavailable_ = false;
    }
    // A running push goes on: what it sends is sent again by the new set
    // only if the server has not confirmed it by then.
    for (const auto& queued : queue_.operations()) {
        if (!queued->isExecuting()) queued->cancel();
    }
    for (auto& operation : operations) queue_.addOperation(std::move(operation));
}

std::vector<std::shared_ptr<platform::CKModifyRecordsOperation>> SyncManager::pushLocalChangesOperations(int split) {
    split = std::max(split, 1);
    const LocalChangesQueue::Changes changes = localChanges_.changes();
    const RecordMetaData::Snapshot snapshot = metaData_.snapshot();

    struct Save {
        std::shared_ptr<CKRecord> record;
        platform::Dictionary fields;
    };
    std::vector<Save> saves;
    for (const auto& [name, fields] : changes.addedPackages) {
        saves.push_back({snapshot.record(name, RecordType::package, fields), fields});
    }
    for (const auto& [name, fields] : changes.addedRules) {
        saves.push_back({snapshot.record(name, RecordType::rule, fields), fields});
    }
    std::vector<CKRecordID> deletions;
    for (const auto* names : {&changes.deletedPackages, &changes.deletedRules}) {
        for (const auto& name : *names) deletions.push_back(CKRecordID{name, zone_.zoneID});
    }

    const std::size_t toSave = saves.size();
    const std::size_t toDelete = deletions.size();
    if (toSave + toDelete == 0) {
        log("No local record changes to push");
        return {};
    }
    log(fmt::format("Records to add/modify {}", toSave));
    log(fmt::format("Records to delete {}", toDelete));
    log(fmt::format("Splitting data into {} operations", split));

    const auto parts = static_cast<std::size_t>(split);
    auto saveBatches = batches(std::move(saves), std::max<std::size_t>(1, toSave / parts));
    auto deleteBatches = batches(std::move(deletions), std::max<std::size_t>(1, toDelete / parts));
    const std::size_t count = std::max(saveBatches.size(), deleteBatches.size());

    std::vector<std::shared_ptr<platform::CKModifyRecordsOperation>> operations;
    std::weak_ptr<SyncManager> weak = weak_from_this();
    for (std::size_t index = 0; index < count; ++index) {
        std::vector<std::shared_ptr<CKRecord>> records;
        std::map<std::string, platform::Dictionary> sent;
        if (index < saveBatches.size()) {
            for (auto& save : saveBatches[index]) {
                sent.emplace(save.record->recordID().recordName, std::move(save.fields));
                records.push_back(std::move(save.record));
            }
        }
        std::vector<CKRecordID> ids = index < deleteBatches.size() ? std::move(deleteBatches[index]) : std::vector<CKRecordID>{};
        auto operation = std::make_shared<platform::CKModifyRecordsOperation>(std::move(records), std::move(ids));
        operation->setDatabase(container_->privateCloudDatabase());
        operation->setQualityOfService(platform::QualityOfService::userInitiated);
        std::weak_ptr<platform::CKModifyRecordsOperation> weakOperation = operation;
        operation->modifyRecordsCompletionBlock = [weak, weakOperation, sent = std::move(sent), split](
                                                      const std::vector<std::shared_ptr<CKRecord>>& saved,
                                                      const std::vector<CKRecordID>& deleted,
                                                      const std::optional<CKError>& error) {
            auto self = weak.lock();
            if (!self) return;
            if (!error) {
                self->pushSucceeded(saved, deleted, sent);
                return;
            }
            self->handleModifyResult(weakOperation.lock(), saved, deleted, error, split);
        };
        operations.push_back(std::move(operation));
    }
    return operations;
}

void SyncManager::pushSucceeded(const std::vector<std::shared_ptr<CKRecord>>& saved, const std::vector<CKRecordID>& deleted,
                                const std::map<std::string, platform::Dictionary>& sent) {
    log("Local changes pushed successfully!");
    {
        SyncStateLock lock(syncStateLockFile(standard_));
        const std::int64_t counter = ubiquitous_->integer(notifyMacAgentFlagKey).value_or(0) + 1;
        ubiquitous_->set(platform::Value(counter), notifyMacAgentFlagKey);
    }
    ubiquitous_->synchronize();
    if (configuration_.agentNotice) agentLogger.info("Sent TamselAgent HACKY notification to fetch changes from CloudKit");

    std::vector<std::shared_ptr<const CKRecord>> records(saved.begin(), saved.end());
    metaData_.store(records);
    std::vector<std::string> deletedNames;
    for (const auto& id : deleted) deletedNames.push_back(id.recordName);
    metaData_.remove(deletedNames);
    std::map<std::string, platform::Dictionary> confirmed;
    for (const auto& record : saved) {
        if (auto entry = sent.find(record->recordID().recordName); entry != sent.end()) confirmed.insert(*entry);
    }
    localChanges_.confirm(confirmed, deletedNames);
    std::lock_guard lock(mutex_);
    totals_.recordsSaved += saved.size();
    totals_.recordsDeleted += deleted.size();
}

void SyncManager::handleModifyResult(const std::shared_ptr<platform::CKModifyRecordsOperation>& operation,
                                     const std::vector<std::shared_ptr<CKRecord>>&, const std::vector<CKRecordID>&,
                                     const std::optional<CKError>& error, int split) {
    if (!error) return;
    // A newer push replaced this one; it carries the same changes.
    if (error->code == Code::operationCancelled) return;
    {
        std::lock_guard lock(mutex_);
        ++totals_.pushFailures;
    }
    auto [primary, recordName] = primaryError(*error);
    if (recordName.empty() && operation) {
        // A whole-request failure names no record; an operation of one
        // record, or a record the reason names, is the one meant.
        std::vector<std::string> names;
        for (const auto& record : operation->recordsToSave()) names.push_back(record->recordID().recordName);
        for (const auto& id : operation->recordIDsToDelete()) names.push_back(id.recordName);
        if (names.size() == 1) {
            recordName = names.front();
        } else {
            for (const auto& name : names) {
                if (primary.description.find(name) != std::string::npos && name.size() > recordName.size()) recordName = name;
            }
        }
    }
    log((recordName.empty() ? std::string("Modify records operation") : recordName) + " " + primary.localizedDescription());

    switch (primary.code) {
        case Code::networkFailure:
        case Code::networkUnavailable:
        case Code::serviceUnavailable:
        case Code::requestRateLimited:
        case Code::zoneBusy:
            repushLocalChangesAfter(primary.retryAfterSeconds.value_or(lastRequestDelay()));
            return;
        case Code::notAuthenticated: {
            {
                std::lock_guard lock(mutex_);
                lastAccountStatus_.reset();
                pendingOnAccountUnavailable_ = true;
            }
            queue_.cancelAllOperations();
            return;
        }
        case Code::invalidArguments:
            if (recordName.empty()) {
                repushLocalChangesAfter(lastRequestDelay());
                return;
            }
            localChanges_.drop(recordName);
            pushAllLocalUpdates(1);
            return;
        case Code::serverRecordChanged:
            if (error->code == Code::partialFailure && error->partialErrors) {
                for (const auto& item : *error->partialErrors) {
                    if (item.error.code == Code::serverRecordChanged) merge(item.error);
                }
            } else {
                merge(*error);
            }
            pushAllLocalUpdates(1);
            return;
        case Code::unknownItem:
            // Saved over a record that another device deleted meanwhile: the
            // edit wins, and the record is made again.
            if (!recordName.empty()) {
                metaData_.remove({recordName});
                pushAllLocalUpdates(1);
            } else {
                repushLocalChangesAfter(lastRequestDelay());
            }
            return;
        case Code::zoneNotFound:
            standard_->set(platform::Value(false), zoneSavedKey);
            pushAllLocalUpdates(1);
            return;
        case Code::limitExceeded:
            pushAllLocalUpdates(split * 2);
            return;
        default:
            repushLocalChangesAfter(lastRequestDelay());
            return;
    }
}

void SyncManager::merge(const CKError& conflict) {
    if (!conflict.serverRecord || !conflict.clientRecord) {
        log("Merge failed: the conflict carries no server record");
        return;
    }
    const CKRecord& server = *conflict.serverRecord;
    const CKRecord& client = *conflict.clientRecord;
    const CKRecord ancestor =
        conflict.ancestorRecord ? *conflict.ancestorRecord : CKRecord(client.recordType(), client.recordID());
    const std::string& name = server.recordID().recordName;
    log("Merging " + name);
    if (server.recordType() != RecordType::package && server.recordType() != RecordType::rule) {
        log("Merge failed: incorrect record " + server.recordType());
        return;
    }
    const MergeResult result = mergeRecords(server, client, ancestor);
    if (result.outcome == MergeResult::Outcome::fullDuplicate) {
        localChanges_.drop(name);
        log("Local record is a full duplicate of server version, minus metadata");
        metaData_.store({std::make_shared<const CKRecord>(server)});
        return;
    }
    const CKRecord& merged = *result.record;
    bool applied = false;
    if (merged.recordType() == RecordType::package) {
        if (auto package = packageFromRecord(merged)) {
            auto editing = dataManager_.beginEditing();
            dataManager_.addOrReplaceCustomPackage(*package);
            dataManager_.savePackages({model::JSONFileName::blockCustom}, false);
            applied = true;
        }
    } else if (const auto packageName = packageRecordName(merged)) {
        if (auto rule = ruleFromRecord(merged)) {
            auto editing = dataManager_.beginEditing();
            dataManager_.setRule(*rule, *packageName);
            dataManager_.savePackages({model::JSONFileName::blockConfigurable, model::JSONFileName::blockCustom},
                                      rule->blocker.action.type == model::ActionType::ignorePreviousRules);
            applied = true;
        }
    }
    if (!applied) {
        log("MERGE WARNING " + merged.description());
    } else {
        // The next push sends the merged fields on the server's version.
        localChanges_.setAdded(name, merged.recordType() == RecordType::package, dictionaryFields(merged.fields()));
    }
    // The server's version, with its change tag and fields, is the base of
    // the next push.
    metaData_.store({std::make_shared<const CKRecord>(server)});
}

void SyncManager::repushLocalChangesAfter(double seconds) {
    log("Retrying data push in " + secondsText(seconds) + " secs ...");
    std::weak_ptr<SyncManager> weak = weak_from_this();
    auto block = [weak] {
        if (auto self = weak.lock()) self->pushAllLocalUpdates(1);
    };
    const std::chrono::duration<double> delay(seconds);
    if (configuration_.scheduleAfter) {
        configuration_.scheduleAfter(delay, std::move(block));
    } else {
        platform::DispatchQueue::main().asyncAfter(
            std::chrono::duration_cast<std::chrono::steady_clock::duration>(delay),
            [block = std::move(block)] { block(); });
    }
    std::lock_guard lock(mutex_);
    lastRequestDelay_ = lastRequestDelay_ * lastRequestDelay_;
}

std::shared_ptr<platform::CKModifyRecordZonesOperation> SyncManager::saveZoneOperation() {
    auto operation = std::make_shared<platform::CKModifyRecordZonesOperation>(std::vector{zone_},
                                                                             std::vector<platform::CKRecordZoneID>{});
    operation->setDatabase(container_->privateCloudDatabase());
    std::weak_ptr<SyncManager> weak = weak_from_this();
    operation->modifyRecordZonesCompletionBlock = [weak](const auto&, const auto&, const std::optional<CKError>& error) {
        auto self = weak.lock();
        if (!self) return;
        if (!error) {
            log("Zone saved successfully!");
            self->standard_->set(platform::Value(true), zoneSavedKey);
        } else if (saysExists(*error)) {
            log("Zone already exists (?)");
            self->standard_->set(platform::Value(true), zoneSavedKey);
        } else if (error->code != Code::operationCancelled) {
            log("Couldn't save zone");
        }
    };
    return operation;
}

std::shared_ptr<platform::CKModifySubscriptionsOperation> SyncManager::subscribeToChangesOperation() {
    platform::CKRecordZoneSubscription subscription{zone_.zoneID, platform::newUUIDString(), {true}};
    auto operation = std::make_shared<platform::CKModifySubscriptionsOperation>(std::vector{subscription},
                                                                               std::vector<std::string>{});
    operation->setDatabase(container_->privateCloudDatabase());
    operation->setQualityOfService(platform::QualityOfService::userInitiated);
    std::weak_ptr<SyncManager> weak = weak_from_this();
    operation->modifySubscriptionsCompletionBlock = [weak](const auto& saved, const auto&, const std::optional<CKError>& error) {
        auto self = weak.lock();
        if (!self) return;
        if (!error && !saved.empty()) {
            log("Subscription saved successfully! ID: " + saved.front().subscriptionID);
            self->standard_->set(platform::Value(saved.front().subscriptionID), zoneSubscriptionIDKey);
        } else if (error && saysExists(*error)) {
            log("Subscription already exists (?)");
        } else if (!error || error->code != Code::operationCancelled) {
            log("Couldn't save subscription");
        }
    };
    return operation;
}

// --- Account -----------------------------------------------------------------------

void SyncManager::updateAccountStatus(std::function<void(bool available)> completion) {
    log("Checking account status...");
    beginWork();
    std::weak_ptr<SyncManager> weak = weak_from_this();
    container_->accountStatus([weak, completion = std::move(completion)](CKAccountStatus status, std::optional<CKError>) {
        auto self = weak.lock();
        if (!self) return;
        {
            std::lock_guard lock(self->mutex_);
            self->lastAccountStatus_ = status;
        }
        log("Current account status: " + accountStatusText(status));
        if (completion) completion(status == CKAccountStatus::available);
        self->endWork();
    });
}

void SyncManager::accountStatusChanged() {
    if (isDisabled()) return;
    log("Account status changed!");
    std::weak_ptr<SyncManager> weak = weak_from_this();
    updateAccountStatus([weak](bool available) {
        auto self = weak.lock();
        if (self && available && self->pendingOnAccountUnavailable()) self->pushAllLocalUpdates(1);
    });
}

// --- Fetching ------------------------------------------------------------------------

void SyncManager::fetchRemoteChanges(std::function<void()> completion) {
    if (isDisabled()) {
        if (completion) completion();
        return;
    }
    beginWork();
    fetch(std::move(completion));
}

void SyncManager::fetch(std::function<void()> completion) {
    log("Fetching from remote changes...");
    platform::CKFetchRecordZoneChangesOperation::ZoneConfiguration zoneConfiguration;
    zoneConfiguration.previousServerChangeToken = serverToken();
    zoneConfiguration.resultsLimit = configuration_.fetchResultsLimit;
    auto operation = std::make_shared<platform::CKFetchRecordZoneChangesOperation>(
        std::vector{zone_.zoneID},
        std::unordered_map<platform::CKRecordZoneID, platform::CKFetchRecordZoneChangesOperation::ZoneConfiguration>{
            {zone_.zoneID, zoneConfiguration}});
    // Paging is done here, one page per operation, so that each page's token
    // is stored with the records it covers.
    operation->fetchAllChanges = false;
    operation->setQualityOfService(platform::QualityOfService::userInitiated);
    std::weak_ptr<SyncManager> weak = weak_from_this();
    operation->recordChangedBlock = [weak](const std::shared_ptr<CKRecord>& record) {
        auto self = weak.lock();
        if (!self) return;
        std::lock_guard lock(self->mutex_);
        self->fetchedRecords_.push_back(record);
        self->resultsHandler_.recordChanged(*record);
    };
    operation->recordWithIDWasDeletedBlock = [weak](const CKRecordID& id, const std::string&) {
        auto self = weak.lock();
        if (!self) return;
        std::lock_guard lock(self->mutex_);
        self->fetchedDeletions_.push_back(id.recordName);
        self->resultsHandler_.recordDeleted(id.recordName);
    };
    operation->recordZoneFetchCompletionBlock = [weak, completion](const platform::CKRecordZoneID&,
                                                                   const std::optional<platform::CKServerChangeToken>& token,
                                                                   bool moreComing, const std::optional<CKError>& error) {
        auto self = weak.lock();
        if (!self) return;
        std::vector<std::shared_ptr<const CKRecord>> records;
        std::vector<std::string> deletions;
        ResultsHandler results;
        {
            std::lock_guard lock(self->mutex_);
            records.swap(self->fetchedRecords_);
            deletions.swap(self->fetchedDeletions_);
            std::swap(results, self->resultsHandler_);
        }
        // A record with a local change still waiting keeps it: the change is
        // not overwritten here, and its push is merged against the server's
        // version by the conflict it meets (so its base stays the old one).
        const auto pending = self->localChanges_.changes();
        const auto waiting = [&pending](const std::string& name) {
            return pending.addedPackages.contains(name) || pending.addedRules.contains(name) ||
                   std::find(pending.deletedPackages.begin(), pending.deletedPackages.end(), name) !=
                       pending.deletedPackages.end() ||
                   std::find(pending.deletedRules.begin(), pending.deletedRules.end(), name) != pending.deletedRules.end();
        };
        std::erase_if(records, [&pending](const std::shared_ptr<const CKRecord>& record) {
            const auto& name = record->recordID().recordName;
            return pending.addedPackages.contains(name) || pending.addedRules.contains(name);
        });
        results.dropPending(waiting);
        self->metaData_.store(records);
        // An edit waiting for a record deleted elsewhere is sent as a new record.
        self->metaData_.remove(deletions);
        if (token) self->setServerToken(token);

        if (error) {
            if (error->code == Code::changeTokenExpired) {
                log("Token expired, replacing it");
                self->setServerToken(std::nullopt);
                self->fetch(completion);
                return;
            }
            if (error->code == Code::zoneNotFound) {
                log("Zone not found, will create one...");
                self->standard_->set(platform::Value(false), zoneSavedKey);
                self->pushAllLocalUpdates(1);
            } else {
                log(error->localizedDescription());
            }
            if (completion) completion();
            self->endWork();
            return;
        }

        const auto applied = results.apply(self->dataManager_);
        {
            std::lock_guard lock(self->mutex_);
            self->totals_.fetched.packages += applied.packages;
            self->totals_.fetched.rules += applied.rules;
            self->totals_.fetched.deleted += applied.deleted;
            ++self->totals_.fetches;
        }
        if (moreComing) {
            log("more coming...");
            self->fetch(completion);
            return;
        }
        log("Finished remote changes fetch");
        if (completion) completion();
        self->pushAllLocalUpdates(1);
        self->endWork();
    };
    container_->privateCloudDatabase()->addOperation(operation);
}

}  // namespace tamsel::sync
