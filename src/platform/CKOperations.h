#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/CKContainer.h"
#include "platform/CKError.h"
#include "platform/CKRecord.h"
#include "platform/Operation.h"
#include "platform/QualityOfService.h"

// The cloud operations the program uses, after CloudKit's. Each runs on the
// queue it is added to (CKDatabase::addOperation puts it on the database's
// own), sends its requests from there, and calls its blocks on that same
// thread, in order, the completion block last. Cancelling stops a request in
// flight; the blocks then report operationCancelled, and so do those of an
// operation cancelled before it started.
//
// The operation's own completion block (Operation::setCompletionBlock) is
// used to report a cancellation before the start; set the blocks below
// instead.
namespace tamsel::platform {

class CKOperation : public Operation {
public:
    CKOperation();

    QualityOfService qualityOfService() const { return qualityOfService_; }
    void setQualityOfService(QualityOfService qos) { qualityOfService_ = qos; }

    void main() final;

protected:
    virtual void run() = 0;
    // Reports `error` through the operation's blocks (every item failed).
    virtual void fail(const CKError& error) = 0;
    std::function<bool()> cancellationCheck() {
        return [this] { return isCancelled(); };
    }

private:
    QualityOfService qualityOfService_ = QualityOfService::defaultQoS;
    std::atomic<bool> ran_ = false;
};

class CKDatabaseOperation : public CKOperation {
public:
    void setDatabase(std::shared_ptr<CKDatabase> database) { database_ = std::move(database); }
    const std::shared_ptr<CKDatabase>& database() const { return database_; }

protected:
    // The request to the operation's database.
    std::expected<std::string, CKError> send(const std::string& endpoint, const std::string& body);

private:
    std::shared_ptr<CKDatabase> database_;
};

class CKModifyRecordsOperation : public CKDatabaseOperation {
public:
    enum class SavePolicy {
        // A record with a change tag is saved only if the server's is the
        // same; a record without one only if the server has none of its name.
        ifServerRecordUnchanged,
        // Overwrites the server's values of the changed keys.
        changedKeys,
        // Overwrites the whole server record.
        allKeys,
    };

    CKModifyRecordsOperation(std::vector<std::shared_ptr<CKRecord>> recordsToSave,
                             std::vector<CKRecordID> recordIDsToDelete);

    SavePolicy savePolicy = SavePolicy::ifServerRecordUnchanged;
    // In a custom zone: all or nothing.
    bool atomic = true;

    // The saved record is the one given, updated with the server's system
    // fields; on failure it is as given.
    std::function<void(const CKRecordID&, const std::shared_ptr<CKRecord>&, const std::optional<CKError>&)>
        perRecordSaveBlock;
    std::function<void(const CKRecordID&, const std::optional<CKError>&)> perRecordDeleteBlock;
    // Any failed item makes the error a partialFailure with each item's own.
    std::function<void(const std::vector<std::shared_ptr<CKRecord>>&, const std::vector<CKRecordID>&,
                       const std::optional<CKError>&)>
        modifyRecordsCompletionBlock;

    const std::vector<std::shared_ptr<CKRecord>>& recordsToSave() const { return recordsToSave_; }
    const std::vector<CKRecordID>& recordIDsToDelete() const { return recordIDsToDelete_; }

protected:
    void run() override;
    void fail(const CKError& error) override;

private:
    std::vector<std::shared_ptr<CKRecord>> recordsToSave_;
    std::vector<CKRecordID> recordIDsToDelete_;
};

class CKModifyRecordZonesOperation : public CKDatabaseOperation {
public:
    CKModifyRecordZonesOperation(std::vector<CKRecordZone> recordZonesToSave,
                                 std::vector<CKRecordZoneID> recordZoneIDsToDelete);

    std::function<void(const std::vector<CKRecordZone>&, const std::vector<CKRecordZoneID>&,
                       const std::optional<CKError>&)>
        modifyRecordZonesCompletionBlock;

protected:
    void run() override;
    void fail(const CKError& error) override;

private:
    std::vector<CKRecordZone> recordZonesToSave_;
    std::vector<CKRecordZoneID> recordZoneIDsToDelete_;
};

class CKModifySubscriptionsOperation : public CKDatabaseOperation {
public:
    CKModifySubscriptionsOperation(std::vector<CKRecordZoneSubscription> subscriptionsToSave,
                                   std::vector<std::string> subscriptionIDsToDelete);

    // A subscription whose ID exists already fails with
    // serverRejectedRequest and serverErrorCode "EXISTS".
    std::function<void(const std::vector<CKRecordZoneSubscription>&, const std::vector<std::string>&,
                       const std::optional<CKError>&)>
        modifySubscriptionsCompletionBlock;

protected:
    void run() override;
    void fail(const CKError& error) override;

private:
    std::vector<CKRecordZoneSubscription> subscriptionsToSave_;
    std::vector<std::string> subscriptionIDsToDelete_;
};

class CKFetchRecordZoneChangesOperation : public CKDatabaseOperation {
public:
    struct ZoneConfiguration {
        std::optional<CKServerChangeToken> previousServerChangeToken;
        std::optional<int> resultsLimit;
    };

    CKFetchRecordZoneChangesOperation(std::vector<CKRecordZoneID> recordZoneIDs,
                                      std::unordered_map<CKRecordZoneID, ZoneConfiguration> configurations = {});

    // True: keeps asking while the server has more (moreComing then always
    // comes back false). False: one page per zone.
    bool fetchAllChanges = true;

    std::function<void(const std::shared_ptr<CKRecord>&)> recordChangedBlock;
    std::function<void(const CKRecordID&, const std::string& recordType)> recordWithIDWasDeletedBlock;
    // After each page that is not the zone's last: the records so far are
    // safe to keep along with this token.
    std::function<void(const CKRecordZoneID&, const std::optional<CKServerChangeToken>&)>
        recordZoneChangeTokensUpdatedBlock;
    std::function<void(const CKRecordZoneID&, const std::optional<CKServerChangeToken>&, bool moreComing,
                       const std::optional<CKError>&)>
        recordZoneFetchCompletionBlock;
    // A failed zone makes the error a partialFailure with each zone's own.
    std::function<void(const std::optional<CKError>&)> fetchRecordZoneChangesCompletionBlock;

protected:
    void run() override;
    void fail(const CKError& error) override;

private:
    std::vector<CKRecordZoneID> recordZoneIDs_;
    std::unordered_map<CKRecordZoneID, ZoneConfiguration> configurations_;
};

}  // namespace tamsel::platform
