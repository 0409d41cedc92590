#include "platform/Resources.h"

#include <cstdlib>

namespace tamsel::platform {

std::filesystem::path resourcesDirectory() {
    const char* resources = std::getenv("TAMSEL_RESOURCES");
    if (resources != nullptr && *resources != '\0') return resources;
    return TAMSEL_RESOURCES_DIR;
}

}  // namespace tamsel::platform
