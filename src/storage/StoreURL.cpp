#include "storage/StoreURL.h"

#include <string>
#include <system_error>

#include "platform/DataRoot.h"
#include "platform/FatalError.h"

namespace tamsel::storage {

std::filesystem::path storeURL(std::string_view databaseName) {
    std::filesystem::path container = platform::DataRoot::groupContainer();
    std::error_code error;
    if (!std::filesystem::is_directory(container, error)) {
        platform::fatalError("Shared file container could not be created.");
    }
    return container / (std::string(databaseName) + ".sqlite");
}

}  // namespace tamsel::storage
