#include "cloud/CloudServer.h"

#include <httplib.h>

#include <algorithm>
#include <thread>

#include <fmt/format.h>

#include "platform/CKWire.h"
#include "platform/Log.h"
#include "platform/Text.h"
#include "platform/UUID.h"
#include "platform/Value.h"

namespace tamsel::cloud {
namespace {

namespace ckwire = platform::ckwire;
using ckwire::JSONWriter;

const platform::SystemLogger& logger() {
    static const platform::SystemLogger instance("CloudServer");
    return instance;
}

void writeString(JSONWriter& writer, std::string_view text) {
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void writeZoneID(JSONWriter& writer, const std::string& zone) {
    writer.StartObject();
    writer.Key("zoneName");
    writeString(writer, zone);
    writer.EndObject();
}

void writeStamp(JSONWriter& writer, const char* key, std::int64_t milliseconds, const std::string& user) {
    writer.Key(key);
    writer.StartObject();
    writer.Key("timestamp");
    writer.Int64(milliseconds);
    writer.Key("userRecordName");
    writeString(writer, user);
    writer.EndObject();
}

void writeRecord(JSONWriter& writer, const StoredRecord& record) {
    writer.StartObject();
    writer.Key("recordName");
    writeString(writer, record.recordName);
    if (!record.recordType.empty()) {
        writer.Key("recordType");
        writeString(writer, record.recordType);
    }
    if (record.deleted) {
        writer.Key("deleted");
        writer.Bool(true);
    } else {
        writer.Key("recordChangeTag");
        writeString(writer, record.changeTag);
        writer.Key("fields");
        ckwire::writeFields(writer, record.fields);
        writeStamp(writer, "created", record.createdMilliseconds, record.createdBy);
        writeStamp(writer, "modified", record.modifiedMilliseconds, record.modifiedBy);
    }
    writer.EndObject();
}

// The error dictionary's members, inside an object the caller opened.
void writeErrorMembers(JSONWriter& writer, const ServerError& error) {
    writer.Key("serverErrorCode");
    writeString(writer, ckwire::rawValue(error.code));
    writer.Key("reason");
    writeString(writer, error.reason);
    if (error.retryAfter) {
        writer.Key("retryAfter");
        writer.Int(*error.retryAfter);
    }
}

struct Reply {
    int status = 200;
    std::string body;
    std::optional<int> retryAfter;
};

// A successful answer whose body a JSON writer filled.
Reply okReply(const rapidjson::StringBuffer& buffer) {
    return {200, std::string(buffer.GetString(), buffer.GetSize()), {}};
}

Reply errorReply(const ServerError& error) {
    rapidjson::StringBuffer buffer;
    JSONWriter writer(buffer);
    writer.StartObject();
    writeErrorMembers(writer, error);
    writer.EndObject();
    return {ckwire::httpStatus(error.code), std::string(buffer.GetString(), buffer.GetSize()), error.retryAfter};
}

Reply errorReply(ServerErrorCode code, std::string reason) { return errorReply(ServerError{code, std::move(reason), {}}); }

void send(httplib::Response& response, const Reply& reply) {
    response.status = reply.status;
    if (reply.retryAfter) response.set_header("Retry-After", std::to_string(*reply.retryAfter));
    response.set_content(reply.body, "application/json");
}

bool isNameOfContainer(std::string_view name) {
    if (name.empty() || name.size() > 255) return false;
    return std::ranges::all_of(name, [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
               c == '-';
    });
}

std::optional<std::string_view> stringMember(simdjson::dom::element element, std::string_view key) {
    std::string_view text;
    if (element[key].get(text) != simdjson::SUCCESS) return std::nullopt;
    return text;
}

// zoneID.zoneName of a request, the default zone when absent.
std::expected<std::string, std::string> zoneOf(simdjson::dom::element element) {
    simdjson::dom::element zoneID;
    if (element["zoneID"].get(zoneID) != simdjson::SUCCESS) return platform::CKRecordZoneID::defaultZoneName;
    auto name = stringMember(zoneID, "zoneName");
    if (!name) return std::unexpected(std::string("zoneID has no zoneName"));
    if (!ckwire::isValidName(*name)) return std::unexpected(std::string("the zoneName is not a valid name"));
    return std::string(*name);
}

int resultsLimitOf(simdjson::dom::element element) {
    std::int64_t limit = ckwire::maximumResultsLimit;
    if (element["resultsLimit"].get(limit) != simdjson::SUCCESS) return ckwire::maximumResultsLimit;
    return static_cast<int>(std::clamp<std::int64_t>(limit, 1, ckwire::maximumResultsLimit));
}

FaultCall faultCallOf(const std::string& endpoint, const std::string& database, simdjson::dom::element body) {
    FaultCall call{endpoint, database, {}, {}};
    if (auto zone = zoneOf(body)) call.zones.push_back(*zone);
    for (const char* listKey : {"zones", "operations", "records"}) {
        simdjson::dom::array list;
        if (body[listKey].get(list) != simdjson::SUCCESS) continue;
        for (simdjson::dom::element item : list) {
            if (auto zone = zoneOf(item); zone && item["zoneID"].error() == simdjson::SUCCESS) {
                call.zones.push_back(*zone);
            }
            simdjson::dom::element zone;
            if (item["zone"].get(zone) == simdjson::SUCCESS) {
                if (auto name = zoneOf(zone)) call.zones.push_back(*name);
            }
            if (auto name = stringMember(item, "recordName")) call.recordNames.emplace_back(*name);
            simdjson::dom::element record;
            if (item["record"].get(record) == simdjson::SUCCESS) {
                if (auto name = stringMember(record, "recordName")) call.recordNames.emplace_back(*name);
            }
        }
    }
    return call;
}

std::string bearerToken(const httplib::Request& request) {
    if (request.has_param("ckWebAuthToken")) return request.get_param_value("ckWebAuthToken");
    const std::string authorization = request.get_header_value("Authorization");
    if (authorization.size() > 7 && platform::equalsIgnoringCase(authorization.substr(0, 7), "Bearer ")) {
        return platform::trimmed(authorization.substr(7));
    }
    return {};
}

bool isLoopback(const std::string& address) {
    return address == "127.0.0.1" || address == "::1" || address.starts_with("127.") || address == "::ffff:127.0.0.1";
}

}  // namespace

// Where servers on one shared database tell each other of pushes.
const std::string pushChannel = "tamsel_push";

struct CloudServer::Impl {
    CloudServer& owner;
    std::unique_ptr<httplib::Server> server;
    std::thread thread;
    const std::string serverID = platform::newUUIDString();
    std::unique_ptr<SQLDatabase::Listener> listener;

