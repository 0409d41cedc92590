#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cloud/SQLDatabase.h"
#include "platform/CKWire.h"

// What the cloud server keeps: accounts, and per database its zones, records,
// subscriptions and key-value items. Every call is one transaction of the SQL
// database, so a server killed mid-request leaves the database as it was
// before or after that request, never between.
//
// Change numbers: each zone has a counter. A write transaction first locks
// the zone's row, then gives every record it saves or deletes the next
// number, and stores the last one back; commit order is therefore number
// order, on SQLite and on PostgreSQL alike. A change token is an opaque
// encoding of (zone instance, number). Deleted records stay as deleted
// markers until a purge, which raises the zone's horizon: a token below the
// horizon, or of an earlier instance of the zone, has expired.
namespace tamsel::cloud {

using platform::CKRecordFields;
using platform::ckwire::ServerErrorCode;

struct ServerError {
    ServerErrorCode code = ServerErrorCode::internalError;
    std::string reason;
    std::optional<int> retryAfter;
};

// One database: a container, an environment, and "private" (with its owner)
// or "public".
struct DatabaseScope {
    std::string container;
    std::string environment;
    bool isPublic = false;
    std::string owner;  // the user of a private database; empty for public

    std::string key() const;
    // A container whose name ends in ".Report" takes problem reports.
    bool isReportContainer() const;
};

struct UserInfo {
    std::string name;
    bool admin = false;
    std::string userRecordName;
    std::int64_t createdMilliseconds = 0;
};

struct StoredRecord {
    std::string recordName;
    std::string recordType;
    std::string changeTag;
    bool deleted = false;
    CKRecordFields fields;
    std::int64_t createdMilliseconds = 0;
    std::string createdBy;
    std::int64_t modifiedMilliseconds = 0;
    std::string modifiedBy;
};

enum class RecordOperationType { create, update, forceUpdate, replace, forceReplace, remove, forceDelete };
std::optional<RecordOperationType> recordOperationTypeFromRawValue(std::string_view raw);

struct RecordOperation {
    RecordOperationType type = RecordOperationType::create;
    std::string recordName;
    std::string recordType;
    std::optional<std::string> changeTag;
    CKRecordFields fields;
    // Fields sent with a null value: an update removes them.
    std::set<std::string> removedFields;
};

// One record's answer: the record (saved, found, or the deleted marker), or
// an error with, for conflicts, the server's current record.
struct RecordResult {
    std::string recordName;
    std::optional<StoredRecord> record;
    std::optional<ServerError> error;
    std::optional<StoredRecord> serverRecord;
};

struct ZoneInfo {
    std::string zoneName;
    std::string syncToken;
};

struct ZoneChanges {
    std::vector<StoredRecord> records;  // changed records and deleted markers, in change order
    std::string syncToken;
    bool moreComing = false;
};

struct ZoneResult {
    std::string zoneName;
    bool deleted = false;
    std::optional<ServerError> error;
};

enum class SubscriptionOperationType { create, update, remove };
struct SubscriptionOperation {
    SubscriptionOperationType type = SubscriptionOperationType::create;
    std::string subscriptionID;
    std::string zoneName;
    std::string body;  // the subscription's JSON as sent, answered back
};
struct SubscriptionResult {
    std::string subscriptionID;
    std::optional<std::string> body;
    std::optional<ServerError> error;
};

struct ReportRecord {
    std::string container;
    std::string environment;
    StoredRecord record;
};

struct KeyValueItem {
    std::string key;
    std::optional<std::string> value;  // none: removed
    std::int64_t deviceMilliseconds = 0;
};
struct KeyValueResult {
    std::string key;
    bool applied = false;  // false: the stored item was newer
    std::optional<ServerError> error;
};
struct KeyValueChanges {
    std::vector<KeyValueItem> items;
    std::int64_t syncNumber = 0;
};

class CloudStore {
public:
    static constexpr std::size_t maximumKeyValueKeys = 1024;
    static constexpr std::size_t maximumKeyValueBytes = 1024 * 1024;

    explicit CloudStore(std::unique_ptr<SQLDatabase> database);
    ~CloudStore();

    SQLDatabase& database() { return *database_; }

    // Accounts. Names are 1 to 64 of A-Z a-z 0-9 . _ - @. A token is 64
    // random hexadecimal digits, kept only as its SHA-256.
    std::expected<std::string, std::string> addUser(const std::string& name, bool admin);
    bool removeUser(const std::string& name);
    std::optional<std::string> revokeToken(const std::string& name);
    std::vector<UserInfo> users();
    std::optional<UserInfo> authenticate(const std::string& token);

    std::expected<std::vector<RecordResult>, ServerError> modifyRecords(const DatabaseScope& scope,
                                                                        const std::string& zone,
                                                                        const std::vector<RecordOperation>& operations,
                                                                        bool atomic, const UserInfo& user);
    std::expected<std::vector<RecordResult>, ServerError> lookupRecords(const DatabaseScope& scope,
                                                                        const std::string& zone,
                                                                        const std::vector<std::string>& names);
    // Live records of a type, oldest change first, from `offset` on.
    std::expected<std::pair<std::vector<StoredRecord>, std::optional<std::int64_t>>, ServerError> queryRecords(
        const DatabaseScope& scope, const std::string& zone, const std::string& recordType, int limit,
        std::int64_t offset);
    std::expected<ZoneChanges, ServerError> zoneChanges(const DatabaseScope& scope, const std::string& zone,
                                                        const std::optional<std::string>& syncToken, int limit);

    std::vector<ZoneInfo> listZones(const DatabaseScope& scope);
    std::vector<ZoneResult> modifyZones(const DatabaseScope& scope, const std::vector<std::pair<bool, std::string>>& operations);

    std::vector<SubscriptionResult> modifySubscriptions(const DatabaseScope& scope,
                                                        const std::vector<SubscriptionOperation>& operations);
    // The subscriptions of the database on `zone`.
    std::vector<std::string> subscriptionsOnZone(const DatabaseScope& scope, const std::string& zone);

    // Forgets every deleted marker of the zone and raises its horizon to its
    // latest change. False when there is no such zone.
    bool purgeDeletedRecords(const DatabaseScope& scope, const std::string& zone);

    // Every "Report" record of the public databases of report containers,
    // newest first.
    std::vector<ReportRecord> reports();

    // The key-value store of one database: last writer wins by the writing
    // device's time; at most maximumKeyValueKeys keys and
    // maximumKeyValueBytes of keys and values.
    std::vector<KeyValueResult> modifyKeyValues(const DatabaseScope& scope, const std::vector<KeyValueItem>& items);
    KeyValueChanges keyValueChanges(const DatabaseScope& scope, std::int64_t since);

private:
    void createSchema();
    std::unique_ptr<SQLDatabase> database_;
};

std::string sha256Hex(std::string_view bytes);

}  // namespace tamsel::cloud
