#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "model/ExtensionType.h"
#include "runtime/History.h"
#include "runtime/HistoryStore.h"
#include "ui/Theme.h"

// What was blocked on the current page: the child view the popover presents
// for its blocked-resources row. One section per content blocker with
// records on the page, in ExtensionType order, listing the blocked URLs as
// they were when the view opened; and the switch that puts the page's count
// on the toolbar badge.
//
// Public API for a view layer (all on the main queue):
//   titleText(), sections()         the title and the grouped URLs
//   badgeButtonLabel(), badgeButtonIcon(), badgeSwitchOn()
//   badgeSwitchDidChange(on)        stores the badge preference; the
//                                   popover then tells its observers that
//                                   the badge needs a new computation
namespace tamsel::ui {

class BlockedHistoryViewController {
public:
    struct Section {
        model::ExtensionType extension;
        std::string title;  // the extension's localised name
        std::vector<std::string> urls;

        friend bool operator==(const Section&, const Section&) = default;
    };

    // `badgePreferenceChanged`: called after the switch stored a new value.
    explicit BlockedHistoryViewController(runtime::HistoryStore::GroupedHistory history,
                                          std::function<void()> badgePreferenceChanged = {});

    const std::vector<model::ExtensionType>& contentBlockers() const { return contentBlockers_; }
    const std::map<model::ExtensionType, std::vector<runtime::History>>& historyRecords() const {
        return historyRecords_;
    }

    std::string titleText() const;
    Font titleFont() const { return Themes::current()->titleFont(); }
    std::vector<Section> sections() const;

    std::string badgeButtonLabel() const;
    static constexpr const char* badgeButtonIcon = "app.badge.medium-m";
    // The stored preference ("userPrefersBadgeToolbarIconKey"; absent is off).
    bool badgeSwitchOn() const;
    void badgeSwitchDidChange(bool on);

    std::string description() const { return "<BlockedHistoryViewController>"; }

private:
    std::vector<model::ExtensionType> contentBlockers_;
    std::map<model::ExtensionType, std::vector<runtime::History>> historyRecords_;
    std::function<void()> badgePreferenceChanged_;
};

}  // namespace tamsel::ui
