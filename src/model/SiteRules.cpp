#include "model/SiteRules.h"

#include <array>
#include <cstdint>
#include <random>

#include <fmt/format.h>

#include "model/EditorValidator.h"

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

std::string newRuleIdentifier() {
    thread_local std::mt19937_64 generator{[] {
        std::random_device device;
        std::seed_seq seed{device(), device(), device(), device()};
        return std::mt19937_64(seed);
    }()};
    std::array<std::uint8_t, 16> bytes{};
    for (std::size_t i = 0; i < bytes.size(); i += 8) {
        const std::uint64_t random = generator();
        for (std::size_t j = 0; j < 8; ++j) bytes[i + j] = static_cast<std::uint8_t>(random >> (8 * j));
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0f) | 0x40);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3f) | 0x80);  // RFC 4122 variant
    return fmt::format("{:02X}{:02X}{:02X}{:02X}-{:02X}{:02X}-{:02X}{:02X}-{:02X}{:02X}-"
                       "{:02X}{:02X}{:02X}{:02X}{:02X}{:02X}",
                       bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8],
                       bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
}

}  // namespace tamsel::model
