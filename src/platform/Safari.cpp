#include "platform/Safari.h"

#include <algorithm>

#include "platform/MainRunLoop.h"

namespace tamsel::platform {

namespace {

// Safari's answers come later, on one of its threads; the application counts
// them until they have been handled, so that the host can wait for quiet.
template <class T>
void answer(const std::weak_ptr<LocalSafariApplication>& application, std::function<void(T)> completionHandler,
            T value) {
    auto block = [completionHandler = std::move(completionHandler), value = std::move(value)]() mutable {
        completionHandler(std::move(value));
    };
    if (auto app = application.lock())
        app->answerLater(std::move(block));
    else
        DispatchQueue::global().async(std::move(block));
}

}  // namespace

// --- LocalSafariPage ------------------------------------------------------------------------

LocalSafariPage::LocalSafariPage(std::string identifier, std::optional<std::string> url,
                                 std::weak_ptr<LocalSafariApplication> application)
    : identifier_(std::move(identifier)), application_(std::move(application)), url_(std::move(url)) {}

std::optional<std::string> LocalSafariPage::url() const {
    std::lock_guard lock(mutex_);
    return url_;
}

std::optional<std::string> LocalSafariPage::title() const {
    std::lock_guard lock(mutex_);
    return url_;  // a page without rendering is titled by its address
}

void LocalSafariPage::setURL(std::optional<std::string> url) {
    std::lock_guard lock(mutex_);
    url_ = std::move(url);
}

void LocalSafariPage::getPropertiesWithCompletionHandler(
    std::function<void(std::optional<SafariPageProperties>)> completionHandler) {
    SafariPageProperties properties;
    {
        std::lock_guard lock(mutex_);
        properties.url = url_;
        properties.title = url_;
    }
    answer<std::optional<SafariPageProperties>>(application_, std::move(completionHandler), properties);
}

void LocalSafariPage::reload() {
    {
        std::lock_guard lock(mutex_);
        ++reloads_;
    }
    if (auto application = application_.lock()) {
        LocalSafariEvent event{LocalSafariEvent::Kind::reload, {}, {}, {}, {}};
        if (auto tab = application->tab(identifier_)) event.tab = tab->identifier();
        application->notify(event);
    }
}

void LocalSafariPage::dispatchMessageToScriptWithName(const std::string& name,
                                                      const std::optional<Dictionary>& userInfo) {
    {
        std::lock_guard lock(mutex_);
        messages_.push_back({name, userInfo});
    }
    if (auto application = application_.lock()) {
        LocalSafariEvent event{LocalSafariEvent::Kind::message, {}, {}, name, userInfo};
        if (auto tab = application->tab(identifier_)) event.tab = tab->identifier();
        application->notify(event);
    }
}

std::vector<LocalSafariPage::Message> LocalSafariPage::messagesReceived() const {
    std::lock_guard lock(mutex_);
    return messages_;
}

int LocalSafariPage::reloadCount() const {
    std::lock_guard lock(mutex_);
    return reloads_;
}

// --- LocalToolbarItem -------------------------------------------------------------------------

void LocalToolbarItem::setEnabled(bool enabled) {
    {
        std::lock_guard lock(mutex_);
        if (enabled_ == enabled) return;
        enabled_ = enabled;
    }
    changed();
}

void LocalToolbarItem::setBadgeText(const std::optional<std::string>& text) {
    // Safari shows an empty badge text as no badge.
    std::optional<std::string> badge = text && !text->empty() ? text : std::nullopt;
    {
        std::lock_guard lock(mutex_);
        if (badge_ == badge) return;
        badge_ = std::move(badge);
    }
    changed();
}

bool LocalToolbarItem::isEnabled() const {
    std::lock_guard lock(mutex_);
    return enabled_;
}

std::string LocalToolbarItem::badgeText() const {
    std::lock_guard lock(mutex_);
    return badge_.value_or("");
}

void LocalToolbarItem::changed() {
    if (auto application = application_.lock())
        application->notify({LocalSafariEvent::Kind::toolbar, window_, {}, {}, {}});
}

// --- LocalSafariTab, LocalSafariWindow ------------------------------------------------------

void LocalSafariTab::getActivePageWithCompletionHandler(
    std::function<void(std::shared_ptr<SafariPage>)> completionHandler) {
    answer<std::shared_ptr<SafariPage>>(application_, std::move(completionHandler), page_);
}

void LocalSafariWindow::getActiveTabWithCompletionHandler(
    std::function<void(std::shared_ptr<SafariTab>)> completionHandler) {
    std::shared_ptr<SafariTab> active;
    if (auto application = application_.lock()) {
        std::lock_guard lock(application->mutex_);
        for (const auto& window : application->windows_)
            if (window.window.get() == this && window.activeTab < window.tabs.size())
                active = window.tabs[window.activeTab];
    }
    answer(application_, std::move(completionHandler), std::move(active));
}

void LocalSafariWindow::getToolbarItemWithCompletionHandler(
    std::function<void(std::shared_ptr<SafariToolbarItem>)> completionHandler) {
    answer<std::shared_ptr<SafariToolbarItem>>(application_, std::move(completionHandler), toolbarItem_);
}

// --- LocalSafariApplication -----------------------------------------------------------------

std::shared_ptr<LocalSafariApplication> LocalSafariApplication::make() {
    return std::shared_ptr<LocalSafariApplication>(new LocalSafariApplication());
}

LocalSafariApplication::LocalSafariApplication() = default;
LocalSafariApplication::~LocalSafariApplication() = default;

void LocalSafariApplication::setExtension(std::shared_ptr<SafariExtensionHandling> extension) {
    std::lock_guard lock(mutex_);
    extension_ = std::move(extension);
}

void LocalSafariApplication::setObserver(std::function<void(const LocalSafariEvent&)> observer) {
    std::lock_guard lock(mutex_);
    observer_ = std::move(observer);
}

void LocalSafariApplication::notify(const LocalSafariEvent& event) {
    std::function<void(const LocalSafariEvent&)> observer;
    {
        std::lock_guard lock(mutex_);
        observer = observer_;
    }
    if (observer) observer(event);
}

void LocalSafariApplication::getActiveWindowWithCompletionHandler(
    std::function<void(std::shared_ptr<SafariWindow>)> completionHandler) {
    answer<std::shared_ptr<SafariWindow>>(weak_from_this(), std::move(completionHandler), frontWindow());
}

std::vector<LocalSafariApplication::WindowState> LocalSafariApplication::windows() const {
    std::lock_guard lock(mutex_);
    std::vector<WindowState> states;
    for (std::size_t w = 0; w < windows_.size(); ++w) {
        WindowState state{windows_[w].window->identifier(), w == 0, {}};
        for (std::size_t t = 0; t < windows_[w].tabs.size(); ++t) {
            const auto& tab = windows_[w].tabs[t];
            state.tabs.push_back({tab->identifier(), tab->page()->identifier(), tab->page()->url(),
                                  t == windows_[w].activeTab, tab->canGoBack()});
        }
        states.push_back(std::move(state));
    }
    return states;
}

std::shared_ptr<LocalSafariWindow> LocalSafariApplication::frontWindow() const {
    std::lock_guard lock(mutex_);
    return windows_.empty() ? nullptr : windows_.front().window;
}

std::shared_ptr<LocalSafariWindow> LocalSafariApplication::window(const std::string& identifier) const {
    std::lock_guard lock(mutex_);
    for (const auto& window : windows_)
        if (window.window->identifier() == identifier) return window.window;
    return nullptr;
}

std::shared_ptr<LocalSafariTab> LocalSafariApplication::tab(const std::string& identifier) const {
    std::lock_guard lock(mutex_);
    for (const auto& window : windows_)
        for (const auto& tab : window.tabs)
            if (tab->identifier() == identifier || tab->page()->identifier() == identifier) return tab;
    return nullptr;
}

std::shared_ptr<LocalSafariWindow> LocalSafariApplication::windowOfTab(const std::string& tabIdentifier) const {
    std::lock_guard lock(mutex_);
    for (const auto& window : windows_)
        for (const auto& tab : window.tabs)
            if (tab->identifier() == tabIdentifier) return window.window;
    return nullptr;
}

std::shared_ptr<LocalSafariTab> LocalSafariApplication::activeTab() const {
    std::lock_guard lock(mutex_);
    if (windows_.empty()) return nullptr;
    const Window& front = windows_.front();
    return front.activeTab < front.tabs.size() ? front.tabs[front.activeTab] : nullptr;
}

std::shared_ptr<LocalSafariWindow> LocalSafariApplication::openWindowLocked() {
    const std::string identifier = "w" + std::to_string(nextWindow_++);
    auto item = std::shared_ptr<LocalToolbarItem>(new LocalToolbarItem(identifier, weak_from_this()));
    auto window =
        std::shared_ptr<LocalSafariWindow>(new LocalSafariWindow(identifier, weak_from_this(), std::move(item)));
    windows_.insert(windows_.begin(), Window{window, {}, 0});
    return window;
}

std::shared_ptr<LocalSafariWindow> LocalSafariApplication::openWindow() {
    std::shared_ptr<LocalSafariWindow> window;
    {
        std::lock_guard lock(mutex_);
        window = openWindowLocked();
    }
    notify({LocalSafariEvent::Kind::tabs, window->identifier(), {}, {}, {}});
    validateToolbarItem(window);
    return window;
}

bool LocalSafariApplication::closeWindow(const std::string& identifier) {
    std::shared_ptr<LocalSafariWindow> front;
    {
        std::lock_guard lock(mutex_);
        auto it = std::find_if(windows_.begin(), windows_.end(),
                               [&](const Window& window) { return window.window->identifier() == identifier; });
        if (it == windows_.end()) return false;
        windows_.erase(it);
        if (!windows_.empty()) front = windows_.front().window;
    }
    notify({LocalSafariEvent::Kind::tabs, identifier, {}, {}, {}});
    if (front) validateToolbarItem(front);
    return true;
}

bool LocalSafariApplication::activateWindow(const std::string& identifier) {
    std::shared_ptr<LocalSafariWindow> front;
    {
        std::lock_guard lock(mutex_);
        auto it = std::find_if(windows_.begin(), windows_.end(),
                               [&](const Window& window) { return window.window->identifier() == identifier; });
        if (it == windows_.end()) return false;
        std::rotate(windows_.begin(), it, it + 1);
        front = windows_.front().window;
    }
    notify({LocalSafariEvent::Kind::tabs, identifier, {}, {}, {}});
    validateToolbarItem(front);
    return true;
}

std::shared_ptr<LocalSafariTab> LocalSafariApplication::openTab(const std::optional<std::string>& url,
                                                                const std::optional<std::string>& window) {
    std::shared_ptr<LocalSafariTab> tab;
    std::shared_ptr<LocalSafariWindow> target;
    {
        std::lock_guard lock(mutex_);
        auto it = windows_.begin();
        if (window) {
            it = std::find_if(windows_.begin(), windows_.end(),
                              [&](const Window& w) { return w.window->identifier() == *window; });
            if (it == windows_.end()) return nullptr;
        } else if (windows_.empty()) {
            openWindowLocked();
            it = windows_.begin();
        }
        const int number = nextTab_++;
        auto page = std::shared_ptr<LocalSafariPage>(
            new LocalSafariPage("p" + std::to_string(number), url, weak_from_this()));
        tab = std::shared_ptr<LocalSafariTab>(
            new LocalSafariTab("t" + std::to_string(number), std::move(page), weak_from_this()));
        it->tabs.push_back(tab);
        it->activeTab = it->tabs.size() - 1;
        std::rotate(windows_.begin(), it, it + 1);
        target = windows_.front().window;
    }
    notify({LocalSafariEvent::Kind::tabs, target->identifier(), tab->identifier(), {}, {}});
    validateToolbarItem(target);
    return tab;
}

bool LocalSafariApplication::closeTab(const std::string& identifier) {
    std::shared_ptr<LocalSafariWindow> validate;
    std::string windowIdentifier;
    {
        std::lock_guard lock(mutex_);
        for (auto window = windows_.begin(); window != windows_.end(); ++window) {
            auto it = std::find_if(window->tabs.begin(), window->tabs.end(),
                                   [&](const auto& tab) { return tab->identifier() == identifier; });
            if (it == window->tabs.end()) continue;
            const auto index = static_cast<std::size_t>(it - window->tabs.begin());
            window->tabs.erase(it);
            windowIdentifier = window->window->identifier();
            if (window->tabs.empty()) {
                windows_.erase(window);
            } else {
                if (window->activeTab >= index && window->activeTab > 0) --window->activeTab;
                validate = window->window;
            }
            if (!validate && !windows_.empty()) validate = windows_.front().window;
            break;
        }
        if (windowIdentifier.empty()) return false;
    }
    notify({LocalSafariEvent::Kind::tabs, windowIdentifier, identifier, {}, {}});
    if (validate) validateToolbarItem(validate);
    return true;
}

bool LocalSafariApplication::activateTab(const std::string& identifier) {
    std::shared_ptr<LocalSafariWindow> front;
    {
        std::lock_guard lock(mutex_);
        for (auto window = windows_.begin(); window != windows_.end() && !front; ++window) {
            for (std::size_t t = 0; t < window->tabs.size(); ++t) {
                if (window->tabs[t]->identifier() != identifier) continue;
                window->activeTab = t;
                std::rotate(windows_.begin(), window, window + 1);
                front = windows_.front().window;
                break;
            }
        }
        if (!front) return false;
    }
    notify({LocalSafariEvent::Kind::tabs, front->identifier(), identifier, {}, {}});
    validateToolbarItem(front);
    return true;
}

std::vector<std::string> LocalSafariTab::backList() const {
    std::lock_guard lock(historyMutex_);
    return backList_;
}

bool LocalSafariApplication::goBack(const std::string& identifier) {
    auto target = tab(identifier);
    if (!target) return false;
    std::string previous;
    {
        std::lock_guard lock(target->historyMutex_);
        if (target->backList_.empty()) return false;
        previous = std::move(target->backList_.back());
        target->backList_.pop_back();
    }
    return navigateTab(identifier, previous, Navigation::back);
}

bool LocalSafariApplication::navigateTab(const std::string& identifier, const std::string& url, Navigation kind) {
    auto target = tab(identifier);
    if (!target) return false;
    auto page = target->page();
    {
        std::lock_guard lock(target->historyMutex_);
        auto& backList = target->backList_;
        // The page takes the new address only after the extension has heard
        // of it, so the address left is the last one asked for.
        const auto leaving = target->lastNavigation_ ? target->lastNavigation_ : page->url();
        target->lastNavigation_ = url;
        if (kind == Navigation::link && leaving && *leaving != url) backList.push_back(*leaving);
        // A redirect back to the page just left (http to https of the same
        // address) leaves one entry, not two of the same page.
        if (kind == Navigation::redirect && !backList.empty() && backList.back() == url) backList.pop_back();
    }
    // The extension hears of the navigation before the page shows the new address.
    const bool delivered = deliver([page, url](SafariExtensionHandling& extension, std::function<void()> finished) {
        extension.pageWillNavigateToURL(page, url);
        page->setURL(url);
        finished();
    });
    if (!delivered) page->setURL(url);
    notify({LocalSafariEvent::Kind::tabs, {}, identifier, {}, {}});
    if (auto window = windowOfTab(identifier)) validateToolbarItem(window);
    return true;
}

void LocalSafariApplication::validateToolbarItem(const std::shared_ptr<LocalSafariWindow>& window) {
    if (!window) return;
    deliver([window](SafariExtensionHandling& extension, std::function<void()> finished) {
        extension.validateToolbarItemInWindow(
            window, [window, finished](bool enabled, const std::string& badgeText) {
                window->toolbarItem()->setEnabled(enabled);
                window->toolbarItem()->setBadgeText(badgeText);
                finished();
            });
    });
}

void LocalSafariApplication::clickToolbarItem(const std::shared_ptr<LocalSafariWindow>& window) {
    if (!window) return;
    deliver([window](SafariExtensionHandling& extension, std::function<void()> finished) {
        extension.toolbarItemClickedInWindow(window);
        finished();
    });
}

void LocalSafariApplication::showPopover(const std::shared_ptr<LocalSafariWindow>& window) {
    if (!window) return;
    {
        std::lock_guard lock(mutex_);
        popoverShown_ = true;
    }
    deliver([window](SafariExtensionHandling& extension, std::function<void()> finished) {
        extension.popoverWillShowInWindow(window);
        finished();
    });
}

void LocalSafariApplication::closePopover(const std::shared_ptr<LocalSafariWindow>& window) {
    if (!window) return;
    {
        std::lock_guard lock(mutex_);
        if (!popoverShown_) return;
        popoverShown_ = false;
    }
    deliver([window](SafariExtensionHandling& extension, std::function<void()> finished) {
        extension.popoverDidCloseInWindow(window);
        finished();
    });
}

bool LocalSafariApplication::isPopoverShown() const {
    std::lock_guard lock(mutex_);
    return popoverShown_;
}

void LocalSafariApplication::selectContextMenuCommand(const std::string& command,
                                                      const std::shared_ptr<LocalSafariPage>& page,
                                                      const std::optional<Dictionary>& userInfo) {
    deliver([command, page, userInfo](SafariExtensionHandling& extension, std::function<void()> finished) {
        extension.contextMenuItemSelectedWithCommand(command, page, userInfo);
        finished();
    });
}

void LocalSafariApplication::sendMessageFromPage(const std::shared_ptr<LocalSafariPage>& page,
                                                 const std::string& name, const std::optional<Dictionary>& userInfo) {
    deliver([name, page, userInfo](SafariExtensionHandling& extension, std::function<void()> finished) {
        extension.messageReceivedWithName(name, page, userInfo);
        finished();
    });
}

void LocalSafariApplication::reportBlockedResources(const std::string& identifier,
                                                    const std::vector<std::string>& urls,
                                                    const std::shared_ptr<LocalSafariPage>& page) {
    deliver([identifier, urls, page](SafariExtensionHandling& extension, std::function<void()> finished) {
        extension.contentBlockerWithIdentifier(identifier, urls, page);
        finished();
    });
}

bool LocalSafariApplication::deliver(
    std::function<void(SafariExtensionHandling&, std::function<void()> finished)> call) {
    std::shared_ptr<SafariExtensionHandling> extension;
    {
        std::lock_guard lock(mutex_);
        extension = extension_;
    }
    if (!extension) return false;
    {
        std::lock_guard lock(inFlightMutex_);
        ++inFlight_;
    }
    auto self = shared_from_this();
    auto finished = [self] {
        std::lock_guard lock(self->inFlightMutex_);
        --self->inFlight_;
        self->inFlightChanged_.notify_all();
    };
    events_.async([extension, call = std::move(call), finished = std::move(finished)] {
        call(*extension, finished);
    });
    return true;
}

void LocalSafariApplication::answerLater(std::function<void()> block) {
    {
        std::lock_guard lock(inFlightMutex_);
        ++inFlight_;
    }
    auto self = shared_from_this();
    DispatchQueue::global().async([self, block = std::move(block)] {
        block();
        std::lock_guard lock(self->inFlightMutex_);
        --self->inFlight_;
        self->inFlightChanged_.notify_all();
    });
}

bool LocalSafariApplication::waitForExtension(std::chrono::milliseconds timeout) {
    std::unique_lock lock(inFlightMutex_);
    return inFlightChanged_.wait_for(lock, timeout, [this] { return inFlight_ == 0; });
}

bool LocalSafariApplication::waitUntilQuiet(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !waitForExtension(left)) return false;
        // Whatever the main queue runs now or has queued may ask Safari more.
        DispatchQueue::main().sync([] {});
        {
            std::lock_guard lock(inFlightMutex_);
            if (inFlight_ != 0) continue;
        }
        if (MainRunLoop::pendingCount() == 0) return true;
    }
}

}  // namespace tamsel::platform
