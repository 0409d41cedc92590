#include "support/RuleSetGenerator.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <random>
#include <string_view>
#include <system_error>
#include <utility>

#include "model/ConfigurableType.h"
#include "model/ExtensionType.h"
#include "model/InternationalType.h"
#include "model/JSONCoding.h"
#include "model/JSONFileName.h"
#include "platform/ContentRuleListValidator.h"
#include "platform/Files.h"
#include "storage/PathProvider.h"
#include "storage/PersistentStore.h"

namespace tamsel::bench {

namespace {

using model::ActionType;
using model::Blocker;
using model::DomainFilterType;
using model::ExtensionType;
using model::LoadType;
using model::Package;
using model::ResourceType;
using model::Rule;

// What a converter makes of the common kinds of filter-list lines.
enum class Shape {
    hostBlock,       // ||ads.example.com^$third-party
    hostPathBlock,   // ||cdn.example.com/banners/*.js
    pathFragment,    // /adserver/banner_  or  -ad-300x250.
    queryParameter,  // &utm_campaign=
    genericHide,     // ##.ad-banner, #sponsored
    siteHide,        // example.com,example.org##.sidebar-ad
    hostException,   // @@||cdn.example.com^$script
    siteException,   // @@||example.com^$document
    cookieBlock,     // ||tracker.example.com^$cookie
};
constexpr std::size_t shapeCount = 9;

// How often each shape occurs in one kind of list, in Shape order (sums to 100).
using Profile = std::array<int, shapeCount>;
constexpr Profile adsProfile{30, 12, 15, 3, 15, 18, 3, 2, 2};
constexpr Profile trackersProfile{55, 12, 10, 10, 0, 3, 5, 2, 3};
constexpr Profile annoyancesProfile{10, 5, 5, 0, 30, 42, 2, 2, 4};
constexpr Profile socialProfile{20, 10, 10, 2, 25, 30, 2, 1, 0};
constexpr Profile commentsProfile{10, 8, 5, 0, 30, 45, 1, 1, 0};
constexpr Profile adultProfile{75, 5, 5, 0, 3, 10, 1, 1, 0};
constexpr Profile customProfile{40, 10, 10, 0, 10, 25, 0, 5, 0};

struct GeneralList {
    model::JSONFileName file;
    const char* name;
    Profile profile;
};

constexpr std::array<GeneralList, 6> generalLists{{
    {model::JSONFileName::blockAds, "Ads", adsProfile},
    {model::JSONFileName::blockTrackers, "Trackers", trackersProfile},
    {model::JSONFileName::blockAnnoyances, "Annoyances", annoyancesProfile},
    {model::JSONFileName::blockSocial, "Social Widgets", socialProfile},
    {model::JSONFileName::blockComments, "Comments", commentsProfile},
    {model::JSONFileName::blockAdult, "Adult Sites", adultProfile},
}};

// The country code top-level domain that most hosts of a regional list use,
// in InternationalType order.
constexpr std::array<const char*, 9> regionalDomains{"de", "ru", "es", "it", "fr", "cn", "jp", "nl", "pl"};

constexpr const char* words[] = {
    "ad",      "ads",     "adserver", "adv",     "banner", "track",   "tracker", "pixel",  "promo",  "sponsor",
    "popup",   "stat",    "stats",    "metric",  "beacon", "analytics", "widget", "affil", "click",  "count",
    "media",   "cdn",     "tag",      "tags",    "share",  "social",  "comment", "disqus", "cookie", "consent",
    "notice",  "overlay", "modal",    "newsletter", "sidebar", "partner", "rtb",   "bid",    "sync",   "collect"};
constexpr const char* genericTLDs[] = {"com", "net", "org", "io", "co", "info", "co.uk", "com.au", "tv", "me"};

model::Date fixedCreationDate() {
    using namespace std::chrono;
    return sys_days{year{2024} / March / 1} + hours{9};
}

class RuleGenerator {
public:
    explicit RuleGenerator(unsigned seed) : random_(seed) {}

