#pragma once

#include "platform/Clock.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace tamsel::platform {

// An amount of calendar time to add to a date. Years, months and days move the
// wall-clock date and keep the time of day; hours, minutes, seconds and
// nanoseconds are elapsed time, so adding 24 hours across a daylight-saving
// change does not land on the same time of day.
struct DateComponents {
    int year = 0;
    int month = 0;
    int day = 0;
    std::int64_t hour = 0;
    std::int64_t minute = 0;
    std::int64_t second = 0;
    std::int64_t nanosecond = 0;

    bool operator==(const DateComponents&) const = default;
};

// A wall-clock reading in one time zone.
struct LocalDateTime {
    int year = 1970;
    unsigned month = 1;   // 1 ... 12
    unsigned day = 1;     // 1 ... 31
    int hour = 0;
    int minute = 0;
    int second = 0;
    std::int64_t nanosecond = 0;

    bool operator==(const LocalDateTime&) const = default;
};

// The Gregorian calendar in one IANA time zone ("Europe/Berlin") of the
// system's time-zone database (tzdata, read through date/tz.h). It answers day
// and hour questions the way the statistics need them, including on the 23-
// and 25-hour days of daylight-saving changes. Calendars are immutable values
// and safe to share between threads.
//
// Wall-clock times that do not exist (skipped by a change to summer time)
// resolve to the next time that exists, the moment of the change; wall-clock
// times that occur twice resolve to the first occurrence.
//
// The zone files list changes up to 2037; later dates keep the offset in
// effect after the last listed change (date/tz.h does not read the files'
// rule for the years beyond).
class Calendar {
public:
    // An unknown zone name falls back to UTC, with an error line.
    explicit Calendar(std::string timeZoneIdentifier);

    // The zone of the process: $TZ when set (a zone name, optionally after
    // ':'; POSIX rule strings are not read and give UTC), else the system's
    // configured zone (/etc/localtime, /etc/timezone), else UTC.
    static Calendar current();

    const std::string& timeZoneIdentifier() const { return identifier_; }

    // Seconds east of UTC in effect at `date`.
    std::chrono::seconds secondsFromGMT(Date date) const;
    bool isDaylightSavingTime(Date date) const;

    LocalDateTime localDateTime(Date date) const;
    // The moment a wall-clock reading names (see the resolution rules above).
    // Fields outside their ranges carry over (day 32 is the next month's first).
    std::optional<Date> date(const LocalDateTime& local) const;

    // The first moment of the calendar day that holds `date`.
    Date startOfDay(Date date) const;

    std::optional<Date> dateByAdding(const DateComponents& components, Date to) const;

    // `hour`:`minute`:`second` on the calendar day of `date`, searching forward;
    // when that time does not exist that day, the next time that does.
    std::optional<Date> dateBySettingTime(int hour, int minute, int second, Date date) const;

    // Whole hours of elapsed time from `from` to `to`, truncated toward zero.
    std::optional<std::int64_t> hoursBetween(Date from, Date to) const;
    // Whole calendar days from `from` to `to`: the largest n for which adding n
    // days to `from` does not pass `to` (toward zero when `to` is earlier).
    std::optional<std::int64_t> daysBetween(Date from, Date to) const;

    struct Zone;

private:
    Calendar(std::string identifier, std::shared_ptr<const Zone> zone);

    std::string identifier_;
    std::shared_ptr<const Zone> zone_;
};

}  // namespace tamsel::platform
