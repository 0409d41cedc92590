#include "platform/ContentRuleListValidator.h"

#include <gtest/gtest.h>

#include <string>

using namespace tamsel::platform;

namespace {

std::string entry(const std::string& urlFilter, const std::string& extraTrigger = "",
                  const std::string& action = R"({"type":"block"})") {
    std::string trigger = R"({"url-filter":")" + urlFilter + "\"";
    if (!extraTrigger.empty()) trigger += "," + extraTrigger;
    return R"({"trigger":)" + trigger + R"(},"action":)" + action + "}";
}

std::optional<ContentRuleListErrorCode> codeOf(const std::string& json) {
    auto error = validateContentRuleList(json);
    if (!error) return std::nullopt;
    return error->code;
}

}  // namespace

TEST(URLFilterSubset, AcceptsWhatFilterListsUse) {
    for (const char* pattern : {
             R"(^https?://([^/]+\.)?doubleclick\.net[/:])",
             R"(^https?://[^/]+/ads/)",
             R"(banner[0-9]+\.gif$)",
             R"(^[^:]+:(//)?([^/]+\.)?example\.com[/:])",
             R"(a*?b+?c??)",
             R"((?:ads/)?track)",
         }) {
        const std::string p(pattern);
        EXPECT_TRUE(isAcceptedURLFilter(validateURLFilter(p))) << p << ": "
                                                              << description(validateURLFilter(p));
    }
    EXPECT_EQ(validateURLFilter("ba{0,1}"), URLFilterStatus::ok);
    EXPECT_EQ(validateURLFilter("a{0,1}"), URLFilterStatus::matchesEverything);
    EXPECT_EQ(validateURLFilter("a{1,}"), URLFilterStatus::ok);
    EXPECT_EQ(validateURLFilter("a{0,}b"), URLFilterStatus::ok);
    EXPECT_EQ(validateURLFilter("[a-z]{,2}"), URLFilterStatus::ok) << "a brace that is no quantifier is a literal";
    EXPECT_EQ(validateURLFilter("x}]"), URLFilterStatus::ok);
    EXPECT_EQ(validateURLFilter("(?<name>ab)"), URLFilterStatus::ok);
    EXPECT_EQ(validateURLFilter(R"([\b\-x])"), URLFilterStatus::ok) << "\\b inside a class is a backspace";
}

TEST(URLFilterSubset, MatchEverythingFiltersAreAccepted) {
    EXPECT_EQ(validateURLFilter(".*"), URLFilterStatus::matchesEverything);
    EXPECT_EQ(validateURLFilter("^"), URLFilterStatus::matchesEverything);
    EXPECT_EQ(validateURLFilter("(a?)*"), URLFilterStatus::matchesEverything);
    EXPECT_TRUE(isAcceptedURLFilter(validateURLFilter(".*")));
    EXPECT_EQ(validateURLFilter(".+"), URLFilterStatus::ok);
}

TEST(URLFilterSubset, RefusesOutsideTheSubset) {
    EXPECT_EQ(validateURLFilter(""), URLFilterStatus::emptyPattern);
    EXPECT_EQ(validateURLFilter("caf\xC3\xA9"), URLFilterStatus::nonASCII);
    EXPECT_EQ(validateURLFilter(R"(a\xff)"), URLFilterStatus::nonASCII);
    EXPECT_EQ(validateURLFilter(R"(a\u00e9)"), URLFilterStatus::nonASCII);
    EXPECT_EQ(validateURLFilter(R"([\xe9])"), URLFilterStatus::nonASCII);
    EXPECT_EQ(validateURLFilter("ads|tracker"), URLFilterStatus::disjunction);
    EXPECT_EQ(validateURLFilter("a{0,2}"), URLFilterStatus::invalidQuantifier);
    EXPECT_EQ(validateURLFilter("a{2}"), URLFilterStatus::invalidQuantifier);
    EXPECT_EQ(validateURLFilter("a{1,1}"), URLFilterStatus::invalidQuantifier);
    EXPECT_EQ(validateURLFilter(R"(\bads)"), URLFilterStatus::wordBoundary);
    EXPECT_EQ(validateURLFilter(R"(ad\d+)"), URLFilterStatus::unsupportedCharacterClass);
    EXPECT_EQ(validateURLFilter(R"(\w)"), URLFilterStatus::unsupportedCharacterClass);
    EXPECT_EQ(validateURLFilter(R"(\s)"), URLFilterStatus::unsupportedCharacterClass);
    EXPECT_EQ(validateURLFilter(R"([\d])"), URLFilterStatus::atomCharacter);
    EXPECT_EQ(validateURLFilter(R"([a\s])"), URLFilterStatus::atomCharacter);
    EXPECT_EQ(validateURLFilter("a(?=b)"), URLFilterStatus::group);
    EXPECT_EQ(validateURLFilter("a(?!b)"), URLFilterStatus::group);
    EXPECT_EQ(validateURLFilter("(?<=a)b"), URLFilterStatus::group);
    EXPECT_EQ(validateURLFilter(R"((a)\1)"), URLFilterStatus::backReference);
}

