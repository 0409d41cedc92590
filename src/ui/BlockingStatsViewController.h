#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "model/RawRepresentable.h"
#include "platform/Calendar.h"
#include "runtime/BlockedResource.h"
#include "runtime/HistoryPeriodType.h"
#include "runtime/HistoryStore.h"
#include "ui/Theme.h"

// The blocking statistics: the child view the popover presents from its
// counters. For the chosen period: the three category counters (ads,
// trackers, others), the chart of blocked resources over the period, and a
// note on what the numbers mean.
//
// Public API for a view layer (all on the main queue):
//   periodType(), picker()  the period shown and the picker's three entries
//   categories(), chart(), notes()
//                           the rows' contents, recomputed on every reload
//   pickerDidChange(index)  the user picked the entry at `index`; false (and
//                           nothing changes) for an index outside the list
//
// When the chart has too little to draw: a line needs two points, so the
// chart is drawn only when the series has at least two buckets and at least
// one blocked resource in them; otherwise the view shows
// "blocking-stats.table.chart.not-enough-data" instead (an empty store,
// today's first two hours, a history that began today).
namespace tamsel::ui {

class BlockingStatsViewController {
public:
    enum class CellID { period, categories, chart, notes };

    static constexpr int allTimeChartPoints = 30;
    // The rounded container of the chart cell.
    static constexpr double chartCornerRadius = 6;
    // The chart cell's extended top offset.
    static constexpr double chartExtendedTopOffset = 26;

    struct PeriodPicker {
        std::vector<runtime::HistoryPeriodType> periods;  // in HistoryPeriodType order
        std::vector<std::string> labels;
        int selectedIndex = 0;
    };

    struct CategoryCounter {
        std::string id;     // "ads", "trackers", "others"
        std::string label;  // upper case
        std::string icon;
        DynamicColor tint;
        std::optional<std::string> tooltip;
        std::optional<std::int64_t> value;  // absent when the sums could not be read
        std::optional<std::string> text;    // the value through the number formatter
    };

    struct ChartPoint {
        platform::Date date;  // the bucket's start
        runtime::ExtensionCounts counts;
        std::int64_t total = 0;
    };

    struct Chart {
        std::vector<ChartPoint> points;
        // Absent when the chart is drawn.
        std::optional<std::string> notEnoughDataText;
        bool xAxisShowsHoursOnly = false;
        bool xAxisShowsYear = false;
    };

    struct Notes {
        std::string text;
        // All time only: the first record's day, when known.
        std::optional<std::string> firstBlockedResourceDate;
    };

    // `calendar`: where the notes' date is formatted (the current calendar
    // when absent).
    BlockingStatsViewController(runtime::HistoryPeriodType periodType, runtime::HistoryStore& history,
                                std::optional<platform::Calendar> calendar = std::nullopt,
                                std::function<void()> changed = {});

    runtime::HistoryPeriodType periodType() const { return periodType_; }
    const std::vector<std::vector<CellID>>& data() const { return data_; }
    std::string titleText() const;
    Font titleFont() const { return Themes::current()->titleFont(); }

    PeriodPicker picker() const;
    const std::vector<CategoryCounter>& categories() const { return categories_; }
    const Chart& chart() const { return chart_; }
    const Notes& notes() const { return notes_; }

    bool pickerDidChange(int index);
    // Reads the statistics again.
    void reloadData();

    std::string description() const { return "<BlockingStatsViewController>"; }

    // The chart rule described above.
    static bool hasEnoughDataForChart(const runtime::HistoryStore::ChartSeries& series);

private:
    const std::optional<platform::Date>& firstBlockedResourceDate();

    runtime::HistoryPeriodType periodType_;
    runtime::HistoryStore& history_;
    platform::Calendar calendar_;
    std::function<void()> changed_;
    std::vector<std::vector<CellID>> data_{{CellID::period, CellID::categories, CellID::chart, CellID::notes}};
    std::optional<std::optional<platform::Date>> firstBlockedResourceDate_;
    std::vector<CategoryCounter> categories_;
    Chart chart_;
    Notes notes_;
};

}  // namespace tamsel::ui

template <>
struct tamsel::model::RawValueTable<tamsel::ui::BlockingStatsViewController::CellID> {
    static constexpr std::array<std::string_view, 4> rawValues{"period", "categories", "chart", "notes"};
};
