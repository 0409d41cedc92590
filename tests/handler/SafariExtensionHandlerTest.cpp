#include "handler/SafariExtensionHandler.h"

#include "control/DataManager.h"
#include "control/PauseStatus.h"
#include "control/RuleChanger.h"
#include "model/ConfigurableType.h"
#include "model/ExtensionType.h"
#include "model/RawRepresentable.h"
#include "platform/MainRunLoop.h"
#include "platform/Safari.h"
#include "platform/Stores.h"
#include "platform/Workspace.h"
#include "runtime/CoreDataStore.h"
#include "runtime/HistoryStore.h"
#include "settings/Keys.h"
#include "settings/Log.h"
#include "settings/MainApp.h"
#include "settings/User.h"
#include "storage/ExtensionReloading.h"
#include "support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace tamsel::handler {
namespace {

using namespace std::chrono_literals;
using platform::LocalSafariApplication;
using platform::MainRunLoop;

const std::string adsIdentifier = model::bundleIdentifier(model::ExtensionType::blockAds);

class RecordingSync final : public UserRulesSync {
public:
    void syncUserRules(const std::vector<model::Package>& configurable,
                       const std::vector<model::Package>& custom) override {
        ++calls;
        configurableCount = configurable.size();
        (void)custom;
    }
    std::atomic<int> calls{0};
    std::atomic<std::size_t> configurableCount{0};
};

class HandlerTest : public ::testing::Test {
protected:
    HandlerTest() {
        MainRunLoop::drain();
        settings::Log::setDebugLogsEnabled(true);
        app->setExtension(nullptr);
    }
    ~HandlerTest() override {
        app->setExtension(nullptr);
        settle();
        handler.reset();
        MainRunLoop::drain();
        settings::Log::setDebugLogsEnabled(false);
    }

    SafariExtensionHandler::Collaborators collaborators() {
        SafariExtensionHandler::Collaborators c;
        c.application = app;
        c.history = &history;
        c.dataManager = &dataManager;
        c.state = state;
        c.sync = sync;
        c.reloadAllWithoutSaving = [this](storage::ReloadingCompletion completion) {
            ++reloadsWithoutSaving;
            if (completion) completion(storage::ReloadingResult{});
        };
        c.checkForRuleUpdates = [this](std::function<void(updates::UpdateResult)> completion) {
            ++updateChecks;
            completion(updates::UpdateResult::of(updates::UpdateResult::Kind::noNewUpdates));
        };
        c.isHostApplicationRunning = [this] { return hostRunning.load(); };
        c.watchHostApplicationTermination = [] { return std::shared_ptr<void>(); };
        c.clock = &clock;
        c.calendar = platform::Calendar("UTC");
        return c;
    }

    void startHandler() {
        handler = SafariExtensionHandler::make(collaborators());
        app->setExtension(handler);
        settle();
    }

    // Runs the main queue until Safari's events are handled and the
    // toolbar-item refresh that follows them has set the item.
    void settle() {
        for (int round = 0; round < 3; ++round) {
            MainRunLoop::runUntil([this] { return app->waitForExtension(0ms); }, 10s);
            MainRunLoop::runUntil([] { return false; }, 30ms);
        }
    }

    std::string badge() {
        settle();
        auto window = app->frontWindow();
        return window ? window->toolbarItem()->badgeText() : "";
    }

    std::shared_ptr<platform::LocalSafariTab> open(const std::string& url) {
        auto tab = app->openTab(url);
        settle();
        return tab;
    }

    void report(const std::vector<std::string>& urls, const std::shared_ptr<platform::LocalSafariPage>& page,
                const std::string& identifier = adsIdentifier) {
        app->reportBlockedResources(identifier, urls, page);
        settle();
    }

    static void setShared(const std::string& key, bool value) {
        platform::SharedDefaults::shared()->set(platform::Value(value), key);
    }

    std::vector<model::Rule> hideElementRules() {
        for (const auto& package : dataManager.configurablePackages())
            if (package.id == model::rawValue(model::ConfigurableType::hideElements)) return package.rules;
        return {};
    }

