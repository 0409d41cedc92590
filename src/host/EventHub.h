#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// The server-sent-events side of `tamsel serve`: every change the page should
// hear of is published once and handed to each open stream.
namespace tamsel::host {

struct ServerEvent {
    std::string type;  // the SSE "event:" field
    std::string data;  // one line of JSON
};

class EventHub {
public:
    // A stream keeps at most this many undelivered events; older ones are
    // dropped (the page re-reads the state on any event).
    static constexpr std::size_t queueLimit = 256;

    explicit EventHub(std::size_t maximumStreams) : maximumStreams_(maximumStreams) {}

    class Subscription;
    // Null when `maximumStreams` streams are open already, or the hub is closed.
    std::shared_ptr<Subscription> subscribe();

    void publish(ServerEvent event);
    // Wakes every stream and refuses new ones; streams then end.
    void close();
    std::size_t openStreams() const;

    class Subscription {
    public:
        // The events published since the last call; waits up to `timeout` for
        // one. Nothing when the hub closed.
        std::optional<std::vector<ServerEvent>> next(std::chrono::milliseconds timeout);
        ~Subscription();

    private:
        friend class EventHub;
        explicit Subscription(EventHub& hub) : hub_(hub) {}
        EventHub& hub_;
        std::deque<ServerEvent> queue_;
    };

private:
    friend class Subscription;
    const std::size_t maximumStreams_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Subscription*> subscriptions_;
    bool closed_ = false;
};

// "event: TYPE\ndata: DATA\n\n".
std::string formatServerEvent(const ServerEvent& event);

}  // namespace tamsel::host
