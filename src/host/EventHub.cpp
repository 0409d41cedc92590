#include "host/EventHub.h"

#include <algorithm>

namespace tamsel::host {

std::shared_ptr<EventHub::Subscription> EventHub::subscribe() {
    std::lock_guard lock(mutex_);
    if (closed_ || subscriptions_.size() >= maximumStreams_) return nullptr;
    std::shared_ptr<Subscription> subscription(new Subscription(*this));
    subscriptions_.push_back(subscription.get());
    return subscription;
}

EventHub::Subscription::~Subscription() {
    std::lock_guard lock(hub_.mutex_);
    std::erase(hub_.subscriptions_, this);
}

void EventHub::publish(ServerEvent event) {
    {
        std::lock_guard lock(mutex_);
        for (Subscription* subscription : subscriptions_) {
            if (subscription->queue_.size() >= queueLimit) subscription->queue_.pop_front();
            subscription->queue_.push_back(event);
        }
    }
    changed_.notify_all();
}

void EventHub::close() {
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
    }
    changed_.notify_all();
}

std::size_t EventHub::openStreams() const {
    std::lock_guard lock(mutex_);
    return subscriptions_.size();
}

std::optional<std::vector<ServerEvent>> EventHub::Subscription::next(std::chrono::milliseconds timeout) {
    std::unique_lock lock(hub_.mutex_);
    hub_.changed_.wait_for(lock, timeout, [this] { return hub_.closed_ || !queue_.empty(); });
    if (hub_.closed_) return std::nullopt;
    std::vector<ServerEvent> events(std::make_move_iterator(queue_.begin()), std::make_move_iterator(queue_.end()));
    queue_.clear();
    return events;
}

std::string formatServerEvent(const ServerEvent& event) {
    return "event: " + event.type + "\ndata: " + event.data + "\n\n";
}

}  // namespace tamsel::host
