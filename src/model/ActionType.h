#pragma once

#include <array>
#include <string_view>

#include "model/RawRepresentable.h"

namespace tamsel::model {

// What a content-blocker entry does to the loads its trigger matches.
enum class ActionType {
    block,                // "block": block the load
    blockCookies,         // "block-cookies": strip cookies from the load
    hide,                 // "css-display-none": hide elements matching the selector
    ignorePreviousRules,  // "ignore-previous-rules": whitelist earlier entries
    makeHttps,            // "make-https": upgrade the load to HTTPS
};

template <>
struct RawValueTable<ActionType> {
    static constexpr std::array<std::string_view, 5> rawValues{
        "block", "block-cookies", "css-display-none", "ignore-previous-rules", "make-https"};
};

}  // namespace tamsel::model