TEST(URLFilterSubset, LineAssertionsOnlyAtTheEnds) {
    EXPECT_EQ(validateURLFilter("^abc$"), URLFilterStatus::ok);
    EXPECT_EQ(validateURLFilter("a^b"), URLFilterStatus::misplacedStartOfLine);
    EXPECT_EQ(validateURLFilter("(^a)"), URLFilterStatus::misplacedStartOfLine);
    EXPECT_EQ(validateURLFilter("a$b"), URLFilterStatus::misplacedEndOfLine);
    EXPECT_EQ(validateURLFilter("a$$"), URLFilterStatus::misplacedEndOfLine);
    EXPECT_EQ(validateURLFilter("(a$)"), URLFilterStatus::misplacedEndOfLine);
}

TEST(URLFilterSubset, SyntaxErrors) {
    for (const char* pattern : {"a++", "a**", "*a", "+", "(regex", "a)", "[", "[a-", "[z-a]", "a\\",
                                "^*", "$+", "(?x)", "a{2,1}"})
        EXPECT_EQ(validateURLFilter(pattern), URLFilterStatus::syntaxError) << pattern;
}

TEST(ContentRuleListGate, AcceptsAWellFormedList) {
    const std::string json =
        "[" + entry(R"(^https?://ads\\.example\\.com/)", R"("resource-type":["image","script"])") + "," +
        entry(".*", R"("if-domain":["*example.org","xn--bcher-kva.de"])",
              R"({"type":"ignore-previous-rules"})") +
        "," + entry(".*", "", R"({"type":"css-display-none","selector":"#s0a0l0a0v0a0t"})") + "," +
        entry("track", R"("load-type":["third-party"],"unless-domain":["example.net"])",
              R"({"type":"block-cookies"})") +
        "," + entry(".*", "", R"({"type":"make-https"})") + "]";
    EXPECT_EQ(validateContentRuleList(json), std::nullopt);
}

TEST(ContentRuleListGate, OneBadEntryRefusesTheWholeList) {
    const std::string good = entry("ads");
    struct Case {
        std::string json;
        ContentRuleListErrorCode code;
    };
    const Case cases[] = {
        {"[" + good + ",", ContentRuleListErrorCode::jsonInvalid},
        {"{}", ContentRuleListErrorCode::topLevelNotArray},
        {"[]", ContentRuleListErrorCode::containsNoRules},
        {"[" + good + ",42]", ContentRuleListErrorCode::invalidRule},
        {R"([{"action":{"type":"block"}}])", ContentRuleListErrorCode::invalidTrigger},
        {"[" + entry("") + "]", ContentRuleListErrorCode::invalidURLFilter},
        {R"([{"trigger":{"url-filter":5},"action":{"type":"block"}}])", ContentRuleListErrorCode::invalidURLFilter},
        {"[" + entry("a", R"("resource-type":"image")") + "]", ContentRuleListErrorCode::invalidTriggerFlagsArray},
        {"[" + entry("a", R"("resource-type":["stylesheet"])") + "]",
         ContentRuleListErrorCode::invalidStringInTriggerFlagsArray},
        {"[" + entry("a", R"("load-type":["first"])") + "]",
         ContentRuleListErrorCode::invalidStringInTriggerFlagsArray},
        {"[" + entry("a", R"("if-domain":[])") + "]", ContentRuleListErrorCode::invalidConditionList},
        {"[" + entry("a", R"("if-domain":[""])") + "]", ContentRuleListErrorCode::invalidConditionList},
        {"[" + entry("a", R"("if-domain":["Example.com"])") + "]", ContentRuleListErrorCode::domainNotLowerCaseASCII},
        {"[" + entry("a", "\"if-domain\":[\"b\xC3\xBC" "cher.de\"]") + "]",
         ContentRuleListErrorCode::domainNotLowerCaseASCII},
        {"[" + entry("a", R"("if-domain":["a.com"],"unless-domain":["b.com"])") + "]",
         ContentRuleListErrorCode::multipleConditions},
        {"[" + entry("a", R"("if-domain":["a.com"],"if-top-url":["b"])") + "]",
         ContentRuleListErrorCode::multipleConditions},
        {R"([{"trigger":{"url-filter":"a"}}])", ContentRuleListErrorCode::invalidAction},
        {"[" + entry("a", "", R"({"type":"allow"})") + "]", ContentRuleListErrorCode::invalidActionType},
        {"[" + entry("a", "", R"({"type":"css-display-none"})") + "]",
         ContentRuleListErrorCode::invalidCSSDisplayNoneAction},
        {"[" + good + "," + entry("a|b") + "]", ContentRuleListErrorCode::invalidRegex},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(codeOf(c.json), c.code) << c.json;
    }
}

TEST(ContentRuleListGate, NamesTheRefusedEntry) {
    const std::string json = "[" + entry("a") + "," + entry("b") + "," + entry("c{0,2}") + "]";
    auto error = validateContentRuleList(json);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, ContentRuleListErrorCode::invalidRegex);
    EXPECT_EQ(error->entryIndex, 2u);
    EXPECT_EQ(error->message(), "Invalid or unsupported regular expression.");
    EXPECT_NE(error->detail.find("c{0,2}"), std::string::npos);
}

TEST(ContentRuleListGate, CountLimit) {
    std::string json = "[";
    const std::string one = entry("a");
    json.reserve((one.size() + 1) * (maximumContentRuleCount + 1) + 2);
    for (size_t i = 0; i < maximumContentRuleCount; ++i) {
        if (i) json += ',';
        json += one;
    }
    EXPECT_EQ(validateContentRuleList(json + "]"), std::nullopt);
    EXPECT_EQ(codeOf(json + "," + one + "]"), ContentRuleListErrorCode::tooManyRules);
}
