// The three site rule builders and the identifiers they make.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <thread>

#include "model/JSONCoding.h"
#include "model/SiteRules.h"

namespace tamsel::model {
namespace {

using ::testing::ElementsAre;

const std::regex upperCaseUUID("^[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}$");

TEST(SiteRulesTest, WhitelistRuleHasTheCatchAllShape) {
    const auto rule = makeWhitelistRule({"example.com", "*example.org"});
    ASSERT_TRUE(rule.has_value());
    EXPECT_TRUE(std::regex_match(rule->id, upperCaseUUID)) << rule->id;
    EXPECT_EQ(rule->name, "");
    EXPECT_EQ(rule->blocker.trigger.urlFilter, ".*");
    EXPECT_TRUE(rule->blocker.trigger.caseSensitive);
    EXPECT_EQ(rule->blocker.trigger.resourceTypes, std::nullopt);
    EXPECT_EQ(rule->blocker.trigger.loadType, std::nullopt);
    EXPECT_EQ(rule->blocker.trigger.domainFilter,
              (DomainFilter{DomainFilterType::ifDomain, {"example.com", "*example.org"}}));
    EXPECT_EQ(rule->blocker.action, (Action{ActionType::ignorePreviousRules, std::nullopt}));
    EXPECT_TRUE(rule->partialWhitelist.empty());
    // What Safari will read.
    EXPECT_EQ(encodeBlocker(rule->blocker),
              R"({"trigger":{"url-filter":".*","url-filter-is-case-sensitive":true,)"
              R"("if-domain":["example.com","*example.org"]},"action":{"type":"ignore-previous-rules"}})");
}

TEST(SiteRulesTest, WhitelistRuleKeepsIdentityNameAndPartialList) {
    const auto rule = makeWhitelistRule({"example.com"}, "ID-1", "Example",
                                        {ExtensionType::blockAds, ExtensionType::blockSocial});
    ASSERT_TRUE(rule.has_value());
    EXPECT_EQ(rule->id, "ID-1");
    EXPECT_EQ(rule->name, "Example");
    EXPECT_THAT(rule->partialWhitelist, ElementsAre(ExtensionType::blockAds, ExtensionType::blockSocial));
    EXPECT_EQ(makeWhitelistRule({"example.com"}, "ID-1", "")->name, "");
}

TEST(SiteRulesTest, BuildersRefuseInvalidDomainLists) {
    EXPECT_EQ(makeWhitelistRule({}), std::nullopt);
    EXPECT_EQ(makeWhitelistRule({"example.com", "no-dot"}), std::nullopt);
    EXPECT_EQ(makeHttpsRule({}), std::nullopt);
    EXPECT_EQ(makeHttpsRule({"*.example.com"}), std::nullopt);
    EXPECT_EQ(makeHideElementRule(".ad", DomainFilterType::ifDomain, std::vector<std::string>{}), std::nullopt);
    EXPECT_EQ(makeHideElementRule(".ad", DomainFilterType::ifDomain, std::vector<std::string>{"a/b.com"}),
              std::nullopt);
}

TEST(SiteRulesTest, MakeHttpsRuleUpgradesOnTheDomains) {
    const auto rule = makeHttpsRule({"neverssl.com"}, std::nullopt, "neverssl.com");
    ASSERT_TRUE(rule.has_value());
    EXPECT_EQ(rule->name, "neverssl.com");
    EXPECT_EQ(rule->blocker.action, (Action{ActionType::makeHttps, std::nullopt}));
    EXPECT_EQ(rule->blocker.trigger.urlFilter, ".*");
    EXPECT_EQ(rule->blocker.trigger.domainFilter, (DomainFilter{DomainFilterType::ifDomain, {"neverssl.com"}}));
}

TEST(SiteRulesTest, HideElementRuleNeedsASelectorAndTakesTheFilterType) {
    EXPECT_EQ(makeHideElementRule("", DomainFilterType::ifDomain, std::vector<std::string>{"example.com"}),
              std::nullopt);

    const auto everywhere = makeHideElementRule("#banner", DomainFilterType::ifDomain);
    ASSERT_TRUE(everywhere.has_value());
    EXPECT_EQ(everywhere->blocker.trigger.domainFilter, std::nullopt);
    EXPECT_EQ(everywhere->blocker.action, (Action{ActionType::hide, std::string("#banner")}));

    const auto except = makeHideElementRule(".ad", DomainFilterType::unlessDomain,
                                            std::vector<std::string>{"*example.com"}, "H1", "Ads");
    ASSERT_TRUE(except.has_value());
    EXPECT_EQ(except->id, "H1");
    EXPECT_EQ(except->blocker.trigger.domainFilter,
              (DomainFilter{DomainFilterType::unlessDomain, {"*example.com"}}));
}

TEST(SiteRulesTest, IdentifiersAreFreshAcrossThreads) {
    std::vector<std::set<std::string>> perThread(4);
    std::vector<std::thread> threads;
    for (auto& ids : perThread) {
        threads.emplace_back([&ids] {
            for (int i = 0; i < 500; ++i) ids.insert(newRuleIdentifier());
        });
    }
    for (auto& thread : threads) thread.join();
    std::set<std::string> all;
    for (const auto& ids : perThread) {
        for (const auto& id : ids) {
            EXPECT_TRUE(std::regex_match(id, upperCaseUUID)) << id;
            all.insert(id);
        }
    }
    EXPECT_EQ(all.size(), 2000u);
}

}  // namespace
}  // namespace tamsel::model
