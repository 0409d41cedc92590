#include "host/PageLoads.h"

#include "host/SubstituteHost.h"
#include "model/RawRepresentable.h"

#include <algorithm>

namespace tamsel::host {

std::vector<std::string> EnabledContentBlockers::extensionNames(const std::vector<std::string>& identifiers) const {
    std::vector<std::string> names;
    for (const auto& identifier : identifiers) {
        auto it = types.find(identifier);
        names.emplace_back(it == types.end() ? identifier : std::string(model::rawValue(it->second)));
    }
    return names;
}

EnabledContentBlockers enabledContentBlockers() {
    auto manager = substituteContentBlockerManager();
    EnabledContentBlockers blockers;
    for (auto type : model::allCases<model::ExtensionType>()) {
        const std::string identifier = model::bundleIdentifier(type);
        if (!manager->isEnabled(identifier)) continue;
        if (auto matcher = manager->matcher(identifier)) {
            blockers.lists.push_back({identifier, matcher});
            blockers.types.emplace(identifier, type);
        }
    }
    return blockers;
}

std::vector<std::string> pageStyleSheet(const EnabledContentBlockers& blockers, const std::string& pageURL) {
    const platform::LoadEffects page =
        platform::evaluateLoad(blockers.lists, {pageURL, "", platform::LoadResourceType::document});
    std::vector<std::string> selectors = page.selectors;
    for (const auto& list : blockers.lists) {
        if (std::find(page.stylesheetAppliedFor.begin(), page.stylesheetAppliedFor.end(), list.identifier) ==
            page.stylesheetAppliedFor.end())
            continue;
        const auto& sheet = list.matcher->globalStyleSheet();
        selectors.insert(selectors.end(), sheet.begin(), sheet.end());
    }
    return selectors;
}

}  // namespace tamsel::host
