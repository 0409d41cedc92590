#pragma once

#include <array>
#include <string_view>

#include "model/RawRepresentable.h"

namespace tamsel::model {

// The kinds of load a content-blocker trigger can be limited to; the raw
// strings are Safari's "resource-type" values.
enum class ResourceType {
    document,    // "document"
    image,       // "image"
    styleSheet,  // "style-sheet"
    script,      // "script"
    font,        // "font"
    raw,         // "raw"
    svg,         // "svg-document"
    media,       // "media"
    popup,       // "popup"
};

template <>
struct RawValueTable<ResourceType> {
    static constexpr std::array<std::string_view, 9> rawValues{
        "document", "image", "style-sheet", "script", "font",
        "raw", "svg-document", "media", "popup"};
};

}  // namespace tamsel::model
