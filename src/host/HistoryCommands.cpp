// tamsel report-blocked --page URL --extension EXT URL...   record what a content blocker blocked on a page
// tamsel stats [--period today|thisWeek|allTime]         the blocking statistics of a period
// tamsel history PAGE_URL                                 what was blocked on a page, by content blocker
//
// A command-line process holds no open pages, so a page is known by its URL:
// the records stored for that URL are the page's history, and a report skips
// the URLs already stored for its page, as a page in Safari skips those it
// already holds. `--now TIME` stands the clock at TIME; the time zone is the
// process's ($TZ). Standard output holds the results; the history's own
// lines go to standard error with -v, as the command frame routes them.
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/Command.h"
#include "platform/Calendar.h"
#include "platform/Clock.h"
#include "platform/MainRunLoop.h"
#include "platform/SafariPage.h"
#include "runtime/CategoryCounts.h"
#include "runtime/CoreDataStore.h"
#include "runtime/HistoryStore.h"
#include "storage/StoreURL.h"

namespace tamsel::host {
namespace {

using model::ExtensionType;
using platform::Calendar;
using platform::Date;
using runtime::ExtensionCounts;
using runtime::HistoryPeriodType;
using JSONWriter = rapidjson::Writer<rapidjson::StringBuffer>;

// --- times ---------------------------------------------------------------------------

// Reads "YYYY-MM-DDTHH:MM[:SS]" (a space may stand for the T), followed by
// "Z" or an offset "+HH:MM" / "-HHMM", or by nothing for the wall clock of
// `calendar`.
std::optional<Date> parseTime(std::string_view text, const Calendar& calendar) {
    auto number = [&text](std::size_t digits, int& out) {
        if (text.size() < digits) return false;
        auto [end, error] = std::from_chars(text.data(), text.data() + digits, out);
        if (error != std::errc() || end != text.data() + digits) return false;
        text.remove_prefix(digits);
        return true;
    };
    auto literal = [&text](std::string_view options) {
        if (text.empty() || options.find(text.front()) == std::string_view::npos) return false;
        text.remove_prefix(1);
        return true;
    };
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!number(4, year) || !literal("-") || !number(2, month) || !literal("-") || !number(2, day) ||
        !literal("T ") || !number(2, hour) || !literal(":") || !number(2, minute)) {
        return std::nullopt;
    }
    if (!text.empty() && text.front() == ':' && (!literal(":") || !number(2, second))) return std::nullopt;
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 59) return std::nullopt;

    platform::LocalDateTime local{year, static_cast<unsigned>(month), static_cast<unsigned>(day), hour, minute,
                                  second, 0};
    if (text.empty()) return calendar.date(local);

    int offsetMinutes = 0;
    if (!literal("Z")) {
        const bool negative = !text.empty() && text.front() == '-';
        int offsetHours = 0, offsetRest = 0;
        if (!literal("+-") || !number(2, offsetHours)) return std::nullopt;
        literal(":");
        if (!number(2, offsetRest) || offsetHours > 23 || offsetRest > 59) return std::nullopt;
        offsetMinutes = (negative ? -1 : 1) * (offsetHours * 60 + offsetRest);
    }
    if (!text.empty()) return std::nullopt;
    using namespace std::chrono;
    const sys_days date = std::chrono::year{year} / std::chrono::month{static_cast<unsigned>(month)} /
                          std::chrono::day{static_cast<unsigned>(day)};
    if (!year_month_day{date}.ok()) return std::nullopt;
    return Date{date} + hours{hour} + minutes{minute} + seconds{second} - minutes{offsetMinutes};
}

// "2024-05-10T00:00:00+02:00", in `calendar`'s zone.
std::string formatTime(Date date, const Calendar& calendar) {
    const auto local = calendar.localDateTime(date);
    const auto offset = calendar.secondsFromGMT(date).count();
    const auto magnitude = offset < 0 ? -offset : offset;
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}{}{:02}:{:02}", local.year, local.month, local.day,
                       local.hour, local.minute, local.second, offset < 0 ? '-' : '+', magnitude / 3600,
                       magnitude % 3600 / 60);
}

// The clock of a command: the wall clock, or standing still at --now.
class CommandClock {
public:
    explicit CommandClock(const std::optional<Date>& now) {
        if (now) manual_.emplace(*now);
    }
    const platform::Clock& clock() const {
        if (manual_) return *manual_;
        return platform::Clock::system();
    }

private:
    std::optional<platform::ManualClock> manual_;
};

