#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "model/RawRepresentable.h"

namespace tamsel::model {

// The eight Safari content-blocker extensions of the product; every package
// feeds exactly one of them. The raw string is the JSON form used in a rule's
// "partial-whitelist" and, for the six general extensions, also the
// identifier of that extension's package.
enum class ExtensionType {
    blockAds,         // "block-ads"
    blockTrackers,    // "block-trackers"
    blockAnnoyances,  // "block-annoyances"
    blockSocial,      // "block-social"
    blockComments,    // "block-comments"
    blockAdult,       // "block-adult"
    regionalRules,    // "block-international"
    customRules,      // "block-custom"
};

template <>
struct RawValueTable<ExtensionType> {
    static constexpr std::array<std::string_view, 8> rawValues{
        "block-ads",    "block-trackers", "block-annoyances",    "block-social",
        "block-comments", "block-adult",  "block-international", "block-custom"};
};

// Key of the display name in the "TamselKit+Localizable" table, e.g.
// "model.extension.block-ads.name" (regionalRules uses "block-regional").
std::string_view displayNameKey(ExtensionType type);

// The display name in the user's language; the key itself when untranslated.
std::string localizedName(ExtensionType type);

// What the host bundle identifier is followed by to make the extension's
// bundle identifier, e.g. ".MacBlockAdsExtension".
std::string_view bundleIdentifierSuffix(ExtensionType type);

// The extension's bundle identifier: host bundle identifier + suffix.
std::string bundleIdentifier(ExtensionType type);

// The extension whose bundle identifier is exactly `identifier`, if any.
std::optional<ExtensionType> extensionTypeFromBundleIdentifier(std::string_view identifier);

}  // namespace tamsel::model
