#include "platform/Safari.h"

#include "platform/MainRunLoop.h"
#include "platform/NotificationCenter.h"
#include "platform/Workspace.h"
#include "support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <future>
#include <thread>

namespace tamsel::platform {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

// Records Safari's calls in order, and answers validation with the page's URL.
class RecordingExtension final : public SafariExtensionHandling {
public:
    void toolbarItemClickedInWindow(const std::shared_ptr<SafariWindow>&) override { add("click"); }
    void validateToolbarItemInWindow(const std::shared_ptr<SafariWindow>& window,
                                     ValidationHandler validationHandler) override {
        add("validate");
        window->getActiveTabWithCompletionHandler([validationHandler](std::shared_ptr<SafariTab> tab) {
            if (!tab) return validationHandler(false, "");
            tab->getActivePageWithCompletionHandler([validationHandler](std::shared_ptr<SafariPage> page) {
                page->getPropertiesWithCompletionHandler(
                    [validationHandler](std::optional<SafariPageProperties> properties) {
                        const bool hasURL = properties && properties->url;
                        validationHandler(hasURL, hasURL ? "7" : "");
                    });
            });
        });
    }
    void popoverWillShowInWindow(const std::shared_ptr<SafariWindow>&) override { add("willShow"); }
    void popoverDidCloseInWindow(const std::shared_ptr<SafariWindow>&) override { add("didClose"); }
    void contextMenuItemSelectedWithCommand(const std::string& command, const std::shared_ptr<SafariPage>&,
                                            const std::optional<Dictionary>&) override {
        add("menu " + command);
    }
    void messageReceivedWithName(const std::string& name, const std::shared_ptr<SafariPage>&,
                                 const std::optional<Dictionary>&) override {
        add("message " + name);
    }
    void pageWillNavigateToURL(const std::shared_ptr<SafariPage>& page,
                               const std::optional<std::string>& url) override {
        // The page still shows its old address when Safari tells of the navigation.
        auto local = std::dynamic_pointer_cast<LocalSafariPage>(page);
        add("navigate " + url.value_or("") + " from " + local->url().value_or(""));
    }
    void contentBlockerWithIdentifier(const std::string& identifier, const std::vector<std::string>& urls,
                                      const std::shared_ptr<SafariPage>&) override {
        add("blocked " + identifier + " " + std::to_string(urls.size()));
    }

    std::vector<std::string> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    void add(std::string call) {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }
    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
};

class LocalSafariTest : public ::testing::Test {
protected:
    LocalSafariTest() {
        safari->setExtension(extension);
        safari->setObserver([this](const LocalSafariEvent& event) {
            std::lock_guard lock(mutex);
            events.push_back(event);
        });
    }
    ~LocalSafariTest() override { safari->setExtension(nullptr); }

    void settle() { ASSERT_TRUE(safari->waitForExtension(5s)); }