// Adds --now to `command`, refusing text that is not a time; `text` receives it.
void addNowOption(CLI::App* command, std::string& text) {
    command->add_option("--now", text, "Stand the clock at this moment (YYYY-MM-DDTHH:MM[:SS][Z|+HH:MM])")
        ->check([](const std::string& value) {
            return parseTime(value, Calendar::current()) ? std::string() : "not a time: " + value;
        });
}

std::optional<Date> nowOption(const std::string& text, const Calendar& calendar) {
    if (text.empty()) return std::nullopt;
    return parseTime(text, calendar);
}

// The store in the app-group container of the data root.
std::filesystem::path storeDirectory() {
    return storage::storeURL(runtime::CoreDataStore::databaseName).parent_path();
}

// --- report-blocked ------------------------------------------------------------------

struct ReportOptions {
    std::string page;
    std::string extension;
    std::vector<std::string> urls;
    std::string now;
};

// A raw value ("block-ads") or a content-blocker extension's bundle identifier.
std::optional<ExtensionType> extensionNamed(const std::string& name) {
    if (auto type = model::fromRawValue<ExtensionType>(name)) return type;
    return model::extensionTypeFromBundleIdentifier(name);
}

std::string extensionNames() {
    std::vector<std::string_view> names;
    for (ExtensionType type : model::allCases<ExtensionType>()) names.push_back(model::rawValue(type));
    return fmt::format("{}", fmt::join(names, ", "));
}

int runReportBlocked(const ReportOptions& options, const GlobalOptions& global) {
    const auto type = extensionNamed(options.extension);
    if (!type) {
        return reportUsageError("--extension: no content blocker " + options.extension + " (one of " +
                                extensionNames() + ")");
    }
    if (options.page.empty()) return reportUsageError("--page: the page URL must not be empty");

    const Calendar calendar = Calendar::current();
    const CommandClock clock(nowOption(options.now, calendar));
    runtime::CoreDataStore store(storeDirectory(), clock.clock());
    if (!store.isLoaded()) return reportFailure("the blocked-resources store could not be opened");

    std::set<std::string> stored;
    if (auto records = store.blockedResources(options.page)) {
        for (const auto& record : *records) {
            if (record.blockedURL) stored.insert(*record.blockedURL);
        }
    }
    std::vector<std::string> fresh;
    std::copy_if(options.urls.begin(), options.urls.end(), std::back_inserter(fresh),
                 [&stored](const std::string& url) { return !stored.contains(url); });

    auto page = std::make_shared<platform::StaticSafariPage>(
        platform::SafariPageProperties{options.page, std::nullopt, false, true});
    std::size_t added = 0;
    {
        runtime::HistoryStore history(store, {.clock = &clock.clock(), .calendar = calendar, .reloadWidgets = {}});
        bool saved = false;
        history.addRecords(fresh, page, *type, [&saved] { saved = true; });
        if (!platform::MainRunLoop::runUntil([&saved] { return saved; }, std::chrono::minutes(1))) {
            return reportFailure("the records were not saved in time");
        }
        added = history.perPageCount(page).value_or(0);
    }
    store.waitUntilWritten();

    const std::size_t pageCount = stored.size() + added;
    if (global.json) {
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writer.Key("page");
        writeString(writer, options.page);
        writer.Key("extension");
        writeString(writer, model::rawValue(*type));
        writer.Key("reported");
        writer.Uint64(options.urls.size());
        writer.Key("new");
        writer.Uint64(added);
        writer.Key("pageCount");
        writer.Uint64(pageCount);
        writer.EndObject();
        printLine(buffer.GetString());
    } else {
        printLine(fmt::format("{}: {} new record{}, {} on the page", options.page, added, added == 1 ? "" : "s",
                              pageCount));
    }
    return exitSuccess;
}

// --- stats -----------------------------------------------------------------------------

// The periods by the names of the statistics' JSON; "week" and "all" are
// short for the last two.
const std::map<std::string, HistoryPeriodType> periodNames{
    {"today", HistoryPeriodType::today},   {"thisWeek", HistoryPeriodType::thisWeek},
    {"allTime", HistoryPeriodType::allTime}, {"week", HistoryPeriodType::thisWeek},
    {"all", HistoryPeriodType::allTime}};

struct StatsOptions {
    std::string period = "allTime";
    std::string now;
};

struct Statistics {
    HistoryPeriodType period = HistoryPeriodType::allTime;
    std::int64_t today = 0;
    std::int64_t thisWeek = 0;
    std::int64_t allTime = 0;
    std::optional<runtime::CategoryCounts> categories;
    std::optional<Date> firstRecord;
    std::optional<runtime::HistoryStore::ChartSeries> series;
};

