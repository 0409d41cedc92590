#include "storage/EnabledRuleSelection.h"

#include "model/Package.h"

#include <utility>

namespace tamsel::storage {

EnabledRuleSelection::EnabledRuleSelection(DisabledPackages disabledPackages, DisabledRules disabledRules)
    : disabledPackages_(std::move(disabledPackages)), disabledRules_(std::move(disabledRules)) {}

EnabledRuleSelection::PackageRules EnabledRuleSelection::forPackage(std::string_view packageID) const {
    // A package is known by its identifier alone, so a header without rules
    // answers for the rules read after it.
    const model::Package header{std::string(packageID), {}, {}, model::Date{}};
    const auto disabled = disabledPackages_.find(header.id);
    const bool enabled = disabled == disabledPackages_.end() || !disabled->second;
    const auto rules = disabledRules_.find(header.id);
    return PackageRules(enabled, !header.isConfigurableWhitelist(), header.type(),
                        rules == disabledRules_.end() ? nullptr : &rules->second);
}

EnabledRuleSelection::PackageState EnabledRuleSelection::stateOf(std::string_view packageID) const {
    PackageState state;
    const std::string id(packageID);
    if (const auto disabled = disabledPackages_.find(id); disabled != disabledPackages_.end()) {
        state.enabled = !disabled->second;
    }
    if (const auto rules = disabledRules_.find(id); rules != disabledRules_.end()) {
        for (const auto& [rule, off] : rules->second) {
            if (off) state.disabledRuleIDs.push_back(rule);
        }
    }
    return state;
}

EnabledRuleSelection::PackageRules::PackageRules(bool enabled, bool feedsBlocking, model::ExtensionType ownType,
                                                 const std::map<std::string, bool>* disabledRules)
    : enabled_(enabled), feedsBlocking_(feedsBlocking), ownType_(ownType), disabledRules_(disabledRules) {}

bool EnabledRuleSelection::PackageRules::isRuleEnabled(const model::Rule& rule) const {
    if (!disabledRules_) return true;
    const auto entry = disabledRules_->find(rule.id);
    return entry == disabledRules_->end() || !entry->second;
}

bool EnabledRuleSelection::PackageRules::takesBlockingRule(const model::Rule& rule) const {
    return enabled_ && feedsBlocking_ && isRuleEnabled(rule) && !rule.isWhitelist(ownType_);
}

bool EnabledRuleSelection::PackageRules::takesWhitelistRule(const model::Rule& rule, model::ExtensionType type) const {
    return enabled_ && isRuleEnabled(rule) && rule.isWhitelist(type);
}

}  // namespace tamsel::storage
