// Whatever bytes arrive (a truncated download, a file edited by hand, another
// program's bug), decoding ends in a value or in an error that names the
// reason and the place; it never crashes. Also the sample package files
// shipped in resources/ decode and survive a round trip through real files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <simdjson.h>

#include <filesystem>
#include <fstream>

#include "model/JSONCoding.h"
#include "support/TestSupport.h"

namespace tamsel::model {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr std::string_view validPackage =
    R"({"id":"p","name":"P","rules":[{"id":"1","name":"n","content":{"trigger":{"url-filter":"x"},)"
    R"("action":{"type":"block"}}}],"createdAt":1.5})";

std::string decodeError(std::string_view json) {
    testing::LogCapture quiet;
    auto file = decodePackageFile(json);
    EXPECT_FALSE(file.has_value()) << json.substr(0, 200);
    return file ? std::string() : file.error().description;
}

void writeFile(const std::filesystem::path& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(MalformedInputTest, NotJSONAtAll) {
    EXPECT_THAT(decodeError(""), StartsWith("not JSON"));
    EXPECT_THAT(decodeError("   \n"), StartsWith("not JSON"));
    EXPECT_THAT(decodeError("{"), StartsWith("not JSON"));
    EXPECT_THAT(decodeError("{\"id\" \"p\"}"), StartsWith("not JSON"));
    EXPECT_THAT(decodeError("{'id':'p'}"), StartsWith("not JSON"));
    EXPECT_THAT(decodeError("[{\"id\":\"p\",}]"), HasSubstr("not JSON"));
    EXPECT_THAT(decodeError(std::string("{\"id\":\"p\0\"}", 11)), HasSubstr("not JSON"));
}

TEST(MalformedInputTest, WrongTopLevelValue) {
    EXPECT_EQ(decodeError(R"("block-ads")"), "expected object or array, found string");
    EXPECT_EQ(decodeError("42"), "expected object or array, found number");
    EXPECT_EQ(decodeError("null"), "expected object or array, found null");
    EXPECT_EQ(decodeError("true"), "expected object or array, found boolean");
    EXPECT_EQ(decodeBlockerArray("{}").error().description, "expected array, found object");
    testing::LogCapture quiet;
    EXPECT_EQ(decodePackage("[]").error().description, "expected object, found array");
}

TEST(MalformedInputTest, WrongTypesNameTheirPlace) {
    EXPECT_EQ(decodeError(R"([{"id":"p","name":"P","rules":[1]}])"), "[0].rules[0]: expected object, found number");
    EXPECT_EQ(decodeError(R"({"id":7,"name":"P","rules":[]})"), "id: expected string, found number");
    EXPECT_EQ(decodeError(R"({"id":null,"name":"P","rules":[]})"), "id: expected string, found null");
    EXPECT_EQ(decodeError(R"({"id":"p","name":"P","rules":[{"id":"1","name":"n","content":)"
                          R"({"trigger":{"url-filter":"x","url-filter-is-case-sensitive":"yes"},"action":{"type":"block"}}}]})"),
              "rules[0].content.trigger.url-filter-is-case-sensitive: expected boolean, found string");
    EXPECT_EQ(decodeError(R"({"id":"p","name":"P","rules":[{"id":"1","name":"n","content":)"
                          R"({"trigger":{"url-filter":"x","if-domain":["a",2]},"action":{"type":"block"}}}]})"),
              "rules[0].content.trigger.if-domain[1]: expected string, found number");
    EXPECT_EQ(decodeError(R"({"id":"p","name":"P","rules":[{"id":"1","name":"n","content":)"
                          R"({"trigger":{"url-filter":"x","resource-type":"image"},"action":{"type":"block"}}}]})"),
              "rules[0].content.trigger.resource-type: expected array, found string");
    EXPECT_EQ(decodeError(R"([{"id":"p","name":"P","rules":[]},{"id":"q","name":"Q","rules":[)"
                          R"({"id":"1","name":"n","content":{"trigger":{},"action":{"type":"block"}}}]}])"),
              R"([1].rules[0].content.trigger: missing key "url-filter")");
}

TEST(MalformedInputTest, BytesThatAreNotUTF8) {
    EXPECT_EQ(decodeError("{\"id\":\"\xFF\",\"name\":\"P\",\"rules\":[]}"), "invalid UTF-8");
    EXPECT_EQ(decodeError("{\"id\":\"\xC0\xAF\",\"name\":\"P\",\"rules\":[]}"), "invalid UTF-8");
    EXPECT_EQ(decodeError("{\"id\":\"\xED\xA0\x80\",\"name\":\"P\",\"rules\":[]}"), "invalid UTF-8");
    // The same in a key that would otherwise be ignored.
    EXPECT_EQ(decodeError("{\"\xFE\":1,\"id\":\"p\",\"name\":\"P\",\"rules\":[]}"), "invalid UTF-8");
    // A lone surrogate escape is no character either.
    EXPECT_THAT(decodeError(R"({"id":"\ud800","name":"P","rules":[]})"), HasSubstr("not JSON"));
}

TEST(MalformedInputTest, TrailingContentAfterTheValue) {
    const std::string package(validPackage);
    EXPECT_EQ(decodeError(package + "x"), "unexpected content after the JSON value");
    EXPECT_THAT(decodeError(package + "}"), ::testing::Not(::testing::IsEmpty()));
    EXPECT_THAT(decodeError(package + " " + package), ::testing::Not(::testing::IsEmpty()));
    EXPECT_THAT(decodeError("[] []"), ::testing::Not(::testing::IsEmpty()));
    EXPECT_THAT(decodeError("[]]"), ::testing::Not(::testing::IsEmpty()));
    // Whitespace after the value is fine.
    testing::LogCapture quiet;
    EXPECT_TRUE(decodePackageFile(package + " \n\t\r\n").has_value());
}

TEST(MalformedInputTest, DeepNestingNeverRecurses) {
    testing::LogCapture quiet;
    const std::size_t depth = 100000;
    const std::string arrays = std::string(depth, '[') + std::string(depth, ']');
    EXPECT_FALSE(decodePackageFile(arrays).has_value());
    EXPECT_FALSE(decodeBlockerArray(arrays).has_value());

    std::string objects;
    for (std::size_t i = 0; i < depth; ++i) objects += "{\"a\":";
    objects += "1" + std::string(depth, '}');
    EXPECT_FALSE(decodePackageFile(objects).has_value());

    // Under a key that the decoder ignores, a balanced value of any depth is
    // skipped without recursion.
    const std::string hidden = R"({"id":"p","name":"P","rules":[],"extra":)" + arrays + "}";
    auto skipped = decodePackageFile(hidden);
    ASSERT_TRUE(skipped.has_value());
    EXPECT_EQ(skipped->packages.front().id, "p");

    // Unbalanced: opens without closes.
    EXPECT_FALSE(decodePackageFile(std::string(depth, '[')).has_value());
    EXPECT_FALSE(decodePackageFile(R"({"id":"p","name":"P","rules":[],"extra":)" + std::string(depth, '{')).has_value());
}

TEST(MalformedInputTest, NumbersOutOfRange) {
    testing::LogCapture quiet;
    EXPECT_THAT(decodeError(R"({"id":"p","name":"P","rules":[],"createdAt":1e400})"), StartsWith("createdAt: not JSON"));
    EXPECT_THAT(decodeError(R"({"id":"p","name":"P","rules":[],"createdAt":-})"), HasSubstr("not JSON"));
    // Representable numbers far outside a date's range clamp.
    auto far = decodePackage(R"({"id":"p","name":"P","rules":[],"createdAt":1e300})");
    ASSERT_TRUE(far.has_value());
    auto huge = decodePackage(R"({"id":"p","name":"P","rules":[],"createdAt":123456789012345678901234567890})");
    EXPECT_TRUE(huge.has_value() || !huge.error().description.empty());
    // Huge numbers in ignored keys are skipped.
    EXPECT_TRUE(decodePackage(R"({"id":"p","name":"P","rules":[],"n":123456789012345678901234567890e99})").has_value());
}

TEST(MalformedInputTest, EveryTruncationOfARealFileFailsCleanly) {
    const testing::TemporaryDirectory directory;
    const std::string original = readFile(std::filesystem::path(TAMSEL_SOURCE_DIR) / "resources/packages/block-ads.json");
    ASSERT_FALSE(original.empty());
    const std::size_t lastBrace = original.find_last_of('}');
    testing::LogCapture quiet;
    for (std::size_t length = 0; length < original.size(); ++length) {
        const std::string_view prefix(original.data(), length);
        auto file = decodePackageFile(prefix);
        if (length <= lastBrace) {
            EXPECT_FALSE(file.has_value()) << "length " << length;
        } else {
            EXPECT_TRUE(file.has_value()) << "length " << length;
        }
    }
    // Also straight from a file on disk into padded storage.
    const auto path = directory / "truncated.json";
    writeFile(path, std::string_view(original).substr(0, original.size() / 2));
    auto loaded = simdjson::padded_string::load(path.string());
    ASSERT_EQ(loaded.error(), simdjson::SUCCESS);
    EXPECT_FALSE(decodePackageFile(loaded.value_unsafe()).has_value());
}

TEST(MalformedInputTest, EveryByteFlipOfARuleFailsOrDecodesWithoutCrashing) {
    testing::LogCapture quiet;
    std::string json(validPackage);
    std::size_t decoded = 0;
    for (std::size_t i = 0; i < json.size(); ++i) {
        for (char replacement : {'\0', '"', '{', ']', '\\', '\xFF', '1', ','}) {
            std::string mutated = json;
            mutated[i] = replacement;
            auto file = decodePackageFile(mutated);
            if (file) {
                ++decoded;
            } else {
                EXPECT_FALSE(file.error().description.empty());
            }
        }
    }
    EXPECT_GT(decoded, 0u);
}

struct SampleFile {
    const char* name;
    bool isArray;
};

TEST(MalformedInputTest, SamplePackageFilesDecodeAndRoundTripThroughFiles) {
    const testing::TemporaryDirectory directory;
    const auto samples = std::filesystem::path(TAMSEL_SOURCE_DIR) / "resources/packages";
    const SampleFile files[] = {{"block-ads", false},          {"block-adult", false},
                                {"block-annoyances", false},   {"block-social", false},
                                {"block-comments", false},     {"block-trackers", false},
                                {"block-international", true}, {"block-configurable", true},
                                {"block-custom", true}};
    testing::LogCapture quiet;
    for (const auto& sample : files) {
        SCOPED_TRACE(sample.name);
        auto loaded = simdjson::padded_string::load((samples / (std::string(sample.name) + ".json")).string());
        ASSERT_EQ(loaded.error(), simdjson::SUCCESS);
        auto file = decodePackageFile(loaded.value_unsafe());
        ASSERT_TRUE(file.has_value()) << file.error().description;
        EXPECT_EQ(file->isArray, sample.isArray);
        EXPECT_FALSE(file->packages.empty());

        const auto copy = directory / (std::string(sample.name) + ".json");
        writeFile(copy, encodePackageFile(*file));
        auto reloaded = simdjson::padded_string::load(copy.string());
        ASSERT_EQ(reloaded.error(), simdjson::SUCCESS);
        auto again = decodePackageFile(reloaded.value_unsafe());
        ASSERT_TRUE(again.has_value()) << again.error().description;
        EXPECT_EQ(*again, *file);
        for (std::size_t i = 0; i < file->packages.size(); ++i) {
            EXPECT_LT(std::chrono::abs(again->packages[i].createdAt - file->packages[i].createdAt),
                      std::chrono::microseconds(1));
        }
    }
}

}  // namespace
}  // namespace tamsel::model
