#include "platform/CKError.h"

#include <fmt/format.h>

namespace tamsel::platform {

const CKError* CKError::partialError(const std::string& itemName) const {
    if (!partialErrors) return nullptr;
    for (const auto& item : *partialErrors) {
        if ((item.recordID && item.recordID->recordName == itemName) || item.name == itemName) return &item.error;
    }
    return nullptr;
}

std::string CKError::localizedDescription() const {
    std::string text = fmt::format("CKError {} ({})", static_cast<int>(code), rawValue(code));
    if (!description.empty()) text += ": " + description;
    if (retryAfterSeconds) text += fmt::format(" (retry after {} s)", *retryAfterSeconds);
    return text;
}

std::string_view rawValue(CKError::Code code) {
    using Code = CKError::Code;
    switch (code) {
        case Code::internalError: return "internalError";
        case Code::partialFailure: return "partialFailure";
        case Code::networkUnavailable: return "networkUnavailable";
        case Code::networkFailure: return "networkFailure";
        case Code::serviceUnavailable: return "serviceUnavailable";
        case Code::requestRateLimited: return "requestRateLimited";
        case Code::notAuthenticated: return "notAuthenticated";
        case Code::permissionFailure: return "permissionFailure";
        case Code::unknownItem: return "unknownItem";
        case Code::invalidArguments: return "invalidArguments";
        case Code::serverRecordChanged: return "serverRecordChanged";
        case Code::serverRejectedRequest: return "serverRejectedRequest";
        case Code::operationCancelled: return "operationCancelled";
        case Code::changeTokenExpired: return "changeTokenExpired";
        case Code::batchRequestFailed: return "batchRequestFailed";
        case Code::zoneBusy: return "zoneBusy";
        case Code::quotaExceeded: return "quotaExceeded";
        case Code::zoneNotFound: return "zoneNotFound";
        case Code::limitExceeded: return "limitExceeded";
    }
    return "internalError";
}

std::optional<CKError::Code> ckErrorCodeForServerCode(std::string_view code) {
    using Code = CKError::Code;
    static const std::map<std::string_view, Code> table{
        {"ACCESS_DENIED", Code::permissionFailure},
        {"ATOMIC_ERROR", Code::batchRequestFailed},
        {"AUTHENTICATION_FAILED", Code::notAuthenticated},
        {"AUTHENTICATION_REQUIRED", Code::notAuthenticated},
        {"BAD_REQUEST", Code::invalidArguments},
        {"CONFLICT", Code::serverRecordChanged},
        {"EXISTS", Code::serverRecordChanged},
        {"INTERNAL_ERROR", Code::internalError},
        {"NOT_FOUND", Code::unknownItem},
        {"QUOTA_EXCEEDED", Code::quotaExceeded},
        {"THROTTLED", Code::requestRateLimited},
        {"TRY_AGAIN_LATER", Code::serviceUnavailable},
        {"ZONE_NOT_FOUND", Code::zoneNotFound},
        {"LIMIT_EXCEEDED", Code::limitExceeded},
        {"CHANGE_TOKEN_EXPIRED", Code::changeTokenExpired},
        {"ZONE_BUSY", Code::zoneBusy},
    };
    auto it = table.find(code);
    if (it == table.end()) return std::nullopt;
    return it->second;
}

CKError::Code ckErrorCodeForHTTPStatus(long status) {
    using Code = CKError::Code;
    // Only the server's own code may say a request was wrong: a proxy's bare
    // 400 must not make the caller drop its changes.
    if (status == 401 || status == 421) return Code::notAuthenticated;
    if (status == 403) return Code::permissionFailure;
    if (status == 413) return Code::limitExceeded;
    if (status == 429) return Code::requestRateLimited;
    if (status >= 500) return Code::serviceUnavailable;
    return Code::internalError;
}

}  // namespace tamsel::platform
