#include "runtime/HistoryStore.h"

#include "platform/MainRunLoop.h"
#include "HistoryTestSupport.h"
#include "support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace tamsel::runtime {
namespace {

using model::ExtensionType;
using platform::MainRunLoop;
using platform::SafariPage;
using platform::SafariPageProperties;
using platform::StaticSafariPage;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::Contains;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

std::shared_ptr<SafariPage> pageAt(std::optional<std::string> url) {
    return std::make_shared<StaticSafariPage>(SafariPageProperties{std::move(url), "Title", false, true});
}

class HistoryStoreTest : public ::testing::Test {
protected:
    HistoryStoreTest() { MainRunLoop::drain(); }

    // Reports and runs the main queue until the save that follows has happened.
    void report(HistoryStore& history, const std::vector<std::string>& urls, const std::shared_ptr<SafariPage>& page,
                ExtensionType type) {
        bool saved = false;
        history.addRecords(urls, page, type, [&] { saved = true; });
        ASSERT_TRUE(MainRunLoop::runUntil([&] { return saved; }, 10s));
    }

    std::vector<std::string> storedURLs(const std::string& pageURL) {
        std::vector<std::string> urls;
        for (const auto& [url, extension] : storedRecords(pageURL)) urls.push_back(url);
        return urls;
    }

    // (blocked URL, extension) of each stored record of a page. The page
    // answers its properties on the global queue, so the records of one
    // report reach the store in no fixed order.
    std::vector<std::pair<std::string, std::string>> storedRecords(const std::string& pageURL) {
        std::vector<std::pair<std::string, std::string>> records;
        auto stored = store.blockedResources(pageURL);
        for (const auto& r : stored.value()) records.emplace_back(*r.blockedURL, *r.extensionID);
        return records;
    }

    tamsel::testing::TemporaryDirectory directory;
    platform::ManualClock clock{testing::utc(2024, 5, 10, 8)};
    CoreDataStore store{directory.path(), clock};
};

TEST_F(HistoryStoreTest, URLsAreUniquePerPageWhicheverExtensionBlockedThem) {
    HistoryStore history(store);
    auto page = pageAt("https://news.example/story");
    report(history, {"https://a.example/1.js", "https://b.example/2.js", "https://a.example/1.js"}, page,
           ExtensionType::blockAds);
    report(history, {"https://b.example/2.js", "https://c.example/3.js"}, page, ExtensionType::blockTrackers);

    EXPECT_EQ(history.perPageCount(page), 3U);
    auto grouped = history.groupedHistory(page);
    ASSERT_TRUE(grouped);
    EXPECT_EQ(grouped->contentBlockers, (std::vector{ExtensionType::blockAds, ExtensionType::blockTrackers}));
    EXPECT_EQ(grouped->records[ExtensionType::blockAds],
              (std::vector<History>{{page, "https://a.example/1.js", ExtensionType::blockAds},
                                    {page, "https://b.example/2.js", ExtensionType::blockAds}}));
    EXPECT_EQ(grouped->records[ExtensionType::blockTrackers],
              (std::vector<History>{{page, "https://c.example/3.js", ExtensionType::blockTrackers}}));

    // One stored record per URL; the repeated one keeps the first extension.
    EXPECT_THAT(storedRecords("https://news.example/story"),
                UnorderedElementsAre(Pair("https://a.example/1.js", "block-ads"), Pair("https://b.example/2.js", "block-ads"),
                                     Pair("https://c.example/3.js", "block-trackers")));
}

TEST_F(HistoryStoreTest, PagesAreKeptApartByIdentityNotByURL) {
    HistoryStore history(store);
    auto first = pageAt("https://same.example/");
    auto second = pageAt("https://same.example/");
    report(history, {"https://t.example/p.gif"}, first, ExtensionType::blockTrackers);
    report(history, {"https://t.example/p.gif"}, second, ExtensionType::blockTrackers);
    EXPECT_EQ(history.perPageCount(first), 1U);
    EXPECT_EQ(history.perPageCount(second), 1U);
    EXPECT_EQ(storedURLs("https://same.example/").size(), 2U);
}

TEST_F(HistoryStoreTest, ReportAndSaveWriteTheirLinesInOrderAndReloadWidgetsOnTheMainQueue) {
    std::atomic<int> widgetReloads = 0;
    std::atomic<bool> reloadedOnMain = false;
    HistoryStore history(store, {.clock = &clock, .calendar = std::nullopt, .reloadWidgets = [&] {
                                     reloadedOnMain = platform::DispatchQueue::isMainThread();
                                     ++widgetReloads;
                                 }});
    tamsel::testing::LogCapture log;
    report(history, {"https://ads.example/banner.js"}, pageAt("https://news.example/"), ExtensionType::customRules);

    // The insert runs on the store's writer while the report goes on, so the
    // first two lines may come in either order; the save comes after both.
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_THAT(std::vector(lines.begin(), lines.begin() + 2),
                UnorderedElementsAre("Added History record: https://ads.example/banner.js [customRules]",
                                                "Saved History record into Core Data background context"));
    EXPECT_EQ(lines[2], "Saved History Core Data");
    EXPECT_EQ(widgetReloads, 1);
    EXPECT_TRUE(reloadedOnMain);
}

TEST_F(HistoryStoreTest, PageThatCannotTellItsURLIsRememberedButNotStored) {
    HistoryStore history(store);
    tamsel::testing::LogCapture log;
    auto blank = pageAt(std::nullopt);
    auto silent = std::make_shared<StaticSafariPage>(std::nullopt);
    report(history, {"https://ads.example/a.js", "https://ads.example/b.js"}, blank, ExtensionType::blockAds);
    report(history, {"https://ads.example/a.js"}, silent, ExtensionType::blockAds);

    EXPECT_EQ(history.perPageCount(blank), 2U);
    EXPECT_EQ(history.perPageCount(silent), 1U);
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt), ExtensionCounts{});
    auto lines = log.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "Error while saving History to Core Data: can't get URL for page: " + blank->description()),
              2);
    EXPECT_THAT(lines, Contains("Error while saving History to Core Data: can't get properties for page: " +
                                silent->description()));
    EXPECT_THAT(blank->description(), ::testing::MatchesRegex("<SafariPage: 0x[0-9a-f]+>"));
}

