#include "runtime/BlockedResourceDatabase.h"

#include <sqlite3.h>

#include "StoreTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tamsel::runtime {
namespace {

using model::ExtensionType;
using testing::filesWithPrefix;
using testing::insertNow;
using testing::readBytes;
using testing::record;
using testing::utc;
using testing::writeBytes;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

using testing::DamagedStoreTest;

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

}  // namespace
}  // namespace tamsel::runtime
