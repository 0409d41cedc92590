// The blocked-resource history under a long-lived profile: 3,000,000 records
// spread over 400 days, as after a year of heavy browsing.
//
// Measures
//  * bulk insert throughput of the store (records/s),
//  * a burst of 10,000 single-URL reports through the whole recording
//    pipeline (page properties, the add queue, the store's writer, the save),
//    and 30,000 reports arriving steadily at 10,000 a second,
//  * what the statistics view asks for each period: the three totals, the
//    period's per-extension sums and its chart series (all time: 30 buckets),
//  * the database's size on disk.
//
// Usage: bench_history_statistics [records] [days]
#include "platform/Calendar.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/MainRunLoop.h"
#include "platform/SafariPage.h"
#include "runtime/CoreDataStore.h"
#include "runtime/HistoryStore.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <time.h>

namespace {

using namespace tamsel;
using Clock = std::chrono::steady_clock;
using model::ExtensionType;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Ads and trackers are most of what is blocked.
ExtensionType pickExtension(std::mt19937_64& random) {
    static constexpr std::array<std::pair<ExtensionType, int>, 8> mix{{{ExtensionType::blockAds, 45},
                                                                       {ExtensionType::blockTrackers, 35},
                                                                       {ExtensionType::blockAnnoyances, 6},
                                                                       {ExtensionType::blockSocial, 5},
                                                                       {ExtensionType::regionalRules, 4},
                                                                       {ExtensionType::blockComments, 2},
                                                                       {ExtensionType::customRules, 2},
                                                                       {ExtensionType::blockAdult, 1}}};
    int roll = static_cast<int>(random() % 100);
    for (const auto& [type, weight] : mix) {
        if (roll < weight) return type;
        roll -= weight;
    }
    return ExtensionType::blockAds;
}

std::uintmax_t storeSize(const std::filesystem::path& database) {
    std::uintmax_t size = 0;
    for (const char* suffix : {"", "-wal", "-shm"}) {
        std::error_code error;
        auto part = std::filesystem::file_size(database.string() + suffix, error);
        if (!error) size += part;
    }
    return size;
}

// Processor time of the whole process (every thread), in seconds: steadier
// than wall time on a shared machine.
double processorSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double medianOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct ViewTiming {
    double totalsMs = 0;  // the three totals of the popover's counters
    double periodMs = 0;  // the period's per-extension sums (the category counters) and first-record date
    double seriesMs = 0;  // the period's chart series
    double sum() const { return totalsMs + periodMs + seriesMs; }
};

// Everything the statistics view reads when it shows `period`.
ViewTiming timeStatisticsView(const runtime::HistoryStore& history, runtime::HistoryPeriodType period,
                              std::int64_t& checksum) {
    ViewTiming timing;
    auto start = Clock::now();
    checksum += history.blockedResourcesCountForToday() + history.blockedResourcesCountForThisWeek() +
                history.blockedResourcesCountForAllTime();
    timing.totalsMs = millisecondsSince(start);
    start = Clock::now();
    checksum += runtime::total(history.sumBlockedResourcesPerExtension(period).value_or(runtime::ExtensionCounts{}));
    if (period == runtime::HistoryPeriodType::allTime) {
        checksum += history.firstBlockedResourceDate().value_or(platform::Date{}).time_since_epoch().count() % 7;
    }
    timing.periodMs = millisecondsSince(start);
    start = Clock::now();
    auto series = history.chartSeries(period);
    checksum += series ? static_cast<std::int64_t>(series->size()) : -1;
    timing.seriesMs = millisecondsSince(start);
    return timing;
}

// Median (by sum) of `runs` timings of the view for `period`, after one cold run.
std::pair<ViewTiming, ViewTiming> measureView(const runtime::HistoryStore& history, runtime::HistoryPeriodType period,
                                              int runs, std::int64_t& checksum) {
    ViewTiming cold = timeStatisticsView(history, period, checksum);
    std::vector<ViewTiming> warm;
    for (int run = 0; run < runs; ++run) warm.push_back(timeStatisticsView(history, period, checksum));
    std::sort(warm.begin(), warm.end(), [](const auto& a, const auto& b) { return a.sum() < b.sum(); });
    return {cold, warm[warm.size() / 2]};
}

}  // namespace

