#include <array>
#include <string>

#include "model/ConfigurableType.h"
#include "model/ExtensionType.h"
#include "model/InternationalType.h"
#include "model/JSONFileName.h"
#include "model/LocalizationTableName.h"
#include "model/PackageCategory.h"
#include "platform/BuildConfig.h"
#include "platform/Localization.h"

namespace tamsel::model {

namespace {

template <typename Table, typename E>
std::string_view lookup(const Table& table, E value) {
    return table[static_cast<std::size_t>(value)];
}

constexpr std::array<std::string_view, 8> extensionNameKeys{
    "model.extension.block-ads.name",         "model.extension.block-trackers.name",
    "model.extension.block-annoyances.name",  "model.extension.block-social.name",
    "model.extension.block-comments.name",    "model.extension.block-adult.name",
    "model.extension.block-regional.name",    "model.extension.block-custom.name"};

constexpr std::array<std::string_view, 8> bundleSuffixes{
    ".MacBlockAdsExtension",         ".MacBlockTrackersExtension", ".MacBlockAnnoyancesExtension",
    ".MacBlockSocialExtension",      ".MacBlockCommentsExtension", ".MacBlockAdultExtension",
    ".MacBlockInternationalExtension", ".MacBlockCustomExtension"};

constexpr std::array<std::string_view, 3> categoryTitleKeys{
    "main.segmented-control.general", "main.segmented-control.regional",
    "main.segmented-control.custom"};

constexpr std::array<std::string_view, 9> internationalNameKeys{
    "model.type.international.block-german-ads.name",
    "model.type.international.block-russian-ads.name",
    "model.type.international.block-spanish-ads.name",
    "model.type.international.block-italian-ads.name",
    "model.type.international.block-french-ads.name",
    "model.type.international.block-chinese-ads.name",
    "model.type.international.block-japanese-ads.name",
    "model.type.international.block-dutch-ads.name",
    "model.type.international.block-polish-ads.name"};

constexpr std::array<std::string_view, 5> configurableNameKeys{
    "model.type.configurable.block-url.name", "model.type.configurable.block-cookies.name",
    "model.type.configurable.hide-elements.name", "model.type.configurable.whitelist.name",
    "model.type.configurable.make-https.name"};

}  // namespace

std::string_view displayNameKey(ExtensionType type) { return lookup(extensionNameKeys, type); }

std::string localizedName(ExtensionType type) {
    return platform::localizedString(rawValue(LocalizationTableName::tamselKit), displayNameKey(type));
}

std::string_view bundleIdentifierSuffix(ExtensionType type) { return lookup(bundleSuffixes, type); }

std::string bundleIdentifier(ExtensionType type) {
    std::string identifier = build::hostBundleIdentifier;
    identifier += bundleIdentifierSuffix(type);
    return identifier;
}

std::optional<ExtensionType> extensionTypeFromBundleIdentifier(std::string_view identifier) {
    const std::string_view host = build::hostBundleIdentifier;
    if (!identifier.starts_with(host)) return std::nullopt;
    const std::string_view suffix = identifier.substr(host.size());
    for (ExtensionType type : allCases<ExtensionType>()) {
        if (bundleIdentifierSuffix(type) == suffix) return type;
    }
    return std::nullopt;
}

PackageCategory packageCategoryForExtensionOfType(ExtensionType type) {
    switch (type) {
        case ExtensionType::regionalRules: return PackageCategory::international;
        case ExtensionType::customRules: return PackageCategory::custom;
        default: return PackageCategory::general;
    }
}

std::string_view titleKey(PackageCategory category) { return lookup(categoryTitleKeys, category); }

std::string localizedTitle(PackageCategory category) {
    return platform::localizedString(rawValue(LocalizationTableName::commonUI), titleKey(category));
}

std::string_view displayNameKey(InternationalType type) { return lookup(internationalNameKeys, type); }

std::string_view displayNameKey(ConfigurableType type) { return lookup(configurableNameKeys, type); }

std::string fileName(JSONFileName name) {
    std::string file(rawValue(name));
    file += ".json";
    return file;
}

}  // namespace tamsel::model
