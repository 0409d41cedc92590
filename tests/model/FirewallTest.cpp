// Firewall lists: required keys, order-sensitive equality, round trips.
#include <gtest/gtest.h>

#include <unordered_set>

#include "model/JSONCoding.h"
#include "support/TestSupport.h"

namespace tamsel::model {
namespace {

const FirewallPackage trackers{"firewall-trackers", {{"1", "tracker.example"}, {"2", "ads.example.net"}}};

TEST(FirewallTest, RoundTripsAndWritesBothKeys) {
    EXPECT_EQ(encodeFirewallRule(trackers.rules[0]), R"({"id":"1","host":"tracker.example"})");
    EXPECT_EQ(decodeFirewallPackage(encodeFirewallPackage(trackers)), trackers);
    const std::vector<FirewallPackage> lists{trackers, FirewallPackage{"empty", {}}};
    EXPECT_EQ(decodeFirewallPackages(encodeFirewallPackages(lists)), lists);
}

TEST(FirewallTest, RuleWithoutHostFailsAndSoDoesItsPackage) {
    auto rule = decodeFirewallRule(R"({"id":"1"})");
    ASSERT_FALSE(rule.has_value());
    EXPECT_EQ(rule.error().description, R"(missing key "host")");

    testing::LogCapture log;
    auto package = decodeFirewallPackage(R"({"id":"f","rules":[{"id":"1","host":"a"},{"id":"2"}]})");
    ASSERT_FALSE(package.has_value());
    EXPECT_EQ(package.error().description, R"(rules[1]: missing key "host")");
    EXPECT_TRUE(log.lines().empty());

    EXPECT_EQ(decodeFirewallPackage(R"({"id":"f"})").error().description, R"(missing key "rules")");
    EXPECT_EQ(decodeFirewallPackage(R"({"rules":[]})").error().description, R"(missing key "id")");
    EXPECT_EQ(decodeFirewallRule(R"({"id":1,"host":"a"})").error().description, "id: expected string, found number");
}

TEST(FirewallTest, UnknownKeysAreIgnored) {
    auto package = decodeFirewallPackage(R"({"version":3,"id":"f","rules":[{"host":"a","id":"1","ttl":5}]})");
    ASSERT_TRUE(package.has_value());
    EXPECT_EQ(*package, (FirewallPackage{"f", {{"1", "a"}}}));
}

TEST(FirewallTest, EqualityAndHashFollowRuleOrder) {
    FirewallPackage reversed = trackers;
    std::swap(reversed.rules[0], reversed.rules[1]);
    EXPECT_NE(trackers, reversed);
    EXPECT_NE(std::hash<FirewallPackage>{}(trackers), std::hash<FirewallPackage>{}(reversed));
    EXPECT_EQ(std::hash<FirewallPackage>{}(trackers), std::hash<FirewallPackage>{}(FirewallPackage(trackers)));
    const std::unordered_set<FirewallRule> rules{{"1", "a"}, {"1", "b"}, {"2", "a"}, {"1", "a"}};
    EXPECT_EQ(rules.size(), 3u);
}

}  // namespace
}  // namespace tamsel::model
