#include "runtime/BlockedResourceQueries.h"

#include "runtime/BlockedResourceSchema.h"
#include "runtime/URLHost.h"

#include "platform/Log.h"
#include "platform/UUID.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

namespace tamsel::runtime {

namespace {

using namespace std::chrono;
using platform::Date;

// See IntervalParts for how an interval is cut into these five ranges.
constexpr const char* rangeCountSQL =
    "SELECT extensionID, SUM(n) FROM ("
    " SELECT extensionID, count AS n FROM BlockedResourceDailyCount WHERE day >= ?1 AND day < ?2"
    " UNION ALL"
    " SELECT extensionID, count AS n FROM BlockedResourceHourlyCount WHERE hour >= ?3 AND hour < ?4"
    " UNION ALL"
    " SELECT extensionID, count AS n FROM BlockedResourceHourlyCount WHERE hour >= ?5 AND hour < ?6"
    " UNION ALL"
    " SELECT extensionID, COUNT(*) AS n FROM BlockedResource WHERE date >= ?7 AND date < ?8 GROUP BY extensionID"
    " UNION ALL"
    " SELECT extensionID, COUNT(*) AS n FROM BlockedResource WHERE date >= ?9 AND date < ?10 GROUP BY extensionID"
    ") GROUP BY extensionID";

// Records without a date are in no count table but still count for all time.
constexpr const char* allTimeCountSQL =
    "SELECT extensionID, SUM(n) FROM ("
    " SELECT extensionID, count AS n FROM BlockedResourceDailyCount"
    " UNION ALL"
    " SELECT extensionID, COUNT(*) AS n FROM BlockedResource WHERE date IS NULL GROUP BY extensionID"
    ") GROUP BY extensionID";

constexpr const char* firstDateSQL =
    "SELECT date FROM BlockedResource WHERE date IS NOT NULL ORDER BY date LIMIT 1";

using BlockedResourceSchema::pageRecordsSQL;

std::optional<std::string> text(const SQLite::Column& column) {
    if (column.isNull()) return std::nullopt;
    return column.getString();
}

ExtensionCounts countsOf(SQLite::Statement& statement) {
    std::vector<std::pair<std::string, std::int64_t>> rows;
    while (statement.executeStep()) {
        if (auto id = text(statement.getColumn(0))) rows.emplace_back(*id, statement.getColumn(1).getInt64());
    }
    ExtensionCounts counts;
    for (model::ExtensionType type : model::allCases<model::ExtensionType>()) {
        auto row = std::find_if(rows.begin(), rows.end(), [&](const auto& r) { return r.first == model::rawValue(type); });
        if (row != rows.end()) counts[type] = row->second;
    }
    return counts;
}

platform::SystemLogger& logger() {
    static platform::SystemLogger instance("CoreData");
    return instance;
}

template <class Result, class Work>
std::optional<Result> fetch(BlockedResourceDatabase& database, const char* operation, Work&& work) {
    std::optional<Result> result;
    auto failure = database.use([&](BlockedResourceDatabase& open) { result = work(open); });
    if (!failure) return result;
    logger().error("Error while fetching %s: %s", operation, failure->description.c_str());
    return std::nullopt;
}

}  // namespace

IntervalParts IntervalParts::cut(Date from, Date to) {
    IntervalParts parts;
    to = std::max(from, to);
    const auto micros = [](auto time) { return duration_cast<microseconds>(time.time_since_epoch()).count(); };
    const auto hourFrom = ceil<hours>(from);
    const auto hourTo = floor<hours>(to);
    if (hourFrom >= hourTo) {
        parts.headFrom = micros(from);
        parts.headTo = micros(to);
        return parts;
    }
    parts.headFrom = micros(from);
    parts.headTo = micros(hourFrom);
    parts.tailFrom = micros(hourTo);
    parts.tailTo = micros(to);
    const auto dayFrom = ceil<days>(hourFrom);
    const auto dayTo = floor<days>(hourTo);
    const auto hoursOf = [](auto time) { return duration_cast<hours>(time.time_since_epoch()).count(); };
    if (dayFrom >= dayTo) {
        parts.headHourFrom = hoursOf(hourFrom);
        parts.headHourTo = hoursOf(hourTo);
        return parts;
    }
    parts.dayFrom = dayFrom.time_since_epoch().count();
    parts.dayTo = dayTo.time_since_epoch().count();
    parts.headHourFrom = hoursOf(hourFrom);
    parts.headHourTo = hoursOf(dayFrom);
    parts.tailHourFrom = hoursOf(dayTo);
    parts.tailHourTo = hoursOf(hourTo);
    return parts;
}

std::array<std::int64_t, 10> IntervalParts::bindings() const {
    return {dayFrom, dayTo, headHourFrom, headHourTo, tailHourFrom, tailHourTo, headFrom, headTo, tailFrom, tailTo};
}

std::optional<ExtensionCounts> BlockedResourceQueries::counts(std::optional<Date> start, std::optional<Date> end) {
    if (!start || !end) {
        return fetch<ExtensionCounts>(database_, "sumBlockedResourcesPerExtensionForAllTime",
                                      [](BlockedResourceDatabase& open) { return countsOf(open.statement(allTimeCountSQL)); });
    }
    const auto bindings = IntervalParts::cut(*start, *end).bindings();
    return fetch<ExtensionCounts>(database_, "sumBlockedResourcesPerExtensionForPeriod",
                                  [&](BlockedResourceDatabase& open) {
                                      SQLite::Statement& statement = open.statement(rangeCountSQL);
                                      for (std::size_t i = 0; i < bindings.size(); ++i) {
                                          statement.bind(static_cast<int>(i + 1), bindings[i]);
                                      }
                                      return countsOf(statement);
                                  });
}

std::optional<Date> BlockedResourceQueries::firstDate() {
    auto found = fetch<std::optional<Date>>(database_, "firstBlockedResourceDate",
                                            [](BlockedResourceDatabase& open) -> std::optional<Date> {
                                                SQLite::Statement& statement = open.statement(firstDateSQL);
                                                if (!statement.executeStep()) return std::nullopt;
                                                return Date(microseconds(statement.getColumn(0).getInt64()));
                                            });
    return found ? *found : std::nullopt;
}

std::optional<std::vector<BlockedResource>> BlockedResourceQueries::records(std::string_view pageURL) {
    return fetch<std::vector<BlockedResource>>(database_, "blockedResources", [&](BlockedResourceDatabase& open) {
        SQLite::Statement statement(open.connection(), pageRecordsSQL);
        statement.bind(1, std::string(pageURL));
        std::vector<BlockedResource> records;
        while (statement.executeStep()) {
            BlockedResource record;
            const SQLite::Column id = statement.getColumn(0);
            if (id.isBlob() && id.getBytes() == 16) {
                platform::UUIDBytes bytes;
                std::copy_n(static_cast<const std::uint8_t*>(id.getBlob()), 16, bytes.begin());
                record.id = platform::uuidString(bytes);
            } else {
                record.id = text(id);
            }
            if (!statement.getColumn(1).isNull()) record.date = Date(microseconds(statement.getColumn(1).getInt64()));
            record.extensionID = text(statement.getColumn(2));
            record.blockedURL = text(statement.getColumn(3));
            record.pageURL = text(statement.getColumn(4));
            // NULL stands for the page address's host, an empty blob for no domain.
            const SQLite::Column domain = statement.getColumn(5);
            if (domain.isNull()) {
                record.pageDomain = record.pageURL ? urlHost(*record.pageURL) : std::nullopt;
            } else if (!domain.isBlob()) {
                record.pageDomain = domain.getString();
            }
            records.push_back(std::move(record));
        }
        return records;
    });
}

}  // namespace tamsel::runtime