std::string periodLabel(HistoryPeriodType period) {
    switch (period) {
        case HistoryPeriodType::allTime: return "all time";
        case HistoryPeriodType::thisWeek: return "this week";
        case HistoryPeriodType::today: return "today";
    }
    return {};
}

void writeStatisticsJSON(const Statistics& stats, const Calendar& calendar) {
    rapidjson::StringBuffer buffer;
    JSONWriter writer(buffer);
    writer.StartObject();
    writer.Key("period");
    writeString(writer, model::rawValue(stats.period));
    writer.Key("totals");
    writer.StartObject();
    writer.Key("today");
    writer.Int64(stats.today);
    writer.Key("thisWeek");
    writer.Int64(stats.thisWeek);
    writer.Key("allTime");
    writer.Int64(stats.allTime);
    writer.EndObject();
    writer.Key("categories");
    if (stats.categories) {
        writer.StartObject();
        writer.Key("ads");
        writer.Int64(stats.categories->ads);
        writer.Key("trackers");
        writer.Int64(stats.categories->trackers);
        writer.Key("others");
        writer.Int64(stats.categories->others);
        writer.EndObject();
    } else {
        writer.Null();
    }
    writer.Key("firstBlockedResourceDate");
    if (stats.firstRecord) writeString(writer, formatTime(*stats.firstRecord, calendar));
    else writer.Null();
    writer.Key("series");
    if (stats.series) {
        writer.StartArray();
        for (const auto& [start, counts] : *stats.series) {
            writer.StartObject();
            writer.Key("start");
            writeString(writer, formatTime(start, calendar));
            writer.Key("counts");
            writer.StartObject();
            for (ExtensionType type : model::allCases<ExtensionType>()) {
                auto count = counts.find(type);
                writeString(writer, model::rawValue(type));
                writer.Int64(count == counts.end() ? 0 : count->second);
            }
            writer.EndObject();
            writer.EndObject();
        }
        writer.EndArray();
    } else {
        writer.Null();
    }
    writer.EndObject();
    printLine(buffer.GetString());
}

void writeStatisticsText(const Statistics& stats, const Calendar& calendar) {
    printLine(fmt::format("{:<12}{}", "today", stats.today));
    printLine(fmt::format("{:<12}{}", "this week", stats.thisWeek));
    printLine(fmt::format("{:<12}{}", "all time", stats.allTime));
    printLine(fmt::format("{:<12}{}", "first", stats.firstRecord ? formatTime(*stats.firstRecord, calendar) : "-"));
    printLine("");
    printLine(fmt::format("{:<12}{}", "period", periodLabel(stats.period)));
    auto counter = [&stats](std::int64_t runtime::CategoryCounts::*field) {
        return stats.categories ? fmt::format("{}", (*stats.categories).*field) : std::string("-");
    };
    printLine(fmt::format("{:<12}{}", "ads", counter(&runtime::CategoryCounts::ads)));
    printLine(fmt::format("{:<12}{}", "trackers", counter(&runtime::CategoryCounts::trackers)));
    printLine(fmt::format("{:<12}{}", "others", counter(&runtime::CategoryCounts::others)));
    printLine("");
    if (!stats.series) {
        printLine("series      -");
        return;
    }
    std::string header = fmt::format("{:<26}", "START");
    for (ExtensionType type : model::allCases<ExtensionType>()) header += fmt::format(" {}", model::rawValue(type));
    printLine(header);
    for (const auto& [start, counts] : *stats.series) {
        std::string row = fmt::format("{:<26}", formatTime(start, calendar));
        for (ExtensionType type : model::allCases<ExtensionType>()) {
            auto count = counts.find(type);
            row += fmt::format(" {:>{}}", count == counts.end() ? 0 : count->second, model::rawValue(type).size());
        }
        printLine(row);
    }
}

