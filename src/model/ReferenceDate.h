#pragma once

#include "platform/Clock.h"

// Dates in the JSON files are seconds, with fraction, since the reference date
// 1 January 2001 00:00:00 UTC (not the Unix epoch).
namespace tamsel::model {

double timeIntervalSinceReferenceDate(platform::Date date);

// Intervals beyond what a Date can hold (about ±292 years around 1970) are
// clamped to the nearest representable date rather than overflowing.
platform::Date dateWithTimeIntervalSinceReferenceDate(double seconds);

}  // namespace tamsel::model