    std::shared_ptr<LocalSafariApplication> safari = LocalSafariApplication::make();
    std::shared_ptr<RecordingExtension> extension = std::make_shared<RecordingExtension>();
    std::mutex mutex;
    std::vector<LocalSafariEvent> events;
};

TEST_F(LocalSafariTest, TabsOpenInTheFrontWindowAndTheToolbarItemShowsTheValidation) {
    auto first = safari->openTab("https://a.example/");
    auto second = safari->openTab("https://b.example/");
    settle();
    ASSERT_EQ(safari->windows().size(), 1U);
    EXPECT_EQ(safari->activeTab(), second);
    EXPECT_TRUE(safari->frontWindow()->toolbarItem()->isEnabled());
    EXPECT_EQ(safari->frontWindow()->toolbarItem()->badgeText(), "7");

    auto empty = safari->openTab(std::nullopt);
    settle();
    EXPECT_FALSE(safari->frontWindow()->toolbarItem()->isEnabled());
    EXPECT_EQ(safari->frontWindow()->toolbarItem()->badgeText(), "");

    ASSERT_TRUE(safari->activateTab(first->identifier()));
    settle();
    EXPECT_EQ(safari->activeTab(), first);
    EXPECT_TRUE(safari->frontWindow()->toolbarItem()->isEnabled());
}

TEST_F(LocalSafariTest, WindowsComeToTheFrontAndClosingTheirLastTabClosesThem) {
    auto tab = safari->openTab("https://a.example/");
    auto second = safari->openWindow();
    EXPECT_EQ(safari->frontWindow(), second);
    auto inSecond = safari->openTab("https://b.example/");
    ASSERT_TRUE(safari->activateWindow(safari->windowOfTab(tab->identifier())->identifier()));
    EXPECT_EQ(safari->activeTab(), tab);

    ASSERT_TRUE(safari->closeTab(tab->identifier()));
    EXPECT_EQ(safari->windows().size(), 1U);
    EXPECT_EQ(safari->activeTab(), inSecond);
    EXPECT_FALSE(safari->closeTab(tab->identifier()));
    EXPECT_FALSE(safari->closeWindow("w99"));
    EXPECT_FALSE(safari->navigateTab("t99", "https://x.example/"));
    EXPECT_EQ(safari->openTab("https://x.example/", std::string("w99")), nullptr);
    settle();
}

TEST_F(LocalSafariTest, TheExtensionHearsOfANavigationBeforeThePageShowsTheNewAddress) {
    auto tab = safari->openTab("https://a.example/");
    ASSERT_TRUE(safari->navigateTab(tab->identifier(), "https://a.example/next"));
    settle();
    EXPECT_EQ(tab->page()->url(), "https://a.example/next");
    EXPECT_THAT(extension->calls(), ::testing::Contains("navigate https://a.example/next from https://a.example/"));
}

TEST_F(LocalSafariTest, BackReturnsThroughTheTabsOwnHistory) {
    using Navigation = LocalSafariApplication::Navigation;
    auto tab = safari->openTab("https://a.example/");
    auto other = safari->openTab("https://z.example/");
    EXPECT_FALSE(tab->canGoBack());
    EXPECT_FALSE(safari->goBack(tab->identifier()));

    safari->navigateTab(tab->identifier(), "http://b.example/");
    // The forced-HTTPS redirect takes the place of the address it leaves.
    safari->navigateTab(tab->identifier(), "https://b.example/", Navigation::redirect);
    safari->navigateTab(tab->identifier(), "https://b.example/");  // the same address again: no entry
    safari->navigateTab(tab->identifier(), "https://c.example/");
    EXPECT_EQ(tab->backList(), (std::vector<std::string>{"https://a.example/", "https://b.example/"}));
    EXPECT_FALSE(other->canGoBack());

    ASSERT_TRUE(safari->goBack(tab->identifier()));
    settle();
    EXPECT_EQ(tab->page()->url(), "https://b.example/");
    // The extension hears of a way back as of any navigation.
    EXPECT_THAT(extension->calls(), ::testing::Contains("navigate https://b.example/ from https://c.example/"));
    // Loading the http address again and being redirected lands on the same
    // page as the entry before: one entry, not two.
    safari->navigateTab(tab->identifier(), "http://b.example/");
    safari->navigateTab(tab->identifier(), "https://b.example/", Navigation::redirect);
    EXPECT_EQ(tab->backList(), (std::vector<std::string>{"https://a.example/"}));

    ASSERT_TRUE(safari->goBack(tab->identifier()));
    EXPECT_FALSE(safari->goBack(tab->identifier()));
    settle();
    EXPECT_EQ(tab->page()->url(), "https://a.example/");
    const auto windows = safari->windows();
    for (const auto& state : windows.front().tabs) EXPECT_FALSE(state.canGoBack) << state.identifier;
    EXPECT_FALSE(safari->goBack("t99"));
}

TEST_F(LocalSafariTest, CallsReachTheExtensionInTheOrderOfTheEvents) {
    auto tab = safari->openTab("https://a.example/");
    safari->showPopover(safari->frontWindow());
    safari->sendMessageFromPage(tab->page(), "hideSelector", Dictionary{{"sel", Value(".x")}});
    safari->selectContextMenuCommand("invokeSelectorMode", tab->page());
    safari->reportBlockedResources("id.blocker", {"https://t.example/1", "https://t.example/2"}, tab->page());
    safari->closePopover(safari->frontWindow());
    safari->closePopover(safari->frontWindow());  // already closed: nothing
    settle();
    EXPECT_THAT(extension->calls(), ElementsAre("validate", "willShow", "message hideSelector",
                                                "menu invokeSelectorMode", "blocked id.blocker 2", "didClose"));
}

TEST_F(LocalSafariTest, PagesRecordMessagesAndReloadsAndTellTheObserver) {
    auto tab = safari->openTab("https://a.example/");
    settle();
    tab->page()->dispatchMessageToScriptWithName("showSelector", std::nullopt);
    tab->page()->reload();
    EXPECT_EQ(tab->page()->messagesReceived(),
              (std::vector<LocalSafariPage::Message>{{"showSelector", std::nullopt}}));
    EXPECT_EQ(tab->page()->reloadCount(), 1);
    std::lock_guard lock(mutex);
    bool message = false, reload = false, toolbar = false;
    for (const auto& event : events) {
        message |= event.kind == LocalSafariEvent::Kind::message && event.tab == tab->identifier() &&
                   event.name == "showSelector";
        reload |= event.kind == LocalSafariEvent::Kind::reload && event.tab == tab->identifier();
        toolbar |= event.kind == LocalSafariEvent::Kind::toolbar;
    }
    EXPECT_TRUE(message);
    EXPECT_TRUE(reload);
    EXPECT_TRUE(toolbar);
}

TEST_F(LocalSafariTest, WaitingForQuietCoversWorkTheMainQueueStillHasToDo) {
    // A main-queue block that asks Safari again keeps Safari busy after the
    // event itself is over.
    std::atomic<bool> answered{false};
    auto tab = safari->openTab("https://a.example/");
    DispatchQueue::main().async([&] {
        tab->page()->getPropertiesWithCompletionHandler([&](auto) {
            std::this_thread::sleep_for(50ms);
            answered = true;
        });
    });
    auto quiet = std::async(std::launch::async, [&] { return safari->waitUntilQuiet(5s); });
    ASSERT_TRUE(MainRunLoop::runUntil([&] { return quiet.wait_for(0s) == std::future_status::ready; }, 10s));
    EXPECT_TRUE(quiet.get());
    EXPECT_TRUE(answered);
}

TEST_F(LocalSafariTest, ManyThreadsDrivingSafariAtOnce) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([this, t] {
            for (int i = 0; i < 20; ++i) {
                auto tab = safari->openTab("https://" + std::to_string(t) + ".example/" + std::to_string(i));
                safari->navigateTab(tab->identifier(), "https://other.example/");
                if (i % 2) safari->closeTab(tab->identifier());
            }
        });
    for (auto& thread : threads) thread.join();
    settle();
    std::size_t tabs = 0;
    for (const auto& window : safari->windows()) tabs += window.tabs.size();
    EXPECT_EQ(tabs, 40U);
}

