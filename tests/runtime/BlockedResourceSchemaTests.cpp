#include "runtime/BlockedResourceSchema.h"

#include <fmt/format.h>
#include <sqlite3.h>
#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include "StoreTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tamsel::runtime {
namespace {

using model::ExtensionType;
using namespace std::chrono_literals;
using testing::filesWithPrefix;
using testing::insertNow;
using testing::readBytes;
using testing::record;
using testing::utc;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

using testing::DamagedStoreTest;

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
    // Dates were nanoseconds and are microseconds now.
    EXPECT_EQ(store.firstBlockedResourceDate(), utc(2024, 5, 1));
    EXPECT_EQ(store.blockedResources("https://p.example/")->at(3).date, utc(2024, 5, 1, 3));
    // New records are counted once, in days and in hours.
    ASSERT_TRUE(insertNow(store, {record(utc(2024, 5, 2, 5, 30), ExtensionType::blockAds)}));
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(utc(2024, 5, 1), utc(2024, 5, 3)),
              (ExtensionCounts{{ExtensionType::blockAds, 25}, {ExtensionType::blockSocial, 24}}));
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(utc(2024, 5, 2, 5), utc(2024, 5, 2, 6)),
              (ExtensionCounts{{ExtensionType::blockAds, 2}}));
}

TEST_F(DamagedStoreTest, StoreOfTheSecondLayoutHasItsNanosecondDatesConverted) {
    std::string sql = version1SchemaSQL;
    sql.replace(sql.find("PRAGMA user_version = 1;"), 24,
                "CREATE TABLE BlockedResourceDailyCount(day INTEGER NOT NULL, extensionID TEXT NOT NULL, "
                "count INTEGER NOT NULL, PRIMARY KEY (day, extensionID)) WITHOUT ROWID; PRAGMA user_version = 2;");
    // Just before 1970 (rounded toward the past) and at the last second a
    // nanosecond count could hold.
    sql += "INSERT INTO BlockedResource VALUES (NULL, -1500, 'block-ads', 'https://t.example/a', "
           "'https://p.example/', 'p.example');"
           "INSERT INTO BlockedResource VALUES (NULL, 9223372036000000000, 'block-ads', 'https://t.example/b', "
           "'https://p.example/', 'p.example');";
    execute(storePath(), sql);

    CoreDataStore store(directory.path(), clock);
    ASSERT_TRUE(store.isLoaded());
    const auto records = store.blockedResources("https://p.example/");
    ASSERT_TRUE(records);
    ASSERT_EQ(records->size(), 2U);
    EXPECT_EQ(records->at(0).date, platform::Date(std::chrono::microseconds(-2)));
    EXPECT_EQ(records->at(1).date, platform::Date(std::chrono::microseconds(9223372036000000)));
    // New records go on in microseconds, beyond where nanoseconds end.
    ASSERT_TRUE(insertNow(store, {record(utc(9999, 12, 31, 23, 59, 59), ExtensionType::blockAds)}));
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(utc(9999, 12, 31), utc(9999, 12, 31, 23, 59, 59) + 1s),
              (ExtensionCounts{{ExtensionType::blockAds, 1}}));
}

