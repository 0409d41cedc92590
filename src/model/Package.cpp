#include "model/Package.h"

#include <algorithm>
#include <chrono>

#include "model/ConfigurableType.h"
#include "model/InternationalType.h"
#include "model/LocalizationTableName.h"
#include "platform/Localization.h"

namespace tamsel::model {

Package::Package(std::string id, std::string name, std::vector<Rule> rules, std::optional<Date> createdDate)
    : id(std::move(id)),
      name(std::move(name)),
      rules(std::move(rules)),
      createdAt(createdDate.value_or(platform::Clock::systemNow())) {}

ExtensionType Package::type() const {
    if (auto type = fromRawValue<ExtensionType>(id)) return *type;
    if (fromRawValue<InternationalType>(id)) return ExtensionType::regionalRules;
    return ExtensionType::customRules;
}

PackageCategory Package::category() const { return packageCategoryForExtensionOfType(type()); }

bool Package::isConfigurable() const { return fromRawValue<ConfigurableType>(id).has_value(); }

bool Package::isConfigurableWhitelist() const { return id == rawValue(ConfigurableType::whitelist); }

std::string Package::displayName() const {
    // "block-international" and "block-custom" are extension raw strings too,
    // but those packages show their own names.
    std::string_view key;
    if (auto type = fromRawValue<ExtensionType>(id);
        type && packageCategoryForExtensionOfType(*type) == PackageCategory::general) {
        key = displayNameKey(*type);
    } else if (auto regional = fromRawValue<InternationalType>(id)) {
        key = displayNameKey(*regional);
    } else if (auto configurable = fromRawValue<ConfigurableType>(id)) {
        key = displayNameKey(*configurable);
    } else {
        return name;
    }
    return platform::localizedString(rawValue(LocalizationTableName::tamselKit), key);
}

Package Package::packageBySettingRule(const Rule& rule) const {
    std::vector<Rule> newRules = rules;
    auto existing = std::ranges::find(newRules, rule.id, &Rule::id);
    if (existing != newRules.end()) {
        *existing = rule;
    } else {
        newRules.push_back(rule);
    }
    return Package(id, name, std::move(newRules));
}

Package Package::packageByRemovingRuleAtIndex(std::size_t index) const {
    std::vector<Rule> newRules = rules;
    newRules.erase(newRules.begin() + static_cast<std::ptrdiff_t>(index));
    return Package(id, name, std::move(newRules));
}

}  // namespace tamsel::model
