#pragma once

#include <array>
#include <cstdint>
#include <expected>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "control/RuleChangePrompt.h"
#include "control/RuleChanger.h"
#include "model/RawRepresentable.h"
#include "model/Rule.h"
#include "platform/Calendar.h"
#include "platform/Clock.h"
#include "platform/SafariPage.h"
#include "runtime/HistoryPeriodType.h"
#include "ui/AlertViewController.h"
#include "ui/BlockedHistoryViewController.h"
#include "ui/BlockingStatsViewController.h"
#include "ui/ChangeNotifier.h"
#include "ui/ReportSiteViewController.h"
#include "ui/Reporter.h"
#include "ui/SystemActions.h"
#include "ui/WhitelistViewController.h"

namespace tamsel::control {
class DataManager;
class ExtensionManager;
}  // namespace tamsel::control
namespace tamsel::runtime {
class HistoryStore;
}
namespace tamsel::storage {
class ExtensionReloading;
}

// The toolbar popover: for the site of the page in the active tab, the
// actions the user can take (pause blocking, whitelist, force HTTPS, hide an
// element, see what was blocked), the blocked-resource counters and the help
// rows; and the child views it presents over itself, one at a time.
//
// Public API for the HTTP layer and the extension handler. Everything runs
// on the main queue: call every member there (the handler's Safari
// callbacks and the HTTP threads hop to it first).
//
//   Wiring (the handler):  setDelegate(), setRuleChanger(); the delegate
//                          supplies the current page, its URL and whether
//                          the popover is visible.
//   refreshForCurrentPage() re-reads the site's whitelist and make-HTTPS
//                          state; with no page or no host it presents the
//                          no-domain alert instead.
//   rows()                 the flattened table: section headers and cells
//                          with id (CellID raw value, or "…Header"), title,
//                          description, icon, switch state, counters.
//   Actions                clickRow(id) / tableViewDidClick(flat index),
//                          switchRow(id, on), counterDidTap(period),
//                          showBlockingReportButtonDidTap(); each answers an
//                          Outcome whose error is one sentence for a 4xx.
//   Children               presentedChild() (whitelist editor, statistics,
//                          blocked history, report form) and presentedAlert()
//                          (the top alert, also over a child), their own
//                          models' actions, alertOK()/alertCancel(), and the
//                          dismissals the handler calls when the popover
//                          closes (dismissAllChildViews()).
//   needsPageReload()      the page should reload when the popover closes.
//   observe(handler)       PopoverChange events: rows changed, the children
//                          (or a child's content) changed, or the badge needs a
//                          new computation; for server-sent events.
//   prompt()               the popover as the rule changer's prompt
//                          (questions and alerts over the popover).
namespace tamsel::ui {

// What the popover needs from the extension handler.
class ActionViewControllerDelegate {
public:
    virtual ~ActionViewControllerDelegate() = default;
    // The active page of the active tab, as toolbar validation last saw it.
    virtual std::shared_ptr<platform::SafariPage> currentPage() const = 0;
    virtual std::optional<std::string> currentPageURL() const = 0;
    virtual bool isPopoverVisible() const = 0;
};

enum class PopoverChange {
    rows,      // texts, switches or counters of the table
    children,  // a child view or alert came or went, or a presented one changed
    badge,     // the badge preference or the site's whitelist state changed: the
               // toolbar badge needs a new computation
};

class SafariExtensionViewController : public std::enable_shared_from_this<SafariExtensionViewController> {
public:
    enum class CellID {
        domainName,
        blockedCounters,
        blockedResources,
        pause,
        whitelist,
        visualEditor,
        makeHttps,
        faq,
        reportProblem,
        contact,
    };

