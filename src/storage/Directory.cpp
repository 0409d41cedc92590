#include "storage/Directory.h"

#include <string>
#include <system_error>

#include "platform/DataRoot.h"
#include "platform/FatalError.h"

namespace tamsel::storage {

namespace {

std::filesystem::path relativePath(StandardDirectory directory) {
    switch (directory) {
        case StandardDirectory::documents: return "Documents";
        case StandardDirectory::downloads: return "Downloads";
        case StandardDirectory::desktop: return "Desktop";
        case StandardDirectory::caches: return std::filesystem::path("Library") / "Caches";
        case StandardDirectory::applicationSupport: return std::filesystem::path("Library") / "Application Support";
    }
    return "Documents";
}

}  // namespace

std::filesystem::path Directory::url(StandardDirectory directory) {
    std::filesystem::path path = platform::DataRoot::home() / relativePath(directory);
    std::error_code error;
    std::filesystem::create_directories(path, error);
    std::error_code ignored;
    if (!std::filesystem::is_directory(path, ignored)) {
        platform::fatalError("Could not create the " + std::string(model::rawValue(directory)) + " directory at " +
                             path.string() + (error ? ": " + error.message() : std::string()));
    }
    return path;
}

}  // namespace tamsel::storage
