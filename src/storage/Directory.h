#pragma once

#include <array>
#include <filesystem>
#include <string_view>

#include "model/RawRepresentable.h"

namespace tamsel::storage {

// The standard per-user directories that the program uses. On this platform
// they stand below the data root's home rather than the user's own home, so
// that everything the program writes stays under one root.
enum class StandardDirectory {
    documents,           // "documents": <home>/Documents
    downloads,           // "downloads": <home>/Downloads
    desktop,             // "desktop": <home>/Desktop
    caches,              // "caches": <home>/Library/Caches
    applicationSupport,  // "applicationSupport": <home>/Library/Application Support
};

class Directory {
public:
    Directory() = delete;

    // The directory, created with its parents when it does not exist yet. A
    // directory that cannot be created stops the process: every caller would
    // fail on it anyway, and the message names the path.
    static std::filesystem::path url(StandardDirectory directory);
};

}  // namespace tamsel::storage

namespace tamsel::model {

template <>
struct RawValueTable<storage::StandardDirectory> {
    static constexpr std::array<std::string_view, 5> rawValues{"documents", "downloads", "desktop", "caches",
                                                               "applicationSupport"};
};

}  // namespace tamsel::model
