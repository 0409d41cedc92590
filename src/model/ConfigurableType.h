#pragma once

#include <array>
#include <string_view>

#include "model/RawRepresentable.h"

namespace tamsel::model {

// The packages the user fills from the popover and the editors; they all feed
// the customRules extension. The raw string is the package identifier.
enum class ConfigurableType {
    blockURL,      // "block-url": the user's blocking rules
    blockCookies,  // "block-cookies": cookie-blocking rules
    hideElements,  // "hide-elements": element-hiding rules
    whitelist,     // "whitelist": whitelist rules
    makeHttps,     // "make-https": make-HTTPS rules
};

template <>
struct RawValueTable<ConfigurableType> {
    static constexpr std::array<std::string_view, 5> rawValues{
        "block-url", "block-cookies", "hide-elements", "whitelist", "make-https"};
};

// Key of the display name in "TamselKit+Localizable", e.g.
// "model.type.configurable.block-url.name".
std::string_view displayNameKey(ConfigurableType type);

}  // namespace tamsel::model
