#include "control/PackageImport.h"

#include <fmt/format.h>

#include <unordered_set>

#include "model/PackageCategory.h"
#include "model/RawRepresentable.h"

namespace tamsel::control {
namespace {

// The identifier as a quoted, escaped string.
std::string quoted(const std::string& identifier) { return fmt::format("{:?}", identifier); }

std::optional<std::string> reservedBy(const model::Package& package) {
    if (package.isConfigurable()) return "a configurable package";
    if (package.category() != model::PackageCategory::custom ||
        package.id == model::rawValue(model::ExtensionType::customRules)) {
        return "a built-in package";
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> importRefusal(const std::vector<model::Package>& packages) {
    for (std::size_t index = 0; index < packages.size(); ++index) {
        const model::Package& package = packages[index];
        if (package.id.empty()) return fmt::format("package {} has no identifier", index + 1);
        if (const auto owner = reservedBy(package)) {
            return fmt::format("{} is the identifier of {}", quoted(package.id), *owner);
        }
        std::unordered_set<std::string_view> ruleIDs;
        for (std::size_t position = 0; position < package.rules.size(); ++position) {
            const std::string& ruleID = package.rules[position].id;
            if (ruleID.empty()) {
                return fmt::format("package {}: rule {} has no identifier", quoted(package.id), position + 1);
            }
            if (!ruleIDs.insert(ruleID).second) {
                return fmt::format("package {}: rule {} occurs more than once", quoted(package.id), quoted(ruleID));
            }
        }
    }
    return std::nullopt;
}

}  // namespace tamsel::control
