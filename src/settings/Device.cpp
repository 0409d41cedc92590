#include "settings/Device.h"

#include <sys/utsname.h>

#include <fstream>
#include <sstream>

namespace tamsel::settings {
namespace {

std::optional<utsname> kernel() {
    utsname names{};
    if (::uname(&names) != 0) return std::nullopt;
    return names;
}

}  // namespace

std::string Device::systemName() {
    const auto names = kernel();
    return names ? std::string(names->sysname) : std::string("Linux");
}

std::string Device::systemVersion() {
    const auto names = kernel();
    return names ? std::string(names->release) : std::string();
}

std::optional<std::string> Device::model() { return model("/sys/devices/virtual/dmi/id/product_name"); }

std::optional<std::string> Device::model(const std::filesystem::path& productNameFile) {
    std::ifstream file(productNameFile);
    if (!file) return std::nullopt;
    std::ostringstream contents;
    contents << file.rdbuf();
    if (file.bad()) return std::nullopt;
    std::string text = contents.str();
    // The firmware pads with white space and the kernel ends with a newline.
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return std::nullopt;
    const auto last = text.find_last_not_of(" \t\r\n");
    text = text.substr(first, last - first + 1);
    return text;
}

}  // namespace tamsel::settings
