#include "platform/Calendar.h"
#include "platform/Log.h"

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

namespace tamsel::platform {
namespace {

using namespace std::chrono;
using std::chrono::hours;

Date utc(int y, unsigned m, unsigned d, int h = 0, int mi = 0, int s = 0) {
    return Date{sys_days{year{y} / month{m} / day{d}}} + hours{h} + minutes{mi} + seconds{s};
}

LocalDateTime local(int y, unsigned m, unsigned d, int h = 0, int mi = 0, int s = 0) {
    return LocalDateTime{y, m, d, h, mi, s, 0};
}

TEST(CalendarTest, DaysOfDaylightSavingChangesLastTwentyThreeAndTwentyFiveHours) {
    Calendar berlin("Europe/Berlin");
    // 2024-03-31 clocks go 02:00 -> 03:00; 2024-10-27 they go 03:00 -> 02:00.
    Date springStart = berlin.startOfDay(utc(2024, 3, 31, 12));
    Date springNext = berlin.startOfDay(utc(2024, 4, 1, 12));
    EXPECT_EQ(springStart, utc(2024, 3, 30, 23));
    EXPECT_EQ(springNext - springStart, hours{23});

    Date autumnStart = berlin.startOfDay(utc(2024, 10, 27, 12));
    Date autumnNext = berlin.startOfDay(utc(2024, 10, 28, 12));
    EXPECT_EQ(autumnStart, utc(2024, 10, 26, 22));
    EXPECT_EQ(autumnNext - autumnStart, hours{25});

    // The end of those days is still 23:59:59 wall-clock, one second before the next day.
    EXPECT_EQ(berlin.dateBySettingTime(23, 59, 59, springStart), springNext - seconds{1});
    EXPECT_EQ(berlin.dateBySettingTime(23, 59, 59, autumnStart), autumnNext - seconds{1});
}

TEST(CalendarTest, SkippedTimesResolveToTheChangeAndRepeatedTimesToTheFirstOccurrence) {
    Calendar berlin("Europe/Berlin");
    // 02:30 does not exist on 2024-03-31; the next existing time is 03:00 CEST = 01:00 UTC.
    EXPECT_EQ(berlin.date(local(2024, 3, 31, 2, 30)), utc(2024, 3, 31, 1));
    // 02:30 happens twice on 2024-10-27: first in CEST (00:30 UTC), then in CET.
    EXPECT_EQ(berlin.date(local(2024, 10, 27, 2, 30)), utc(2024, 10, 27, 0, 30));
    EXPECT_TRUE(berlin.isDaylightSavingTime(utc(2024, 10, 27, 0, 30)));
    EXPECT_FALSE(berlin.isDaylightSavingTime(utc(2024, 10, 27, 1, 30)));
    EXPECT_EQ(berlin.localDateTime(utc(2024, 10, 27, 1, 30)), local(2024, 10, 27, 2, 30));
}

TEST(CalendarTest, DayWhoseMidnightIsSkippedStartsAtTheChange) {
    // Sao Paulo moved its clocks from 00:00 to 01:00 on 2018-11-04.
    Calendar saoPaulo("America/Sao_Paulo");
    Date start = saoPaulo.startOfDay(utc(2018, 11, 4, 15));
    EXPECT_EQ(start, utc(2018, 11, 4, 3));
    EXPECT_EQ(saoPaulo.localDateTime(start), local(2018, 11, 4, 1));
}

TEST(CalendarTest, AddingDaysKeepsTheWallClockWhileAddingHoursCountsElapsedTime) {
    Calendar berlin("Europe/Berlin");
    Date saturdayNoon = utc(2024, 3, 30, 11);  // 12:00 CET
    EXPECT_EQ(berlin.dateByAdding({.day = 1}, saturdayNoon), utc(2024, 3, 31, 10));  // 12:00 CEST
    EXPECT_EQ(berlin.dateByAdding({.hour = 24}, saturdayNoon), utc(2024, 3, 31, 11));  // 13:00 CEST

    Date startOfSunday = berlin.startOfDay(utc(2024, 3, 31, 12));
    auto weekAgo = berlin.dateByAdding({.day = -6}, startOfSunday);
    ASSERT_TRUE(weekAgo);
    EXPECT_EQ(berlin.localDateTime(*weekAgo), local(2024, 3, 25));

    // Months clamp to the end of the shorter month.
    EXPECT_EQ(berlin.dateByAdding({.month = 1}, utc(2024, 1, 31, 11)), utc(2024, 2, 29, 11));
    EXPECT_EQ(berlin.dateByAdding({.year = 1, .month = -13}, utc(2024, 1, 15, 11)), utc(2023, 12, 15, 11));
}

TEST(CalendarTest, WholeDaysAndHoursBetweenDatesAreTruncated) {
    Calendar berlin("Europe/Berlin");
    Date morning = utc(2024, 5, 10, 8);  // 10:00 CEST
    EXPECT_EQ(berlin.daysBetween(morning, utc(2024, 5, 11, 7, 59, 59)), 0);
    EXPECT_EQ(berlin.daysBetween(morning, utc(2024, 5, 11, 8)), 1);
    EXPECT_EQ(berlin.daysBetween(morning, utc(2024, 6, 24, 9)), 45);
    EXPECT_EQ(berlin.daysBetween(utc(2024, 5, 11, 8), morning), -1);
    EXPECT_EQ(berlin.daysBetween(utc(2024, 5, 11, 8, 0, 1), morning), -1);
    EXPECT_EQ(berlin.daysBetween(utc(2024, 5, 11, 7), morning), 0);

    // Across the 23-hour day, 23 elapsed hours from noon to noon are a whole day.
    EXPECT_EQ(berlin.daysBetween(utc(2024, 3, 30, 11), utc(2024, 3, 31, 10)), 1);
    EXPECT_EQ(berlin.hoursBetween(utc(2024, 3, 30, 11), utc(2024, 3, 31, 10)), 23);

    EXPECT_EQ(berlin.hoursBetween(morning, morning + minutes{119}), 1);
    EXPECT_EQ(berlin.hoursBetween(morning + minutes{119}, morning), -1);
}

TEST(CalendarTest, ReadsZonesOfTheSystemDatabaseAcrossTheirHistory) {
    Calendar newYork(":America/New_York");  // $TZ's optional colon
    EXPECT_EQ(newYork.timeZoneIdentifier(), ":America/New_York");
    EXPECT_EQ(newYork.secondsFromGMT(utc(2024, 1, 15)), hours{-5});
    EXPECT_EQ(newYork.secondsFromGMT(utc(2024, 7, 15)), hours{-4});
    // Before 2007 summer time began in April.
    EXPECT_EQ(newYork.secondsFromGMT(utc(2006, 3, 20, 12)), hours{-5});
    EXPECT_EQ(newYork.secondsFromGMT(utc(2007, 3, 20, 12)), hours{-4});
    Calendar sydney("Australia/Sydney");
    EXPECT_EQ(sydney.secondsFromGMT(utc(2030, 1, 15)), hours{11});
    EXPECT_EQ(sydney.secondsFromGMT(utc(2030, 7, 15)), hours{10});

    // Far dates still read and resolve, with the offset the database gives them.
    Calendar tokyo("Asia/Tokyo");
    for (Date date : {utc(9999, 12, 31, 14, 59, 59), utc(1900, 1, 1), utc(1, 1, 1)}) {
        EXPECT_EQ(tokyo.date(tokyo.localDateTime(date)), date);
    }
    EXPECT_EQ(tokyo.localDateTime(utc(9999, 12, 31, 14, 59, 59)), local(9999, 12, 31, 23, 59, 59));
    EXPECT_FALSE(tokyo.date(local(10000, 1, 1)).has_value());
    EXPECT_FALSE(tokyo.dateByAdding({.year = 8000}, utc(2024, 1, 1)).has_value());
}

TEST(CalendarTest, UnknownZoneFallsBackToUTCWithAnErrorLine) {
    std::vector<LogRecord> records;
    auto previous = setLogSink([&](const LogRecord& r) { records.push_back(r); }, true);
    Calendar nowhere("Nowhere/Atlantis");
    Calendar escaping("../../etc/passwd");
    Calendar rule("CET-1CEST,M3.5.0,M10.5.0/3");  // POSIX rules are not zone names
    setLogSink(previous);

    EXPECT_EQ(nowhere.timeZoneIdentifier(), "UTC");
    EXPECT_EQ(nowhere.secondsFromGMT(utc(2024, 7, 1)), seconds{0});
    EXPECT_EQ(escaping.timeZoneIdentifier(), "UTC");
    EXPECT_EQ(rule.secondsFromGMT(utc(2024, 7, 1)), seconds{0});
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[0].level, LogLevel::error);
    EXPECT_EQ(records[0].message, "Unknown time zone Nowhere/Atlantis, using UTC");
}

TEST(CalendarTest, SubSecondPartsSurviveConversions) {
    Calendar tokyo("Asia/Tokyo");
    Date date = utc(2024, 2, 29, 23, 59, 59) + milliseconds{250};
    LocalDateTime reading = tokyo.localDateTime(date);
    EXPECT_EQ(reading, (LocalDateTime{2024, 3, 1, 8, 59, 59, 250'000'000}));
    EXPECT_EQ(tokyo.date(reading), date);
    EXPECT_EQ(tokyo.startOfDay(date), utc(2024, 2, 29, 15));
}

}  // namespace
}  // namespace tamsel::platform
