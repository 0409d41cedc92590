// Rules and packages: the partial-whitelist rules in construction, encoding
// and decoding, the edits that make new packages, the creation date, and what
// equality ignores.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <unordered_set>

#include "model/JSONCoding.h"
#include "model/ReferenceDate.h"
#include "support/TestSupport.h"

namespace tamsel::model {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::string_view warningLine = "* Warning * setting partialWhitelist for non-whitelist rule, WTF?";

Blocker blockerWithAction(ActionType type, std::string urlFilter = ".*") {
    return Blocker{Trigger{.urlFilter = std::move(urlFilter), .caseSensitive = true}, Action{type, std::nullopt}};
}

Rule whitelistRule(std::string id, std::vector<ExtensionType> partial) {
    return Rule(std::move(id), "site", blockerWithAction(ActionType::ignorePreviousRules), std::move(partial));
}

std::vector<ExtensionType> everyExtension() {
    return {allCases<ExtensionType>().begin(), allCases<ExtensionType>().end()};
}

TEST(RulePackageTest, NonWhitelistRuleDropsPartialWhitelistWithWarning) {
    testing::LogCapture log;
    const Rule rule("r1", "ads", blockerWithAction(ActionType::block), {ExtensionType::blockAds});
    EXPECT_THAT(rule.partialWhitelist, IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre(warningLine));

    testing::LogCapture quiet;
    const Rule plain("r2", "ads", blockerWithAction(ActionType::block));
    const Rule whitelist = whitelistRule("r3", {ExtensionType::blockAds});
    EXPECT_THAT(whitelist.partialWhitelist, ElementsAre(ExtensionType::blockAds));
    EXPECT_THAT(quiet.lines(), IsEmpty());
}

TEST(RulePackageTest, IsWhitelistFollowsActionAndPartialList) {
    const Rule partial = whitelistRule("w", {ExtensionType::blockAds});
    EXPECT_TRUE(partial.isWhitelist(ExtensionType::blockAds));
    EXPECT_FALSE(partial.isWhitelist(ExtensionType::blockTrackers));

    const Rule everywhere = whitelistRule("w", {});
    for (ExtensionType type : allCases<ExtensionType>()) EXPECT_TRUE(everywhere.isWhitelist(type));

    for (ActionType action : {ActionType::block, ActionType::blockCookies, ActionType::hide, ActionType::makeHttps}) {
        Rule rule("b", "b", blockerWithAction(action));
        rule.partialWhitelist = {ExtensionType::blockAds};  // as a file might hold it
        for (ExtensionType type : allCases<ExtensionType>()) EXPECT_FALSE(rule.isWhitelist(type));
    }
}

TEST(RulePackageTest, PartialWhitelistIsWrittenOnlyForOneToSevenEntries) {
    testing::LogCapture log;
    const Rule partial = whitelistRule("w1", {ExtensionType::blockAds, ExtensionType::blockSocial});
    const std::string json = encodeRule(partial);
    EXPECT_NE(json.find(R"("partial-whitelist":["block-ads","block-social"])"), std::string::npos);
    EXPECT_THAT(log.lines(), ElementsAre(R"(Encoded ["block-ads", "block-social"])"));
    EXPECT_EQ(decodeRule(json), partial);

    testing::LogCapture quiet;
    const Rule all = whitelistRule("w2", everyExtension());
    const std::string allJson = encodeRule(all);
    EXPECT_EQ(allJson.find("partial-whitelist"), std::string::npos);
    auto back = decodeRule(allJson);
    ASSERT_TRUE(back.has_value());
    EXPECT_THAT(back->partialWhitelist, IsEmpty());

    // Duplicates reaching eight entries are left out just the same.
    const Rule duplicates = whitelistRule("w3", std::vector<ExtensionType>(8, ExtensionType::blockAds));
    EXPECT_EQ(encodeRule(duplicates).find("partial-whitelist"), std::string::npos);
    EXPECT_EQ(encodeRule(whitelistRule("w4", {})).find("partial-whitelist"), std::string::npos);
    EXPECT_THAT(quiet.lines(), IsEmpty());
}

TEST(RulePackageTest, DecodingPartialWhitelistSkipsUnknownStringsAndKeepsItForAnyAction) {
    auto rule = decodeRule(R"({"id":"1","name":"n","content":{"trigger":{"url-filter":".*"},)"
                           R"("action":{"type":"ignore-previous-rules"}},)"
                           R"("partial-whitelist":["block-ads","block-everything","block-international"]})");
    ASSERT_TRUE(rule.has_value());
    EXPECT_THAT(rule->partialWhitelist, ElementsAre(ExtensionType::blockAds, ExtensionType::regionalRules));

    testing::LogCapture log;
    auto blockRule = decodeRule(R"({"id":"1","name":"n","content":{"trigger":{"url-filter":"x"},)"
                                R"("action":{"type":"block"}},"partial-whitelist":["block-ads"]})");
    ASSERT_TRUE(blockRule.has_value());
    EXPECT_THAT(blockRule->partialWhitelist, ElementsAre(ExtensionType::blockAds));
    EXPECT_FALSE(log.contains("Warning"));

    auto nullList = decodeRule(R"({"id":"1","name":"n","content":{"trigger":{"url-filter":"x"},)"
                               R"("action":{"type":"block"}},"partial-whitelist":null})");
    ASSERT_TRUE(nullList.has_value());
    EXPECT_THAT(nullList->partialWhitelist, IsEmpty());

    auto notStrings = decodeRule(R"({"id":"1","name":"n","content":{"trigger":{"url-filter":"x"},)"
                                 R"("action":{"type":"block"}},"partial-whitelist":[1]})");
    ASSERT_FALSE(notStrings.has_value());
    EXPECT_EQ(notStrings.error().description, "partial-whitelist[0]: expected string, found number");
}

TEST(RulePackageTest, RuleWithoutContentFailsAndSoDoesItsPackageWithPrintedErrors) {
    testing::LogCapture log;
    auto rule = decodeRule(R"({"id":"1","name":"n"})");
    ASSERT_FALSE(rule.has_value());
    EXPECT_EQ(rule.error().description, R"(missing key "content")");
    EXPECT_THAT(log.lines(), ElementsAre(R"(missing key "content")"));

    testing::LogCapture packageLog;
    auto package = decodePackage(R"({"id":"p","name":"P","rules":[)"
                                 R"({"id":"1","name":"ok","content":{"trigger":{"url-filter":"x"},"action":{"type":"block"}}},)"
                                 R"({"id":"2","name":"broken"}]})");
    ASSERT_FALSE(package.has_value());
    EXPECT_EQ(package.error().description, R"(rules[1]: missing key "content")");
    // The rule reports itself, then the package reports it with its place.
    EXPECT_THAT(packageLog.lines(), ElementsAre(R"(missing key "content")", R"(rules[1]: missing key "content")"));
}

// Rule by rule: what a whole decode would hold, handed over one rule at a time.
struct StreamedRules {
    std::vector<std::pair<std::string, std::string>> rules;  // (package id, rule id)
    Decoded<Package> decode(std::string_view json) {
        return decodePackageRuleByRule(std::string(json), [this](const std::string& packageID, Rule&& rule) {
            rules.emplace_back(packageID, rule.id);
        });
    }
};

TEST(RulePackageTest, RuleByRuleHandsOverWhatTheWholeDecodeHoldsWithTheIdentifierFirst) {
    const std::string rule1 = R"({"id":"1","name":"a","content":{"trigger":{"url-filter":"x"},"action":{"type":"block"}}})";
    const std::string rule2 = R"({"id":"2","name":"b","content":{"trigger":{"url-filter":"y"},"action":{"type":"block"}}})";
    // "id" after "rules", given twice: the last one counts, in both decodes.
    const std::string json = R"({"name":"P","rules":[)" + rule1 + "," + rule2 +
                             R"(],"id":"first","createdAt":731376000,"id":"block-ads"})";
    StreamedRules streamed;
    auto header = streamed.decode(json);
    ASSERT_TRUE(header.has_value()) << header.error().description;
    auto whole = decodePackage(json);
    ASSERT_TRUE(whole.has_value());
    EXPECT_EQ(header->id, "block-ads");
    EXPECT_EQ(header->id, whole->id);
    EXPECT_EQ(header->createdAt, whole->createdAt);
    EXPECT_THAT(header->rules, IsEmpty());
    EXPECT_THAT(streamed.rules, ElementsAre(std::pair<std::string, std::string>{"block-ads", "1"},
                                            std::pair<std::string, std::string>{"block-ads", "2"}));
}

TEST(RulePackageTest, RuleByRuleFailsLikeTheWholeDecodeAfterHandingOverTheRulesBefore) {
    const std::string json = R"({"id":"p","name":"P","rules":[)"
                             R"({"id":"1","name":"ok","content":{"trigger":{"url-filter":"x"},"action":{"type":"block"}}},)"
                             R"({"id":"2","name":"broken"}]})";
    testing::LogCapture streamedLog;
    StreamedRules streamed;
    auto header = streamed.decode(json);
    ASSERT_FALSE(header.has_value());
    const auto streamedLines = streamedLog.lines();

    testing::LogCapture wholeLog;
    auto whole = decodePackage(json);
    ASSERT_FALSE(whole.has_value());
    EXPECT_EQ(header.error(), whole.error());
    EXPECT_EQ(streamedLines, wholeLog.lines());
    EXPECT_EQ(streamed.rules.size(), 1u);  // the caller drops it

    // Broken JSON and the wrong top-level type fail before any rule.
    StreamedRules none;
    EXPECT_EQ(none.decode("[]").error().description, "expected object, found array");
    EXPECT_FALSE(none.decode(R"({"id":"p","name":"P","rules":[{"id":)").has_value());
    EXPECT_FALSE(none.decode(R"({"id":"p","name":"P","rules":[]} trailing)").has_value());
    EXPECT_THAT(none.rules, IsEmpty());
}

TEST(RulePackageTest, PackageRequiresIdNameAndRules) {
    testing::LogCapture log;
    EXPECT_EQ(decodePackage(R"({"name":"P","rules":[]})").error().description, R"(missing key "id")");
    EXPECT_EQ(decodePackage(R"({"id":"p","rules":[]})").error().description, R"(missing key "name")");
    EXPECT_EQ(decodePackage(R"({"id":"p","name":"P"})").error().description, R"(missing key "rules")");
    EXPECT_EQ(decodePackage(R"({"id":"p","name":"P","rules":{}})").error().description,
              "rules: expected array, found object");
    EXPECT_EQ(decodePackage(R"({"id":"p","name":"P","rules":[],"createdAt":"yesterday"})").error().description,
              "createdAt: expected number, found string");
    EXPECT_EQ(log.lines().size(), 5u);
}

TEST(RulePackageTest, CreatedAtIsSecondsSinceTwoThousandOne) {
    auto package = decodePackage(R"({"id":"p","name":"P","rules":[],"createdAt":731376000.25})");
    ASSERT_TRUE(package.has_value());
    // 2024-03-06 00:00:00.25 UTC
    const auto expected = platform::Date(std::chrono::seconds(1709683200) + std::chrono::milliseconds(250));
    EXPECT_EQ(package->createdAt, expected);
    EXPECT_NE(encodePackage(*package).find(R"("createdAt":731376000.25)"), std::string::npos);

    EXPECT_EQ(dateWithTimeIntervalSinceReferenceDate(0), platform::Date(std::chrono::seconds(978307200)));
    EXPECT_EQ(dateWithTimeIntervalSinceReferenceDate(-978307200.0), platform::Date());
    const auto precise = platform::Date(std::chrono::seconds(1700000000) + std::chrono::microseconds(123456));
    // A double of seconds keeps today's dates to a fraction of a microsecond.
    EXPECT_LT(std::chrono::abs(dateWithTimeIntervalSinceReferenceDate(timeIntervalSinceReferenceDate(precise)) -
                               precise),
              std::chrono::microseconds(1));
    // Far-away dates clamp instead of overflowing.
    EXPECT_GT(dateWithTimeIntervalSinceReferenceDate(1e300), precise);
    EXPECT_LT(dateWithTimeIntervalSinceReferenceDate(-1e300), platform::Date());
}

TEST(RulePackageTest, MissingOrNullCreatedAtMeansTheMomentOfDecoding) {
    const auto before = platform::Clock::systemNow();
    auto absent = decodePackage(R"({"id":"p","name":"P","rules":[]})");
    auto null = decodePackage(R"({"id":"p","name":"P","rules":[],"createdAt":null})");
    const auto after = std::chrono::system_clock::now();
    ASSERT_TRUE(absent.has_value());
    ASSERT_TRUE(null.has_value());
    for (const Package* package : {&*absent, &*null}) {
        EXPECT_GE(package->createdAt, before);
        EXPECT_LE(package->createdAt, after);
    }
}

TEST(RulePackageTest, SettingRuleReplacesInPlaceOrAppendsWithFreshDate) {
    const auto old = platform::Date(std::chrono::seconds(1000));
    const Package package("p", "P",
                          {Rule("a", "A", blockerWithAction(ActionType::block, "a")),
                           Rule("b", "B", blockerWithAction(ActionType::block, "b")),
                           Rule("c", "C", blockerWithAction(ActionType::block, "c"))},
                          old);

    const auto callTime = platform::Clock::systemNow();
    const Rule changed("b", "B2", blockerWithAction(ActionType::hide, "b2"));
    const Package replaced = package.packageBySettingRule(changed);
    ASSERT_EQ(replaced.rules.size(), 3u);
    EXPECT_EQ(replaced.rules[1], changed);
    EXPECT_EQ(replaced.rules[0], package.rules[0]);
    EXPECT_EQ(replaced.rules[2], package.rules[2]);
    EXPECT_GE(replaced.createdAt, callTime);
    EXPECT_EQ(replaced.id, "p");
    EXPECT_EQ(replaced.name, "P");

    const Rule added("B", "new", blockerWithAction(ActionType::block, "d"));  // ids compare case-sensitively
    const Package appended = package.packageBySettingRule(added);
    ASSERT_EQ(appended.rules.size(), 4u);
    EXPECT_EQ(appended.rules.back(), added);
    EXPECT_GE(appended.createdAt, callTime);

    // The original value is untouched.
    EXPECT_EQ(package.rules[1].name, "B");
    EXPECT_EQ(package.createdAt, old);
}

TEST(RulePackageTest, SettingRuleReplacesOnlyTheFirstOfDuplicateIds) {
    const Package package("p", "P",
                          {Rule("a", "first", blockerWithAction(ActionType::block)),
                           Rule("a", "second", blockerWithAction(ActionType::block))});
    const Package result = package.packageBySettingRule(Rule("a", "new", blockerWithAction(ActionType::block)));
    EXPECT_EQ(result.rules[0].name, "new");
    EXPECT_EQ(result.rules[1].name, "second");
}

TEST(RulePackageTest, RemovingRuleAtIndexKeepsTheOthersInOrder) {
    const Package package("p", "P",
                          {Rule("a", "A", blockerWithAction(ActionType::block)),
                           Rule("b", "B", blockerWithAction(ActionType::block)),
                           Rule("c", "C", blockerWithAction(ActionType::block))},
                          platform::Date());
    const Package removed = package.packageByRemovingRuleAtIndex(1);
    ASSERT_EQ(removed.rules.size(), 2u);
    EXPECT_EQ(removed.rules[0].id, "a");
    EXPECT_EQ(removed.rules[1].id, "c");
    EXPECT_GT(removed.createdAt, platform::Date());
    EXPECT_TRUE(package.packageByRemovingRuleAtIndex(2).packageByRemovingRuleAtIndex(1)
                    .packageByRemovingRuleAtIndex(0).rules.empty());
}

TEST(RulePackageTest, PackagesDifferingOnlyInCreatedAtAreEqualAndHashAlike) {
    const std::vector<Rule> rules{whitelistRule("w", {ExtensionType::blockAds})};
    const Package a("p", "P", rules, platform::Date(std::chrono::seconds(1)));
    const Package b("p", "P", rules, platform::Date(std::chrono::seconds(2)));
    EXPECT_EQ(a, b);
    EXPECT_EQ(std::hash<Package>{}(a), std::hash<Package>{}(b));

    EXPECT_NE(a, Package("q", "P", rules));
    EXPECT_NE(a, Package("p", "Q", rules));
    EXPECT_NE(a, Package("p", "P", {}));
}

TEST(RulePackageTest, RuleEqualityComparesEveryField) {
    const Rule base = whitelistRule("w", {ExtensionType::blockAds, ExtensionType::blockSocial});
    Rule reordered = base;
    reordered.partialWhitelist = {ExtensionType::blockSocial, ExtensionType::blockAds};
    Rule renamed = base;
    renamed.name = "other";
    Rule otherId = base;
    otherId.id = "x";
    Rule otherSelector = base;
    otherSelector.blocker.action.selector = "a";
    const std::unordered_set<Rule> set{base, reordered, renamed, otherId, otherSelector, Rule(base)};
    EXPECT_EQ(set.size(), 5u);
}

TEST(RulePackageTest, PackageFilesRoundTripAsObjectOrArray) {
    testing::LogCapture log;
    const Package whitelist("whitelist", "Whitelist",
                            {whitelistRule("1", {ExtensionType::blockAds}), whitelistRule("2", {})});
    const Package custom("my-list", "Mine \xF0\x9F\x9A\xAB",
                         {Rule("x", "x", Blocker{Trigger{.urlFilter = "x", .caseSensitive = false,
                                                         .loadType = std::vector<LoadType>{}},
                                                 Action{ActionType::blockCookies, std::nullopt}})});

    const PackageFile single{{custom}, false};
    const std::string singleJson = encodePackageFile(single);
    EXPECT_EQ(singleJson.front(), '{');
    EXPECT_EQ(decodePackageFile(singleJson), single);

    const PackageFile list{{whitelist, custom}, true};
    const std::string listJson = encodePackageFile(list);
    EXPECT_EQ(listJson.front(), '[');
    auto decoded = decodePackageFile(listJson);
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(*decoded, list);
    // A double of seconds keeps today's dates to well under a microsecond.
    EXPECT_LT(std::chrono::abs(decoded->packages[0].createdAt - whitelist.createdAt), std::chrono::microseconds(1));
    EXPECT_EQ(decodePackages(listJson), list.packages);

    const PackageFile emptyList{{}, true};
    EXPECT_EQ(encodePackageFile(emptyList), "[]");
    EXPECT_EQ(decodePackageFile("[]"), emptyList);
    EXPECT_FALSE(decodePackages(singleJson).has_value());
    EXPECT_FALSE(decodePackage(listJson).has_value());
}

}  // namespace
}  // namespace tamsel::model

