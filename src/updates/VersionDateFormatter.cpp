#include "updates/VersionDateFormatter.h"

#include <array>
#include <cctype>
#include <chrono>
#include <fmt/format.h>

namespace tamsel::updates {
namespace {

using namespace std::chrono;

constexpr std::array<std::string_view, 7> dayNames{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<std::string_view, 12> monthNames{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

struct ZoneAbbreviation {
    std::string_view name;
    int offsetMinutes;
};
constexpr std::array<ZoneAbbreviation, 16> zoneAbbreviations{{
    {"GMT", 0},        {"UTC", 0},        {"UT", 0},         {"Z", 0},
    {"EST", -5 * 60},  {"EDT", -4 * 60},  {"CST", -6 * 60},  {"CDT", -5 * 60},
    {"MST", -7 * 60},  {"MDT", -6 * 60},  {"PST", -8 * 60},  {"PDT", -7 * 60},
    {"AKST", -9 * 60}, {"AKDT", -8 * 60}, {"HST", -10 * 60}, {"HDT", -9 * 60},
}};

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

// A cursor over the text being read.
class Reader {
public:
    explicit Reader(std::string_view text) : text_(text) {}

    bool atEnd() const { return text_.empty(); }
    bool literal(std::string_view expected) {
        if (!text_.starts_with(expected)) return false;
        text_.remove_prefix(expected.size());
        return true;
    }
    std::optional<int> number(size_t minDigits, size_t maxDigits) {
        size_t length = 0;
        int value = 0;
        while (length < maxDigits && length < text_.size() && std::isdigit(static_cast<unsigned char>(text_[length]))) {
            value = value * 10 + (text_[length] - '0');
            ++length;
        }
        if (length < minDigits) return std::nullopt;
        text_.remove_prefix(length);
        return value;
    }
    std::string_view letters() {
        size_t length = 0;
        while (length < text_.size() && std::isalpha(static_cast<unsigned char>(text_[length]))) ++length;
        const auto word = text_.substr(0, length);
        text_.remove_prefix(length);
        return word;
    }
    std::string_view rest() const { return text_; }

private:
    std::string_view text_;
};

template <size_t N>
std::optional<size_t> indexOfName(const std::array<std::string_view, N>& names, std::string_view word) {
    for (size_t i = 0; i < N; ++i) {
        if (equalsIgnoringCase(names[i], word)) return i;
    }
    return std::nullopt;
}

// "+hh", "+hhmm", "+h:mm" style offsets, after "GMT" or on their own.
std::optional<int> readOffsetMinutes(Reader& reader) {
    int sign = 0;
    if (reader.literal("+")) sign = 1;
    else if (reader.literal("-")) sign = -1;
    else return std::nullopt;
    auto hours = reader.number(1, 2);
    if (!hours) return std::nullopt;
    int minutes = 0;
    if (reader.literal(":")) {
        auto value = reader.number(2, 2);
        if (!value) return std::nullopt;
        minutes = *value;
    } else if (auto value = reader.number(2, 2)) {
        minutes = *value;
    }
    if (*hours > 18 || minutes > 59) return std::nullopt;
    return sign * (*hours * 60 + minutes);
}

std::optional<int> readZoneMinutes(Reader& reader) {
    if (auto offset = readOffsetMinutes(reader)) return offset;
    const auto word = reader.letters();
    for (const auto& zone : zoneAbbreviations) {
        if (!equalsIgnoringCase(zone.name, word)) continue;
        if ((zone.name == "GMT" || zone.name == "UTC") && !reader.atEnd()) {
            auto offset = readOffsetMinutes(reader);
            if (!offset) return std::nullopt;
            return *offset;
        }
        return zone.offsetMinutes;
    }
    return std::nullopt;
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
    Reader reader(text);
    if (!indexOfName(dayNames, reader.letters()) || !reader.literal(", ")) return std::nullopt;
    const auto dayOfMonth = reader.number(1, 2);
    if (!dayOfMonth || !reader.literal(" ")) return std::nullopt;
    const auto month = indexOfName(monthNames, reader.letters());
    if (!month || !reader.literal(" ")) return std::nullopt;
    const auto yearValue = reader.number(4, 4);
    if (!yearValue || !reader.literal(" ")) return std::nullopt;
    const auto hour = reader.number(1, 2);
    if (!hour || !reader.literal(":")) return std::nullopt;
    const auto minute = reader.number(1, 2);
    if (!minute || !reader.literal(":")) return std::nullopt;
    const auto second = reader.number(1, 2);
    if (!second || !reader.literal(" ")) return std::nullopt;
    const auto zoneMinutes = readZoneMinutes(reader);
    if (!zoneMinutes || !reader.atEnd()) return std::nullopt;
    if (*hour > 23 || *minute > 59 || *second > 60) return std::nullopt;

    const year_month_day ymd{year(*yearValue), std::chrono::month(static_cast<unsigned>(*month + 1)),
                             std::chrono::day(static_cast<unsigned>(*dayOfMonth))};
    if (!ymd.ok()) return std::nullopt;
    const auto local = sys_days(ymd) + hours(*hour) + minutes(*minute) + seconds(*second);
    return platform::Date(local - minutes(*zoneMinutes));
}

}  // namespace tamsel::updates
