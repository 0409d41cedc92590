#pragma once

#include <array>
#include <string_view>

#include "model/RawRepresentable.h"

namespace tamsel::model {

// The regional filter lists that feed the regionalRules extension. The raw
// string is the package identifier.
enum class InternationalType {
    blockGerman,    // "block-german"
    blockRussian,   // "block-russian"
    blockSpanish,   // "block-spanish"
    blockItalian,   // "block-italian"
    blockFrench,    // "block-french"
    blockChinese,   // "block-chinese"
    blockJapanese,  // "block-japanese"
    blockDutch,     // "block-dutch"
    blockPolish,    // "block-polish"
};

template <>
struct RawValueTable<InternationalType> {
    static constexpr std::array<std::string_view, 9> rawValues{
        "block-german", "block-russian",  "block-spanish", "block-italian", "block-french",
        "block-chinese", "block-japanese", "block-dutch",   "block-polish"};
};

// Key of the display name in "TamselKit+Localizable", e.g.
// "model.type.international.block-german-ads.name".
std::string_view displayNameKey(InternationalType type);

}  // namespace tamsel::model