    tamsel::testing::ScopedDataRoot root;
    tamsel::testing::TemporaryDirectory historyFolder;
    platform::ManualClock clock;  // now: the popover reads pauses with the system clock
    runtime::CoreDataStore store{historyFolder.path(), clock};
    runtime::HistoryStore history{store, {&clock, platform::Calendar("UTC"), {}}};
    std::shared_ptr<storage::RecordingExtensionReloading> reloads =
        std::make_shared<storage::RecordingExtensionReloading>();
    control::DataManager dataManager{{reloads, nullptr}};
    std::shared_ptr<ProcessState> state = std::make_shared<ProcessState>();
    std::shared_ptr<RecordingSync> sync = std::make_shared<RecordingSync>();
    std::shared_ptr<LocalSafariApplication> app = LocalSafariApplication::make();
    std::shared_ptr<SafariExtensionHandler> handler;
    std::atomic<int> reloadsWithoutSaving{0};
    std::atomic<int> updateChecks{0};
    std::atomic<bool> hostRunning{false};
};

// --- The badge ----------------------------------------------------------------------------------

TEST_F(HandlerTest, BadgeCountsEachBlockedURLOfTheCurrentPageOnceAndNavigationRestartsIt) {
    setShared(std::string(runtime::HistoryStore::userPrefersBadgeToolbarIconKey), true);
    startHandler();
    auto tab = open("https://news.example/story");
    EXPECT_EQ(badge(), "");
    EXPECT_TRUE(app->frontWindow()->toolbarItem()->isEnabled());

    report({"https://ads.example/a.js", "https://ads.example/a.js"}, tab->page());
    report({"https://ads.example/a.js", "https://ads.example/b.js"}, tab->page(),
           model::bundleIdentifier(model::ExtensionType::blockTrackers));
    EXPECT_EQ(badge(), "2");

    ASSERT_TRUE(app->navigateTab(tab->identifier(), "https://news.example/next"));
    EXPECT_EQ(badge(), "");
    EXPECT_FALSE(history.perPageCount(tab->page()));
    report({"https://ads.example/c.js"}, tab->page());
    EXPECT_EQ(badge(), "1");
}

TEST_F(HandlerTest, BadgeShowsNoNumberWithThePreferenceOffWhilePausedOrWhitelisted) {
    startHandler();
    auto tab = open("https://www.example.com/");
    report({"https://ads.example/a.js"}, tab->page());
    EXPECT_EQ(badge(), "") << "the count preference is off (absent)";

    setShared(std::string(runtime::HistoryStore::userPrefersBadgeToolbarIconKey), true);
    app->validateToolbarItem(app->frontWindow());
    EXPECT_EQ(badge(), "1");

    control::PauseStatus::begin(clock);
    app->validateToolbarItem(app->frontWindow());
    EXPECT_EQ(badge(), SafariExtensionHandler::pauseGlyph);
    settings::User::setPrefersPauseButtonHidden(true);
    app->validateToolbarItem(app->frontWindow());
    EXPECT_EQ(badge(), "");

    // An hour later the pause is over; the next validation ends it and reloads.
    clock.advance(61min);
    app->validateToolbarItem(app->frontWindow());
    EXPECT_EQ(badge(), "1");
    EXPECT_FALSE(control::PauseStatus::isPaused());
    EXPECT_GE(reloadsWithoutSaving.load(), 1);

    std::optional<control::RuleChanger::Result> changed;
    control::RuleChanger(dataManager).whitelist("www.example.com", {}, [&](auto result) { changed = result; });
    ASSERT_TRUE(MainRunLoop::runUntil([&] { return changed.has_value(); }, 10s));
    ASSERT_TRUE(changed->has_value());
    app->validateToolbarItem(app->frontWindow());
    EXPECT_EQ(badge(), SafariExtensionHandler::heartGlyph);
    settings::User::setPrefersHeartButtonHidden(true);
    app->validateToolbarItem(app->frontWindow());
    EXPECT_EQ(badge(), "");
}

TEST_F(HandlerTest, TheLegacyPausedFlagShowsOffOnceAndIsCleared) {
    startHandler();
    open("https://example.com/");
    setShared("paused", true);
    std::optional<std::string> first, second;
    platform::DispatchQueue::main().async([&] {
        first = handler->badgeText();
        second = handler->badgeText();
    });
    MainRunLoop::runUntil([&] { return second.has_value() || first.has_value(); }, 5s);
    MainRunLoop::drain();
    EXPECT_EQ(first, "OFF");
    EXPECT_EQ(second, std::nullopt);
    EXPECT_EQ(platform::SharedDefaults::shared()->value("paused"), platform::Value(false));
}

TEST_F(HandlerTest, AnEmptyTabIsNotEnabledAndNoWindowStillAnswersValidation) {
    startHandler();
    app->openTab(std::nullopt);
    settle();
    EXPECT_FALSE(app->frontWindow()->toolbarItem()->isEnabled());
    EXPECT_EQ(handler->currentPageURL(), std::nullopt);

    std::optional<std::pair<bool, std::string>> answer;
    handler->validateToolbarItemInWindow(nullptr, [&](bool enabled, const std::string& text) {
        answer = std::pair{enabled, text};
    });
    ASSERT_TRUE(MainRunLoop::runUntil([&] { return answer.has_value(); }, 5s));
    EXPECT_EQ(*answer, (std::pair<bool, std::string>{false, ""}));
}

TEST_F(HandlerTest, AnExpiredPauseEndsAtTheNextClickNotBefore) {
    startHandler();
    open("https://example.com/");
    control::PauseStatus::begin(clock);
    clock.advance(61min);
    MainRunLoop::runUntil([] { return false; }, 100ms);
    EXPECT_TRUE(control::PauseStatus::isPaused()) << "nothing ends a pause on its own";
    EXPECT_EQ(reloadsWithoutSaving.load(), 0);

    app->clickToolbarItem(app->frontWindow());
    settle();
    EXPECT_FALSE(control::PauseStatus::isPaused());
    EXPECT_EQ(control::PauseStatus::pausedDate(), std::nullopt);
    EXPECT_EQ(reloadsWithoutSaving.load(), 1);
}

// --- Content-blocker reports -------------------------------------------------------------------

TEST_F(HandlerTest, AReportFromAnUnknownContentBlockerIsDroppedWithItsLine) {
    setShared(std::string(runtime::HistoryStore::userPrefersBadgeToolbarIconKey), true);
    startHandler();
    auto tab = open("https://example.com/");
    tamsel::testing::LogCapture log;
    report({"https://ads.example/a.js"}, tab->page(), "org.other.blocker");
    EXPECT_THAT(log.lines(), ::testing::Contains("Extension with id org.other.blocker not found"));
    EXPECT_THAT(log.lines(),
                ::testing::Contains("[org.other.blocker] blocked: [\"https://ads.example/a.js\"]. PAGE = current"));
    EXPECT_FALSE(history.perPageCount(tab->page()));
    EXPECT_EQ(badge(), "");
}

TEST_F(HandlerTest, ReportsForAPageInAnotherTabDoNotTouchTheBadge) {
    setShared(std::string(runtime::HistoryStore::userPrefersBadgeToolbarIconKey), true);
    startHandler();
    auto background = open("https://one.example/");
    open("https://two.example/");
    tamsel::testing::LogCapture log;
    report({"https://ads.example/a.js"}, background->page());
    EXPECT_THAT(log.lines(), ::testing::Contains(::testing::EndsWith("PAGE = other")));
    EXPECT_THAT(log.lines(), ::testing::Not(::testing::Contains("+++ didChangeBlockedResourcesCount")));
    EXPECT_EQ(history.perPageCount(background->page()), 1U);
    EXPECT_EQ(badge(), "");
}

TEST_F(HandlerTest, ReportsFromManyThreadsWhileSafariValidatesAllCount) {
    setShared(std::string(runtime::HistoryStore::userPrefersBadgeToolbarIconKey), true);
    startHandler();
    auto tab = open("https://news.example/");
    std::vector<std::thread> blockers;
    for (int t = 0; t < 4; ++t)
        blockers.emplace_back([&, t] {
            for (int i = 0; i < 25; ++i) {
                const std::string url = "https://ads.example/" + std::to_string(t) + "/" + std::to_string(i);
                // Each URL reported twice, by two content blockers.
                app->reportBlockedResources(adsIdentifier, {url}, tab->page());
                app->reportBlockedResources(model::bundleIdentifier(model::ExtensionType::blockTrackers), {url},
                                            tab->page());
                if (i % 5 == 0) app->validateToolbarItem(app->frontWindow());
            }
        });
    for (auto& thread : blockers) thread.join();
    EXPECT_EQ(badge(), "100");
}

// --- Page messages and the context menu ------------------------------------------------------

TEST_F(HandlerTest, HideSelectorAddsADomainRuleWithoutWwwToHideElementsAndRebuildsCustom) {
    startHandler();
    for (const std::string url : {"https://www.example.com/a", "https://example.com/b"}) {
        auto tab = open(url);
        app->sendMessageFromPage(tab->page(), "hideSelector", platform::Dictionary{{"sel", platform::Value(".ad")}});
        settle();
    }
    ASSERT_TRUE(tamsel::testing::waitUntil([&] { return hideElementRules().size() == 2; }));
    for (const auto& rule : hideElementRules()) {
        ASSERT_TRUE(rule.blocker.trigger.domainFilter);
        EXPECT_EQ(rule.blocker.trigger.domainFilter->values, std::vector<std::string>{"*example.com"});
        EXPECT_EQ(rule.blocker.action.selector, ".ad");
    }
    EXPECT_THAT(reloads->requests(),
                ::testing::Contains(storage::RecordingExtensionReloading::Request{
                    storage::RecordingExtensionReloading::Request::Kind::one, model::ExtensionType::customRules,
                    false, std::nullopt}));
}

TEST_F(HandlerTest, MessagesThatCannotHideAnythingAddNoRule) {
    startHandler();
    auto page = open("https://example.com/")->page();
    auto empty = open("about:blank")->page();
    tamsel::testing::LogCapture log(false);
    app->sendMessageFromPage(page, "hideSelector", platform::Dictionary{{"sel", platform::Value("")}});
    app->sendMessageFromPage(page, "hideSelector", platform::Dictionary{{"sel", platform::Value(7)}});
    app->sendMessageFromPage(page, "somethingElse", platform::Dictionary{{"sel", platform::Value(".ad")}});
    app->sendMessageFromPage(page, "hideSelector", std::nullopt);
    app->sendMessageFromPage(empty, "hideSelector", platform::Dictionary{{"sel", platform::Value(".ad")}});
    settle();
    MainRunLoop::runUntil([] { return false; }, 200ms);
    EXPECT_TRUE(log.contains("Tamsel Error: Incorrect selector  or domain filter [\"*example.com\"]"));
    EXPECT_TRUE(log.contains("Recieved somethingElse message with Optional([\"sel\": \".ad\"]) params"));
    EXPECT_TRUE(log.contains("Recieved hideSelector message with nil params"));
    EXPECT_TRUE(hideElementRules().empty());
}

TEST_F(HandlerTest, TheSelectorModeCommandSendsShowSelectorToThePage) {
    startHandler();
    auto page = open("https://example.com/")->page();
    app->selectContextMenuCommand("somethingElse", page);
    app->selectContextMenuCommand("invokeSelectorMode", page);
    settle();
    EXPECT_EQ(page->messagesReceived(),
              (std::vector<platform::LocalSafariPage::Message>{{"showSelector", std::nullopt}}));
}

TEST_F(HandlerTest, ClosingThePopoverReloadsThePageWhenAChangeAskedForIt) {
    startHandler();
    auto page = open("https://example.com/")->page();
    app->showPopover(app->frontWindow());
    settle();
    EXPECT_TRUE(handler->isPopoverVisible());
    app->closePopover(app->frontWindow());
    settle();
    EXPECT_FALSE(handler->isPopoverVisible());
    EXPECT_EQ(page->reloadCount(), 0);

    app->showPopover(app->frontWindow());
    settle();
    platform::DispatchQueue::main().async([this] { handler->popover()->setNeedsPageReload(true); });
    app->closePopover(app->frontWindow());
    settle();
    EXPECT_EQ(page->reloadCount(), 1);
    EXPECT_FALSE(handler->popover()->needsPageReload());
}

TEST_F(HandlerTest, ReloadTabAsksTheCurrentPageToReloadIfNeededASecondLater) {
    startHandler();
    auto page = open("https://example.com/")->page();
    setShared(settings::Keys::reloadTab, true);
    platform::SharedDefaults::shared()->deliverPendingChanges();
    ASSERT_TRUE(MainRunLoop::runUntil([&] { return !page->messagesReceived().empty(); }, 5s));
    EXPECT_EQ(page->messagesReceived().front().name, "reloadIfNeeded");
}

// --- Rule updates and sync ----------------------------------------------------------------------

TEST_F(HandlerTest, RuleUpdatesAreCheckedAtMostOncePerTwelveHoursPerProcess) {
    startHandler();
    EXPECT_EQ(updateChecks.load(), 1);
    // A second handler in the same process shares its last check.
    auto second = SafariExtensionHandler::make(collaborators());
    EXPECT_EQ(updateChecks.load(), 1);

    clock.advance(12h + 59min);  // 12 whole hours: not more than 12
    EXPECT_FALSE(handler->checkForRuleUpdatesIfDue());
    clock.advance(1min);
    EXPECT_TRUE(handler->checkForRuleUpdatesIfDue());
    EXPECT_EQ(updateChecks.load(), 2);
    EXPECT_EQ(handler->lastUpdateCheck(), clock.now());

    // Another process starts with no check behind it.
    state = std::make_shared<ProcessState>();
    auto other = SafariExtensionHandler::make(collaborators());
    EXPECT_EQ(updateChecks.load(), 3);
    MainRunLoop::drain();
}

TEST_F(HandlerTest, SyncWaitsWhileTheHostApplicationRunsAndHappensOnceItQuits) {
    hostRunning = true;
    tamsel::testing::LogCapture log;
    startHandler();
    EXPECT_TRUE(log.contains("TamselButton won't sync user rules with CloudKit, because Main app is running."));
    EXPECT_FALSE(handler->didSync());

    platform::Workspace::postDidTerminateApplication("org.other.app");
    MainRunLoop::drain();
    EXPECT_EQ(sync->calls.load(), 0);

    hostRunning = false;
    platform::Workspace::postDidTerminateApplication(settings::MainApp::mainAppBundleID());
    ASSERT_TRUE(MainRunLoop::runUntil([&] { return sync->calls.load() == 1; }, 5s));
    EXPECT_TRUE(log.contains("TamselButton detected that user just stopped the Main Tamsel app"));
    EXPECT_TRUE(handler->didSync());
    EXPECT_EQ(sync->configurableCount.load(), 5U);

    // Once per process.
    handler->syncUserRules();
    platform::Workspace::postDidTerminateApplication(settings::MainApp::mainAppBundleID());
    MainRunLoop::runUntil([] { return false; }, 100ms);
    EXPECT_EQ(sync->calls.load(), 1);
}

TEST_F(HandlerTest, WithoutAHostApplicationSyncStartsAtOnce) {
    startHandler();
    ASSERT_TRUE(tamsel::testing::waitUntil([&] { return sync->calls.load() == 1; }));
    EXPECT_TRUE(handler->didSync());
}

// --- Printed forms ---------------------------------------------------------------------------------

TEST(HandlerPrinting, PrintsAsTheLogLinesExpect) {
    EXPECT_EQ(printedList({}), "[]");
    EXPECT_EQ(printedList({"a", "b"}), "[\"a\", \"b\"]");
    EXPECT_EQ(printedOptionalURL(std::nullopt), "nil");
    EXPECT_EQ(printedOptionalURL("https://x/"), "Optional(https://x/)");
    EXPECT_EQ(printedUserInfo(platform::Dictionary{}), "Optional([:])");
}

}  // namespace
}  // namespace tamsel::handler
