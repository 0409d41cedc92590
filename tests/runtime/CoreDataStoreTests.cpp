#include "runtime/CoreDataStore.h"
#include "runtime/URLHost.h"

#include "HistoryTestSupport.h"
#include "support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fmt/format.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <thread>

namespace tamsel::runtime {
namespace {

using model::ExtensionType;
using namespace std::chrono_literals;
using testing::insertNow;
using testing::record;
using testing::utc;
using ::testing::HasSubstr;

namespace fs = std::filesystem;

std::vector<fs::path> filesWithPrefix(const fs::path& directory, const std::string& prefix) {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(directory)) {
        if (entry.path().filename().string().starts_with(prefix)) found.push_back(entry.path());
    }
    std::sort(found.begin(), found.end());
    return found;
}

void writeBytes(const fs::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

std::string readBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class CoreDataStoreTest : public ::testing::Test {
protected:
    tamsel::testing::TemporaryDirectory directory;
    platform::ManualClock clock{utc(2024, 5, 10, 8, 30)};
};

TEST_F(CoreDataStoreTest, InsertedRecordCarriesEveryAttributeAndLogsItsSave) {
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

TEST(URLHostTest, HostOfPageURLs) {
    EXPECT_EQ(urlHost("https://www.example.com/path"), "www.example.com");
    EXPECT_EQ(urlHost("http://[2001:db8::1]:8080/"), "2001:db8::1");
    EXPECT_EQ(urlHost("https://example.com?q=1"), "example.com");
    EXPECT_EQ(urlHost("about:blank"), std::nullopt);
    EXPECT_EQ(urlHost("file:///tmp/page.html"), std::nullopt);
    EXPECT_EQ(urlHost("not a url"), std::nullopt);
    EXPECT_EQ(urlHost("1http://example.com/"), std::nullopt);
}

TEST_F(CoreDataStoreTest, RecordsSurviveReopeningAndUUIDsAreUnique) {
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

TEST_F(CoreDataStoreTest, IntervalCountsAreHalfOpenAndMatchCountingEveryRecord) {
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
    EXPECT_EQ(total(*store.sumBlockedResourcesPerExtension(t, t + std::chrono::nanoseconds(1))),
              total(countDirectly(t, t + std::chrono::nanoseconds(1))));
    EXPECT_EQ(total(*store.sumBlockedResourcesPerExtension(t, t)), 0);
    EXPECT_EQ(total(*store.sumBlockedResourcesPerExtension(t + 1s, t)), 0);

    // All time, with either bound absent.
    ExtensionCounts all = countDirectly(utc(1960, 1, 1), origin + std::chrono::days(30));
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt), all);
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(origin + 1h, std::nullopt), all);
}

TEST_F(CoreDataStoreTest, ExtensionsWithoutRecordsAreAbsentUnknownIdentifiersIgnoredUndatedRecordsAllTime) {
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

TEST_F(CoreDataStoreTest, SaveContextReportsOnceRecordsAreCommitted) {
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

// --- damaged files -------------------------------------------------------

class DamagedStoreTest : public CoreDataStoreTest {
protected:
    fs::path storePath() const { return directory / "blocked-resources-data.sqlite"; }

    // A healthy store with enough records to span many pages, then closed.
    void makeStoreWithRecords() {
        CoreDataStore store(directory.path(), clock);
        std::vector<BlockedResource> records;
        for (int i = 0; i < 3000; ++i) {
            records.push_back(record(utc(2024, 4, 1) + std::chrono::minutes(7 * i), ExtensionType::blockAds,
                                     "https://page.example/" + std::to_string(i % 40),
                                     "https://tracker.example/pixel?id=" + std::to_string(i)));
        }
        ASSERT_TRUE(insertNow(store, records));
    }

    // Opens the store over the damaged file and checks that it was moved aside
    // with its bytes, that the lines say so, and that an empty store works.
    void expectRecoveredFrom(const std::string& damagedBytes) {
        tamsel::testing::LogCapture log;
        CoreDataStore store(directory.path(), clock);
        ASSERT_TRUE(store.isLoaded());

        auto aside = filesWithPrefix(directory.path(), "blocked-resources-data.sqlite.corrupt-20240510T083000Z");
        ASSERT_FALSE(aside.empty());
        EXPECT_EQ(aside.front().filename(), "blocked-resources-data.sqlite.corrupt-20240510T083000Z");
        EXPECT_TRUE(readBytes(aside.front()) == damagedBytes) << "the damaged file was changed";

        auto lines = log.lines();
        ASSERT_GE(lines.size(), 2U);
        EXPECT_THAT(lines[0], ::testing::StartsWith("Unresolved error "));
        EXPECT_EQ(lines.back(), "Core Data stack has been initialized with description: " + store.storeDescription());
        EXPECT_TRUE(log.contains("moved it aside to " + aside.front().string()));

        EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt), ExtensionCounts{});
        ASSERT_TRUE(insertNow(store, {record(utc(2024, 5, 10), ExtensionType::blockSocial)}));
        EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt),
                  (ExtensionCounts{{ExtensionType::blockSocial, 1}}));
    }
};

