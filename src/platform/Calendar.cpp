#include "platform/Calendar.h"

#include "platform/Log.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <string_view>
#include <vector>

namespace tamsel::platform {

namespace {

using std::chrono::days;
using std::chrono::seconds;
using std::chrono::sys_days;

constexpr std::int64_t secondsPerDay = 86'400;

std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
    std::int64_t q = a / b;
    return (a % b != 0 && ((a < 0) != (b < 0))) ? q - 1 : q;
}

std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day) {
    sys_days d{std::chrono::year{static_cast<int>(year)} / std::chrono::month{month} /
               std::chrono::day{day}};
    return d.time_since_epoch().count();
}

bool isLeapYear(std::int64_t year) {
    return std::chrono::year{static_cast<int>(year)}.is_leap();
}

unsigned daysInMonth(std::int64_t year, unsigned month) {
    auto last = std::chrono::year_month_day_last{std::chrono::year{static_cast<int>(year)} /
                                                 std::chrono::month{month} / std::chrono::last};
    return static_cast<unsigned>(last.day());
}

// ---------------------------------------------------------------------------
// POSIX TZ rules: the footer of a TZif file, valid after its last transition,
// or a zone given directly ("CET-1CEST,M3.5.0,M10.5.0/3").

struct RuleDate {
    enum class Kind { julianNoLeap, zeroBased, monthWeekDay } kind = Kind::monthWeekDay;
    int dayOfYear = 0;  // Jn: 1...365, n: 0...365
    unsigned month = 1;
    int week = 1;  // 1...5, 5 meaning the last
    int weekday = 0;  // 0 = Sunday

    // The day (days since 1970-01-01) this rule names in `year`.
    std::int64_t dayIn(std::int64_t year) const {
        std::int64_t january1 = daysFromCivil(year, 1, 1);
        switch (kind) {
            case Kind::julianNoLeap:
                return january1 + dayOfYear - 1 + ((isLeapYear(year) && dayOfYear >= 60) ? 1 : 0);
            case Kind::zeroBased:
                return january1 + dayOfYear;
            case Kind::monthWeekDay: {
                std::int64_t first = daysFromCivil(year, month, 1);
                int firstWeekday = static_cast<int>(
                    std::chrono::weekday{sys_days{days{first}}}.c_encoding());
                std::int64_t day = first + (weekday - firstWeekday + 7) % 7 + (week - 1) * 7;
                while (day >= first + daysInMonth(year, month)) day -= 7;
                return day;
            }
        }
        return january1;
    }
};

struct PosixRule {
    std::int32_t standardOffset = 0;  // seconds east of UTC
    bool hasDaylightSaving = false;
    std::int32_t daylightOffset = 0;
    RuleDate start;
    RuleDate end;
    std::int32_t startTime = 7200;  // local standard time of the change
    std::int32_t endTime = 7200;    // local daylight time of the change

    std::pair<std::int32_t, bool> offsetAt(std::int64_t utc) const {
        if (!hasDaylightSaving) return {standardOffset, false};
        std::int64_t localDay = floorDiv(utc + standardOffset, secondsPerDay);
        std::int64_t year = static_cast<int>(
            std::chrono::year_month_day{sys_days{days{localDay}}}.year());
        std::int64_t startUTC = start.dayIn(year) * secondsPerDay + startTime - standardOffset;
        std::int64_t endUTC = end.dayIn(year) * secondsPerDay + endTime - daylightOffset;
        bool daylight = startUTC < endUTC ? (startUTC <= utc && utc < endUTC)
                                          : !(endUTC <= utc && utc < startUTC);
        return daylight ? std::pair{daylightOffset, true} : std::pair{standardOffset, false};
    }
};

class RuleParser {
public:
    explicit RuleParser(std::string_view text) : text_(text) {}