    struct Collaborators {
        control::DataManager* dataManager = nullptr;                  // DataManager::shared()
        std::shared_ptr<control::ExtensionManager> extensionManager;  // ExtensionManager::shared()
        std::shared_ptr<storage::ExtensionReloading> reloading;       // ExtensionReloading::shared()
        runtime::HistoryStore* history = nullptr;                     // HistoryStore::shared()
        std::shared_ptr<Reporter> reporter;                           // Reporter::shared() at each report
        std::shared_ptr<SystemActions> systemActions;                 // PrintingSystemActions
        const platform::Clock* clock = nullptr;                       // the system clock
        std::optional<platform::Calendar> calendar;                   // the current calendar
        std::optional<std::string> supportAddress;                    // the build's support address
        std::optional<std::string> supportSite;                       // the build's support site
    };

    struct Counter {
        runtime::HistoryPeriodType period;
        std::string id;  // the period's raw value
        std::string label;
        std::string description;
        std::int64_t value = 0;
        std::string text;  // through the number formatter
    };

    // The button of the statistics header.
    struct HeaderButton {
        std::string image;
        std::string tooltip;
    };

    struct Row {
        enum class Kind { header, cell };
        Kind kind = Kind::cell;
        // The CellID's raw value; "actionsHeader", "statsHeader", "helpHeader" for headers.
        std::string id;
        std::optional<CellID> cell;
        int section = 0;
        std::string title;
        std::optional<std::string> description;
        std::optional<std::string> icon;
        std::optional<bool> switchOn;        // pause and makeHttps
        std::vector<Counter> counters;       // blockedCounters
        std::optional<HeaderButton> button;  // the statistics header
        bool selectable = false;
        bool smallTopOffset = false;     // the actions header
        bool hasCustomAction = false;    // an accessibility action doing what a click does
    };

    using Outcome = std::expected<void, std::string>;
    using ChildView = std::variant<std::shared_ptr<AlertViewController>, std::shared_ptr<WhitelistViewController>,
                                   std::shared_ptr<BlockedHistoryViewController>,
                                   std::shared_ptr<ReportSiteViewController>,
                                   std::shared_ptr<BlockingStatsViewController>>;

    // The process's popover, created on first use with the shared services.
    static std::shared_ptr<SafariExtensionViewController> shared();
    static std::shared_ptr<SafariExtensionViewController> create();
    static std::shared_ptr<SafariExtensionViewController> create(Collaborators collaborators);

    // --- Wiring -------------------------------------------------------------------------
    void setDelegate(std::weak_ptr<ActionViewControllerDelegate> delegate);
    void setRuleChanger(std::shared_ptr<control::RuleChanger> ruleChanger);
    const std::shared_ptr<control::RuleChanger>& ruleChanger() const { return ruleChanger_; }
    // The popover as the rule changer's prompt: questions and alerts are
    // presented over the popover; refresh() refreshes it.
    std::shared_ptr<control::RuleChangePrompt> prompt();

    // --- State --------------------------------------------------------------------------
    std::optional<bool> isCurrentDomainForcedHttps() const { return isCurrentDomainForcedHttps_; }
    const std::optional<model::Rule>& makeHttpsRule() const { return makeHttpsRule_; }
    const std::optional<model::Rule>& originalWhitelistRule() const { return originalWhitelistRule_; }
    std::optional<bool> isCurrentDomainWhitelisted() const { return isCurrentDomainWhitelisted_; }
    bool whitelistEditorDidChange() const { return whitelistEditorDidChange_; }
    bool needsPageReload() const { return needsPageReload_; }
    void setNeedsPageReload(bool value) { needsPageReload_ = value; }
    // The host of the current page's URL; none without a delegate, page or host.
    std::optional<std::string> currentHost() const;

    static const std::vector<std::vector<CellID>>& data();
    static const std::map<CellID, std::string>& cellTextKeys();
    static const std::map<CellID, std::string>& cellDescriptionKeys();
    static const std::map<CellID, std::string>& cellIcons();

    // --- The table ------------------------------------------------------------------------
    void refreshForCurrentPage();
    std::vector<Row> rows() const;
    // No for a section's first row (a header, or the domain row), yes otherwise.
    bool shouldSelectRow(int row) const;
    // Tells observers that the table's contents changed (new blocked
    // resources for the counters, say).
    void reloadData();

