#include "updates/MetadataManager.h"

#include "platform/Log.h"
#include "updates/Downloader.h"
#include "platform/HTTPClient.h"
#include "updates/UpdateError.h"

namespace tamsel::updates {
namespace {

const platform::SystemLogger& logger() {
    static const platform::SystemLogger instance("Update");
    return instance;
}

}  // namespace

std::expected<MetadataManifest, Error> MetadataManager::fetchManifest(const std::string& url) const {
    HTTPRequest request{url, HTTPRequest::Method::get, Downloader::requestTimeout(), {}};
    std::string body;
    HTTPResponse response;
    auto result = HTTPClient::perform(
        request,
        [&body](std::string_view chunk) {
            if (body.size() + chunk.size() > maximumManifestSize) return false;
            body.append(chunk);
            return true;
        },
        &response);

    if (!result && result.error().code == platform::HTTPError::Code::receiverRefused) {
        // Refused by the receiver above: too much to be a manifest.
        const std::string reason = "The manifest is larger than " + std::to_string(maximumManifestSize) + " bytes";
        logger().error("Metadata manifest parsing failed. Error: %s", reason.c_str());
        return std::unexpected(Error::make(ErrorCode::manifestParsing, reason));
    }
    std::optional<Error> failure;
    if (!result) {
        failure = updateError(std::move(result.error()));
    } else if (result->status >= 400) {
        failure = Error{ErrorCode::httpStatus, "The server answered with status " + std::to_string(result->status),
                        result->status, std::nullopt};
    }
    if (failure) {
        const std::string responseText = response.status == 0 ? "nil" : response.description();
        logger().error("Metadata download failed. Response: %s, error: %s", responseText.c_str(),
                       failure->description.c_str());
        return std::unexpected(std::move(*failure));
    }

    auto manifest = MetadataManifest::decode(body);
    if (!manifest) {
        logger().error("Metadata manifest parsing failed. Error: %s", manifest.error().c_str());
        return std::unexpected(Error::make(ErrorCode::manifestParsing, std::move(manifest.error())));
    }
    return std::move(*manifest);
}

}  // namespace tamsel::updates
