#include "platform/CKWire.h"

#include <array>

#include "platform/Value.h"

namespace tamsel::platform::ckwire {
namespace {

struct CodeEntry {
    ServerErrorCode code;
    std::string_view raw;
    int status;
};

constexpr std::array<CodeEntry, 16> codeTable{{
    {ServerErrorCode::accessDenied, "ACCESS_DENIED", 403},
    {ServerErrorCode::atomicError, "ATOMIC_ERROR", 400},
    {ServerErrorCode::authenticationFailed, "AUTHENTICATION_FAILED", 401},
    {ServerErrorCode::authenticationRequired, "AUTHENTICATION_REQUIRED", 421},
    {ServerErrorCode::badRequest, "BAD_REQUEST", 400},
    {ServerErrorCode::conflict, "CONFLICT", 409},
    {ServerErrorCode::exists, "EXISTS", 409},
    {ServerErrorCode::internalError, "INTERNAL_ERROR", 500},
    {ServerErrorCode::notFound, "NOT_FOUND", 404},
    {ServerErrorCode::quotaExceeded, "QUOTA_EXCEEDED", 413},
    {ServerErrorCode::throttled, "THROTTLED", 429},
    {ServerErrorCode::tryAgainLater, "TRY_AGAIN_LATER", 503},
    {ServerErrorCode::zoneNotFound, "ZONE_NOT_FOUND", 404},
    {ServerErrorCode::limitExceeded, "LIMIT_EXCEEDED", 400},
    {ServerErrorCode::changeTokenExpired, "CHANGE_TOKEN_EXPIRED", 410},
    {ServerErrorCode::zoneBusy, "ZONE_BUSY", 503},
}};

const CodeEntry& entry(ServerErrorCode code) {
    for (const auto& e : codeTable) {
        if (e.code == code) return e;
    }
    return codeTable[7];  // not reached: every case is in the table
}

Data toData(std::string_view bytes) { return Data(bytes.begin(), bytes.end()); }

std::expected<std::string, std::string> stringOf(simdjson::dom::element element, std::string_view what) {
    std::string_view text;
    if (element.get(text) != simdjson::SUCCESS) return std::unexpected(std::string(what) + " is not a string");
    return std::string(text);
}

}  // namespace

std::string_view rawValue(ServerErrorCode code) { return entry(code).raw; }

std::optional<ServerErrorCode> serverErrorCodeFromRawValue(std::string_view raw) {
    for (const auto& e : codeTable) {
        if (e.raw == raw) return e.code;
    }
    return std::nullopt;
}

int httpStatus(ServerErrorCode code) { return entry(code).status; }

void writeValue(JSONWriter& writer, const CKRecordValue& value) {
    writer.StartObject();
    writer.Key("value");
    std::string_view type;
    if (const auto* text = std::get_if<std::string>(&value)) {
        writer.String(text->data(), static_cast<rapidjson::SizeType>(text->size()));
        type = "STRING";
    } else if (const auto* integer = std::get_if<std::int64_t>(&value)) {
        writer.Int64(*integer);
        type = "INT64";
    } else if (const auto* real = std::get_if<double>(&value)) {
        writer.Double(*real);
        type = "DOUBLE";
    } else if (const auto* timestamp = std::get_if<CKTimestamp>(&value)) {
        writer.Int64(timestamp->milliseconds);
        type = "TIMESTAMP";
    } else if (const auto* reference = std::get_if<CKReference>(&value)) {
        writer.StartObject();
        writer.Key("recordName");
        writer.String(reference->recordID.recordName.data(),
                      static_cast<rapidjson::SizeType>(reference->recordID.recordName.size()));
        writer.Key("action");
        writer.String(reference->action == CKReference::Action::deleteSelf ? "DELETE_SELF" : "NONE");
        writer.EndObject();
        type = "REFERENCE";
    } else if (const auto* list = std::get_if<std::vector<std::string>>(&value)) {
        writer.StartArray();
        for (const auto& item : *list) writer.String(item.data(), static_cast<rapidjson::SizeType>(item.size()));
        writer.EndArray();
        type = "STRING_LIST";
    } else if (const auto* bytes = std::get_if<CKBytes>(&value)) {
        const std::string encoded = base64Encode(toData(bytes->bytes));
        writer.String(encoded.data(), static_cast<rapidjson::SizeType>(encoded.size()));
        type = "BYTES";
    }
    writer.Key("type");
    writer.String(type.data(), static_cast<rapidjson::SizeType>(type.size()));
    writer.EndObject();
}

std::expected<CKRecordValue, std::string> readValue(simdjson::dom::element field, const CKRecordZoneID& zone) {
    simdjson::dom::object object;
    if (field.get(object) != simdjson::SUCCESS) return std::unexpected("a field is not an object");
    simdjson::dom::element typeElement;
    if (object["type"].get(typeElement) != simdjson::SUCCESS) return std::unexpected("a field has no type");
    auto type = stringOf(typeElement, "a field's type");
    if (!type) return std::unexpected(type.error());
    simdjson::dom::element value;
    if (object["value"].get(value) != simdjson::SUCCESS) return std::unexpected("a field has no value");

    if (*type == "STRING") {
        auto text = stringOf(value, "a STRING value");
        if (!text) return std::unexpected(text.error());
        return CKRecordValue(std::move(*text));
    }
    if (*type == "INT64" || *type == "TIMESTAMP") {
        std::int64_t integer = 0;
        if (value.get(integer) != simdjson::SUCCESS) {
            return std::unexpected("a " + *type + " value is not a 64-bit integer");
        }
        if (*type == "TIMESTAMP") return CKRecordValue(CKTimestamp{integer});
        return CKRecordValue(integer);
    }
    if (*type == "DOUBLE") {
        double real = 0;
        if (value.get(real) != simdjson::SUCCESS) return std::unexpected("a DOUBLE value is not a number");
        return CKRecordValue(real);
    }
    if (*type == "REFERENCE") {
        simdjson::dom::object reference;
        if (value.get(reference) != simdjson::SUCCESS) return std::unexpected("a REFERENCE value is not an object");
        simdjson::dom::element nameElement;
        if (reference["recordName"].get(nameElement) != simdjson::SUCCESS) {
            return std::unexpected("a REFERENCE value has no recordName");
        }
        auto name = stringOf(nameElement, "a reference's recordName");
        if (!name) return std::unexpected(name.error());
        if (!isValidName(*name)) return std::unexpected("a reference's recordName is not a valid name");
        CKReference result{{std::move(*name), zone}, CKReference::Action::none};
        simdjson::dom::element actionElement;
        if (reference["action"].get(actionElement) == simdjson::SUCCESS) {
            auto action = stringOf(actionElement, "a reference's action");
            if (!action) return std::unexpected(action.error());
            if (*action == "DELETE_SELF") {
                result.action = CKReference::Action::deleteSelf;
            } else if (*action != "NONE") {
                return std::unexpected("a reference's action is neither NONE nor DELETE_SELF");
            }
        }
        return CKRecordValue(std::move(result));
    }
    if (*type == "STRING_LIST") {
        simdjson::dom::array array;
        if (value.get(array) != simdjson::SUCCESS) return std::unexpected("a STRING_LIST value is not an array");
        std::vector<std::string> list;
        for (simdjson::dom::element item : array) {
            auto text = stringOf(item, "an item of a STRING_LIST");
            if (!text) return std::unexpected(text.error());
            list.push_back(std::move(*text));
        }
        return CKRecordValue(std::move(list));
    }
    if (*type == "BYTES") {
        auto text = stringOf(value, "a BYTES value");
        if (!text) return std::unexpected(text.error());
        auto data = base64Decode(*text);
        if (!data) return std::unexpected("a BYTES value is not base64");
        return CKRecordValue(CKBytes{std::string(data->begin(), data->end())});
    }
    return std::unexpected("unknown field type \"" + *type + "\"");
}

void writeFields(JSONWriter& writer, const CKRecordFields& fields) {
    writer.StartObject();
    for (const auto& [name, value] : fields) {
        writer.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
        writeValue(writer, value);
    }
    writer.EndObject();
}

std::expected<CKRecordFields, std::string> readFields(simdjson::dom::element fields, const CKRecordZoneID& zone) {
    simdjson::dom::object object;
    if (fields.get(object) != simdjson::SUCCESS) return std::unexpected("fields is not an object");
    CKRecordFields result;
    for (auto [key, field] : object) {
        if (key.empty() || key.size() > 255) return std::unexpected("a field name is empty or too long");
        auto value = readValue(field, zone);
        if (!value) return std::unexpected("field \"" + std::string(key) + "\": " + value.error());
        result.insert_or_assign(std::string(key), std::move(*value));
    }
    return result;
}

std::string fieldsJSON(const CKRecordFields& fields) {
    rapidjson::StringBuffer buffer;
    JSONWriter writer(buffer);
    writeFields(writer, fields);
    return std::string(buffer.GetString(), buffer.GetSize());
}

bool isValidName(std::string_view name) {
    if (name.empty() || name.size() > 255) return false;
    for (char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) return false;
    }
    return true;
}

}  // namespace tamsel::platform::ckwire