    explicit Impl(CloudServer& owner) : owner(owner) {}

    // Tells this server's devices, and those of the other servers on the
    // same database.
    void publish(const std::string& scope, const std::string& key, const PushEvent& event, const std::string& device) {
        owner.push_.publish(scope, key, event, device);
        if (!listener) return;
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        for (auto [name, value] : {std::pair{"origin", &serverID}, std::pair{"scope", &scope}, std::pair{"key", &key},
                                   std::pair{"kind", &event.kind}, std::pair{"data", &event.data},
                                   std::pair{"except", &device}}) {
            writer.Key(name);
            writeString(writer, *value);
        }
        writer.EndObject();
        try {
            owner.store_->database().notify(pushChannel, std::string(buffer.GetString(), buffer.GetSize()));
        } catch (const std::exception& error) {
            logger().error("Could not tell the other servers of a push: %s", error.what());
        }
    }

    void received(const std::string& payload) {
        simdjson::dom::parser parser;
        simdjson::dom::element json;
        if (parser.parse(payload).get(json) != simdjson::SUCCESS) return;
        auto field = [&json](const char* key) { return std::string(stringMember(json, key).value_or("")); };
        if (field("origin") == serverID) return;
        owner.push_.publish(field("scope"), field("key"), PushEvent{field("kind"), field("data")}, field("except"));
    }

    std::string zoneChangedData(const std::string& subscriptionID, const std::string& zone) const {
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writer.Key("subscriptionID");
        writeString(writer, subscriptionID);
        writer.Key("zoneID");
        writeZoneID(writer, zone);
        writer.EndObject();
        return std::string(buffer.GetString(), buffer.GetSize());
    }

    void zoneChanged(const DatabaseScope& scope, const std::string& zone, const std::string& device) {
        for (const auto& id : owner.store_->subscriptionsOnZone(scope, zone)) {
            publish(scope.key(), "zone:" + id, PushEvent{"zoneChanged", zoneChangedData(id, zone)}, device);
        }
    }

    std::optional<UserInfo> signIn(const httplib::Request& request, Reply& failure) {
        const std::string token = bearerToken(request);
        if (token.empty()) {
            failure = errorReply(ServerErrorCode::authenticationRequired, "the request carries no token");
            return std::nullopt;
        }
        auto user = owner.store_->authenticate(token);
        if (!user) failure = errorReply(ServerErrorCode::authenticationFailed, "the token is not known");
        return user;
    }

    // MARK: - The database routes

