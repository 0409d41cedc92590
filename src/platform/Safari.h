#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/SafariPage.h"
#include "platform/Value.h"

// Safari as the toolbar extension sees it: the application, its windows, their
// tabs and pages, the extension's toolbar item, and the calls Safari makes
// into the extension (SafariExtensionHandling). Every question Safari answers
// is answered later, on a thread of Safari's, exactly once.
//
// The Local* classes below are the substitute Safari that `tamsel serve` and
// the tests drive: a browser with no rendering, whose windows, tabs and pages
// exist only as this model.
namespace tamsel::platform {

// The extension's button in one window's toolbar.
class SafariToolbarItem {
public:
    virtual ~SafariToolbarItem() = default;
    virtual void setEnabled(bool enabled) = 0;
    // No text removes the badge.
    virtual void setBadgeText(const std::optional<std::string>& text) = 0;
};

class SafariTab {
public:
    virtual ~SafariTab() = default;
    // No page: the tab shows nothing yet.
    virtual void getActivePageWithCompletionHandler(
        std::function<void(std::shared_ptr<SafariPage>)> completionHandler) = 0;
};

class SafariWindow {
public:
    virtual ~SafariWindow() = default;
    virtual void getActiveTabWithCompletionHandler(
        std::function<void(std::shared_ptr<SafariTab>)> completionHandler) = 0;
    virtual void getToolbarItemWithCompletionHandler(
        std::function<void(std::shared_ptr<SafariToolbarItem>)> completionHandler) = 0;
};

class SafariApplication {
public:
    virtual ~SafariApplication() = default;
    // The frontmost window; none when no window is open.
    virtual void getActiveWindowWithCompletionHandler(
        std::function<void(std::shared_ptr<SafariWindow>)> completionHandler) = 0;
};

// What Safari calls on the toolbar extension, on threads of its own.
class SafariExtensionHandling {
public:
    using ValidationHandler = std::function<void(bool enabled, const std::string& badgeText)>;

    virtual ~SafariExtensionHandling() = default;
    virtual void toolbarItemClickedInWindow(const std::shared_ptr<SafariWindow>& window) = 0;
    virtual void validateToolbarItemInWindow(const std::shared_ptr<SafariWindow>& window,
                                             ValidationHandler validationHandler) = 0;
    virtual void popoverWillShowInWindow(const std::shared_ptr<SafariWindow>& window) = 0;
    virtual void popoverDidCloseInWindow(const std::shared_ptr<SafariWindow>& window) = 0;
    virtual void contextMenuItemSelectedWithCommand(const std::string& command,
                                                    const std::shared_ptr<SafariPage>& page,
                                                    const std::optional<Dictionary>& userInfo) = 0;
    virtual void messageReceivedWithName(const std::string& name, const std::shared_ptr<SafariPage>& page,
                                         const std::optional<Dictionary>& userInfo) = 0;
    virtual void pageWillNavigateToURL(const std::shared_ptr<SafariPage>& page,
                                       const std::optional<std::string>& url) = 0;
    virtual void contentBlockerWithIdentifier(const std::string& identifier,
                                              const std::vector<std::string>& blockedResourcesWithURLs,
                                              const std::shared_ptr<SafariPage>& page) = 0;
};

// --- The substitute Safari ----------------------------------------------------------

// Something the substitute Safari did that a viewer of it may want to show.
struct LocalSafariEvent {
    enum class Kind {
        toolbar,  // a toolbar item's enabled state or badge changed
        message,  // the extension sent a message to a page's script
        reload,   // a page was asked to reload
        tabs,     // windows or tabs were opened, closed, activated or navigated
    };
    Kind kind = Kind::tabs;
    std::string window;  // toolbar
    std::string tab;     // message, reload
    std::string name;    // message
    std::optional<Dictionary> userInfo;
};

class LocalSafariApplication;

class LocalSafariPage final : public SafariPage {
public:
    const std::string& identifier() const { return identifier_; }
    std::optional<std::string> url() const;
    std::optional<std::string> title() const;

    void getPropertiesWithCompletionHandler(
        std::function<void(std::optional<SafariPageProperties>)> completionHandler) override;
    void reload() override;
    void dispatchMessageToScriptWithName(const std::string& name,
                                         const std::optional<Dictionary>& userInfo) override;

    struct Message {
        std::string name;
        std::optional<Dictionary> userInfo;
        bool operator==(const Message&) const = default;
    };
    std::vector<Message> messagesReceived() const;
    int reloadCount() const;

private:
    friend class LocalSafariApplication;
    LocalSafariPage(std::string identifier, std::optional<std::string> url,
                    std::weak_ptr<LocalSafariApplication> application);
    void setURL(std::optional<std::string> url);

