// The pause setting: the shared keys, the minutes left at the edges of the
// hour, and the expiry check that the popover runs.
#include "control/PauseStatus.h"

#include <gtest/gtest.h>

#include "platform/Stores.h"
#include "support/TestSupport.h"

namespace tamsel::control {
namespace {

using namespace std::chrono_literals;

constexpr char statusKey[] = "blocking-paused-status";
constexpr char dateKey[] = "blocking-paused-date";

class PauseStatusTest : public ::testing::Test {
protected:
    std::shared_ptr<platform::UserDefaults> shared() { return platform::SharedDefaults::shared(); }

    testing::ScopedDataRoot root;
    platform::ManualClock clock{platform::Date(std::chrono::sys_days(std::chrono::year{2024} / 3 / 31)) + 1h};
};

TEST_F(PauseStatusTest, NothingStoredMeansActiveBlocking) {
    EXPECT_FALSE(PauseStatus::isPaused());
    EXPECT_EQ(PauseStatus::pausedDate(), std::nullopt);
    EXPECT_EQ(PauseStatus::minutesLeft(clock), 0);
}

TEST_F(PauseStatusTest, MinutesLeftCountsDownWholeMinutes) {
    PauseStatus::begin(clock);
    EXPECT_TRUE(shared()->boolValue(statusKey));
    EXPECT_EQ(shared()->date(dateKey), clock.now());
    EXPECT_EQ(PauseStatus::minutesLeft(clock), 60);

    clock.advance(59s);
    EXPECT_EQ(PauseStatus::minutesLeft(clock), 60) << "a started minute is not yet elapsed";
    clock.advance(1s);
    EXPECT_EQ(PauseStatus::minutesLeft(clock), 59);
    clock.advance(58min + 59s);
    EXPECT_EQ(PauseStatus::minutesLeft(clock), 1) << "59 minutes and 59 seconds in";
    clock.advance(1s);
    EXPECT_EQ(PauseStatus::minutesLeft(clock), 0) << "60 minutes in";
    clock.advance(24h);
    EXPECT_EQ(PauseStatus::minutesLeft(clock), 0) << "never below zero";
    EXPECT_TRUE(PauseStatus::isPaused()) << "an expired pause stays recorded until the check";
}

TEST_F(PauseStatusTest, PausedWithoutAStartHasNoMinutesLeft) {
    PauseStatus::setPaused(true);
    EXPECT_EQ(PauseStatus::minutesLeft(clock), 0);

    shared()->set(platform::Value("yesterday"), dateKey);
    EXPECT_EQ(PauseStatus::pausedDate(), std::nullopt) << "a value that is not a date reads as none";
    EXPECT_EQ(PauseStatus::minutesLeft(clock), 0);
}

TEST_F(PauseStatusTest, AStartWithoutTheFlagIsNotAPause) {
    PauseStatus::setPausedDate(clock.now());
    EXPECT_EQ(PauseStatus::minutesLeft(clock), 0);
}

TEST_F(PauseStatusTest, EndingRemovesTheStartInsteadOfKeepingIt) {
    PauseStatus::begin(clock);
    PauseStatus::end();
    EXPECT_FALSE(PauseStatus::isPaused());
    ASSERT_TRUE(shared()->value(statusKey).has_value()) << "the flag is stored as false";
    EXPECT_EQ(shared()->value(dateKey), std::nullopt);
    EXPECT_EQ(shared()->dictionaryRepresentation().count(dateKey), 0u);
}

TEST_F(PauseStatusTest, ExpiryCheckEndsOnlyAnExpiredPauseAndReloadsOnce) {
    int reloads = 0;
    const auto reload = [&reloads] { ++reloads; };

    EXPECT_FALSE(PauseStatus::endPauseIfExpired(reload, clock)) << "not paused";
    PauseStatus::begin(clock);
    clock.advance(59min);
    EXPECT_FALSE(PauseStatus::endPauseIfExpired(reload, clock)) << "one minute left";
    EXPECT_TRUE(PauseStatus::isPaused());
    EXPECT_EQ(reloads, 0);

    clock.advance(2min);  // 61 minutes after pausing
    EXPECT_TRUE(PauseStatus::endPauseIfExpired(reload, clock));
    EXPECT_EQ(reloads, 1);
    EXPECT_FALSE(PauseStatus::isPaused());
    EXPECT_EQ(shared()->value(dateKey), std::nullopt);

    EXPECT_FALSE(PauseStatus::endPauseIfExpired(reload, clock));
    EXPECT_EQ(reloads, 1);
}

TEST_F(PauseStatusTest, ExpiryCheckEndsAPauseThatLostItsStart) {
    PauseStatus::setPaused(true);
    int reloads = 0;
    EXPECT_TRUE(PauseStatus::endPauseIfExpired([&reloads] { ++reloads; }, clock));
    EXPECT_EQ(reloads, 1);
    EXPECT_FALSE(PauseStatus::isPaused());
}

TAMSEL_CHILD_ENTRY(pauseFromAnotherProcess) {
    if (arguments.at(0) == "pause") {
        PauseStatus::begin();
    } else {
        PauseStatus::end();
    }
    return 0;
}

TEST_F(PauseStatusTest, ChangesOfOtherProcessesAreSeenAtOnce) {
    EXPECT_EQ(PauseStatus::minutesLeft(), 0);
    ASSERT_EQ(testing::runChildEntry("pauseFromAnotherProcess", {"pause"}), 0);
    EXPECT_TRUE(PauseStatus::isPaused());
    EXPECT_EQ(PauseStatus::minutesLeft(), 60);
    ASSERT_EQ(testing::runChildEntry("pauseFromAnotherProcess", {"resume"}), 0);
    EXPECT_FALSE(PauseStatus::isPaused());
    EXPECT_EQ(PauseStatus::pausedDate(), std::nullopt);
}

}  // namespace
}  // namespace tamsel::control
