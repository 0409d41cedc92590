#pragma once

#include <string>
#include <string_view>

// The product's string tables ("TamselKit+Localizable", "CommonUI+Localizable",
// "Shortcut+Localizable"), loaded from resources/strings/<language>/<table>.strings.
// A key without a translation yields the key itself.
namespace tamsel::platform {

std::string localizedString(std::string_view table, std::string_view key);

}  // namespace tamsel::platform
