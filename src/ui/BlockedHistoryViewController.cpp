#include "ui/BlockedHistoryViewController.h"

#include <string>
#include <utility>

#include "platform/Log.h"
#include "platform/Stores.h"
#include "ui/Texts.h"

namespace tamsel::ui {

namespace {
const std::string& badgeKey() {
    static const std::string key(runtime::HistoryStore::userPrefersBadgeToolbarIconKey);
    return key;
}
}  // namespace

BlockedHistoryViewController::BlockedHistoryViewController(runtime::HistoryStore::GroupedHistory history,
                                                           std::function<void()> badgePreferenceChanged)
    : contentBlockers_(std::move(history.contentBlockers)),
      historyRecords_(std::move(history.records)),
      badgePreferenceChanged_(std::move(badgePreferenceChanged)) {}

std::string BlockedHistoryViewController::titleText() const { return commonUIText("action.history.title"); }

std::vector<BlockedHistoryViewController::Section> BlockedHistoryViewController::sections() const {
    std::vector<Section> sections;
    for (model::ExtensionType type : contentBlockers_) {
        Section section{type, model::localizedName(type), {}};
        if (const auto found = historyRecords_.find(type); found != historyRecords_.end()) {
            for (const runtime::History& record : found->second) section.urls.push_back(record.url);
        }
        sections.push_back(std::move(section));
    }
    return sections;
}

std::string BlockedHistoryViewController::badgeButtonLabel() const {
    return commonUIText("action.history.badge-button.label");
}

bool BlockedHistoryViewController::badgeSwitchOn() const {
    return platform::SharedDefaults::shared()->boolValue(badgeKey());
}

void BlockedHistoryViewController::badgeSwitchDidChange(bool on) {
    platform::consolePrint(std::string("Changed show badge counter preference to ") + (on ? "true" : "false"));
    platform::SharedDefaults::shared()->set(platform::Value(on), badgeKey());
    if (badgePreferenceChanged_) badgePreferenceChanged_();
}

}  // namespace tamsel::ui
