#pragma once

#include <array>
#include <string>
#include <string_view>

#include "model/RawRepresentable.h"

namespace tamsel::model {

// The package files of the filters folder. Note the order differs from
// ExtensionType's (adult and trackers trade places), and blockConfigurable
// is a file name only: no package has it as identifier.
enum class JSONFileName {
    blockAds,            // "block-ads"
    blockAdult,          // "block-adult"
    blockAnnoyances,     // "block-annoyances"
    blockSocial,         // "block-social"
    blockComments,       // "block-comments"
    blockTrackers,       // "block-trackers"
    blockInternational,  // "block-international"
    blockConfigurable,   // "block-configurable"
    blockCustom,         // "block-custom"
};

template <>
struct RawValueTable<JSONFileName> {
    static constexpr std::array<std::string_view, 9> rawValues{
        "block-ads",      "block-adult",   "block-annoyances",    "block-social",      "block-comments",
        "block-trackers", "block-international", "block-configurable", "block-custom"};
};

// The file's name: the raw string followed by ".json".
std::string fileName(JSONFileName name);

}  // namespace tamsel::model
