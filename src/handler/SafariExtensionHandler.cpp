#include "handler/SafariExtensionHandler.h"

#include "control/DataManager.h"
#include "control/ExtensionManager.h"
#include "control/PauseStatus.h"
#include "control/RuleChanger.h"
#include "model/ConfigurableType.h"
#include "model/ExtensionType.h"
#include "model/RawRepresentable.h"
#include "model/SiteRules.h"
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "platform/Stores.h"
#include "platform/Workspace.h"
#include "runtime/HistoryStore.h"
#include "runtime/URLHost.h"
#include "settings/App.h"
#include "settings/Keys.h"
#include "settings/Log.h"
#include "settings/MainApp.h"
#include "settings/User.h"
#include "ui/Theme.h"
#include "storage/PersistentStore.h"
#include "updates/UpdateManager.h"

#include <chrono>

namespace tamsel::handler {

namespace {

using platform::DispatchQueue;
using platform::SafariPage;

const platform::SystemLogger& logger() {
    static const platform::SystemLogger logger("SafariExtensionHandler");
    return logger;
}

bool sharedBool(const std::string& key) {
    auto value = platform::SharedDefaults::shared()->value(key);
    return value && value->asBool().value_or(false);
}

std::string printedValue(const platform::Value& value) {
    if (auto text = value.asString()) return "\"" + *text + "\"";
    if (auto flag = value.asBool()) return *flag ? "1" : "0";
    if (value.isDictionary()) {
        std::string printed = "{";
        bool first = true;
        const auto dictionary = value.asDictionary();
        for (const auto& [key, item] : *dictionary) {
            printed += (first ? "" : ", ") + ("\"" + key + "\": ") + printedValue(item);
            first = false;
        }
        return printed + "}";
    }
    return value.toJSON();
}

}  // namespace

std::string printedList(const std::vector<std::string>& items) {
    std::string printed = "[";
    for (std::size_t i = 0; i < items.size(); ++i) printed += (i ? ", \"" : "\"") + items[i] + "\"";
    return printed + "]";
}

std::string printedOptionalURL(const std::optional<std::string>& url) {
    return url ? "Optional(" + *url + ")" : "nil";
}

std::string printedUserInfo(const std::optional<platform::Dictionary>& userInfo) {
    if (!userInfo) return "nil";
    if (userInfo->empty()) return "Optional([:])";
    std::string printed = "Optional([";
    bool first = true;
    for (const auto& [key, value] : *userInfo) {
        printed += (first ? "\"" : ", \"") + key + "\": " + printedValue(value);
        first = false;
    }
    return printed + "])";
}

std::shared_ptr<ProcessState> ProcessState::shared() {
    static const std::shared_ptr<ProcessState> state = std::make_shared<ProcessState>();
    return state;
}

// --- Lifecycle ------------------------------------------------------------------------------

SafariExtensionHandler::SafariExtensionHandler(Collaborators collaborators) : collaborators_(collaborators) {
    auto& c = collaborators_;
    if (!c.clock) c.clock = &platform::Clock::system();
    if (!c.dataManager) c.dataManager = &control::DataManager::shared();
    if (!c.history) c.history = &runtime::HistoryStore::shared();
    if (!c.state) c.state = ProcessState::shared();
    if (!c.popover) {
        auto controller =
            collaborators.dataManager || collaborators.history
                ? ui::SafariExtensionViewController::create({c.dataManager, nullptr, nullptr, c.history, nullptr,
                                                             nullptr, c.clock, c.calendar, std::nullopt, std::nullopt})
                : ui::SafariExtensionViewController::shared();
        c.popover = std::make_shared<ViewControllerPopover>(
            std::move(controller), std::make_shared<control::RuleChanger>(*c.dataManager));
    }
    if (!c.reloadAllWithoutSaving)
        c.reloadAllWithoutSaving = [](storage::ReloadingCompletion completion) {
            control::ExtensionManager::shared()->reloadAllWithoutSaving(std::move(completion));
        };
    if (!c.checkForRuleUpdates)
        c.checkForRuleUpdates = [](std::function<void(updates::UpdateResult)> completion) {
            updates::UpdateManager::shared()->checkForUpdates(true, {}, std::move(completion));
        };
    if (!c.isHostApplicationRunning) c.isHostApplicationRunning = [] { return settings::MainApp::isRunning(); };
    if (!c.watchHostApplicationTermination)
        c.watchHostApplicationTermination = []() -> std::shared_ptr<void> {
            // The lock file's release stands in for the workspace's termination notice.
            return std::make_shared<settings::MainApp::TerminationWatcher>(
                [] { platform::Workspace::postDidTerminateApplication(settings::MainApp::mainAppBundleID()); });
        };
    if (!c.readConfigurablePackages) c.readConfigurablePackages = storage::PersistentStore::readConfigurablePackages;
    if (!c.readCustomPackages) c.readCustomPackages = storage::PersistentStore::readCustomPackages;
    state_ = c.state;
    popover_ = c.popover;
}

std::shared_ptr<SafariExtensionHandler> SafariExtensionHandler::make(Collaborators collaborators) {
    std::shared_ptr<SafariExtensionHandler> handler(new SafariExtensionHandler(std::move(collaborators)));
    handler->start();
    return handler;
}

void SafariExtensionHandler::start() {
    settings::App::setIsMacButtonExtension(true);
    ui::Themes::installDefault();
    // The popover asks for a new badge when the badge preference changes.
    if (auto* popover = dynamic_cast<ViewControllerPopover*>(popover_.get())) {
        std::weak_ptr<SafariExtensionHandler> weak = weak_from_this();
        badgeObservation_ = popover->controller()->observe([weak](const ui::PopoverChange& change) {
            if (change != ui::PopoverChange::badge) return;
            if (auto self = weak.lock()) self->refreshToolbarItem();
        });
    }
    observeReloadTab();
    platform::SharedDefaults::shared()->set(platform::Value(false), settings::Keys::reloadTab);
    syncUserRules();
    checkForRuleUpdatesIfDue();
}

SafariExtensionHandler::~SafariExtensionHandler() {
    reloadTabObservation_.reset();
    platform::ObserverToken observer;
    std::shared_ptr<void> watcher;
    {
        std::lock_guard lock(tokensMutex_);
        observer = std::move(terminationObserver_);
        watcher = std::move(terminationWatcher_);
    }
    observer.remove();
    watcher.reset();
}

void SafariExtensionHandler::observeReloadTab() {
    std::weak_ptr<SafariExtensionHandler> weak = weak_from_this();
    reloadTabObservation_ = platform::SharedDefaults::shared()->observe(
        settings::Keys::reloadTab, [weak](const std::optional<platform::Value>&) {
            auto self = weak.lock();
            if (!self) return;
            logger().info("Got message: %s", settings::Keys::reloadTab);
            auto page = self->currentPage();
            if (!page) return;
            DispatchQueue::main().asyncAfter(std::chrono::seconds(1), [weak, page] {
                page->dispatchMessageToScriptWithName("reloadIfNeeded", std::nullopt);
                if (auto self = weak.lock()) self->popover_->closeWindow();
            });
        });
}

// --- Process-wide values --------------------------------------------------------------------

std::shared_ptr<SafariPage> SafariExtensionHandler::currentPage() const {
    std::lock_guard lock(state_->mutex);
    return state_->currentPage;
}

std::optional<std::string> SafariExtensionHandler::currentPageURL() const {
    std::lock_guard lock(state_->mutex);
    return state_->currentPageURL;
}

bool SafariExtensionHandler::isPopoverVisible() const {
    std::lock_guard lock(state_->mutex);
    return state_->popoverVisible;
}

bool SafariExtensionHandler::didSync() const {
    std::lock_guard lock(state_->mutex);
    return state_->didSync;
}

std::optional<platform::Date> SafariExtensionHandler::lastUpdateCheck() const {
    std::lock_guard lock(state_->mutex);
    return state_->lastUpdateCheck;
}

bool SafariExtensionHandler::isCurrentPage(const std::shared_ptr<SafariPage>& page) const {
    std::lock_guard lock(state_->mutex);
    return page && state_->currentPage == page;
}

// --- Toolbar and popover --------------------------------------------------------------------

void SafariExtensionHandler::toolbarItemClickedInWindow(const std::shared_ptr<platform::SafariWindow>&) {
    platform::consolePrint("toolbarItemClicked");
    auto self = shared_from_this();
    DispatchQueue::main().async([self] { self->refreshPopover(); });
}

void SafariExtensionHandler::validateToolbarItemInWindow(const std::shared_ptr<platform::SafariWindow>& window,
                                                         ValidationHandler validationHandler) {
    auto self = shared_from_this();
    // Validation always answers, even when Safari has no tab or page to tell of.
    auto finish = [self, validationHandler](std::shared_ptr<SafariPage> page,
                                            std::optional<platform::SafariPageProperties> properties) {
        {
            std::lock_guard lock(self->state_->mutex);
            self->state_->currentPage = std::move(page);
            self->state_->currentPageURL = properties ? properties->url : std::nullopt;
        }
        DispatchQueue::main().async([self, validationHandler] {
            self->refreshPopover();
            const auto url = self->currentPageURL();
            std::optional<std::string> badge = url ? self->badgeText() : std::nullopt;
            if (validationHandler) validationHandler(url.has_value(), badge.value_or(""));
        });
    };
    if (!window) {
        finish(nullptr, std::nullopt);
        return;
    }
    window->getActiveTabWithCompletionHandler([finish](std::shared_ptr<platform::SafariTab> tab) {
        if (!tab) {
            finish(nullptr, std::nullopt);
            return;
        }
        tab->getActivePageWithCompletionHandler([finish](std::shared_ptr<SafariPage> page) {
            if (!page) {
                finish(nullptr, std::nullopt);
                return;
            }
            page->getPropertiesWithCompletionHandler(
                [finish, page](std::optional<platform::SafariPageProperties> properties) {
                    finish(page, std::move(properties));
                });
        });
    });
}

void SafariExtensionHandler::popoverWillShowInWindow(const std::shared_ptr<platform::SafariWindow>&) {
    platform::consolePrint("popoverWillShow");
    {
        std::lock_guard lock(state_->mutex);
        state_->popoverVisible = true;
    }
    auto self = shared_from_this();
    DispatchQueue::main().async([self] { self->refreshPopover(); });
}

void SafariExtensionHandler::popoverDidCloseInWindow(const std::shared_ptr<platform::SafariWindow>&) {
    platform::consolePrint("popoverDidClose");
    {
        std::lock_guard lock(state_->mutex);
        state_->popoverVisible = false;
    }
    auto self = shared_from_this();
    DispatchQueue::main().async([self] {
        if (self->popover_->needsPageReload()) {
            self->popover_->setNeedsPageReload(false);
            if (auto page = self->currentPage()) page->reload();
        }
        self->popover_->dismissAllChildViews();
        self->popover_->scrollToTop();
    });
}

std::shared_ptr<Popover> SafariExtensionHandler::popoverViewController() {
    auto self = shared_from_this();
    DispatchQueue::main().async([self] { self->refreshPopover(); });
    return popover_;
}

void SafariExtensionHandler::refreshPopover() {
    popover_->refreshForCurrentPage(weak_from_this());
    refreshToolbarItem();
    // A pause whose hour is over ends here: at a click, a validation or a popover show.
    auto reload = collaborators_.reloadAllWithoutSaving;
    control::PauseStatus::endPauseIfExpired([reload] { reload({}); }, *collaborators_.clock);
}

void SafariExtensionHandler::refreshToolbarItem() {
    auto application = collaborators_.application;
    if (!application) return;
    auto self = shared_from_this();
    application->getActiveWindowWithCompletionHandler([self](std::shared_ptr<platform::SafariWindow> window) {
        if (!window) return;
        window->getToolbarItemWithCompletionHandler([self](std::shared_ptr<platform::SafariToolbarItem> item) {
            if (!item) return;
            DispatchQueue::main().async([self, item] {
                const bool hasURL = self->currentPageURL().has_value();
                item->setEnabled(hasURL);
                item->setBadgeText(hasURL ? self->badgeText() : std::nullopt);
            });
        });
    });
}

std::optional<std::string> SafariExtensionHandler::badgeText() {
    std::optional<std::string> fallback;
    auto shared = platform::SharedDefaults::shared();
    if (sharedBool("paused")) {
        shared->set(platform::Value(false), "paused");
        fallback = "OFF";
    }
    if (control::PauseStatus::isPaused() && control::PauseStatus::minutesLeft(*collaborators_.clock) >= 1)
        return settings::User::prefersPauseButtonHidden() ? fallback : std::string(pauseGlyph);
    if (popover_->isCurrentDomainWhitelisted())
        return settings::User::prefersHeartButtonHidden() ? fallback : std::string(heartGlyph);
    if (!sharedBool(std::string(runtime::HistoryStore::userPrefersBadgeToolbarIconKey))) return fallback;
    const auto count = collaborators_.history->perPageCount(currentPage());
    if (count && *count != 0) return std::to_string(*count);
    return std::nullopt;
}

// --- Pages ------------------------------------------------------------------------------------

void SafariExtensionHandler::contextMenuItemSelectedWithCommand(const std::string& command,
                                                                const std::shared_ptr<SafariPage>& page,
                                                                const std::optional<platform::Dictionary>&) {
    if (command == "invokeSelectorMode" && page) page->dispatchMessageToScriptWithName("showSelector", std::nullopt);
}

void SafariExtensionHandler::messageReceivedWithName(const std::string& name, const std::shared_ptr<SafariPage>& page,
                                                     const std::optional<platform::Dictionary>& userInfo) {
    logger().info("Recieved %s message with %s params", name.c_str(), printedUserInfo(userInfo).c_str());
    if (!page) return;
    auto self = shared_from_this();
    page->getPropertiesWithCompletionHandler(
        [self, name, userInfo](std::optional<platform::SafariPageProperties> properties) {
            self->hideElement(name, userInfo, properties);
        });
}

void SafariExtensionHandler::hideElement(const std::string& name, const std::optional<platform::Dictionary>& userInfo,
                                         const std::optional<platform::SafariPageProperties>& properties) {
    if (!properties || !properties->url) return;
    auto host = runtime::urlHost(*properties->url);
    if (!host) return;
    if (!userInfo) return;
    auto sel = userInfo->find("sel");
    if (sel == userInfo->end() || !sel->second.asString()) return;
    const std::string selector = *sel->second.asString();
    if (name != "hideSelector") return;

    if (host->starts_with("www.")) {
        std::string stripped;
        for (std::size_t at = 0; at < host->size();) {
            if (host->compare(at, 4, "www.") == 0) {
                at += 4;
            } else {
                stripped += (*host)[at++];
            }
        }
        *host = stripped;
    }
    const std::vector<std::string> domains{"*" + *host};
    auto rule = model::makeHideElementRule(selector, model::DomainFilterType::ifDomain, domains);
    if (!rule) {
        logger().error("Tamsel Error: Incorrect selector %s or domain filter %s", selector.c_str(),
                       printedList(domains).c_str());
        return;
    }
    addHideElementRule(*rule);
}

void SafariExtensionHandler::addHideElementRule(const model::Rule& rule) {
    auto self = shared_from_this();
    collaborators_.readConfigurablePackages([self, rule](std::vector<model::Package> packages) {
        auto& manager = *self->collaborators_.dataManager;
        manager.setConfigurablePackages(packages);
        const std::string hideElements(model::rawValue(model::ConfigurableType::hideElements));
        for (const auto& package : packages) {
            if (package.id != hideElements) continue;
            auto editing = manager.beginEditing();
            manager.saveRule(rule, package);
            return;
        }
    });
}

void SafariExtensionHandler::pageWillNavigateToURL(const std::shared_ptr<SafariPage>& page,
                                                   const std::optional<std::string>& url) {
    platform::consolePrint("*** " + std::string(isCurrentPage(page) ? "current" : "other") +
                           " page willNavigateTo: " + printedOptionalURL(url));
    if (page) collaborators_.history->forgetPage(page);
}

void SafariExtensionHandler::contentBlockerWithIdentifier(const std::string& identifier,
                                                          const std::vector<std::string>& urls,
                                                          const std::shared_ptr<SafariPage>& page) {
    const bool current = isCurrentPage(page);
    platform::consolePrint("-------------------");
    platform::consolePrint("[" + identifier + "] blocked: " + printedList(urls) +
                           ". PAGE = " + (current ? "current" : "other"));
    std::optional<model::ExtensionType> type;
    for (auto candidate : model::allCases<model::ExtensionType>()) {
        if (model::bundleIdentifier(candidate) == identifier) {
            type = candidate;
            break;
        }
    }
    if (!type) {
        platform::consolePrint("Extension with id " + identifier + " not found");
        return;
    }
    collaborators_.history->addRecords(urls, page, *type);
    if (current) {
        platform::consolePrint("+++ didChangeBlockedResourcesCount");
        auto self = shared_from_this();
        DispatchQueue::main().async([self] { self->refreshToolbarItem(); });
    }
}

// --- Rule updates and sync ----------------------------------------------------------------

bool SafariExtensionHandler::checkForRuleUpdatesIfDue() {
    const platform::Date now = collaborators_.clock->now();
    {
        std::lock_guard lock(state_->mutex);
        if (state_->lastUpdateCheck) {
            const auto calendar = collaborators_.calendar.value_or(platform::Calendar::current());
            const auto hours = calendar.hoursBetween(*state_->lastUpdateCheck, now);
            if (!hours || *hours <= 12) return false;
        }
        state_->lastUpdateCheck = now;
    }
    settings::Log::log("%s", "☁️ TamselButton is checking for Rule updates...");
    collaborators_.checkForRuleUpdates([](updates::UpdateResult result) {
        switch (result.kind) {
            case updates::UpdateResult::Kind::success:
            case updates::UpdateResult::Kind::currentlyUpdating:
                settings::Log::log("%s", "☁️ TamselButton updated rules from Amazon S3");
                break;
            case updates::UpdateResult::Kind::noNewUpdates:
                settings::Log::log("%s", "☁️ TamselButton Rule update: no new Rule updates");
                break;
            case updates::UpdateResult::Kind::error:
                settings::Log::log("%s", "☁️ TamselButton Rule update: failed with an error");
                break;
        }
    });
    return true;
}

void SafariExtensionHandler::syncUserRules() {
    if (didSync()) return;
    if (collaborators_.isHostApplicationRunning()) {
        settings::Log::log("%s", "🕵🏻♂️ TamselButton won't sync user rules with CloudKit, because Main app is running.");
        std::weak_ptr<SafariExtensionHandler> weak = weak_from_this();
        std::lock_guard lock(tokensMutex_);
        terminationObserver_ = platform::NotificationCenter::defaultCenter().addObserver(
            platform::Workspace::didTerminateApplicationNotification, &DispatchQueue::main(),
            [weak](const platform::Notification& notification) {
                const auto* bundle =
                    notification.userInfoValue<std::string>(platform::Workspace::applicationBundleIdentifierKey);
                if (!bundle || *bundle != settings::MainApp::mainAppBundleID()) return;
                auto self = weak.lock();
                if (!self) return;
                settings::Log::log("%s", "🕵🏻♂️ TamselButton detected that user just stopped the Main Tamsel app");
                self->syncUserRules();
            });
        if (!terminationWatcher_) terminationWatcher_ = collaborators_.watchHostApplicationTermination();
        return;
    }
    {
        platform::ObserverToken observer;
        {
            std::lock_guard lock(tokensMutex_);
            observer = std::move(terminationObserver_);
        }
        observer.remove();
    }
    settings::Log::log("%s", "🕵🏻♂️ TamselButton syncing user rules with CloudKit");
    {
        std::lock_guard lock(state_->mutex);
        if (state_->didSync) return;
        state_->didSync = true;
    }
    auto self = shared_from_this();
    collaborators_.readConfigurablePackages([self](std::vector<model::Package> configurable) {
        self->collaborators_.dataManager->setConfigurablePackages(configurable);
        self->collaborators_.readCustomPackages([self, configurable](std::vector<model::Package> custom) {
            self->collaborators_.dataManager->setCustomPackages(custom);
            auto sync = self->collaborators_.sync ? self->collaborators_.sync : UserRulesSync::shared();
            sync->syncUserRules(configurable, custom);
        });
    });
}

// --- The sync seam and the site-state popover -------------------------------------------

namespace {

class NoUserRulesSync final : public UserRulesSync {
public:
    void syncUserRules(const std::vector<model::Package>&, const std::vector<model::Package>&) override {
        platform::consolePrint("♻️ iCloud Sync: no sync engine in this build; user rules stay local");
    }
};

std::mutex& syncMutex() {
    static std::mutex mutex;
    return mutex;
}

std::shared_ptr<UserRulesSync>& installedSync() {
    static std::shared_ptr<UserRulesSync> sync = std::make_shared<NoUserRulesSync>();
    return sync;
}

}  // namespace

std::shared_ptr<UserRulesSync> UserRulesSync::shared() {
    std::lock_guard lock(syncMutex());
    return installedSync();
}

void UserRulesSync::setShared(std::shared_ptr<UserRulesSync> sync) {
    std::lock_guard lock(syncMutex());
    installedSync() = sync ? std::move(sync) : std::make_shared<NoUserRulesSync>();
}

}  // namespace tamsel::handler
