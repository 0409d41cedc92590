// Long-action timing lines, debug logging and the device description.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "platform/Clock.h"
#include "platform/MainRunLoop.h"
#include "settings/Device.h"
#include "settings/Log.h"
#include "settings/LongActionExecutor.h"
#include "support/TestSupport.h"

namespace {

using namespace tamsel;
using namespace std::chrono_literals;
using settings::LongActionExecutor;
using tamsel::testing::LogCapture;

class LongActionTest : public ::testing::Test {
protected:
    void SetUp() override { platform::MainRunLoop::drain(); }
    void TearDown() override { platform::MainRunLoop::drain(); }
};

TEST_F(LongActionTest, LogsNegativeSecondsOnTheMainQueueWhenFinished) {
    platform::ManualClock clock;
    LogCapture log;
    LongActionExecutor::Finish finish;
    LongActionExecutor::execute("Reload Extension Ads", [&](LongActionExecutor::Finish f) { finish = std::move(f); },
                                clock);
    clock.advance(2500ms);
    platform::MainRunLoop::drain();
    EXPECT_TRUE(log.lines().empty()) << "nothing is logged before the action reports";

    finish();
    EXPECT_TRUE(log.lines().empty()) << "the line waits for the main queue";
    platform::MainRunLoop::drain();
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"* Successfully Finished Long Action \"Reload Extension Ads\": -2.5s *"});
}

TEST_F(LongActionTest, FinishingTwiceOrFromAnotherThreadLogsOnce) {
    platform::ManualClock clock;
    LogCapture log;
    auto finish = LongActionExecutor::start("Save-Reload All Extensions", clock);
    clock.advance(3s);
    std::thread first(finish);
    std::thread second(finish);
    first.join();
    second.join();
    platform::MainRunLoop::drain();
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"* Successfully Finished Long Action \"Save-Reload All Extensions\": -3.0s *"});
}

TEST(LongActionLine, SecondsAlwaysReadAsADecimal) {
    EXPECT_EQ(LongActionExecutor::finishedLine("x", 0.125), "* Successfully Finished Long Action \"x\": -0.125s *");
    EXPECT_EQ(LongActionExecutor::finishedLine("x", 12), "* Successfully Finished Long Action \"x\": -12.0s *");
}

TEST(SettingsLog, WritesOnlyWhileDebugLogsAreEnabled) {
    const bool before = settings::Log::debugLogsEnabled();
    LogCapture log;
    settings::Log::setDebugLogsEnabled(false);
    settings::Log::log("hidden %d", 1);
    settings::Log::print("never", 2, "written");
    EXPECT_TRUE(log.records().empty());

    settings::Log::setDebugLogsEnabled(true);
    settings::Log::log("shown %s %d", "value", 7);
    settings::Log::print("still never");
    settings::Log::setDebugLogsEnabled(before);

    ASSERT_EQ(log.records().size(), 1u);
    EXPECT_EQ(log.records()[0].outlet, platform::LogRecord::Outlet::debug);
    EXPECT_EQ(log.records()[0].message, "shown value 7");
}

TEST(DeviceDescription, ModelIsTheTrimmedProductNameOrAbsent) {
    tamsel::testing::TemporaryDirectory directory;
    std::ofstream(directory / "product_name") << "  ThinkPad X1 Carbon Gen 9 \n";
    std::ofstream(directory / "blank") << " \n\t\n";
    EXPECT_EQ(settings::Device::model(directory / "product_name"), "ThinkPad X1 Carbon Gen 9");
    EXPECT_FALSE(settings::Device::model(directory / "blank"));
    EXPECT_FALSE(settings::Device::model(directory / "missing"));
    EXPECT_FALSE(settings::Device::model(directory.path()));
}

TEST(DeviceDescription, KernelNameAndRelease) {
    EXPECT_EQ(settings::Device::systemName(), "Linux");
    EXPECT_FALSE(settings::Device::systemVersion().empty());
}

}  // namespace
