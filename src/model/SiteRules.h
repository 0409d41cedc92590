#pragma once

#include <optional>
#include <string>
#include <vector>

#include "model/DomainFilterType.h"
#include "model/ExtensionType.h"
#include "model/Rule.h"

// The rules that the popover and the page editors create for a site. They all
// have one shape: a catch-all url filter (".*", case-sensitive) limited to the
// site by a domain list, so that Safari matches on the page's domain alone
// and a rule never depends on the URL's spelling.
//
// Each builder returns nothing when its input is not acceptable (see each).
// A missing identifier becomes a fresh random UUID in upper-case text; a
// missing or empty name becomes "".
namespace tamsel::model {

// The url filter that matches every URL.
inline constexpr std::string_view catchAllURLFilter = ".*";

// Switches off the blocking of the extensions in `partialWhitelist` (all when
// empty) on `domains`: action ignore-previous-rules, if-domain `domains`.
// Needs a list that EditorValidator accepts.
std::optional<Rule> makeWhitelistRule(std::vector<std::string> domains,
                                      std::optional<std::string> identifier = std::nullopt,
                                      std::optional<std::string> name = std::nullopt,
                                      std::vector<ExtensionType> partialWhitelist = {});

// Upgrades every load on `domains` to HTTPS: action make-https, if-domain
// `domains`. Needs a list that EditorValidator accepts.
std::optional<Rule> makeHttpsRule(std::vector<std::string> domains,
                                  std::optional<std::string> identifier = std::nullopt,
                                  std::optional<std::string> name = std::nullopt);

// Hides the elements matching `selector`, on `domains` (filter of
// `filterType`) or, without a domain list, everywhere. Needs a non-empty
// selector, and a list that EditorValidator accepts when one is given.
std::optional<Rule> makeHideElementRule(std::string selector, DomainFilterType filterType,
                                        std::optional<std::vector<std::string>> domains = std::nullopt,
                                        std::optional<std::string> identifier = std::nullopt,
                                        std::optional<std::string> name = std::nullopt);

// A fresh random (version 4) UUID in its standard upper-case text form,
// "E621E1F8-C36C-495A-93FC-0C247A3E6E5F". Thread-safe.
std::string newRuleIdentifier();

}  // namespace tamsel::model
