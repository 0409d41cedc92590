#include "runtime/HistoryPeriodType.h"

#include "platform/Localization.h"

namespace tamsel::runtime {

std::string displayName(HistoryPeriodType period) {
    std::string_view key;
    switch (period) {
        case HistoryPeriodType::allTime: key = "action.table.cell.blocked-counters.all-time"; break;
        case HistoryPeriodType::thisWeek: key = "action.table.cell.blocked-counters.this-week"; break;
        case HistoryPeriodType::today: key = "action.table.cell.blocked-counters.today"; break;
    }
    return platform::localizedString("CommonUI+Localizable", key);
}

}  // namespace tamsel::runtime
