// tamsel serve [--listen 127.0.0.1:PORT]
//     the toolbar extension as Safari runs it: one long-lived process with the
//     substitute Safari around it, driven through a JSON HTTP API on loopback
//     (host/ServeApi.h). Runs until SIGINT or SIGTERM, then lets queued saves
//     and reloads finish before it exits.

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "control/DataManager.h"
#include "control/RuleChanger.h"
#include "handler/Popover.h"
#include "handler/SafariExtensionHandler.h"
#include "host/CloudSync.h"
#include "host/Command.h"
#include "host/EventHub.h"
#include "host/ContentSite.h"
#include "platform/Resources.h"
#include "host/ServeApi.h"
#include "host/SubstituteHost.h"
#include "model/RawRepresentable.h"
#include "platform/DataRoot.h"
#include "platform/DispatchQueue.h"
#include "platform/MainRunLoop.h"
#include "platform/Safari.h"
#include "platform/Workspace.h"
#include "settings/App.h"
#include "settings/MainApp.h"
#include "ui/CloudReporter.h"
#include "ui/SafariExtensionViewController.h"
#include "ui/WhitelistViewController.h"

namespace tamsel::host {
namespace {

using namespace std::chrono_literals;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

constexpr std::uint16_t defaultPort = 8780;
// How often the process asks whether the rule-update check is due again.
constexpr auto updateCheckInterval = 1h;

// "127.0.0.1:PORT" (or a bare port) to the port; nothing for anything else.
std::optional<std::uint16_t> parseListen(const std::string& text) {
    std::string_view port = text;
    if (const auto colon = port.rfind(':'); colon != std::string_view::npos) {
        if (port.substr(0, colon) != "127.0.0.1") return std::nullopt;
        port = port.substr(colon + 1);
    }
    unsigned value = 0;
    auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), value);
    if (error != std::errc() || end != port.data() + port.size() || port.empty() || value > 65535)
        return std::nullopt;
    return static_cast<std::uint16_t>(value);
}

// One server per data root: an exclusive lock held for the process's life.
class ServeLock {
public:
    static std::optional<ServeLock> acquire(const std::filesystem::path& path, std::string& reason) {
        std::error_code ignored;
        std::filesystem::create_directories(path.parent_path(), ignored);
        const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) {
            reason = "cannot open " + path.string();
            return std::nullopt;
        }
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            ::close(fd);
            reason = "another tamsel serve is already running on the data root " + path.parent_path().string();
            return std::nullopt;
        }
        return ServeLock(fd);
    }
    ServeLock(ServeLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    ServeLock(const ServeLock&) = delete;
    ~ServeLock() {
        if (fd_ >= 0) ::close(fd_);
    }

private:
    explicit ServeLock(int fd) : fd_(fd) {}
    int fd_ = -1;
};

// SIGINT and SIGTERM stop the main run loop. The handler only writes to a
// pipe; a thread of ours reads it and stops the loop.
int signalPipe[2] = {-1, -1};

extern "C" void onStopSignal(int) {
    const char byte = 1;
    [[maybe_unused]] auto written = ::write(signalPipe[1], &byte, 1);
}

// `stop` runs on that thread, while the main run loop still runs.
std::thread watchStopSignals(std::function<void()> stop) {
    if (::pipe2(signalPipe, O_CLOEXEC) != 0) return {};
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    return std::thread([stop = std::move(stop)] {
        char byte = 0;
        while (::read(signalPipe[0], &byte, 1) < 0 && errno == EINTR) {
        }
        stop();
    });
}

std::string eventJSON(const std::function<void(Writer&)>& body) {
    rapidjson::StringBuffer buffer;
    Writer w(buffer);
    w.StartObject();
    body(w);
    w.EndObject();
    return buffer.GetString();
}

void publishSafariEvent(EventHub& hub, platform::LocalSafariApplication& safari,
                        const platform::LocalSafariEvent& event) {
    using Kind = platform::LocalSafariEvent::Kind;
    switch (event.kind) {
        case Kind::toolbar: {
            auto window = safari.window(event.window);
            if (!window) return;
            // Changes are told from several threads. Reading the state and
            // publishing it as one step keeps the events in the order of the
            // reads, so the last event holds the last state (not one read
            // earlier by a thread that published later).
            static std::mutex inOrder;
            std::lock_guard lock(inOrder);
            const bool enabled = window->toolbarItem()->isEnabled();
            const std::string badge = window->toolbarItem()->badgeText();
            hub.publish({"toolbar", eventJSON([&](Writer& w) {
                             w.Key("window");
                             w.String(event.window.c_str());
                             w.Key("enabled");
                             w.Bool(enabled);
                             w.Key("badge");
                             w.String(badge.c_str());
                         })});
            return;
        }
        case Kind::message:
            hub.publish({"message", eventJSON([&](Writer& w) {
                             w.Key("tab");
                             w.String(event.tab.c_str());
                             w.Key("name");
                             w.String(event.name.c_str());
                             w.Key("userInfo");
                             if (event.userInfo) {
                                 const std::string json = platform::Value(*event.userInfo).toJSON();
                                 w.RawValue(json.data(), json.size(), rapidjson::kObjectType);
                             } else {
                                 w.Null();
                             }
                         })});
            return;
        case Kind::reload:
            hub.publish({"reload", eventJSON([&](Writer& w) {
                             w.Key("tab");
                             w.String(event.tab.c_str());
                         })});
            return;
        case Kind::tabs:
            hub.publish({"tabs", "{}"});
            return;
    }
}

