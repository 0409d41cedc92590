// The closed vocabularies: raw strings and case order, and how a package's
// extension, category and display name follow from its identifier alone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "model/ActionType.h"
#include "model/ConfigurableType.h"
#include "model/DomainFilterType.h"
#include "model/ExtensionType.h"
#include "model/InternationalType.h"
#include "model/JSONFileName.h"
#include "model/LoadType.h"
#include "model/LocalizationTableName.h"
#include "model/Package.h"
#include "model/PackageCategory.h"
#include "model/ResourceType.h"
#include "platform/BuildConfig.h"
#include "platform/Localization.h"

namespace tamsel::model {
namespace {

using ::testing::ElementsAre;

template <RawRepresentable E>
std::vector<std::string_view> rawValues() {
    std::vector<std::string_view> values;
    for (E value : allCases<E>()) values.push_back(rawValue(value));
    return values;
}

// Every case converts to its raw string and back, and nothing else converts.
template <RawRepresentable E>
void expectRawValuesRoundTrip() {
    for (E value : allCases<E>()) {
        EXPECT_EQ(fromRawValue<E>(rawValue(value)), value) << rawValue(value);
        const std::string upper = [&] {
            std::string text(rawValue(value));
            for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            return text;
        }();
        EXPECT_EQ(fromRawValue<E>(upper), std::nullopt) << upper;
        EXPECT_EQ(fromRawValue<E>(std::string(rawValue(value)) + " "), std::nullopt);
    }
    EXPECT_EQ(fromRawValue<E>(""), std::nullopt);
}

std::string tamselKit(std::string_view key) { return platform::localizedString("TamselKit+Localizable", key); }

Package packageWithID(std::string id) { return Package(std::move(id), "Own name", {}); }

TEST(CatalogueTest, EntryVocabulariesHaveTheirRawStringsInOrder) {
    EXPECT_THAT(rawValues<ResourceType>(), ElementsAre("document", "image", "style-sheet", "script", "font", "raw",
                                                       "svg-document", "media", "popup"));
    EXPECT_THAT(rawValues<LoadType>(), ElementsAre("first-party", "third-party"));
    EXPECT_THAT(rawValues<DomainFilterType>(), ElementsAre("if-domain", "unless-domain"));
    EXPECT_THAT(rawValues<ActionType>(), ElementsAre("block", "block-cookies", "css-display-none",
                                                     "ignore-previous-rules", "make-https"));
    expectRawValuesRoundTrip<ResourceType>();
    expectRawValuesRoundTrip<LoadType>();
    expectRawValuesRoundTrip<DomainFilterType>();
    expectRawValuesRoundTrip<ActionType>();
    EXPECT_EQ(fromRawValue<ResourceType>("stylesheet"), std::nullopt);
}

TEST(CatalogueTest, CatalogueVocabulariesHaveTheirRawStringsInOrder) {
    EXPECT_THAT(rawValues<ExtensionType>(),
                ElementsAre("block-ads", "block-trackers", "block-annoyances", "block-social", "block-comments",
                            "block-adult", "block-international", "block-custom"));
    EXPECT_THAT(rawValues<InternationalType>(),
                ElementsAre("block-german", "block-russian", "block-spanish", "block-italian", "block-french",
                            "block-chinese", "block-japanese", "block-dutch", "block-polish"));
    EXPECT_THAT(rawValues<ConfigurableType>(),
                ElementsAre("block-url", "block-cookies", "hide-elements", "whitelist", "make-https"));
    // Adult and trackers trade places compared with the extension order.
    EXPECT_THAT(rawValues<JSONFileName>(),
                ElementsAre("block-ads", "block-adult", "block-annoyances", "block-social", "block-comments",
                            "block-trackers", "block-international", "block-configurable", "block-custom"));
    EXPECT_THAT(rawValues<LocalizationTableName>(),
                ElementsAre("TamselKit+Localizable", "CommonUI+Localizable", "Shortcut+Localizable"));
    EXPECT_THAT(allCases<PackageCategory>(),
                ElementsAre(PackageCategory::general, PackageCategory::international, PackageCategory::custom));
    expectRawValuesRoundTrip<ExtensionType>();
    expectRawValuesRoundTrip<InternationalType>();
    expectRawValuesRoundTrip<ConfigurableType>();
    expectRawValuesRoundTrip<JSONFileName>();
    expectRawValuesRoundTrip<LocalizationTableName>();
    EXPECT_EQ(fileName(JSONFileName::blockConfigurable), "block-configurable.json");
}

TEST(CatalogueTest, ExtensionNamesAndBundleIdentifiers) {
    EXPECT_EQ(displayNameKey(ExtensionType::blockAds), "model.extension.block-ads.name");
    EXPECT_EQ(displayNameKey(ExtensionType::regionalRules), "model.extension.block-regional.name");
    EXPECT_EQ(displayNameKey(ExtensionType::customRules), "model.extension.block-custom.name");
    EXPECT_EQ(localizedName(ExtensionType::blockAdult), tamselKit("model.extension.block-adult.name"));

    const std::string host = build::hostBundleIdentifier;
    EXPECT_EQ(bundleIdentifier(ExtensionType::blockAds), host + ".MacBlockAdsExtension");
    EXPECT_EQ(bundleIdentifier(ExtensionType::regionalRules), host + ".MacBlockInternationalExtension");
    for (ExtensionType type : allCases<ExtensionType>()) {
        EXPECT_EQ(extensionTypeFromBundleIdentifier(bundleIdentifier(type)), type);
    }
    EXPECT_EQ(extensionTypeFromBundleIdentifier(host + ".MacBlockInternationalExtension"),
              ExtensionType::regionalRules);
    EXPECT_EQ(extensionTypeFromBundleIdentifier(host + ".MacBlockRegionalExtension"), std::nullopt);
    EXPECT_EQ(extensionTypeFromBundleIdentifier(host + ".MacBlockAdsExtension2"), std::nullopt);
    EXPECT_EQ(extensionTypeFromBundleIdentifier("other" + host + ".MacBlockAdsExtension"), std::nullopt);
    EXPECT_EQ(extensionTypeFromBundleIdentifier(".MacBlockAdsExtension"), std::nullopt);
    EXPECT_EQ(extensionTypeFromBundleIdentifier(host), std::nullopt);
}

TEST(CatalogueTest, CategoriesOfExtensionsAndTheirTitles) {
    for (ExtensionType type : {ExtensionType::blockAds, ExtensionType::blockTrackers, ExtensionType::blockAnnoyances,
                               ExtensionType::blockSocial, ExtensionType::blockComments, ExtensionType::blockAdult}) {
        EXPECT_EQ(packageCategoryForExtensionOfType(type), PackageCategory::general);
    }
    EXPECT_EQ(packageCategoryForExtensionOfType(ExtensionType::regionalRules), PackageCategory::international);
    EXPECT_EQ(packageCategoryForExtensionOfType(ExtensionType::customRules), PackageCategory::custom);

    EXPECT_EQ(titleKey(PackageCategory::general), "main.segmented-control.general");
    EXPECT_EQ(titleKey(PackageCategory::international), "main.segmented-control.regional");
    EXPECT_EQ(titleKey(PackageCategory::custom), "main.segmented-control.custom");
    EXPECT_EQ(localizedTitle(PackageCategory::custom),
              platform::localizedString("CommonUI+Localizable", "main.segmented-control.custom"));
}

TEST(CatalogueTest, RegionalPackageFeedsRegionalRules) {
    const Package german = packageWithID("block-german");
    EXPECT_EQ(german.type(), ExtensionType::regionalRules);
    EXPECT_EQ(german.category(), PackageCategory::international);
    EXPECT_FALSE(german.isConfigurable());
    EXPECT_EQ(german.displayName(), tamselKit("model.type.international.block-german-ads.name"));

    for (InternationalType type : allCases<InternationalType>()) {
        EXPECT_EQ(packageWithID(std::string(rawValue(type))).type(), ExtensionType::regionalRules);
    }
}

TEST(CatalogueTest, ConfigurablePackagesFeedCustomRules) {
    const Package makeHttps = packageWithID("make-https");
    EXPECT_EQ(makeHttps.type(), ExtensionType::customRules);
    EXPECT_EQ(makeHttps.category(), PackageCategory::custom);
    EXPECT_TRUE(makeHttps.isConfigurable());
    EXPECT_FALSE(makeHttps.isConfigurableWhitelist());
    EXPECT_EQ(makeHttps.displayName(), tamselKit("model.type.configurable.make-https.name"));

    const Package whitelist = packageWithID("whitelist");
    EXPECT_TRUE(whitelist.isConfigurable());
    EXPECT_TRUE(whitelist.isConfigurableWhitelist());
    EXPECT_EQ(whitelist.type(), ExtensionType::customRules);
    EXPECT_FALSE(packageWithID("Whitelist").isConfigurableWhitelist());

    for (ConfigurableType type : allCases<ConfigurableType>()) {
        const Package package = packageWithID(std::string(rawValue(type)));
        EXPECT_TRUE(package.isConfigurable());
        EXPECT_EQ(package.displayName(), tamselKit(displayNameKey(type)));
    }
}

TEST(CatalogueTest, GeneralPackagesFollowTheirExtension) {
    const Package ads = packageWithID("block-ads");
    EXPECT_EQ(ads.type(), ExtensionType::blockAds);
    EXPECT_EQ(ads.category(), PackageCategory::general);
    EXPECT_EQ(ads.displayName(), tamselKit("model.extension.block-ads.name"));
    EXPECT_EQ(packageWithID("block-adult").type(), ExtensionType::blockAdult);
}

TEST(CatalogueTest, UnknownAndFileOnlyIdentifiersAreCustomWithTheirOwnName) {
    for (const char* id : {"my-own-list", "block-configurable", "", "BLOCK-ADS"}) {
        const Package package = packageWithID(id);
        EXPECT_EQ(package.type(), ExtensionType::customRules) << id;
        EXPECT_EQ(package.category(), PackageCategory::custom) << id;
        EXPECT_FALSE(package.isConfigurable()) << id;
        EXPECT_EQ(package.displayName(), "Own name") << id;
    }
    // Extension raw strings of the list files show the package's own name.
    const Package international = packageWithID("block-international");
    EXPECT_EQ(international.type(), ExtensionType::regionalRules);
    EXPECT_EQ(international.category(), PackageCategory::international);
    EXPECT_EQ(international.displayName(), "Own name");
    const Package custom = packageWithID("block-custom");
    EXPECT_EQ(custom.type(), ExtensionType::customRules);
    EXPECT_EQ(custom.displayName(), "Own name");
}

}  // namespace
}  // namespace tamsel::model
