#include "runtime/CategoryCounts.h"
#include "runtime/HistoryStore.h"

#include "HistoryTestSupport.h"
#include "support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

namespace tamsel::runtime {
namespace {

using model::ExtensionType;
using platform::Date;
using testing::at;
using testing::record;
using namespace std::chrono_literals;

// Statistics in Berlin, whose 2024 days of 31 March and 27 October last 23
// and 25 hours.
class HistoryStatisticsTest : public ::testing::Test {
protected:
    void standAt(int y, unsigned m, unsigned d, int h, int mi, int s = 0) { clock.set(at(berlin, y, m, d, h, mi, s)); }

    void insert(const std::vector<std::pair<Date, ExtensionType>>& records) {
        std::vector<BlockedResource> batch;
        for (const auto& [date, type] : records) batch.push_back(record(date, type));
        ASSERT_TRUE(testing::insertNow(store, batch));
    }

    Date local(int y, unsigned m, unsigned d, int h = 0, int mi = 0, int s = 0) const {
        return at(berlin, y, m, d, h, mi, s);
    }

    static std::vector<Date> keys(const HistoryStore::ChartSeries& series) {
        std::vector<Date> result;
        for (const auto& [start, counts] : series) result.push_back(start);
        return result;
    }

    static std::vector<std::int64_t> totals(const HistoryStore::ChartSeries& series) {
        std::vector<std::int64_t> result;
        for (const auto& [start, counts] : series) result.push_back(total(counts));
        return result;
    }

