#pragma once

#include "model/ExtensionType.h"
#include "platform/Calendar.h"
#include "platform/Clock.h"
#include "runtime/BlockedResource.h"
#include "runtime/CoreDataStore.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

// Dates and records for the history and statistics tests.
namespace tamsel::runtime::testing {

inline platform::Date utc(int y, unsigned m, unsigned d, int h = 0, int mi = 0, int s = 0) {
    using namespace std::chrono;
    return platform::Date{sys_days{year{y} / month{m} / day{d}}} + hours{h} + minutes{mi} + seconds{s};
}

// A wall-clock reading in `calendar`'s zone.
inline platform::Date at(const platform::Calendar& calendar, int y, unsigned m, unsigned d, int h = 0, int mi = 0,
                         int s = 0) {
    return *calendar.date(platform::LocalDateTime{y, m, d, h, mi, s, 0});
}

inline BlockedResource record(platform::Date date, model::ExtensionType type,
                              std::string pageURL = "https://news.example/article",
                              std::string blockedURL = "https://ads.example/banner.js") {
    BlockedResource r;
    r.date = date;
    r.extensionID = std::string(model::rawValue(type));
    r.blockedURL = std::move(blockedURL);
    r.pageURL = std::move(pageURL);
    r.pageDomain = "news.example";
    return r;
}

// Inserts and waits until the records are committed; true when they were.
inline bool insertNow(CoreDataStore& store, std::vector<BlockedResource> records) {
    std::optional<StoreError> failure;
    store.insert(std::move(records), [&](const std::optional<StoreError>& error) { failure = error; });
    store.waitUntilWritten();
    return !failure;
}

}  // namespace tamsel::runtime::testing
