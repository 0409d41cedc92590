#include "ui/BlockingStatsViewController.h"

#include <utility>

#include "platform/Log.h"
#include "runtime/CategoryCounts.h"
#include "ui/Texts.h"

namespace tamsel::ui {

namespace {

using runtime::HistoryPeriodType;

constexpr Color rgb(std::uint8_t r, std::uint8_t g, std::uint8_t b) { return {r, g, b, 255}; }

// System orange / red / teal in the light appearance; fixed darker tones in the dark one.
const DynamicColor adsTint{rgb(255, 149, 0), rgb(190, 110, 0)};
const DynamicColor trackersTint{rgb(255, 59, 48), rgb(190, 0, 0)};
const DynamicColor othersTint{rgb(48, 176, 199), rgb(190, 190, 190)};

const char* missingSumsLine(HistoryPeriodType period) {
    switch (period) {
        case HistoryPeriodType::allTime:
            return "Can't get sumBlockedResourcesPerExtensionForAllTime for displaying in categories views";
        case HistoryPeriodType::thisWeek:
            return "Can't get sumBlockedResourcesPerExtensionForThisWeek for displaying in categories views";
        case HistoryPeriodType::today:
            return "Can't get sumBlockedResourcesPerExtensionForToday for displaying in categories views";
    }
    return "";
}

const char* notesKey(HistoryPeriodType period) {
    switch (period) {
        case HistoryPeriodType::allTime: return "action.table.cell.blocked-counters.all-time.description";
        case HistoryPeriodType::thisWeek: return "action.table.cell.blocked-counters.this-week.description";
        case HistoryPeriodType::today: return "action.table.cell.blocked-counters.today.description";
    }
    return "";
}

}  // namespace

BlockingStatsViewController::BlockingStatsViewController(HistoryPeriodType periodType, runtime::HistoryStore& history,
                                                         std::optional<platform::Calendar> calendar,
                                                         std::function<void()> changed)
    : periodType_(periodType),
      history_(history),
      calendar_(calendar ? std::move(*calendar) : platform::Calendar::current()),
      changed_(std::move(changed)) {
    reloadData();
}

std::string BlockingStatsViewController::titleText() const { return commonUIText("action.table.section.stats"); }

BlockingStatsViewController::PeriodPicker BlockingStatsViewController::picker() const {
    PeriodPicker picker;
    for (HistoryPeriodType period : model::allCases<HistoryPeriodType>()) {
        if (period == periodType_) picker.selectedIndex = static_cast<int>(picker.periods.size());
        picker.periods.push_back(period);
        picker.labels.push_back(period == HistoryPeriodType::allTime
                                    ? commonUIText("blocking-stats.table.period.all-time")
                                    : runtime::displayName(period));
    }
    return picker;
}

bool BlockingStatsViewController::pickerDidChange(int index) {
    const auto& periods = model::allCases<HistoryPeriodType>();
    if (index < 0 || static_cast<std::size_t>(index) >= periods.size()) {
        platform::consolePrint("Can't change picker selection, index out of range");
        return false;
    }
    platform::consolePrint("Picker did change: " + std::to_string(index));
    periodType_ = periods[static_cast<std::size_t>(index)];
    reloadData();
    return true;
}

bool BlockingStatsViewController::hasEnoughDataForChart(const runtime::HistoryStore::ChartSeries& series) {
    if (series.size() < 2) return false;
    for (const auto& [date, counts] : series) {
        if (runtime::total(counts) > 0) return true;
    }
    return false;
}

const std::optional<platform::Date>& BlockingStatsViewController::firstBlockedResourceDate() {
    if (!firstBlockedResourceDate_) firstBlockedResourceDate_ = history_.firstBlockedResourceDate();
    return *firstBlockedResourceDate_;
}

void BlockingStatsViewController::reloadData() {
    // Category counters.
    const auto sums = history_.sumBlockedResourcesPerExtension(periodType_);
    if (!sums) platform::consolePrint(missingSumsLine(periodType_));
    const auto folded = sums ? std::optional(runtime::categoryCounts(*sums)) : std::nullopt;
    const auto counter = [&](std::string id, const char* labelKey, std::string icon, const DynamicColor& tint,
                             std::optional<std::string> tooltip, std::int64_t runtime::CategoryCounts::*field) {
        CategoryCounter made{std::move(id), uppercased(commonUIText(labelKey)), std::move(icon), tint,
                             std::move(tooltip), std::nullopt, std::nullopt};
        if (folded) {
            made.value = (*folded).*field;
            made.text = formattedCount(*made.value);
        }
        return made;
    };
    categories_ = {
        counter("ads", "blocking-stats.table.counter.ads", "block-ads-MacIcon", adsTint, std::nullopt,
                &runtime::CategoryCounts::ads),
        counter("trackers", "blocking-stats.table.counter.trackers", "block-trackers-MacIcon", trackersTint,
                std::nullopt, &runtime::CategoryCounts::trackers),
        counter("others", "blocking-stats.table.counter.others", "others-MacIcon", othersTint,
                commonUIText("blocking-stats.table.counter.others.tooltip"), &runtime::CategoryCounts::others),
    };

    // Chart.
    chart_ = {};
    const auto series = history_.chartSeries(periodType_);
    if (!series) platform::consolePrint("Can't get averageBlockedPerDayPerExtension for displaying in the chart view");
    if (series && hasEnoughDataForChart(*series)) {
        for (const auto& [date, counts] : *series) chart_.points.push_back({date, counts, runtime::total(counts)});
        chart_.xAxisShowsHoursOnly = periodType_ == HistoryPeriodType::today;
        chart_.xAxisShowsYear =
            periodType_ == HistoryPeriodType::allTime &&
            calendar_.localDateTime(chart_.points.front().date).year != calendar_.localDateTime(chart_.points.back().date).year;
    } else {
        chart_.notEnoughDataText = commonUIText("blocking-stats.table.chart.not-enough-data");
    }

    // Notes.
    notes_ = {commonUIText(notesKey(periodType_)), std::nullopt};
    if (periodType_ == HistoryPeriodType::allTime) {
        // Read again: the first record may have arrived since the view opened.
        firstBlockedResourceDate_.reset();
        if (const auto& first = firstBlockedResourceDate()) notes_.firstBlockedResourceDate = formattedDate(*first, calendar_);
    }
    if (changed_) changed_();
}

}  // namespace tamsel::ui
