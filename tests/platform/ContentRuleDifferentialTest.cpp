// The fast matcher against a plain evaluator that walks every rule of the
// list in order and matches url-filters with std::regex's ECMAScript grammar
// (the grammar url-filters are written in), on generated lists and loads.
#include "platform/ContentRuleMatcher.h"

#include <gtest/gtest.h>
#include <simdjson.h>

#include <map>
#include <random>
#include <regex>
#include <string>
#include <vector>

namespace tamsel::platform {
namespace {

struct PlainEffects {
    bool blocked = false, blockCookies = false, makeHttps = false, ignored = false;
    std::vector<std::string> selectors;
    bool operator==(const PlainEffects&) const = default;
};

std::string text(simdjson::dom::element element) { return std::string(std::string_view(element)); }

bool typeCovered(const std::string& name, LoadResourceType type) {
    using enum LoadResourceType;
    if (name == "raw") return type == fetch || type == websocket || type == ping || type == other;
    if (name == "other") return type == other || type == ping;
    return loadResourceTypeFromName(name) == type && name != "raw";
}

bool regexMatches(const std::string& pattern, bool caseSensitive, const std::string& text) {
    if (validateURLFilter(pattern) == URLFilterStatus::matchesEverything) return true;
    static std::map<std::pair<std::string, bool>, std::regex> compiled;
    auto found = compiled.find({pattern, caseSensitive});
    if (found == compiled.end()) {
        auto flags = std::regex::ECMAScript;
        if (!caseSensitive) flags |= std::regex::icase;
        found = compiled.emplace(std::pair{pattern, caseSensitive}, std::regex(pattern, flags)).first;
    }
    return std::regex_search(text, found->second);
}

// Every rule, in order, with nothing skipped; returns the global style sheet too.
PlainEffects plainEvaluate(const std::string& json, const ContentLoad& load, std::vector<std::string>& globalSheet) {
    PlainEffects effects;
    globalSheet.clear();
    const auto url = canonicalURL(load.url);
    const auto main = load.mainDocumentURL.empty() ? url : canonicalURL(load.mainDocumentURL);
    const bool thirdParty = registrableDomain(url->host) != registrableDomain(main->host);
    simdjson::dom::parser parser;
    simdjson::dom::array entries = parser.parse(json).get_array();
    bool seenIgnore = false;
    for (auto entry : entries) {
        auto trigger = entry["trigger"];
        const std::string filter = text(trigger["url-filter"]);
        bool caseSensitive = false;
        if (trigger["url-filter-is-case-sensitive"].is_bool()) caseSensitive = bool(trigger["url-filter-is-case-sensitive"]);
        const std::string action = text(entry["action"]["type"]);
        std::string selector;
        if (entry["action"]["selector"].is_string()) selector = text(entry["action"]["selector"]);
        if (action == "css-display-none" && !isPlausibleSelector(selector)) continue;

        bool typed = false, matches = true;
        simdjson::dom::array list;
        if (!trigger["resource-type"].get_array().get(list) && list.size() > 0) {
            typed = true;
            bool any = false;
            for (auto item : list) any = any || typeCovered(text(item), load.resourceType);
            matches = matches && any;
        }
        if (!trigger["load-type"].get_array().get(list) && list.size() > 0) {
            typed = true;
            bool any = false;
            for (auto item : list) any = any || std::string_view(item) == (thirdParty ? "third-party" : "first-party");
            matches = matches && any;
        }
        bool conditioned = false;
        for (const char* key : {"if-domain", "unless-domain"}) {
            if (trigger[key].get_array().get(list)) continue;
            conditioned = true;
            bool listed = false;
            for (auto item : list) {
                std::string domain = text(item);
                if (domain.starts_with('*')) {
                    domain.erase(0, 1);
                    listed = listed || main->host == domain || main->host.ends_with("." + domain);
                } else {
                    listed = listed || main->host == domain;
                }
            }
            matches = matches && (listed == (std::string_view(key) == "if-domain"));
        }
        for (const char* key : {"if-top-url", "unless-top-url"}) {
            if (trigger[key].get_array().get(list)) continue;
            conditioned = true;
            bool listed = false;
            for (auto item : list) listed = listed || regexMatches(text(item), caseSensitive, main->text);
            matches = matches && (listed == (std::string_view(key) == "if-top-url"));
        }
        const bool matchesEverything = validateURLFilter(filter) == URLFilterStatus::matchesEverything;
        if (action == "ignore-previous-rules") seenIgnore = true;
        if (!seenIgnore && action == "css-display-none" && matchesEverything && !typed && !conditioned) {
            globalSheet.push_back(selector);
            continue;
        }
        if (!matches || !regexMatches(filter, caseSensitive, url->text)) continue;
        if (action == "block") effects.blocked = true;
        if (action == "block-cookies") effects.blockCookies = true;
        if (action == "make-https") effects.makeHttps = true;
        if (action == "css-display-none") effects.selectors.push_back(selector);
        if (action == "ignore-previous-rules") effects = PlainEffects{.ignored = true, .selectors = {}};
    }
    return effects;
}

class Generator {
public:
    explicit Generator(unsigned seed) : random_(seed) {}

