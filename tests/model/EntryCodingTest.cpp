// Content-blocker entries: their JSON form in both directions, the decoding
// defaults that differ from the C++ defaults, and equality/hashing over the
// three-state optional lists.
#include <gtest/gtest.h>

#include <unordered_set>

#include "model/JSONCoding.h"
#include "model/JSONWriting.h"

namespace tamsel::model {
namespace {

Trigger decodedTrigger(std::string_view json) {
    auto trigger = decodeTrigger(json);
    EXPECT_TRUE(trigger.has_value()) << (trigger ? "" : trigger.error().description);
    return trigger.value_or(Trigger{});
}

TEST(EntryCodingTest, EncodesTriggerKeysWithCaseSensitivityAlwaysPresent) {
    Trigger trigger{.urlFilter = "ads\\.js", .caseSensitive = false};
    EXPECT_EQ(encodeTrigger(trigger), R"({"url-filter":"ads\\.js","url-filter-is-case-sensitive":false})");

    trigger.resourceTypes = std::vector{ResourceType::image, ResourceType::svg};
    trigger.loadType = std::vector{LoadType::thirdParty};
    trigger.domainFilter = DomainFilter{DomainFilterType::unlessDomain, {"*example.com", "b.org"}};
    EXPECT_EQ(encodeTrigger(trigger),
              R"({"url-filter":"ads\\.js","url-filter-is-case-sensitive":false,)"
              R"("resource-type":["image","svg-document"],"load-type":["third-party"],)"
              R"("unless-domain":["*example.com","b.org"]})");
}

TEST(EntryCodingTest, EmptyDomainFilterIsNotWrittenAndReadsBackAsNone) {
    const Trigger trigger{.urlFilter = ".*", .caseSensitive = true,
                          .domainFilter = DomainFilter{DomainFilterType::ifDomain, {}}};
    const std::string json = encodeTrigger(trigger);
    EXPECT_EQ(json.find("if-domain"), std::string::npos);
    EXPECT_EQ(json.find("unless-domain"), std::string::npos);

    const Trigger back = decodedTrigger(json);
    EXPECT_FALSE(back.domainFilter.has_value());
    EXPECT_NE(back, trigger);
}

TEST(EntryCodingTest, IfDomainWinsOverUnlessDomain) {
    const Trigger both = decodedTrigger(
        R"({"url-filter":".*","if-domain":["a.com","b.com"],"unless-domain":["c.com"]})");
    EXPECT_EQ(both.domainFilter, (DomainFilter{DomainFilterType::ifDomain, {"a.com", "b.com"}}));

    const Trigger emptyIf = decodedTrigger(R"({"url-filter":".*","if-domain":[],"unless-domain":["c.com"]})");
    EXPECT_EQ(emptyIf.domainFilter, (DomainFilter{DomainFilterType::unlessDomain, {"c.com"}}));

    const Trigger bothEmpty = decodedTrigger(R"({"url-filter":".*","if-domain":[],"unless-domain":[]})");
    EXPECT_FALSE(bothEmpty.domainFilter.has_value());
}

TEST(EntryCodingTest, MissingOrNullCaseSensitivityDecodesAsTrueAndIsWrittenBack) {
    const Trigger absent = decodedTrigger(R"({"url-filter":"x"})");
    EXPECT_TRUE(absent.caseSensitive);
    EXPECT_EQ(encodeTrigger(absent), R"({"url-filter":"x","url-filter-is-case-sensitive":true})");

    EXPECT_TRUE(decodedTrigger(R"({"url-filter":"x","url-filter-is-case-sensitive":null})").caseSensitive);
    EXPECT_FALSE(decodedTrigger(R"({"url-filter":"x","url-filter-is-case-sensitive":false})").caseSensitive);
}

TEST(EntryCodingTest, EmptyResourceTypeListIsPresentAndDiffersFromAbsent) {
    const Trigger empty = decodedTrigger(R"({"url-filter":"x","resource-type":[]})");
    ASSERT_TRUE(empty.resourceTypes.has_value());
    EXPECT_TRUE(empty.resourceTypes->empty());
    EXPECT_NE(encodeTrigger(empty).find(R"("resource-type":[])"), std::string::npos);

    const Trigger absent = decodedTrigger(R"({"url-filter":"x"})");
    EXPECT_FALSE(absent.resourceTypes.has_value());
    EXPECT_NE(empty, absent);
    EXPECT_NE(std::hash<Trigger>{}(empty), std::hash<Trigger>{}(absent));

    const Trigger nullList = decodedTrigger(R"({"url-filter":"x","resource-type":null,"load-type":null})");
    EXPECT_EQ(nullList, absent);

    const Trigger emptyLoad = decodedTrigger(R"({"url-filter":"x","load-type":[]})");
    EXPECT_NE(emptyLoad, absent);
    EXPECT_NE(std::hash<Trigger>{}(emptyLoad), std::hash<Trigger>{}(absent));
}

TEST(EntryCodingTest, ResourceTypesKeepTheirOrderAndUnknownOnesFail) {
    const std::string json = R"({"url-filter":"x","url-filter-is-case-sensitive":true,)"
                             R"("resource-type":["svg-document","image"]})";
    const Trigger trigger = decodedTrigger(json);
    EXPECT_EQ(trigger.resourceTypes, (std::vector{ResourceType::svg, ResourceType::image}));
    EXPECT_EQ(encodeTrigger(trigger), json);

    auto unknown = decodeTrigger(R"({"url-filter":"x","resource-type":["image","stylesheet"]})");
    ASSERT_FALSE(unknown.has_value());
    EXPECT_EQ(unknown.error().description, R"(resource-type[1]: unknown resource type "stylesheet")");

    auto unknownLoad = decodeTrigger(R"({"url-filter":"x","load-type":["firstparty"]})");
    ASSERT_FALSE(unknownLoad.has_value());
    EXPECT_EQ(unknownLoad.error().description, R"(load-type[0]: unknown load type "firstparty")");
}

TEST(EntryCodingTest, EveryRawStringRoundTripsThroughATrigger) {
    Trigger trigger{.urlFilter = "x", .caseSensitive = true};
    trigger.resourceTypes.emplace(allCases<ResourceType>().begin(), allCases<ResourceType>().end());
    trigger.loadType.emplace(allCases<LoadType>().begin(), allCases<LoadType>().end());
    EXPECT_EQ(decodedTrigger(encodeTrigger(trigger)), trigger);
}

TEST(EntryCodingTest, UnknownTriggerKeysAreIgnoredAndDropped) {
    const Trigger trigger = decodedTrigger(
        R"({"if-top-url":["a"],"url-filter":"x","nested":{"deep":[1,{"a":null}]},"url-filter-is-case-sensitive":false})");
    EXPECT_EQ(trigger, (Trigger{.urlFilter = "x", .caseSensitive = false}));
    EXPECT_EQ(encodeTrigger(trigger).find("if-top-url"), std::string::npos);
}

TEST(EntryCodingTest, ActionSelectorIsKeptWhenPresentAndOmittedWhenAbsent) {
    auto hide = decodeAction(R"({"type":"css-display-none","selector":".ad, #banner"})");
    ASSERT_TRUE(hide.has_value());
    EXPECT_EQ(*hide, (Action{ActionType::hide, ".ad, #banner"}));
    EXPECT_EQ(encodeAction(*hide), R"({"type":"css-display-none","selector":".ad, #banner"})");

    auto block = decodeAction(R"({"type":"block"})");
    ASSERT_TRUE(block.has_value());
    EXPECT_FALSE(block->selector.has_value());
    EXPECT_EQ(encodeAction(*block), R"({"type":"block"})");

    // Any action may carry a selector, and it travels with it.
    const Action odd{ActionType::makeHttps, ""};
    EXPECT_EQ(decodeAction(encodeAction(odd)), odd);
    EXPECT_NE(odd, (Action{ActionType::makeHttps, std::nullopt}));

    auto unknown = decodeAction(R"({"type":"css-display"})");
    ASSERT_FALSE(unknown.has_value());
    EXPECT_EQ(unknown.error().description, R"(type: unknown action type "css-display")");
}

TEST(EntryCodingTest, BlockerRequiresTriggerAndAction) {
    auto noAction = decodeBlocker(R"({"trigger":{"url-filter":"x"}})");
    ASSERT_FALSE(noAction.has_value());
    EXPECT_EQ(noAction.error().description, R"(missing key "action")");

    auto noUrlFilter = decodeBlocker(R"({"trigger":{"resource-type":["image"]},"action":{"type":"block"}})");
    ASSERT_FALSE(noUrlFilter.has_value());
    EXPECT_EQ(noUrlFilter.error().description, R"(trigger: missing key "url-filter")");

    auto noType = decodeBlocker(R"({"trigger":{"url-filter":"x"},"action":{"selector":"a"}})");
    ASSERT_FALSE(noType.has_value());
    EXPECT_EQ(noType.error().description, R"(action: missing key "type")");
}

TEST(EntryCodingTest, BlockerArrayRoundTripsInOrder) {
    const std::vector<Blocker> blockers{
        {Trigger{.urlFilter = "a", .caseSensitive = true}, Action{ActionType::block, std::nullopt}},
        {Trigger{.urlFilter = ".*", .caseSensitive = false,
                 .domainFilter = DomainFilter{DomainFilterType::ifDomain, {"x.com"}}},
         Action{ActionType::ignorePreviousRules, std::nullopt}},
        {Trigger{.urlFilter = "b", .caseSensitive = true, .resourceTypes = std::vector<ResourceType>{}},
         Action{ActionType::hide, "#s0a0l0a0v0a0t"}},
    };
    const std::string json = encodeBlockers(blockers);
    EXPECT_EQ(json.front(), '[');
    EXPECT_EQ(decodeBlockerArray(json), blockers);
    EXPECT_EQ(encodeBlockers({}), "[]");
}

TEST(EntryCodingTest, WriterLevelFunctionsStreamIntoOneBuffer) {
    const Blocker blocker{Trigger{.urlFilter = "a", .caseSensitive = true}, Action{ActionType::block, std::nullopt}};
    rapidjson::StringBuffer buffer;
    JSONWriter writer(buffer);
    writer.StartArray();
    writeBlocker(writer, blocker);
    writeBlocker(writer, blocker);
    writer.EndArray();
    EXPECT_EQ(std::string(buffer.GetString()), encodeBlockers({blocker, blocker}));
}

TEST(EntryCodingTest, StandaloneDomainFilterFormRequiresBothKeys) {
    const DomainFilter filter{DomainFilterType::unlessDomain, {"a.com", "b.com"}};
    EXPECT_EQ(encodeDomainFilter(filter), R"({"type":"unless-domain","values":["a.com","b.com"]})");
    EXPECT_EQ(decodeDomainFilter(encodeDomainFilter(filter)), filter);
    EXPECT_FALSE(decodeDomainFilter(R"({"type":"if-domain"})").has_value());
    EXPECT_FALSE(decodeDomainFilter(R"({"values":[]})").has_value());
    EXPECT_FALSE(decodeDomainFilter(R"({"type":"domain","values":[]})").has_value());
}

TEST(EntryCodingTest, EqualityIsExactAndOrderSensitive) {
    const Trigger base{.urlFilter = "Ads", .caseSensitive = true,
                       .resourceTypes = std::vector{ResourceType::image, ResourceType::script}};
    Trigger reordered = base;
    reordered.resourceTypes = std::vector{ResourceType::script, ResourceType::image};
    EXPECT_NE(base, reordered);

    Trigger lowerCase = base;
    lowerCase.urlFilter = "ads";
    EXPECT_NE(base, lowerCase);

    Trigger insensitive = base;
    insensitive.caseSensitive = false;
    EXPECT_NE(base, insensitive);

    Trigger ifFilter = base;
    ifFilter.domainFilter = DomainFilter{DomainFilterType::ifDomain, {"a.com"}};
    Trigger unlessFilter = base;
    unlessFilter.domainFilter = DomainFilter{DomainFilterType::unlessDomain, {"a.com"}};
    EXPECT_NE(ifFilter, unlessFilter);

    const std::unordered_set<Trigger> set{base, reordered, lowerCase, insensitive, ifFilter, unlessFilter, base};
    EXPECT_EQ(set.size(), 6u);

    const Blocker a{base, Action{ActionType::hide, "x"}};
    const Blocker b{base, Action{ActionType::hide, std::nullopt}};
    EXPECT_NE(a, b);
    EXPECT_EQ(std::hash<Blocker>{}(a), std::hash<Blocker>{}(Blocker(a)));
}

TEST(EntryCodingTest, KeysWithEscapesAndStringsWithSpecialCharactersDecode) {
    // "url\u002dfilter" is "url-filter" once unescaped.
    const Trigger trigger = decodedTrigger(R"({"url\u002dfilter":"a\"b\\c\u00e9\n"})");
    EXPECT_EQ(trigger.urlFilter, "a\"b\\c\xC3\xA9\n");
    EXPECT_EQ(decodedTrigger(encodeTrigger(trigger)), trigger);
}

TEST(EntryCodingTest, StringsThatAreNotUTF8AreRepairedOnWriting) {
    Trigger trigger{.urlFilter = std::string("a\xFF" "b\xC3", 4), .caseSensitive = true};
    trigger.domainFilter = DomainFilter{DomainFilterType::ifDomain, {std::string("\xED\xA0\x80", 3)}};
    const std::string json = encodeTrigger(trigger);
    const Trigger back = decodedTrigger(json);
    EXPECT_EQ(back.urlFilter, "a\xEF\xBF\xBD" "b\xEF\xBF\xBD");
    ASSERT_TRUE(back.domainFilter.has_value());
    EXPECT_EQ(back.domainFilter->values.front(), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");

    // Embedded NUL characters survive.
    const Trigger nul{.urlFilter = std::string("a\0b", 3), .caseSensitive = true};
    EXPECT_EQ(decodedTrigger(encodeTrigger(nul)), nul);
}

}  // namespace
}  // namespace tamsel::model

namespace tamsel::model {
namespace {

// An entry goes into Safari JSON files through a writer of its own; it must
// give exactly the bytes that writing its trigger and action field by field
// with the JSON writer gives, whatever the strings hold.
TEST(EntryCodingTest, WholeEntryWriterMatchesFieldByFieldWriting) {
    const std::vector<std::string> strings{
        "",
        "^https?://ads\\.example\\.com/",
        // Specials at every offset of an eight-byte word, and runs of them.
        "12345678\\\\\\\"\"a\\b.c\\d.\"\x01" "234567\\",
        "quote \" and reverse solidus \\ and solidus /",
        std::string("nul \0 and \x01\x07\x0B\x0E\x1F\x7F", 17),
        "\b\t\n\f\r",
        "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80",
        "broken \xC3 sequence \xED\xA0\x80 surrogate \xF5",
    };
    std::vector<Blocker> blockers;
    for (const std::string& text : strings) {
        Trigger trigger{.urlFilter = text, .caseSensitive = text.size() % 2 == 0};
        trigger.resourceTypes = std::vector{ResourceType::script, ResourceType::styleSheet};
        trigger.domainFilter = DomainFilter{DomainFilterType::unlessDomain, {text, "*b.example"}};
        blockers.push_back(Blocker{trigger, Action{ActionType::hide, text}});
        trigger.resourceTypes = std::vector<ResourceType>{};
        trigger.loadType = std::vector{LoadType::firstParty};
        trigger.domainFilter = DomainFilter{DomainFilterType::ifDomain, {}};
        blockers.push_back(Blocker{trigger, Action{ActionType::block, std::nullopt}});
    }
    for (const Blocker& blocker : blockers) {
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writer.Key("trigger");
        writeTrigger(writer, blocker.trigger);
        writer.Key("action");
        writeAction(writer, blocker.action);
        writer.EndObject();
        EXPECT_EQ(encodeBlocker(blocker), std::string(buffer.GetString(), buffer.GetSize()));
    }
    // In a list the writer still places the commas.
    EXPECT_EQ(encodeBlockers({blockers[0], blockers[1]}),
              "[" + encodeBlocker(blockers[0]) + "," + encodeBlocker(blockers[1]) + "]");
}

}  // namespace
}  // namespace tamsel::model
