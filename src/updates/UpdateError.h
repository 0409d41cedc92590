#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "model/RawRepresentable.h"
#include "platform/HTTPClient.h"
#include "storage/ReloadingResult.h"

// Why fetching, unpacking or installing a rule archive failed. One value type
// travels through every layer of the update (downloader, unpack step, manifest
// reader, update manager), so a caller can always tell a network failure from
// an unsafe archive without parsing texts.
namespace tamsel::updates {

enum class ErrorCode {
    // No usable reply: refused, reset, timed out, malformed URL.
    transport,
    // The server answered with an HTTP status of 400 or more.
    httpStatus,
    // A folder or file of ours could not be created, written or moved.
    fileSystem,
    // The background-assets download manager refused or failed.
    backgroundAssets,
    // The archive could not be read: wrong password, truncated, corrupt.
    unzip,
    // An entry would land outside the filters folder, or is a link.
    unsafeEntry,
    // The archive unpacks to more than a rule set can hold: a file over the
    // limit for one file, or all files over the limit for all.
    archiveTooLarge,
    // The manifest is not a property list with "id", "date" and "size".
    manifestParsing,
    // The archive's HEAD reply carried no header fields (no reply at all).
    headerFieldsNotFound,
    // The archive's HEAD reply has no usable "Last-Modified".
    cloudVersionNotFound,
    // An install was to start but no server version was known.
    cachedCloudVersionNotAvailable,
    // Rebuilding or reloading the extensions after the install failed.
    reload,
    // The reply's body is larger than the download may be.
    downloadTooLarge,
    // A package file of the archive does not decode as the package file of
    // its name; nothing of the archive is installed.
    invalidPackageFile,
    // The archive holds none of the files of a rule set.
    noRuleFiles,
    // No filter server address is configured: nothing was asked.
    noFilterServer,
};

struct Error {
    ErrorCode code = ErrorCode::transport;
    // For logs and the command line; says what failed and, where known, why.
    std::string description;
    // The server's status, for httpStatus.
    std::optional<long> httpStatus;
    // The extension manager's error, for reload.
    std::optional<storage::ReloadingError> reloadingError;

    static Error make(ErrorCode code, std::string description) { return {code, std::move(description), {}, {}}; }

    friend bool operator==(const Error&, const Error&) = default;
};

// The update code's view of an HTTP client failure: no usable reply is a
// transport error, a body over the limit is downloadTooLarge, and a receiver
// that could not keep the data is a fileSystem error.
inline Error updateError(platform::HTTPError error) {
    using Code = platform::HTTPError::Code;
    switch (error.code) {
        case Code::tooLarge: return Error::make(ErrorCode::downloadTooLarge, std::move(error.description));
        case Code::receiverRefused: return Error::make(ErrorCode::fileSystem, std::move(error.description));
        case Code::transport:
        case Code::cancelled: break;
    }
    return Error::make(ErrorCode::transport, std::move(error.description));
}

// Using the platform's client from the update code.
using platform::HTTPClient;
using platform::HTTPRequest;
using platform::HTTPResponse;
using platform::HTTPHeaders;

}  // namespace tamsel::updates

namespace tamsel::model {
template <>
struct RawValueTable<updates::ErrorCode> {
    static constexpr std::array<std::string_view, 16> rawValues{
        "transport",       "httpStatus",           "fileSystem",         "backgroundAssets",
        "unzip",           "unsafeEntry",          "archiveTooLarge",    "manifestParsing",
        "headerFieldsNotFound", "cloudVersionNotFound", "cachedCloudVersionNotAvailable", "reload",
        "downloadTooLarge", "invalidPackageFile",  "noRuleFiles",        "noFilterServer"};
};
}  // namespace tamsel::model
