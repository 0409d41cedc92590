#pragma once

#include "model/ExtensionType.h"
#include "platform/Calendar.h"
#include "platform/Clock.h"
#include "platform/SafariPage.h"
#include "runtime/BlockedResource.h"
#include "runtime/CoreDataStore.h"
#include "runtime/History.h"
#include "runtime/HistoryPeriodType.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tamsel::runtime {

// The blocked-resource history: what was blocked on each open page, kept in
// memory for the badge and the history view, and every blocked resource
// recorded in the persistent store for the statistics.
//
// Statistics are computed in the calendar and time zone given at creation
// (the current ones when none is given) with the clock's now. Periods are
// half-open: today is [start of today, today at 23:59:59), this week is
// [weekAgoStart, today at 23:59:59). A record stamped within the last second
// of a day falls into no day.
class HistoryStore {
public:
    static constexpr std::string_view userPrefersBadgeToolbarIconKey = "userPrefersBadgeToolbarIconKey";

    // Counts per bucket of a chart, keyed by the start of the bucket. A bucket
    // whose count could not be read has no entry.
    using ChartSeries = std::map<platform::Date, ExtensionCounts>;

    // A page's records grouped by content blocker.
    struct GroupedHistory {
        std::map<model::ExtensionType, std::vector<History>> records;
        // The extensions with at least one record, in declaration order.
        std::vector<model::ExtensionType> contentBlockers;

        bool operator==(const GroupedHistory&) const = default;
    };

    struct Options {
        const platform::Clock* clock = nullptr;      // the system clock when null
        std::optional<platform::Calendar> calendar;  // Calendar::current() per query when absent
        // Called on the main queue after records were saved, where the
        // platform would reload its widget timelines.
        std::function<void()> reloadWidgets;
    };

    explicit HistoryStore(CoreDataStore& store);
    HistoryStore(CoreDataStore& store, Options options);
    // Waits until every record reported so far has been handed to the store.
    ~HistoryStore();

    HistoryStore(const HistoryStore&) = delete;
    HistoryStore& operator=(const HistoryStore&) = delete;

    // The process's history, on CoreDataStore::shared(), created on first use.
    static HistoryStore& shared();

    // Records the URLs of one content-blocker report for `page`, and returns at
    // once. A URL the page already has a record for is skipped, whichever
    // extension blocked it. New records are stored once the page has told its
    // URL; when every record in flight has been handed to the store, the main
    // queue saves the store and reloads widgets, then calls `didSave` (if any).
    void addRecords(const std::vector<std::string>& urls, const std::shared_ptr<platform::SafariPage>& page,
                    model::ExtensionType type, std::function<void()> didSave = {});

    void forgetPage(const std::shared_ptr<platform::SafariPage>& page);

    // The number of records held for the page; absent when it has no entry.
    std::optional<std::size_t> perPageCount(const std::shared_ptr<platform::SafariPage>& page) const;

    // Absent, with the line "historyPerPage[page] is nil", when the page has no entry.
    std::optional<GroupedHistory> groupedHistory(const std::shared_ptr<platform::SafariPage>& page) const;

    // The start of the day six calendar days before today.
    std::optional<platform::Date> weekAgoStart() const;

    std::optional<ExtensionCounts> sumBlockedResourcesPerExtensionForToday() const;
    std::optional<ExtensionCounts> sumBlockedResourcesPerExtensionForThisWeek() const;
    std::optional<ExtensionCounts> sumBlockedResourcesPerExtensionForAllTime() const;
    std::optional<ExtensionCounts> sumBlockedResourcesPerExtension(HistoryPeriodType period) const;

    // Sums of the per-extension counts; 0 when those are missing.
    std::int64_t blockedResourcesCountForToday() const;
    std::int64_t blockedResourcesCountForThisWeek() const;
    std::int64_t blockedResourcesCountForAllTime() const;

    std::optional<platform::Date> firstBlockedResourceDate() const;

    // Two-hour buckets from the start of today, up to the one holding now (at most 12).
    std::optional<ChartSeries> averageBlockedPerDayPerExtensionForToday() const;
    // One bucket per day of this week.
    std::optional<ChartSeries> averageBlockedPerDayPerExtensionForThisWeek() const;
    // Up to `numberOfPoints` buckets of equal whole days from the day of the
    // first record; the today series while there is less than two days' history.
    std::optional<ChartSeries> averageBlockedResourcesPerDayPerExtension(int numberOfPoints) const;
    // The series the statistics view draws for the period (30 points for all time).
    std::optional<ChartSeries> chartSeries(HistoryPeriodType period) const;

    struct Core;

private:
    struct Today {
        platform::Calendar calendar;
        platform::Date now;
        platform::Date start;
        std::optional<platform::Date> end;
    };
    Today today() const;
    std::optional<platform::Date> weekAgoStart(const Today& today) const;
    std::optional<ExtensionCounts> sum(std::optional<platform::Date> start, std::optional<platform::Date> end) const;
    std::optional<ChartSeries> todaySeries(const Today& today) const;

    std::shared_ptr<Core> core_;
};

}  // namespace tamsel::runtime
