#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <unordered_set>

#include "platform/Value.h"
#include "platform/ValueCoding.h"

namespace tamsel::platform {
namespace {

using namespace std::chrono;

Date utc(int y, unsigned m, unsigned d, int hh = 0, int mm = 0, int ss = 0) {
    return sys_days{year{y} / month{m} / day{d}} + hours{hh} + minutes{mm} + seconds{ss};
}

Value sample() {
    return Dictionary{
        {"flag", true},
        {"count", 42},
        {"ratio", 0.25},
        {"name", "caf\u00e9 \"quoted\"\n"},
        {"list", Array{1, 2.5, false, "x", Array{}, Dictionary{}}},
        {"nested", Dictionary{{"empty", ""}, {"negative", -7}}},
    };
}

TEST(ValueJSON, RoundTripKeepsEveryJSONType) {
    const Value original = sample();
    const auto parsed = Value::fromJSON(original.toJSON());
    ASSERT_TRUE(parsed) << parsed.error();
    EXPECT_EQ(*parsed, original);
}

TEST(ValueJSON, NumbersKeepTheirKind) {
    // A boolean must not come back as 1, nor an integral double as an integer.
    const Value values = Array{true, 1, 1.0, 0, 0.0, -3, 1e300, 0.1, std::numeric_limits<std::int64_t>::min()};
    const auto parsed = Value::fromJSON(values.toJSON());
    ASSERT_TRUE(parsed) << parsed.error();
    const Array elements = *parsed->asArray();
    ASSERT_EQ(elements.size(), 9u);
    EXPECT_TRUE(elements[0].isBool());
    EXPECT_TRUE(elements[1].isInteger());
    EXPECT_TRUE(elements[2].isDouble());
    EXPECT_TRUE(elements[3].isInteger());
    EXPECT_TRUE(elements[4].isDouble());
    EXPECT_EQ(elements[5], Value(-3));
    EXPECT_EQ(elements[6], Value(1e300));
    EXPECT_EQ(elements[7], Value(0.1));
    EXPECT_EQ(elements[8], Value(std::numeric_limits<std::int64_t>::min()));
    EXPECT_NE(Value(1), Value(true));
    EXPECT_NE(Value(1), Value(1.0));
}

TEST(ValueJSON, ReadsScalarsAndLargeNumbers) {
    EXPECT_EQ(*Value::fromJSON("  true "), Value(true));
    EXPECT_EQ(*Value::fromJSON("\"text\""), Value("text"));
    EXPECT_EQ(*Value::fromJSON("-12"), Value(-12));
    EXPECT_EQ(*Value::fromJSON("2.5e1"), Value(25.0));
    // Beyond int64 the number survives as a double.
    const auto huge = Value::fromJSON("[18446744073709551615, 123456789012345678901234567890]");
    ASSERT_TRUE(huge) << huge.error();
    EXPECT_TRUE((*huge->asArray())[0].isDouble());
    EXPECT_NEAR(*(*huge->asArray())[1].asDouble(), 1.2345678901234568e29, 1e15);
}

TEST(ValueJSON, RejectsNullAndMalformedText) {
    const auto null = Value::fromJSON(R"({"a": [1, null]})");
    ASSERT_FALSE(null);
    EXPECT_NE(null.error().find("null"), std::string::npos) << null.error();

    for (const char* text : {"", "{", "[1,]", "{\"a\" 1}", "[1] [2]", "tru", "\"unterminated", "{\"a\":1} x"}) {
        const auto result = Value::fromJSON(text);
        EXPECT_FALSE(result) << "accepted: " << text;
        if (!result) {
            EXPECT_NE(result.error().find("JSON"), std::string::npos) << result.error();
        }
    }
}

TEST(ValueJSON, WritesDatesDataAndNonFiniteNumbers) {
    const Value value = Dictionary{{"when", utc(2024, 3, 5, 12, 34, 56)},
                                   {"bytes", Data{0, 1, 2, 0xFF}},
                                   {"nan", std::nan("")},
                                   {"inf", std::numeric_limits<double>::infinity()}};
    EXPECT_EQ(value.toJSON(), R"({"bytes":"AAEC/w==","inf":null,"nan":null,"when":"2024-03-05T12:34:56Z"})");
    // The output is always valid JSON, even where it cannot read back exactly.
    EXPECT_FALSE(Value::fromJSON(value.toJSON()));  // because of the nulls
    const Value withoutNumbers = Dictionary{{"when", utc(2024, 3, 5)}, {"bytes", Data{}}};
    const auto parsed = Value::fromJSON(withoutNumbers.toJSON());
    ASSERT_TRUE(parsed);
    EXPECT_EQ(*parsed, Value(Dictionary{{"when", "2024-03-05T00:00:00Z"}, {"bytes", ""}}));
}

TEST(ValueAccessors, AnswerOnlyForTheirOwnType) {
    const Value integer(5);
    EXPECT_EQ(integer.asInteger(), 5);
    EXPECT_EQ(integer.asDouble(), 5.0);  // numbers widen
    EXPECT_FALSE(integer.asBool());
    EXPECT_FALSE(integer.asString());
    EXPECT_FALSE(Value(5.5).asInteger());
    EXPECT_FALSE(Value(true).asInteger());
    EXPECT_FALSE(Value("5").asInteger());
    EXPECT_EQ(Value("literal").type(), Value::Type::string);  // not a bool
    ASSERT_NE(Value(Array{1}).getIf<Array>(), nullptr);
    EXPECT_EQ(Value(Array{1}).getIf<Dictionary>(), nullptr);
}

TEST(ValueHash, EqualValuesHashEqually) {
    std::unordered_set<Value> set{sample(), Value(1), Value(1.0), Value(true), Value("1")};
    EXPECT_EQ(set.size(), 5u);
    EXPECT_TRUE(set.contains(sample()));
    EXPECT_EQ(std::hash<Value>{}(sample()), std::hash<Value>{}(sample()));
}

TEST(ISO8601, FormatsInUTCWithMillisecondsOnlyWhenPresent) {
    EXPECT_EQ(formatISO8601(utc(1999, 12, 31, 23, 59, 59)), "1999-12-31T23:59:59Z");
    EXPECT_EQ(formatISO8601(utc(2024, 2, 29) + milliseconds(7)), "2024-02-29T00:00:00.007Z");
    EXPECT_EQ(formatISO8601(utc(1969, 12, 31, 23, 0, 0)), "1969-12-31T23:00:00Z");
}

TEST(ISO8601, ParsesTheAcceptedForms) {
    EXPECT_EQ(parseISO8601("2024-03-05"), utc(2024, 3, 5));
    EXPECT_EQ(parseISO8601("2024-03-05T12:34:56Z"), utc(2024, 3, 5, 12, 34, 56));
    EXPECT_EQ(parseISO8601("2024-03-05 12:34"), utc(2024, 3, 5, 12, 34));
    EXPECT_EQ(parseISO8601("2024-03-05T12:34:56.5Z"), utc(2024, 3, 5, 12, 34, 56) + milliseconds(500));
    EXPECT_EQ(parseISO8601("2024-03-05T14:34:56+02:00"), utc(2024, 3, 5, 12, 34, 56));
    EXPECT_EQ(parseISO8601("2024-03-05T10:04:56-0230"), utc(2024, 3, 5, 12, 34, 56));
    const Date precise = utc(2030, 1, 2, 3, 4, 5) + milliseconds(678);
    EXPECT_EQ(parseISO8601(formatISO8601(precise)), precise);
}

TEST(ISO8601, RejectsImpossibleOrMalformedDates) {
    for (const char* text : {"", "2024", "2024-02-30", "2023-02-29", "2024-13-01", "2024-03-05T24:00",
                             "2024-03-05T12:60", "2024-03-05T12:00:00.Z", "2024-03-05T12:00Zjunk",
                             "2024-03-05T12:00+2", "2024-3-5", "yesterday"}) {
        EXPECT_FALSE(parseISO8601(text)) << text;
    }
}

TEST(Base64, RoundTripsEveryLengthAndRejectsForeignCharacters) {
    Data bytes;
    for (int length = 0; length < 8; ++length) {
        EXPECT_EQ(base64Decode(base64Encode(bytes)), bytes) << length;
        bytes.push_back(static_cast<std::uint8_t>(0xF0 + length));
    }
    EXPECT_EQ(base64Encode(Data{'M', 'a'}), "TWE=");
    EXPECT_FALSE(base64Decode("TW E="));
    EXPECT_FALSE(base64Decode("T"));
}

TEST(ValueCoding, KeepsEveryTypeExactly) {
    const Value value = Array{sample(), utc(2024, 1, 1) + microseconds(123456), Data{0, 0, 7},
                              std::numeric_limits<double>::denorm_min(), -0.0};
    const auto decoded = decodeValue(encodeValue(value));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(*decoded, value);
    EXPECT_TRUE(std::signbit(*(*decoded->asArray())[4].asDouble()));
}

TEST(ValueCoding, KeepsDatesOfEveryCenturyAndReadsNanosecondsWrittenBefore) {
    for (Date date : {utc(9999, 12, 31, 23, 59, 59), utc(1900, 1, 1), utc(1, 1, 1), utc(2262, 4, 12)}) {
        EXPECT_EQ(decodeValue(encodeValue(Value(date)))->asDate(), date) << formatISO8601(date);
        EXPECT_EQ(parseISO8601(formatISO8601(date)), date) << formatISO8601(date);
    }
    EXPECT_EQ(formatISO8601(utc(9999, 12, 31, 23, 59, 59)), "9999-12-31T23:59:59Z");
    // Stores written before microseconds kept nanoseconds under 't'.
    std::string legacy = "t";
    const std::int64_t nanos = 1'700'000'000'123'456'789;
    for (int shift = 0; shift < 64; shift += 8) legacy += static_cast<char>((nanos >> shift) & 0xff);
    const auto decoded = decodeValue(legacy);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->asDate(), Date(microseconds(1'700'000'000'123'456)));
}

TEST(ValueCoding, RejectsTruncatedAndForgedInput) {
    const std::string bytes = encodeValue(sample());
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        EXPECT_FALSE(decodeValue(std::string_view(bytes).substr(0, length))) << length;
    }
    EXPECT_FALSE(decodeValue(bytes + "x"));
    EXPECT_FALSE(decodeValue("b\2"));
    EXPECT_FALSE(decodeValue("?"));
    // A count far beyond the input must not make the decoder allocate for it.
    std::string forged = "a";
    forged += std::string("\xff\xff\xff\xff\xff\xff\xff\x7f", 8);
    EXPECT_FALSE(decodeValue(forged));
}

// --- nesting -------------------------------------------------------------------

constexpr std::size_t limit = Value::maximumDepth;

std::string nestedArrays(std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

std::string nestedObjects(std::size_t depth) {
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) text += R"({"k":)";
    return text + "true" + std::string(depth, '}');
}

Value nestedValue(std::size_t depth) {
    Value value = Array{};
    for (std::size_t i = 1; i < depth; ++i) {
        value = i % 2 == 0 ? Value(Array{value}) : Value(Dictionary{{"k", value}});
    }
    return value;
}

// The stores' bytes for `depth` arrays, one inside the other.
std::string nestedBytes(std::size_t depth) {
    std::string bytes;
    for (std::size_t i = 0; i < depth; ++i) bytes += std::string("a\1\0\0\0\0\0\0\0", 9);
    return bytes + "b\1";
}

TEST(ValueDepth, JSONUpToTheLimitReadsAndDeeperIsAnError) {
    for (const auto& text : {nestedArrays(limit), nestedObjects(limit), "[1,{\"a\":" + nestedArrays(limit - 2) + "}]"}) {
        const auto value = Value::fromJSON(text);
        ASSERT_TRUE(value) << value.error();
        EXPECT_FALSE(value->exceedsMaximumDepth());
    }
    // One level more, or a hundred thousand, is an error that says so, never
    // a crash.
    const std::string hidden = "[1,{\"a\":" + nestedArrays(limit - 1) + "}]";
    for (const auto& text : {nestedArrays(limit + 1), nestedArrays(100'000), nestedObjects(100'000), hidden}) {
        const auto value = Value::fromJSON(text);
        ASSERT_FALSE(value);
        EXPECT_THAT(value.error(), ::testing::HasSubstr("nested deeper than 256 levels")) << value.error();
    }
    EXPECT_FALSE(Value::fromJSON(std::string(100'000, '['))) << "unbalanced";
}

TEST(ValueDepth, StoresCodingKeepsTheLimit) {
    const Value deepest = nestedValue(limit);
    EXPECT_FALSE(deepest.exceedsMaximumDepth());
    EXPECT_TRUE(nestedValue(limit + 1).exceedsMaximumDepth());
    EXPECT_FALSE(Value(1).exceedsMaximumDepth());
    const auto decoded = decodeValue(encodeValue(deepest));
    ASSERT_TRUE(decoded) << decoded.error();
    EXPECT_EQ(*decoded, deepest);

    ASSERT_TRUE(decodeValue(nestedBytes(limit)));
    for (const std::size_t depth : {limit + 1, std::size_t{100'000}}) {
        const auto refused = decodeValue(nestedBytes(depth));
        ASSERT_FALSE(refused);
        EXPECT_EQ(refused.error(), "nested deeper than 256 levels");
    }
    EXPECT_EQ(decodeValue("b\2").error(), "malformed bytes");
}

}  // namespace
}  // namespace tamsel::platform
