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

// --- group commit ---------------------------------------------------------

// Reports from several threads at once are gathered into shared commits:
// every insert's completion still runs once, without error, after its own
// record is readable, and a save asked for afterwards waits for all of them.
TEST_F(StoreTest, ConcurrentReportsAreCommittedTogetherAndNoneIsLost) {
    CoreDataStore store(directory.path(), clock);
    constexpr int threads = 4;
    constexpr int perThread = 400;
    std::atomic<int> completed = 0;
    std::atomic<int> failed = 0;
    std::atomic<int> unreadable = 0;
    std::vector<std::thread> reporters;
    for (int t = 0; t < threads; ++t) {
        reporters.emplace_back([&, t] {
            const std::string page = "https://page" + std::to_string(t) + ".example/";
            for (int i = 0; i < perThread; ++i) {
                store.insert({record(utc(2024, 5, 1) + std::chrono::seconds(i), ExtensionType::blockAds, page,
                                     "https://t.example/" + std::to_string(i))},
                             [&, page, i](const std::optional<StoreError>& error) {
                                 if (error) ++failed;
                                 // Completions run on the writer queue after the commit.
                                 if (i == perThread - 1 && store.blockedResources(page)->size() != perThread) ++unreadable;
                                 ++completed;
                             });
            }
        });
    }
    for (auto& reporter : reporters) reporter.join();

    std::atomic<bool> saved = false;
    std::atomic<long> countAtSave = -1;
    store.saveContext([&] {
        countAtSave = total(*store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt));
        saved = true;
    });
    ASSERT_TRUE(tamsel::testing::waitUntil([&] { return saved.load(); }));
    EXPECT_EQ(countAtSave.load(), threads * perThread);
    store.waitUntilWritten();
    EXPECT_EQ(completed.load(), threads * perThread);
    EXPECT_EQ(failed.load(), 0);
    EXPECT_EQ(unreadable.load(), 0);
}

// Saves asked for between reports share a queued save while no commit was
// queued after it; each still answers only once its own records are readable.
TEST_F(StoreTest, EverySaveBetweenReportsWaitsForItsRecords) {
    CoreDataStore store(directory.path(), clock);
    constexpr int reports = 300;
    std::atomic<int> saves = 0;
    std::atomic<int> early = 0;
    for (int i = 0; i < reports; ++i) {
        store.insert({record(utc(2024, 5, 1) + std::chrono::seconds(i), ExtensionType::blockAds,
                             "https://page.example/", "https://t.example/" + std::to_string(i))});
        store.saveContext([&store, &saves, &early, i] {
            const auto stored = total(*store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt));
            if (stored < i + 1) ++early;
            ++saves;
        });
    }
    ASSERT_TRUE(tamsel::testing::waitUntil([&] { return saves.load() == reports; }));
    EXPECT_EQ(early.load(), 0);
}

}  // namespace
}  // namespace tamsel::runtime
