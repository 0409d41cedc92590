#include "runtime/BlockedResourceQueries.h"

#include <random>

#include "StoreTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tamsel::runtime {
namespace {

using model::ExtensionType;
using namespace std::chrono_literals;
using testing::insertNow;
using testing::record;
using testing::utc;

using testing::StoreTest;

TEST_F(StoreTest, IntervalCountsAreHalfOpenAndMatchCountingEveryRecord) {
    CoreDataStore store(directory.path(), clock);
    // Records every few minutes over three weeks, at odd seconds and on exact
    // hour and day boundaries, so that intervals cut days and hours at both
    // ends; a few lie before 1970, where hours and days round downwards.
    constexpr int spanSeconds = 21 * 86400;
    std::mt19937 random(42);
    std::vector<BlockedResource> records;
    platform::Date origin = utc(2024, 5, 1);
    for (int i = 0; i < 3000; ++i) {
        auto offset = std::chrono::seconds(random() % spanSeconds);
        if (i % 10 == 0) offset = std::chrono::hours(random() % (21 * 24));
        if (i % 25 == 0) offset = std::chrono::days(random() % 21);
        auto type = model::allCases<ExtensionType>()[random() % 8];
        records.push_back(record(origin + offset + std::chrono::milliseconds(i % 3 == 0 ? 0 : 500), type));
    }
    for (int i = 0; i < 50; ++i) {
        records.push_back(record(utc(1969, 12, 30) + std::chrono::minutes(97 * i), ExtensionType::blockAdult));
    }
    ASSERT_TRUE(insertNow(store, records));

    auto countDirectly = [&](platform::Date start, platform::Date end) {
        ExtensionCounts counts;
        for (const auto& r : records) {
            if (*r.date >= start && *r.date < end) ++counts[*model::fromRawValue<ExtensionType>(*r.extensionID)];
        }
        return counts;
    };
    auto randomSeconds = [&](int limit) { return std::chrono::seconds(random() % limit); };
    for (int i = 0; i < 400; ++i) {
        platform::Date start = origin + randomSeconds(spanSeconds) - std::chrono::hours(30);
        platform::Date end = start + randomSeconds(12 * 86400);
        if (i % 4 == 0) start = origin + std::chrono::hours(random() % (21 * 24));  // exact hours
        if (i % 6 == 0) start = origin + std::chrono::days(random() % 21);          // UTC midnights
        if (i % 7 == 0) end = origin + std::chrono::days(random() % 22);
        if (i % 5 == 0) end = start + randomSeconds(3 * 3600);                      // within a few hours
        if (i % 9 == 0) end = start + std::chrono::days(1 + random() % 3);          // a day or more, exactly
        ASSERT_EQ(store.sumBlockedResourcesPerExtension(start, end), countDirectly(start, end)) << i;
    }
    platform::Date before1970 = utc(1969, 12, 30, 7, 30);
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(before1970, before1970 + std::chrono::hours(49)),
              countDirectly(before1970, before1970 + std::chrono::hours(49)));

    // The end is excluded, the start included, to the nanosecond.
    platform::Date t = *records[0].date;
    EXPECT_EQ(total(*store.sumBlockedResourcesPerExtension(t, t + std::chrono::microseconds(1))),
              total(countDirectly(t, t + std::chrono::microseconds(1))));
    EXPECT_EQ(total(*store.sumBlockedResourcesPerExtension(t, t)), 0);
    EXPECT_EQ(total(*store.sumBlockedResourcesPerExtension(t + 1s, t)), 0);

    // All time, with either bound absent.
    ExtensionCounts all = countDirectly(utc(1960, 1, 1), origin + std::chrono::days(30));
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt), all);
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(origin + 1h, std::nullopt), all);
}

TEST_F(StoreTest, ExtensionsWithoutRecordsAreAbsentUnknownIdentifiersIgnoredUndatedRecordsAllTime) {
    CoreDataStore store(directory.path(), clock);
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt), ExtensionCounts{});
    EXPECT_EQ(store.firstBlockedResourceDate(), std::nullopt);

    auto stranger = record(utc(2024, 5, 2), ExtensionType::blockAds);
    stranger.extensionID = "block-everything";
    auto undated = record(utc(2024, 5, 2), ExtensionType::blockAds);
    undated.date.reset();
    ASSERT_TRUE(insertNow(store, {record(utc(2024, 5, 3), ExtensionType::customRules),
                                  record(utc(2024, 5, 1, 12), ExtensionType::customRules),
                                  record(utc(2024, 5, 2), ExtensionType::regionalRules), stranger, undated}));
    // A record without a date counts for all time, and in no period.
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt),
              (ExtensionCounts{{ExtensionType::blockAds, 1}, {ExtensionType::regionalRules, 1},
                               {ExtensionType::customRules, 2}}));
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(utc(2024, 1, 1), utc(2025, 1, 1)),
              (ExtensionCounts{{ExtensionType::regionalRules, 1}, {ExtensionType::customRules, 2}}));
    EXPECT_EQ(store.firstBlockedResourceDate(), utc(2024, 5, 1, 12));
}

TEST_F(StoreTest, ReadsSeeWhatOtherConnectionsWroteSince) {
    // Two stores on one file stand for two processes.
    CoreDataStore reader(directory.path(), clock);
    CoreDataStore writer(directory.path(), clock);
    ASSERT_TRUE(insertNow(writer, {record(utc(2024, 5, 2), ExtensionType::blockAds),
                                   record(utc(2024, 5, 3), ExtensionType::blockAds)}));
    // The first date stops after one of two rows; what it read must not pin
    // the reader to that moment.
    EXPECT_EQ(reader.firstBlockedResourceDate(), utc(2024, 5, 2));
    ASSERT_TRUE(insertNow(writer, {record(utc(2024, 5, 1), ExtensionType::blockSocial)}));
    EXPECT_EQ(reader.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt),
              (ExtensionCounts{{ExtensionType::blockAds, 2}, {ExtensionType::blockSocial, 1}}));
    EXPECT_EQ(reader.firstBlockedResourceDate(), utc(2024, 5, 1));
}

}  // namespace
}  // namespace tamsel::runtime
