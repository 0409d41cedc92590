#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/CKRecord.h"

// Why a cloud operation failed, with CloudKit's codes (the raw values are
// the framework's). Built from the server's answers (its serverErrorCode, or
// its HTTP status when it sent none) and from transport failures.
namespace tamsel::platform {

struct CKItemError;

struct CKError {
    enum class Code : int {
        internalError = 1,
        partialFailure = 2,
        networkUnavailable = 3,
        networkFailure = 4,
        serviceUnavailable = 6,
        requestRateLimited = 7,
        notAuthenticated = 9,
        permissionFailure = 10,
        unknownItem = 11,
        invalidArguments = 12,
        serverRecordChanged = 14,
        serverRejectedRequest = 15,
        operationCancelled = 20,
        changeTokenExpired = 21,
        batchRequestFailed = 22,
        zoneBusy = 23,
        quotaExceeded = 25,
        zoneNotFound = 26,
        limitExceeded = 27,
    };

    Code code = Code::internalError;
    std::string description;
    // Seconds to wait before trying again, when the server said.
    std::optional<double> retryAfterSeconds;
    // The server's own code ("CONFLICT", "EXISTS", …) when it sent one.
    std::string serverErrorCode;

    // serverRecordChanged: what the server has, what was sent, and what the
    // sent record was based on (no keys when it was new, or when only its
    // system fields were known).
    std::shared_ptr<const CKRecord> serverRecord;
    std::shared_ptr<const CKRecord> clientRecord;
    std::shared_ptr<const CKRecord> ancestorRecord;

    // partialFailure: each failed item's own error.
    std::shared_ptr<const std::vector<CKItemError>> partialErrors;

    static CKError make(Code code, std::string description) {
        CKError error;
        error.code = code;
        error.description = std::move(description);
        return error;
    }

    // The error of one item of a partial failure, if it failed.
    const CKError* partialError(const std::string& itemName) const;

    // "CKError 14 (serverRecordChanged): …".
    std::string localizedDescription() const;
};

// One failed item: a record (recordID set), a zone or a subscription (name).
struct CKItemError {
    std::optional<CKRecordID> recordID;
    std::string name;
    CKError error;
};

std::string_view rawValue(CKError::Code code);

// The code for a server's serverErrorCode; none for codes we do not know.
std::optional<CKError::Code> ckErrorCodeForServerCode(std::string_view serverErrorCode);
// The code for an HTTP status that came without a usable body.
CKError::Code ckErrorCodeForHTTPStatus(long status);

}  // namespace tamsel::platform