    // One filter-list rule of `profile`; `regionalDomain` biases its hosts
    // towards a country's domain.
    Rule next(std::string id, const Profile& profile, const char* regionalDomain = nullptr) {
        regionalDomain_ = regionalDomain;
        int roll = pick(100);
        std::size_t shape = 0;
        while (shape + 1 < shapeCount && roll >= profile[shape]) roll -= profile[shape++];

        Blocker blocker;
        blocker.trigger.caseSensitive = false;
        std::string line;
        std::vector<std::string> options;
        switch (static_cast<Shape>(shape)) {
            case Shape::hostBlock: {
                const std::string h = host();
                blocker.trigger.urlFilter = hostAnchor(h);
                line = "||" + h + "^";
                addNetworkOptions(blocker, options);
                break;
            }
            case Shape::hostPathBlock: {
                const std::string h = host();
                const std::string directory = word();
                const char* extension = pick(2) == 0 ? "js" : "gif";
                blocker.trigger.urlFilter = hostAnchor(h, false) + "/" + directory + "/.*\\." + extension;
                line = "||" + h + "/" + directory + "/*." + extension;
                addNetworkOptions(blocker, options);
                break;
            }
            case Shape::pathFragment: {
                std::string fragment;
                switch (pick(3)) {
                    case 0: fragment = "/" + word() + "/" + word() + "_"; break;
                    case 1: fragment = "-" + word() + "-" + std::to_string(pick(4) == 0 ? 728 : 300) + "x" +
                                       std::to_string(pick(2) == 0 ? 90 : 250) + "."; break;
                    default: fragment = "/" + word() + std::to_string(pick(100)) + "." + (pick(2) ? "js" : "php"); break;
                }
                blocker.trigger.urlFilter = escapeRegex(fragment);
                line = fragment;
                if (pick(2) == 0) {
                    blocker.trigger.resourceTypes = std::vector{ResourceType::script, ResourceType::image};
                    options.push_back("script");
                    options.push_back("image");
                }
                addNetworkOptions(blocker, options);
                break;
            }
            case Shape::queryParameter: {
                const std::string parameter = word() + (pick(2) ? "_id" : "_source");
                blocker.trigger.urlFilter = "[?&]" + parameter + "=";
                line = "&" + parameter + "=";
                break;
            }
            case Shape::genericHide: {
                blocker.trigger.urlFilter = ".*";
                blocker.trigger.caseSensitive = true;
                blocker.action.type = ActionType::hide;
                // Converters put several generic selectors into one entry.
                std::string selectors = selector();
                for (int i = 0, more = pick(3) == 0 ? 1 + pick(6) : 0; i < more; ++i) selectors += ", " + selector();
                blocker.action.selector = selectors;
                line = "##" + selectors;
                break;
            }
            case Shape::siteHide: {
                blocker.trigger.urlFilter = ".*";
                blocker.trigger.caseSensitive = true;
                blocker.action.type = ActionType::hide;
                blocker.action.selector = selector();
                const auto sites = domains(1 + (pick(4) == 0 ? pick(5) : 0));
                blocker.trigger.domainFilter = model::DomainFilter{DomainFilterType::ifDomain, wildcard(sites)};
                line = join(sites, ",") + "##" + *blocker.action.selector;
                break;
            }
            case Shape::hostException: {
                const std::string h = host();
                blocker.trigger.urlFilter = hostAnchor(h);
                blocker.action.type = ActionType::ignorePreviousRules;
                line = "@@||" + h + "^";
                if (pick(2) == 0) {
                    blocker.trigger.resourceTypes = std::vector{ResourceType::script};
                    options.push_back("script");
                }
                break;
            }
            case Shape::siteException: {
                const std::string site = domain();
                blocker.trigger.urlFilter = ".*";
                blocker.trigger.caseSensitive = true;
                blocker.trigger.domainFilter = model::DomainFilter{DomainFilterType::ifDomain, {"*" + site}};
                blocker.action.type = ActionType::ignorePreviousRules;
                line = "@@||" + site + "^";
                options.push_back("document");
                break;
            }
            case Shape::cookieBlock: {
                const std::string h = host();
                blocker.trigger.urlFilter = hostAnchor(h);
                blocker.trigger.loadType = std::vector{LoadType::thirdParty};
                blocker.action.type = ActionType::blockCookies;
                line = "||" + h + "^";
                options.push_back("third-party");
                options.push_back("cookie");
                break;
            }
        }
        if (!options.empty()) line += "$" + join(options, ",");
        return Rule(std::move(id), std::move(line), std::move(blocker));
    }

