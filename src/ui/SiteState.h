#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model/ExtensionType.h"
#include "model/Rule.h"

namespace tamsel::control {
class DataManager;
class RuleChanger;
}

// What the popover shows about the site of the page in the active tab: whether
// blocking is off for it (in every extension, or in the rule's chosen ones),
// whether HTTPS is forced, and whether all blocking is paused. The first of
// the popover's models; the `site` command prints from it.
namespace tamsel::ui {

struct SiteState {
    // How the whitelist stands for the site.
    enum class Whitelisting {
        no,            // no rule of the whitelist package holds the site
        fully,         // blocking is off in every extension
        partially,     // blocking is off in the extensions the rule names
        ruleOff,       // a rule holds the site, but it is switched off
        packageOff,    // a rule holds the site, but the whitelist package is switched off
    };
    // How forced HTTPS stands for the site.
    enum class Https {
        no,            // no rule of the make-https package holds the site
        forced,
        packageOff,    // a rule holds the site, but the make-https package is switched off
    };

    std::string domain;
    std::optional<model::Rule> whitelistRule;
    bool whitelistRuleEnabled = false;
    bool whitelistPackageEnabled = true;
    std::optional<model::Rule> httpsRule;
    bool httpsRuleHoldsDomain = false;
    bool makeHttpsPackageEnabled = true;
    bool paused = false;
    std::int64_t minutesLeft = 0;
    // Reading ended a pause whose hour was over.
    bool pauseEnded = false;

    Whitelisting whitelisting() const;
    // The extensions in which blocking is off for the site, in ExtensionType
    // order; none unless whitelisted fully or partially.
    std::vector<model::ExtensionType> whitelistedIn() const;
    Https https() const;

    // The state of `domain` (a valid domain, as the whitelist rules hold it),
    // read as the popover reads it when it is shown: a pause whose hour is
    // over is ended first, and the extensions are reloaded to see it.
    static SiteState read(control::DataManager& manager, const std::string& domain);

    // The whitelist and make-HTTPS state of a page's host through `changer`,
    // leaving the pause alone (its fields stay unset). A host that is no
    // valid domain only finds rules made for it elsewhere.
    static SiteState readRules(const control::RuleChanger& changer, const std::string& host);
};

}  // namespace tamsel::ui