int runStats(const StatsOptions& options, const GlobalOptions& global) {
    const Calendar calendar = Calendar::current();
    const CommandClock clock(nowOption(options.now, calendar));
    runtime::CoreDataStore store(storeDirectory(), clock.clock());
    if (!store.isLoaded()) return reportFailure("the blocked-resources store could not be opened");
    const runtime::HistoryStore history(store, {.clock = &clock.clock(), .calendar = calendar, .reloadWidgets = {}});

    Statistics stats;
    stats.period = periodNames.at(options.period);
    stats.today = history.blockedResourcesCountForToday();
    stats.thisWeek = history.blockedResourcesCountForThisWeek();
    stats.allTime = history.blockedResourcesCountForAllTime();
    if (auto sums = history.sumBlockedResourcesPerExtension(stats.period)) {
        stats.categories = runtime::categoryCounts(*sums);
    }
    stats.firstRecord = history.firstBlockedResourceDate();
    stats.series = history.chartSeries(stats.period);

    if (global.json) writeStatisticsJSON(stats, calendar);
    else writeStatisticsText(stats, calendar);
    return exitSuccess;
}

// --- history ---------------------------------------------------------------------------

int runHistory(const std::string& pageURL, const GlobalOptions& global) {
    const Calendar calendar = Calendar::current();
    runtime::CoreDataStore store(storeDirectory());
    auto records = store.blockedResources(pageURL);
    if (!records) return reportFailure("the blocked-resources store could not be read");

    // Grouped by content blocker, in the extensions' order, each in arrival order.
    std::map<ExtensionType, std::vector<const runtime::BlockedResource*>> groups;
    for (const auto& record : *records) {
        auto type = record.extensionID ? model::fromRawValue<ExtensionType>(*record.extensionID) : std::nullopt;
        if (type && record.blockedURL) groups[*type].push_back(&record);
    }
    if (groups.empty()) return reportFailure("no blocked resources recorded for " + pageURL);

    if (global.json) {
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartObject();
        writer.Key("page");
        writeString(writer, pageURL);
        writer.Key("contentBlockers");
        writer.StartArray();
        for (const auto& [type, group] : groups) writeString(writer, model::rawValue(type));
        writer.EndArray();
        writer.Key("records");
        writer.StartObject();
        for (const auto& [type, group] : groups) {
            writeString(writer, model::rawValue(type));
            writer.StartArray();
            for (const runtime::BlockedResource* record : group) {
                writer.StartObject();
                writer.Key("url");
                writeString(writer, *record->blockedURL);
                writer.Key("date");
                if (record->date) writeString(writer, formatTime(*record->date, calendar));
                else writer.Null();
                writer.EndObject();
            }
            writer.EndArray();
        }
        writer.EndObject();
        writer.EndObject();
        printLine(buffer.GetString());
        return exitSuccess;
    }
    for (const auto& [type, group] : groups) {
        printLine(fmt::format("{} ({})", model::rawValue(type), group.size()));
        for (const runtime::BlockedResource* record : group) printLine("  " + *record->blockedURL);
    }
    return exitSuccess;
}

// --- registration ----------------------------------------------------------------------

void addHistoryCommands(CommandLine& commandLine) {
    CLI::App& app = commandLine.app();

    auto report = std::make_shared<ReportOptions>();
    CLI::App* reportCommand = app.add_subcommand(
        "report-blocked", "Record resources that a content blocker blocked on a page, as Safari reports them");
    reportCommand->add_option("--page", report->page, "The page's URL")->required();
    reportCommand->add_option("--extension", report->extension,
                              "The content blocker: block-ads, ..., block-custom, or its bundle identifier")
        ->required();
    reportCommand->add_option("URL", report->urls, "The blocked resources")->required();
    addNowOption(reportCommand, report->now);
    commandLine.setAction(
        reportCommand, [report, &commandLine] { return runReportBlocked(*report, commandLine.options()); },
        Preparation::none);

    auto stats = std::make_shared<StatsOptions>();
    CLI::App* statsCommand = app.add_subcommand(
        "stats", "The blocking statistics: the three totals, the period's category counters and its chart");
    statsCommand
        ->add_option("--period", stats->period,
                     "today, thisWeek or allTime (default); week and all are short for the last two")
        ->check(CLI::IsMember({"today", "thisWeek", "allTime", "week", "all"}));
    addNowOption(statsCommand, stats->now);
    commandLine.setAction(
        statsCommand, [stats, &commandLine] { return runStats(*stats, commandLine.options()); }, Preparation::none);

    auto pageURL = std::make_shared<std::string>();
    CLI::App* historyCommand =
        app.add_subcommand("history", "The resources blocked on a page, grouped by content blocker");
    historyCommand->add_option("PAGE_URL", *pageURL, "The page's URL")->required();
    commandLine.setAction(
        historyCommand, [pageURL, &commandLine] { return runHistory(*pageURL, commandLine.options()); },
        Preparation::none);
}

const CommandRegistration registration{"history", addHistoryCommands};

}  // namespace
}  // namespace tamsel::host
