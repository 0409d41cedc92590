// Domains on their way into rules: the editor's validity check, the host
// conversion that runs before it, and how domain-list entries match hosts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "model/DomainEntry.h"
#include "model/EditorValidator.h"
#include "model/SiteDomain.h"

namespace tamsel::model {
namespace {

using ::testing::Optional;

bool valid(std::vector<std::string> domains) { return EditorValidator::isValid(domains); }

TEST(EditorValidatorTest, ForbidsExactlyTheTwentyNineCharacters) {
    const std::set<std::string_view> distinct(EditorValidator::forbiddenCharacters.begin(),
                                              EditorValidator::forbiddenCharacters.end());
    EXPECT_EQ(distinct.size(), 29u);
    for (std::string_view character : EditorValidator::forbiddenCharacters) {
        EXPECT_FALSE(valid({"exa" + std::string(character) + "mple.com"})) << character;
        EXPECT_FALSE(valid({"example.com" + std::string(character) + "x"})) << character;
    }
    EXPECT_EQ(distinct.count("\u2026"), 1u) << "the ellipsis is one character, not three dots";
    EXPECT_TRUE(valid({"exa...mple.com"})) << "three dots are not the ellipsis";
    // Neither the wildcard, the hyphen, an underscore nor white space is in the set.
    EXPECT_TRUE(valid({"*my-site.example.com"}));
    EXPECT_TRUE(valid({"my_site.example.com"}));
    EXPECT_TRUE(valid({"my site.example.com"}));
    EXPECT_TRUE(valid({"tab\tsite.example.com"}));
}

TEST(EditorValidatorTest, LocalhostIsTheOnlyNameWithoutADot) {
    EXPECT_TRUE(valid({"localhost"}));
    EXPECT_TRUE(valid({"*localhost"}));
    EXPECT_FALSE(valid({"localhost2"}));
    EXPECT_FALSE(valid({"intranet"}));
    EXPECT_FALSE(valid({"*"}));
    EXPECT_FALSE(valid({""}));
    EXPECT_FALSE(valid({})) << "an empty list is invalid";
}

TEST(EditorValidatorTest, DotsAndHyphensMayNotBound) {
    EXPECT_TRUE(valid({"a.b"}));
    EXPECT_FALSE(valid({".example.com"}));
    EXPECT_FALSE(valid({"example.com."}));
    EXPECT_FALSE(valid({"-example.com"}));
    EXPECT_FALSE(valid({"example.com-"}));
    EXPECT_TRUE(valid({"ex-ample.com"}));
}

TEST(EditorValidatorTest, OnlyALeadingWildcardDirectlyBeforeANameIsAccepted) {
    EXPECT_TRUE(valid({"*example.com"}));
    EXPECT_FALSE(valid({"*.example.com"})) << "asterisk followed by a dot";
    EXPECT_FALSE(valid({"example.*"})) << "dot followed by an asterisk";
    EXPECT_FALSE(valid({"exa*mple.com"}));
    EXPECT_FALSE(valid({"example.com*"}));
    EXPECT_FALSE(valid({"**example.com"}));
    EXPECT_FALSE(valid({"*example*.com"}));
}

TEST(EditorValidatorTest, URLPartsAndTheEllipsisAreRefused) {
    EXPECT_FALSE(valid({"example.com/path"}));
    EXPECT_FALSE(valid({"example.com?q"}));
    EXPECT_FALSE(valid({"exam\u2026.com"}));
    EXPECT_FALSE(valid({"https://example.com"}));
}

TEST(EditorValidatorTest, OneInvalidDomainSpoilsTheList) {
    EXPECT_TRUE(valid({"a.com", "*b.org", "localhost"}));
    EXPECT_FALSE(valid({"a.com", "b", "c.org"}));
    EXPECT_FALSE(valid({"a.com", "c.org", ""}));
}

TEST(DomainEntryTest, WildcardEntriesMatchBySuffixOthersExactly) {
    EXPECT_TRUE(domainEntryMatches("*example.com", "example.com"));
    EXPECT_TRUE(domainEntryMatches("*example.com", "www.example.com"));
    EXPECT_TRUE(domainEntryMatches("*example.com", "badexample.com")) << "a plain suffix test, no dot needed";
    EXPECT_FALSE(domainEntryMatches("*example.com", "example.org"));
    EXPECT_FALSE(domainEntryMatches("*example.com", "example.com.evil.net"));
    EXPECT_TRUE(domainEntryMatches("*ex*ample.com", "www.example.com")) << "every asterisk is dropped";

    EXPECT_TRUE(domainEntryMatches("example.com", "example.com"));
    EXPECT_FALSE(domainEntryMatches("example.com", "www.example.com"));
    EXPECT_FALSE(domainEntryMatches("example.com", "Example.com")) << "case-sensitive";
    EXPECT_FALSE(domainEntryMatches("www.example.com", "example.com"));
}

TEST(DomainEntryTest, NamingIgnoresOnlyALeadingWildcard) {
    EXPECT_TRUE(domainEntryNames("*example.com", "example.com"));
    EXPECT_TRUE(domainEntryNames("example.com", "*example.com"));
    EXPECT_TRUE(domainEntryNames("example.com", "example.com"));
    EXPECT_FALSE(domainEntryNames("*example.com", "www.example.com")) << "covering is not naming";
    EXPECT_FALSE(domainEntryNames("example.com", "example.org"));
}

TEST(SiteDomainTest, HostsBecomeLowerCasePunycode) {
    EXPECT_THAT(domainForHost("Example.COM"), Optional(std::string("example.com")));
    EXPECT_THAT(domainForHost("www.example.com"), Optional(std::string("www.example.com")));
    EXPECT_THAT(domainForHost("Bücher.de"), Optional(std::string("xn--bcher-kva.de")));
    EXPECT_THAT(domainForHost("BÜCHER.DE"), Optional(std::string("xn--bcher-kva.de")));
    EXPECT_THAT(domainForHost("faß.de"), Optional(std::string("xn--fa-hia.de"))) << "non-transitional: ß stays";
    EXPECT_THAT(domainForHost("例え.テスト"), Optional(std::string("xn--r8jz45g.xn--zckzah")));
    EXPECT_THAT(domainForHost("*bücher.de"), Optional(std::string("*xn--bcher-kva.de")));
    EXPECT_THAT(domainForHost("localhost"), Optional(std::string("localhost")));
    EXPECT_THAT(domainForHost("xn--bcher-kva.de"), Optional(std::string("xn--bcher-kva.de")))
        << "a converted domain converts to itself";
}

TEST(SiteDomainTest, HostsThatDoNotConvertAreInvalid) {
    EXPECT_EQ(domainForHost("\u2603.net"), std::nullopt) << "a symbol that IDNA 2008 disallows";
    EXPECT_EQ(domainForHost("b\xff\xfe.de"), std::nullopt) << "broken UTF-8";
    EXPECT_EQ(domainForHost("bücher-.de"), std::nullopt) << "a label that ends with a hyphen";
}

TEST(SiteDomainTest, IPAddressesAreInvalid) {
    EXPECT_EQ(domainForHost("192.168.0.1"), std::nullopt);
    EXPECT_EQ(domainForHost("127.1"), std::nullopt);
    EXPECT_EQ(domainForHost("0x7f.0.0.1"), std::nullopt);
    EXPECT_EQ(domainForHost("10.0.0.0x1"), std::nullopt);
    EXPECT_EQ(domainForHost("[::1]"), std::nullopt);
    EXPECT_EQ(domainForHost("fe80::1"), std::nullopt);
    EXPECT_THAT(domainForHost("1.2.3.example"), Optional(std::string("1.2.3.example")));
    EXPECT_THAT(domainForHost("123.example.com"), Optional(std::string("123.example.com")));
}

TEST(SiteDomainTest, TheValidatorStillDecides) {
    EXPECT_EQ(domainForHost(""), std::nullopt);
    EXPECT_EQ(domainForHost("intranet"), std::nullopt);
    EXPECT_EQ(domainForHost("example.com."), std::nullopt);
    EXPECT_EQ(domainForHost("*.example.com"), std::nullopt);
    EXPECT_EQ(domainForHost("example.com/path"), std::nullopt);
    EXPECT_EQ(domainForHost("exa\u2026.com"), std::nullopt);
}

// The editor's check lets white space and empty labels through; the host
// conversion does not.
TEST(SiteDomainTest, OnlyDNSNamesBecomeDomains) {
    const std::string label63(63, 'a');
    const std::string longest = label63 + "." + label63 + "." + label63 + "." + std::string(57, 'b') + ".com";
    ASSERT_EQ(longest.size(), 253u);
    EXPECT_THAT(domainForHost(label63 + ".com"), Optional(label63 + ".com"));
    EXPECT_THAT(domainForHost(longest), Optional(longest));
    EXPECT_THAT(domainForHost("*" + longest), Optional("*" + longest)) << "the wildcard is not counted";
    EXPECT_THAT(domainForHost("my_host.example.com"), Optional(std::string("my_host.example.com")));
    EXPECT_THAT(domainForHost("*Example.com"), Optional(std::string("*example.com")));

    const std::vector<std::pair<std::string, std::string>> refused{
        {"a\nb.com", "a newline"},
        {"example.com\n", "a trailing newline"},
        {"exa\tmple.com", "a tab"},
        {"exa mple.com", "a space"},
        {" example.com", "a leading space"},
        {"exa\rmple.com", "a carriage return"},
        {std::string("exa\0mple.com", 12), "a NUL"},
        {"exa\x01mple.com", "a control character"},
        {"exa\x7fmple.com", "DEL"},
        {"b\u00fccher .de", "a space beside a converted label"},
        {"a..b.com", "an empty label"},
        {"*a..b.com", "an empty label after the wildcard"},
        {"**example.com", "two wildcards"},
        {std::string(64, 'a') + ".com", "a label of 64 characters"},
        {"*" + std::string(64, 'a') + ".com", "a label of 64 characters after the wildcard"},
        {longest + "c", "254 characters"},
        {"b\u00fccher." + std::string(64, 'a') + ".de", "a long label beside a converted one"},
    };
    for (const auto& [host, what] : refused) {
        EXPECT_EQ(domainForHost(host), std::nullopt) << what;
    }
    // The check those hosts would have passed, which stays as it is.
    EXPECT_TRUE(EditorValidator::isValidDomain("exa mple.com"));
    EXPECT_TRUE(EditorValidator::isValidDomain("a..b.com"));
}

}  // namespace
}  // namespace tamsel::model