TEST_F(DamagedStoreTest, GarbageBytesAreMovedAside) {
    std::string garbage;
    for (int i = 0; i < 10000; ++i) garbage += static_cast<char>((i * 7919) % 251);
    writeBytes(storePath(), garbage);
    expectRecoveredFrom(garbage);
}

TEST_F(DamagedStoreTest, TruncatedFileIsMovedAside) {
    makeStoreWithRecords();
    std::string bytes = readBytes(storePath());
    ASSERT_GT(bytes.size(), 100'000U);
    std::string truncated = bytes.substr(0, bytes.size() / 2 + 123);
    writeBytes(storePath(), truncated);
    expectRecoveredFrom(truncated);
}

TEST_F(DamagedStoreTest, FileCutInsideItsHeaderIsMovedAside) {
    makeStoreWithRecords();
    std::string cut = readBytes(storePath()).substr(0, 60);
    writeBytes(storePath(), cut);
    expectRecoveredFrom(cut);
}

TEST_F(DamagedStoreTest, DatabaseOfAnotherSchemaIsMovedAside) {
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(storePath().c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "CREATE TABLE notes(text TEXT); INSERT INTO notes VALUES ('keep me');", nullptr,
                           nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(other);
    expectRecoveredFrom(readBytes(storePath()));
}

TEST_F(DamagedStoreTest, EachRecoveryGetsItsOwnName) {
    writeBytes(storePath(), "first damage, long enough to be no database at all................................");
    { CoreDataStore store(directory.path(), clock); }
    writeBytes(storePath(), "second damage, long enough to be no database at all...............................");
    { CoreDataStore store(directory.path(), clock); }
    auto aside = filesWithPrefix(directory.path(), "blocked-resources-data.sqlite.corrupt-");
    ASSERT_EQ(aside.size(), 2U);
    EXPECT_THAT(readBytes(aside[0]), HasSubstr("first damage"));
    EXPECT_EQ(aside[1].filename(), "blocked-resources-data.sqlite.corrupt-20240510T083000Z-2");
}

TEST_F(DamagedStoreTest, DamageFoundByALaterQueryIsMovedAsideAndTheStoreGoesOn) {
    makeStoreWithRecords();
    tamsel::testing::LogCapture log;
    CoreDataStore store(directory.path(), clock);
    ASSERT_EQ(total(*store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt)), 3000);

    // Another program overwrites the file in place while the store has it
    // open; the pages the store has not read yet are garbage now.
    std::string damaged(readBytes(storePath()).size(), 'Z');
    writeBytes(storePath(), damaged);
    EXPECT_EQ(store.blockedResources("https://page.example/7"), std::nullopt);
    EXPECT_TRUE(log.contains("Error while fetching blockedResources"));

    auto aside = filesWithPrefix(directory.path(), "blocked-resources-data.sqlite.corrupt-");
    ASSERT_EQ(aside.size(), 1U);
    EXPECT_TRUE(readBytes(aside.front()) == damaged);
    EXPECT_TRUE(log.contains("moved it aside to " + aside.front().string()));

    EXPECT_TRUE(store.isLoaded());
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt), ExtensionCounts{});
    ASSERT_TRUE(insertNow(store, {record(utc(2024, 5, 10), ExtensionType::blockComments)}));
    EXPECT_EQ(store.blockedResources("https://news.example/article")->size(), 1U);
}

