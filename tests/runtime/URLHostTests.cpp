#include "runtime/URLHost.h"

#include <gtest/gtest.h>

namespace tamsel::runtime {
namespace {

TEST(URLHostTest, HostOfPageURLs) {
    EXPECT_EQ(urlHost("https://www.example.com/path"), "www.example.com");
    EXPECT_EQ(urlHost("http://[2001:db8::1]:8080/"), "2001:db8::1");
    EXPECT_EQ(urlHost("https://example.com?q=1"), "example.com");
    EXPECT_EQ(urlHost("about:blank"), std::nullopt);
    EXPECT_EQ(urlHost("file:///tmp/page.html"), std::nullopt);
    EXPECT_EQ(urlHost("not a url"), std::nullopt);
    EXPECT_EQ(urlHost("1http://example.com/"), std::nullopt);
}

}  // namespace
}  // namespace tamsel::runtime