    Reply database(const httplib::Request& request, const std::string& container, const std::string& environment,
                   const std::string& databaseName, const std::string& endpoint) {
        if (!isNameOfContainer(container)) return errorReply(ServerErrorCode::badRequest, "bad container name");
        if (environment != "development" && environment != "production") {
            return errorReply(ServerErrorCode::badRequest, "the environment is development or production");
        }
        if (databaseName != "private" && databaseName != "public") {
            return errorReply(ServerErrorCode::badRequest, "the database is private or public");
        }
        Reply failure;
        auto user = signIn(request, failure);
        if (!user) return failure;

        if (request.body.size() > ckwire::maximumRequestBodySize) {
            return errorReply(ServerErrorCode::limitExceeded, "the request body is larger than 4 MB");
        }
        simdjson::dom::parser parser;
        simdjson::dom::element body;
        const bool isPost = request.method == "POST";
        if (isPost) {
            if (parser.parse(request.body).get(body) != simdjson::SUCCESS || !body.is_object()) {
                return errorReply(ServerErrorCode::badRequest, "the body is not a JSON object");
            }
        } else if (parser.parse(std::string_view("{}")).get(body) != simdjson::SUCCESS) {
            return errorReply(ServerErrorCode::internalError, "no empty body");
        }

        if (auto fault = owner.faults_.take(faultCallOf(endpoint, databaseName, body))) {
            if (fault->delay.count() > 0) std::this_thread::sleep_for(fault->delay);
            if (fault->status) {
                Reply reply;
                rapidjson::StringBuffer buffer;
                JSONWriter writer(buffer);
                writer.StartObject();
                if (!fault->serverErrorCode.empty()) {
                    writer.Key("serverErrorCode");
                    writeString(writer, fault->serverErrorCode);
                }
                writer.Key("reason");
                writeString(writer, fault->reason);
                if (fault->retryAfter) {
                    writer.Key("retryAfter");
                    writer.Int(*fault->retryAfter);
                }
                writer.EndObject();
                return {*fault->status, std::string(buffer.GetString(), buffer.GetSize()), fault->retryAfter};
            }
        }

        DatabaseScope scope{container, environment, databaseName == "public", ""};
        if (!scope.isPublic) scope.owner = user->name;
        const std::string device = request.get_header_value(std::string(ckwire::deviceIDHeader));

        if (scope.isPublic && !user->admin) {
            const bool reportCreate = scope.isReportContainer() && endpoint == "records/modify";
            const bool read = endpoint == "records/lookup" || endpoint == "records/query" ||
                              endpoint == "changes/zone" || endpoint == "zones/list" || endpoint == "users/current";
            if (endpoint == "users/current") {
                // Who one is may always be asked.
            } else if (scope.isReportContainer() && !reportCreate) {
                return errorReply(ServerErrorCode::accessDenied, "only an administrator reads reports");
            } else if (!scope.isReportContainer() && !read) {
                return errorReply(ServerErrorCode::accessDenied, "only an administrator writes the public database");
            }
        }

        try {
            if (endpoint == "records/modify") return modifyRecords(scope, body, *user, device);
            if (endpoint == "records/lookup") return lookupRecords(scope, body);
            if (endpoint == "records/query") return queryRecords(scope, body, *user);
            if (endpoint == "changes/zone") return zoneChanges(scope, body);
            if (endpoint == "zones/list") return listZones(scope);
            if (endpoint == "zones/modify") return modifyZones(scope, body);
            if (endpoint == "subscriptions/modify") return modifySubscriptions(scope, body);
            if (endpoint == "users/current") return currentUser(*user);
            if (endpoint == "kvs/modify") return modifyKeyValues(scope, body, device);
            if (endpoint == "kvs/changes") return keyValueChanges(scope, body);
            return errorReply(ServerErrorCode::notFound, "no endpoint \"" + endpoint + "\"");
        } catch (const SQLBusy& busy) {
            logger().error("Database busy: %s", busy.what());
            const auto code = endpoint == "records/modify" ? ServerErrorCode::zoneBusy : ServerErrorCode::tryAgainLater;
            return errorReply(ServerError{code, "the database is busy", 1});
        } catch (const std::exception& error) {
            logger().error("Request %s failed: %s", endpoint.c_str(), error.what());
            return errorReply(ServerErrorCode::internalError, "the server could not answer");
        }
    }

