// Pausing and resuming through the extension manager: the shared keys are
// written first, every extension is reloaded, and no Safari JSON file is
// rewritten.
#include "control/DataManager.h"
#include "control/ExtensionManager.h"
#include "control/PauseStatus.h"
#include "FakeSafari.h"

#include "platform/DispatchQueue.h"
#include "platform/MainRunLoop.h"
#include "platform/Stores.h"
#include "support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace tamsel::control {
namespace {

using namespace std::chrono_literals;
using storage::ReloadingResult;

class PauseBlockingTest : public ::testing::Test {
protected:
    PauseBlockingTest() {
        ExtensionManager::Configuration configuration;
        configuration.dataManager = &data;
        configuration.contentBlockers = safari;
        configuration.clock = &clock;
        manager = ExtensionManager::create(std::move(configuration));
    }

    ~PauseBlockingTest() override { manager->waitUntilIdle(10s); }

    ReloadingResult run(void (ExtensionManager::*change)(storage::ReloadingCompletion)) {
        std::optional<ReloadingResult> result;
        ((*manager).*change)([&result](ReloadingResult outcome) { result = std::move(outcome); });
        EXPECT_TRUE(platform::MainRunLoop::runUntil([&] { return result.has_value() && manager->isIdle(); }, 20s));
        return result.value_or(ReloadingResult{});
    }

    std::vector<std::filesystem::path> jsonFilesUnderRoot() const {
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root.home())) {
            if (entry.path().extension() == ".json") files.push_back(entry.path());
        }
        return files;
    }

    testing::ScopedDataRoot root;
    testing::LogCapture log;
    platform::ManualClock clock{platform::Date(std::chrono::sys_days(std::chrono::year{2024} / 6 / 1))};
    DataManager data;
    std::shared_ptr<testing::FakeSafari> safari = std::make_shared<testing::FakeSafari>();
    std::shared_ptr<ExtensionManager> manager;
};

TEST_F(PauseBlockingTest, PausingSetsTheKeysAndReloadsEveryExtensionWithoutWritingJSON) {
    EXPECT_TRUE(run(&ExtensionManager::pauseBlocking).has_value());
    EXPECT_TRUE(PauseStatus::isPaused());
    EXPECT_EQ(PauseStatus::pausedDate(), clock.now()) << "the start comes from the manager's clock";
    EXPECT_EQ(PauseStatus::minutesLeft(clock), 60);
    EXPECT_EQ(safari->reloads().size(), 8u);
    EXPECT_THAT(jsonFilesUnderRoot(), ::testing::IsEmpty());
}

TEST_F(PauseBlockingTest, ResumingRemovesTheStartAndReloadsAgain) {
    run(&ExtensionManager::pauseBlocking);
    clock.advance(10min);
    EXPECT_TRUE(run(&ExtensionManager::resumeBlocking).has_value());
    EXPECT_FALSE(PauseStatus::isPaused());
    EXPECT_EQ(platform::SharedDefaults::shared()->value("blocking-paused-date"), std::nullopt);
    EXPECT_EQ(safari->reloads().size(), 16u);
}

TEST_F(PauseBlockingTest, AFailedReloadIsReportedAndThePauseStays) {
    safari->failNext(ExtensionManager::extensionID(model::ExtensionType::blockSocial), 6, 1);
    const auto result = run(&ExtensionManager::pauseBlocking);
    ASSERT_FALSE(result.has_value());
    ASSERT_NE(result.error().safariError(), nullptr);
    EXPECT_EQ(result.error().safariError()->code, 6);
    EXPECT_TRUE(PauseStatus::isPaused());
    EXPECT_EQ(PauseStatus::minutesLeft(clock), 60);
}

TEST_F(PauseBlockingTest, TheExpiryCheckReloadsThroughTheManagerOnce) {
    run(&ExtensionManager::pauseBlocking);
    const auto reloadsAfterPause = safari->reloads().size();
    clock.advance(61min);
    EXPECT_TRUE(PauseStatus::endPauseIfExpired([this] { manager->reloadAllWithoutSaving({}); }, clock));
    EXPECT_FALSE(PauseStatus::endPauseIfExpired([this] { manager->reloadAllWithoutSaving({}); }, clock));
    ASSERT_TRUE(platform::MainRunLoop::runUntil([&] { return manager->isIdle(); }, 20s));
    manager->waitUntilIdle(5s);
    EXPECT_EQ(safari->reloads().size(), reloadsAfterPause + 8);
    EXPECT_FALSE(PauseStatus::isPaused());
}

}  // namespace
}  // namespace tamsel::control
