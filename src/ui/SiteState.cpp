#include "ui/SiteState.h"

#include <algorithm>

#include "control/DataManager.h"
#include "control/ExtensionManager.h"
#include "control/PauseStatus.h"
#include "control/RuleChanger.h"
#include "model/ConfigurableType.h"
#include "storage/PackagePreferences.h"

namespace tamsel::ui {

using model::ConfigurableType;
using model::ExtensionType;

SiteState::Whitelisting SiteState::whitelisting() const {
    if (!whitelistRule) return Whitelisting::no;
    if (!whitelistRuleEnabled) return Whitelisting::ruleOff;
    if (!whitelistPackageEnabled) return Whitelisting::packageOff;
    return whitelistRule->partialWhitelist.empty() ? Whitelisting::fully : Whitelisting::partially;
}

std::vector<ExtensionType> SiteState::whitelistedIn() const {
    switch (whitelisting()) {
        case Whitelisting::fully: {
            const auto all = model::allCases<ExtensionType>();
            return {all.begin(), all.end()};
        }
        case Whitelisting::partially: {
            // In ExtensionType order, whatever order the rule holds them in.
            std::vector<ExtensionType> in;
            for (ExtensionType type : model::allCases<ExtensionType>()) {
                const auto& chosen = whitelistRule->partialWhitelist;
                if (std::find(chosen.begin(), chosen.end(), type) != chosen.end()) in.push_back(type);
            }
            return in;
        }
        default: return {};
    }
}

SiteState::Https SiteState::https() const {
    if (!httpsRuleHoldsDomain) return Https::no;
    return makeHttpsPackageEnabled ? Https::forced : Https::packageOff;
}

SiteState SiteState::read(control::DataManager& manager, const std::string& domain) {
    const bool pauseEnded = control::PauseStatus::endPauseIfExpired(
        [] { control::ExtensionManager::shared()->reloadAllWithoutSaving({}); });
    SiteState state = readRules(control::RuleChanger(manager), domain);
    state.pauseEnded = pauseEnded;
    state.paused = control::PauseStatus::isPaused();
    state.minutesLeft = control::PauseStatus::minutesLeft();
    return state;
}

SiteState SiteState::readRules(const control::RuleChanger& changer, const std::string& host) {
    SiteState state;
    state.domain = host;
    state.whitelistRule = changer.whitelistRule(host);
    if (const auto package = changer.configurablePackage(ConfigurableType::whitelist)) {
        state.whitelistPackageEnabled = !storage::isDisabled(*package);
        state.whitelistRuleEnabled = state.whitelistRule && !storage::isDisabled(*state.whitelistRule, *package);
    }
    state.httpsRule = changer.makeHttpsRule(host);
    state.httpsRuleHoldsDomain = changer.isDomainForcedHttps(host);
    if (const auto package = changer.configurablePackage(ConfigurableType::makeHttps)) {
        state.makeHttpsPackageEnabled = !storage::isDisabled(*package);
    }
    return state;
}

}  // namespace tamsel::ui