    template <typename T>
    const T& pick(const std::vector<T>& items) {
        return items[std::uniform_int_distribution<size_t>(0, items.size() - 1)(random_)];
    }
    bool chance(double p) { return std::bernoulli_distribution(p)(random_); }

    std::string filter() {
        const std::string& host = pick(hosts_);
        std::string escaped;
        for (char c : host) escaped += c == '.' ? std::string("\\\\.") : std::string(1, c);
        switch (std::uniform_int_distribution<int>(0, 13)(random_)) {
        case 0: return "^[^:]+://+([^:/]+\\\\.)?" + escaped + "[:/]";
        case 1: return escaped;
        case 2: return "^https?://" + escaped + "/";
        case 3: return pick(paths_);
        case 4: return ".*";
        case 5: return "[?&]" + pick(words_) + "=";
        case 6: return pick(words_) + "\\\\.[jg][si]f?$";
        case 7: return "^http://" + escaped + "/";
        case 8: return pick(words_) + "[0-9]+/";
        case 9: return "^wss?://" + escaped;
        case 10: return "/" + pick(words_) + "s?/" + "b*" + pick(words_);
        case 12: return "^[^:]+://+([^:/]+\\\\.)?" + escaped + pick(paths_) + ".*\\\\.gif";
        case 13: return pick(paths_) + ".*" + pick(words_) + "[0-9]/";
        default: return "^https://" + escaped + "/" + pick(words_) + "$";
        }
    }

    std::string list(int count) {
        const std::vector<std::string> actions{"block", "block", "block-cookies", "css-display-none",
                                               "ignore-previous-rules", "make-https"};
        const std::vector<std::string> types{"document", "image", "style-sheet", "script", "font", "raw",
                                             "svg-document", "media", "popup", "ping", "fetch", "websocket", "other"};
        std::string json = "[";
        for (int i = 0; i < count; ++i) {
            std::string trigger = "\"url-filter\":\"" + filter() + "\"";
            if (chance(0.3)) trigger += chance(0.5) ? ",\"url-filter-is-case-sensitive\":true" : ",\"url-filter-is-case-sensitive\":false";
            if (chance(0.3)) trigger += ",\"resource-type\":[\"" + pick(types) + "\",\"" + pick(types) + "\"]";
            if (chance(0.2)) trigger += chance(0.5) ? ",\"load-type\":[\"third-party\"]" : ",\"load-type\":[\"first-party\"]";
            const int condition = std::uniform_int_distribution<int>(0, 9)(random_);
            const std::string domain = (chance(0.5) ? "*" : "") + pick(hosts_);
            if (chance(0.1)) {
                // Filed by site: a match-all filter for a few sites, often the same ones.
                trigger = "\"url-filter\":\".*\",\"if-domain\":[\"" + domain + "\",\"*" + pick(hosts_) + "\"]";
                if (chance(0.3)) trigger += ",\"load-type\":[\"third-party\"]";
            } else if (condition == 0) {
                trigger += ",\"if-domain\":[\"" + domain + "\"]";
            } else if (condition == 1) {
                trigger += ",\"unless-domain\":[\"" + domain + "\"]";
            } else if (condition == 2) {
                trigger += ",\"if-top-url\":[\"" + pick(words_) + "\"]";
            } else if (condition == 3) {
                trigger += ",\"unless-top-url\":[\"^https://" + pick(hosts_) + "\"]";
            }
            const std::string& action = pick(actions);
            std::string actionJSON = "\"type\":\"" + action + "\"";
            if (action == "css-display-none") actionJSON += ",\"selector\":\"." + pick(words_) + std::to_string(i) + "\"";
            json += (i ? "," : "") + ("{\"trigger\":{" + trigger + "},\"action\":{" + actionJSON + "}}");
        }
        return json + "]";
    }