    Reply modifyRecords(const DatabaseScope& scope, simdjson::dom::element body, const UserInfo& user,
                        const std::string& device) {
        auto zone = zoneOf(body);
        if (!zone) return errorReply(ServerErrorCode::badRequest, zone.error());
        simdjson::dom::array list;
        if (body["operations"].get(list) != simdjson::SUCCESS) {
            return errorReply(ServerErrorCode::badRequest, "operations is not an array");
        }
        if (list.size() > ckwire::maximumOperationsPerRequest) {
            return errorReply(ServerErrorCode::limitExceeded, "more than 400 operations in one request");
        }
        if (scope.isPublic && *zone != platform::CKRecordZoneID::defaultZoneName) {
            return errorReply(ServerErrorCode::badRequest, "the public database has only the default zone");
        }
        const platform::CKRecordZoneID zoneID{*zone, platform::CKRecordZoneID::defaultOwnerName};
        std::vector<RecordOperation> operations;
        for (simdjson::dom::element item : list) {
            auto fail = [](std::string reason) { return errorReply(ServerErrorCode::badRequest, std::move(reason)); };
            auto typeText = stringMember(item, "operationType");
            if (!typeText) return fail("an operation has no operationType");
            auto type = recordOperationTypeFromRawValue(*typeText);
            if (!type) return fail("unknown operationType \"" + std::string(*typeText) + "\"");
            simdjson::dom::element record;
            if (item["record"].get(record) != simdjson::SUCCESS || !record.is_object()) {
                return fail("an operation has no record");
            }
            RecordOperation operation;
            operation.type = *type;
            auto name = stringMember(record, "recordName");
            if (!name || !ckwire::isValidName(*name)) return fail("a record has no valid recordName");
            operation.recordName = std::string(*name);
            if (auto recordType = stringMember(record, "recordType")) {
                if (!ckwire::isValidName(*recordType)) return fail("a record's recordType is not a valid name");
                operation.recordType = std::string(*recordType);
            }
            if (auto tag = stringMember(record, "recordChangeTag")) operation.changeTag = std::string(*tag);
            simdjson::dom::object fields;
            if (record["fields"].get(fields) == simdjson::SUCCESS) {
                for (auto [key, field] : fields) {
                    simdjson::dom::element value;
                    if (field.is_object() && field["value"].get(value) == simdjson::SUCCESS && value.is_null()) {
                        operation.removedFields.insert(std::string(key));
                        continue;
                    }
                    auto parsed = ckwire::readValue(field, zoneID);
                    if (!parsed) return fail("record \"" + operation.recordName + "\", field \"" + std::string(key) +
                                             "\": " + parsed.error());
                    if (key.empty() || key.size() > 255) return fail("a field name is empty or too long");
                    operation.fields.insert_or_assign(std::string(key), std::move(*parsed));
                }
            } else if (record["fields"].error() != simdjson::NO_SUCH_FIELD) {
                return fail("record \"" + operation.recordName + "\": fields is not an object");
            }
            if (scope.isPublic && !user.admin &&
                (operation.type != RecordOperationType::create || operation.recordType != "Report")) {
                return errorReply(ServerErrorCode::accessDenied, "only new Report records may be saved here");
            }
            operations.push_back(std::move(operation));
        }
        bool atomic = *zone != platform::CKRecordZoneID::defaultZoneName;
        if (bool requested = true; body["atomic"].get(requested) == simdjson::SUCCESS) atomic = atomic && requested;

        auto results = owner.store_->modifyRecords(scope, *zone, operations, atomic, user);
        if (!results) return errorReply(results.error());
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writer.Key("records");
        writer.StartArray();
        bool changed = false;
        for (const auto& result : *results) {
            if (result.record) {
                changed = changed || !result.record->changeTag.empty();
                writeRecord(writer, *result.record);
                continue;
            }
            writer.StartObject();
            writer.Key("recordName");
            writeString(writer, result.recordName);
            writeErrorMembers(writer, *result.error);
            if (result.serverRecord) {
                // Ours: the server's current record, for the three-way merge.
                writer.Key("serverRecord");
                writeRecord(writer, *result.serverRecord);
            }
            writer.EndObject();
        }
        writer.EndArray();
        writer.EndObject();
        if (changed) zoneChanged(scope, *zone, device);
        return okReply(buffer);
    }

    Reply lookupRecords(const DatabaseScope& scope, simdjson::dom::element body) {
        auto zone = zoneOf(body);
        if (!zone) return errorReply(ServerErrorCode::badRequest, zone.error());
        simdjson::dom::array list;
        if (body["records"].get(list) != simdjson::SUCCESS) {
            return errorReply(ServerErrorCode::badRequest, "records is not an array");
        }
        if (list.size() > ckwire::maximumOperationsPerRequest) {
            return errorReply(ServerErrorCode::limitExceeded, "more than 400 records in one request");
        }
        std::vector<std::string> names;
        for (simdjson::dom::element item : list) {
            auto name = stringMember(item, "recordName");
            if (!name || !ckwire::isValidName(*name)) {
                return errorReply(ServerErrorCode::badRequest, "a record has no valid recordName");
            }
            names.emplace_back(*name);
        }
        auto results = owner.store_->lookupRecords(scope, *zone, names);
        if (!results) return errorReply(results.error());
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writer.Key("records");
        writer.StartArray();
        for (const auto& result : *results) {
            if (result.record) {
                writeRecord(writer, *result.record);
                continue;
            }
            writer.StartObject();
            writer.Key("recordName");
            writeString(writer, result.recordName);
            writeErrorMembers(writer, *result.error);
            writer.EndObject();
        }
        writer.EndArray();
        writer.EndObject();
        return okReply(buffer);
    }

    Reply queryRecords(const DatabaseScope& scope, simdjson::dom::element body, const UserInfo& user) {
        if (scope.isPublic && !user.admin) {
            return errorReply(ServerErrorCode::accessDenied, "only an administrator queries the public database");
        }
        auto zone = zoneOf(body);
        if (!zone) return errorReply(ServerErrorCode::badRequest, zone.error());
        simdjson::dom::element query;
        if (body["query"].get(query) != simdjson::SUCCESS) return errorReply(ServerErrorCode::badRequest, "no query");
        auto type = stringMember(query, "recordType");
        if (!type || !ckwire::isValidName(*type)) {
            return errorReply(ServerErrorCode::badRequest, "the query has no valid recordType");
        }
        std::int64_t offset = 0;
        if (auto marker = stringMember(body, "continuationMarker")) {
            const std::string digits(*marker);
            if (digits.empty() || digits.size() > 18 ||
                !std::ranges::all_of(digits, [](char c) { return c >= '0' && c <= '9'; })) {
                return errorReply(ServerErrorCode::badRequest, "bad continuationMarker");
            }
            offset = std::stoll(digits);
        }
        auto result = owner.store_->queryRecords(scope, *zone, std::string(*type), resultsLimitOf(body), offset);
        if (!result) return errorReply(result.error());
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writer.Key("records");
        writer.StartArray();
        for (const auto& record : result->first) writeRecord(writer, record);
        writer.EndArray();
        if (result->second) {
            writer.Key("continuationMarker");
            writeString(writer, std::to_string(*result->second));
        }
        writer.EndObject();
        return okReply(buffer);
    }

