#include "runtime/HistoryStore.h"

#include "platform/BuildConfig.h"
#include "platform/DispatchGroup.h"
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "platform/Synchronized.h"
#include "platform/Text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <mutex>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

namespace tamsel::runtime {

namespace {

using platform::Calendar;
using platform::Date;
using platform::DateComponents;
using platform::SafariPage;
using platform::SafariPageProperties;

struct PageHistory {
    std::vector<History> records;  // in arrival order
    std::unordered_set<std::string> urls;
};

using PageMap = std::map<std::shared_ptr<SafariPage>, PageHistory>;

using platform::lowercased;

// "app.tamsel.Tamsel" without its last component: "app.tamsel".
std::string baseIdentifierWithoutLastComponent() {
    std::string identifier = build::baseIdentifier;
    auto dot = identifier.rfind('.');
    return dot == std::string::npos ? identifier : identifier.substr(0, dot);
}

// The extension type as the log lines print it: its case name.
std::string_view caseName(model::ExtensionType type) {
    static constexpr std::array<std::string_view, 8> names{
        "blockAds",      "blockTrackers", "blockAnnoyances", "blockSocial",
        "blockComments", "blockAdult",    "regionalRules",   "customRules"};
    return names[static_cast<std::size_t>(type)];
}

}  // namespace

struct HistoryStore::Core : std::enable_shared_from_this<HistoryStore::Core> {
    Core(CoreDataStore& store, Options options)
        : store(store),
          clock(options.clock ? *options.clock : platform::Clock::system()),
          calendar(std::move(options.calendar)),
          reloadWidgets(std::move(options.reloadWidgets)),
          historyPerPage(lowercased(build::baseIdentifier) + ".history-store-lock"),
          addNewRecordsQueue(baseIdentifierWithoutLastComponent() + ".history-store.add") {}

    void pageDidAnswer(const std::shared_ptr<SafariPage>& page, const std::string& url, model::ExtensionType type,
                       const std::optional<SafariPageProperties>& properties) {
        if (!properties) {
            platform::consolePrint("Error while saving History to Core Data: can't get properties for page: " +
                                   page->description());
            addNewRecordsGroup.leave();
            return;
        }
        if (!properties->url) {
            platform::consolePrint("Error while saving History to Core Data: can't get URL for page: " +
                                   page->description());
            addNewRecordsGroup.leave();
            return;
        }
        // Reports of a burst arrive faster than the add queue wakes up for
        // each: they wait together, and one turn of the queue hands them all
        // to the store in the order they came.
        std::lock_guard lock(pendingAddsMutex);
        const bool first = pendingAdds.empty();
        pendingAdds.push_back({*properties->url, url, type});
        if (first) addNewRecordsQueue.async([self = shared_from_this()] { self->handOverPendingAdds(); });
    }

    void handOverPendingAdds() {
        std::vector<PendingAdd> adds;
        {
            std::lock_guard lock(pendingAddsMutex);
            adds.swap(pendingAdds);
        }
        for (PendingAdd& add : adds) {
            // A store that could not be opened cannot take the record; the
            // memory history keeps it all the same, so the badge counts it.
            std::optional<StoreError> handOver;
            if (store.isLoaded()) {
                store.insertRecord(std::move(add.pageURL), add.url, add.type);
            } else {
                handOver = StoreError{0, "The blocked-resources store is not loaded", {}};
            }
            platform::consolePrint("Added History record: " + add.url + " [" + std::string(caseName(add.type)) + "]");
            if (handOver) platform::consolePrint(handOver->description);
            addNewRecordsGroup.leave();
        }
    }

    struct PendingAdd {
        std::string pageURL;
        std::string url;
        model::ExtensionType type;
    };

    CoreDataStore& store;
    const platform::Clock& clock;
    const std::optional<Calendar> calendar;
    const std::function<void()> reloadWidgets;

