#include "ui/Theme.h"

#include <fmt/format.h>

#include <atomic>
#include <mutex>

namespace tamsel::ui {
namespace {

constexpr Color rgb(std::uint32_t value, std::uint8_t alpha = 255) {
    return {static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 8),
            static_cast<std::uint8_t>(value), alpha};
}

struct Entry {
    Color light;
    Color dark;
};

using Palette = std::array<Entry, model::allCases<ColorRole>().size()>;

// The product's palette, in role order.
constexpr Palette defaultPalette{{
    {rgb(0xFFFFFF), rgb(0x1C1C1E)},  // primaryBackground
    {rgb(0xF4F4F6), rgb(0x2A2A2D)},  // secondaryBackground
    {rgb(0xE9E9EC), rgb(0x3A3A3E)},  // tertiaryBackground
    {rgb(0xFFF4E0), rgb(0x4A3A16)},  // warningBackground
    {rgb(0x16161A), rgb(0xF5F5F7)},  // primaryText
    {rgb(0x6E6E76), rgb(0xA1A1AA)},  // secondaryText
    {rgb(0x2F6BFF), rgb(0x3D7BFF)},  // selectedCellPrimaryBackground
    {rgb(0xFFFFFF), rgb(0xFFFFFF)},  // selectedCellPrimaryText
    {rgb(0xDCE6FF), rgb(0xC9D8FF)},  // selectedCellSecondaryText
    {rgb(0xD93025), rgb(0xFF6B60)},  // typeTextBlock
    {rgb(0x8E44AD), rgb(0xC58AE0)},  // typeTextHide
    {rgb(0x1E8E3E), rgb(0x5BD27A)},  // typeTextWhitelist
    {rgb(0x1A73E8), rgb(0x6AA8FF)},  // typeTextMakeHTTPS
    {rgb(0xB26A00), rgb(0xF0A640)},  // typeTextBlockCookies
    {rgb(0xE3E3E8), rgb(0x3A3A3F)},  // separator
    {rgb(0xEFEFF3), rgb(0x2E2E33)},  // separatorSecondary
    {rgb(0xEDEDF1), rgb(0x34343A)},  // tagsBackground
    {rgb(0xE6F0FF), rgb(0x1F3357)},  // tagsLoadTypeBackground
    {rgb(0xE7F6EC), rgb(0x1E3B29)},  // tagsDomainsBackground
    {rgb(0xFDF0E1), rgb(0x46331C)},  // tagsResourceTypesBackground
    {rgb(0xF3E8FA), rgb(0x3A2748)},  // tagsPartialBackground
    {rgb(0xE5F3FF), rgb(0x1B3550)},  // tagsSafariBackground
    {rgb(0xECECEC), rgb(0x3B3B3B)},  // tagsAllAppsBackground
    {rgb(0x2456B8), rgb(0x8CB3FF)},  // tagsLoadTypeText
    {rgb(0x1D7A3A), rgb(0x7DDB98)},  // tagsDomainsText
    {rgb(0x9A5A00), rgb(0xF2B366)},  // tagsResourceTypesText
    {rgb(0x7A3A9E), rgb(0xCDA0E8)},  // tagsPartialText
    {rgb(0x9A9AA3), rgb(0x76767F)},  // firewallBlockTrackersIconColor
    {rgb(0xE5483C), rgb(0xFF6B60)},  // firewallBlockTrackersIconActiveColor
    {rgb(0xFF7A45), rgb(0xFF8A5C)},  // firewallIconGradientColors (first stop)
    {rgb(0x1E8E3E), rgb(0x5BD27A)},  // secureLockIconColor
    {rgb(0xE5483C), rgb(0xFF5F55)},  // blockedIconRedColor
    {rgb(0x1E8E3E), rgb(0x2FA34F)},  // greenPrimaryBackground
    {rgb(0xE7F6EC), rgb(0x1E3B29)},  // greenTertiaryBackground
    {rgb(0x1D7A3A), rgb(0x7DDB98)},  // greenSecondaryText
    {rgb(0x4E9B66), rgb(0x5FB27A)},  // greenTertiaryText
    {rgb(0xB26A00), rgb(0xF0A640)},  // orangeTertiaryText
    {rgb(0xD93025), rgb(0xFF6B60)},  // statusCircleRedBorder
    {rgb(0xE8890C), rgb(0xFFAA3B)},  // statusCircleOrangeBorder
    {rgb(0x1E8E3E), rgb(0x5BD27A)},  // statusCircleGreenBorder
    {rgb(0xFDE3E1), rgb(0x4C1F1C)},  // statusCircleRedFill
    {rgb(0xFFF0DB), rgb(0x4A3416)},  // statusCircleOrangeFill
    {rgb(0xE1F5E7), rgb(0x1C3D27)},  // statusCircleGreenFill
    {rgb(0x2F6BFF), rgb(0x4D86FF)},  // tint
    {rgb(0x1A73E8), rgb(0x409CFF)},  // blueTint
}};

// The system's colours (the platform's label, background and accent
// colours in both appearances), for the same roles.
constexpr Palette systemPalette{{
    {rgb(0xFFFFFF), rgb(0x1E1E1E)},  // primaryBackground: window background
    {rgb(0xF5F5F5), rgb(0x282828)},  // secondaryBackground: under-page background
    {rgb(0xE5E5E5), rgb(0x323232)},  // tertiaryBackground
    {rgb(0xFFF3D6), rgb(0x4D3D12)},  // warningBackground
    {rgb(0x000000, 217), rgb(0xFFFFFF, 217)},  // primaryText: label
    {rgb(0x000000, 128), rgb(0xFFFFFF, 140)},  // secondaryText: secondary label
    {rgb(0x0064E1), rgb(0x0059D1)},  // selectedCellPrimaryBackground: selected content background
    {rgb(0xFFFFFF), rgb(0xFFFFFF)},  // selectedCellPrimaryText
    {rgb(0xFFFFFF, 191), rgb(0xFFFFFF, 191)},  // selectedCellSecondaryText
    {rgb(0xFF3B30), rgb(0xFF453A)},  // typeTextBlock: system red
    {rgb(0xAF52DE), rgb(0xBF5AF2)},  // typeTextHide: system purple
    {rgb(0x28CD41), rgb(0x32D74B)},  // typeTextWhitelist: system green
    {rgb(0x007AFF), rgb(0x0A84FF)},  // typeTextMakeHTTPS: system blue
    {rgb(0xFF9500), rgb(0xFF9F0A)},  // typeTextBlockCookies: system orange
    {rgb(0x000000, 26), rgb(0xFFFFFF, 26)},  // separator
    {rgb(0x000000, 13), rgb(0xFFFFFF, 13)},  // separatorSecondary
    {rgb(0x000000, 13), rgb(0xFFFFFF, 26)},  // tagsBackground
    {rgb(0x007AFF, 38), rgb(0x0A84FF, 51)},  // tagsLoadTypeBackground
    {rgb(0x28CD41, 38), rgb(0x32D74B, 51)},  // tagsDomainsBackground
    {rgb(0xFF9500, 38), rgb(0xFF9F0A, 51)},  // tagsResourceTypesBackground
    {rgb(0xAF52DE, 38), rgb(0xBF5AF2, 51)},  // tagsPartialBackground
    {rgb(0x5AC8FA, 38), rgb(0x64D2FF, 51)},  // tagsSafariBackground
    {rgb(0x8E8E93, 38), rgb(0x98989D, 51)},  // tagsAllAppsBackground
    {rgb(0x007AFF), rgb(0x0A84FF)},  // tagsLoadTypeText
    {rgb(0x1E9E34), rgb(0x32D74B)},  // tagsDomainsText
    {rgb(0xC77400), rgb(0xFF9F0A)},  // tagsResourceTypesText
    {rgb(0x8E3FB8), rgb(0xBF5AF2)},  // tagsPartialText
    {rgb(0x8E8E93), rgb(0x98989D)},  // firewallBlockTrackersIconColor: system gray
    {rgb(0xFF3B30), rgb(0xFF453A)},  // firewallBlockTrackersIconActiveColor
    {rgb(0xFF9500), rgb(0xFF9F0A)},  // firewallIconGradientColors (first stop)
    {rgb(0x28CD41), rgb(0x32D74B)},  // secureLockIconColor
    {rgb(0xFF3B30), rgb(0xFF453A)},  // blockedIconRedColor
    {rgb(0x28CD41), rgb(0x32D74B)},  // greenPrimaryBackground
    {rgb(0x28CD41, 38), rgb(0x32D74B, 51)},  // greenTertiaryBackground
    {rgb(0x1E9E34), rgb(0x32D74B)},  // greenSecondaryText
    {rgb(0x1E9E34, 191), rgb(0x32D74B, 191)},  // greenTertiaryText
    {rgb(0xC77400, 191), rgb(0xFF9F0A, 191)},  // orangeTertiaryText
    {rgb(0xFF3B30), rgb(0xFF453A)},  // statusCircleRedBorder
    {rgb(0xFF9500), rgb(0xFF9F0A)},  // statusCircleOrangeBorder
    {rgb(0x28CD41), rgb(0x32D74B)},  // statusCircleGreenBorder
    {rgb(0xFF3B30, 38), rgb(0xFF453A, 51)},  // statusCircleRedFill
    {rgb(0xFF9500, 38), rgb(0xFF9F0A, 51)},  // statusCircleOrangeFill
    {rgb(0x28CD41, 38), rgb(0x32D74B, 51)},  // statusCircleGreenFill
    {rgb(0x007AFF), rgb(0x0A84FF)},  // tint: control accent
    {rgb(0x007AFF), rgb(0x0A84FF)},  // blueTint
}};

// The firewall icon's gradient: three stops, warm to cool.
constexpr std::array<Entry, 3> defaultGradient{{
    {rgb(0xFF7A45), rgb(0xFF8A5C)},
    {rgb(0xE5483C), rgb(0xFF6B60)},
    {rgb(0xB8327A), rgb(0xD65A9C)},
}};
constexpr std::array<Entry, 3> systemGradient{{
    {rgb(0xFF9500), rgb(0xFF9F0A)},
    {rgb(0xFF3B30), rgb(0xFF453A)},
    {rgb(0xAF52DE), rgb(0xBF5AF2)},
}};

std::vector<DynamicColor> colorsOf(const Palette& palette, const std::array<Entry, 3>& gradient, ColorRole role) {
    if (role == ColorRole::firewallIconGradientColors) {
        std::vector<DynamicColor> stops;
        for (const Entry& entry : gradient) stops.push_back({entry.light, entry.dark});
        return stops;
    }
    const Entry& entry = palette[static_cast<std::size_t>(role)];
    return {{entry.light, entry.dark}};
}

struct Current {
    std::mutex mutex;
    std::shared_ptr<const Theme> theme = std::make_shared<DefaultTheme>();
};

Current& installed() {
    static Current instance;
    return instance;
}

}  // namespace

