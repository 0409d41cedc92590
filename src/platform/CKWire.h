#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include "platform/CKRecordValue.h"

// What the cloud client and the cloud server share of the CloudKit Web
// Services protocol: the error codes with their HTTP statuses, and the JSON
// form of record fields ({"name": {"value": …, "type": "STRING"}}).
namespace tamsel::platform::ckwire {

// The protocol's serverErrorCode values, then our extensions for what the
// protocol names no code for (marked below). Every code has one HTTP status.
enum class ServerErrorCode {
    accessDenied,            // "ACCESS_DENIED" 403
    atomicError,             // "ATOMIC_ERROR" 400: another operation of an atomic batch failed
    authenticationFailed,    // "AUTHENTICATION_FAILED" 401: the token is not known
    authenticationRequired,  // "AUTHENTICATION_REQUIRED" 421: no token
    badRequest,              // "BAD_REQUEST" 400
    conflict,                // "CONFLICT" 409: the change tag is not the server's
    exists,                  // "EXISTS" 409
    internalError,           // "INTERNAL_ERROR" 500
    notFound,                // "NOT_FOUND" 404
    quotaExceeded,           // "QUOTA_EXCEEDED" 413
    throttled,               // "THROTTLED" 429
    tryAgainLater,           // "TRY_AGAIN_LATER" 503
    zoneNotFound,            // "ZONE_NOT_FOUND" 404
    // Extensions.
    limitExceeded,           // "LIMIT_EXCEEDED" 400: over 400 operations, a record over 1 MB, a body over 4 MB
    changeTokenExpired,      // "CHANGE_TOKEN_EXPIRED" 410: below the purge horizon, or of another zone instance
    zoneBusy,                // "ZONE_BUSY" 503
};

std::string_view rawValue(ServerErrorCode code);
std::optional<ServerErrorCode> serverErrorCodeFromRawValue(std::string_view raw);
int httpStatus(ServerErrorCode code);

// Limits both sides know.
inline constexpr std::size_t maximumOperationsPerRequest = 400;
inline constexpr std::size_t maximumRecordSize = 1024 * 1024;  // the fields' JSON
inline constexpr std::size_t maximumRequestBodySize = 4 * 1024 * 1024;
inline constexpr int maximumResultsLimit = 200;
// The header that names the device a request comes from, so that pushes
// never go back to the device that caused them.
inline constexpr std::string_view deviceIDHeader = "X-Tamsel-Device-ID";

using JSONWriter = rapidjson::Writer<rapidjson::StringBuffer>;

// {"value": …, "type": "…"}.
void writeValue(JSONWriter& writer, const CKRecordValue& value);
// A field's dictionary; an error saying what is wrong (missing or unknown
// type, a value of the wrong kind, bad base64, a reference without a name).
// A reference's zone is `zone`, the zone of the record that holds it.
std::expected<CKRecordValue, std::string> readValue(simdjson::dom::element field, const CKRecordZoneID& zone = {});

void writeFields(JSONWriter& writer, const CKRecordFields& fields);
std::expected<CKRecordFields, std::string> readFields(simdjson::dom::element fields,
                                                      const CKRecordZoneID& zone = {});
// The fields' JSON text, as the server stores it and measures it.
std::string fieldsJSON(const CKRecordFields& fields);

// A record or zone name the protocol can carry: 1 to 255 bytes of UTF-8
// without control characters. Anything else printable is fine.
bool isValidName(std::string_view name);

}  // namespace tamsel::platform::ckwire