    std::optional<PosixRule> parse() {
        PosixRule rule;
        if (!parseName()) return std::nullopt;
        auto standard = parseHMS();
        if (!standard) return std::nullopt;
        rule.standardOffset = static_cast<std::int32_t>(-*standard);
        if (atEnd()) return rule;

        if (!parseName()) return std::nullopt;
        rule.hasDaylightSaving = true;
        rule.daylightOffset = rule.standardOffset + 3600;
        if (!atEnd() && peek() != ',') {
            auto daylight = parseHMS();
            if (!daylight) return std::nullopt;
            rule.daylightOffset = static_cast<std::int32_t>(-*daylight);
        }
        if (atEnd()) {
            // POSIX leaves the default rule to the implementation; the United
            // States rule is what the C libraries use.
            rule.start = RuleDate{RuleDate::Kind::monthWeekDay, 0, 3, 2, 0};
            rule.end = RuleDate{RuleDate::Kind::monthWeekDay, 0, 11, 1, 0};
            return rule;
        }
        if (!consume(',') || !parseDate(rule.start) || !parseTimeOfChange(rule.startTime) ||
            !consume(',') || !parseDate(rule.end) || !parseTimeOfChange(rule.endTime) || !atEnd()) {
            return std::nullopt;
        }
        return rule;
    }

private:
    bool atEnd() const { return pos_ >= text_.size(); }
    char peek() const { return text_[pos_]; }
    bool consume(char c) {
        if (atEnd() || peek() != c) return false;
        ++pos_;
        return true;
    }

    bool parseName() {
        if (consume('<')) {
            auto close = text_.find('>', pos_);
            if (close == std::string_view::npos || close == pos_) return false;
            pos_ = close + 1;
            return true;
        }
        std::size_t begin = pos_;
        while (!atEnd() && std::isalpha(static_cast<unsigned char>(peek()))) ++pos_;
        return pos_ - begin >= 3;
    }

    std::optional<std::int64_t> parseNumber(std::int64_t max) {
        std::size_t begin = pos_;
        std::int64_t value = 0;
        while (!atEnd() && std::isdigit(static_cast<unsigned char>(peek()))) {
            value = value * 10 + (peek() - '0');
            if (value > max) return std::nullopt;
            ++pos_;
        }
        if (pos_ == begin) return std::nullopt;
        return value;
    }

    // [+-]hh[:mm[:ss]] in seconds.
    std::optional<std::int64_t> parseHMS() {
        int sign = 1;
        if (consume('-')) sign = -1;
        else consume('+');
        auto hours = parseNumber(167);
        if (!hours) return std::nullopt;
        std::int64_t total = *hours * 3600;
        if (consume(':')) {
            auto minutes = parseNumber(59);
            if (!minutes) return std::nullopt;
            total += *minutes * 60;
            if (consume(':')) {
                auto secs = parseNumber(59);
                if (!secs) return std::nullopt;
                total += *secs;
            }
        }
        return sign * total;
    }

    bool parseDate(RuleDate& date) {
        if (consume('J')) {
            auto n = parseNumber(365);
            if (!n || *n < 1) return false;
            date = RuleDate{RuleDate::Kind::julianNoLeap, static_cast<int>(*n), 1, 1, 0};
            return true;
        }
        if (consume('M')) {
            auto month = parseNumber(12);
            if (!month || *month < 1 || !consume('.')) return false;
            auto week = parseNumber(5);
            if (!week || *week < 1 || !consume('.')) return false;
            auto weekday = parseNumber(6);
            if (!weekday) return false;
            date = RuleDate{RuleDate::Kind::monthWeekDay, 0, static_cast<unsigned>(*month),
                            static_cast<int>(*week), static_cast<int>(*weekday)};
            return true;
        }
        auto n = parseNumber(365);
        if (!n) return false;
        date = RuleDate{RuleDate::Kind::zeroBased, static_cast<int>(*n), 1, 1, 0};
        return true;
    }

    bool parseTimeOfChange(std::int32_t& time) {
        if (!consume('/')) return true;
        auto value = parseHMS();
        if (!value) return false;
        time = static_cast<std::int32_t>(*value);
        return true;
    }