    Reply zoneChanges(const DatabaseScope& scope, simdjson::dom::element body) {
        simdjson::dom::array list;
        if (body["zones"].get(list) != simdjson::SUCCESS) {
            return errorReply(ServerErrorCode::badRequest, "zones is not an array");
        }
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writer.Key("zones");
        writer.StartArray();
        for (simdjson::dom::element item : list) {
            auto zone = zoneOf(item);
            if (!zone) return errorReply(ServerErrorCode::badRequest, zone.error());
            std::optional<std::string> token;
            simdjson::dom::element tokenElement;
            if (item["syncToken"].get(tokenElement) == simdjson::SUCCESS && !tokenElement.is_null()) {
                std::string_view text;
                if (tokenElement.get(text) != simdjson::SUCCESS) {
                    return errorReply(ServerErrorCode::badRequest, "syncToken is not a string");
                }
                token = std::string(text);
            }
            auto changes = owner.store_->zoneChanges(scope, *zone, token, resultsLimitOf(item));
            writer.StartObject();
            writer.Key("zoneID");
            writeZoneID(writer, *zone);
            if (!changes) {
                writeErrorMembers(writer, changes.error());
            } else {
                writer.Key("syncToken");
                writeString(writer, changes->syncToken);
                writer.Key("moreComing");
                writer.Bool(changes->moreComing);
                writer.Key("records");
                writer.StartArray();
                for (const auto& record : changes->records) writeRecord(writer, record);
                writer.EndArray();
            }
            writer.EndObject();
        }
        writer.EndArray();
        writer.EndObject();
        return okReply(buffer);
    }

    Reply listZones(const DatabaseScope& scope) {
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writer.Key("zones");
        writer.StartArray();
        for (const auto& zone : owner.store_->listZones(scope)) {
            writer.StartObject();
            writer.Key("zoneID");
            writeZoneID(writer, zone.zoneName);
            writer.Key("syncToken");
            writeString(writer, zone.syncToken);
            writer.EndObject();
        }
        writer.EndArray();
        writer.EndObject();
        return okReply(buffer);
    }

    Reply modifyZones(const DatabaseScope& scope, simdjson::dom::element body) {
        if (scope.isPublic) return errorReply(ServerErrorCode::badRequest, "the public database has only the default zone");
        simdjson::dom::array list;
        if (body["operations"].get(list) != simdjson::SUCCESS) {
            return errorReply(ServerErrorCode::badRequest, "operations is not an array");
        }
        if (list.size() > ckwire::maximumOperationsPerRequest) {
            return errorReply(ServerErrorCode::limitExceeded, "more than 400 operations in one request");
        }
        std::vector<std::pair<bool, std::string>> operations;
        for (simdjson::dom::element item : list) {
            auto type = stringMember(item, "operationType");
            if (!type || (*type != "create" && *type != "delete")) {
                return errorReply(ServerErrorCode::badRequest, "a zone operation is create or delete");
            }
            simdjson::dom::element zone;
            if (item["zone"].get(zone) != simdjson::SUCCESS || zone["zoneID"].error() != simdjson::SUCCESS) {
                return errorReply(ServerErrorCode::badRequest, "a zone operation has no zone.zoneID");
            }
            auto name = zoneOf(zone);
            if (!name) return errorReply(ServerErrorCode::badRequest, name.error());
            operations.emplace_back(*type == "create", *name);
        }
        auto results = owner.store_->modifyZones(scope, operations);
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writer.Key("zones");
        writer.StartArray();
        for (const auto& result : results) {
            writer.StartObject();
            writer.Key("zoneID");
            writeZoneID(writer, result.zoneName);
            if (result.error) {
                writeErrorMembers(writer, *result.error);
            } else if (result.deleted) {
                writer.Key("deleted");
                writer.Bool(true);
            }
            writer.EndObject();
        }
        writer.EndArray();
        writer.EndObject();
        return okReply(buffer);
    }