TEST_F(DamagedStoreTest, WritesFollowTheStoreThatAnotherProcessStartedInPlaceOfTheMovedFile) {
    makeStoreWithRecords();
    CoreDataStore store(directory.path(), clock);
    ASSERT_EQ(total(*store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt)), 3000);

    // What another process's recovery does: the files go aside, and a new
    // store appears at the path.
    for (const char* suffix : {"", "-wal", "-shm"}) {
        std::error_code ignored;
        fs::rename(storePath().string() + suffix, storePath().string() + ".corrupt-elsewhere" + suffix, ignored);
    }
    { CoreDataStore other(directory.path(), clock); }

    ASSERT_TRUE(insertNow(store, {record(utc(2024, 5, 10), ExtensionType::blockComments)}));
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt),
              (ExtensionCounts{{ExtensionType::blockComments, 1}}));
    CoreDataStore reader(directory.path(), clock);
    EXPECT_EQ(reader.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt),
              (ExtensionCounts{{ExtensionType::blockComments, 1}}));
}

// The first layout of the store counted hours only.
constexpr const char* version1SchemaSQL = R"sql(
CREATE TABLE BlockedResource(id BLOB, date INTEGER, extensionID TEXT, blockedURL TEXT, pageURL TEXT, pageDomain TEXT);
CREATE INDEX BlockedResourceByDate ON BlockedResource(date, extensionID);
CREATE TABLE BlockedResourceHourlyCount(
    hour INTEGER NOT NULL, extensionID TEXT NOT NULL, count INTEGER NOT NULL, PRIMARY KEY (hour, extensionID)
) WITHOUT ROWID;
CREATE TRIGGER BlockedResourceCounting AFTER INSERT ON BlockedResource
WHEN NEW.date IS NOT NULL AND NEW.extensionID IS NOT NULL
BEGIN
    INSERT INTO BlockedResourceHourlyCount(hour, extensionID, count)
    VALUES ((NEW.date - (NEW.date % 3600000000000 + 3600000000000) % 3600000000000) / 3600000000000,
            NEW.extensionID, 1)
    ON CONFLICT(hour, extensionID) DO UPDATE SET count = count + 1;
END;
PRAGMA application_id = 1414353740;
PRAGMA user_version = 1;
PRAGMA journal_mode = WAL;
)sql";

void execute(const fs::path& path, const std::string& sql) {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    char* message = nullptr;
    EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, &message), SQLITE_OK) << message;
    sqlite3_free(message);
    sqlite3_close(database);
}