    std::string_view text_;
    std::size_t pos_ = 0;
};

}  // namespace

// ---------------------------------------------------------------------------

struct Calendar::Zone {
    struct Type {
        std::int32_t offset = 0;
        bool daylight = false;
    };
    std::vector<std::int64_t> transitions;  // UTC seconds, ascending
    std::vector<std::uint8_t> transitionTypes;
    std::vector<Type> types;
    std::optional<PosixRule> rule;  // after the last transition, or the whole zone

    std::pair<std::int32_t, bool> offsetAt(std::int64_t utc) const {
        if (transitions.empty() || utc >= transitions.back()) {
            if (rule) return rule->offsetAt(utc);
        }
        if (transitions.empty() || utc < transitions.front()) {
            return types.empty() ? std::pair{0, false} : std::pair{types[0].offset, types[0].daylight};
        }
        auto it = std::upper_bound(transitions.begin(), transitions.end(), utc);
        const Type& type = types[transitionTypes[static_cast<std::size_t>(it - transitions.begin() - 1)]];
        return {type.offset, type.daylight};
    }

    // The UTC second a wall-clock second names: the first of two when the
    // reading repeats, the moment of the change when it was skipped.
    std::int64_t resolve(std::int64_t local) const {
        std::int64_t before = offsetAt(local - 2 * secondsPerDay).first;
        std::int64_t after = offsetAt(local + 2 * secondsPerDay).first;
        std::array<std::int64_t, 4> candidates{before, after, offsetAt(local - before).first,
                                               offsetAt(local - after).first};
        std::optional<std::int64_t> best;
        for (std::int64_t offset : candidates) {
            std::int64_t utc = local - offset;
            if (offsetAt(utc).first == offset && (!best || utc < *best)) best = utc;
        }
        if (best) return *best;

        // A gap: find the change between the two readings by bisection.
        std::int64_t low = local - std::max(before, after);
        std::int64_t high = local - std::min(before, after);
        std::int32_t lowOffset = offsetAt(low).first;
        while (high - low > 1) {
            std::int64_t middle = low + (high - low) / 2;
            if (offsetAt(middle).first == lowOffset) low = middle;
            else high = middle;
        }
        return high;
    }
};

namespace {

using Zone = Calendar::Zone;

class ByteReader {
public:
    explicit ByteReader(std::string_view data) : data_(data) {}
    bool has(std::size_t n) const { return data_.size() - pos_ >= n; }
    std::int64_t readBigEndian(std::size_t width) {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < width; ++i) {
            value = (value << 8) | static_cast<unsigned char>(data_[pos_ + i]);
        }
        pos_ += width;
        if (width == 4) return static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
        return static_cast<std::int64_t>(value);
    }
    std::uint8_t readByte() { return static_cast<std::uint8_t>(data_[pos_++]); }
    void skip(std::size_t n) { pos_ += n; }
    std::string_view rest() const { return data_.substr(pos_); }

private:
    std::string_view data_;
    std::size_t pos_ = 0;
};

struct TzifCounts {
    std::size_t isut, isstd, leap, time, type, chars;
};

std::optional<TzifCounts> readTzifHeader(ByteReader& reader, char& version) {
    if (!reader.has(44) || reader.rest().substr(0, 4) != "TZif") return std::nullopt;
    reader.skip(4);
    version = static_cast<char>(reader.readByte());
    reader.skip(15);
    TzifCounts counts{};
    for (std::size_t* field : {&counts.isut, &counts.isstd, &counts.leap, &counts.time,
                               &counts.type, &counts.chars}) {
        std::int64_t value = reader.readBigEndian(4);
        if (value < 0 || value > 1'000'000) return std::nullopt;
        *field = static_cast<std::size_t>(value);
    }
    if (counts.type == 0) return std::nullopt;
    return counts;
}

