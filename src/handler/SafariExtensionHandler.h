#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "handler/Popover.h"
#include "handler/UserRulesSync.h"
#include "model/Package.h"
#include "platform/Calendar.h"
#include "platform/Clock.h"
#include "platform/NotificationCenter.h"
#include "platform/Safari.h"
#include "platform/UserDefaults.h"
#include "storage/ReloadingResult.h"
#include "updates/UpdateResult.h"

namespace tamsel::control {
class DataManager;
}
namespace tamsel::runtime {
class HistoryStore;
}

// The toolbar extension's entry object: Safari creates it and calls it for
// every toolbar, popover, page-message, context-menu, navigation and
// content-blocker event, each on a thread of Safari's choosing. Whatever
// touches the popover moves to the main queue.
//
// The handler keeps no data of its own beyond a few process-wide values
// (ProcessState): the current page and its URL as toolbar validation last saw
// them, when this process last checked for rule updates, whether the popover
// is visible and whether user rules were handed to sync.
namespace tamsel::handler {

// The values one extension process keeps, whatever handler objects come and go.
struct ProcessState {
    std::mutex mutex;
    std::shared_ptr<platform::SafariPage> currentPage;
    std::optional<std::string> currentPageURL;
    std::optional<platform::Date> lastUpdateCheck;
    bool popoverVisible = false;
    bool didSync = false;

    // The process's values.
    static std::shared_ptr<ProcessState> shared();
};

class SafariExtensionHandler final : public platform::SafariExtensionHandling,
                                     public ui::ActionViewControllerDelegate,
                                     public std::enable_shared_from_this<SafariExtensionHandler> {
public:
    // Empty members mean the process's own objects.
    struct Collaborators {
        std::shared_ptr<platform::SafariApplication> application;
        // The shared popover when null (a popover of its own over the given
        // data manager and history, when those are given).
        std::shared_ptr<Popover> popover;
        runtime::HistoryStore* history = nullptr;
        control::DataManager* dataManager = nullptr;
        std::shared_ptr<ProcessState> state;
        std::shared_ptr<UserRulesSync> sync;
        // Reloads every content blocker from the files already written.
        std::function<void(storage::ReloadingCompletion)> reloadAllWithoutSaving;
        // Checks the filter server for newer rules and installs them.
        std::function<void(std::function<void(updates::UpdateResult)>)> checkForRuleUpdates;
        std::function<bool()> isHostApplicationRunning;
        // Starts watching for the host application to quit; the workspace's
        // termination notification is posted when it does. Held until the
        // handler goes.
        std::function<std::shared_ptr<void>()> watchHostApplicationTermination;
        // The configurable and the custom packages as stored.
        std::function<void(std::function<void(std::vector<model::Package>)>)> readConfigurablePackages;
        std::function<void(std::function<void(std::vector<model::Package>)>)> readCustomPackages;
        const platform::Clock* clock = nullptr;
        std::optional<platform::Calendar> calendar;
    };

    // What `init` does: marks the process as the toolbar extension, observes
    // "reloadTab" (and sets it to false), starts the sync of user rules and
    // the rule-update check.
    static std::shared_ptr<SafariExtensionHandler> make(Collaborators collaborators);
    // Stops observing "reloadTab" and the workspace.
    ~SafariExtensionHandler() override;

    SafariExtensionHandler(const SafariExtensionHandler&) = delete;
    SafariExtensionHandler& operator=(const SafariExtensionHandler&) = delete;

    // --- Safari's calls ---------------------------------------------------------------
    void toolbarItemClickedInWindow(const std::shared_ptr<platform::SafariWindow>& window) override;
    void validateToolbarItemInWindow(const std::shared_ptr<platform::SafariWindow>& window,
                                     ValidationHandler validationHandler) override;
    void popoverWillShowInWindow(const std::shared_ptr<platform::SafariWindow>& window) override;
    void popoverDidCloseInWindow(const std::shared_ptr<platform::SafariWindow>& window) override;
    void contextMenuItemSelectedWithCommand(const std::string& command,
                                            const std::shared_ptr<platform::SafariPage>& page,
                                            const std::optional<platform::Dictionary>& userInfo) override;
    void messageReceivedWithName(const std::string& name, const std::shared_ptr<platform::SafariPage>& page,
                                 const std::optional<platform::Dictionary>& userInfo) override;
    void pageWillNavigateToURL(const std::shared_ptr<platform::SafariPage>& page,
                               const std::optional<std::string>& url) override;
    void contentBlockerWithIdentifier(const std::string& identifier, const std::vector<std::string>& urls,
                                      const std::shared_ptr<platform::SafariPage>& page) override;

    // Runs the popover refresh and returns the shared popover.
    std::shared_ptr<Popover> popoverViewController();

    // --- The algorithms, callable on their own ------------------------------------------
    // The badge text: "OFF" once after the legacy pause flag, the pause glyph,
    // the heart, the page's blocked count, or none. Main queue.
    std::optional<std::string> badgeText();
    // Popover refresh (includes the toolbar-item refresh and ending an
    // expired pause). Main queue.
    void refreshPopover();
    void refreshToolbarItem();
    // The rule-update check, when more than 12 whole hours have passed since
    // this process's last one (or there was none). Returns whether it started one.
    bool checkForRuleUpdatesIfDue();
    // Hands the user's rules to sync once per process, deferred while the
    // host application runs.
    void syncUserRules();

    // --- The process-wide values -------------------------------------------------------
    std::shared_ptr<platform::SafariPage> currentPage() const override;
    std::optional<std::string> currentPageURL() const override;
    bool isPopoverVisible() const override;
    bool didSync() const;
    std::optional<platform::Date> lastUpdateCheck() const;
    const std::shared_ptr<Popover>& popover() const { return popover_; }

    static constexpr std::string_view pauseGlyph = "\u2759\u2006\u2759";
    static constexpr std::string_view heartGlyph = "\u2764\uFE0E";

private:
    explicit SafariExtensionHandler(Collaborators collaborators);
    void start();
    void observeReloadTab();
    bool isCurrentPage(const std::shared_ptr<platform::SafariPage>& page) const;
    void hideElement(const std::string& name, const std::optional<platform::Dictionary>& userInfo,
                     const std::optional<platform::SafariPageProperties>& properties);
    void addHideElementRule(const model::Rule& rule);

    Collaborators collaborators_;
    std::shared_ptr<ProcessState> state_;
    std::shared_ptr<Popover> popover_;
    platform::ObservationToken reloadTabObservation_;
    ui::SafariExtensionViewController::Token badgeObservation_;
    std::mutex tokensMutex_;
    platform::ObserverToken terminationObserver_;
    std::shared_ptr<void> terminationWatcher_;
};

// Swift's printed forms, for the handler's log lines: ["a", "b"],
// Optional(https://…) or nil, Optional(["sel": ".ad"]) or nil.
std::string printedList(const std::vector<std::string>& items);
std::string printedOptionalURL(const std::optional<std::string>& url);
std::string printedUserInfo(const std::optional<platform::Dictionary>& userInfo);

}  // namespace tamsel::handler