    Reply modifySubscriptions(const DatabaseScope& scope, simdjson::dom::element body) {
        simdjson::dom::array list;
        if (body["operations"].get(list) != simdjson::SUCCESS) {
            return errorReply(ServerErrorCode::badRequest, "operations is not an array");
        }
        if (list.size() > ckwire::maximumOperationsPerRequest) {
            return errorReply(ServerErrorCode::limitExceeded, "more than 400 operations in one request");
        }
        std::vector<SubscriptionOperation> operations;
        for (simdjson::dom::element item : list) {
            SubscriptionOperation operation;
            auto type = stringMember(item, "operationType");
            if (type == "create") {
                operation.type = SubscriptionOperationType::create;
            } else if (type == "update") {
                operation.type = SubscriptionOperationType::update;
            } else if (type == "delete") {
                operation.type = SubscriptionOperationType::remove;
            } else {
                return errorReply(ServerErrorCode::badRequest, "a subscription operation is create, update or delete");
            }
            simdjson::dom::element subscription;
            if (item["subscription"].get(subscription) != simdjson::SUCCESS || !subscription.is_object()) {
                return errorReply(ServerErrorCode::badRequest, "an operation has no subscription");
            }
            auto id = stringMember(subscription, "subscriptionID");
            if (!id || !ckwire::isValidName(*id)) {
                return errorReply(ServerErrorCode::badRequest, "a subscription has no valid subscriptionID");
            }
            operation.subscriptionID = std::string(*id);
            if (operation.type != SubscriptionOperationType::remove) {
                auto kind = stringMember(subscription, "subscriptionType");
                if (kind != "zone") return errorReply(ServerErrorCode::badRequest, "only zone subscriptions are kept");
                auto zone = zoneOf(subscription);
                if (!zone) return errorReply(ServerErrorCode::badRequest, zone.error());
                operation.zoneName = *zone;
                operation.body = simdjson::minify(subscription);
            }
            operations.push_back(std::move(operation));
        }
        auto results = owner.store_->modifySubscriptions(scope, operations);
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writer.Key("subscriptions");
        writer.StartArray();
        for (const auto& result : results) {
            if (result.body) {
                writer.RawValue(result.body->data(), result.body->size(), rapidjson::kObjectType);
                continue;
            }
            writer.StartObject();
            writer.Key("subscriptionID");
            writeString(writer, result.subscriptionID);
            if (result.error) {
                writeErrorMembers(writer, *result.error);
            } else {
                writer.Key("deleted");
                writer.Bool(true);
            }
            writer.EndObject();
        }
        writer.EndArray();
        writer.EndObject();
        return okReply(buffer);
    }

    Reply currentUser(const UserInfo& user) {
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writer.Key("userRecordName");
        writeString(writer, user.userRecordName);
        writer.EndObject();
        return okReply(buffer);
    }

    // Ours: {"items": [{"key", "value" (base64 or null), "timestamp" (ms)}]}
    // → {"items": [{"key", "applied"} | {"key", serverErrorCode…}]}.
    Reply modifyKeyValues(const DatabaseScope& scope, simdjson::dom::element body, const std::string& device) {
        if (scope.isPublic) return errorReply(ServerErrorCode::badRequest, "the key-value store is private");
        simdjson::dom::array list;
        if (body["items"].get(list) != simdjson::SUCCESS) {
            return errorReply(ServerErrorCode::badRequest, "items is not an array");
        }
        if (list.size() > CloudStore::maximumKeyValueKeys) {
            return errorReply(ServerErrorCode::limitExceeded, "more than 1,024 items in one request");
        }
        std::vector<KeyValueItem> items;
        for (simdjson::dom::element item : list) {
            auto key = stringMember(item, "key");
            if (!key || key->empty() || key->size() > 255) {
                return errorReply(ServerErrorCode::badRequest, "an item has no valid key");
            }
            KeyValueItem parsed{std::string(*key), std::nullopt, 0};
            if (item["timestamp"].get(parsed.deviceMilliseconds) != simdjson::SUCCESS) {
                return errorReply(ServerErrorCode::badRequest, "an item has no timestamp");
            }
            simdjson::dom::element value;
            if (item["value"].get(value) == simdjson::SUCCESS && !value.is_null()) {
                std::string_view text;
                if (value.get(text) != simdjson::SUCCESS || !platform::base64Decode(text)) {
                    return errorReply(ServerErrorCode::badRequest, "an item's value is not base64");
                }
                parsed.value = std::string(text);
            }
            items.push_back(std::move(parsed));
        }
        auto results = owner.store_->modifyKeyValues(scope, items);
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writer.Key("items");
        writer.StartArray();
        bool changed = false;
        for (const auto& result : results) {
            writer.StartObject();
            writer.Key("key");
            writeString(writer, result.key);
            if (result.error) {
                writeErrorMembers(writer, *result.error);
            } else {
                writer.Key("applied");
                writer.Bool(result.applied);
                changed = changed || result.applied;
            }
            writer.EndObject();
        }
        writer.EndArray();
        writer.EndObject();
        if (changed) publish(scope.key(), "kvs", PushEvent{"keyValueChanged", "{}"}, device);
        return okReply(buffer);
    }

    // Ours: {"syncToken": number or absent} → {"items": […], "syncToken": n}.
    Reply keyValueChanges(const DatabaseScope& scope, simdjson::dom::element body) {
        if (scope.isPublic) return errorReply(ServerErrorCode::badRequest, "the key-value store is private");
        std::int64_t since = 0;
        simdjson::dom::element token;
        if (body["syncToken"].get(token) == simdjson::SUCCESS && !token.is_null() &&
            (token.get(since) != simdjson::SUCCESS || since < 0)) {
            return errorReply(ServerErrorCode::badRequest, "syncToken is not a number");
        }
        auto changes = owner.store_->keyValueChanges(scope, since);
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writer.Key("items");
        writer.StartArray();
        for (const auto& item : changes.items) {
            writer.StartObject();
            writer.Key("key");
            writeString(writer, item.key);
            writer.Key("value");
            if (item.value) {
                writeString(writer, *item.value);
            } else {
                writer.Null();
            }
            writer.Key("timestamp");
            writer.Int64(item.deviceMilliseconds);
            writer.EndObject();
        }
        writer.EndArray();
        writer.Key("syncToken");
        writer.Int64(changes.syncNumber);
        writer.EndObject();
        return okReply(buffer);
    }

