// The statistics view (periods, category folding, the chart's not-enough-data
// rule, notes), the report view with its reporter seam, and the theme and
// alert contracts.
#include "PopoverTestSupport.h"
#include "platform/BuildConfig.h"
#include "runtime/BlockedResource.h"
#include "ui/Texts.h"
#include "ui/Theme.h"

#include <set>

namespace tamsel::ui::testing {
namespace {

using model::ExtensionType;
using runtime::HistoryPeriodType;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class StatisticsTest : public PopoverTest {
protected:
    void insert(std::vector<std::pair<platform::Date, ExtensionType>> entries) {
        std::vector<runtime::BlockedResource> records;
        int n = 0;
        for (const auto& [date, type] : entries) {
            runtime::BlockedResource record;
            record.date = date;
            record.extensionID = std::string(model::rawValue(type));
            record.blockedURL = "https://blocked.example/" + std::to_string(n++);
            record.pageURL = "https://page.example/";
            record.pageDomain = "page.example";
            records.push_back(record);
        }
        store.insert(records, {});
        store.waitUntilWritten();
    }

    BlockingStatsViewController stats(HistoryPeriodType period) {
        return BlockingStatsViewController(period, history, platform::Calendar("UTC"));
    }

    static std::vector<std::optional<std::int64_t>> values(const BlockingStatsViewController& view) {
        std::vector<std::optional<std::int64_t>> found;
        for (const auto& counter : view.categories()) found.push_back(counter.value);
        return found;
    }
};

TEST_F(StatisticsTest, AnEmptyStoreShowsZeroCountersAndTheNotEnoughDataText) {
    for (HistoryPeriodType period : model::allCases<HistoryPeriodType>()) {
        const auto view = stats(period);
        EXPECT_THAT(values(view), ElementsAre(0, 0, 0));
        EXPECT_EQ(view.categories()[0].text, "0");
        EXPECT_TRUE(view.chart().points.empty());
        EXPECT_EQ(view.chart().notEnoughDataText, "Not enough data for a chart yet.");
        EXPECT_FALSE(view.notes().firstBlockedResourceDate.has_value());
    }
    EXPECT_EQ(stats(HistoryPeriodType::allTime).notes().text, "Resources blocked since you started using Tamsel");
}

TEST_F(StatisticsTest, RegionalBlocksCountAsAdsAndCustomRulesAsOthers) {
    insert({{utc(2024, 5, 10, 6), ExtensionType::blockAds},
            {utc(2024, 5, 10, 6), ExtensionType::regionalRules},
            {utc(2024, 5, 10, 7), ExtensionType::blockTrackers},
            {utc(2024, 5, 10, 7), ExtensionType::customRules},
            {utc(2024, 5, 10, 7), ExtensionType::blockSocial},
            {utc(2024, 5, 2, 7), ExtensionType::blockAdult}});
    const auto today = stats(HistoryPeriodType::today);
    EXPECT_THAT(values(today), ElementsAre(2, 1, 2));
    EXPECT_EQ(today.categories()[0].label, "ADS");
    EXPECT_EQ(today.categories()[2].tooltip,
              "Annoyances, social widgets, comments, adult sites and your own rules");
    EXPECT_FALSE(today.categories()[0].tooltip.has_value());
    EXPECT_EQ(today.categories()[1].tint.dark, (Color{190, 0, 0, 255}));
    EXPECT_THAT(values(stats(HistoryPeriodType::allTime)), ElementsAre(2, 1, 3));
}

TEST_F(StatisticsTest, ThePickerChangesThePeriodAndRefusesIndexesOutsideIt) {
    insert({{utc(2024, 5, 9, 12), ExtensionType::blockAds}, {utc(2024, 5, 10, 1), ExtensionType::blockAds}});
    auto view = stats(HistoryPeriodType::allTime);
    const auto picker = view.picker();
    EXPECT_THAT(picker.labels, ElementsAre("All Time", runtime::displayName(HistoryPeriodType::thisWeek),
                                           runtime::displayName(HistoryPeriodType::today)));
    EXPECT_EQ(picker.selectedIndex, 0);
    EXPECT_EQ(view.notes().firstBlockedResourceDate, "May 9, 2024");

    EXPECT_FALSE(view.pickerDidChange(3));
    EXPECT_FALSE(view.pickerDidChange(-1));
    EXPECT_THAT(log.lines(), Contains("Can't change picker selection, index out of range"));
    EXPECT_EQ(view.periodType(), HistoryPeriodType::allTime);

    ASSERT_TRUE(view.pickerDidChange(2));
    EXPECT_THAT(log.lines(), Contains("Picker did change: 2"));
    EXPECT_EQ(view.periodType(), HistoryPeriodType::today);
    EXPECT_THAT(values(view), ElementsAre(1, 0, 0));
    EXPECT_EQ(view.notes().text, "Resources blocked today");
    EXPECT_FALSE(view.notes().firstBlockedResourceDate.has_value());
    // Today's buckets up to 08:30 hold one record: a line can be drawn.
    EXPECT_FALSE(view.chart().notEnoughDataText.has_value());
    EXPECT_TRUE(view.chart().xAxisShowsHoursOnly);
    EXPECT_GE(view.chart().points.size(), 2u);

    ASSERT_TRUE(view.pickerDidChange(1));
    EXPECT_FALSE(view.chart().xAxisShowsHoursOnly);
    EXPECT_EQ(view.chart().points.size(), 7u);
}

TEST_F(StatisticsTest, AChartNeedsTwoPointsAndSomethingBlocked) {
    using Series = runtime::HistoryStore::ChartSeries;
    const runtime::ExtensionCounts none{{ExtensionType::blockAds, 0}};
    const runtime::ExtensionCounts one{{ExtensionType::blockAds, 1}};
    EXPECT_FALSE(BlockingStatsViewController::hasEnoughDataForChart(Series{}));
    EXPECT_FALSE(BlockingStatsViewController::hasEnoughDataForChart(Series{{utc(2024, 1, 1), one}}));
    EXPECT_FALSE(BlockingStatsViewController::hasEnoughDataForChart(
        Series{{utc(2024, 1, 1), none}, {utc(2024, 1, 2), none}}));
    EXPECT_TRUE(BlockingStatsViewController::hasEnoughDataForChart(
        Series{{utc(2024, 1, 1), none}, {utc(2024, 1, 2), one}}));
}

TEST_F(StatisticsTest, AnAllTimeChartAcrossANewYearShowsTheYear) {
    clock.set(utc(2025, 1, 20, 9));
    insert({{utc(2024, 12, 1, 9), ExtensionType::blockAds}, {utc(2025, 1, 19, 9), ExtensionType::blockTrackers}});
    const auto view = stats(HistoryPeriodType::allTime);
    ASSERT_FALSE(view.chart().notEnoughDataText.has_value());
    EXPECT_TRUE(view.chart().xAxisShowsYear);
    EXPECT_LE(view.chart().points.size(), 30u);
    std::int64_t total = 0;
    for (const auto& point : view.chart().points) total += point.total;
    EXPECT_EQ(total, 2);
}

// --- Reports -----------------------------------------------------------------------------------------------

class ScriptedReporter : public Reporter {
public:
    explicit ScriptedReporter(bool succeed) : succeed_(succeed) {}
    void post(const Report& report, Completion completion) override {
        posted.push_back(report);
        platform::DispatchQueue::main().async([completion, succeed = succeed_] {
            completion(succeed, succeed ? std::nullopt : std::optional<std::string>("The network is down"));
        });
    }
    std::vector<Report> posted;

private:
    bool succeed_;
};

class ReportTest : public PopoverTest {
protected:
    std::shared_ptr<ReportSiteViewController> openReporter(std::shared_ptr<Reporter> reporter) {
        ReportSiteViewController::Presenter presenter;
        presenter.currentPageURL = [this] { return delegate->url; };
        presenter.presentAlert = [this](std::shared_ptr<AlertViewController> alert) { popover->presentAlert(alert); };
        return std::make_shared<ReportSiteViewController>(std::move(reporter), std::move(presenter));
    }
};

TEST_F(ReportTest, SendingWithoutATypeOnlySaysSo) {
    platform::setDebugLogsEnabled(true);
    auto reporter = std::make_shared<ScriptedReporter>(true);
    const auto view = openReporter(reporter);
    delegate->open("https://example.com/");
    view->send();
    platform::setDebugLogsEnabled(false);
    EXPECT_TRUE(reporter->posted.empty());
    EXPECT_TRUE(log.contains("Can't report site: reportType is nil"));
    EXPECT_THAT(log.lines(), Contains("Save button did press"));
    EXPECT_FALSE(view->isSending());
}

TEST_F(ReportTest, ASentReportLeavesTheViewReadyForAnother) {
    auto reporter = std::make_shared<ScriptedReporter>(true);
    const auto view = openReporter(reporter);
    delegate->open("https://example.com/broken");
    EXPECT_EQ(view->typeRows().size(), 4u);
    view->chooseReportType(ReportType::emptySpace);
    EXPECT_TRUE(view->typeRows()[2].checked);
    view->send();
    EXPECT_TRUE(view->isSending());
    EXPECT_FALSE(view->sendButtonVisible());
    EXPECT_EQ(view->titleText(), "Sending…");
    ASSERT_TRUE(runUntil([&] { return !view->isSending(); }));
    EXPECT_EQ(view->titleText(), "Thank You! Report Sent");
    EXPECT_FALSE(view->reportType().has_value());
    ASSERT_EQ(reporter->posted.size(), 1u);
    EXPECT_EQ(reporter->posted[0].url, "https://example.com/broken");
    EXPECT_FALSE(reporter->posted[0].comment.has_value());
    EXPECT_TRUE(reporter->posted[0].osVersion.starts_with("macOS "));

    view->chooseReportType(ReportType::otherProblem);
    view->setComment("The video stays black");
    view->send();
    ASSERT_TRUE(runUntil([&] { return !view->isSending(); }));
    ASSERT_EQ(reporter->posted.size(), 2u);
    EXPECT_EQ(reporter->posted[1].comment, "The video stays black");
    EXPECT_EQ(reporter->posted[1].type, ReportType::otherProblem);
}

TEST_F(ReportTest, WithoutAReportServiceTheErrorIsShown) {
    const auto view = openReporter(std::make_shared<LocalReporter>());
    delegate->open("https://example.com/");
    view->chooseReportType(ReportType::brokenSite);
    view->send();
    ASSERT_TRUE(runUntil([&] { return !view->isSending(); }));
    ASSERT_TRUE(popover->presentedAlert());
    EXPECT_EQ(popover->presentedAlert()->messageText(), LocalReporter::unavailable);
    EXPECT_TRUE(log.contains("Posting report Report(type: brokenSite, url: https://example.com/"));
    EXPECT_TRUE(log.contains("Error reporting: "));
    // A failed send keeps the choice for another try.
    EXPECT_EQ(view->reportType(), ReportType::brokenSite);
}

TEST_F(ReportTest, ThePopoversReportRowSendsThroughTheInstalledReporter) {
    auto reporter = std::make_shared<ScriptedReporter>(true);
    Reporter::setShared(reporter);
    openPage("https://example.com/page");
    ASSERT_TRUE(popover->clickRow(SafariExtensionViewController::CellID::reportProblem));
    const auto view = child<ReportSiteViewController>();
    ASSERT_TRUE(view);
    view->chooseReportType(ReportType::somethingNotBlocked);
    changes.clear();
    view->send();
    ASSERT_TRUE(runUntil([&] { return !view->isSending(); }));
    Reporter::setShared(nullptr);
    ASSERT_EQ(reporter->posted.size(), 1u);
    EXPECT_EQ(reporter->posted[0].url, "https://example.com/page");
    EXPECT_THAT(changes, Contains(PopoverChange::children));
    EXPECT_EQ(Reporter::containerIdentifier(), std::string("iCloud.") + build::baseIdentifier + ".Report");
    view->dismiss();
    EXPECT_FALSE(popover->presentedChild());
}

// --- Theme, alerts and texts --------------------------------------------------------------------------------

TEST(ThemeTest, BothThemesGiveEveryRoleALightAndADarkColour) {
    const DefaultTheme defaultTheme;
    const SystemTheme systemTheme;
    for (const Theme* theme : {static_cast<const Theme*>(&defaultTheme), static_cast<const Theme*>(&systemTheme)}) {
        for (ColorRole role : model::allCases<ColorRole>()) {
            const auto colors = theme->colors(role);
            ASSERT_FALSE(colors.empty()) << model::rawValue(role);
            if (role == ColorRole::firewallIconGradientColors) {
                EXPECT_GE(colors.size(), 2u);
            }
        }
        // Text must stand out from the background in either appearance.
        const auto background = theme->color(ColorRole::primaryBackground);
        const auto text = theme->color(ColorRole::primaryText);
        EXPECT_NE(background.light, background.dark) << theme->name();
        EXPECT_NE(text.light.red, background.light.red);
        EXPECT_NE(text.dark.red, background.dark.red);
    }
    EXPECT_EQ(defaultTheme.titleFont().face, "Circular-Medium");
    EXPECT_EQ(defaultTheme.titleFont().pointSize, 17);
    EXPECT_EQ(defaultTheme.bodyFont().face, "Circular-Book");
    EXPECT_EQ(systemTheme.titleFont().family, FontFamily::system);
    EXPECT_EQ(systemTheme.titleFont().style, FontStyle::medium);
    EXPECT_EQ((Color{255, 149, 0, 255}).hex(), "#FF9500");
    EXPECT_EQ((Color{0, 0, 0, 128}).hex(), "#00000080");

    Themes::setCurrent(std::make_shared<SystemTheme>());
    EXPECT_EQ(Themes::current()->name(), "system");
    Themes::installDefault();
    EXPECT_EQ(Themes::current()->name(), "default");
}

TEST(AlertTest, WithoutCancelTextOnlyTheOKButtonShowsAndEachActionRunsOnce) {
    int oks = 0;
    AlertViewController alert("T", "M", std::nullopt, [&] { ++oks; });
    EXPECT_FALSE(alert.showCancelButton());
    EXPECT_EQ(alert.okButtonText(), "OK");
    alert.pressOK();
    alert.pressOK();
    alert.pressCancel();
    EXPECT_EQ(oks, 1);

    const CustomFadePresentationAnimator animator;
    EXPECT_EQ(animator.animationDuration, 0.3);
    const CustomFadePresentationAnimator::Rect frame{10, 20, 300, 400};
    EXPECT_EQ(animator.offscreen(frame), (CustomFadePresentationAnimator::Frame{{310, 20, 300, 400}, 0}));
    const CustomFadePresentationAnimator upward{0.3, CustomFadePresentationAnimator::Direction::bottomToTop};
    EXPECT_EQ(upward.offscreen(frame).rect.y, 420);
    EXPECT_EQ(animator.onscreen(frame), (CustomFadePresentationAnimator::Frame{frame, 1}));
}

TEST(TextsTest, CountersAreGroupedByThousands) {
    EXPECT_EQ(formattedCount(0), "0");
    EXPECT_EQ(formattedCount(999), "999");
    EXPECT_EQ(formattedCount(1000), "1,000");
    EXPECT_EQ(formattedCount(1234567), "1,234,567");
    EXPECT_EQ(formattedCount(-4500), "-4,500");
    EXPECT_EQ(formattedCount(INT64_MIN), "-9,223,372,036,854,775,808");
    EXPECT_EQ(uppercased("Actions on www.é.com"), "ACTIONS ON WWW.é.COM");
}

}  // namespace
}  // namespace tamsel::ui::testing
