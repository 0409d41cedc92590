#include "model/SiteRules.h"

#include "model/EditorValidator.h"
#include "platform/UUID.h"

namespace tamsel::model {

namespace {

Rule makeRule(std::optional<DomainFilter> filter, Action action, std::optional<std::string> identifier,
              std::optional<std::string> name, std::vector<ExtensionType> partialWhitelist = {}) {
    Trigger trigger{.urlFilter = std::string(catchAllURLFilter), .caseSensitive = true, .domainFilter = std::move(filter)};
    std::string id = identifier ? std::move(*identifier) : newRuleIdentifier();
    std::string text = name ? std::move(*name) : std::string();
    return Rule(std::move(id), std::move(text), Blocker{std::move(trigger), std::move(action)},
                std::move(partialWhitelist));
}

}  // namespace

std::optional<Rule> makeWhitelistRule(std::vector<std::string> domains, std::optional<std::string> identifier,
                                      std::optional<std::string> name, std::vector<ExtensionType> partialWhitelist) {
    if (!EditorValidator::isValid(domains)) return std::nullopt;
    return makeRule(DomainFilter{DomainFilterType::ifDomain, std::move(domains)},
                    Action{ActionType::ignorePreviousRules, std::nullopt}, std::move(identifier), std::move(name),
                    std::move(partialWhitelist));
}

std::optional<Rule> makeHttpsRule(std::vector<std::string> domains, std::optional<std::string> identifier,
                                  std::optional<std::string> name) {
    if (!EditorValidator::isValid(domains)) return std::nullopt;
    return makeRule(DomainFilter{DomainFilterType::ifDomain, std::move(domains)},
                    Action{ActionType::makeHttps, std::nullopt}, std::move(identifier), std::move(name));
}

std::optional<Rule> makeHideElementRule(std::string selector, DomainFilterType filterType,
                                        std::optional<std::vector<std::string>> domains,
                                        std::optional<std::string> identifier, std::optional<std::string> name) {
    if (selector.empty()) return std::nullopt;
    if (domains && !EditorValidator::isValid(*domains)) return std::nullopt;
    std::optional<DomainFilter> filter;
    if (domains) filter = DomainFilter{filterType, std::move(*domains)};
    return makeRule(std::move(filter), Action{ActionType::hide, std::move(selector)}, std::move(identifier),
                    std::move(name));
}

std::string newRuleIdentifier() { return platform::newUUIDString(); }

}  // namespace tamsel::model