// --- The workspace ------------------------------------------------------------------------------

TEST(Workspace, RunningApplicationsAreAskedAfresh) {
    Workspace workspace;
    std::atomic<bool> running{true};
    workspace.registerApplication("org.example.host", [&] { return running.load(); });
    EXPECT_THAT(workspace.runningApplications(), ElementsAre("org.example.host"));
    running = false;
    EXPECT_TRUE(workspace.runningApplications().empty());
    EXPECT_FALSE(workspace.isRunning("org.example.unknown"));
}

TEST(Workspace, LaunchingUsesTheLauncherThenTheCommandElseWritesALine) {
    tamsel::testing::TemporaryDirectory folder;
    Workspace workspace;
    workspace.setLaunchCommand(std::nullopt);
    {
        tamsel::testing::LogCapture log;
        EXPECT_FALSE(workspace.launchApplication("org.example.host"));
        EXPECT_TRUE(log.contains("Launching org.example.host: no launch command configured"));
    }
    const auto marker = folder / "launched";
    workspace.setLaunchCommand("echo >\"" + marker.string() + "\"");
    EXPECT_TRUE(workspace.launchApplication("org.example.host"));
    ASSERT_TRUE(tamsel::testing::waitUntil(
        [&] { return std::filesystem::exists(marker) && std::filesystem::file_size(marker) > 0; }));
    std::ifstream in(marker);
    std::string line;
    std::getline(in, line);
    EXPECT_EQ(line, "org.example.host");

    std::vector<std::string> launched;
    workspace.setLauncher("org.example.host", [&](const std::string& id) {
        launched.push_back(id);
        return true;
    });
    EXPECT_TRUE(workspace.launchApplication("org.example.host"));
    EXPECT_THAT(launched, ElementsAre("org.example.host"));
}

TEST(Workspace, TerminationIsPostedWithTheBundleIdentifier) {
    std::optional<std::string> terminated;
    auto token = NotificationCenter::defaultCenter().addObserver(
        Workspace::didTerminateApplicationNotification, nullptr, [&](const Notification& notification) {
            if (auto* id = notification.userInfoValue<std::string>(Workspace::applicationBundleIdentifierKey))
                terminated = *id;
        });
    Workspace::postDidTerminateApplication("org.example.host");
    EXPECT_EQ(terminated, "org.example.host");
}

TEST(URLOpener, PrintsTheLinkWithoutACommand) {
    URLOpener::setCommand(URLOpener::Application::browser, std::nullopt);
    URLOpener::setCommand(URLOpener::Application::mail, std::nullopt);
    tamsel::testing::LogCapture log;
    EXPECT_TRUE(URLOpener::open(URLOpener::Application::browser, "https://support.example/"));
    EXPECT_TRUE(URLOpener::open(URLOpener::Application::mail, "mailto:a@b.example"));
    EXPECT_THAT(log.lines(), ElementsAre("Open in the default browser: https://support.example/",
                                         "Open in the default mail application: mailto:a@b.example"));
}

}  // namespace
}  // namespace tamsel::platform
