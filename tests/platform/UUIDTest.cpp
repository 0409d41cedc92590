#include "platform/UUID.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

namespace tamsel::platform {
namespace {

TEST(UUIDTest, FreshUUIDsAreRandomVersionFourInUpperCaseText) {
    const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {
        const std::string uuid = newUUIDString();
        EXPECT_TRUE(std::regex_match(uuid, form)) << uuid;
        seen.insert(uuid);
    }
    EXPECT_EQ(seen.size(), 200U);
}

TEST(UUIDTest, TextAndBytesConvertBothWaysAndAnythingElseIsRefused) {
    const auto bytes = parseUUID("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
    ASSERT_TRUE(bytes);
    EXPECT_EQ((*bytes)[0], 0xE6);
    EXPECT_EQ((*bytes)[15], 0x5F);
    EXPECT_EQ(uuidString(*bytes), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    for (const char* text : {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5",
                             "E621E1F8-C36C-495A-93FC-0C247A3E6E5FF", "G621E1F8-C36C-495A-93FC-0C247A3E6E5F",
                             "E621E1F8-C36C-495A-93FC0-C247A3E6E5F"}) {
        EXPECT_FALSE(parseUUID(text)) << text;
    }
}

}  // namespace
}  // namespace tamsel::platform