// Asks every hour whether the 12-hour rule-update throttle allows another check.
void scheduleUpdateChecks(platform::DispatchQueue& queue, std::weak_ptr<handler::SafariExtensionHandler> extension) {
    queue.asyncAfter(updateCheckInterval, [&queue, extension] {
        auto handler = extension.lock();
        if (!handler) return;
        handler->checkForRuleUpdatesIfDue();
        scheduleUpdateChecks(queue, extension);
    });
}

int runServe(const std::string& listen) {
    const auto port = parseListen(listen);
    if (!port)
        return reportUsageError("--listen " + listen +
                                ": expected 127.0.0.1:PORT (the server listens on loopback only)");

    std::string reason;
    auto lock = ServeLock::acquire(platform::DataRoot::home() / "serve.lock", reason);
    if (!lock) return reportFailure(reason);

    // The extension process keeps every package in memory, so that a change
    // rebuilds without reading every package file again.
    control::DataManager::shared().loadAllPackages();
    // Reports from the popover go to the report container of the cloud account.
    ui::Reporter::setShared(std::make_shared<ui::CloudReporter>());

    auto safari = platform::LocalSafariApplication::make();
    auto events = std::make_shared<EventHub>(ServeApi::maximumEventStreams);

    ui::SafariExtensionViewController::Collaborators popoverParts;
    popoverParts.systemActions = std::make_shared<handler::WorkspaceSystemActions>();
    auto controller = ui::SafariExtensionViewController::create(popoverParts);
    std::weak_ptr<platform::LocalSafariApplication> weakSafari = safari;
    auto popover = std::make_shared<handler::ViewControllerPopover>(
        controller, std::make_shared<control::RuleChanger>(control::DataManager::shared()), [weakSafari] {
            if (auto safari = weakSafari.lock()) safari->closePopover(safari->frontWindow());
        });

    // The workspace: the host application runs while it holds its lock; this
    // program stands in for it, so launching it opens the element picker on
    // the page the visual editor was asked for.
    const std::string hostBundle = settings::MainApp::mainAppBundleID();
    platform::Workspace::shared().registerApplication(hostBundle, [] { return settings::MainApp::isRunning(); });
    platform::Workspace::shared().setLauncher(hostBundle, [weakSafari](const std::string&) {
        auto safari = weakSafari.lock();
        if (!safari) return false;
        std::shared_ptr<platform::LocalSafariTab> target;
        if (const auto url = settings::App::mustShowVisualEditorURL())
            for (const auto& window : safari->windows())
                for (const auto& tab : window.tabs)
                    if (!target && tab.url == url) target = safari->tab(tab.identifier);
        if (!target) target = safari->activeTab();
        if (!target) return false;
        target->page()->dispatchMessageToScriptWithName("showSelector", std::nullopt);
        return true;
    });

    // Before the handler: its start hands the user's rules to the sync.
    const auto cloudSync = CloudSync::start();

    handler::SafariExtensionHandler::Collaborators parts;
    parts.application = safari;
    parts.popover = popover;
    auto extension = handler::SafariExtensionHandler::make(parts);
    safari->setExtension(extension);
    safari->setObserver([events, weakSafari](const platform::LocalSafariEvent& event) {
        if (auto safari = weakSafari.lock()) publishSafariEvent(*events, *safari, event);
    });
    auto popoverChanges = controller->observe([events](const ui::PopoverChange& change) {
        events->publish({change == ui::PopoverChange::children ? "child" : "popover",
                         eventJSON([&](Writer& w) {
                             w.Key("change");
                             const auto raw = model::rawValue(change);
                             w.String(raw.data(), static_cast<rapidjson::SizeType>(raw.size()));
                         })});
    });

    platform::DispatchQueue updateTimer("Rule update timer");
    scheduleUpdateChecks(updateTimer, extension);

    // The page area's origin first, so that the API can tell the page where it is.
    ContentSite content(safari, platform::resourcesDirectory() / "sites");
    const auto contentPort = content.bind();
    if (!contentPort) return reportFailure(contentPort.error());
    ServeApi api({safari, controller, events, *contentPort});
    const auto bound = api.bind(*port);
    if (!bound) return reportFailure(bound.error());
    // Requests in flight wait on the main queue, so the server stops first,
    // while the main run loop still answers them.
    std::thread signals = watchStopSignals([&api, &content] {
        api.stop();
        content.stop();
        platform::MainRunLoop::stop();
    });
    content.start();
    api.start();
    std::printf("listening on http://127.0.0.1:%u\n", static_cast<unsigned>(*bound));
    std::fflush(stdout);

    platform::MainRunLoop::run();

    // Stopping: no new requests; queued saves, reloads and history records finish.
    if (signals.joinable()) signals.join();
    ui::WhitelistViewController::waitUntilSavesFinished();
    finishPendingExtensionWork();
    platform::MainRunLoop::runUntil([] { return platform::MainRunLoop::pendingCount() == 0; }, 5s);
    safari->setExtension(nullptr);
    safari->setObserver({});
    ui::Reporter::setShared(nullptr);
    std::printf("stopped\n");
    std::fflush(stdout);
    return exitSuccess;
}

void addServeCommand(CommandLine& commandLine) {
    auto listen = std::make_shared<std::string>("127.0.0.1:" + std::to_string(defaultPort));
    CLI::App* serve = commandLine.app().add_subcommand(
        "serve", "Run the toolbar extension in the substitute Safari, driven by a JSON HTTP API on 127.0.0.1");
    serve->add_option("--listen", *listen, "Address to listen on, 127.0.0.1:PORT (port 0 picks a free one)")
        ->capture_default_str();
    commandLine.setAction(serve, [listen] { return runServe(*listen); }, Preparation::writer);
}

const CommandRegistration registration{"serve", addServeCommand};

}  // namespace
}  // namespace tamsel::host
