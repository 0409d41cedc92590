#pragma once

#include <filesystem>
#include <optional>

// The one folder under which the program keeps everything it persists:
//   the --home option (DataRoot::setHome), else $TAMSEL_HOME,
//   else ${XDG_DATA_HOME:-$HOME/.local/share}/tamsel.
// Below it:
//   group/      the app-group container, shared with the host and the agent;
//   extension/  this process's own defaults;
//   cloud/      the stand-ins for the cloud stores.
//
// The accessors create their folder when it is missing. When that fails they
// still return the path, and whoever opens a file in it reports the failure.
// Thread-safe.
namespace tamsel::platform {

class DataRoot {
public:
    // Overrides the environment; std::nullopt goes back to it.
    static void setHome(std::optional<std::filesystem::path> home);
    // What setHome last set.
    static std::optional<std::filesystem::path> homeOverride();

    static std::filesystem::path home();
    static std::filesystem::path groupContainer();
    static std::filesystem::path extensionDirectory();
    static std::filesystem::path cloudDirectory();
};

}  // namespace tamsel::platform
