#include "platform/Resources.h"

#include <cstdlib>

#include "platform/BuildConfig.h"

namespace tamsel::platform {

std::filesystem::path resourcesDirectory() {
    const char* resources = std::getenv("TAMSEL_RESOURCES");
    if (resources != nullptr && *resources != '\0') return resources;
    return build::resourcesDirectory;
}

}  // namespace tamsel::platform
