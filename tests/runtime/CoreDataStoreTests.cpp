#include "runtime/CoreDataStore.h"

#include <atomic>
#include <regex>
#include <set>

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
using testing::writeBytes;
using ::testing::HasSubstr;

using testing::StoreTest;

TEST_F(StoreTest, InsertedRecordCarriesEveryAttributeAndLogsItsSave) {
    tamsel::testing::LogCapture log;
    CoreDataStore store(directory.path(), clock);
    EXPECT_TRUE(store.isLoaded());
    EXPECT_EQ(store.storeURL(), directory / "blocked-resources-data.sqlite");

    std::optional<StoreError> result{StoreError{}};
    store.insertRecord("https://user@News.Example:8443/a?b#c", "https://ads.example/x.js", ExtensionType::blockAds,
                       [&](const std::optional<StoreError>& error) { result = error; });
    store.waitUntilWritten();
    EXPECT_EQ(result, std::nullopt);

    auto records = store.blockedResources("https://user@News.Example:8443/a?b#c");
    ASSERT_TRUE(records);
    ASSERT_EQ(records->size(), 1U);
    const BlockedResource& stored = records->front();
    EXPECT_TRUE(std::regex_match(*stored.id, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
        << *stored.id;
    EXPECT_EQ(stored.date, clock.now());
    EXPECT_EQ(stored.extensionID, "block-ads");
    EXPECT_EQ(stored.blockedURL, "https://ads.example/x.js");
    EXPECT_EQ(stored.pageDomain, "News.Example");

    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "Core Data stack has been initialized with description: " + store.storeDescription(),
                               "Saved History record into Core Data background context"}));
    EXPECT_THAT(store.storeDescription(), HasSubstr((directory / "blocked-resources-data.sqlite").string()));
}

TEST_F(StoreTest, RecordsSurviveReopeningAndUUIDsAreUnique) {
    {
        CoreDataStore store(directory.path(), clock);
        for (int i = 0; i < 50; ++i) store.insertRecord("https://a.example/", "https://t.example/" + std::to_string(i), ExtensionType::blockTrackers);
    }
    CoreDataStore reopened(directory.path(), clock);
    auto records = reopened.blockedResources("https://a.example/");
    ASSERT_TRUE(records);
    ASSERT_EQ(records->size(), 50U);
    std::set<std::string> ids;
    for (const auto& r : *records) ids.insert(*r.id);
    EXPECT_EQ(ids.size(), 50U);
    EXPECT_EQ(records->at(7).blockedURL, "https://t.example/7");  // arrival order
}

TEST_F(StoreTest, DatesFarFromNowSurviveTheRoundTrip) {
    // Beyond the years 1677 to 2262 that nanoseconds since 1970 hold.
    const std::vector<platform::Date> dates{utc(9999, 12, 31, 23, 59, 59) + 999'999us, utc(1900, 1, 1),
                                            utc(1, 1, 1), utc(2100, 1, 1)};
    {
        CoreDataStore store(directory.path(), clock);
        std::vector<BlockedResource> records;
        for (platform::Date date : dates) records.push_back(record(date, ExtensionType::blockAds));
        ASSERT_TRUE(insertNow(store, records));
    }
    CoreDataStore store(directory.path(), clock);
    const auto stored = store.blockedResources("https://news.example/article");
    ASSERT_TRUE(stored);
    ASSERT_EQ(stored->size(), dates.size());
    for (std::size_t i = 0; i < dates.size(); ++i) EXPECT_EQ(stored->at(i).date, dates[i]) << i;
    EXPECT_EQ(store.firstBlockedResourceDate(), utc(1, 1, 1));
    for (platform::Date date : dates) {
        EXPECT_EQ(store.sumBlockedResourcesPerExtension(date, date + 1us),
                  (ExtensionCounts{{ExtensionType::blockAds, 1}}));
    }
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(utc(1899, 1, 1), utc(2200, 1, 1)),
              (ExtensionCounts{{ExtensionType::blockAds, 2}}));
}

TEST_F(StoreTest, SaveContextReportsOnceRecordsAreCommitted) {
    tamsel::testing::LogCapture log;
    CoreDataStore store(directory.path(), clock);
    for (int i = 0; i < 20; ++i) store.insertRecord("https://p.example/", "https://x.example/" + std::to_string(i), ExtensionType::blockAds);

    std::atomic<bool> saved = false;
    store.saveContext([&] {
        // Every record handed over before the save is readable by now.
        EXPECT_EQ(total(*store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt)), 20);
        saved = true;
    });
    ASSERT_TRUE(tamsel::testing::waitUntil([&] { return saved.load(); }));
    auto lines = log.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "Saved History record into Core Data background context"), 20);
    EXPECT_EQ(lines.back(), "Saved History Core Data");

    // Nothing new: no save, no line, and the completion still runs.
    bool completed = false;
    store.saveContext([&] { completed = true; });
    EXPECT_TRUE(completed);
    EXPECT_EQ(log.lines().size(), lines.size());
}

TEST_F(StoreTest, UnopenableStoreFailsWritesAndAnswersNothing) {
    // The store's folder is a plain file: nothing can be created there.
    writeBytes(directory / "not-a-folder", "x");
    tamsel::testing::LogCapture log;
    CoreDataStore store(directory / "not-a-folder", clock);
    EXPECT_FALSE(store.isLoaded());

    std::optional<StoreError> failure;
    store.insertRecord("https://p.example/", "https://x.example/", ExtensionType::blockAds,
                       [&](const std::optional<StoreError>& error) { failure = error; });
    store.waitUntilWritten();
    ASSERT_TRUE(failure);
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt), std::nullopt);
    EXPECT_EQ(store.firstBlockedResourceDate(), std::nullopt);

    std::atomic<bool> saved = false;
    store.saveContext([&] { saved = true; });
    ASSERT_TRUE(tamsel::testing::waitUntil([&] { return saved.load(); }));

    auto lines = log.lines();
    EXPECT_THAT(lines.front(), ::testing::StartsWith("Unresolved error "));
    EXPECT_TRUE(log.contains("Fail save in backgroundContext: " + failure->description));
    EXPECT_TRUE(log.contains(store.storeDescription() + " unable to commit editing before saving"));
    EXPECT_THAT(lines.back(), ::testing::MatchesRegex("Unresolved error .* while saving Core Data context: .*"));
    EXPECT_TRUE(log.contains("Error while fetching sumBlockedResourcesPerExtensionForAllTime"));
}

}  // namespace
}  // namespace tamsel::runtime