TEST_F(DamagedStoreTest, StoreOfTheThirdLayoutFindsAPagesRecordsThroughItsKeyAndTellsApartPagesOfOneKey) {
    // The third layout's date index carried the extension, and there was no
    // page index. These two addresses have the same page key.
    const std::string page = "https://p.example/149599";
    const std::string samePageKey = "https://p.example/312382";
    ASSERT_EQ(BlockedResourceSchema::pageKey(page), BlockedResourceSchema::pageKey(samePageKey));
    std::string sql = version1SchemaSQL;
    sql.replace(sql.find("PRAGMA user_version = 1;"), 24,
                "CREATE TABLE BlockedResourceDailyCount(day INTEGER NOT NULL, extensionID TEXT NOT NULL, "
                "count INTEGER NOT NULL, PRIMARY KEY (day, extensionID)) WITHOUT ROWID; PRAGMA user_version = 3;");
    for (int i = 0; i < 30; ++i) {
        sql += fmt::format("INSERT INTO BlockedResource VALUES (NULL, {}, 'block-ads', 'https://t.example/{}', "
                           "'{}', 'p.example');",
                           1714521600LL * 1'000'000 + i, i, i % 3 == 0 ? page : i % 3 == 1 ? samePageKey : "https://q.example/");
    }
    // A record of the old layout without a domain keeps having none.
    sql += "INSERT INTO BlockedResource VALUES (NULL, 1, 'block-ads', 'https://t.example/x', 'https://q.example/', NULL);";
    execute(storePath(), sql);

    CoreDataStore store(directory.path(), clock);
    ASSERT_TRUE(store.isLoaded());
    // A new record's domain is stored only where it is not its page's host.
    auto withDomain = [&](std::optional<std::string> domain, std::string blocked) {
        auto made = record(utc(2024, 5, 2), ExtensionType::blockSocial, page, std::move(blocked));
        made.pageDomain = std::move(domain);
        return made;
    };
    ASSERT_TRUE(insertNow(store, {withDomain("p.example", "https://t.example/host"),
                                  withDomain("other.example", "https://t.example/other"),
                                  withDomain(std::nullopt, "https://t.example/none")}));
    const auto records = store.blockedResources(page);
    ASSERT_TRUE(records);
    ASSERT_EQ(records->size(), 13U);
    EXPECT_EQ(records->front().blockedURL, "https://t.example/0");
    EXPECT_EQ(records->front().pageDomain, "p.example");
    EXPECT_EQ(records->at(10).pageDomain, "p.example");
    EXPECT_EQ(records->at(11).pageDomain, "other.example");
    EXPECT_EQ(records->at(12).pageDomain, std::nullopt);
    for (const auto& found : *records) EXPECT_EQ(found.pageURL, page);
    EXPECT_EQ(store.blockedResources(samePageKey)->size(), 10U);
    EXPECT_EQ(store.blockedResources("https://q.example/")->back().pageDomain, std::nullopt);
    EXPECT_EQ(store.blockedResources("https://r.example/")->size(), 0U);

    // The page is looked up in the index, not found by reading every record.
    SQLite::Database database(storePath(), SQLite::OPEN_READONLY);
    BlockedResourceSchema::registerFunctions(database);
    EXPECT_EQ(database.execAndGet("SELECT COUNT(*) FROM BlockedResource WHERE pageDomain IS NULL").getInt(), 1)
        << "only the record whose domain is its page's host leaves it out";
    SQLite::Statement plan(database, std::string("EXPLAIN QUERY PLAN ") + BlockedResourceSchema::pageRecordsSQL);
    std::string steps;
    while (plan.executeStep()) steps += plan.getColumn(3).getString() + "\n";
    EXPECT_THAT(steps, HasSubstr("USING INDEX BlockedResourceByPage"));
}

TEST_F(DamagedStoreTest, StoreOfANewerVersionIsLeftAloneAndNotUsed) {
    makeStoreWithRecords();
    execute(storePath(), "PRAGMA user_version = 5;");
    std::string before = readBytes(storePath());

    tamsel::testing::LogCapture log;
    {
        CoreDataStore store(directory.path(), clock);
        EXPECT_FALSE(store.isLoaded());
        EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt), std::nullopt);
    }
    EXPECT_THAT(log.lines().front(), HasSubstr("schema version 5, newer than 4"));
    EXPECT_TRUE(filesWithPrefix(directory.path(), "blocked-resources-data.sqlite.corrupt-").empty());
    EXPECT_TRUE(readBytes(storePath()) == before);
}

}  // namespace
}  // namespace tamsel::runtime