// RFC 8536. The 64-bit block of version 2 and later files is preferred, and
// its footer rule covers the times after the last listed transition.
std::optional<Zone> parseTzif(std::string_view data) {
    ByteReader reader(data);
    char version = 0;
    auto counts = readTzifHeader(reader, version);
    if (!counts) return std::nullopt;
    std::size_t width = 4;
    if (version >= '2') {
        std::size_t v1Size = counts->time * 5 + counts->type * 6 + counts->chars + counts->leap * 8 +
                             counts->isstd + counts->isut;
        if (!reader.has(v1Size)) return std::nullopt;
        reader.skip(v1Size);
        counts = readTzifHeader(reader, version);
        if (!counts) return std::nullopt;
        width = 8;
    }
    std::size_t blockSize = counts->time * (width + 1) + counts->type * 6 + counts->chars +
                            counts->leap * (width + 4) + counts->isstd + counts->isut;
    if (!reader.has(blockSize)) return std::nullopt;

    Zone zone;
    zone.transitions.reserve(counts->time);
    for (std::size_t i = 0; i < counts->time; ++i) zone.transitions.push_back(reader.readBigEndian(width));
    for (std::size_t i = 0; i < counts->time; ++i) {
        std::uint8_t type = reader.readByte();
        if (type >= counts->type) return std::nullopt;
        zone.transitionTypes.push_back(type);
    }
    for (std::size_t i = 0; i < counts->type; ++i) {
        auto offset = static_cast<std::int32_t>(reader.readBigEndian(4));
        bool daylight = reader.readByte() != 0;
        reader.readByte();  // abbreviation index
        zone.types.push_back({offset, daylight});
    }
    reader.skip(counts->chars + counts->leap * (width + 4) + counts->isstd + counts->isut);
    if (!std::is_sorted(zone.transitions.begin(), zone.transitions.end())) return std::nullopt;

    if (width == 8) {
        std::string_view footer = reader.rest();
        if (footer.size() >= 2 && footer.front() == '\n') {
            footer.remove_prefix(1);
            auto newline = footer.find('\n');
            if (newline != std::string_view::npos && newline > 0) {
                zone.rule = RuleParser(footer.substr(0, newline)).parse();
            }
        }
    }
    return zone;
}

std::optional<Zone> zoneFromRule(std::string_view text) {
    auto rule = RuleParser(text).parse();
    if (!rule) return std::nullopt;
    Zone zone;
    zone.types.push_back({rule->standardOffset, false});
    zone.rule = rule;
    return zone;
}

std::optional<std::string> readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) return std::nullopt;
    return data;
}

std::filesystem::path zoneInfoDirectory() {
    const char* directory = std::getenv("TZDIR");
    return (directory && *directory) ? directory : "/usr/share/zoneinfo";
}

std::optional<Zone> loadZone(const std::string& identifier) {
    std::string_view name = identifier;
    if (!name.empty() && name.front() == ':') name.remove_prefix(1);
    if (name.empty()) return std::nullopt;
    std::filesystem::path path = name.front() == '/' ? std::filesystem::path(name)
                                                     : zoneInfoDirectory() / name;
    bool safeName = name.front() == '/' || name.find("..") == std::string_view::npos;
    if (safeName) {
        if (auto data = readFile(path)) {
            if (auto zone = parseTzif(*data)) return zone;
        }
    }
    if (auto zone = zoneFromRule(name)) return zone;
    if (name == "UTC" || name == "GMT" || name == "Etc/UTC") return zoneFromRule("UTC0");
    return std::nullopt;
}

// Zones are read once per process; calendars share them.
std::shared_ptr<const Zone> cachedZone(const std::string& identifier) {
    static std::mutex mutex;
    static std::map<std::string, std::shared_ptr<const Zone>> zones;
    std::lock_guard lock(mutex);
    if (auto it = zones.find(identifier); it != zones.end()) return it->second;
    std::shared_ptr<const Zone> zone;
    if (auto loaded = loadZone(identifier)) zone = std::make_shared<const Zone>(std::move(*loaded));
    zones.emplace(identifier, zone);
    return zone;
}

