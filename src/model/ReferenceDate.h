#pragma once

#include "platform/Clock.h"

// Dates in the JSON files are seconds, with fraction, since the reference date
// 1 January 2001 00:00:00 UTC (not the Unix epoch).
namespace tamsel::model {

double timeIntervalSinceReferenceDate(platform::Date date);

// Intervals beyond about ±285,000 years are clamped to that bound rather than
// overflowing a Date.
platform::Date dateWithTimeIntervalSinceReferenceDate(double seconds);

}  // namespace tamsel::model
