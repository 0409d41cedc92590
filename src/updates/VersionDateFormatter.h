#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Clock.h"

// The rule version's date format: "E, dd MMM yyyy HH:mm:ss z" in the locale
// "en_US", e.g. "Tue, 05 Mar 2024 12:34:56 GMT". Day and month names are
// English whatever the process's locale.
//
// Dates are written in UTC, whose zone abbreviation in this format is "GMT";
// that makes the text of one date the same in every process and equal to the
// HTTP date a server sends as "Last-Modified", so both version paths produce
// comparable texts. Reading takes the zones libcurl's HTTP-date reader knows
// ("UTC", "UT", "Z", "±hhmm", RFC 822's and the common European and North
// American abbreviations) and the format's own "GMT±h[:mm]".
namespace tamsel::updates {

class VersionDateFormatter {
public:
    static inline const std::string format = "E, dd MMM yyyy HH:mm:ss z";
    static inline const std::string localeIdentifier = "en_US";

    // Whole seconds; a sub-second part is dropped.
    std::string string(platform::Date date) const;
    // None for anything that is not a whole date in the format.
    std::optional<platform::Date> date(std::string_view text) const;
};

}  // namespace tamsel::updates