    // MARK: - Push

    void notifications(const httplib::Request& request, httplib::Response& response, const std::string& container,
                       const std::string& environment) {
        Reply failure;
        auto user = signIn(request, failure);
        if (!user) return send(response, failure);
        if (!isNameOfContainer(container)) return send(response, errorReply(ServerErrorCode::badRequest, "bad container name"));
        const std::string device = request.get_header_value(std::string(ckwire::deviceIDHeader));
        if (device.empty()) {
            return send(response, errorReply(ServerErrorCode::badRequest, "a push connection names its device"));
        }
        DatabaseScope scope{container, environment, false, user->name};
        auto stream = owner.push_.open(scope.key(), device);
        if (!stream) {
            return send(response, errorReply(ServerError{ServerErrorCode::tryAgainLater, "too many push connections", 5}));
        }
        const auto heartbeat = owner.configuration_.pushHeartbeat;
        PushHub* hub = &owner.push_;
        response.set_header("Cache-Control", "no-store");
        response.set_chunked_content_provider(
            "text/event-stream",
            [stream, heartbeat, first = true](std::size_t, httplib::DataSink& sink) mutable {
                if (first) {
                    // The device knows it is listening once this arrives.
                    first = false;
                    static constexpr std::string_view ready = "event: ready\ndata: {}\n\n";
                    return sink.write(ready.data(), ready.size());
                }
                auto events = stream->next(heartbeat);
                if (!events) {
                    sink.done();
                    return true;
                }
                std::string text;
                for (const auto& event : *events) text += "event: " + event.kind + "\ndata: " + event.data + "\n\n";
                if (text.empty()) text = ": keep-alive\n\n";
                return sink.write(text.data(), text.size());
            },
            [hub, stream](bool) { hub->remove(stream); });
    }

    // MARK: - Administration

    bool admitAdmin(const httplib::Request& request, httplib::Response& response) {
        if (!isLoopback(request.remote_addr)) {
            send(response, errorReply(ServerErrorCode::accessDenied, "administration is for loopback only"));
            return false;
        }
        Reply failure;
        auto user = signIn(request, failure);
        if (!user) {
            send(response, failure);
            return false;
        }
        if (!user->admin) {
            send(response, errorReply(ServerErrorCode::accessDenied, "administration needs an administrator"));
            return false;
        }
        return true;
    }

    void addFault(const httplib::Request& request, httplib::Response& response) {
        if (!admitAdmin(request, response)) return;
        simdjson::dom::parser parser;
        simdjson::dom::element body;
        if (parser.parse(request.body).get(body) != simdjson::SUCCESS || !body.is_object()) {
            return send(response, errorReply(ServerErrorCode::badRequest, "the body is not a JSON object"));
        }
        FaultRule rule;
        for (auto [key, target] : {std::pair{"endpoint", &rule.endpoint}, std::pair{"database", &rule.database},
                                   std::pair{"zone", &rule.zone}, std::pair{"recordName", &rule.recordName},
                                   std::pair{"serverErrorCode", &rule.serverErrorCode}, std::pair{"reason", &rule.reason}}) {
            if (auto text = stringMember(body, key)) *target = std::string(*text);
        }
        std::int64_t number = 0;
        if (body["count"].get(number) == simdjson::SUCCESS) rule.count = static_cast<int>(number);
        if (body["status"].get(number) == simdjson::SUCCESS) rule.status = static_cast<int>(number);
        if (body["retryAfter"].get(number) == simdjson::SUCCESS) rule.retryAfter = static_cast<int>(number);
        if (body["delayMilliseconds"].get(number) == simdjson::SUCCESS) rule.delay = std::chrono::milliseconds(number);
        if (rule.count < 1 || (rule.status && (*rule.status < 100 || *rule.status > 599))) {
            return send(response, errorReply(ServerErrorCode::badRequest, "bad count or status"));
        }
        owner.faults_.add(std::move(rule));
        send(response, Reply{200, "{}", {}});
    }