TEST_F(HistoryStoreTest, ForgottenPageHasNoEntry) {
    HistoryStore history(store);
    auto page = pageAt("https://news.example/");
    EXPECT_EQ(history.perPageCount(page), std::nullopt);

    report(history, {}, page, ExtensionType::blockAds);  // an empty report still opens the entry
    EXPECT_EQ(history.perPageCount(page), 0U);
    report(history, {"https://ads.example/a.js"}, page, ExtensionType::blockAds);
    history.forgetPage(page);
    EXPECT_EQ(history.perPageCount(page), std::nullopt);

    tamsel::testing::LogCapture log;
    EXPECT_EQ(history.groupedHistory(page), std::nullopt);
    EXPECT_THAT(log.lines(), ElementsAre("historyPerPage[page] is nil"));

    // The stored record stays: the store keeps everything ever blocked.
    EXPECT_EQ(storedURLs("https://news.example/").size(), 1U);
}

TEST_F(HistoryStoreTest, ConcurrentReportsForOnePageLoseNothingAndDuplicateNothing) {
    HistoryStore history(store);
    auto page = pageAt("https://busy.example/");
    constexpr int threads = 8;
    constexpr int reportsPerThread = 50;
    std::atomic<int> saves = 0;
    std::vector<std::thread> reporters;
    for (int t = 0; t < threads; ++t) {
        reporters.emplace_back([&, t] {
            for (int i = 0; i < reportsPerThread; ++i) {
                // Each URL is reported by two threads, under two extensions.
                int n = (t / 2) * reportsPerThread + i;
                auto type = t % 2 ? ExtensionType::blockTrackers : ExtensionType::blockAds;
                history.addRecords({"https://r.example/" + std::to_string(n)}, page, type, [&] { ++saves; });
            }
        });
    }
    for (auto& reporter : reporters) reporter.join();
    ASSERT_TRUE(MainRunLoop::runUntil([&] { return saves == threads * reportsPerThread; }, 20s));

    constexpr int distinct = threads / 2 * reportsPerThread;
    EXPECT_EQ(history.perPageCount(page), std::size_t{distinct});
    store.waitUntilWritten();
    EXPECT_EQ(total(*store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt)), distinct);
}

TEST_F(HistoryStoreTest, DestroyingTheHistoryWhileRecordsAreInFlightStillStoresThem) {
    {
        HistoryStore history(store);
        for (int i = 0; i < 100; ++i) {
            history.addRecords({"https://x.example/" + std::to_string(i)}, pageAt("https://gone.example/"),
                               ExtensionType::blockSocial);
        }
    }
    store.waitUntilWritten();
    EXPECT_EQ(store.sumBlockedResourcesPerExtension(std::nullopt, std::nullopt),
              (ExtensionCounts{{ExtensionType::blockSocial, 100}}));
    // The saves that were due find the history gone and do nothing.
    MainRunLoop::drain();
}

}  // namespace
}  // namespace tamsel::runtime
