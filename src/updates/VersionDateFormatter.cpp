#include "updates/VersionDateFormatter.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <array>
#include <chrono>
#include <regex>

#include "platform/Text.h"

namespace tamsel::updates {
namespace {

using namespace std::chrono;

constexpr std::array<std::string_view, 7> dayNames{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<std::string_view, 12> monthNames{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

std::optional<unsigned> monthNumber(std::string_view name) {
    for (std::size_t i = 0; i < monthNames.size(); ++i) {
        if (platform::equalsIgnoringCase(monthNames[i], name)) return static_cast<unsigned>(i + 1);
    }
    return std::nullopt;
}

// The shape of the format; libcurl reads what it finds lenient ways around
// (a missing time, other orders), which are not versions of ours.
const std::regex& shape() {
    static const std::regex pattern(
        R"(^(Sun|Mon|Tue|Wed|Thu|Fri|Sat), (\d{1,2}) ([A-Za-z]{3}) (\d{4}) (\d{1,2}):(\d{1,2}):(\d{1,2}) (\S+)$)",
        std::regex::icase);
    return pattern;
}

// The zone as the format's "z" writes an offset without a name: "GMT+2",
// "GMT-05:30". libcurl reads the sign as the start of a numeric zone and gets
// these wrong, so they are ours to read.
const std::regex& gmtOffset() {
    static const std::regex pattern(R"(^(?:GMT|UTC)([+-])(\d{1,2})(?::?(\d{2}))?$)", std::regex::icase);
    return pattern;
}

}  // namespace

std::string VersionDateFormatter::string(platform::Date date) const {
    const auto seconds = floor<std::chrono::seconds>(date);
    const auto day = floor<days>(seconds);
    const year_month_day ymd(day);
    const hh_mm_ss time(seconds - day);
    const weekday weekDay(day);
    return fmt::format("{}, {:02} {} {:04} {:02}:{:02}:{:02} GMT", dayNames[weekDay.c_encoding()],
                       static_cast<unsigned>(ymd.day()), monthNames[static_cast<unsigned>(ymd.month()) - 1],
                       static_cast<int>(ymd.year()), time.hours().count(), time.minutes().count(),
                       time.seconds().count());
}

std::optional<platform::Date> VersionDateFormatter::date(std::string_view text) const {
    std::match_results<std::string_view::const_iterator> fields;
    if (!std::regex_match(text.begin(), text.end(), fields, shape())) return std::nullopt;
    const auto number = [&](int index) { return std::stoi(fields[index].str()); };
    const auto month = monthNumber(fields[3].str());
    if (!month) return std::nullopt;
    // libcurl carries 30 February into March and 24:00 into the next day;
    // neither is a date in the format.
    const year_month_day ymd{year(number(4)), std::chrono::month(*month),
                             std::chrono::day(static_cast<unsigned>(number(2)))};
    if (!ymd.ok() || number(5) > 23 || number(6) > 59 || number(7) > 60) return std::nullopt;

    std::string httpDate(text);
    minutes offset{0};
    std::match_results<std::string::const_iterator> zone;
    const std::string zoneText = fields[8].str();
    if (std::regex_match(zoneText.begin(), zoneText.end(), zone, gmtOffset())) {
        const int hoursEast = std::stoi(zone[2].str());
        const int minutesEast = zone[3].matched ? std::stoi(zone[3].str()) : 0;
        if (hoursEast > 18 || minutesEast > 59) return std::nullopt;
        offset = minutes((zone[1] == "-" ? -1 : 1) * (hoursEast * 60 + minutesEast));
        httpDate.replace(httpDate.size() - zoneText.size(), zoneText.size(), "GMT");
    }
    // -1 is libcurl's failure; it reports the second before 1970 as 1970 itself.
    const time_t parsed = curl_getdate(httpDate.c_str(), nullptr);
    if (parsed == -1) return std::nullopt;
    return platform::Date(std::chrono::seconds(parsed) - offset);
}

}  // namespace tamsel::updates
