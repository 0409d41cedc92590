#include "platform/ContentRuleMatcher.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tamsel::platform {
namespace {

std::shared_ptr<const ContentRuleMatcher> compiled(const std::string& json) {
    auto matcher = ContentRuleMatcher::compile(json);
    EXPECT_TRUE(matcher.has_value()) << (matcher ? "" : std::string(matcher.error().message()) + " " + matcher.error().detail);
    return matcher ? *matcher : nullptr;
}

ContentRuleListEffects run(const std::shared_ptr<const ContentRuleMatcher>& matcher, const std::string& url,
                           const std::string& main = "https://page.example/",
                           LoadResourceType type = LoadResourceType::image) {
    auto load = PreparedLoad::prepare({url, main, type});
    EXPECT_TRUE(load.has_value()) << url;
    return load ? matcher->evaluate(*load) : ContentRuleListEffects{};
}

bool blocks(const std::string& json, const std::string& url, const std::string& main = "https://page.example/",
            LoadResourceType type = LoadResourceType::image) {
    return run(compiled(json), url, main, type).blocked;
}

std::string blockRule(const std::string& trigger) {
    return R"([{"trigger":{)" + trigger + R"(},"action":{"type":"block"}}])";
}

// --- canonical URLs ------------------------------------------------------------------------

TEST(ContentRuleURLTest, CanonicalFormLowersSchemeAndHostDropsDefaultPortAndFillsThePath) {
    EXPECT_EQ(canonicalURL("HTTP://WWW.Example.COM:80")->text, "http://www.example.com/");
    EXPECT_EQ(canonicalURL("https://a.example:443/P?Q=1#F")->text, "https://a.example/P?Q=1#F");
    EXPECT_EQ(canonicalURL("https://a.example:8443/x")->text, "https://a.example:8443/x");
    EXPECT_EQ(canonicalURL("wss://a.example:443?x")->text, "wss://a.example/?x");
    EXPECT_EQ(canonicalURL("https://a.example/caf\xc3\xa9 x")->text, "https://a.example/caf%C3%A9%20x");
}

TEST(ContentRuleURLTest, DataAndInvalidURLsAreNotEvaluated) {
    for (const char* url : {"data:text/plain,ads", "", "no scheme", "http:/one-slash", "https://", "https://a:99999/",
                            "1http://x/", "http://a b/"})
        EXPECT_FALSE(canonicalURL(url).has_value()) << url;
    auto matcher = compiled(blockRule(R"("url-filter":".*")"));
    LoadEffects effects = evaluateLoad(std::vector<NamedContentRuleMatcher>{{"list", matcher}},
                                       {"data:image/png;base64,AAAA", "https://page.example/", LoadResourceType::image});
    EXPECT_FALSE(effects.evaluated);
    EXPECT_FALSE(effects.blocked);
}

TEST(ContentRuleURLTest, RegistrableDomainsComeFromThePublicSuffixList) {
    EXPECT_EQ(registrableDomain("a.b.example.co.uk"), "example.co.uk");
    EXPECT_EQ(registrableDomain("x.github.io"), "x.github.io");  // a private suffix
    EXPECT_EQ(registrableDomain("www.example.com"), "example.com");
    EXPECT_EQ(registrableDomain("co.uk"), "co.uk");
}

// --- url-filter matching -------------------------------------------------------------------

TEST(ContentRuleURLFilterTest, CaseFoldsUnlessCaseSensitiveCharacterClassesIncluded) {
    EXPECT_TRUE(blocks(blockRule(R"("url-filter":"ADS")"), "https://x.example/ads.js"));
    EXPECT_TRUE(blocks(blockRule(R"("url-filter":"[A-C]ds")"), "https://x.example/bds.js"));
    EXPECT_TRUE(blocks(blockRule(R"("url-filter":"/Banner", "url-filter-is-case-sensitive":false)"),
                       "https://x.example/BANNER"));
    EXPECT_FALSE(blocks(blockRule(R"("url-filter":"ADS", "url-filter-is-case-sensitive":true)"),
                        "https://x.example/ads.js"));
    EXPECT_FALSE(blocks(blockRule(R"("url-filter":"[A-C]ds", "url-filter-is-case-sensitive":true)"),
                        "https://x.example/bds.js"));
    EXPECT_TRUE(blocks(blockRule(R"("url-filter":"/Ads", "url-filter-is-case-sensitive":true)"),
                       "https://x.example/Ads"));
}

TEST(ContentRuleURLFilterTest, UnanchoredUnlessStartingWithCaretAndMatchedAgainstTheCanonicalURL) {
    EXPECT_TRUE(blocks(blockRule(R"("url-filter":"example\\.com/x")"), "https://sub.example.com/x"));
    EXPECT_FALSE(blocks(blockRule(R"("url-filter":"^example\\.com")"), "https://example.com/"));
    EXPECT_TRUE(blocks(blockRule(R"("url-filter":"^https://example\\.com/$")"), "HTTPS://EXAMPLE.com:443"));
    EXPECT_TRUE(blocks(blockRule(R"("url-filter":"\\.gif$")"), "https://x.example/a.gif"));
    EXPECT_FALSE(blocks(blockRule(R"("url-filter":"\\.gif$")"), "https://x.example/a.gif?x"));
    EXPECT_TRUE(blocks(blockRule(R"("url-filter":"\\?q=1#top")"), "https://x.example/p?q=1#top"));
    EXPECT_TRUE(blocks(blockRule(R"("url-filter":"^[^:]+://+([^:/]+\\.)?ads\\.example[:/]")"),
                       "http://a.b.ads.example:8080/"));
    EXPECT_FALSE(blocks(blockRule(R"("url-filter":"^[^:]+://+([^:/]+\\.)?ads\\.example[:/]")"),
                        "http://badads.example/"));
}

TEST(ContentRuleURLFilterTest, PatternsWithNestedStarsStayFast) {
    const std::string filter = R"(^(.*)*(a*)*(.*a)*.*b+.*x)";
    auto matcher = compiled(blockRule("\"url-filter\":\"" + filter + "\""));
    const std::string url = "https://x.example/" + std::string(4000, 'a');
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(run(matcher, url).blocked);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

// --- resource and load types ---------------------------------------------------------------

TEST(ContentRuleTypesTest, ResourceTypeGroups) {
    using enum LoadResourceType;
    const std::string url = "https://x.example/r";
    auto rule = [](const std::string& type) { return blockRule(R"("url-filter":"r","resource-type":[")" + type + "\"]"); };
    EXPECT_TRUE(blocks(blockRule(R"("url-filter":"r")"), url, "https://page.example/", websocket));
    for (auto type : {fetch, websocket, ping, other}) EXPECT_TRUE(blocks(rule("raw"), url, "https://p.example/", type));
    EXPECT_FALSE(blocks(rule("raw"), url, "https://p.example/", image));
    EXPECT_TRUE(blocks(rule("other"), url, "https://p.example/", ping));
    EXPECT_TRUE(blocks(rule("other"), url, "https://p.example/", other));
    EXPECT_FALSE(blocks(rule("other"), url, "https://p.example/", fetch));
    EXPECT_TRUE(blocks(rule("ping"), url, "https://p.example/", ping));
    EXPECT_FALSE(blocks(rule("ping"), url, "https://p.example/", other));
    EXPECT_TRUE(blocks(rule("document"), url, "https://p.example/", document));
    EXPECT_FALSE(blocks(rule("script"), url, "https://p.example/", image));
    EXPECT_EQ(loadResourceTypeFromName("raw"), fetch);
    EXPECT_FALSE(loadResourceTypeFromName("xhr").has_value());
}

TEST(ContentRuleTypesTest, ThirdPartyByRegistrableDomain) {
    const std::string third = blockRule(R"("url-filter":"r","load-type":["third-party"])");
    const std::string first = blockRule(R"("url-filter":"r","load-type":["first-party"])");
    EXPECT_FALSE(blocks(third, "https://cdn.news.example.co.uk/r", "https://www.news.example.co.uk/"));
    EXPECT_TRUE(blocks(third, "https://cdn.other.co.uk/r", "https://www.news.example.co.uk/"));
    EXPECT_FALSE(blocks(third, "https://other.example.co.uk/r", "https://www.news.example.co.uk/"));
    EXPECT_TRUE(blocks(first, "https://static.shop.example/r", "https://shop.example/"));
    // Two sites under one private suffix are different parties.
    EXPECT_TRUE(blocks(third, "https://b.github.io/r", "https://a.github.io/"));
    // A main-frame navigation is first-party to itself.
    EXPECT_TRUE(blocks(first, "https://x.example/r", "", LoadResourceType::document));
}

// --- conditions ----------------------------------------------------------------------------

TEST(ContentRuleConditionTest, DomainListsTestTheMainDocumentHost) {
    const std::string exact = blockRule(R"("url-filter":"r","if-domain":["news.example"])");
    const std::string star = blockRule(R"("url-filter":"r","if-domain":["*news.example"])");
    const std::string unless = blockRule(R"("url-filter":"r","unless-domain":["*news.example"])");
    EXPECT_TRUE(blocks(exact, "https://cdn.other/r", "https://news.example/page"));
    EXPECT_FALSE(blocks(exact, "https://cdn.other/r", "https://www.news.example/page"));
    EXPECT_TRUE(blocks(star, "https://cdn.other/r", "https://www.news.example/page"));
    EXPECT_TRUE(blocks(star, "https://cdn.other/r", "https://news.example/page"));
    EXPECT_FALSE(blocks(star, "https://cdn.other/r", "https://oldnews.example/page"));
    EXPECT_FALSE(blocks(unless, "https://cdn.other/r", "https://a.news.example/"));
    EXPECT_TRUE(blocks(unless, "https://cdn.other/r", "https://elsewhere.example/"));
    // The resource's own host does not count.
    EXPECT_FALSE(blocks(exact, "https://news.example/r", "https://elsewhere.example/"));
    // For a main-frame navigation the main document is the URL loaded.
    EXPECT_TRUE(blocks(exact, "https://news.example/r", "", LoadResourceType::document));
}

TEST(ContentRuleConditionTest, MatchAllFiltersWithDomainListsAreFoundBySite) {
    auto matcher = compiled(R"([{"trigger":{"url-filter":".*","if-domain":["*shop.example"]},"action":{"type":"css-display-none","selector":".promo"}},
        {"trigger":{"url-filter":".*","if-domain":["blog.example"]},"action":{"type":"css-display-none","selector":".side"}}])");
    EXPECT_EQ(run(matcher, "https://img.cdn/x", "https://m.shop.example/").selectors,
              std::vector<std::string_view>{".promo"});
    EXPECT_TRUE(run(matcher, "https://img.cdn/x", "https://www.blog.example/").selectors.empty());
    EXPECT_TRUE(matcher->globalStyleSheet().empty());
}

TEST(ContentRuleConditionTest, TopURLPatternsMatchTheWholeMainDocumentURL) {
    const std::string ifTop = blockRule(R"("url-filter":"r","if-top-url":["^https://news\\.example/sport"])");
    const std::string unlessTop = blockRule(R"("url-filter":"r","unless-top-url":["/checkout"])");
    EXPECT_TRUE(blocks(ifTop, "https://cdn.other/r", "https://NEWS.example/sport/today"));
    EXPECT_FALSE(blocks(ifTop, "https://cdn.other/r", "https://news.example/politics"));
    EXPECT_FALSE(blocks(unlessTop, "https://cdn.other/r", "https://shop.example/checkout?x"));
    EXPECT_TRUE(blocks(unlessTop, "https://cdn.other/r", "https://shop.example/cart"));
}

// --- order, ignore-previous-rules and style sheets ----------------------------------------

TEST(ContentRuleOrderTest, IgnorePreviousRulesCancelsEarlierActionsOnlyOfItsList) {
    auto list = compiled(R"([
        {"trigger":{"url-filter":"ads"},"action":{"type":"block"}},
        {"trigger":{"url-filter":"ads"},"action":{"type":"css-display-none","selector":".a"}},
        {"trigger":{"url-filter":"ads","if-domain":["trusted.example"]},"action":{"type":"ignore-previous-rules"}},
        {"trigger":{"url-filter":"ads/late"},"action":{"type":"block-cookies"}}])");
    auto fired = run(list, "https://x.example/ads/late", "https://trusted.example/");
    EXPECT_FALSE(fired.blocked);
    EXPECT_TRUE(fired.selectors.empty());
    EXPECT_TRUE(fired.ignoredPreviousRules);
    EXPECT_TRUE(fired.blockCookies);  // later rules still apply
    auto elsewhere = run(list, "https://x.example/ads/late", "https://other.example/");
    EXPECT_TRUE(elsewhere.blocked);
    EXPECT_FALSE(elsewhere.ignoredPreviousRules);

    auto other = compiled(blockRule(R"("url-filter":"ads")"));
    auto effects = evaluateLoad(std::vector<NamedContentRuleMatcher>{{"one", list}, {"two", other}},
                                {"https://x.example/ads", "https://trusted.example/", LoadResourceType::image});
    EXPECT_TRUE(effects.blocked);
    EXPECT_EQ(effects.blockedBy, std::vector<std::string>{"two"});
    EXPECT_EQ(effects.stylesheetAppliedFor, std::vector<std::string>{"two"});
}

TEST(ContentRuleOrderTest, IgnorePreviousRulesWithResourceTypesFiresOnlyForThoseLoads) {
    auto list = compiled(R"([
        {"trigger":{"url-filter":"cdn"},"action":{"type":"block"}},
        {"trigger":{"url-filter":"cdn","resource-type":["script"]},"action":{"type":"ignore-previous-rules"}}])");
    EXPECT_FALSE(run(list, "https://cdn.example/a", "https://p.example/", LoadResourceType::script).blocked);
    EXPECT_TRUE(run(list, "https://cdn.example/a", "https://p.example/", LoadResourceType::image).blocked);
}

TEST(ContentRuleOrderTest, GlobalStyleSheetIsTheMatchAllHidingBeforeTheFirstIgnore) {
    auto list = compiled(R"([
        {"trigger":{"url-filter":".*"},"action":{"type":"css-display-none","selector":".ad"}},
        {"trigger":{"url-filter":".*","resource-type":["document"]},"action":{"type":"css-display-none","selector":".typed"}},
        {"trigger":{"url-filter":".*"},"action":{"type":"css-display-none","selector":"bad{"}},
        {"trigger":{"url-filter":"^https://safe\\.example/"},"action":{"type":"ignore-previous-rules"}},
        {"trigger":{"url-filter":".*"},"action":{"type":"css-display-none","selector":".after"}}])");
    EXPECT_EQ(list->globalStyleSheet(), std::vector<std::string>{".ad"});
    auto page = run(list, "https://x.example/", "", LoadResourceType::document);
    EXPECT_FALSE(page.ignoredPreviousRules);
    EXPECT_EQ(page.selectors, (std::vector<std::string_view>{".typed", ".after"}));
    auto safe = run(list, "https://safe.example/", "", LoadResourceType::document);
    EXPECT_TRUE(safe.ignoredPreviousRules);
    EXPECT_EQ(safe.selectors, std::vector<std::string_view>{".after"});
    EXPECT_FALSE(isPlausibleSelector("a,,b"));
    EXPECT_FALSE(isPlausibleSelector("[id=\"x\""));
    EXPECT_TRUE(isPlausibleSelector("div[id^=\"a-\"] > .b, #c"));
}

TEST(ContentRuleOrderTest, MakeHttpsUpgradesDefaultPortsOnly) {
    auto list = compiled(R"([{"trigger":{"url-filter":".*"},"action":{"type":"make-https"}}])");
    std::vector<NamedContentRuleMatcher> lists{{"l", list}};
    auto finalURL = [&](const std::string& url) {
        return evaluateLoad(lists, {url, "https://p.example/", LoadResourceType::image}).url;
    };
    EXPECT_EQ(finalURL("http://a.example/x"), "https://a.example/x");
    EXPECT_EQ(finalURL("http://a.example:80/x"), "https://a.example/x");
    EXPECT_EQ(finalURL("http://a.example:8080/x"), "http://a.example:8080/x");
    EXPECT_EQ(finalURL("ws://a.example/s"), "wss://a.example/s");
    EXPECT_EQ(finalURL("https://a.example/x"), "https://a.example/x");
    EXPECT_EQ(finalURL("ftp://a.example/x"), "ftp://a.example/x");
}

// --- compilation ---------------------------------------------------------------------------

TEST(ContentRuleCompileTest, RefusesWhatTheGrammarRefusesAndListsOverTheBudget) {
    auto refused = ContentRuleMatcher::compile(blockRule(R"("url-filter":"a|b")"));
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, ContentRuleListErrorCode::invalidRegex);
    auto large = ContentRuleMatcher::compile(blockRule(R"("url-filter":"ads")"), {.memoryBudget = 16});
    ASSERT_FALSE(large);
    EXPECT_EQ(large.error().code, ContentRuleListErrorCode::exceedsMemoryBudget);
}

TEST(ContentRuleCompileTest, AnUnchangedBodyIsReusedWhenOnlyTheWhitelistTailChanges) {
    const std::string body = R"({"trigger":{"url-filter":"ads"},"action":{"type":"block"}})";
    auto first = compiled("[" + body + R"(,{"trigger":{"url-filter":".*","if-domain":["a.example"]},"action":{"type":"ignore-previous-rules"}}])");
    auto second = ContentRuleMatcher::compile(
        "[" + body + R"(,{"trigger":{"url-filter":".*","if-domain":["b.example"]},"action":{"type":"ignore-previous-rules"}}])",
        {}, first.get());
    ASSERT_TRUE(second);
    EXPECT_TRUE((*second)->reusedBody());
    EXPECT_TRUE(run(*second, "https://x/ads", "https://a.example/").blocked);
    EXPECT_FALSE(run(*second, "https://x/ads", "https://b.example/").blocked);
    auto changed = ContentRuleMatcher::compile(blockRule(R"("url-filter":"ads2")"), {}, first.get());
    ASSERT_TRUE(changed);
    EXPECT_FALSE((*changed)->reusedBody());
}

TEST(ContentRuleCompileTest, OnlyAWhitelistingContinuationOfTheSameBodyTextSkipsTheBody) {
    const std::string body = R"([{"trigger":{"url-filter":"ads"},"action":{"type":"block"}},)"
                             R"({"trigger":{"url-filter":"x"},"action":{"type":"css-display-none","selector":"}"}})";
    const std::string allow = R"({"trigger":{"url-filter":".*","if-domain":["a.example"]},"action":{"type":"ignore-previous-rules"}})";
    auto first = compiled(body + "," + allow + "]");
    ASSERT_TRUE(first);
    EXPECT_EQ(first->entryCount(), 3u);  // the entry with an unusable selector still counts

    auto none = ContentRuleMatcher::compile(body + " ]\n", {}, first.get());
    ASSERT_TRUE(none);
    EXPECT_TRUE((*none)->reusedBody());
    EXPECT_EQ((*none)->entryCount(), 2u);
    EXPECT_TRUE(run(*none, "https://x/ads", "https://a.example/").blocked);

    // A blocking entry after the body makes it a new body, which blocks.
    auto blocking = ContentRuleMatcher::compile(
        body + "," + allow + R"(,{"trigger":{"url-filter":"more"},"action":{"type":"block"}}])", {}, first.get());
    ASSERT_TRUE(blocking);
    EXPECT_FALSE((*blocking)->reusedBody());
    EXPECT_TRUE(run(*blocking, "https://x/more", "https://a.example/").blocked);
    EXPECT_FALSE(run(*blocking, "https://x/ads", "https://a.example/").blocked);

    // A refused tail entry is named by its place in the whole list.
    auto refused = ContentRuleMatcher::compile(
        body + R"(,{"trigger":{"url-filter":"a|b"},"action":{"type":"ignore-previous-rules"}}])", {}, first.get());
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, ContentRuleListErrorCode::invalidRegex);
    EXPECT_EQ(refused.error().entryIndex, std::optional<std::size_t>(2));

    // One changed byte in the body is a new body.
    std::string edited = body;
    edited.replace(edited.find("ads"), 3, "adz");
    auto changed = ContentRuleMatcher::compile(edited + "," + allow + "]", {}, first.get());
    ASSERT_TRUE(changed);
    EXPECT_FALSE((*changed)->reusedBody());
    EXPECT_TRUE(run(*changed, "https://x/adz").blocked);
    EXPECT_FALSE(run(*changed, "https://x/ads").blocked);
}

TEST(ContentRuleCompileTest, TranslatesEscapesClassesAndQuantifiersForRE2) {
    EXPECT_EQ(translateURLFilter("^a\\.b"), "^a\\x{2e}b");
    EXPECT_EQ(translateURLFilter("x{1,}y{0,1}"), "x+y?");
    EXPECT_EQ(translateURLFilter("[^a-c]"), "[^\\x{61}-\\x{63}]");
    EXPECT_EQ(translateURLFilter("(?:ab)*"), "(?:ab)*");
    EXPECT_TRUE(blocks(blockRule(R"("url-filter":"a\\x2fb")"), "https://x.example/a/b"));
    EXPECT_TRUE(blocks(blockRule(R"("url-filter":"x{2")"), "https://x.example/x{2"));
    EXPECT_FALSE(blocks(blockRule(R"("url-filter":"q[]")"), "https://x.example/q"));
}

}  // namespace
}  // namespace tamsel::platform