std::string trimmed(std::string text) {
    auto isSpace = [](unsigned char c) { return std::isspace(c) != 0; };
    text.erase(text.begin(), std::find_if_not(text.begin(), text.end(), isSpace));
    text.erase(std::find_if_not(text.rbegin(), text.rend(), isSpace).base(), text.end());
    return text;
}

std::string systemZoneIdentifier() {
    if (const char* tz = std::getenv("TZ"); tz && *tz) return tz;
    if (auto content = readFile("/etc/timezone")) {
        std::string name = trimmed(content->substr(0, content->find('\n')));
        if (!name.empty()) return name;
    }
    std::error_code error;
    auto target = std::filesystem::read_symlink("/etc/localtime", error);
    if (!error) {
        std::string text = target.string();
        auto marker = text.find("zoneinfo/");
        if (marker != std::string::npos) return text.substr(marker + 9);
        return text;
    }
    if (std::filesystem::exists("/etc/localtime", error)) return "/etc/localtime";
    return "UTC";
}

std::int64_t toSeconds(Date date, std::int64_t& nanoseconds) {
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(date.time_since_epoch()).count();
    std::int64_t secs = floorDiv(ns, 1'000'000'000);
    nanoseconds = ns - secs * 1'000'000'000;
    return secs;
}

Date fromSeconds(std::int64_t secs, std::int64_t nanoseconds) {
    return Date{std::chrono::duration_cast<Date::duration>(seconds{secs} +
                                                           std::chrono::nanoseconds{nanoseconds})};
}

constexpr std::int64_t minimumYear = -9999;
constexpr std::int64_t maximumYear = 9999;

}  // namespace

Calendar::Calendar(std::string timeZoneIdentifier)
    : identifier_(std::move(timeZoneIdentifier)), zone_(cachedZone(identifier_)) {
    if (!zone_) {
        SystemLogger("Calendar").error("Unknown time zone %s, using UTC", identifier_.c_str());
        identifier_ = "UTC";
        zone_ = cachedZone("UTC");
    }
}

Calendar::Calendar(std::string identifier, std::shared_ptr<const Zone> zone)
    : identifier_(std::move(identifier)), zone_(std::move(zone)) {}

Calendar Calendar::current() {
    std::string identifier = systemZoneIdentifier();
    if (auto zone = cachedZone(identifier)) return Calendar(identifier, zone);
    return Calendar("UTC");
}

std::chrono::seconds Calendar::secondsFromGMT(Date date) const {
    std::int64_t ns = 0;
    return seconds{zone_->offsetAt(toSeconds(date, ns)).first};
}

bool Calendar::isDaylightSavingTime(Date date) const {
    std::int64_t ns = 0;
    return zone_->offsetAt(toSeconds(date, ns)).second;
}

LocalDateTime Calendar::localDateTime(Date date) const {
    std::int64_t ns = 0;
    std::int64_t utc = toSeconds(date, ns);
    std::int64_t local = utc + zone_->offsetAt(utc).first;
    std::int64_t day = floorDiv(local, secondsPerDay);
    std::int64_t secondOfDay = local - day * secondsPerDay;
    std::chrono::year_month_day ymd{sys_days{days{day}}};
    return LocalDateTime{static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()),
                         static_cast<unsigned>(ymd.day()), static_cast<int>(secondOfDay / 3600),
                         static_cast<int>(secondOfDay / 60 % 60), static_cast<int>(secondOfDay % 60), ns};
}

