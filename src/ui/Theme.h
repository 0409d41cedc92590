#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "model/RawRepresentable.h"

// The look shared by the popover and its child views: named colour roles
// with a light and a dark value each, and the font family.
//
// Two themes exist. DefaultTheme is the product's own palette with its
// "Circular" typeface; SystemTheme keeps the same roles in the system's
// colours and uses the system font. Themes::current() is the one views use;
// the extension handler installs the default theme when it starts.
//
// For the HTTP layer: every role has a raw name (its C++ spelling, e.g.
// "primaryBackground"); Theme::colors(role) gives the role's colours (one
// for every role but firewallIconGradientColors, which is a list), each with
// its light and dark value as "#RRGGBB" or "#RRGGBBAA" (Color::hex()).
namespace tamsel::ui {

struct Color {
    std::uint8_t red = 0;
    std::uint8_t green = 0;
    std::uint8_t blue = 0;
    std::uint8_t alpha = 255;

    // "#RRGGBB", or "#RRGGBBAA" when not opaque.
    std::string hex() const;

    friend bool operator==(const Color&, const Color&) = default;
};

enum class Appearance { light, dark };

// A colour that follows the appearance.
struct DynamicColor {
    Color light;
    Color dark;

    const Color& resolved(Appearance appearance) const { return appearance == Appearance::dark ? dark : light; }

    friend bool operator==(const DynamicColor&, const DynamicColor&) = default;
};

enum class ColorRole {
    primaryBackground,
    secondaryBackground,
    tertiaryBackground,
    warningBackground,
    primaryText,
    secondaryText,
    selectedCellPrimaryBackground,
    selectedCellPrimaryText,
    selectedCellSecondaryText,
    typeTextBlock,
    typeTextHide,
    typeTextWhitelist,
    typeTextMakeHTTPS,
    typeTextBlockCookies,
    separator,
    separatorSecondary,
    tagsBackground,
    tagsLoadTypeBackground,
    tagsDomainsBackground,
    tagsResourceTypesBackground,
    tagsPartialBackground,
    tagsSafariBackground,
    tagsAllAppsBackground,
    tagsLoadTypeText,
    tagsDomainsText,
    tagsResourceTypesText,
    tagsPartialText,
    firewallBlockTrackersIconColor,
    firewallBlockTrackersIconActiveColor,
    firewallIconGradientColors,  // a list of colours
    secureLockIconColor,
    blockedIconRedColor,
    greenPrimaryBackground,
    greenTertiaryBackground,
    greenSecondaryText,
    greenTertiaryText,
    orangeTertiaryText,
    statusCircleRedBorder,
    statusCircleOrangeBorder,
    statusCircleGreenBorder,
    statusCircleRedFill,
    statusCircleOrangeFill,
    statusCircleGreenFill,
    tint,
    blueTint,
};

enum class FontFamily { circular, system };
enum class FontStyle { regular, regularItalic, medium, bold, semibold };

// A font as a view layer asks for it: the system font of a weight, or a
// named face of the theme's family.
struct Font {
    FontFamily family = FontFamily::system;
    std::string face;  // "Circular-Book", ...; empty for the system font
    FontStyle style = FontStyle::regular;
    double pointSize = 14;

    friend bool operator==(const Font&, const Font&) = default;
};

class Theme {
public:
    virtual ~Theme() = default;

    // "default" or "system".
    virtual std::string_view name() const = 0;
    virtual bool usesSystemFonts() const = 0;
    // The role's colours: one, or the gradient's stops for
    // firewallIconGradientColors.
    virtual std::vector<DynamicColor> colors(ColorRole role) const = 0;

    // The role's (first) colour.
    DynamicColor color(ColorRole role) const;

    FontFamily fontFamily() const { return usesSystemFonts() ? FontFamily::system : FontFamily::circular; }
    // The theme's font of a style and size: the system font when the theme
    // uses system fonts, else the "Circular-" face of the style.
    Font font(FontStyle style, double pointSize) const;
    // Titles: 17 pt medium. Body and section texts: 14 pt regular.
    Font titleFont() const { return font(FontStyle::medium, 17); }
    Font bodyFont() const { return font(FontStyle::regular, 14); }
};

class DefaultTheme final : public Theme {
public:
    std::string_view name() const override { return "default"; }
    bool usesSystemFonts() const override { return false; }
    std::vector<DynamicColor> colors(ColorRole role) const override;
};

class SystemTheme final : public Theme {
public:
    std::string_view name() const override { return "system"; }
    bool usesSystemFonts() const override { return true; }
    std::vector<DynamicColor> colors(ColorRole role) const override;
};

// The "Circular-" face of a style: "Circular-Book", "Circular-BookItalic",
// "Circular-Medium", "Circular-Bold", "Circular-Black" (semibold).
std::string_view circularFace(FontStyle style);

class Themes {
public:
    // The installed theme; the default theme until one is installed.
    // Safe from any thread.
    static std::shared_ptr<const Theme> current();
    static void setCurrent(std::shared_ptr<const Theme> theme);
    // Installs a DefaultTheme (what the extension handler does at start).
    static void installDefault();
};

}  // namespace tamsel::ui

template <>
struct tamsel::model::RawValueTable<tamsel::ui::ColorRole> {
    static constexpr std::array<std::string_view, 45> rawValues{
        "primaryBackground", "secondaryBackground", "tertiaryBackground", "warningBackground", "primaryText",
        "secondaryText", "selectedCellPrimaryBackground", "selectedCellPrimaryText", "selectedCellSecondaryText",
        "typeTextBlock", "typeTextHide", "typeTextWhitelist", "typeTextMakeHTTPS", "typeTextBlockCookies",
        "separator", "separatorSecondary", "tagsBackground", "tagsLoadTypeBackground", "tagsDomainsBackground",
        "tagsResourceTypesBackground", "tagsPartialBackground", "tagsSafariBackground", "tagsAllAppsBackground",
        "tagsLoadTypeText", "tagsDomainsText", "tagsResourceTypesText", "tagsPartialText",
        "firewallBlockTrackersIconColor", "firewallBlockTrackersIconActiveColor", "firewallIconGradientColors",
        "secureLockIconColor", "blockedIconRedColor", "greenPrimaryBackground", "greenTertiaryBackground",
        "greenSecondaryText", "greenTertiaryText", "orangeTertiaryText", "statusCircleRedBorder",
        "statusCircleOrangeBorder", "statusCircleGreenBorder", "statusCircleRedFill", "statusCircleOrangeFill",
        "statusCircleGreenFill", "tint", "blueTint"};
};

template <>
struct tamsel::model::RawValueTable<tamsel::ui::FontFamily> {
    static constexpr std::array<std::string_view, 2> rawValues{"circular", "system"};
};

template <>
struct tamsel::model::RawValueTable<tamsel::ui::FontStyle> {
    static constexpr std::array<std::string_view, 5> rawValues{"regular", "regularItalic", "medium", "bold",
                                                               "semibold"};
};

template <>
struct tamsel::model::RawValueTable<tamsel::ui::Appearance> {
    static constexpr std::array<std::string_view, 2> rawValues{"light", "dark"};
};
