#include "platform/CKOperations.h"

#include <fmt/format.h>
#include <simdjson.h>

#include "platform/CKWire.h"

namespace tamsel::platform {
namespace {

using ckwire::JSONWriter;

void writeString(JSONWriter& writer, std::string_view text) {
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void writeZoneID(JSONWriter& writer, const CKRecordZoneID& zone) {
    writer.Key("zoneID");
    writer.StartObject();
    writer.Key("zoneName");
    writeString(writer, zone.zoneName);
    writer.EndObject();
}

std::string text(const rapidjson::StringBuffer& buffer) { return std::string(buffer.GetString(), buffer.GetSize()); }

CKError garbage(const std::string& what) {
    return CKError::make(CKError::Code::serviceUnavailable, "The server's answer could not be read: " + what);
}

std::optional<CKTimestamp> stampIn(simdjson::dom::element record, const char* key, std::string& user) {
    simdjson::dom::element stamp;
    if (record[key].get(stamp) != simdjson::SUCCESS) return std::nullopt;
    std::string_view name;
    if (stamp["userRecordName"].get(name) == simdjson::SUCCESS) user = std::string(name);
    std::int64_t milliseconds = 0;
    if (stamp["timestamp"].get(milliseconds) != simdjson::SUCCESS) return std::nullopt;
    return CKTimestamp{milliseconds};
}

// A record dictionary of an answer, as the server has it.
std::expected<CKRecord, std::string> recordFromJSON(simdjson::dom::element json, const CKRecordZoneID& zone) {
    std::string_view name, type, tag;
    if (json["recordName"].get(name) != simdjson::SUCCESS) return std::unexpected(std::string("a record has no name"));
    if (json["recordType"].get(type) != simdjson::SUCCESS) return std::unexpected(std::string("a record has no type"));
    CKRecord record{std::string(type), CKRecordID{std::string(name), zone}};
    simdjson::dom::element fields;
    if (json["fields"].get(fields) == simdjson::SUCCESS) {
        auto parsed = ckwire::readFields(fields, zone);
        if (!parsed) return std::unexpected(parsed.error());
        for (auto& [key, value] : *parsed) record.set(key, std::move(value));
    }
    std::optional<std::string> changeTag;
    if (json["recordChangeTag"].get(tag) == simdjson::SUCCESS) changeTag = std::string(tag);
    std::string creator, modifier;
    auto created = stampIn(json, "created", creator);
    auto modified = stampIn(json, "modified", modifier);
    record.setSystemFields(changeTag, created, modified, creator, modifier);
    record.markSynchronised();
    return record;
}

// The error dictionary of one item.
CKError itemError(simdjson::dom::element item) {
    CKError error = CKError::make(CKError::Code::internalError, "");
    std::string_view code, reason;
    if (item["serverErrorCode"].get(code) == simdjson::SUCCESS) {
        error.serverErrorCode = std::string(code);
        if (auto mapped = ckErrorCodeForServerCode(code)) error.code = *mapped;
    }
    if (item["reason"].get(reason) == simdjson::SUCCESS) error.description = std::string(reason);
    double retryAfter = 0;
    if (item["retryAfter"].get(retryAfter) == simdjson::SUCCESS && retryAfter >= 0) error.retryAfterSeconds = retryAfter;
    return error;
}

bool hasError(simdjson::dom::element item) { return item["serverErrorCode"].error() == simdjson::SUCCESS; }

CKError partialFailure(std::vector<CKItemError> items, std::size_t total) {
    CKError error = CKError::make(CKError::Code::partialFailure,
                                  fmt::format("{} of {} items failed", items.size(), total));
    error.partialErrors = std::make_shared<const std::vector<CKItemError>>(std::move(items));
    return error;
}

// What the record sent was based on: its system fields and, when it came from
// the server, the keys as the server had them.
std::shared_ptr<CKRecord> ancestorOf(const CKRecord& record) {
    auto ancestor = std::make_shared<CKRecord>(record.recordType(), record.recordID());
    ancestor->setSystemFields(record.recordChangeTag(), record.creationDate(), record.modificationDate(),
                              record.creatorUserRecordName(), record.lastModifiedUserRecordName());
    if (record.recordChangeTag() && record.serverFields()) {
        for (const auto& [key, value] : *record.serverFields()) ancestor->set(key, value);
    }
    ancestor->markSynchronised();
    return ancestor;
}

}  // namespace

// MARK: - Base

CKOperation::CKOperation() {
    // An operation cancelled before it started never runs main(): its blocks
    // still hear that it was cancelled.
    setCompletionBlock([this] {
        if (!ran_) fail(CKError::make(CKError::Code::operationCancelled, "The operation was cancelled."));
    });
}

void CKOperation::main() {
    ran_ = true;
    if (isCancelled()) {
        fail(CKError::make(CKError::Code::operationCancelled, "The operation was cancelled."));
        return;
    }
    run();
}

std::expected<std::string, CKError> CKDatabaseOperation::send(const std::string& endpoint, const std::string& body) {
    if (!database_) return std::unexpected(CKError::make(CKError::Code::internalError, "The operation has no database."));
    return database_->transport()->send(database_->databaseScope() == CKDatabase::Scope::publicScope, endpoint, body,
                                        cancellationCheck());
}

// MARK: - Modify records

CKModifyRecordsOperation::CKModifyRecordsOperation(std::vector<std::shared_ptr<CKRecord>> recordsToSave,
                                                   std::vector<CKRecordID> recordIDsToDelete)
    : recordsToSave_(std::move(recordsToSave)), recordIDsToDelete_(std::move(recordIDsToDelete)) {}

void CKModifyRecordsOperation::fail(const CKError& error) {
    for (const auto& record : recordsToSave_) {
        if (perRecordSaveBlock) perRecordSaveBlock(record->recordID(), record, error);
    }
    for (const auto& id : recordIDsToDelete_) {
        if (perRecordDeleteBlock) perRecordDeleteBlock(id, error);
    }
    if (modifyRecordsCompletionBlock) modifyRecordsCompletionBlock({}, {}, error);
}

void CKModifyRecordsOperation::run() {
    struct Item {
        std::shared_ptr<CKRecord> record;  // null: a deletion
        CKRecordID id;
    };
    // One request per zone, in the order the zones first appear.
    std::vector<std::pair<CKRecordZoneID, std::vector<Item>>> zones;
    auto zoneItems = [&zones](const CKRecordZoneID& zone) -> std::vector<Item>& {
        for (auto& [id, items] : zones) {
            if (id == zone) return items;
        }
        return zones.emplace_back(zone, std::vector<Item>{}).second;
    };
    for (const auto& record : recordsToSave_) zoneItems(record->recordID().zoneID).push_back({record, record->recordID()});
    for (const auto& id : recordIDsToDelete_) zoneItems(id.zoneID).push_back({nullptr, id});

    std::vector<std::shared_ptr<CKRecord>> saved;
    std::vector<CKRecordID> deleted;
    std::vector<CKItemError> failures;
    auto failItem = [&](const Item& item, const CKError& error) {
        failures.push_back({item.id, item.id.recordName, error});
        if (item.record) {
            if (perRecordSaveBlock) perRecordSaveBlock(item.id, item.record, error);
        } else if (perRecordDeleteBlock) {
            perRecordDeleteBlock(item.id, error);
        }
    };

    for (std::size_t z = 0; z < zones.size(); ++z) {
        const auto& [zone, items] = zones[z];
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writeZoneID(writer, zone);
        writer.Key("atomic");
        writer.Bool(atomic);
        writer.Key("operations");
        writer.StartArray();
        for (const auto& item : items) {
            writer.StartObject();
            writer.Key("operationType");
            bool onlyChanged = false;
            if (!item.record) {
                writer.String("forceDelete");
            } else if (savePolicy == SavePolicy::ifServerRecordUnchanged) {
                onlyChanged = item.record->recordChangeTag().has_value();
                writer.String(onlyChanged ? "update" : "create");
            } else if (savePolicy == SavePolicy::changedKeys) {
                onlyChanged = true;
                writer.String("forceUpdate");
            } else {
                writer.String("forceReplace");
            }
            writer.Key("record");
            writer.StartObject();
            writer.Key("recordName");
            writeString(writer, item.id.recordName);
            if (item.record) {
                writer.Key("recordType");
                writeString(writer, item.record->recordType());
                if (item.record->recordChangeTag()) {
                    writer.Key("recordChangeTag");
                    writeString(writer, *item.record->recordChangeTag());
                }
                writer.Key("fields");
                writer.StartObject();
                for (const auto& [key, value] : item.record->fields()) {
                    if (onlyChanged && !item.record->changedKeys().contains(key)) continue;
                    writer.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
                    ckwire::writeValue(writer, value);
                }
                if (onlyChanged) {
                    for (const auto& key : item.record->changedKeys()) {
                        if (item.record->object(key)) continue;
                        // Removed since it came from the server.
                        writer.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
                        writer.StartObject();
                        writer.Key("value");
                        writer.Null();
                        writer.EndObject();
                    }
                }
                writer.EndObject();
            }
            writer.EndObject();
            writer.EndObject();
        }
        writer.EndArray();
        writer.EndObject();

        auto answer = send("records/modify", text(buffer));
        simdjson::dom::parser parser;
        simdjson::dom::array results;
        std::optional<CKError> requestError;
        if (!answer) {
            requestError = answer.error();
        } else if (parser.parse(*answer).get_object()["records"].get(results) != simdjson::SUCCESS ||
                   results.size() != items.size()) {
            requestError = garbage("records/modify");
        }
        if (requestError) {
            // The whole request failed: every item not yet answered fails
            // with it, and so does the operation (not a partial failure).
            for (std::size_t rest = z; rest < zones.size(); ++rest) {
                for (const auto& item : zones[rest].second) {
                    if (item.record) {
                        if (perRecordSaveBlock) perRecordSaveBlock(item.id, item.record, requestError);
                    } else if (perRecordDeleteBlock) {
                        perRecordDeleteBlock(item.id, requestError);
                    }
                }
            }
            if (modifyRecordsCompletionBlock) modifyRecordsCompletionBlock(saved, deleted, requestError);
            return;
        }

        std::size_t index = 0;
        for (simdjson::dom::element result : results) {
            const Item& item = items[index++];
            if (hasError(result)) {
                CKError error = itemError(result);
                if (item.record && error.code == CKError::Code::serverRecordChanged) {
                    error.clientRecord = std::make_shared<CKRecord>(*item.record);
                    error.ancestorRecord = ancestorOf(*item.record);
                    simdjson::dom::element server;
                    if (result["serverRecord"].get(server) == simdjson::SUCCESS) {
                        if (auto record = recordFromJSON(server, zone)) {
                            error.serverRecord = std::make_shared<CKRecord>(std::move(*record));
                        }
                    }
                }
                failItem(item, error);
                continue;
            }
            if (!item.record) {
                deleted.push_back(item.id);
                if (perRecordDeleteBlock) perRecordDeleteBlock(item.id, std::nullopt);
                continue;
            }
            auto server = recordFromJSON(result, zone);
            if (!server) {
                failItem(item, garbage(server.error()));
                continue;
            }
            item.record->applyServerState(*server);
            saved.push_back(item.record);
            if (perRecordSaveBlock) perRecordSaveBlock(item.id, item.record, std::nullopt);
        }
    }
    std::optional<CKError> error;
    if (!failures.empty()) error = partialFailure(std::move(failures), recordsToSave_.size() + recordIDsToDelete_.size());
    if (modifyRecordsCompletionBlock) modifyRecordsCompletionBlock(saved, deleted, error);
}

// MARK: - Modify zones

CKModifyRecordZonesOperation::CKModifyRecordZonesOperation(std::vector<CKRecordZone> recordZonesToSave,
                                                           std::vector<CKRecordZoneID> recordZoneIDsToDelete)
    : recordZonesToSave_(std::move(recordZonesToSave)), recordZoneIDsToDelete_(std::move(recordZoneIDsToDelete)) {}

void CKModifyRecordZonesOperation::fail(const CKError& error) {
    if (modifyRecordZonesCompletionBlock) modifyRecordZonesCompletionBlock({}, {}, error);
}

void CKModifyRecordZonesOperation::run() {
    rapidjson::StringBuffer buffer;
    JSONWriter writer(buffer);
    writer.StartObject();
    writer.Key("operations");
    writer.StartArray();
    auto add = [&writer](const char* type, const CKRecordZoneID& zone) {
        writer.StartObject();
        writer.Key("operationType");
        writer.String(type);
        writer.Key("zone");
        writer.StartObject();
        writeZoneID(writer, zone);
        writer.EndObject();
        writer.EndObject();
    };
    for (const auto& zone : recordZonesToSave_) add("create", zone.zoneID);
    for (const auto& id : recordZoneIDsToDelete_) add("delete", id);
    writer.EndArray();
    writer.EndObject();

    auto answer = send("zones/modify", text(buffer));
    if (!answer) return fail(answer.error());
    simdjson::dom::parser parser;
    simdjson::dom::array results;
    if (parser.parse(*answer).get_object()["zones"].get(results) != simdjson::SUCCESS ||
        results.size() != recordZonesToSave_.size() + recordZoneIDsToDelete_.size()) {
        return fail(garbage("zones/modify"));
    }
    std::vector<CKRecordZone> saved;
    std::vector<CKRecordZoneID> deleted;
    std::vector<CKItemError> failures;
    std::size_t index = 0;
    for (simdjson::dom::element result : results) {
        const bool isSave = index < recordZonesToSave_.size();
        const CKRecordZoneID zone =
            isSave ? recordZonesToSave_[index].zoneID : recordZoneIDsToDelete_[index - recordZonesToSave_.size()];
        ++index;
        if (hasError(result)) {
            failures.push_back({std::nullopt, zone.zoneName, itemError(result)});
        } else if (isSave) {
            saved.emplace_back(zone);
        } else {
            deleted.push_back(zone);
        }
    }
    std::optional<CKError> error;
    if (!failures.empty()) error = partialFailure(std::move(failures), index);
    if (modifyRecordZonesCompletionBlock) modifyRecordZonesCompletionBlock(saved, deleted, error);
}

// MARK: - Modify subscriptions

CKModifySubscriptionsOperation::CKModifySubscriptionsOperation(std::vector<CKRecordZoneSubscription> subscriptionsToSave,
                                                               std::vector<std::string> subscriptionIDsToDelete)
    : subscriptionsToSave_(std::move(subscriptionsToSave)), subscriptionIDsToDelete_(std::move(subscriptionIDsToDelete)) {}

void CKModifySubscriptionsOperation::fail(const CKError& error) {
    if (modifySubscriptionsCompletionBlock) modifySubscriptionsCompletionBlock({}, {}, error);
}

void CKModifySubscriptionsOperation::run() {
    rapidjson::StringBuffer buffer;
    JSONWriter writer(buffer);
    writer.StartObject();
    writer.Key("operations");
    writer.StartArray();
    for (const auto& subscription : subscriptionsToSave_) {
        writer.StartObject();
        writer.Key("operationType");
        writer.String("create");
        writer.Key("subscription");
        writer.StartObject();
        writer.Key("subscriptionID");
        writeString(writer, subscription.subscriptionID);
        writer.Key("subscriptionType");
        writer.String("zone");
        writeZoneID(writer, subscription.zoneID);
        writer.Key("notificationInfo");
        writer.StartObject();
        writer.Key("shouldSendContentAvailable");
        writer.Bool(subscription.notificationInfo.shouldSendContentAvailable);
        writer.EndObject();
        writer.EndObject();
        writer.EndObject();
    }
    for (const auto& id : subscriptionIDsToDelete_) {
        writer.StartObject();
        writer.Key("operationType");
        writer.String("delete");
        writer.Key("subscription");
        writer.StartObject();
        writer.Key("subscriptionID");
        writeString(writer, id);
        writer.EndObject();
        writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();

    auto answer = send("subscriptions/modify", text(buffer));
    if (!answer) return fail(answer.error());
    simdjson::dom::parser parser;
    simdjson::dom::array results;
    if (parser.parse(*answer).get_object()["subscriptions"].get(results) != simdjson::SUCCESS ||
        results.size() != subscriptionsToSave_.size() + subscriptionIDsToDelete_.size()) {
        return fail(garbage("subscriptions/modify"));
    }
    std::vector<CKRecordZoneSubscription> saved;
    std::vector<std::string> deleted;
    std::vector<CKItemError> failures;
    std::size_t index = 0;
    for (simdjson::dom::element result : results) {
        const bool isSave = index < subscriptionsToSave_.size();
        const std::string id = isSave ? subscriptionsToSave_[index].subscriptionID
                                      : subscriptionIDsToDelete_[index - subscriptionsToSave_.size()];
        if (hasError(result)) {
            CKError error = itemError(result);
            if (error.serverErrorCode == "EXISTS") error.code = CKError::Code::serverRejectedRequest;
            failures.push_back({std::nullopt, id, error});
        } else if (isSave) {
            saved.push_back(subscriptionsToSave_[index]);
        } else {
            deleted.push_back(id);
        }
        ++index;
    }
    std::optional<CKError> error;
    if (!failures.empty()) error = partialFailure(std::move(failures), index);
    if (modifySubscriptionsCompletionBlock) modifySubscriptionsCompletionBlock(saved, deleted, error);
}

// MARK: - Fetch zone changes

CKFetchRecordZoneChangesOperation::CKFetchRecordZoneChangesOperation(
    std::vector<CKRecordZoneID> recordZoneIDs, std::unordered_map<CKRecordZoneID, ZoneConfiguration> configurations)
    : recordZoneIDs_(std::move(recordZoneIDs)), configurations_(std::move(configurations)) {}

void CKFetchRecordZoneChangesOperation::fail(const CKError& error) {
    for (const auto& zone : recordZoneIDs_) {
        if (recordZoneFetchCompletionBlock) recordZoneFetchCompletionBlock(zone, std::nullopt, false, error);
    }
    if (fetchRecordZoneChangesCompletionBlock) fetchRecordZoneChangesCompletionBlock(error);
}

void CKFetchRecordZoneChangesOperation::run() {
    std::vector<CKItemError> failures;
    for (std::size_t z = 0; z < recordZoneIDs_.size(); ++z) {
        const CKRecordZoneID& zone = recordZoneIDs_[z];
        ZoneConfiguration configuration;
        if (auto it = configurations_.find(zone); it != configurations_.end()) configuration = it->second;
        std::optional<CKServerChangeToken> token = configuration.previousServerChangeToken;
        while (true) {
            std::optional<CKError> requestError;
            if (isCancelled()) requestError = CKError::make(CKError::Code::operationCancelled, "The operation was cancelled.");
            std::string answerText;
            if (!requestError) {
                rapidjson::StringBuffer buffer;
                JSONWriter writer(buffer);
                writer.StartObject();
                writer.Key("zones");
                writer.StartArray();
                writer.StartObject();
                writeZoneID(writer, zone);
                if (token) {
                    writer.Key("syncToken");
                    writeString(writer, token->opaque());
                }
                if (configuration.resultsLimit) {
                    writer.Key("resultsLimit");
                    writer.Int(*configuration.resultsLimit);
                }
                writer.EndObject();
                writer.EndArray();
                writer.EndObject();
                auto answer = send("changes/zone", text(buffer));
                if (answer) {
                    answerText = std::move(*answer);
                } else {
                    requestError = answer.error();
                }
            }
            simdjson::dom::parser parser;
            simdjson::dom::element result;
            if (!requestError && parser.parse(answerText).at_pointer("/zones/0").get(result) != simdjson::SUCCESS) {
                requestError = garbage("changes/zone");
            }
            if (requestError) {
                // The changes handed over so far stay good with the tokens
                // given for them.
                for (std::size_t rest = z; rest < recordZoneIDs_.size(); ++rest) {
                    if (recordZoneFetchCompletionBlock) {
                        recordZoneFetchCompletionBlock(recordZoneIDs_[rest], std::nullopt, false, requestError);
                    }
                }
                if (fetchRecordZoneChangesCompletionBlock) fetchRecordZoneChangesCompletionBlock(requestError);
                return;
            }
            if (hasError(result)) {
                CKError error = itemError(result);
                if (recordZoneFetchCompletionBlock) recordZoneFetchCompletionBlock(zone, std::nullopt, false, error);
                failures.push_back({std::nullopt, zone.zoneName, error});
                break;
            }
            std::string_view newToken;
            bool moreComing = false;
            simdjson::dom::array records;
            if (result["syncToken"].get(newToken) != simdjson::SUCCESS ||
                result["moreComing"].get(moreComing) != simdjson::SUCCESS ||
                result["records"].get(records) != simdjson::SUCCESS) {
                CKError error = garbage("changes/zone");
                if (recordZoneFetchCompletionBlock) recordZoneFetchCompletionBlock(zone, std::nullopt, false, error);
                failures.push_back({std::nullopt, zone.zoneName, error});
                break;
            }
            for (simdjson::dom::element item : records) {
                bool isDeleted = false;
                if (item["deleted"].get(isDeleted) == simdjson::SUCCESS && isDeleted) {
                    std::string_view name, type;
                    if (item["recordName"].get(name) != simdjson::SUCCESS) continue;
                    if (item["recordType"].get(type) != simdjson::SUCCESS) type = {};
                    if (recordWithIDWasDeletedBlock) {
                        recordWithIDWasDeletedBlock(CKRecordID{std::string(name), zone}, std::string(type));
                    }
                    continue;
                }
                auto record = recordFromJSON(item, zone);
                if (record && recordChangedBlock) recordChangedBlock(std::make_shared<CKRecord>(std::move(*record)));
            }
            token = CKServerChangeToken(std::string(newToken));
            if (moreComing && fetchAllChanges) {
                if (recordZoneChangeTokensUpdatedBlock) recordZoneChangeTokensUpdatedBlock(zone, token);
                continue;
            }
            if (recordZoneFetchCompletionBlock) recordZoneFetchCompletionBlock(zone, token, moreComing, std::nullopt);
            break;
        }
    }
    std::optional<CKError> error;
    if (failures.size() == 1 && recordZoneIDs_.size() == 1) {
        // One zone asked for: its error is the operation's.
        error = failures.front().error;
    } else if (!failures.empty()) {
        error = partialFailure(std::move(failures), recordZoneIDs_.size());
    }
    if (fetchRecordZoneChangesCompletionBlock) fetchRecordZoneChangesCompletionBlock(error);
}

}  // namespace tamsel::platform