TEST_F(DamagedStoreTest, StoreOfTheFirstLayoutIsUpgradedWithItsRecords) {
    std::string sql = version1SchemaSQL;
    // 100 records an hour apart from 1 May 2024 00:00 UTC, alternating extensions.
    for (int i = 0; i < 100; ++i) {
        sql += fmt::format("INSERT INTO BlockedResource VALUES (NULL, {}, '{}', 'https://t.example/{}', "
                           "'https://p.example/', 'p.example');",
                           1714521600LL * 1'000'000'000 + i * 3'600'000'000'000LL, i % 2 ? "block-ads" : "block-social", i);
    }
    execute(storePath(), sql);

    tamsel::testing::LogCapture log;
    CoreDataStore store(directory.path(), clock);
    ASSERT_TRUE(store.isLoaded());
    EXPECT_TRUE(filesWithPrefix(directory.path(), "blocked-resources-data.sqlite.corrupt-").empty());
    EXPECT_THAT(log.lines(), ::testing::ElementsAre("Core Data stack has been initialized with description: " +
                                                    store.storeDescription()));
    // Whole days now come from the day counts made of the old hour counts.
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(utc(2024, 5, 1), utc(2024, 5, 3)),
              (ExtensionCounts{{ExtensionType::blockAds, 24}, {ExtensionType::blockSocial, 24}}));
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt),
              (ExtensionCounts{{ExtensionType::blockAds, 50}, {ExtensionType::blockSocial, 50}}));
    // New records are counted once, in days and in hours.
    ASSERT_TRUE(insertNow(store, {record(utc(2024, 5, 2, 5, 30), ExtensionType::blockAds)}));
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(utc(2024, 5, 1), utc(2024, 5, 3)),
              (ExtensionCounts{{ExtensionType::blockAds, 25}, {ExtensionType::blockSocial, 24}}));
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(utc(2024, 5, 2, 5), utc(2024, 5, 2, 6)),
              (ExtensionCounts{{ExtensionType::blockAds, 2}}));
}

TEST_F(DamagedStoreTest, StoreOfANewerVersionIsLeftAloneAndNotUsed) {
    makeStoreWithRecords();
    execute(storePath(), "PRAGMA user_version = 3;");
    std::string before = readBytes(storePath());

    tamsel::testing::LogCapture log;
    {
        CoreDataStore store(directory.path(), clock);
        EXPECT_FALSE(store.isLoaded());
        EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt), std::nullopt);
    }
    EXPECT_THAT(log.lines().front(), HasSubstr("schema version 3, newer than 2"));
    EXPECT_TRUE(filesWithPrefix(directory.path(), "blocked-resources-data.sqlite.corrupt-").empty());
    EXPECT_TRUE(readBytes(storePath()) == before);
}

TEST_F(CoreDataStoreTest, UnopenableStoreFailsWritesAndAnswersNothing) {
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

// --- several processes ---------------------------------------------------

constexpr int recordsPerProcess = 1500;

// Inserts in many small transactions, so that the two processes' writes interleave.
int insertFromProcess(const fs::path& directory, const std::string& page) {
    CoreDataStore store(directory);
    for (int i = 0; i < recordsPerProcess; ++i) {
        store.insert({record(utc(2024, 5, 1) + std::chrono::seconds(i), ExtensionType::blockTrackers, page,
                             "https://t.example/" + std::to_string(i))});
        if (i % 10 == 0) store.waitUntilWritten();
    }
    store.waitUntilWritten();
    return 0;
}

TAMSEL_CHILD_ENTRY(insertBlockedResources) {
    return insertFromProcess(arguments.at(0), "https://child.example/");
}

TEST_F(CoreDataStoreTest, TwoProcessesInsertingAtOnceLoseNothing) {
    // Both start on a missing file, so they also race to create the schema.
    std::atomic<int> childStatus = -1;
    std::thread child([&] { childStatus = tamsel::testing::runChildEntry("insertBlockedResources", {directory.path().string()}); });
    int parentStatus = insertFromProcess(directory.path(), "https://parent.example/");
    child.join();
    ASSERT_EQ(childStatus, 0);
    ASSERT_EQ(parentStatus, 0);

    CoreDataStore store(directory.path(), clock);
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt),
              (ExtensionCounts{{ExtensionType::blockTrackers, 2 * recordsPerProcess}}));
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(utc(2024, 5, 1), utc(2024, 5, 2)),
              (ExtensionCounts{{ExtensionType::blockTrackers, 2 * recordsPerProcess}}));
    EXPECT_EQ(store.blockedResources("https://child.example/")->size(), std::size_t{recordsPerProcess});
    EXPECT_EQ(store.blockedResources("https://parent.example/")->size(), std::size_t{recordsPerProcess});
}

}  // namespace
}  // namespace tamsel::runtime