    ContentLoad load() {
        const std::vector<std::string> schemes{"http", "https", "HTTPS", "ws", "wss"};
        std::string host = pick(hosts_);
        if (chance(0.4)) host = pick(words_) + "." + host;
        if (chance(0.2)) host[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(host[0])));
        std::string url = pick(schemes) + "://" + host + (chance(0.1) ? ":8080" : "") + pick(paths_);
        if (chance(0.4)) url += "?" + pick(words_) + "=" + pick(words_);
        if (chance(0.3)) url += pick(words_) + "7/" + pick(words_) + (chance(0.5) ? ".js" : ".GIF");
        ContentLoad load{url, chance(0.2) ? "" : "https://" + (chance(0.5) ? "www." : std::string()) + pick(hosts_) + "/" + pick(words_),
                         static_cast<LoadResourceType>(std::uniform_int_distribution<int>(0, 11)(random_))};
        if (load.mainDocumentURL.empty()) load.resourceType = LoadResourceType::document;
        return load;
    }

private:
    std::mt19937 random_;
    std::vector<std::string> hosts_{"ads.example", "news.example.co.uk", "cdn.example.com", "example.com",
                                    "a.github.io", "b.github.io", "tracker.example.net", "shop.example"};
    std::vector<std::string> paths_{"/", "/ads/", "/Ads/banner", "/track/pixel", "/img/x.gif", "/api/v1", "/ad"};
    std::vector<std::string> words_{"ads", "Ads", "track", "pixel", "id", "banner", "x", "ad"};
};

TEST(ContentRuleDifferentialTest, FastMatcherAgreesWithRuleByRuleEvaluation) {
    for (unsigned seed = 1; seed <= 12; ++seed) {
        Generator generator(seed);
        const std::string json = generator.list(seed * 20);
        auto matcher = ContentRuleMatcher::compile(json);
        ASSERT_TRUE(matcher) << matcher.error().message() << " " << matcher.error().detail << "\n" << json;
        std::vector<std::string> plainSheet;
        for (int i = 0; i < 150; ++i) {
            const ContentLoad load = generator.load();
            const auto prepared = PreparedLoad::prepare(load);
            ASSERT_TRUE(prepared) << load.url;
            const auto fast = (*matcher)->evaluate(*prepared);
            const PlainEffects expected = plainEvaluate(json, load, plainSheet);
            PlainEffects actual{fast.blocked, fast.blockCookies, fast.makeHttps, fast.ignoredPreviousRules,
                                std::vector<std::string>(fast.selectors.begin(), fast.selectors.end())};
            ASSERT_EQ(actual, expected) << "seed " << seed << " load " << load.url << " on " << load.mainDocumentURL
                                        << " as " << name(load.resourceType) << "\n" << json;
        }
        EXPECT_EQ((*matcher)->globalStyleSheet(), plainSheet) << "seed " << seed;
    }
}

// The "host and its subdomains" anchor is answered without a regular
// expression; these are the URLs where a hand-written answer could go wrong.
TEST(ContentRuleDifferentialTest, HostAnchorsAgreeWithTheRegularExpression) {
    const std::vector<std::string> hosts{"ads.example", "Ads.example", "a-b_c.example", ".example", "example"};
    const std::vector<std::string> urls{
        "https://ads.example/",          "https://ADS.Example/x",          "https://sub.ads.example/",
        "http://a.b.ads.example:8080/",  "https://badads.example/",        "https://ads.example.com/",
        "https://ads.examplex/",         "https://user@ads.example/",      "https://user@x.ads.example/",
        "https://user:pw@ads.example/",  "https://.ads.example/",          "https://x..ads.example/",
        "ws://ads.example",              "https://ads.example?q=ads.example/", "about:ads.example/",
        "foo://ads.example/",            "foo:///ads.example/",            "https://a-b_c.example/",
        "https://x.a-b_c.example/p",     "https://example/",               "https://www.example/",
        "https://ads.example:443/",      "https://p.example/?u=https://ads.example/", "foo:/ads.example/",
        "foo://ADS.example/",            "foo://ads.example",              "foo://x.ads.example?/"};
    std::vector<std::string> sheet;
    for (const auto& host : hosts)
        for (const bool caseSensitive : {false, true}) {
            std::string escaped;  // "\\." in the JSON text: a dot, not any character
            for (char c : host) escaped += c == '.' ? std::string(R"(\\.)") : std::string(1, c);
            const std::string json = std::string(R"([{"trigger":{"url-filter":"^[^:]+://+([^:/]+\\.)?)") + escaped +
                                     R"([:/]","url-filter-is-case-sensitive":)" + (caseSensitive ? "true" : "false") +
                                     R"(},"action":{"type":"block"}}])";
            auto matcher = ContentRuleMatcher::compile(json);
            ASSERT_TRUE(matcher) << json;
            for (const auto& url : urls) {
                const ContentLoad load{url, "https://page.example/", LoadResourceType::image};
                const auto prepared = PreparedLoad::prepare(load);
                if (!prepared) continue;
                EXPECT_EQ((*matcher)->evaluate(*prepared).blocked, plainEvaluate(json, load, sheet).blocked)
                    << json << " on " << url;
            }
        }
}

}  // namespace
}  // namespace tamsel::platform
