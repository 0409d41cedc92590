#include "platform/Calendar.h"

#include "platform/Log.h"

#include <date/tz.h>

#include <cstdlib>
#include <exception>

namespace tamsel::platform {

using namespace std::chrono;

// A zone of the system's time-zone database (tzdata), through date/tz.h; no
// zone (only when the database itself is missing) is UTC.
struct Calendar::Zone {
    const date::time_zone* zone = nullptr;

    seconds offsetAt(sys_seconds time) const { return zone ? zone->get_info(time).offset : seconds{0}; }

    // The moment a wall-clock second names: the first of two when the reading
    // repeats, the moment of the change when it was skipped (`exact` false).
    sys_seconds resolve(local_seconds local, bool& exact) const {
        exact = true;
        if (!zone) return sys_seconds{local.time_since_epoch()};
        const date::local_info info = zone->get_info(date::local_seconds{local.time_since_epoch()});
        if (info.result == date::local_info::nonexistent) {
            exact = false;
            return info.first.end;
        }
        return sys_seconds{local.time_since_epoch()} - info.first.offset;
    }
};

namespace {

std::shared_ptr<const Calendar::Zone> locate(std::string_view name) {
    if (!name.empty() && name.front() == ':') name.remove_prefix(1);  // POSIX's "implementation-defined" mark
    if (name.empty()) return nullptr;
    try {
        return std::make_shared<const Calendar::Zone>(Calendar::Zone{date::locate_zone(name)});
    } catch (const std::exception&) {
        return nullptr;
    }
}

std::shared_ptr<const Calendar::Zone> utc() {
    static const auto zone = [] {
        auto found = locate("UTC");
        return found ? found : std::make_shared<const Calendar::Zone>();
    }();
    return zone;
}

Date withSubseconds(sys_seconds whole, std::int64_t nanosecond) {
    return whole + floor<Date::duration>(nanoseconds{nanosecond});
}

constexpr std::int64_t maximumYear = 9999;

// The first day of the month `months` after `year`-`month`, months carrying
// into years either way; none outside the years -9999 to 9999.
std::optional<local_days> firstOfMonth(std::int64_t year, std::int64_t month, std::int64_t months) {
    const std::int64_t index = year * 12 + month - 1 + months;  // months since January of year 0
    if (index < -maximumYear * 12 || index > maximumYear * 12 + 11) return std::nullopt;
    const auto shifted = std::chrono::year{0} / January + std::chrono::months{index};
    return local_days{shifted / 1};
}

}  // namespace

Calendar::Calendar(std::string timeZoneIdentifier)
    : identifier_(std::move(timeZoneIdentifier)), zone_(locate(identifier_)) {
    if (!zone_) {
        SystemLogger("Calendar").error("Unknown time zone %s, using UTC", identifier_.c_str());
        identifier_ = "UTC";
        zone_ = utc();
    }
}

Calendar::Calendar(std::string identifier, std::shared_ptr<const Zone> zone)
    : identifier_(std::move(identifier)), zone_(std::move(zone)) {}

Calendar Calendar::current() {
    if (const char* tz = std::getenv("TZ"); tz && *tz) {
        if (auto zone = locate(tz)) return Calendar(tz, zone);
        return Calendar("UTC", utc());
    }
    try {
        const date::time_zone* zone = date::current_zone();
        return Calendar(std::string(zone->name()), std::make_shared<const Zone>(Zone{zone}));
    } catch (const std::exception&) {
        return Calendar("UTC", utc());
    }
}

std::chrono::seconds Calendar::secondsFromGMT(Date date) const {
    return zone_->offsetAt(floor<seconds>(date));
}

bool Calendar::isDaylightSavingTime(Date date) const {
    return zone_->zone && zone_->zone->get_info(floor<seconds>(date)).save != minutes{0};
}

LocalDateTime Calendar::localDateTime(Date date) const {
    const sys_seconds whole = floor<seconds>(date);
    const local_seconds local{(whole + zone_->offsetAt(whole)).time_since_epoch()};
    const local_days day = floor<days>(local);
    const year_month_day ymd{day};
    const hh_mm_ss time{local - day};
    return LocalDateTime{static_cast<int>(ymd.year()),
                         static_cast<unsigned>(ymd.month()),
                         static_cast<unsigned>(ymd.day()),
                         static_cast<int>(time.hours().count()),
                         static_cast<int>(time.minutes().count()),
                         static_cast<int>(time.seconds().count()),
                         duration_cast<nanoseconds>(date - whole).count()};
}

std::optional<Date> Calendar::date(const LocalDateTime& local) const {
    // Months carry into years, days and smaller through the day count, so
    // callers may step past the end of a month freely.
    const auto first = firstOfMonth(local.year, local.month, 0);
    if (!first) return std::nullopt;
    const local_seconds reading = *first + days{static_cast<std::int64_t>(local.day) - 1} + hours{local.hour} +
                                  minutes{local.minute} + seconds{local.second};
    bool exact = true;
    const sys_seconds resolved = zone_->resolve(reading, exact);
    // A skipped reading lands on the change itself, with nothing below a second.
    return withSubseconds(resolved, exact ? local.nanosecond : 0);
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
        const auto month =
            firstOfMonth(local.year, local.month, static_cast<std::int64_t>(components.year) * 12 + components.month);
        if (!month) return std::nullopt;
        // January 31 plus one month is the last day of February.
        const year_month_day firstDay{*month};
        const year_month_day_last last{firstDay.year() / firstDay.month() / std::chrono::last};
        const unsigned day = std::min(local.day, static_cast<unsigned>(last.day()));
        const local_days target = *month + days{static_cast<std::int64_t>(day) - 1 + components.day};
        const year_month_day ymd{target};
        if (!firstOfMonth(static_cast<int>(ymd.year()), 1, 0) || std::abs(components.day) > 8'000'000) {
            return std::nullopt;
        }
        local.year = static_cast<int>(ymd.year());
        local.month = static_cast<unsigned>(ymd.month());
        local.day = static_cast<unsigned>(ymd.day());
        auto resolved = date(local);
        if (!resolved) return std::nullopt;
        result = *resolved;
    }
    return result + hours{components.hour} + minutes{components.minute} + seconds{components.second} +
           floor<Date::duration>(nanoseconds{components.nanosecond});
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
    return duration_cast<hours>(to - from).count();
}

std::optional<std::int64_t> Calendar::daysBetween(Date from, Date to) const {
    const LocalDateTime a = localDateTime(from);
    const LocalDateTime b = localDateTime(to);
    const auto dayOf = [](const LocalDateTime& t) {
        return local_days{std::chrono::year{t.year} / std::chrono::month{t.month} / std::chrono::day{t.day}};
    };
    std::int64_t count = (dayOf(b) - dayOf(a)).count();
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