    void purge(const httplib::Request& request, httplib::Response& response) {
        if (!admitAdmin(request, response)) return;
        simdjson::dom::parser parser;
        simdjson::dom::element body;
        if (parser.parse(request.body).get(body) != simdjson::SUCCESS || !body.is_object()) {
            return send(response, errorReply(ServerErrorCode::badRequest, "the body is not a JSON object"));
        }
        auto container = stringMember(body, "container");
        auto environment = stringMember(body, "environment");
        auto database = stringMember(body, "database");
        auto owner_ = stringMember(body, "owner");
        auto zone = zoneOf(body);
        if (!container || !environment || !database || !zone) {
            return send(response, errorReply(ServerErrorCode::badRequest,
                                             "purge needs container, environment, database, owner and zoneID"));
        }
        DatabaseScope scope{std::string(*container), std::string(*environment), *database == "public",
                            *database == "public" ? "" : std::string(owner_.value_or(""))};
        if (!owner.store_->purgeDeletedRecords(scope, *zone)) {
            return send(response, errorReply(ServerErrorCode::zoneNotFound, "no zone \"" + *zone + "\""));
        }
        send(response, Reply{200, "{}", {}});
    }

    void installRoutes() {
        auto& s = *server;
        s.set_pre_routing_handler([this](const httplib::Request&, httplib::Response&) {
            ++owner.requestCount_;
            return httplib::Server::HandlerResponse::Unhandled;
        });
        const std::string databasePattern = R"(/database/1/([^/]+)/([^/]+)/([^/]+)/([a-z]+/[a-z]+))";
        auto databaseHandler = [this](const httplib::Request& request, httplib::Response& response) {
            send(response, database(request, request.matches[1], request.matches[2], request.matches[3],
                                    request.matches[4]));
        };
        s.Post(databasePattern, databaseHandler);
        s.Get(databasePattern, databaseHandler);
        s.Get(R"(/database/1/([^/]+)/([^/]+)/private/notifications)",
              [this](const httplib::Request& request, httplib::Response& response) {
                  notifications(request, response, request.matches[1], request.matches[2]);
              });
        s.Post("/admin/faults",
               [this](const httplib::Request& request, httplib::Response& response) { addFault(request, response); });
        s.Delete("/admin/faults", [this](const httplib::Request& request, httplib::Response& response) {
            if (!admitAdmin(request, response)) return;
            owner.faults_.clear();
            send(response, Reply{200, "{}", {}});
        });
        s.Post("/admin/purge",
               [this](const httplib::Request& request, httplib::Response& response) { purge(request, response); });
        s.set_error_handler([](const httplib::Request&, httplib::Response& response) {
            if (!response.body.empty()) return;
            const auto code = response.status == 413 ? ServerErrorCode::limitExceeded
                              : response.status == 404 ? ServerErrorCode::notFound
                                                       : ServerErrorCode::badRequest;
            const int status = response.status;
            send(response, errorReply(code, "the request could not be served"));
            response.status = status;
        });
    }
};

CloudServer::CloudServer(std::shared_ptr<CloudStore> store, Configuration configuration)
    : store_(std::move(store)), configuration_(std::move(configuration)) {
    push_.setMaximumStreams(configuration_.maximumPushStreams);
}

CloudServer::~CloudServer() { stop(); }

std::expected<int, std::string> CloudServer::start() {
    if (impl_) return std::unexpected(std::string("the server runs already"));
    auto impl = std::make_unique<Impl>(*this);
    if (configuration_.tlsCertificate || configuration_.tlsKey) {
        if (!configuration_.tlsCertificate || !configuration_.tlsKey) {
            return std::unexpected(std::string("TLS needs both --tls-cert and --tls-key"));
        }
        auto server = std::make_unique<httplib::SSLServer>(configuration_.tlsCertificate->c_str(),
                                                           configuration_.tlsKey->c_str());
        if (!server->is_valid()) return std::unexpected(std::string("the TLS certificate or key cannot be used"));
        impl->server = std::move(server);
    } else {
        impl->server = std::make_unique<httplib::Server>();
    }
    const std::size_t workers = configuration_.requestWorkers + configuration_.maximumPushStreams;
    impl->server->new_task_queue = [workers] { return new httplib::ThreadPool(workers); };
    impl->server->set_payload_max_length(ckwire::maximumRequestBodySize * 2);
    impl->installRoutes();
    int port = configuration_.port;
    if (port == 0) {
        port = impl->server->bind_to_any_port(configuration_.address);
        if (port < 0) return std::unexpected("cannot listen on " + configuration_.address);
    } else if (!impl->server->bind_to_port(configuration_.address, port)) {
        return std::unexpected(fmt::format("cannot listen on {}:{}", configuration_.address, port));
    }
    port_ = port;
    Impl* raw = impl.get();
    impl->listener = store_->database().listen(pushChannel, [raw](const std::string& payload) { raw->received(payload); });
    httplib::Server* server = impl->server.get();
    impl->thread = std::thread([server] { server->listen_after_bind(); });
    impl_ = std::move(impl);
    return port;
}

void CloudServer::stop() {
    if (!impl_) return;
    push_.shutdown();
    impl_->server->stop();
    if (impl_->thread.joinable()) impl_->thread.join();
    impl_->listener.reset();
    impl_.reset();
}

std::string CloudServer::baseURL() const {
    const bool tls = configuration_.tlsCertificate.has_value();
    const std::string host =
        configuration_.address.find(':') != std::string::npos ? "[" + configuration_.address + "]" : configuration_.address;
    return fmt::format("{}://{}:{}", tls ? "https" : "http", host, port_);
}

}  // namespace tamsel::cloud