namespace tamsel::model {
namespace {

// Streamed rules are decoded one over the other: nothing of a rule may stay
// behind in the next, whichever optional parts each has, and whether or not
// the receiver takes the rule away.
TEST(RuleStreamTest, EachStreamedRuleIsExactlyTheOneInTheFile) {
    std::vector<Rule> rules;
    for (int i = 0; i < 64; ++i) {
        Trigger trigger{.urlFilter = "^https?://r" + std::string(static_cast<std::size_t>(i % 7) * 5, 'x') + "\\.example/",
                        .caseSensitive = i % 2 == 0};
        if (i % 3 == 0) trigger.resourceTypes = std::vector{ResourceType::script, ResourceType::image};
        if (i % 5 == 1) trigger.resourceTypes = std::vector<ResourceType>{};
        if (i % 4 == 0) trigger.loadType = std::vector{LoadType::thirdParty};
        if (i % 6 == 2) trigger.domainFilter = DomainFilter{DomainFilterType::ifDomain, {"a.example", "*b.example"}};
        if (i % 6 == 3) trigger.domainFilter = DomainFilter{DomainFilterType::unlessDomain, {"c.example"}};
        Action action{ActionType::block, std::nullopt};
        if (i % 4 == 1) action = Action{ActionType::hide, ".ad-" + std::to_string(i)};
        if (i % 8 == 7) action = Action{ActionType::ignorePreviousRules, std::nullopt};
        Rule rule("rule-" + std::to_string(i), i % 9 == 0 ? "" : "Rule " + std::to_string(i), Blocker{trigger, action});
        if (i % 8 == 7 && i % 16 != 15) rule.partialWhitelist = {ExtensionType::blockAds, ExtensionType::blockSocial};
        rules.push_back(std::move(rule));
    }
    const std::string json = encodePackage(Package("block-ads", "Ads", rules));

    for (const bool takeAway : {false, true}) {
        std::vector<Rule> streamed;
        auto package = decodePackageRuleByRule(json, [&](const std::string& packageID, Rule&& rule) {
            EXPECT_EQ(packageID, "block-ads");
            if (takeAway) {
                streamed.push_back(std::move(rule));
            } else {
                streamed.push_back(rule);
            }
        });
        ASSERT_TRUE(package.has_value()) << package.error().description;
        EXPECT_TRUE(package->rules.empty());
        ASSERT_EQ(streamed.size(), rules.size());
        for (std::size_t i = 0; i < rules.size(); ++i) EXPECT_EQ(streamed[i], rules[i]) << "rule " << i;
    }
    // And the whole package decodes to the same rules.
    auto whole = decodePackage(json);
    ASSERT_TRUE(whole.has_value());
    EXPECT_EQ(whole->rules, rules);

    // Without names: everything else as it was.
    std::vector<Rule> nameless;
    auto package = decodePackageRuleByRule(
        json, [&](const std::string&, Rule&& rule) { nameless.push_back(std::move(rule)); }, RuleNames::skipped);
    ASSERT_TRUE(package.has_value()) << package.error().description;
    ASSERT_EQ(nameless.size(), rules.size());
    for (std::size_t i = 0; i < rules.size(); ++i) {
        Rule expected = rules[i];
        expected.name.clear();
        EXPECT_EQ(nameless[i], expected) << "rule " << i;
    }
}

TEST(RulePackageTest, RuleByRuleWithoutNamesStillRefusesAMissingOrMistypedName) {
    const auto rule = [](std::string_view name) {
        return R"({"id":"p","name":"P","rules":[{"id":"1",)" + std::string(name) +
               R"("content":{"trigger":{"url-filter":"x"},"action":{"type":"block"}}}]})";
    };
    for (const std::string& json : {rule(R"("name":5,)"), rule(""), rule(R"("name":null,)")}) {
        auto whole = decodePackage(json);
        ASSERT_FALSE(whole.has_value()) << json;
        auto nameless = decodePackageRuleByRule(json, [](const std::string&, Rule&&) {}, RuleNames::skipped);
        ASSERT_FALSE(nameless.has_value()) << json;
        EXPECT_EQ(nameless.error(), whole.error()) << json;
    }
}

}  // namespace
}  // namespace tamsel::model
