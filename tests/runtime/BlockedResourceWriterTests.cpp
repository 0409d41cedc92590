#include "runtime/BlockedResourceWriter.h"

#include <atomic>
#include <thread>

#include "StoreTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tamsel::runtime {
namespace {

using model::ExtensionType;
using testing::record;
using testing::utc;
namespace fs = std::filesystem;

using testing::StoreTest;

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

TEST_F(StoreTest, TwoProcessesInsertingAtOnceLoseNothing) {
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
