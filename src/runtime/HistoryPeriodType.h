#pragma once

#include "model/RawRepresentable.h"

#include <array>
#include <string>
#include <string_view>

namespace tamsel::runtime {

// The periods of the blocking statistics.
enum class HistoryPeriodType {
    allTime,   // "allTime"
    thisWeek,  // "thisWeek"
    today,     // "today"
};

// The period's name in the user's language, from "CommonUI+Localizable".
std::string displayName(HistoryPeriodType period);

}  // namespace tamsel::runtime

template <>
struct tamsel::model::RawValueTable<tamsel::runtime::HistoryPeriodType> {
    static constexpr std::array<std::string_view, 3> rawValues{"allTime", "thisWeek", "today"};
};