    const std::string identifier_;
    const std::weak_ptr<LocalSafariApplication> application_;
    mutable std::mutex mutex_;
    std::optional<std::string> url_;
    std::vector<Message> messages_;
    int reloads_ = 0;
};

class LocalToolbarItem final : public SafariToolbarItem {
public:
    void setEnabled(bool enabled) override;
    void setBadgeText(const std::optional<std::string>& text) override;
    bool isEnabled() const;
    std::string badgeText() const;  // empty without a badge

private:
    friend class LocalSafariApplication;
    LocalToolbarItem(std::string window, std::weak_ptr<LocalSafariApplication> application)
        : window_(std::move(window)), application_(std::move(application)) {}
    void changed();

    const std::string window_;
    const std::weak_ptr<LocalSafariApplication> application_;
    mutable std::mutex mutex_;
    bool enabled_ = false;
    std::optional<std::string> badge_;
};

class LocalSafariTab final : public SafariTab {
public:
    const std::string& identifier() const { return identifier_; }
    // The page the tab shows; the same object for the tab's whole life
    // (navigation changes the page's URL).
    const std::shared_ptr<LocalSafariPage>& page() const { return page_; }
    void getActivePageWithCompletionHandler(
        std::function<void(std::shared_ptr<SafariPage>)> completionHandler) override;

