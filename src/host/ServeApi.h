#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <string>
#include <thread>

#include "host/EventHub.h"
#include "platform/Safari.h"
#include "ui/SafariExtensionViewController.h"

namespace httplib {
class Server;
}

// The JSON HTTP API of `tamsel serve`, on 127.0.0.1 only. It drives the
// substitute Safari (windows, tabs, pages, the toolbar item, the popover,
// page messages, content-blocker reports and page loads) and the popover's
// models, and streams changes as server-sent events. Requests whose Host or
// Origin is not this server's own are refused; every 4xx answer is
// {"error": "one sentence"}.
namespace tamsel::host {

class ServeApi {
public:
    struct Parts {
        std::shared_ptr<platform::LocalSafariApplication> safari;
        std::shared_ptr<ui::SafariExtensionViewController> popover;
        std::shared_ptr<EventHub> events;
        // The page area's server (ContentSite); 0 for none.
        std::uint16_t contentPort = 0;
    };

    // Threads that answer requests; each open event stream holds one.
    static constexpr int threadCount = 24;
    static constexpr std::size_t maximumEventStreams = 12;

    explicit ServeApi(Parts parts);
    ~ServeApi();
    ServeApi(const ServeApi&) = delete;
    ServeApi& operator=(const ServeApi&) = delete;

    // Binds 127.0.0.1:`port` (a free port for 0); the reason when it cannot.
    std::expected<std::uint16_t, std::string> bind(std::uint16_t port);
    // Answers requests on a thread of its own until stop().
    void start();
    // Ends the event streams, stops accepting and waits for the listening thread.
    void stop();

private:
    void addRoutes();
    struct Routes;

    Parts parts_;
    std::unique_ptr<httplib::Server> server_;
    std::uint16_t port_ = 0;
    std::thread thread_;
};

}  // namespace tamsel::host
