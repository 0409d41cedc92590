#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <string>
#include <string_view>

#include "platform/Clock.h"

// The filter server's manifest of the rule archive, `/v4/metadata`: a
// property list (XML or binary) whose top-level dictionary has exactly the
// keys "id" (text), "date" (date: the publication time, which is the rule
// version) and "size" (number: the archive's size in bytes). Other keys are
// ignored.
//
// The date has whole-second resolution: the XML form cannot carry a
// fraction, and the version written from the date has none, so a decoded
// date is the same whichever form the server sent.
namespace tamsel::updates {

struct MetadataManifest {
    std::string id;
    platform::Date date;
    std::int64_t size = 0;

    // Reads either form; the date's fraction of a second is dropped. The
    // error says what is wrong, for the log line.
    static std::expected<MetadataManifest, std::string> decode(std::string_view bytes);

    // The XML form, as the development filter server publishes it, and the
    // binary form. Both write the date in whole seconds.
    std::string encodeXML() const;
    std::string encodeBinary() const;

    friend bool operator==(const MetadataManifest&, const MetadataManifest&) = default;
};

}  // namespace tamsel::updates

template <>
struct std::hash<tamsel::updates::MetadataManifest> {
    std::size_t operator()(const tamsel::updates::MetadataManifest& manifest) const noexcept;
};
