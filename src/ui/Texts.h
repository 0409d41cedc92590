#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/Calendar.h"
#include "platform/Clock.h"

// Texts of the popover and its child views: keys of "CommonUI+Localizable",
// and the number and date formats the views show.
namespace tamsel::ui {

// The text of `key` in "CommonUI+Localizable" (the key when untranslated).
std::string commonUIText(std::string_view key);

// The text of the format `key` in "CommonUI+Localizable", with its
// conversion ("%@", "%d") filled with `argument`.
std::string commonUIFormat(std::string_view key, std::string_view argument);

// Upper case as section titles show it. ASCII letters only: the string
// tables' other scripts keep their case (there is no locale-aware mapping
// to lean on here).
std::string uppercased(std::string_view text);

// A counter as the number formatter shows it: digits grouped by thousands
// with commas ("1,234,567"; "-12").
std::string formattedCount(std::int64_t value);

// A date as the statistics' notes show it, on the calendar's day: "May 10, 2024".
std::string formattedDate(platform::Date date, const platform::Calendar& calendar);

}  // namespace tamsel::ui