    // A whitelist rule as the whitelist editor makes it: every URL of the
    // given sites, everywhere or only in the chosen extensions.
    Rule whitelistRule(std::vector<std::string> sites) {
        Blocker blocker;
        blocker.trigger.urlFilter = ".*";
        blocker.trigger.caseSensitive = true;
        blocker.trigger.domainFilter = model::DomainFilter{DomainFilterType::ifDomain, std::move(sites)};
        blocker.action.type = ActionType::ignorePreviousRules;
        std::vector<ExtensionType> partial;
        if (pick(5) < 2) {
            // One to seven of the eight extensions, in their own order.
            const auto& all = model::allCases<ExtensionType>();
            const int wanted = 1 + pick(7);
            std::vector<bool> chosen(all.size(), false);
            for (int count = 0; count < wanted;) {
                const auto index = static_cast<std::size_t>(pick(static_cast<int>(all.size())));
                if (!chosen[index]) {
                    chosen[index] = true;
                    ++count;
                }
            }
            for (std::size_t i = 0; i < all.size(); ++i)
                if (chosen[i]) partial.push_back(all[i]);
        }
        return Rule(uuid(), "", std::move(blocker), std::move(partial));
    }

    // A rule of one of the other configurable packages, as the popover makes them.
    Rule configurableRule(model::ConfigurableType type) {
        Blocker blocker;
        blocker.trigger.urlFilter = ".*";
        blocker.trigger.caseSensitive = true;
        const std::string site = domain();
        blocker.trigger.domainFilter = model::DomainFilter{DomainFilterType::ifDomain, {site}};
        switch (type) {
            case model::ConfigurableType::blockURL:
                blocker.trigger.urlFilter = hostAnchor(host());
                blocker.trigger.caseSensitive = false;
                blocker.trigger.domainFilter.reset();
                break;
            case model::ConfigurableType::blockCookies: blocker.action.type = ActionType::blockCookies; break;
            case model::ConfigurableType::hideElements:
                blocker.action.type = ActionType::hide;
                blocker.action.selector = selector();
                break;
            case model::ConfigurableType::makeHttps: blocker.action.type = ActionType::makeHttps; break;
            case model::ConfigurableType::whitelist: blocker.action.type = ActionType::ignorePreviousRules; break;
        }
        return Rule(uuid(), site, std::move(blocker));
    }