std::optional<Date> Calendar::date(const LocalDateTime& local) const {
    // Months carry into years and days, hours and smaller carry through the
    // day count, so callers may step past the end of a month freely.
    std::int64_t monthIndex = static_cast<std::int64_t>(local.year) * 12 + local.month - 1;
    std::int64_t year = floorDiv(monthIndex, 12);
    auto month = static_cast<unsigned>(monthIndex - year * 12 + 1);
    if (year < minimumYear || year > maximumYear) return std::nullopt;
    std::int64_t day = daysFromCivil(year, month, 1) + static_cast<std::int64_t>(local.day) - 1;
    std::int64_t localSeconds = day * secondsPerDay + static_cast<std::int64_t>(local.hour) * 3600 +
                                static_cast<std::int64_t>(local.minute) * 60 + local.second;
    std::int64_t utc = zone_->resolve(localSeconds);
    // A skipped reading lands on the change itself, with nothing below a second.
    bool exact = utc + zone_->offsetAt(utc).first == localSeconds;
    return fromSeconds(utc, exact ? local.nanosecond : 0);
}

Date Calendar::startOfDay(Date date) const {
    LocalDateTime local = localDateTime(date);
    local.hour = local.minute = local.second = 0;
    local.nanosecond = 0;
    return this->date(local).value_or(date);
}

std::optional<Date> Calendar::dateByAdding(const DateComponents& components, Date to) const {
    Date result = to;
    if (components.year != 0 || components.month != 0 || components.day != 0) {
        LocalDateTime local = localDateTime(to);
        if (components.year != 0 || components.month != 0) {
            std::int64_t monthIndex = static_cast<std::int64_t>(local.year) * 12 + local.month - 1 +
                                      static_cast<std::int64_t>(components.year) * 12 + components.month;
            std::int64_t year = floorDiv(monthIndex, 12);
            if (year < minimumYear || year > maximumYear) return std::nullopt;
            local.year = static_cast<int>(year);
            local.month = static_cast<unsigned>(monthIndex - year * 12 + 1);
            // January 31 plus one month is the last day of February.
            local.day = std::min(local.day, daysInMonth(year, local.month));
        }
        std::int64_t day = daysFromCivil(local.year, local.month, local.day) + components.day;
        if (std::abs(day) > 4'000'000) return std::nullopt;
        std::chrono::year_month_day ymd{sys_days{days{day}}};
        local.year = static_cast<int>(ymd.year());
        local.month = static_cast<unsigned>(ymd.month());
        local.day = static_cast<unsigned>(ymd.day());
        auto resolved = date(local);
        if (!resolved) return std::nullopt;
        result = *resolved;
    }
    return result + std::chrono::duration_cast<Date::duration>(
                        std::chrono::hours{components.hour} + std::chrono::minutes{components.minute} +
                        seconds{components.second} + std::chrono::nanoseconds{components.nanosecond});
}

std::optional<Date> Calendar::dateBySettingTime(int hour, int minute, int second, Date date) const {
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 59) {
        return std::nullopt;
    }
    LocalDateTime local = localDateTime(date);
    local.hour = hour;
    local.minute = minute;
    local.second = second;
    local.nanosecond = 0;
    return this->date(local);
}

std::optional<std::int64_t> Calendar::hoursBetween(Date from, Date to) const {
    return std::chrono::duration_cast<std::chrono::hours>(to - from).count();
}

std::optional<std::int64_t> Calendar::daysBetween(Date from, Date to) const {
    LocalDateTime a = localDateTime(from);
    LocalDateTime b = localDateTime(to);
    std::int64_t count = daysFromCivil(b.year, b.month, b.day) - daysFromCivil(a.year, a.month, a.day);
    auto landing = [&](std::int64_t n) { return dateByAdding(DateComponents{.day = static_cast<int>(n)}, from); };
    if (to >= from) {
        while (count > 0) {
            auto date = landing(count);
            if (!date) return std::nullopt;
            if (*date <= to) break;
            --count;
        }
    } else {
        while (count < 0) {
            auto date = landing(count);
            if (!date) return std::nullopt;
            if (*date >= to) break;
            ++count;
        }
    }
    return count;
}

}  // namespace tamsel::platform