    platform::Calendar berlin{"Europe/Berlin"};
    tamsel::testing::TemporaryDirectory directory;
    platform::ManualClock clock{testing::utc(2024, 5, 10, 10)};
    CoreDataStore store{directory.path(), clock};
    HistoryStore history{store, {.clock = &clock, .calendar = berlin, .reloadWidgets = {}}};
};

TEST_F(HistoryStatisticsTest, AtHalfPastMidnightTheTodaySeriesHasOneTwoHourBucket) {
    standAt(2024, 5, 10, 0, 30);
    insert({{local(2024, 5, 9, 23, 59, 59), ExtensionType::blockAds},
            {local(2024, 5, 10), ExtensionType::blockAds},
            {local(2024, 5, 10, 1, 59, 59) + 999ms, ExtensionType::blockTrackers},
            {local(2024, 5, 10, 2), ExtensionType::blockTrackers}});

    auto series = history.averageBlockedPerDayPerExtensionForToday();
    ASSERT_TRUE(series);
    ASSERT_EQ(series->size(), 1U);
    EXPECT_EQ(series->begin()->first, local(2024, 5, 10));
    EXPECT_EQ(series->begin()->second,
              (ExtensionCounts{{ExtensionType::blockAds, 1}, {ExtensionType::blockTrackers, 1}}));
}

TEST_F(HistoryStatisticsTest, AtTenPastElevenTheTodaySeriesHasTwelveBuckets) {
    standAt(2024, 5, 10, 23, 10);
    insert({{local(2024, 5, 10, 1), ExtensionType::blockAds}, {local(2024, 5, 10, 22, 30), ExtensionType::blockAds}});
    auto series = history.averageBlockedPerDayPerExtensionForToday();
    ASSERT_TRUE(series);
    ASSERT_EQ(series->size(), 12U);
    std::vector<Date> expected;
    for (int i = 0; i < 12; ++i) expected.push_back(local(2024, 5, 10, 2 * i));
    EXPECT_EQ(keys(*series), expected);
    EXPECT_EQ(totals(*series), (std::vector<std::int64_t>{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
}

TEST_F(HistoryStatisticsTest, TodaySeriesCountsElapsedHoursOnDaylightSavingDays) {
    // 31 March has 23 hours: 22 have passed at 23:10, and the two-hour steps
    // land on 03:00, 05:00, ... after the skipped hour.
    standAt(2024, 3, 31, 23, 10);
    auto spring = history.averageBlockedPerDayPerExtensionForToday();
    ASSERT_TRUE(spring);
    ASSERT_EQ(spring->size(), 12U);
    EXPECT_EQ(keys(*spring)[1], local(2024, 3, 31, 3));
    EXPECT_EQ(keys(*spring)[11], local(2024, 3, 31, 23));

    // 27 October has 25 hours: at 23:10 the twelve buckets end an hour
    // before midnight, and the last hour of the day falls outside them.
    standAt(2024, 10, 27, 23, 10);
    insert({{local(2024, 10, 27, 22, 30), ExtensionType::blockAds},
            {local(2024, 10, 27, 23, 5), ExtensionType::blockAds}});
    auto autumn = history.averageBlockedPerDayPerExtensionForToday();
    ASSERT_TRUE(autumn);
    ASSERT_EQ(autumn->size(), 12U);
    EXPECT_EQ(keys(*autumn)[11], local(2024, 10, 27, 21));
    auto autumnTotals = totals(*autumn);
    EXPECT_EQ(std::accumulate(autumnTotals.begin(), autumnTotals.end(), std::int64_t{0}), 1);
    EXPECT_EQ(history.blockedResourcesCountForToday(), 2);
}

TEST_F(HistoryStatisticsTest, RecordInTheLastSecondOfADayCountsInNoDay) {
    standAt(2024, 5, 10, 23, 59, 59);
    clock.advance(700ms);
    insert({{local(2024, 5, 10, 23, 59, 58) + 999ms, ExtensionType::blockAds},
            {local(2024, 5, 10, 23, 59, 59) + 500ms, ExtensionType::blockTrackers},
            {local(2024, 5, 8, 23, 59, 59), ExtensionType::blockTrackers}});

    EXPECT_EQ(history.sumBlockedResourcesPerExtensionForToday(), (ExtensionCounts{{ExtensionType::blockAds, 1}}));
    EXPECT_EQ(history.blockedResourcesCountForAllTime(), 3);
    // The week is one interval: only today's last second is outside it, while
    // the day buckets leave out the last second of every day.
    EXPECT_EQ(history.sumBlockedResourcesPerExtensionForThisWeek(),
              (ExtensionCounts{{ExtensionType::blockAds, 1}, {ExtensionType::blockTrackers, 1}}));
    auto week = history.averageBlockedPerDayPerExtensionForThisWeek();
    ASSERT_TRUE(week);
    EXPECT_EQ(totals(*week), (std::vector<std::int64_t>{0, 0, 0, 0, 0, 0, 1}));
    // The today series runs in whole two-hour steps to midnight.
    auto today = history.averageBlockedPerDayPerExtensionForToday();
    ASSERT_TRUE(today);
    EXPECT_EQ(today->rbegin()->second, (ExtensionCounts{{ExtensionType::blockAds, 1}, {ExtensionType::blockTrackers, 1}}));
}

TEST_F(HistoryStatisticsTest, WeekCoversSevenCalendarDaysAcrossTheChangeToSummerTime) {
    standAt(2024, 4, 2, 12, 0);
    EXPECT_EQ(history.weekAgoStart(), local(2024, 3, 27));
    insert({{local(2024, 3, 26, 23, 59), ExtensionType::blockAds},       // before the week
            {local(2024, 3, 27), ExtensionType::blockAds},               // first moment of it
            {local(2024, 3, 31, 1, 59), ExtensionType::blockSocial},     // before the skipped hour
            {local(2024, 3, 31, 23, 30), ExtensionType::blockSocial},    // late on the 23-hour day
            {local(2024, 3, 31, 23, 59, 59), ExtensionType::blockSocial},  // its last second
            {local(2024, 4, 2, 11), ExtensionType::blockAdult}});

    auto week = history.averageBlockedPerDayPerExtensionForThisWeek();
    ASSERT_TRUE(week);
    std::vector<Date> midnights;
    for (unsigned day : {27u, 28u, 29u, 30u, 31u}) midnights.push_back(local(2024, 3, day));
    for (unsigned day : {1u, 2u}) midnights.push_back(local(2024, 4, day));
    EXPECT_EQ(keys(*week), midnights);
    EXPECT_EQ(totals(*week), (std::vector<std::int64_t>{1, 0, 0, 0, 2, 0, 1}));
    EXPECT_EQ(history.sumBlockedResourcesPerExtensionForThisWeek(),
              (ExtensionCounts{{ExtensionType::blockAds, 1}, {ExtensionType::blockSocial, 3},
                               {ExtensionType::blockAdult, 1}}));
}

TEST_F(HistoryStatisticsTest, WeekHoldsTheTwentyFiveHourDayWhole) {
    standAt(2024, 10, 29, 9, 0);
    insert({{local(2024, 10, 27, 2, 30), ExtensionType::blockComments},   // the first of two 02:30s
            {local(2024, 10, 27, 23, 30), ExtensionType::blockComments}});
    auto week = history.averageBlockedPerDayPerExtensionForThisWeek();
    ASSERT_TRUE(week);
    ASSERT_EQ(week->size(), 7U);
    EXPECT_EQ(keys(*week)[4], local(2024, 10, 27));
    EXPECT_EQ(keys(*week)[5] - keys(*week)[4], 25h);
    EXPECT_EQ(totals(*week)[4], 2);
}

TEST_F(HistoryStatisticsTest, FortyFiveDaysOfHistoryMakeThirtyBucketsOfTwoDays) {
    // From before the change to summer time to after it.
    standAt(2024, 5, 10, 12, 0);
    insert({{local(2024, 3, 26, 10), ExtensionType::blockAds},
            {local(2024, 3, 27, 23, 59, 58), ExtensionType::blockAds},
            {local(2024, 3, 27, 23, 59, 59) + 500ms, ExtensionType::blockAds},
            {local(2024, 3, 28), ExtensionType::blockTrackers},
            {local(2024, 5, 10, 11), ExtensionType::regionalRules}});
    EXPECT_EQ(history.firstBlockedResourceDate(), local(2024, 3, 26, 10));

    auto series = history.averageBlockedResourcesPerDayPerExtension(30);
    ASSERT_TRUE(series);
    ASSERT_EQ(series->size(), 30U);
    std::vector<Date> expected;
    for (int i = 0; i < 30; ++i) expected.push_back(*berlin.dateByAdding({.day = 2 * i}, local(2024, 3, 26)));
    EXPECT_EQ(keys(*series), expected);
    std::vector<std::int64_t> expectedTotals(30, 0);
    expectedTotals[0] = 2;   // 26 and 27 March, without the last second
    expectedTotals[1] = 1;   // 28 and 29 March
    expectedTotals[22] = 1;  // 9 and 10 May
    EXPECT_EQ(totals(*series), expectedTotals);
    EXPECT_EQ(history.chartSeries(HistoryPeriodType::allTime), series);

    // Fewer points than days: ceil(46 ÷ 7) = 7 days per bucket.
    auto weekly = history.averageBlockedResourcesPerDayPerExtension(7);
    ASSERT_TRUE(weekly);
    EXPECT_EQ(keys(*weekly)[1], local(2024, 4, 2));
    EXPECT_EQ(weekly->size(), 7U);
}

TEST_F(HistoryStatisticsTest, HistorySinceYesterdayMakesTwoDailyBucketsOnlyOnceTwoDaysHaveBegun) {
    standAt(2024, 5, 10, 12, 0);
    insert({{local(2024, 5, 9, 8), ExtensionType::blockAds}, {local(2024, 5, 10, 9), ExtensionType::blockAds}});
    auto series = history.averageBlockedResourcesPerDayPerExtension(30);
    ASSERT_TRUE(series);
    EXPECT_EQ(keys(*series), (std::vector{local(2024, 5, 9), local(2024, 5, 10)}));
    EXPECT_EQ(totals(*series), (std::vector<std::int64_t>{1, 1}));
}

TEST_F(HistoryStatisticsTest, LessThanADayOfHistoryShowsTheTodaySeries) {
    // Yesterday 15:00 to today 12:00 is not yet a whole day: d = 1.
    standAt(2024, 5, 10, 12, 0);
    insert({{local(2024, 5, 9, 15), ExtensionType::blockAds}});
    auto series = history.averageBlockedResourcesPerDayPerExtension(30);
    ASSERT_TRUE(series);
    EXPECT_EQ(series, history.averageBlockedPerDayPerExtensionForToday());
    EXPECT_EQ(series->size(), 7U);  // 13 hours begun, in steps of two
}

TEST_F(HistoryStatisticsTest, EmptyStoreHasNoAllTimeSeriesAndZeroTotals) {
    tamsel::testing::LogCapture log;
    EXPECT_EQ(history.averageBlockedResourcesPerDayPerExtension(30), std::nullopt);
    EXPECT_THAT(log.lines(), ::testing::ElementsAre("No firstBlockedResourceDate available"));
    EXPECT_EQ(history.firstBlockedResourceDate(), std::nullopt);
    EXPECT_EQ(history.blockedResourcesCountForToday(), 0);
    EXPECT_EQ(history.blockedResourcesCountForThisWeek(), 0);
    EXPECT_EQ(history.blockedResourcesCountForAllTime(), 0);
    EXPECT_EQ(history.sumBlockedResourcesPerExtensionForAllTime(), ExtensionCounts{});

    // Buckets of the other series exist, with nothing in them.
    auto week = history.averageBlockedPerDayPerExtensionForThisWeek();
    ASSERT_TRUE(week);
    EXPECT_EQ(totals(*week), std::vector<std::int64_t>(7, 0));
}

TEST_F(HistoryStatisticsTest, PeriodsSumTheirOwnRecords) {
    standAt(2024, 5, 10, 18, 0);
    insert({{local(2024, 5, 2, 12), ExtensionType::blockAds},
            {local(2024, 5, 4), ExtensionType::blockAds},  // first moment of this week
            {local(2024, 5, 7, 12), ExtensionType::customRules},
            {local(2024, 5, 10, 0, 0, 1), ExtensionType::blockTrackers}});
    EXPECT_EQ(history.blockedResourcesCountForToday(), 1);
    EXPECT_EQ(history.blockedResourcesCountForThisWeek(), 3);
    EXPECT_EQ(history.blockedResourcesCountForAllTime(), 4);
    for (auto period : model::allCases<HistoryPeriodType>()) {
        EXPECT_TRUE(history.sumBlockedResourcesPerExtension(period));
        EXPECT_TRUE(history.chartSeries(period));
    }
    EXPECT_EQ(history.sumBlockedResourcesPerExtension(HistoryPeriodType::thisWeek),
              (ExtensionCounts{{ExtensionType::blockAds, 1}, {ExtensionType::blockTrackers, 1},
                               {ExtensionType::customRules, 1}}));
}

TEST(CategoryCountsTest, RegionalListsCountAsAdsAndTheUsersOwnRulesAsOthers) {
    EXPECT_EQ(categoryCounts({}), CategoryCounts{});
    ExtensionCounts counts;
    std::int64_t weight = 1;
    for (auto type : model::allCases<ExtensionType>()) {
        counts[type] = weight;
        weight *= 10;
    }
    // ads 1 + international 1,000,000; trackers 10; the other five.
    EXPECT_EQ(categoryCounts(counts), (CategoryCounts{1'000'001, 10, 10'111'100}));
}

}  // namespace
}  // namespace tamsel::runtime
