#include "updates/MetadataManifest.h"

#include <plist/plist.h>

#include "model/Hashing.h"
#include "platform/Value.h"

#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>

namespace tamsel::updates {
namespace {

struct PlistDeleter {
    void operator()(plist_t node) const { plist_free(node); }
};
using Plist = std::unique_ptr<std::remove_pointer_t<plist_t>, PlistDeleter>;

// Property-list dates count from 2001-01-01 00:00:00 UTC.
constexpr platform::Date referenceDate{std::chrono::seconds(978307200)};

// libplist 2.2 keeps a date as a double of seconds since 2001, but hands it
// over and takes it only as 32-bit seconds: anything outside 1933 to 2069
// overflows (to 1932-12-13 on this machine). Its XML writer and reader carry
// the whole range as text, so dates cross the library that way, in whole
// seconds, which is all the XML form holds anyway.
std::optional<platform::Date> dateFromPlist(plist_t node) {
    Plist copy(plist_copy(node));
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(copy.get(), &xml, &length);
    const std::string text(xml ? xml : "", length);
    plist_to_xml_free(xml);
    const auto open = text.find("<date>");
    const auto close = text.find("</date>");
    if (open == std::string::npos || close == std::string::npos || close < open) return std::nullopt;
    auto date = platform::parseISO8601(std::string_view(text).substr(open + 6, close - open - 6));
    // The text is truncated toward 2001; before it, a fraction (which the
    // 32-bit getter still reports right) means the second before, so that a
    // date is always rounded toward the past.
    std::int32_t seconds = 0, microseconds = 0;
    plist_get_date_val(node, &seconds, &microseconds);
    if (date && microseconds != 0 && *date < referenceDate) *date -= std::chrono::seconds(1);
    return date;
}

plist_t plistDate(platform::Date date) {
    const std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><date>" +
                            platform::formatISO8601(std::chrono::floor<std::chrono::seconds>(date)) +
                            "</date></plist>";
    plist_t node = nullptr;
    plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &node);
    return node;
}

Plist makeDictionary(const MetadataManifest& manifest) {
    Plist dictionary(plist_new_dict());
    plist_dict_set_item(dictionary.get(), "id", plist_new_string(manifest.id.c_str()));
    if (plist_t date = plistDate(manifest.date)) plist_dict_set_item(dictionary.get(), "date", date);
    plist_dict_set_item(dictionary.get(), "size", plist_new_uint(static_cast<std::uint64_t>(manifest.size)));
    return dictionary;
}

}  // namespace

std::expected<MetadataManifest, std::string> MetadataManifest::decode(std::string_view bytes) {
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) return std::unexpected("The manifest is too large");
    plist_t parsed = nullptr;
    plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &parsed);
    Plist root(parsed);
    if (!root) return std::unexpected("The data is not a property list");
    if (plist_get_node_type(root.get()) != PLIST_DICT) return std::unexpected("The property list is not a dictionary");

    MetadataManifest manifest;
    plist_t id = plist_dict_get_item(root.get(), "id");
    if (!id) return std::unexpected("No value for the key \"id\"");
    if (plist_get_node_type(id) != PLIST_STRING) return std::unexpected("The value of \"id\" is not a string");
    char* text = nullptr;
    plist_get_string_val(id, &text);
    manifest.id = text ? text : "";
    std::free(text);

    plist_t date = plist_dict_get_item(root.get(), "date");
    if (!date) return std::unexpected("No value for the key \"date\"");
    if (plist_get_node_type(date) != PLIST_DATE) return std::unexpected("The value of \"date\" is not a date");
    const auto value = dateFromPlist(date);
    if (!value) return std::unexpected("The value of \"date\" is outside the years 1000 to 9999");
    manifest.date = *value;

    plist_t size = plist_dict_get_item(root.get(), "size");
    if (!size) return std::unexpected("No value for the key \"size\"");
    if (plist_get_node_type(size) == PLIST_UINT) {
        std::uint64_t value = 0;
        plist_get_uint_val(size, &value);
        manifest.size = static_cast<std::int64_t>(value);
    } else if (plist_get_node_type(size) == PLIST_REAL) {
        double value = 0;
        plist_get_real_val(size, &value);
        // An integral number written as a real is still a size; anything else is not.
        if (!std::isfinite(value) || value != std::floor(value) || std::fabs(value) > 9.0e15) {
            return std::unexpected("The value of \"size\" is not a whole number");
        }
        manifest.size = static_cast<std::int64_t>(value);
    } else {
        return std::unexpected("The value of \"size\" is not a number");
    }
    return manifest;
}

std::string MetadataManifest::encodeXML() const {
    Plist dictionary = makeDictionary(*this);
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(dictionary.get(), &xml, &length);
    std::string result(xml ? xml : "", length);
    plist_to_xml_free(xml);
    return result;
}

std::string MetadataManifest::encodeBinary() const {
    Plist dictionary = makeDictionary(*this);
    char* binary = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(dictionary.get(), &binary, &length);
    std::string result(binary ? binary : "", length);
    plist_to_bin_free(binary);
    return result;
}

}  // namespace tamsel::updates

std::size_t std::hash<tamsel::updates::MetadataManifest>::operator()(
    const tamsel::updates::MetadataManifest& manifest) const noexcept {
    return tamsel::model::HashBuilder()
        .add(manifest.id)
        .add(manifest.date.time_since_epoch().count())
        .add(manifest.size)
        .value();
}
