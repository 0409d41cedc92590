#include "model/ReferenceDate.h"

#include <chrono>
#include <cmath>
#include <cstdint>

namespace tamsel::model {

namespace {
using Ticks = platform::Date::duration;
constexpr std::chrono::seconds referenceOffset(978307200);  // 2001-01-01 00:00:00 UTC
// About 285,000 years either side of the reference date: inside what the
// microsecond ticks of a Date can hold even after adding the offset.
constexpr double maxSeconds = 9.0e12;
}  // namespace

double timeIntervalSinceReferenceDate(platform::Date date) {
    const Ticks sinceReference = date.time_since_epoch() - referenceOffset;
    // Whole seconds and the fraction separately, so that microseconds are not
    // lost to the double's mantissa before the subtraction.
    const auto whole = std::chrono::floor<std::chrono::seconds>(sinceReference);
    return static_cast<double>(whole.count()) + std::chrono::duration<double>(sinceReference - whole).count();
}

platform::Date dateWithTimeIntervalSinceReferenceDate(double seconds) {
    if (std::isnan(seconds)) seconds = 0;
    seconds = std::fmax(-maxSeconds, std::fmin(maxSeconds, seconds));
    const double whole = std::floor(seconds);
    const auto fraction = std::chrono::round<Ticks>(std::chrono::duration<double>(seconds - whole));
    const auto sinceReference = std::chrono::seconds(static_cast<std::int64_t>(whole)) + fraction;
    return platform::Date(sinceReference + referenceOffset);
}

}  // namespace tamsel::model
