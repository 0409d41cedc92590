#pragma once

#include <expected>
#include <string>

#include "updates/MetadataManifest.h"
#include "updates/UpdateError.h"

// Fetches and reads the filter server's manifest. Logs (category "Update")
// "Metadata download failed. Response: %@, error: %@" when no manifest
// arrived and "Metadata manifest parsing failed. Error: %@" when what arrived
// is not a manifest.
namespace tamsel::updates {

class MetadataManager {
public:
    // A manifest is a few hundred bytes; a server that sends more is not
    // sending a manifest, and is not given the memory to try.
    static constexpr std::size_t maximumManifestSize = 1 << 20;

    // Blocks for the request: call it off the main queue. Errors: transport,
    // httpStatus (404, 500, …) and manifestParsing.
    std::expected<MetadataManifest, Error> fetchManifest(const std::string& url) const;
};

}  // namespace tamsel::updates