std::string Color::hex() const {
    if (alpha == 255) return fmt::format("#{:02X}{:02X}{:02X}", red, green, blue);
    return fmt::format("#{:02X}{:02X}{:02X}{:02X}", red, green, blue, alpha);
}

DynamicColor Theme::color(ColorRole role) const { return colors(role).front(); }

Font Theme::font(FontStyle style, double pointSize) const {
    if (usesSystemFonts()) return {FontFamily::system, "", style, pointSize};
    return {FontFamily::circular, std::string(circularFace(style)), style, pointSize};
}

std::vector<DynamicColor> DefaultTheme::colors(ColorRole role) const {
    return colorsOf(defaultPalette, defaultGradient, role);
}

std::vector<DynamicColor> SystemTheme::colors(ColorRole role) const {
    return colorsOf(systemPalette, systemGradient, role);
}

std::string_view circularFace(FontStyle style) {
    switch (style) {
        case FontStyle::regular: return "Circular-Book";
        case FontStyle::regularItalic: return "Circular-BookItalic";
        case FontStyle::medium: return "Circular-Medium";
        case FontStyle::bold: return "Circular-Bold";
        case FontStyle::semibold: return "Circular-Black";
    }
    return "Circular-Book";
}

std::shared_ptr<const Theme> Themes::current() {
    std::lock_guard lock(installed().mutex);
    return installed().theme;
}

void Themes::setCurrent(std::shared_ptr<const Theme> theme) {
    if (!theme) theme = std::make_shared<DefaultTheme>();
    std::lock_guard lock(installed().mutex);
    installed().theme = std::move(theme);
}

void Themes::installDefault() { setCurrent(std::make_shared<DefaultTheme>()); }

}  // namespace tamsel::ui
