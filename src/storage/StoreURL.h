#pragma once

#include <filesystem>
#include <string_view>

namespace tamsel::storage {

// The file of the SQLite database `databaseName` (for example
// "blocked-resources-data"): "<name>.sqlite" directly in the app-group
// container, not below "Library". The container is looked up afresh on each
// call; when it is missing and cannot be made the process stops with "Shared
// file container could not be created.".
std::filesystem::path storeURL(std::string_view databaseName);

}  // namespace tamsel::storage
