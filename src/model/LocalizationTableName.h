#pragma once

#include <array>
#include <string_view>

#include "model/RawRepresentable.h"

namespace tamsel::model {

// The three string tables every user-visible text is looked up in.
enum class LocalizationTableName {
    tamselKit,  // "TamselKit+Localizable"
    commonUI,   // "CommonUI+Localizable"
    shortcut,   // "Shortcut+Localizable"
};

template <>
struct RawValueTable<LocalizationTableName> {
    static constexpr std::array<std::string_view, 3> rawValues{
        "TamselKit+Localizable", "CommonUI+Localizable", "Shortcut+Localizable"};
};

}  // namespace tamsel::model
