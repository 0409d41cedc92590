#include "cloud/CloudStore.h"

#include <openssl/evp.h>

#include <algorithm>
#include <map>
#include <chrono>
#include <random>

#include <fmt/format.h>

#include "platform/Text.h"
#include "platform/UUID.h"
#include "platform/Value.h"

namespace tamsel::cloud {
namespace {

using platform::ckwire::fieldsJSON;

std::int64_t nowMilliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

ServerError error(ServerErrorCode code, std::string reason, std::optional<int> retryAfter = std::nullopt) {
    return ServerError{code, std::move(reason), retryAfter};
}

bool isValidUserName(std::string_view name) {
    if (name.empty() || name.size() > 64) return false;
    return std::ranges::all_of(name, [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
               c == '-' || c == '@';
    });
}

std::string newToken() {
    std::random_device device;
    std::string token;
    for (int i = 0; i < 8; ++i) token += fmt::format("{:08x}", device());
    return token;
}

std::string changeTag(const std::string& instance, std::int64_t number) {
    return fmt::format("{}-{:x}", instance.substr(0, 8), number);
}

std::string encodeToken(const std::string& instance, std::int64_t number) {
    const std::string plain = fmt::format("z1:{}:{}", instance, number);
    return platform::base64Encode(platform::Data(plain.begin(), plain.end()));
}

struct DecodedToken {
    std::string instance;
    std::int64_t number = 0;
};

std::optional<DecodedToken> decodeToken(std::string_view token) {
    auto data = platform::base64Decode(token);
    if (!data) return std::nullopt;
    const std::string plain(data->begin(), data->end());
    if (!plain.starts_with("z1:")) return std::nullopt;
    const auto colon = plain.rfind(':');
    if (colon <= 3) return std::nullopt;
    DecodedToken decoded{plain.substr(3, colon - 3), 0};
    const std::string digits = plain.substr(colon + 1);
    if (digits.empty() || digits.size() > 18 || !std::ranges::all_of(digits, [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    decoded.number = std::stoll(digits);
    return decoded;
}

// The columns every record query reads, in StoredRecord order.
constexpr std::string_view recordColumns =
    "name, type, tag, deleted, fields, created_ms, created_by, modified_ms, modified_by, seq";

StoredRecord recordFromRow(const SQLRow& row) {
    StoredRecord record;
    record.recordName = row.text(0);
    record.recordType = row.text(1);
    record.changeTag = row.text(2);
    record.deleted = row.integer(3) != 0;
    if (!record.deleted) {
        simdjson::dom::parser parser;
        simdjson::dom::element element;
        if (parser.parse(row.text(4)).get(element) == simdjson::SUCCESS) {
            if (auto fields = platform::ckwire::readFields(element)) record.fields = std::move(*fields);
        }
    }
    record.createdMilliseconds = row.integer(5);
    record.createdBy = row.text(6);
    record.modifiedMilliseconds = row.integer(7);
    record.modifiedBy = row.text(8);
    return record;
}

struct ZoneRow {
    std::string instance;
    std::int64_t changeNumber = 0;
    std::int64_t purgedNumber = 0;
};

void ensureDefaultZone(SQLConnection& sql, const std::string& scope, const std::string& zone) {
    if (zone != platform::CKRecordZoneID::defaultZoneName) return;
    sql.execute(
        "INSERT INTO zones(scope, zone, instance, change_seq, purged_seq) VALUES(?1, ?2, ?3, 0, 0) "
        "ON CONFLICT(scope, zone) DO NOTHING",
        {scope, zone, platform::newUUIDString()});
}

// Reads the zone and, in a write transaction, locks its row until commit: the
// no-op update takes PostgreSQL's row lock, and SQLite's transactions are
// exclusive already.
std::optional<ZoneRow> lockZone(SQLConnection& sql, const std::string& scope, const std::string& zone) {
    ensureDefaultZone(sql, scope, zone);
    auto row = sql.queryOne(
        "UPDATE zones SET change_seq = change_seq WHERE scope = ?1 AND zone = ?2 "
        "RETURNING instance, change_seq, purged_seq",
        {scope, zone});
    if (!row) return std::nullopt;
    return ZoneRow{row->text(0), row->integer(1), row->integer(2)};
}

std::optional<ZoneRow> readZone(SQLConnection& sql, const std::string& scope, const std::string& zone) {
    auto row = sql.queryOne("SELECT instance, change_seq, purged_seq FROM zones WHERE scope = ?1 AND zone = ?2",
                            {scope, zone});
    if (!row) {
        if (zone != platform::CKRecordZoneID::defaultZoneName) return std::nullopt;
        // The default zone exists in every database, written to or not.
        return lockZone(sql, scope, zone);
    }
    return ZoneRow{row->text(0), row->integer(1), row->integer(2)};
}

std::optional<StoredRecord> loadRecord(SQLConnection& sql, const std::string& scope, const std::string& zone,
                                       const std::string& name) {
    auto row = sql.queryOne(fmt::format("SELECT {} FROM records WHERE scope = ?1 AND zone = ?2 AND name = ?3",
                                        recordColumns),
                            {scope, zone, name});
    if (!row) return std::nullopt;
    return recordFromRow(*row);
}

// The records of these names that the zone holds (live or deleted), in few
// statements: a round trip to PostgreSQL costs more than the work.
std::map<std::string, StoredRecord> loadRecords(SQLConnection& sql, const std::string& scope, const std::string& zone,
                                                const std::vector<std::string>& names) {
    std::map<std::string, StoredRecord> records;
    constexpr std::size_t chunk = 200;
    for (std::size_t first = 0; first < names.size(); first += chunk) {
        const std::size_t count = std::min(chunk, names.size() - first);
        std::string placeholders;
        SQLParameters parameters{scope, zone};
        for (std::size_t i = 0; i < count; ++i) {
            placeholders += fmt::format("{}?{}", i ? ", " : "", i + 3);
            parameters.emplace_back(names[first + i]);
        }
        for (const auto& row : sql.query(fmt::format("SELECT {} FROM records WHERE scope = ?1 AND zone = ?2 AND "
                                                     "name IN ({})",
                                                     recordColumns, placeholders),
                                         parameters)) {
            auto record = recordFromRow(row);
            records.insert_or_assign(record.recordName, std::move(record));
        }
    }
    return records;
}

struct PendingWrite {
    StoredRecord record;
    std::int64_t number = 0;
    std::string fields;
};

// Several rows a statement; the names are distinct (one operation per record).
void storeRecords(SQLConnection& sql, const std::string& scope, const std::string& zone,
                  const std::vector<PendingWrite>& writes) {
    constexpr std::size_t chunk = 100;
    constexpr std::size_t columns = 12;
    for (std::size_t first = 0; first < writes.size(); first += chunk) {
        const std::size_t count = std::min(chunk, writes.size() - first);
        std::string values;
        SQLParameters parameters;
        parameters.reserve(count * columns);
        for (std::size_t i = 0; i < count; ++i) {
            values += i ? ", (" : "(";
            for (std::size_t c = 0; c < columns; ++c) values += fmt::format("{}?{}", c ? ", " : "", i * columns + c + 1);
            values += ")";
            const PendingWrite& write = writes[first + i];
            const StoredRecord& record = write.record;
            parameters.insert(parameters.end(),
                              {scope, zone, record.recordName, record.recordType, record.changeTag, write.number,
                               std::int64_t{record.deleted ? 1 : 0}, record.deleted ? std::string("{}") : write.fields,
                               record.createdMilliseconds, record.createdBy, record.modifiedMilliseconds,
                               record.modifiedBy});
        }
        sql.execute(fmt::format(
                        "INSERT INTO records(scope, zone, name, type, tag, seq, deleted, fields, created_ms, created_by, "
                        "modified_ms, modified_by) VALUES {} "
                        "ON CONFLICT(scope, zone, name) DO UPDATE SET type = excluded.type, tag = excluded.tag, "
                        "seq = excluded.seq, deleted = excluded.deleted, fields = excluded.fields, "
                        "created_ms = excluded.created_ms, created_by = excluded.created_by, "
                        "modified_ms = excluded.modified_ms, modified_by = excluded.modified_by",
                        values),
                    parameters);
    }
}

// Thrown inside a transaction to roll it back and answer with the results
// gathered so far.
struct RollBack {};

}  // namespace

std::string sha256Hex(std::string_view bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) hex += fmt::format("{:02x}", digest[i]);
    return hex;
}

std::string DatabaseScope::key() const {
    return container + "/" + environment + (isPublic ? std::string("/public") : "/private/" + owner);
}

bool DatabaseScope::isReportContainer() const { return container.ends_with(".Report"); }

std::optional<RecordOperationType> recordOperationTypeFromRawValue(std::string_view raw) {
    if (raw == "create") return RecordOperationType::create;
    if (raw == "update") return RecordOperationType::update;
    if (raw == "forceUpdate") return RecordOperationType::forceUpdate;
    if (raw == "replace") return RecordOperationType::replace;
    if (raw == "forceReplace") return RecordOperationType::forceReplace;
    if (raw == "delete") return RecordOperationType::remove;
    if (raw == "forceDelete") return RecordOperationType::forceDelete;
    return std::nullopt;
}

CloudStore::CloudStore(std::unique_ptr<SQLDatabase> database) : database_(std::move(database)) { createSchema(); }

CloudStore::~CloudStore() = default;

void CloudStore::createSchema() {
    static constexpr std::string_view statements[] = {
        "CREATE TABLE IF NOT EXISTS users(name TEXT PRIMARY KEY, token_hash TEXT NOT NULL UNIQUE, "
        "admin BIGINT NOT NULL, record_name TEXT NOT NULL, created_ms BIGINT NOT NULL)",
        "CREATE TABLE IF NOT EXISTS zones(scope TEXT NOT NULL, zone TEXT NOT NULL, instance TEXT NOT NULL, "
        "change_seq BIGINT NOT NULL, purged_seq BIGINT NOT NULL, PRIMARY KEY(scope, zone))",
        "CREATE TABLE IF NOT EXISTS records(scope TEXT NOT NULL, zone TEXT NOT NULL, name TEXT NOT NULL, "
        "type TEXT NOT NULL, tag TEXT NOT NULL, seq BIGINT NOT NULL, deleted BIGINT NOT NULL, fields TEXT NOT NULL, "
        "created_ms BIGINT NOT NULL, created_by TEXT NOT NULL, modified_ms BIGINT NOT NULL, "
        "modified_by TEXT NOT NULL, PRIMARY KEY(scope, zone, name))",
        "CREATE INDEX IF NOT EXISTS records_by_change ON records(scope, zone, seq)",
        "CREATE INDEX IF NOT EXISTS records_by_type ON records(type, deleted)",
        "CREATE TABLE IF NOT EXISTS subscriptions(scope TEXT NOT NULL, id TEXT NOT NULL, zone TEXT NOT NULL, "
        "body TEXT NOT NULL, PRIMARY KEY(scope, id))",
        "CREATE TABLE IF NOT EXISTS kv_items(scope TEXT NOT NULL, key TEXT NOT NULL, value TEXT, "
        "device_ms BIGINT NOT NULL, seq BIGINT NOT NULL, PRIMARY KEY(scope, key))",
        "CREATE TABLE IF NOT EXISTS kv_stores(scope TEXT PRIMARY KEY, change_seq BIGINT NOT NULL)",
    };
    const bool shared = database_->dialect() == "postgresql";
    database_->transaction([shared](SQLConnection& sql) {
        // Servers starting together on one PostgreSQL database would race
        // to create the same tables.
        if (shared) sql.execute("SELECT pg_advisory_xact_lock(7270001)");
        for (auto statement : statements) sql.execute(statement);
    });
}

// MARK: - Accounts

std::expected<std::string, std::string> CloudStore::addUser(const std::string& name, bool admin) {
    if (!isValidUserName(name)) {
        return std::unexpected("a user name is 1 to 64 letters, digits and . _ - @, not \"" + name + "\"");
    }
    const std::string token = newToken();
    bool exists = false;
    database_->transaction([&](SQLConnection& sql) {
        if (sql.queryOne("SELECT 1 FROM users WHERE name = ?1", {name})) {
            exists = true;
            return;
        }
        std::string recordName = "_" + platform::newUUIDString();
        std::erase(recordName, '-');
        sql.execute("INSERT INTO users(name, token_hash, admin, record_name, created_ms) VALUES(?1, ?2, ?3, ?4, ?5)",
                    {name, sha256Hex(token), std::int64_t{admin ? 1 : 0}, platform::lowercased(recordName),
                     nowMilliseconds()});
    });
    if (exists) return std::unexpected("there is already a user \"" + name + "\"");
    return token;
}

bool CloudStore::removeUser(const std::string& name) {
    bool removed = false;
    database_->transaction([&](SQLConnection& sql) {
        removed = sql.queryOne("DELETE FROM users WHERE name = ?1 RETURNING name", {name}).has_value();
    });
    return removed;
}

std::optional<std::string> CloudStore::revokeToken(const std::string& name) {
    const std::string token = newToken();
    bool found = false;
    database_->transaction([&](SQLConnection& sql) {
        found = sql.queryOne("UPDATE users SET token_hash = ?1 WHERE name = ?2 RETURNING name", {sha256Hex(token), name})
                    .has_value();
    });
    if (!found) return std::nullopt;
    return token;
}

std::vector<UserInfo> CloudStore::users() {
    std::vector<UserInfo> result;
    database_->transaction([&](SQLConnection& sql) {
        for (const auto& row : sql.query("SELECT name, admin, record_name, created_ms FROM users ORDER BY name")) {
            result.push_back({row.text(0), row.integer(1) != 0, row.text(2), row.integer(3)});
        }
    });
    return result;
}

std::optional<UserInfo> CloudStore::authenticate(const std::string& token) {
    if (token.empty()) return std::nullopt;
    std::optional<UserInfo> user;
    database_->transaction([&](SQLConnection& sql) {
        auto row = sql.queryOne("SELECT name, admin, record_name, created_ms FROM users WHERE token_hash = ?1",
                                {sha256Hex(token)});
        if (row) user = UserInfo{row->text(0), row->integer(1) != 0, row->text(2), row->integer(3)};
    });
    return user;
}

// MARK: - Records

std::expected<std::vector<RecordResult>, ServerError> CloudStore::modifyRecords(
    const DatabaseScope& scope, const std::string& zone, const std::vector<RecordOperation>& operations, bool atomic,
    const UserInfo& user) {
    const std::string key = scope.key();
    std::vector<RecordResult> results;
    bool zoneMissing = false;
    bool failed = false;
    try {
        database_->transaction([&](SQLConnection& sql) {
            auto zoneRow = lockZone(sql, key, zone);
            if (!zoneRow) {
                zoneMissing = true;
                return;
            }
            std::int64_t number = zoneRow->changeNumber;
            const std::int64_t now = nowMilliseconds();
            std::set<std::string> seen;
            std::vector<std::string> names;
            for (const auto& operation : operations) names.push_back(operation.recordName);
            const auto stored = loadRecords(sql, key, zone, names);
            std::vector<PendingWrite> writes;
            for (const auto& operation : operations) {
                RecordResult result{operation.recordName, {}, {}, {}};
                auto fail = [&](ServerErrorCode code, std::string reason) {
                    result.error = error(code, std::move(reason));
                    failed = true;
                };
                std::optional<StoredRecord> existing;
                if (auto it = stored.find(operation.recordName); it != stored.end()) existing = it->second;
                const bool live = existing && !existing->deleted;
                const bool needsTag = operation.type == RecordOperationType::update ||
                                      operation.type == RecordOperationType::replace ||
                                      operation.type == RecordOperationType::remove;
                const bool isDelete =
                    operation.type == RecordOperationType::remove || operation.type == RecordOperationType::forceDelete;
                if (!seen.insert(operation.recordName).second) {
                    fail(ServerErrorCode::badRequest, "more than one operation on the record");
                } else if (operation.type == RecordOperationType::create && live) {
                    fail(ServerErrorCode::exists, "a record of this name exists");
                    result.serverRecord = existing;
                } else if (needsTag && !operation.changeTag) {
                    fail(ServerErrorCode::badRequest, "the operation needs a recordChangeTag");
                } else if (needsTag && !live) {
                    fail(ServerErrorCode::notFound, "no record of this name");
                } else if (needsTag && *operation.changeTag != existing->changeTag) {
                    fail(ServerErrorCode::conflict, "the recordChangeTag is not the server's; retry with the latest");
                    result.serverRecord = existing;
                } else if (!isDelete && live && !operation.recordType.empty() &&
                           operation.recordType != existing->recordType) {
                    fail(ServerErrorCode::badRequest, "the record is of type \"" + existing->recordType + "\"");
                } else if (!isDelete && operation.recordType.empty() && !live) {
                    fail(ServerErrorCode::badRequest, "a new record needs a recordType");
                } else if (isDelete) {
                    if (live) {
                        StoredRecord marker = *existing;
                        marker.deleted = true;
                        marker.fields.clear();
                        marker.changeTag = changeTag(zoneRow->instance, ++number);
                        marker.modifiedMilliseconds = now;
                        marker.modifiedBy = user.userRecordName;
                        writes.push_back({marker, number, "{}"});
                        result.record = std::move(marker);
                    } else {
                        // Deleting what is gone already is done: no new change.
                        StoredRecord marker;
                        marker.recordName = operation.recordName;
                        marker.deleted = true;
                        result.record = std::move(marker);
                    }
                } else {
                    StoredRecord record;
                    if (live) {
                        record = *existing;
                    } else {
                        record.recordName = operation.recordName;
                        record.recordType = operation.recordType;
                        record.createdMilliseconds = now;
                        record.createdBy = user.userRecordName;
                    }
                    const bool merges = live && (operation.type == RecordOperationType::update ||
                                                 operation.type == RecordOperationType::forceUpdate);
                    if (merges) {
                        for (const auto& [name, value] : operation.fields) record.fields.insert_or_assign(name, value);
                        for (const auto& name : operation.removedFields) record.fields.erase(name);
                    } else {
                        record.fields = operation.fields;
                    }
                    std::string json = fieldsJSON(record.fields);
                    if (json.size() > platform::ckwire::maximumRecordSize) {
                        fail(ServerErrorCode::limitExceeded, "the record is larger than 1 MB");
                    } else {
                        record.deleted = false;
                        record.changeTag = changeTag(zoneRow->instance, ++number);
                        record.modifiedMilliseconds = now;
                        record.modifiedBy = user.userRecordName;
                        writes.push_back({record, number, std::move(json)});
                        result.record = std::move(record);
                    }
                }
                results.push_back(std::move(result));
            }
            if (failed && atomic) throw RollBack{};
            storeRecords(sql, key, zone, writes);
            if (number != zoneRow->changeNumber) {
                sql.execute("UPDATE zones SET change_seq = ?3 WHERE scope = ?1 AND zone = ?2", {key, zone, number});
            }
        });
    } catch (const RollBack&) {
        for (auto& result : results) {
            if (!result.error) {
                result.record.reset();
                result.error = error(ServerErrorCode::atomicError, "another operation of the atomic batch failed");
            }
        }
    }
    if (zoneMissing) return std::unexpected(error(ServerErrorCode::zoneNotFound, "no zone \"" + zone + "\""));
    return results;
}

std::expected<std::vector<RecordResult>, ServerError> CloudStore::lookupRecords(const DatabaseScope& scope,
                                                                                const std::string& zone,
                                                                                const std::vector<std::string>& names) {
    const std::string key = scope.key();
    std::vector<RecordResult> results;
    bool zoneMissing = false;
    database_->transaction([&](SQLConnection& sql) {
        if (!readZone(sql, key, zone)) {
            zoneMissing = true;
            return;
        }
        for (const auto& name : names) {
            RecordResult result{name, {}, {}, {}};
            auto record = loadRecord(sql, key, zone, name);
            if (record && !record->deleted) {
                result.record = std::move(record);
            } else {
                result.error = error(ServerErrorCode::notFound, "no record of this name");
            }
            results.push_back(std::move(result));
        }
    });
    if (zoneMissing) return std::unexpected(error(ServerErrorCode::zoneNotFound, "no zone \"" + zone + "\""));
    return results;
}

std::expected<std::pair<std::vector<StoredRecord>, std::optional<std::int64_t>>, ServerError> CloudStore::queryRecords(
    const DatabaseScope& scope, const std::string& zone, const std::string& recordType, int limit,
    std::int64_t offset) {
    const std::string key = scope.key();
    std::vector<StoredRecord> records;
    std::optional<std::int64_t> next;
    bool zoneMissing = false;
    database_->transaction([&](SQLConnection& sql) {
        if (!readZone(sql, key, zone)) {
            zoneMissing = true;
            return;
        }
        auto rows = sql.query(fmt::format("SELECT {} FROM records WHERE scope = ?1 AND zone = ?2 AND type = ?3 "
                                          "AND deleted = 0 AND seq > ?4 ORDER BY seq LIMIT ?5",
                                          recordColumns),
                              {key, zone, recordType, offset, std::int64_t{limit + 1}});
        for (const auto& row : rows) {
            if (records.size() == static_cast<std::size_t>(limit)) {
                next = rows[records.size() - 1].integer(9);
                break;
            }
            records.push_back(recordFromRow(row));
        }
    });
    if (zoneMissing) return std::unexpected(error(ServerErrorCode::zoneNotFound, "no zone \"" + zone + "\""));
    return std::pair{std::move(records), next};
}

std::expected<ZoneChanges, ServerError> CloudStore::zoneChanges(const DatabaseScope& scope, const std::string& zone,
                                                                const std::optional<std::string>& syncToken,
                                                                int limit) {
    const std::string key = scope.key();
    std::optional<ServerError> failure;
    ZoneChanges changes;
    database_->transaction([&](SQLConnection& sql) {
        // The zone's number first: every change up to it has committed, so
        // nothing below the token handed out can still arrive.
        auto zoneRow = readZone(sql, key, zone);
        if (!zoneRow) {
            failure = error(ServerErrorCode::zoneNotFound, "no zone \"" + zone + "\"");
            return;
        }
        std::int64_t since = 0;
        if (syncToken) {
            auto decoded = decodeToken(*syncToken);
            if (!decoded) {
                failure = error(ServerErrorCode::badRequest, "the syncToken is not a token of this server");
                return;
            }
            if (decoded->instance != zoneRow->instance || decoded->number < zoneRow->purgedNumber ||
                decoded->number > zoneRow->changeNumber) {
                failure = error(ServerErrorCode::changeTokenExpired,
                                "client knowledge differs from server knowledge; fetch again without a token");
                return;
            }
            since = decoded->number;
        }
        // Without a token the caller has nothing to delete: no markers.
        auto rows = sql.query(
            fmt::format("SELECT {} FROM records WHERE scope = ?1 AND zone = ?2 AND seq > ?3 AND seq <= ?4 {} "
                        "ORDER BY seq LIMIT ?5",
                        recordColumns, syncToken ? "" : "AND deleted = 0"),
            {key, zone, since, zoneRow->changeNumber, std::int64_t{limit + 1}});
        std::int64_t last = zoneRow->changeNumber;
        if (rows.size() > static_cast<std::size_t>(limit)) {
            rows.resize(static_cast<std::size_t>(limit));
            changes.moreComing = true;
            last = rows.back().integer(9);
        }
        for (const auto& row : rows) changes.records.push_back(recordFromRow(row));
        changes.syncToken = encodeToken(zoneRow->instance, last);
    });
    if (failure) return std::unexpected(std::move(*failure));
    return changes;
}

// MARK: - Zones and subscriptions

std::vector<ZoneInfo> CloudStore::listZones(const DatabaseScope& scope) {
    const std::string key = scope.key();
    std::vector<ZoneInfo> zones;
    database_->transaction([&](SQLConnection& sql) {
        ensureDefaultZone(sql, key, platform::CKRecordZoneID::defaultZoneName);
        for (const auto& row : sql.query("SELECT zone, instance, change_seq FROM zones WHERE scope = ?1 ORDER BY zone",
                                         {key})) {
            zones.push_back({row.text(0), encodeToken(row.text(1), row.integer(2))});
        }
    });
    return zones;
}

std::vector<ZoneResult> CloudStore::modifyZones(const DatabaseScope& scope,
                                                const std::vector<std::pair<bool, std::string>>& operations) {
    const std::string key = scope.key();
    std::vector<ZoneResult> results;
    database_->transaction([&](SQLConnection& sql) {
        for (const auto& [create, zone] : operations) {
            ZoneResult result{zone, !create, {}};
            if (create) {
                sql.execute(
                    "INSERT INTO zones(scope, zone, instance, change_seq, purged_seq) VALUES(?1, ?2, ?3, 0, 0) "
                    "ON CONFLICT(scope, zone) DO NOTHING",
                    {key, zone, platform::newUUIDString()});
            } else if (zone == platform::CKRecordZoneID::defaultZoneName) {
                result.error = error(ServerErrorCode::badRequest, "the default zone cannot be deleted");
            } else if (!sql.queryOne("DELETE FROM zones WHERE scope = ?1 AND zone = ?2 RETURNING zone", {key, zone})) {
                result.error = error(ServerErrorCode::zoneNotFound, "no zone \"" + zone + "\"");
            } else {
                sql.execute("DELETE FROM records WHERE scope = ?1 AND zone = ?2", {key, zone});
                sql.execute("DELETE FROM subscriptions WHERE scope = ?1 AND zone = ?2", {key, zone});
            }
            results.push_back(std::move(result));
        }
    });
    return results;
}

std::vector<SubscriptionResult> CloudStore::modifySubscriptions(const DatabaseScope& scope,
                                                                const std::vector<SubscriptionOperation>& operations) {
    const std::string key = scope.key();
    std::vector<SubscriptionResult> results;
    database_->transaction([&](SQLConnection& sql) {
        for (const auto& operation : operations) {
            SubscriptionResult result{operation.subscriptionID, {}, {}};
            const bool exists =
                sql.queryOne("SELECT 1 FROM subscriptions WHERE scope = ?1 AND id = ?2", {key, operation.subscriptionID})
                    .has_value();
            if (operation.type == SubscriptionOperationType::remove) {
                if (!exists) {
                    result.error = error(ServerErrorCode::notFound, "no subscription of this ID");
                } else {
                    sql.execute("DELETE FROM subscriptions WHERE scope = ?1 AND id = ?2", {key, operation.subscriptionID});
                }
            } else if (operation.type == SubscriptionOperationType::create && exists) {
                result.error = error(ServerErrorCode::exists, "a subscription of this ID exists");
            } else if (!readZone(sql, key, operation.zoneName)) {
                result.error = error(ServerErrorCode::zoneNotFound, "no zone \"" + operation.zoneName + "\"");
            } else {
                sql.execute(
                    "INSERT INTO subscriptions(scope, id, zone, body) VALUES(?1, ?2, ?3, ?4) "
                    "ON CONFLICT(scope, id) DO UPDATE SET zone = excluded.zone, body = excluded.body",
                    {key, operation.subscriptionID, operation.zoneName, operation.body});
                result.body = operation.body;
            }
            results.push_back(std::move(result));
        }
    });
    return results;
}

std::vector<std::string> CloudStore::subscriptionsOnZone(const DatabaseScope& scope, const std::string& zone) {
    std::vector<std::string> ids;
    database_->transaction([&](SQLConnection& sql) {
        for (const auto& row :
             sql.query("SELECT id FROM subscriptions WHERE scope = ?1 AND zone = ?2 ORDER BY id", {scope.key(), zone})) {
            ids.push_back(row.text(0));
        }
    });
    return ids;
}

bool CloudStore::purgeDeletedRecords(const DatabaseScope& scope, const std::string& zone) {
    const std::string key = scope.key();
    bool found = false;
    database_->transaction([&](SQLConnection& sql) {
        if (!lockZone(sql, key, zone)) return;
        found = true;
        sql.execute("DELETE FROM records WHERE scope = ?1 AND zone = ?2 AND deleted = 1", {key, zone});
        sql.execute("UPDATE zones SET purged_seq = change_seq WHERE scope = ?1 AND zone = ?2", {key, zone});
    });
    return found;
}

std::vector<ReportRecord> CloudStore::reports() {
    std::vector<ReportRecord> reports;
    database_->transaction([&](SQLConnection& sql) {
        auto rows = sql.query(fmt::format("SELECT {}, scope FROM records WHERE type = 'Report' AND deleted = 0 "
                                          "ORDER BY created_ms DESC, seq DESC",
                                          recordColumns));
        for (const auto& row : rows) {
            const std::string scope = row.text(10);
            if (!scope.ends_with("/public")) continue;
            const std::string rest = scope.substr(0, scope.size() - 7);
            const auto slash = rest.rfind('/');
            if (slash == std::string::npos) continue;
            ReportRecord report{rest.substr(0, slash), rest.substr(slash + 1), recordFromRow(row)};
            if (!report.container.ends_with(".Report")) continue;
            reports.push_back(std::move(report));
        }
    });
    return reports;
}

// MARK: - Key-value store

std::vector<KeyValueResult> CloudStore::modifyKeyValues(const DatabaseScope& scope,
                                                        const std::vector<KeyValueItem>& items) {
    const std::string key = scope.key();
    std::vector<KeyValueResult> results;
    database_->transaction([&](SQLConnection& sql) {
        sql.execute("INSERT INTO kv_stores(scope, change_seq) VALUES(?1, 0) ON CONFLICT(scope) DO NOTHING", {key});
        auto counter = sql.queryOne("UPDATE kv_stores SET change_seq = change_seq WHERE scope = ?1 RETURNING change_seq",
                                    {key});
        std::int64_t number = counter ? counter->integer(0) : 0;
        const std::int64_t startNumber = number;
        auto totals = sql.queryOne(
            "SELECT COUNT(*), COALESCE(SUM(LENGTH(key) + LENGTH(value)), 0) FROM kv_items "
            "WHERE scope = ?1 AND value IS NOT NULL",
            {key});
        std::int64_t keys = totals ? totals->integer(0) : 0;
        std::int64_t bytes = totals ? totals->integer(1) : 0;
        for (const auto& item : items) {
            KeyValueResult result{item.key, false, {}};
            auto stored = sql.queryOne("SELECT value, device_ms FROM kv_items WHERE scope = ?1 AND key = ?2",
                                       {key, item.key});
            const bool storedLive = stored && !stored->isNull(0);
            if (stored && stored->integer(1) > item.deviceMilliseconds) {
                results.push_back(std::move(result));  // a later write of another device wins
                continue;
            }
            const std::int64_t oldBytes =
                storedLive ? static_cast<std::int64_t>(item.key.size() + stored->text(0).size()) : 0;
            const std::int64_t newBytes =
                item.value ? static_cast<std::int64_t>(item.key.size() + item.value->size()) : 0;
            const std::int64_t newKeys = keys - (storedLive ? 1 : 0) + (item.value ? 1 : 0);
            if (item.value && (newKeys > static_cast<std::int64_t>(maximumKeyValueKeys) ||
                               bytes - oldBytes + newBytes > static_cast<std::int64_t>(maximumKeyValueBytes))) {
                result.error = error(ServerErrorCode::quotaExceeded, "the key-value store is full (1,024 keys, 1 MB)");
                results.push_back(std::move(result));
                continue;
            }
            keys = newKeys;
            bytes = bytes - oldBytes + newBytes;
            ++number;
            SQLValue value = item.value ? SQLValue(*item.value) : SQLValue(nullptr);
            sql.execute(
                "INSERT INTO kv_items(scope, key, value, device_ms, seq) VALUES(?1, ?2, ?3, ?4, ?5) "
                "ON CONFLICT(scope, key) DO UPDATE SET value = excluded.value, device_ms = excluded.device_ms, "
                "seq = excluded.seq",
                {key, item.key, value, item.deviceMilliseconds, number});
            result.applied = true;
            results.push_back(std::move(result));
        }
        if (number != startNumber) {
            sql.execute("UPDATE kv_stores SET change_seq = ?2 WHERE scope = ?1", {key, number});
        }
    });
    return results;
}

KeyValueChanges CloudStore::keyValueChanges(const DatabaseScope& scope, std::int64_t since) {
    const std::string key = scope.key();
    KeyValueChanges changes;
    database_->transaction([&](SQLConnection& sql) {
        auto counter = sql.queryOne("SELECT change_seq FROM kv_stores WHERE scope = ?1", {key});
        changes.syncNumber = counter ? counter->integer(0) : 0;
        for (const auto& row : sql.query("SELECT key, value, device_ms FROM kv_items WHERE scope = ?1 AND seq > ?2 "
                                         "AND seq <= ?3 ORDER BY seq",
                                         {key, since, changes.syncNumber})) {
            KeyValueItem item{row.text(0), std::nullopt, row.integer(2)};
            if (!row.isNull(1)) item.value = row.text(1);
            changes.items.push_back(std::move(item));
        }
    });
    return changes;
}

}  // namespace tamsel::cloud