    // --- Actions --------------------------------------------------------------------------
    Outcome tableViewDidClick(int row);
    Outcome clickRow(CellID cell);
    void pauseBlockingSwitchDidChange(bool on);
    void makeHTTPSSwitchDidChange(bool on);
    // pause and makeHttps only.
    Outcome switchRow(CellID cell, bool on);
    Outcome showBlockingReportButtonDidTap();
    Outcome blockedResourcesCounterForAllTimeDidTap();
    Outcome blockedResourcesCounterForThisWeekDidTap();
    Outcome blockedResourcesCounterForTodayDidTap();
    Outcome counterDidTap(runtime::HistoryPeriodType period);
    Outcome showBlockedHistory();

    // --- Children ---------------------------------------------------------------------------
    const std::vector<ChildView>& presentedViewControllers() const { return presented_; }
    // The child presented over the popover (not an alert), if any.
    std::optional<ChildView> presentedChild() const;
    // The topmost alert, if any.
    std::shared_ptr<AlertViewController> presentedAlert() const;
    void presentAlert(std::shared_ptr<AlertViewController> alert);
    // Presses a button of the top alert: the alert goes, then its action runs.
    Outcome alertOK();
    Outcome alertCancel();

    void dismissBlockedHistory();
    void dismissAlert();
    void dismissWhitelist();
    void dismissSiteReporter();
    void dismissBlockingStats();
    // All of the above, in that order.
    void dismissAllChildViews();

    // "alert", "whitelist", "blockedHistory", "siteReporter", "blockingStats".
    static std::string_view kindName(const ChildView& child);
    static std::string description(const ChildView& child);
    // How children come in: the fade animator, right to left, 0.3 s.
    static CustomFadePresentationAnimator presentationAnimator() { return {}; }

    // --- Observing --------------------------------------------------------------------------
    using Token = ChangeNotifier<PopoverChange>::Token;
    [[nodiscard]] Token observe(ChangeNotifier<PopoverChange>::Handler handler) {
        return notifier_.observe(std::move(handler));
    }

    explicit SafariExtensionViewController(Collaborators collaborators);

private:
    class Prompt;

    control::DataManager& dataManager() const;
    control::ExtensionManager& extensionManager() const;
    runtime::HistoryStore& history() const;
    const platform::Clock& clock() const;
    // Pause on with at least a minute left.
    bool isPauseRunning() const;

    void readSiteState(const std::string& host);
    void rereadMakeHttpsState();
    void schedulePauseTick();
    Outcome ignoreWhilePresenting();
    void present(ChildView child);
    void dismissKind(std::size_t index, const char* line);
    void presentWhitelistEditor();
    void presentSiteReporter();
    void openVisualEditor();
    void openSupportSite();
    void composeFeedback();
    void presentErrorAlert(const std::string& title, const std::string& message);
    void changed(PopoverChange change) const { notifier_.notify(change); }

    Collaborators collaborators_;
    std::weak_ptr<ActionViewControllerDelegate> delegate_;
    std::shared_ptr<control::RuleChanger> ruleChanger_;
    std::shared_ptr<Prompt> prompt_;

    std::optional<bool> isCurrentDomainForcedHttps_;
    std::optional<model::Rule> makeHttpsRule_;
    std::optional<model::Rule> originalWhitelistRule_;
    std::optional<bool> isCurrentDomainWhitelisted_;
    bool whitelistEditorDidChange_ = false;
    bool needsPageReload_ = false;
    bool pauseTickScheduled_ = false;

    std::vector<ChildView> presented_;
    ChangeNotifier<PopoverChange> notifier_;
};

}  // namespace tamsel::ui

template <>
struct tamsel::model::RawValueTable<tamsel::ui::SafariExtensionViewController::CellID> {
    static constexpr std::array<std::string_view, 10> rawValues{
        "domainName", "blockedCounters", "blockedResources", "pause", "whitelist", "visualEditor", "makeHttps",
        "faq", "reportProblem", "contact"};
};

template <>
struct tamsel::model::RawValueTable<tamsel::ui::PopoverChange> {
    static constexpr std::array<std::string_view, 3> rawValues{"rows", "children", "badge"};
};
