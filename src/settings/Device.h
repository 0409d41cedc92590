#pragma once

#include <filesystem>
#include <optional>
#include <string>

// The machine, as problem reports describe it.
namespace tamsel::settings {

struct Device {
    // The kernel's name ("Linux"), from uname().
    static std::string systemName();
    // The kernel release ("6.1.0-18-amd64"), from uname().
    static std::string systemVersion();
    // The firmware's product name ("ThinkPad X1 Carbon Gen 9"); absent when
    // the machine does not tell (containers, some virtual machines).
    static std::optional<std::string> model();
    // The same, read from the given file.
    static std::optional<std::string> model(const std::filesystem::path& productNameFile);
};

}  // namespace tamsel::settings
