#include "platform/DataRoot.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>

namespace tamsel::platform {
namespace {

struct HomeOverride {
    std::mutex mutex;
    std::optional<std::filesystem::path> path;
};

HomeOverride& homeOverrideSlot() {
    static HomeOverride slot;
    return slot;
}

std::optional<std::filesystem::path> environmentPath(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') return std::nullopt;
    return std::filesystem::path(value);
}

std::filesystem::path userHome() {
    if (auto home = environmentPath("HOME")) return *home;
    // Services started without a login environment still have a passwd entry.
    std::string buffer(16384, '\0');
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr) {
        return found->pw_dir;
    }
    return std::filesystem::temp_directory_path();
}

std::filesystem::path resolveHome() {
    {
        auto& slot = homeOverrideSlot();
        std::lock_guard lock(slot.mutex);
        if (slot.path) return *slot.path;
    }
    if (auto home = environmentPath("TAMSEL_HOME")) return *home;
    // XDG: a relative XDG_DATA_HOME is invalid and must be ignored.
    auto dataHome = environmentPath("XDG_DATA_HOME");
    if (!dataHome || dataHome->is_relative()) dataHome = userHome() / ".local" / "share";
    return *dataHome / "tamsel";
}

std::filesystem::path ensured(std::filesystem::path directory) {
    std::error_code ignored;
    std::filesystem::create_directories(directory, ignored);
    return directory;
}

}  // namespace

void DataRoot::setHome(std::optional<std::filesystem::path> home) {
    auto& slot = homeOverrideSlot();
    std::lock_guard lock(slot.mutex);
    slot.path = std::move(home);
}

std::optional<std::filesystem::path> DataRoot::homeOverride() {
    auto& slot = homeOverrideSlot();
    std::lock_guard lock(slot.mutex);
    return slot.path;
}

std::filesystem::path DataRoot::home() { return ensured(resolveHome()); }

std::filesystem::path DataRoot::groupContainer() { return ensured(resolveHome() / "group"); }

std::filesystem::path DataRoot::extensionDirectory() { return ensured(resolveHome() / "extension"); }

std::filesystem::path DataRoot::cloudDirectory() { return ensured(resolveHome() / "cloud"); }

}  // namespace tamsel::platform
