#include "storage/PackagePreferences.h"

#include "storage/BlockerPreferenceManager.h"

#include <algorithm>

namespace tamsel::storage {

bool isDisabled(const model::Package& package) {
    const DisabledPackages packages = BlockerPreferenceManager::create()->disabledPackages();
    const auto entry = packages.find(package.id);
    return entry != packages.end() && entry->second;
}

bool isDisabled(const model::Rule& rule, const model::Package& inPackage) {
    return isDisabledFast(rule, inPackage.id, BlockerPreferenceManager::create()->disabledRules());
}

bool isDisabledFast(const model::Rule& rule, std::string_view inPackageID, const DisabledRules& disabledRulesCache) {
    const auto package = disabledRulesCache.find(std::string(inPackageID));
    if (package == disabledRulesCache.end()) return false;
    const auto entry = package->second.find(rule.id);
    return entry != package->second.end() && entry->second;
}

std::size_t disabledRulesCount(const model::Package& package) {
    return disabledRulesCount(package, BlockerPreferenceManager::create()->disabledRules());
}

std::size_t disabledRulesCount(const model::Package& package, const DisabledRules& disabledRulesCache) {
    return static_cast<std::size_t>(std::count_if(package.rules.begin(), package.rules.end(), [&](const model::Rule& rule) {
        return isDisabledFast(rule, package.id, disabledRulesCache);
    }));
}

std::size_t enabledRulesCount(const model::Package& package) {
    return package.rules.size() - disabledRulesCount(package);
}

std::size_t enabledRulesCount(const model::Package& package, const DisabledRules& disabledRulesCache) {
    return package.rules.size() - disabledRulesCount(package, disabledRulesCache);
}

void enable(const model::Package& package, bool withReload) {
    auto manager = BlockerPreferenceManager::create();
    if (withReload) {
        manager->savePreferenceWithReload({package}, false);
    } else {
        manager->saveEnabledPreferenceWithoutReload(package);
    }
}

}  // namespace tamsel::storage
