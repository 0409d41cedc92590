// The main popover: its flattened table and texts, the alert for a page
// without a host, one child at a time, the make-HTTPS and pause switches
// with every outcome, the counters, the help rows and the feedback mail.
#include <algorithm>

#include "PopoverTestSupport.h"
#include "control/PauseStatus.h"
#include "model/SiteRules.h"
#include "runtime/BlockedResource.h"
#include "settings/App.h"
#include "settings/MainApp.h"
#include "ui/FeedbackMail.h"

namespace tamsel::ui::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using CellID = SafariExtensionViewController::CellID;
using Row = SafariExtensionViewController::Row;

std::vector<std::string> ids(const std::vector<Row>& rows) {
    std::vector<std::string> found;
    for (const Row& row : rows) found.push_back(row.id);
    return found;
}

std::string percentDecoded(const std::string& text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            decoded += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

// --- The table ---------------------------------------------------------------------------------------

TEST_F(PopoverTest, SectionsFlattenIntoHeadersAndRowsWithTheTablesTexts) {
    openPage("https://www.example.com/story");
    const auto rows = popover->rows();
    EXPECT_THAT(ids(rows), ElementsAre("domainName", "actionsHeader", "pause", "whitelist", "blockedResources",
                                       "visualEditor", "makeHttps", "statsHeader", "blockedCounters", "helpHeader",
                                       "faq", "reportProblem", "contact"));
    EXPECT_EQ(rows[0].title, "Tamsel");
    EXPECT_EQ(rows[1].title, "ACTIONS ON WWW.EXAMPLE.COM");
    EXPECT_TRUE(rows[1].smallTopOffset);
    EXPECT_FALSE(rows[7].smallTopOffset);
    // Only the statistics header has its button.
    ASSERT_TRUE(rows[7].button.has_value());
    EXPECT_EQ(rows[7].button->image, "chart.bar-MacIcon");
    EXPECT_FALSE(rows[1].button.has_value());
    EXPECT_FALSE(rows[9].button.has_value());

    EXPECT_EQ(row("pause").title, "Pause Blocking");
    EXPECT_EQ(row("pause").description, "Turn blocking off for an hour");
    EXPECT_EQ(row("pause").switchOn, false);
    EXPECT_EQ(row("reportProblem").icon, "report-MacIcon");
    EXPECT_FALSE(row("faq").description.has_value());
    EXPECT_FALSE(row("blockedResources").switchOn.has_value());

    // A section's first row is not selectable; the others are.
    EXPECT_FALSE(popover->shouldSelectRow(0));
    EXPECT_FALSE(popover->shouldSelectRow(1));
    EXPECT_TRUE(popover->shouldSelectRow(2));
    EXPECT_FALSE(popover->shouldSelectRow(13));
}

TEST_F(PopoverTest, APageWithoutHostShowsTheNoDomainAlertOnce) {
    openPage("about:blank");
    auto alert = popover->presentedAlert();
    ASSERT_TRUE(alert);
    EXPECT_EQ(alert->titleText(), "Something Went Wrong");
    EXPECT_EQ(alert->messageText(), "Open a website to use these actions.");
    EXPECT_FALSE(alert->showCancelButton());
    EXPECT_EQ(row("actionsHeader").title, "ACTIONS ON ");

    // Validation refreshes again and again: the alert is not stacked.
    popover->refreshForCurrentPage();
    EXPECT_EQ(popover->presentedViewControllers().size(), 1u);

    // A file page has no host either; without a delegate there is no page at all.
    ASSERT_TRUE(popover->alertOK());
    openPage("file:///tmp/page.html");
    EXPECT_TRUE(popover->presentedAlert());
    ASSERT_TRUE(popover->alertOK());
    popover->setDelegate({});
    popover->refreshForCurrentPage();
    EXPECT_TRUE(popover->presentedAlert());
}

TEST_F(PopoverTest, RefreshReadsTheSitesRulesAndClearsThePageReload) {
    manager.setConfigurablePackages(
        {model::Package("whitelist", "Whitelist", {*model::makeWhitelistRule({"example.com"}, "W1", "example.com", {})}),
         model::Package("make-https", "Make HTTPS-only", {*model::makeHttpsRule({"example.com"}, "H1", "example.com")})});
    popover->setNeedsPageReload(true);
    openPage("https://example.com/");
    EXPECT_EQ(popover->isCurrentDomainWhitelisted(), true);
    EXPECT_EQ(popover->originalWhitelistRule()->id, "W1");
    EXPECT_EQ(popover->isCurrentDomainForcedHttps(), true);
    EXPECT_EQ(popover->makeHttpsRule()->id, "H1");
    EXPECT_EQ(row("makeHttps").switchOn, true);
    EXPECT_FALSE(popover->needsPageReload());
    EXPECT_THAT(changes, Contains(PopoverChange::rows));

    openPage("https://other.example/");
    EXPECT_EQ(popover->isCurrentDomainWhitelisted(), false);
    EXPECT_FALSE(popover->originalWhitelistRule());
}

TEST_F(PopoverTest, RefreshWhileThePopoverIsHiddenDismissesEveryChild) {
    openPage("https://example.com/");
    ASSERT_TRUE(popover->clickRow(CellID::whitelist));
    ASSERT_TRUE(child<WhitelistViewController>());
    delegate->visible = false;
    popover->refreshForCurrentPage();
    EXPECT_FALSE(popover->presentedChild());
    EXPECT_TRUE(log.contains("Dismissing Whitelist"));
}

// --- One child at a time ----------------------------------------------------------------------------------

TEST_F(PopoverTest, ASecondClickWhileTheEditorIsOpenIsIgnoredWithItsLine) {
    openPage("https://example.com/");
    ASSERT_TRUE(popover->clickRow(CellID::whitelist));
    ASSERT_TRUE(child<WhitelistViewController>());
    changes.clear();

    const auto second = popover->clickRow(CellID::faq);
    ASSERT_FALSE(second);
    EXPECT_FALSE(second.error().empty());
    EXPECT_THAT(log.lines(), Contains("Ignoring the click: there are already presented: [<WhitelistViewController>]"));
    EXPECT_THAT(actions->browsed, IsEmpty());
    EXPECT_FALSE(popover->counterDidTap(runtime::HistoryPeriodType::today));
    EXPECT_FALSE(popover->switchRow(CellID::pause, true));
    EXPECT_FALSE(control::PauseStatus::isPaused());
    EXPECT_EQ(popover->presentedViewControllers().size(), 1u);
    EXPECT_THAT(changes, IsEmpty());

    // Its dismiss button frees the popover again.
    child<WhitelistViewController>()->dismissButtonDidPress();
    EXPECT_THAT(log.lines(), Contains("Dismissing Whitelist"));
    EXPECT_TRUE(popover->clickRow(CellID::faq));
    EXPECT_THAT(actions->browsed, ElementsAre("https://tamsel.app/support"));
}

TEST_F(PopoverTest, ClosingThePopoverDismissesEachKindWithItsLine) {
    openPage("https://example.com/");
    ASSERT_TRUE(popover->clickRow(CellID::reportProblem));
    popover->presentAlert(std::make_shared<AlertViewController>("Title", "Message"));
    popover->dismissAllChildViews();
    EXPECT_TRUE(popover->presentedViewControllers().empty());
    const auto lines = log.lines();
    EXPECT_THAT(lines, Contains("Dismissing Alert (<AlertViewController: Title>"));
    EXPECT_THAT(lines, Contains("Dismissing Site Reporter"));
    EXPECT_FALSE(log.contains("Dismissing Blocking Stats"));
    EXPECT_FALSE(popover->alertOK());
}

TEST_F(PopoverTest, UnknownRowsAndRowsWithoutSwitchesAreRefused) {
    openPage("https://example.com/");
    EXPECT_FALSE(popover->tableViewDidClick(-1));
    EXPECT_FALSE(popover->tableViewDidClick(99));
    EXPECT_FALSE(popover->switchRow(CellID::whitelist, true));
    // Headers and the domain row do nothing.
    EXPECT_TRUE(popover->tableViewDidClick(0));
    EXPECT_TRUE(popover->tableViewDidClick(1));
    EXPECT_TRUE(popover->presentedViewControllers().empty());
}

// --- Make HTTPS ----------------------------------------------------------------------------------------------------

TEST_F(PopoverTest, MakeHttpsOnAnIPAddressRevertsTheSwitchWithTheInvalidDomainAlert) {
    openPage("http://192.168.1.20/admin");
    popover->makeHTTPSSwitchDidChange(true);
    platform::MainRunLoop::drain();
    EXPECT_EQ(row("makeHttps").switchOn, false);
    EXPECT_EQ(popover->isCurrentDomainForcedHttps(), false);
    const auto alert = popover->presentedAlert();
    ASSERT_TRUE(alert);
    EXPECT_EQ(alert->titleText(), "Invalid Domain");
    EXPECT_EQ(alert->messageText(), "HTTPS can't be forced on this site because its domain isn't valid.");
    EXPECT_TRUE(log.contains("Can't save rule: domain invalid"));
    EXPECT_TRUE(configurable("make-https")->rules.empty());
    EXPECT_TRUE(reloads->requests().empty());
}

TEST_F(PopoverTest, MakeHttpsAddsAndRemovesTheSitesRule) {
    openPage("https://www.Example.com/");
    popover->makeHTTPSSwitchDidChange(true);
    ASSERT_TRUE(runUntil([&] { return log.contains("Added www.example.com to Make HTTPS"); }));
    EXPECT_EQ(row("makeHttps").switchOn, true);
    EXPECT_TRUE(popover->needsPageReload());
    EXPECT_EQ(configurable("make-https")->rules.size(), 1u);
    EXPECT_TRUE(platform::SharedDefaults::shared()->boolValue("ActionExtensionCreatedRuleKey"));
    EXPECT_FALSE(popover->presentedAlert());

    popover->makeHTTPSSwitchDidChange(false);
    EXPECT_FALSE(popover->needsPageReload());
    ASSERT_TRUE(runUntil([&] { return log.contains("Removed www.example.com from Make HTTPS"); }));
    EXPECT_EQ(row("makeHttps").switchOn, false);
    EXPECT_TRUE(configurable("make-https")->rules.empty());
    EXPECT_TRUE(popover->needsPageReload());

    // Nothing left to remove.
    popover->makeHTTPSSwitchDidChange(false);
    platform::MainRunLoop::drain();
    EXPECT_TRUE(log.contains("Can't unforce https: domain or rule doesn't exist"));
    ASSERT_TRUE(popover->presentedAlert());
    EXPECT_EQ(popover->presentedAlert()->messageText(), "This site has no Make HTTPS rule to remove.");
}

TEST_F(PopoverTest, ASwitchedOffMakeHttpsListIsNamedBeforeTheDomain) {
    disablePackage("make-https");
    openPage("http://10.0.0.1/");
    popover->makeHTTPSSwitchDidChange(true);
    ASSERT_TRUE(popover->presentedAlert());
    EXPECT_EQ(popover->presentedAlert()->titleText(), "Make HTTPS Is Turned Off");
    EXPECT_FALSE(log.contains("Can't save rule: domain invalid"));
    EXPECT_EQ(row("makeHttps").switchOn, false);
}

TEST_F(PopoverTest, RemovingHttpsFromAnInvalidHostSaysSo) {
    openPage("http://[::1]:8080/");
    popover->makeHTTPSSwitchDidChange(false);
    EXPECT_TRUE(log.contains("Can't remove rule: domain invalid"));
    ASSERT_TRUE(popover->presentedAlert());
    EXPECT_EQ(popover->presentedAlert()->messageText(),
              "HTTPS can't be turned off for this site because its domain isn't valid.");
}

// --- Pause ---------------------------------------------------------------------------------------------------------------

TEST_F(PopoverTest, ThePauseDescriptionCountsDownAndDisappears) {
    openPage("https://example.com/");
    control::PauseStatus::begin(clock);
    EXPECT_EQ(row("pause").switchOn, true);
    EXPECT_EQ(row("pause").description, "Paused for 60 more minutes");
    clock.advance(std::chrono::minutes(25) + std::chrono::seconds(30));
    EXPECT_EQ(row("pause").description, "Paused for 35 more minutes");
    clock.advance(std::chrono::minutes(34));
    EXPECT_EQ(row("pause").description, "Paused for 1 more minutes");
    clock.advance(std::chrono::seconds(30));
    // The hour is over: the ordinary row, although nobody has ended the pause yet.
    EXPECT_TRUE(control::PauseStatus::isPaused());
    EXPECT_EQ(row("pause").switchOn, false);
    EXPECT_EQ(row("pause").description, "Turn blocking off for an hour");
}

TEST_F(PopoverTest, ThePauseSwitchPausesReloadsAndAsksForAPageReload) {
    openPage("https://example.com/");
    popover->setNeedsPageReload(true);
    ASSERT_TRUE(popover->switchRow(CellID::pause, true));
    EXPECT_FALSE(popover->needsPageReload());
    EXPECT_TRUE(control::PauseStatus::isPaused());
    ASSERT_TRUE(runUntil([&] { return log.contains("Successfuly aplied new pause state"); }));
    EXPECT_TRUE(popover->needsPageReload());
    EXPECT_THAT(log.lines(), Contains("pauseBlockingSwitchDidChange: true"));
    EXPECT_FALSE(safari->reloads().empty());

    ASSERT_TRUE(popover->switchRow(CellID::pause, false));
    EXPECT_FALSE(control::PauseStatus::isPaused());
    EXPECT_FALSE(control::PauseStatus::pausedDate());
    EXPECT_THAT(log.lines(), Contains("pauseBlockingSwitchDidChange: false"));
}

TEST_F(PopoverTest, AFailedPauseReloadShowsTheErrorAndKeepsThePause) {
    openPage("https://example.com/");
    safari->failNext(control::ExtensionManager::extensionID(model::ExtensionType::blockAds), 1, 1);
    popover->pauseBlockingSwitchDidChange(true);
    ASSERT_TRUE(runUntil([&] { return popover->presentedAlert() != nullptr; }));
    EXPECT_EQ(popover->presentedAlert()->titleText(), "Something Went Wrong");
    EXPECT_TRUE(log.contains("Error in saving and/or reloading: "));
    EXPECT_FALSE(popover->needsPageReload());
    EXPECT_TRUE(control::PauseStatus::isPaused());
}

// --- Counters and child views -------------------------------------------------------------------------------------------

TEST_F(PopoverTest, CountersShowTheTotalsAndOpenTheStatisticsOnTheirPeriod) {
    std::vector<runtime::BlockedResource> records;
    for (int i = 0; i < 1200; ++i) {
        runtime::BlockedResource record;
        record.date = utc(2024, 5, i < 200 ? 10 : 1, 7);
        record.extensionID = "block-ads";
        record.blockedURL = "https://ads.example/" + std::to_string(i);
        record.pageURL = "https://news.example/";
        record.pageDomain = "news.example";
        records.push_back(record);
    }
    bool written = false;
    store.insert(records, [&](const auto&) { written = true; });
    store.waitUntilWritten();
    ASSERT_TRUE(written);

    openPage("https://example.com/");
    const auto counters = row("blockedCounters").counters;
    ASSERT_EQ(counters.size(), 3u);
    EXPECT_EQ(counters[0].id, "today");
    EXPECT_EQ(counters[0].value, 200);
    EXPECT_EQ(counters[1].label, "This Week");
    EXPECT_EQ(counters[2].text, "1,200");
    EXPECT_EQ(counters[2].description, "Resources blocked since you started using Tamsel");

    ASSERT_TRUE(popover->blockedResourcesCounterForTodayDidTap());
    ASSERT_TRUE(child<BlockingStatsViewController>());
    EXPECT_EQ(child<BlockingStatsViewController>()->periodType(), runtime::HistoryPeriodType::today);
    EXPECT_EQ(child<BlockingStatsViewController>()->picker().selectedIndex, 2);
    EXPECT_THAT(log.lines(), Contains("blockedResourcesCounterForTodayDidTap"));
    popover->dismissBlockingStats();
    EXPECT_THAT(log.lines(), Contains("Dismissing Blocking Stats"));

    ASSERT_TRUE(popover->showBlockingReportButtonDidTap());
    EXPECT_EQ(child<BlockingStatsViewController>()->periodType(), runtime::HistoryPeriodType::allTime);
    EXPECT_THAT(log.lines(), Contains("showBlockingStatsButtonDidTap"));
}

TEST_F(PopoverTest, TheBlockedHistoryNeedsThePagesRecords) {
    openPage("https://news.example/");
    EXPECT_FALSE(popover->clickRow(CellID::blockedResources));
    EXPECT_FALSE(popover->presentedChild());

    bool saved = false;
    history.addRecords({"https://ads.example/a.js", "https://ads.example/b.js"}, delegate->page,
                       model::ExtensionType::blockAds, [&] { saved = true; });
    history.addRecords({"https://t.example/p.gif"}, delegate->page, model::ExtensionType::blockTrackers);
    ASSERT_TRUE(runUntil([&] { return saved && history.perPageCount(delegate->page) == 3u; }));

    ASSERT_TRUE(popover->clickRow(CellID::blockedResources));
    const auto view = child<BlockedHistoryViewController>();
    ASSERT_TRUE(view);
    const auto sections = view->sections();
    ASSERT_EQ(sections.size(), 2u);
    EXPECT_EQ(sections[0].title, "Ads");
    EXPECT_THAT(sections[0].urls, ElementsAre("https://ads.example/a.js", "https://ads.example/b.js"));
    EXPECT_EQ(sections[1].extension, model::ExtensionType::blockTrackers);

    // The badge switch stores the preference and asks for a new badge.
    EXPECT_FALSE(view->badgeSwitchOn());
    changes.clear();
    view->badgeSwitchDidChange(true);
    EXPECT_TRUE(platform::SharedDefaults::shared()->boolValue("userPrefersBadgeToolbarIconKey"));
    EXPECT_TRUE(view->badgeSwitchOn());
    EXPECT_THAT(changes, Contains(PopoverChange::badge));
    EXPECT_THAT(log.lines(), Contains("Changed show badge counter preference to true"));

    // Another page's records are its own.
    EXPECT_FALSE(popover->showBlockedHistory());
}

TEST_F(PopoverTest, TheVisualEditorRowHandsThePageToTheHostApplication) {
    openPage("https://example.com/gallery");
    ASSERT_TRUE(popover->clickRow(CellID::visualEditor));
    EXPECT_THAT(log.lines(), Contains("Visual Editor did press"));
    EXPECT_TRUE(settings::App::mustShowVisualEditor());
    EXPECT_EQ(settings::App::mustShowVisualEditorURL(), "https://example.com/gallery");
    EXPECT_THAT(actions->launched, ElementsAre(settings::MainApp::mainAppBundleID()));
}

TEST_F(PopoverTest, FeedbackAsksFirstThenOpensTheMailWithTheDiagnosticBlock) {
    manager.setGeneralPackages({model::Package("block-ads", "Ads", {}), model::Package("block-trackers", "Trackers", {})});
    disablePackage("block-trackers");
    platform::SharedDefaults::shared()->set(platform::Value(std::string("2024-05-01")), "localVersion");
    openPage("https://example.com/a?b=c&d=e");
    ASSERT_TRUE(popover->clickRow(CellID::contact));
    const auto alert = popover->presentedAlert();
    ASSERT_TRUE(alert);
    EXPECT_EQ(alert->titleText(), "We'd Love to Hear from You");
    EXPECT_EQ(alert->okButtonText(), "Write Mail");
    EXPECT_TRUE(actions->mailed.empty());

    ASSERT_TRUE(popover->alertOK());
    ASSERT_EQ(actions->mailed.size(), 1u);
    const std::string& link = actions->mailed.front();
    ASSERT_TRUE(link.starts_with("mailto:support@tamsel.app?subject=Tamsel%20Feedback&body=")) << link;
    // The page's query cannot end the body early.
    EXPECT_EQ(std::count(link.begin(), link.end(), '&'), 1);
    const std::string body = percentDecoded(link.substr(link.find("&body=") + 6));
    EXPECT_TRUE(body.starts_with("Dear developer,\n\n\n\n\n\n\n\nWith love,\n\nTamsel ")) << body;
    EXPECT_THAT(body, HasSubstr(" (Build "));
    EXPECT_THAT(body, HasSubstr("\nmacOS "));
    EXPECT_THAT(body, HasSubstr("\nRule version: 2024-05-01"));
    EXPECT_THAT(body, HasSubstr("\nUID: " + FeedbackMail::userIdentifier()));
    EXPECT_THAT(body, HasSubstr("\nSent from: Toolbar Extension"));
    EXPECT_THAT(body, HasSubstr("\nPage URL: https://example.com/a?b=c&d=e"));
    EXPECT_THAT(body, HasSubstr("GENERAL\nAds [on]\nTrackers [off]"));
    EXPECT_THAT(body, HasSubstr("\nWhitelist [on]"));
    EXPECT_THAT(body, ::testing::Not(HasSubstr("Original app version")));
}

TEST_F(PopoverTest, FeedbackWithoutAMailAddressOnlyLogs) {
    SafariExtensionViewController::Collaborators collaborators;
    collaborators.dataManager = &manager;
    collaborators.history = &history;
    collaborators.systemActions = actions;
    collaborators.supportAddress = "nobody";
    const auto other = SafariExtensionViewController::create(collaborators);
    other->setDelegate(delegate);
    delegate->open("https://example.com/");
    ASSERT_TRUE(other->clickRow(CellID::contact));
    EXPECT_FALSE(other->presentedAlert());
    EXPECT_TRUE(log.contains("Error sending email: can't convert string Dear developer,"));
}

TEST_F(PopoverTest, TheRuleChangersPromptAsksOverThePopover) {
    openPage("https://example.com/");
    const auto question = control::RuleChanger::enablePackageQuestion(*configurable("whitelist"));
    std::optional<bool> answer;
    popover->prompt()->askToEnablePackage(question, [&](bool confirmed) { answer = confirmed; });
    const auto alert = popover->presentedAlert();
    ASSERT_TRUE(alert);
    EXPECT_TRUE(alert->showCancelButton());
    EXPECT_EQ(alert->cancelButtonText(), "Later");
    EXPECT_EQ(alert->okButtonText(), "Turn On");
    ASSERT_TRUE(popover->alertCancel());
    EXPECT_EQ(answer, false);
    EXPECT_FALSE(popover->alertCancel());
}

}  // namespace
}  // namespace tamsel::ui::testing