    platform::Synchronized<PageMap> historyPerPage;
    std::mutex pendingAddsMutex;
    std::vector<PendingAdd> pendingAdds;
    platform::DispatchQueue addNewRecordsQueue;
    platform::DispatchGroup addNewRecordsGroup;
};

HistoryStore::HistoryStore(CoreDataStore& store) : HistoryStore(store, Options{}) {}

HistoryStore::HistoryStore(CoreDataStore& store, Options options)
    : core_(std::make_shared<Core>(store, std::move(options))) {}

HistoryStore::~HistoryStore() {
    // Every report's write has run (and entered the group for its records),
    // then every record has been handed to the store; what remains are
    // blocks that hold the core themselves.
    core_->historyPerPage.read([](const PageMap&) { return 0; });
    core_->addNewRecordsGroup.wait();
}

HistoryStore& HistoryStore::shared() {
    static HistoryStore store(CoreDataStore::shared());
    return store;
}

void HistoryStore::addRecords(const std::vector<std::string>& urls, const std::shared_ptr<SafariPage>& page,
                              model::ExtensionType type, std::function<void()> didSave) {
    if (!page) return;
    Core* core = core_.get();
    // Held until the report's write has entered the group for its records,
    // so that the save below cannot run before those records exist.
    core->addNewRecordsGroup.enter();
    // One write per report: two reports for one page never lose each other's records.
    core->historyPerPage.write([core, urls, page, type](PageMap& map) {
        auto self = core->shared_from_this();
        PageHistory& history = map[page];
        for (const std::string& url : urls) {
            if (!history.urls.insert(url).second) continue;
            history.records.push_back(History{page, url, type});
            core->addNewRecordsGroup.enter();
            page->getPropertiesWithCompletionHandler(
                [self, page, url, type](std::optional<SafariPageProperties> properties) {
                    self->pageDidAnswer(page, url, type, properties);
                });
        }
        core->addNewRecordsGroup.leave();
    });

    std::weak_ptr<Core> weakCore = core_;
    core->addNewRecordsGroup.notify(platform::DispatchQueue::main(), [weakCore, didSave = std::move(didSave)] {
        auto core = weakCore.lock();
        if (!core) return;
        core->store.saveContext([weakCore, didSave] {
            platform::DispatchQueue::main().async([weakCore, didSave] {
                if (auto core = weakCore.lock(); core && core->reloadWidgets) core->reloadWidgets();
                if (didSave) didSave();
            });
        });
    });
}

void HistoryStore::forgetPage(const std::shared_ptr<SafariPage>& page) {
    core_->historyPerPage.write([page](PageMap& map) { map.erase(page); });
}

std::optional<std::size_t> HistoryStore::perPageCount(const std::shared_ptr<SafariPage>& page) const {
    return core_->historyPerPage.read([&](const PageMap& map) -> std::optional<std::size_t> {
        auto entry = map.find(page);
        if (entry == map.end()) return std::nullopt;
        return entry->second.records.size();
    });
}

std::optional<HistoryStore::GroupedHistory> HistoryStore::groupedHistory(
    const std::shared_ptr<SafariPage>& page) const {
    auto records = core_->historyPerPage.read([&](const PageMap& map) -> std::optional<std::vector<History>> {
        auto entry = map.find(page);
        if (entry == map.end()) return std::nullopt;
        return entry->second.records;
    });
    if (!records) {
        platform::consolePrint("historyPerPage[page] is nil");
        return std::nullopt;
    }
    GroupedHistory grouped;
    for (History& record : *records) grouped.records[record.extension].push_back(std::move(record));
    for (model::ExtensionType type : model::allCases<model::ExtensionType>()) {
        if (grouped.records.contains(type)) grouped.contentBlockers.push_back(type);
    }
    return grouped;
}

// --- statistics ------------------------------------------------------------

HistoryStore::Today HistoryStore::today() const {
    Calendar calendar = core_->calendar ? *core_->calendar : Calendar::current();
    Date now = core_->clock.now();
    Date start = calendar.startOfDay(now);
    auto end = calendar.dateBySettingTime(23, 59, 59, now);
    return Today{std::move(calendar), now, start, end};
}

std::optional<Date> HistoryStore::weekAgoStart(const Today& today) const {
    auto date = today.calendar.dateByAdding(DateComponents{.day = -6}, today.start);
    if (!date) platform::consolePrint("Can't calculate weekAgoStart date");
    return date;
}

std::optional<Date> HistoryStore::weekAgoStart() const {
    return weekAgoStart(today());
}

std::optional<ExtensionCounts> HistoryStore::sum(std::optional<Date> start, std::optional<Date> end) const {
    return core_->store.sumBlockedResourcesPerExtension(start, end);
}

std::optional<ExtensionCounts> HistoryStore::sumBlockedResourcesPerExtensionForToday() const {
    Today now = today();
    if (!now.end) return std::nullopt;
    return sum(now.start, now.end);
}

std::optional<ExtensionCounts> HistoryStore::sumBlockedResourcesPerExtensionForThisWeek() const {
    Today now = today();
    auto start = weekAgoStart(now);
    if (!start || !now.end) return std::nullopt;
    return sum(start, now.end);
}

std::optional<ExtensionCounts> HistoryStore::sumBlockedResourcesPerExtensionForAllTime() const {
    return sum(std::nullopt, std::nullopt);
}

std::optional<ExtensionCounts> HistoryStore::sumBlockedResourcesPerExtension(HistoryPeriodType period) const {
    switch (period) {
        case HistoryPeriodType::allTime: return sumBlockedResourcesPerExtensionForAllTime();
        case HistoryPeriodType::thisWeek: return sumBlockedResourcesPerExtensionForThisWeek();
        case HistoryPeriodType::today: return sumBlockedResourcesPerExtensionForToday();
    }
    return std::nullopt;
}

std::int64_t HistoryStore::blockedResourcesCountForToday() const {
    return total(sumBlockedResourcesPerExtensionForToday().value_or(ExtensionCounts{}));
}

std::int64_t HistoryStore::blockedResourcesCountForThisWeek() const {
    return total(sumBlockedResourcesPerExtensionForThisWeek().value_or(ExtensionCounts{}));
}

std::int64_t HistoryStore::blockedResourcesCountForAllTime() const {
    return total(sumBlockedResourcesPerExtensionForAllTime().value_or(ExtensionCounts{}));
}

std::optional<Date> HistoryStore::firstBlockedResourceDate() const {
    return core_->store.firstBlockedResourceDate();
}

std::optional<HistoryStore::ChartSeries> HistoryStore::todaySeries(const Today& today) const {
    auto hours = today.calendar.hoursBetween(today.start, today.now);
    if (!hours) {
        platform::consolePrint("Can't get numberOfHours when calculating averageBlockedPerDayPerExtensionForToday");
        return std::nullopt;
    }
    std::int64_t numberOfHours = std::min<std::int64_t>(*hours + 1, 23);
    std::int64_t buckets = (numberOfHours + 1) / 2;  // ceil(n × 0.5)
    ChartSeries series;
    for (std::int64_t i = 0; i < buckets; ++i) {
        auto start = today.calendar.dateByAdding(DateComponents{.hour = 2 * i}, today.start);
        auto end = today.calendar.dateByAdding(DateComponents{.hour = 2 * i + 2}, today.start);
        if (!start || !end) {
            platform::consolePrint(!start ? "Can't create interval start day" : "Can't create interval end day");
            return std::nullopt;
        }
        if (auto counts = sum(start, end)) series[*start] = std::move(*counts);
    }
    return series;
}

std::optional<HistoryStore::ChartSeries> HistoryStore::averageBlockedPerDayPerExtensionForToday() const {
    return todaySeries(today());
}

namespace {

// Buckets of whole days: bucket i runs from the start of `first`'s day +
// startDays(i) days to `first`'s day at 23:59:59 + endDays(i) days.
template <class Sum>
std::optional<HistoryStore::ChartSeries> daySeries(const Calendar& calendar, Date first, std::int64_t buckets,
                                                   std::int64_t step, const Sum& sum) {
    Date firstDayStart = calendar.startOfDay(first);
    auto firstDayEnd = calendar.dateBySettingTime(23, 59, 59, first);
    HistoryStore::ChartSeries series;
    for (std::int64_t i = 0; i < buckets; ++i) {
        auto start = calendar.dateByAdding(DateComponents{.day = static_cast<int>(step * i)}, firstDayStart);
        if (!start) {
            platform::consolePrint("Can't create interval start day");
            return std::nullopt;
        }
        std::optional<Date> end;
        if (firstDayEnd) {
            end = calendar.dateByAdding(DateComponents{.day = static_cast<int>(step * i + step - 1)}, *firstDayEnd);
        }
        if (!end) {
            platform::consolePrint("Can't create interval end day");
            return std::nullopt;
        }
        if (auto counts = sum(*start, *end)) series[*start] = std::move(*counts);
    }
    return series;
}

}  // namespace

std::optional<HistoryStore::ChartSeries> HistoryStore::averageBlockedPerDayPerExtensionForThisWeek() const {
    Today now = today();
    auto start = weekAgoStart(now);
    if (!start) return std::nullopt;
    return daySeries(now.calendar, *start, 7, 1, [this](Date from, Date to) { return sum(from, to); });
}

std::optional<HistoryStore::ChartSeries> HistoryStore::averageBlockedResourcesPerDayPerExtension(
    int numberOfPoints) const {
    if (numberOfPoints < 1) return std::nullopt;
    auto first = firstBlockedResourceDate();
    if (!first) {
        platform::consolePrint("No firstBlockedResourceDate available");
        return std::nullopt;
    }
    Today now = today();
    auto days = now.calendar.daysBetween(*first, now.now);
    if (!days) {
        platform::consolePrint("Can't get numberOfDays when calculating averageBlockedResourcesPerDayPerExtension");
        return std::nullopt;
    }
    std::int64_t numberOfDays = *days + 1;
    if (numberOfDays < 2) return todaySeries(now);
    std::int64_t step = (numberOfDays + numberOfPoints - 1) / numberOfPoints;  // ceil(d ÷ P)
    std::int64_t buckets = std::min<std::int64_t>(numberOfDays, numberOfPoints);
    return daySeries(now.calendar, *first, buckets, step, [this](Date from, Date to) { return sum(from, to); });
}

std::optional<HistoryStore::ChartSeries> HistoryStore::chartSeries(HistoryPeriodType period) const {
    switch (period) {
        case HistoryPeriodType::allTime: return averageBlockedResourcesPerDayPerExtension(30);
        case HistoryPeriodType::thisWeek: return averageBlockedPerDayPerExtensionForThisWeek();
        case HistoryPeriodType::today: return averageBlockedPerDayPerExtensionForToday();
    }
    return std::nullopt;
}

}  // namespace tamsel::runtime