int main(int argc, char** argv) {
    const long recordCount = argc > 1 ? std::atol(argv[1]) : 3'000'000;
    const int days = argc > 2 ? std::atoi(argv[2]) : 400;
    constexpr int burstReports = 10'000;
    constexpr int batchSize = 10'000;

    std::string pattern = (std::filesystem::temp_directory_path() / "tamsel-bench-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) return 1;
    const std::filesystem::path directory = pattern;
    platform::setLogSink([](const platform::LogRecord&) {}, true);

    // "Now" is a Tuesday afternoon in Berlin; the history reaches back `days` days.
    platform::Calendar calendar("Europe/Berlin");
    platform::ManualClock clock(*calendar.date({2025, 6, 17, 15, 20, 0, 0}));
    const platform::Date now = clock.now();
    const platform::Date first = now - std::chrono::hours(24) * days;

    runtime::CoreDataStore store(directory, clock);
    runtime::HistoryStore history(store, {.clock = &clock, .calendar = calendar, .reloadWidgets = {}});

    // --- bulk insert -------------------------------------------------------
    std::mt19937_64 random(20250617);
    std::vector<std::string> pages, resources;
    for (int i = 0; i < 2'000; ++i) pages.push_back(fmt::format("https://site{}.example/articles/{}", i % 700, i));
    for (int i = 0; i < 20'000; ++i) {
        resources.push_back(fmt::format("https://cdn{}.adnetwork{}.example/js/tag.js?pub={}&slot={}", i % 13,
                                        i % 977, i * 7919 % 100'003, i % 17));
    }
    const auto span = std::chrono::duration_cast<std::chrono::microseconds>(now - first).count();
    std::vector<std::int64_t> offsets(static_cast<std::size_t>(recordCount));
    for (auto& offset : offsets) offset = static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(span));
    std::sort(offsets.begin(), offsets.end());  // records arrive in time order

    fmt::print("history_statistics: {} records over {} days, batches of {}\n", recordCount, days, batchSize);
    std::atomic<long> failedBatches = 0;
    auto insertStart = Clock::now();
    for (long i = 0; i < recordCount; i += batchSize) {
        std::vector<runtime::BlockedResource> batch;
        for (long j = i; j < std::min(recordCount, i + batchSize); ++j) {
            runtime::BlockedResource record;
            record.id = fmt::format("{:08X}-0000-4000-8000-{:012X}", static_cast<std::uint32_t>(j), random() >> 16);
            record.date = first + std::chrono::microseconds(offsets[static_cast<std::size_t>(j)]);
            record.extensionID = std::string(model::rawValue(pickExtension(random)));
            record.pageURL = pages[random() % pages.size()];
            record.pageDomain = record.pageURL->substr(8, record.pageURL->find('/', 8) - 8);
            record.blockedURL = resources[random() % resources.size()];
            batch.push_back(std::move(record));
        }
        store.insert(std::move(batch), [&](const std::optional<runtime::StoreError>& error) {
            if (error) ++failedBatches;
        });
        if ((i / batchSize) % 8 == 7) store.waitUntilWritten();  // bounded memory
    }
    store.waitUntilWritten();
    double insertSeconds = secondsSince(insertStart);
    fmt::print("  bulk insert:      {:.2f} s, {:.0f} records/s, failed batches {}\n", insertSeconds,
               static_cast<double>(recordCount) / insertSeconds, failedBatches.load());

    // --- a burst of reports through the recording pipeline -----------------
    auto page = std::make_shared<platform::StaticSafariPage>(
        platform::SafariPageProperties{"https://busy.example/live", "Live", false, true});
    std::atomic<int> saved = 0;
    auto burstStart = Clock::now();
    const double burstProcessorStart = processorSeconds();
    for (int i = 0; i < burstReports; ++i) {
        history.addRecords({fmt::format("https://burst.example/pixel?n={}", i)}, page,
                           i % 2 ? ExtensionType::blockTrackers : ExtensionType::blockAds, [&] { ++saved; });
    }
    double handOverMs = millisecondsSince(burstStart);
    platform::MainRunLoop::runUntil([&] { return saved == burstReports; }, std::chrono::minutes(2));
    store.waitUntilWritten();
    double burstSeconds = secondsSince(burstStart);
    const double burstProcessor = processorSeconds() - burstProcessorStart;
    fmt::print("  report burst:     {} reports handed over in {:.1f} ms, all saved in {:.3f} s = {:.0f} reports/s{}"
               " ({:.3f} s of processor time)\n",
               burstReports, handOverMs, burstSeconds, burstReports / burstSeconds,
               saved == burstReports ? "" : " (INCOMPLETE)", burstProcessor);

    // --- reports arriving steadily at 10,000 a second ------------------------
    // A reporter thread keeps to the rate while this thread drives the main
    // queue, as the extension's main run loop would.
    constexpr int sustainedReports = 30'000;
    constexpr auto reportInterval = std::chrono::microseconds(100);
    const auto storedBefore = history.blockedResourcesCountForAllTime();
    std::atomic<int> sustainedSaved = 0;
    std::atomic<bool> reporterDone = false;
    Clock::time_point lastReport;
    std::thread reporter([&] {
        auto page = std::make_shared<platform::StaticSafariPage>(
            platform::SafariPageProperties{"https://steady.example/feed", "Feed", false, true});
        auto start = Clock::now();
        for (int i = 0; i < sustainedReports; ++i) {
            std::this_thread::sleep_until(start + reportInterval * i);
            history.addRecords({fmt::format("https://steady.example/beacon?n={}", i)}, page,
                               pickExtension(random), [&] { ++sustainedSaved; });
        }
        lastReport = Clock::now();
        reporterDone = true;
    });
    auto sustainedStart = Clock::now();
    platform::MainRunLoop::runUntil([&] { return reporterDone && sustainedSaved == sustainedReports; },
                                    std::chrono::minutes(2));
    reporter.join();
    store.waitUntilWritten();
    const double sustainedSeconds = std::chrono::duration<double>(lastReport - sustainedStart).count();
    const double drainMs = millisecondsSince(lastReport);
    const auto storedAfter = history.blockedResourcesCountForAllTime();
    fmt::print("  steady reports:   {} reports in {:.2f} s ({:.0f}/s), all stored {:.1f} ms after the last; "
               "{} new records{}\n",
               sustainedReports, sustainedSeconds, sustainedReports / sustainedSeconds, drainMs,
               storedAfter - storedBefore, storedAfter - storedBefore == sustainedReports ? "" : " (LOST RECORDS)");

    // --- the statistics view -------------------------------------------------
    std::int64_t checksum = 0;
    constexpr int runs = 21;
    fmt::print("  statistics view per period (3 totals + the period's sums + its chart series), median of {}:\n",
               runs);
    for (auto period : model::allCases<runtime::HistoryPeriodType>()) {
        auto [cold, median] = measureView(history, period, runs, checksum);
        fmt::print("    {:<9} {:6.2f} ms in all (totals {:.2f}, period sums {:.2f}, series {:.2f}); first run {:.2f} ms\n",
                   model::rawValue(period), median.sum(), median.totalsMs, median.periodMs, median.seriesMs,
                   cold.sum());
    }
    std::vector<double> everything;
    for (int run = 0; run < runs; ++run) {
        auto start = Clock::now();
        checksum += history.blockedResourcesCountForToday() + history.blockedResourcesCountForThisWeek() +
                    history.blockedResourcesCountForAllTime();
        for (auto period : model::allCases<runtime::HistoryPeriodType>()) {
            checksum += static_cast<std::int64_t>(history.chartSeries(period)->size());
        }
        everything.push_back(millisecondsSince(start));
    }
    fmt::print("    3 totals + all three series together: {:.2f} ms\n", medianOf(everything));

    // --- the command line's history of one page (found through the page index) --
    auto pageStart = Clock::now();
    auto pageRecords = store.blockedResources(pages[7]);
    fmt::print("  one page's stored records: {} in {:.1f} ms\n", pageRecords ? pageRecords->size() : 0,
               millisecondsSince(pageStart));

    fmt::print("  all-time total {}, today {}, this week {}\n", history.blockedResourcesCountForAllTime(),
               history.blockedResourcesCountForToday(), history.blockedResourcesCountForThisWeek());
    fmt::print("  database size:    {:.1f} MB ({} bytes, {:.0f} bytes/record)\n",
               static_cast<double>(storeSize(store.storeURL())) / 1e6, storeSize(store.storeURL()),
               static_cast<double>(storeSize(store.storeURL())) /
                   static_cast<double>(recordCount + burstReports + sustainedReports));
    {
        std::error_code error;
        const auto main = std::filesystem::file_size(store.storeURL(), error);
        if (!error) {
            fmt::print("  of which the database file: {:.1f} MB, {:.0f} bytes/record (the rest is its log)\n",
                       static_cast<double>(main) / 1e6,
                       static_cast<double>(main) / static_cast<double>(recordCount + burstReports + sustainedReports));
        }
    }
    fmt::print("  (checksum {})\n", checksum);

    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
    return 0;
}
