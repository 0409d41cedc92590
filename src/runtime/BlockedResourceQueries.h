#pragma once

#include "platform/Clock.h"
#include "runtime/BlockedResource.h"
#include "runtime/BlockedResourceDatabase.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace tamsel::runtime {

// The reads of the blocked-resource store. Counts never load records: each
// is one grouped count query over the daily and hourly count tables plus the
// records of the partial hours at the two ends of the interval. A failure is
// logged ("Error while fetching <operation>: …") and answers nothing.
class BlockedResourceQueries {
public:
    explicit BlockedResourceQueries(BlockedResourceDatabase& database) : database_(database) {}

    // Counts of the records with start <= date < end; of every record (dated or
    // not) when either bound is absent.
    std::optional<ExtensionCounts> counts(std::optional<platform::Date> start, std::optional<platform::Date> end);
    std::optional<platform::Date> firstDate();
    // The page's records, oldest first.
    std::optional<std::vector<BlockedResource>> records(std::string_view pageURL);

private:
    BlockedResourceDatabase& database_;
};

// An interval [from, to) cut into the ranges that the interval count reads:
// whole UTC days, the whole hours before and after them, and the partial hours
// at either end (in microseconds). Empty ranges are [0, 0).
struct IntervalParts {
    std::int64_t dayFrom = 0, dayTo = 0;
    std::int64_t headHourFrom = 0, headHourTo = 0;
    std::int64_t tailHourFrom = 0, tailHourTo = 0;
    std::int64_t headFrom = 0, headTo = 0;
    std::int64_t tailFrom = 0, tailTo = 0;

    static IntervalParts cut(platform::Date from, platform::Date to);
    // The ten bound values, in the order of the query's parameters.
    std::array<std::int64_t, 10> bindings() const;
};

}  // namespace tamsel::runtime
