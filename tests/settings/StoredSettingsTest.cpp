// App and User values: which store each lives in, what a missing key reads
// as, and the first-launch date that is stored by its first read.
#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <thread>
#include <vector>

#include "platform/Clock.h"
#include "platform/Stores.h"
#include "settings/App.h"
#include "settings/Keys.h"
#include "settings/User.h"
#include "support/TestSupport.h"

namespace {

using namespace tamsel;
using namespace std::chrono_literals;
using settings::App;
using settings::User;
using tamsel::testing::runChildEntry;
using tamsel::testing::ScopedDataRoot;

long long nanosecondsOf(platform::Date date) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(date.time_since_epoch()).count();
}

TAMSEL_CHILD_ENTRY(readFirstLaunchDate) {
    return nanosecondsOf(App::currentBuildFirstLaunchDate()) == std::stoll(arguments.at(0)) ? 0 : 3;
}

TEST(AppFirstLaunchDate, FirstReadStoresTheClockAndLaterReadsKeepIt) {
    ScopedDataRoot root;
    const platform::Date start = platform::Clock::systemNow() - 36h;
    platform::ManualClock clock(start);

    ASSERT_FALSE(platform::SharedDefaults::shared()->value(settings::Keys::currentBuildFirstLaunchDate));
    EXPECT_EQ(App::currentBuildFirstLaunchDate(clock), start);
    EXPECT_EQ(platform::SharedDefaults::shared()->date(settings::Keys::currentBuildFirstLaunchDate), start);

    clock.advance(5h);
    EXPECT_EQ(App::currentBuildFirstLaunchDate(clock), start);
    EXPECT_EQ(App::currentBuildFirstLaunchDate(), start);
}

TEST(AppFirstLaunchDate, AnotherProcessReadsTheStoredDate) {
    ScopedDataRoot root;
    platform::ManualClock clock(platform::Clock::systemNow() - 240h);
    const auto date = App::currentBuildFirstLaunchDate(clock);
    EXPECT_EQ(runChildEntry("readFirstLaunchDate", {std::to_string(nanosecondsOf(date))}), 0);
}

TEST(AppFirstLaunchDate, ConcurrentFirstReadsAgreeOnOneDate) {
    ScopedDataRoot root;
    platform::ManualClock clock;
    std::vector<platform::Date> seen(8);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&, i] {
            seen[i] = App::currentBuildFirstLaunchDate(clock);
            // Every thread that comes later finds a different "now".
            clock.advance(1s);
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(std::set<platform::Date>(seen.begin(), seen.end()).size(), 1u);
}

TEST(AppStoredValues, VisualEditorURLOfNoneRemovesTheKey) {
    ScopedDataRoot root;
    const auto shared = platform::SharedDefaults::shared();
    EXPECT_FALSE(App::mustShowVisualEditorURL());

    App::setMustShowVisualEditorURL("https://example.com/page?x=1");
    EXPECT_EQ(App::mustShowVisualEditorURL(), "https://example.com/page?x=1");
    EXPECT_EQ(shared->string(settings::Keys::mustShowVisualEditorURL), "https://example.com/page?x=1");

    App::setMustShowVisualEditorURL(std::nullopt);
    EXPECT_FALSE(shared->value(settings::Keys::mustShowVisualEditorURL).has_value());
    EXPECT_FALSE(shared->dictionaryRepresentation().contains(settings::Keys::mustShowVisualEditorURL));
    EXPECT_FALSE(App::mustShowVisualEditorURL());
}

TEST(AppStoredValues, FlagsLiveInTheirOwnStores) {
    ScopedDataRoot root;
    const auto shared = platform::SharedDefaults::shared();
    const auto standard = platform::Defaults::standard();

    EXPECT_FALSE(App::didLaunchOnce());
    EXPECT_FALSE(App::mustShowVisualEditor());
    App::setDidLaunchOnce(true);
    App::setMustShowVisualEditor(true);

    // The launch flag is this process's own; the visual-editor flag is read
    // by the host application too.
    EXPECT_EQ(standard->value(settings::Keys::didLaunchAppOnce), platform::Value(true));
    EXPECT_FALSE(shared->value(settings::Keys::didLaunchAppOnce));
    EXPECT_EQ(shared->value(settings::Keys::mustShowVisualEditor), platform::Value(true));
    EXPECT_TRUE(App::didLaunchOnce());
    EXPECT_TRUE(App::mustShowVisualEditor());
}

TEST(AppStoredValues, AValueOfAnotherTypeReadsAsMissing) {
    ScopedDataRoot root;
    platform::SharedDefaults::shared()->set(platform::Value(1), settings::Keys::mustShowVisualEditor);
    platform::SharedDefaults::shared()->set(platform::Value(true), settings::Keys::mustShowVisualEditorURL);
    EXPECT_FALSE(App::mustShowVisualEditor());
    EXPECT_FALSE(App::mustShowVisualEditorURL());
}

TEST(AppBuildInformation, VersionAndBuildNumberForReports) {
    ASSERT_TRUE(App::version());
    const std::string combined = App::versionWithBuildNumberString();
    EXPECT_TRUE(combined.starts_with(*App::version()));
    if (const auto build = App::buildNumber()) {
        EXPECT_EQ(combined, *App::version() + " (" + *build + ")");
    }
}

TEST(UserPreferences, ButtonsInSharedDefaultsDevicesInTheCloudStore) {
    ScopedDataRoot root;
    EXPECT_FALSE(User::prefersPauseButtonHidden());
    EXPECT_FALSE(User::prefersHeartButtonHidden());
    EXPECT_FALSE(User::hasMac());
    EXPECT_FALSE(User::hasiPhone());
    EXPECT_FALSE(User::hasiPad());

    User::setPrefersPauseButtonHidden(true);
    User::setHasiPhone(true);

    EXPECT_TRUE(User::prefersPauseButtonHidden());
    EXPECT_FALSE(User::prefersHeartButtonHidden());
    EXPECT_TRUE(User::hasiPhone());
    EXPECT_FALSE(User::hasMac());
    EXPECT_EQ(platform::SharedDefaults::shared()->value(settings::Keys::userPrefersPauseButtonHidden),
              platform::Value(true));
    EXPECT_EQ(platform::UbiquitousStore::shared()->value(settings::Keys::userHasiPhoneDevice), platform::Value(true));
    EXPECT_FALSE(platform::SharedDefaults::shared()->value(settings::Keys::userHasiPhoneDevice));
}

TEST(ProcessFlags, StartFalseAndHoldWhatTheOwnerSets) {
    EXPECT_FALSE(App::isMacMainApp());
    EXPECT_FALSE(App::isMacButtonExtension());
    App::setIsMacButtonExtension(true);
    EXPECT_TRUE(App::isMacButtonExtension());
    EXPECT_FALSE(App::isMacMainApp());
    App::setIsMacButtonExtension(false);
}

}  // namespace