    // The addresses the tab showed before the current one, oldest first
    // (LocalSafariApplication::goBack returns to the last).
    std::vector<std::string> backList() const;
    bool canGoBack() const { return !backList().empty(); }

private:
    friend class LocalSafariApplication;
    LocalSafariTab(std::string identifier, std::shared_ptr<LocalSafariPage> page,
                   std::weak_ptr<LocalSafariApplication> application)
        : identifier_(std::move(identifier)), page_(std::move(page)), application_(std::move(application)) {}
    const std::string identifier_;
    const std::shared_ptr<LocalSafariPage> page_;
    const std::weak_ptr<LocalSafariApplication> application_;
    mutable std::mutex historyMutex_;
    std::vector<std::string> backList_;
    // The address of the last navigation asked for (the page shows it once
    // the extension has heard of it); none before the first.
    std::optional<std::string> lastNavigation_;
};

class LocalSafariWindow final : public SafariWindow {
public:
    const std::string& identifier() const { return identifier_; }
    const std::shared_ptr<LocalToolbarItem>& toolbarItem() const { return toolbarItem_; }
    void getActiveTabWithCompletionHandler(std::function<void(std::shared_ptr<SafariTab>)> completionHandler) override;
    void getToolbarItemWithCompletionHandler(
        std::function<void(std::shared_ptr<SafariToolbarItem>)> completionHandler) override;

private:
    friend class LocalSafariApplication;
    LocalSafariWindow(std::string identifier, std::weak_ptr<LocalSafariApplication> application,
                      std::shared_ptr<LocalToolbarItem> toolbarItem)
        : identifier_(std::move(identifier)), application_(std::move(application)),
          toolbarItem_(std::move(toolbarItem)) {}
    const std::string identifier_;
    const std::weak_ptr<LocalSafariApplication> application_;
    const std::shared_ptr<LocalToolbarItem> toolbarItem_;
};

// The substitute Safari. Thread-safe: the host drives it from any thread
// (the HTTP server's), and it calls the extension on a serial queue of its
// own, in the order of the events, as Safari calls an extension on threads
// of its choosing.
class LocalSafariApplication final : public SafariApplication,
                                     public std::enable_shared_from_this<LocalSafariApplication> {
public:
    static std::shared_ptr<LocalSafariApplication> make();
    ~LocalSafariApplication() override;

    void setExtension(std::shared_ptr<SafariExtensionHandling> extension);
    // Called, on the thread where it happened, for every event (see LocalSafariEvent).
    void setObserver(std::function<void(const LocalSafariEvent&)> observer);

    void getActiveWindowWithCompletionHandler(
        std::function<void(std::shared_ptr<SafariWindow>)> completionHandler) override;

    // --- The model ------------------------------------------------------------------
    struct TabState {
        std::string identifier;
        std::string page;
        std::optional<std::string> url;
        bool active = false;
        bool canGoBack = false;
    };
    struct WindowState {
        std::string identifier;
        bool front = false;
        std::vector<TabState> tabs;
    };
    // Front window first.
    std::vector<WindowState> windows() const;
    std::shared_ptr<LocalSafariWindow> frontWindow() const;
    std::shared_ptr<LocalSafariWindow> window(const std::string& identifier) const;
    std::shared_ptr<LocalSafariTab> tab(const std::string& identifier) const;
    // The window that holds the tab.
    std::shared_ptr<LocalSafariWindow> windowOfTab(const std::string& tabIdentifier) const;
    // The front window's active tab.
    std::shared_ptr<LocalSafariTab> activeTab() const;

    // --- What the user does; each tells the extension as Safari would --------------
    // Opens a window in front (validates its toolbar item).
    std::shared_ptr<LocalSafariWindow> openWindow();
    // False when no such window. Closing the last tab closes its window too.
    bool closeWindow(const std::string& identifier);
    bool activateWindow(const std::string& identifier);
    // Opens a tab in `window` (the front window when none is given; a new
    // window when none is open), makes it active, brings its window to the
    // front and validates the toolbar item. Null when the window is unknown.
    std::shared_ptr<LocalSafariTab> openTab(const std::optional<std::string>& url,
                                            const std::optional<std::string>& window = std::nullopt);
    bool closeTab(const std::string& identifier);
    bool activateTab(const std::string& identifier);
    // How a navigation relates to the tab's history: a link (or a typed
    // address) puts the address it leaves on the back list; a redirect
    // replaces the current entry (and one that lands on the last entry of
    // the back list merges with it); going back takes the last one off.
    enum class Navigation { link, redirect, back };
    // The page will navigate (the extension hears it first), then shows `url`.
    bool navigateTab(const std::string& identifier, const std::string& url, Navigation kind = Navigation::link);
    // Navigates the tab to the last address of its back list; false when the
    // tab is unknown or has nothing to go back to.
    bool goBack(const std::string& identifier);

    void validateToolbarItem(const std::shared_ptr<LocalSafariWindow>& window);
    void clickToolbarItem(const std::shared_ptr<LocalSafariWindow>& window);
    void showPopover(const std::shared_ptr<LocalSafariWindow>& window);
    void closePopover(const std::shared_ptr<LocalSafariWindow>& window);
    bool isPopoverShown() const;
    void selectContextMenuCommand(const std::string& command, const std::shared_ptr<LocalSafariPage>& page,
                                  const std::optional<Dictionary>& userInfo = std::nullopt);
    void sendMessageFromPage(const std::shared_ptr<LocalSafariPage>& page, const std::string& name,
                             const std::optional<Dictionary>& userInfo);
    void reportBlockedResources(const std::string& identifier, const std::vector<std::string>& urls,
                                const std::shared_ptr<LocalSafariPage>& page);

    // Waits until every event sent to the extension so far has been handled,
    // validations answered included. Returns false when `timeout` passed.
    bool waitForExtension(std::chrono::milliseconds timeout);
    // Waits until Safari is quiet: every event handled, every answer Safari
    // gave handled, and nothing left on the main queue (which another thread
    // must be running). Returns false when `timeout` passed.
    bool waitUntilQuiet(std::chrono::milliseconds timeout);

    // Runs one of Safari's answers on a thread of Safari's, counted until it returns.
    void answerLater(std::function<void()> block);

private:
    friend class LocalSafariPage;
    friend class LocalToolbarItem;
    friend class LocalSafariWindow;
    LocalSafariApplication();

    struct Window {
        std::shared_ptr<LocalSafariWindow> window;
        std::vector<std::shared_ptr<LocalSafariTab>> tabs;
        std::size_t activeTab = 0;
    };

    // Runs `call` on the extension, on the events queue. `finished` (passed
    // to `call`) must be called once the event is over. False when no
    // extension is installed.
    bool deliver(std::function<void(SafariExtensionHandling&, std::function<void()> finished)> call);
    void notify(const LocalSafariEvent& event);
    std::shared_ptr<LocalSafariWindow> openWindowLocked();
    void validateLocked(const std::shared_ptr<LocalSafariWindow>& window);

    mutable std::mutex mutex_;
    std::vector<Window> windows_;  // front first
    std::shared_ptr<SafariExtensionHandling> extension_;
    std::function<void(const LocalSafariEvent&)> observer_;
    int nextWindow_ = 1;
    int nextTab_ = 1;
    bool popoverShown_ = false;

    std::mutex inFlightMutex_;
    std::condition_variable inFlightChanged_;
    int inFlight_ = 0;
    DispatchQueue events_{"Safari Extension Events"};
};

}  // namespace tamsel::platform
