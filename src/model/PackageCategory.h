#pragma once

#include <array>
#include <string>
#include <string_view>

#include "model/ExtensionType.h"
#include "model/RawRepresentable.h"

namespace tamsel::model {

// How packages are grouped in the user interface.
enum class PackageCategory {
    general,        // the six general extensions
    international,  // regionalRules
    custom,         // customRules
};

template <>
struct RawValueTable<PackageCategory> {
    static constexpr std::array<std::string_view, 3> rawValues{"general", "international", "custom"};
};

// The category of the packages that feed an extension of the given type.
PackageCategory packageCategoryForExtensionOfType(ExtensionType type);

// Key of the category's title in the "CommonUI+Localizable" table, e.g.
// "main.segmented-control.general".
std::string_view titleKey(PackageCategory category);

std::string localizedTitle(PackageCategory category);

}  // namespace tamsel::model