    // A registrable domain: word + number + top-level domain.
    std::string domain() {
        const char* tld = regionalDomain_ != nullptr && pick(10) < 7 ? regionalDomain_
                                                                      : genericTLDs[pick(std::size(genericTLDs))];
        return word() + std::to_string(pick(100'000)) + "." + tld;
    }

    // A host, with a subdomain half of the time.
    std::string host() {
        std::string name = domain();
        if (pick(2) == 0) name = word() + (pick(3) == 0 ? std::to_string(pick(10)) : "") + "." + name;
        return name;
    }

    // An upper-case version-4 UUID, as the system gives new rules and packages.
    std::string uuid() {
        std::array<std::uint32_t, 4> bits{};
        for (auto& word : bits) word = static_cast<std::uint32_t>(random_());
        bits[1] = (bits[1] & 0xFFFF0FFFu) | 0x00004000u;
        bits[2] = (bits[2] & 0x3FFFFFFFu) | 0x80000000u;
        char text[37];
        std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%04X%08X", bits[0], bits[1] >> 16, bits[1] & 0xFFFFu,
                      bits[2] >> 16, bits[2] & 0xFFFFu, bits[3]);
        return text;
    }

    int pick(int below) { return static_cast<int>(random_() % static_cast<std::uint32_t>(below)); }
    int pick(std::size_t below) { return pick(static_cast<int>(below)); }

private:
    std::string word() { return words[pick(std::size(words))]; }

    // The converter's form of "||host^": any scheme, the host or a subdomain of it.
    static std::string hostAnchor(const std::string& host, bool separator = true) {
        return "^[^:]+://+([^:/]+\\.)?" + escapeRegex(host) + (separator ? "[:/]" : "");
    }

    static std::string escapeRegex(const std::string& text) {
        std::string escaped;
        for (char c : text) {
            if (c == '.' || c == '?' || c == '+' || c == '*' || c == '(' || c == ')' || c == '[' || c == ']' ||
                c == '$' || c == '^' || c == '|' || c == '\\') {
                escaped += '\\';
            }
            escaped += c;
        }
        return escaped;
    }

    static std::string join(const std::vector<std::string>& parts, const char* separator) {
        std::string text;
        for (const auto& part : parts) {
            if (!text.empty()) text += separator;
            text += part;
        }
        return text;
    }

    static std::vector<std::string> wildcard(std::vector<std::string> sites) {
        for (auto& site : sites) site.insert(0, "*");
        return sites;
    }

    std::vector<std::string> domains(int count) {
        std::vector<std::string> list;
        for (int i = 0; i < count; ++i) list.push_back(domain());
        return list;
    }

    // $third-party, $domain=… and $match-case, as often as lists use them.
    void addNetworkOptions(Blocker& blocker, std::vector<std::string>& options) {
        if (pick(3) == 0) {
            blocker.trigger.loadType = std::vector{LoadType::thirdParty};
            options.push_back("third-party");
        }
        if (pick(10) == 0) {
            const bool unless = pick(3) == 0;
            const auto sites = domains(1 + pick(4));
            blocker.trigger.domainFilter =
                model::DomainFilter{unless ? DomainFilterType::unlessDomain : DomainFilterType::ifDomain, wildcard(sites)};
            std::string option = "domain=";
            for (std::size_t i = 0; i < sites.size(); ++i) option += (i ? "|" : "") + std::string(unless ? "~" : "") + sites[i];
            options.push_back(option);
        }
        if (pick(20) == 0) {
            blocker.trigger.caseSensitive = true;
            options.push_back("match-case");
        }
    }

    std::string selector() {
        switch (pick(6)) {
            case 0: return "." + word() + "-" + word() + "-" + std::to_string(pick(500));
            case 1: return "#" + word() + "_" + std::to_string(pick(500));
            case 2: return "div[id^=\"" + word() + "-\"]";
            case 3: return "a[href*=\"" + host() + "\"]";
            case 4: return "." + word() + " > iframe";
            default: return "[class^=\"" + word() + "-" + word() + "\"]";
        }
    }

    std::mt19937 random_;
    const char* regionalDomain_ = nullptr;
};

Package makeList(RuleGenerator& generator, const std::string& id, const std::string& name, int ruleCount,
                 const Profile& profile, bool uuidRuleIDs = false, const char* regionalDomain = nullptr) {
    std::vector<Rule> rules;
    rules.reserve(static_cast<std::size_t>(ruleCount));
    for (int i = 0; i < ruleCount; ++i) {
        rules.push_back(generator.next(uuidRuleIDs ? generator.uuid() : id + "-" + std::to_string(i), profile,
                                       regionalDomain));
    }
    return Package(id, name, std::move(rules), fixedCreationDate());
}

Package makeWhitelist(RuleGenerator& generator, int domainCount) {
    std::vector<Rule> rules;
    for (int placed = 0; placed < domainCount;) {
        // Mostly one site a rule, as the editor adds them; now and then a
        // site with its subdomains or a few sites at once.
        const int wanted = std::min(domainCount - placed, generator.pick(7) == 0 ? 2 + generator.pick(3) : 1);
        std::vector<std::string> sites;
        const std::string first = generator.domain();
        sites.push_back(first);
        for (int i = 1; i < wanted; ++i) sites.push_back(i == 1 ? "*" + first : generator.domain());
        placed += wanted;
        rules.push_back(generator.whitelistRule(std::move(sites)));
    }
    return Package("whitelist", "Whitelist", std::move(rules), fixedCreationDate());
}

}  // namespace

std::size_t RuleSet::packageCount() const {
    return general.size() + international.size() + configurable.size() + custom.size();
}

std::size_t RuleSet::ruleCount() const {
    std::size_t count = 0;
    for (const auto* list : {&general, &international, &configurable, &custom})
        for (const auto& package : *list) count += package.rules.size();
    return count;
}

RuleSet generateRuleSet(const RuleSetSize& size, unsigned seed) {
    RuleGenerator generator(seed);
    RuleSet set;

    for (const GeneralList& list : generalLists) {
        set.general.push_back(makeList(generator, std::string(model::rawValue(list.file)), list.name,
                                       size.generalRuleCount, list.profile));
    }

    const auto& regional = model::allCases<model::InternationalType>();
    const int regionalCount = std::min<int>(size.regionalListCount, static_cast<int>(regional.size()));
    for (int i = 0; i < regionalCount; ++i) {
        const std::string id(model::rawValue(regional[static_cast<std::size_t>(i)]));
        set.international.push_back(makeList(generator, id, id.substr(std::string_view("block-").size()) + " list",
                                             size.regionalRuleCount, adsProfile, false,
                                             regionalDomains[static_cast<std::size_t>(i)]));
    }

    set.configurable.push_back(makeWhitelist(generator, size.whitelistDomainCount));
    const std::pair<model::ConfigurableType, const char*> others[] = {
        {model::ConfigurableType::blockURL, "Block URLs"},
        {model::ConfigurableType::blockCookies, "Block Cookies"},
        {model::ConfigurableType::hideElements, "Hide Page Elements"},
        {model::ConfigurableType::makeHttps, "Make HTTPS-only"},
    };
    for (const auto& [type, name] : others) {
        std::vector<Rule> rules;
        for (int i = 0; i < size.configurableRuleCount; ++i) rules.push_back(generator.configurableRule(type));
        set.configurable.emplace_back(std::string(model::rawValue(type)), name, std::move(rules), fixedCreationDate());
    }

    for (int i = 0; i < size.customPackageCount; ++i) {
        set.custom.push_back(makeList(generator, generator.uuid(), "My list " + std::to_string(i + 1),
                                      size.customRuleCount, customProfile, true));
    }

    set.firewallHosts.reserve(static_cast<std::size_t>(size.firewallHostCount));
    for (int i = 0; i < size.firewallHostCount; ++i) set.firewallHosts.push_back(generator.host());
    return set;
}

std::optional<std::string> checkAcceptedBySafari(const RuleSet& set) {
    const Package* whitelist = nullptr;
    for (const auto& package : set.configurable)
        if (package.isConfigurableWhitelist()) whitelist = &package;

    for (ExtensionType type : model::allCases<ExtensionType>()) {
        std::vector<Blocker> blockers;
        std::vector<const Rule*> rules;
        const auto add = [&](const Rule& rule) {
            blockers.push_back(rule.blocker);
            rules.push_back(&rule);
        };
        for (const auto* list : {&set.general, &set.international, &set.configurable, &set.custom}) {
            for (const auto& package : *list) {
                if (&package == whitelist || package.type() != type) continue;
                for (const auto& rule : package.rules) add(rule);
            }
        }
        if (whitelist != nullptr) {
            for (const auto& rule : whitelist->rules)
                if (rule.isWhitelist(type)) add(rule);
        }
        if (blockers.empty()) continue;
        if (auto refusal = platform::validateContentRuleList(model::encodeBlockers(blockers))) {
            std::string text = std::string(model::rawValue(type)) + ": " + std::string(refusal->message());
            if (refusal->entryIndex && *refusal->entryIndex < rules.size()) {
                text += " (rule " + rules[*refusal->entryIndex]->id + ")";
            }
            if (!refusal->detail.empty()) text += " " + refusal->detail;
            return text;
        }
    }
    return std::nullopt;
}

std::expected<std::vector<WrittenFile>, std::string> writeRuleSet(const RuleSet& set) {
    using storage::PersistentStore;
    std::vector<WrittenFile> written;
    const auto record = [&written](const std::filesystem::path& path) {
        std::error_code error;
        written.push_back({path, std::filesystem::file_size(path, error)});
    };
    const auto inFilters = [](model::JSONFileName file) {
        return storage::PathProvider::filtersFolderURL() / model::fileName(file);
    };

    for (std::size_t i = 0; i < set.general.size() && i < generalLists.size(); ++i) {
        if (auto result = PersistentStore::write(set.general[i], generalLists[i].file); !result) {
            return std::unexpected(result.error().description());
        }
        record(inFilters(generalLists[i].file));
    }
    const std::pair<const std::vector<Package>*, model::JSONFileName> lists[] = {
        {&set.international, model::JSONFileName::blockInternational},
        {&set.configurable, model::JSONFileName::blockConfigurable},
        {&set.custom, model::JSONFileName::blockCustom},
    };
    for (const auto& [packages, file] : lists) {
        if (auto result = PersistentStore::write(*packages, file); !result) {
            return std::unexpected(result.error().description());
        }
        record(inFilters(file));
    }

    std::string hosts;
    for (const auto& host : set.firewallHosts) hosts += host + "\n";
    const auto hostsPath = storage::PathProvider::hostsFileURL();
    if (auto result = platform::writeFileAtomically(hostsPath, hosts); !result) {
        return std::unexpected(hostsPath.string() + ": " + result.error().message());
    }
    record(hostsPath);
    return written;
}

}  // namespace tamsel::bench
