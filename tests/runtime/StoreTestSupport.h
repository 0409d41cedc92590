#pragma once

#include "runtime/CoreDataStore.h"

#include "HistoryTestSupport.h"
#include "support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

// Files and fixtures for the tests of the blocked-resource store.
namespace tamsel::runtime::testing {

namespace fs = std::filesystem;
using model::ExtensionType;

inline std::vector<fs::path> filesWithPrefix(const fs::path& directory, const std::string& prefix) {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(directory)) {
        if (entry.path().filename().string().starts_with(prefix)) found.push_back(entry.path());
    }
    std::sort(found.begin(), found.end());
    return found;
}

inline void writeBytes(const fs::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

inline std::string readBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class StoreTest : public ::testing::Test {
protected:
    tamsel::testing::TemporaryDirectory directory;
    platform::ManualClock clock{utc(2024, 5, 10, 8, 30)};
};

// A store whose file is damaged or foreign; see expectRecoveredFrom().
class DamagedStoreTest : public StoreTest {
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

}  // namespace tamsel::runtime::testing
