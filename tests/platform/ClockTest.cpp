#include "platform/Clock.h"
#include "platform/QualityOfService.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace tamsel::platform {
namespace {

using namespace std::chrono_literals;

TEST(ManualClock, MovesOnlyWhenToldEvenFromManyThreads) {
    const Date start = Date{} + 1000h;
    ManualClock clock(start);
    EXPECT_EQ(clock.now(), start);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) clock.advance(1s);
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(clock.now(), start + 4000s);
    clock.set(start);
    EXPECT_EQ(clock.now(), start);
}

TEST(SystemClock, FollowsTheWallClock) {
    const auto before = Clock::systemNow();
    const auto now = Clock::system().now();
    EXPECT_GE(now, before);
    EXPECT_LE(now, std::chrono::system_clock::now());
}

TEST(QualityOfService, RawValuesRoundTripInOrder) {
    const auto cases = allQualityOfServiceCases();
    ASSERT_EQ(cases.size(), 5u);
    EXPECT_EQ(cases.front(), QualityOfService::userInteractive);
    EXPECT_EQ(rawValue(QualityOfService::defaultQoS), "default");
    for (auto qos : cases) EXPECT_EQ(qualityOfServiceFromRawValue(rawValue(qos)), qos);
    EXPECT_EQ(qualityOfServiceFromRawValue("defaultQoS"), std::nullopt);
}

}  // namespace
}  // namespace tamsel::platform
