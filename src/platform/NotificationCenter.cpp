#include "platform/NotificationCenter.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace tamsel::platform {
namespace {

struct Observer {
    std::uint64_t id;
    std::string name;
    DispatchQueue::Handle queue;  // empty: deliver on the posting thread
    std::function<void(const Notification&)> handler;

    std::mutex mutex;
    std::condition_variable callEnded;
    bool removed = false;
    int activeCalls = 0;
};

// The observers whose handlers the current thread is inside of, so that a
// handler removing its own observer does not wait for itself.
thread_local std::vector<const Observer*> callingObservers;

void deliver(const std::shared_ptr<Observer>& observer, const Notification& notification) {
    {
        std::lock_guard lock(observer->mutex);
        if (observer->removed) return;
        ++observer->activeCalls;
    }
    callingObservers.push_back(observer.get());
    struct EndCall {
        Observer& observer;
        ~EndCall() {
            callingObservers.pop_back();
            std::lock_guard lock(observer.mutex);
            --observer.activeCalls;
            observer.callEnded.notify_all();
        }
    } endCall{*observer};
    observer->handler(notification);
}

}  // namespace

struct NotificationCenter::State {
    std::mutex mutex;
    std::vector<std::shared_ptr<Observer>> observers;  // in the order added
    std::uint64_t nextId = 1;

    void remove(std::uint64_t id) {
        std::shared_ptr<Observer> observer;
        {
            std::lock_guard lock(mutex);
            auto it = std::find_if(observers.begin(), observers.end(),
                                   [id](const auto& each) { return each->id == id; });
            if (it == observers.end()) return;
            observer = std::move(*it);
            observers.erase(it);
        }
        const auto ownCalls = std::count(callingObservers.begin(), callingObservers.end(), observer.get());
        std::function<void(const Notification&)> handler;
        {
            std::unique_lock lock(observer->mutex);
            observer->removed = true;
            observer->callEnded.wait(lock, [&] { return observer->activeCalls == ownCalls; });
            // Release the handler's captures now rather than whenever the last
            // queued delivery lets go; not while it is running on this thread.
            if (ownCalls == 0) handler = std::move(observer->handler);
        }
    }
};

NotificationCenter::NotificationCenter() : state_(std::make_shared<State>()) {}

NotificationCenter::~NotificationCenter() {
    std::vector<std::uint64_t> ids;
    {
        std::lock_guard lock(state_->mutex);
        for (const auto& observer : state_->observers) ids.push_back(observer->id);
    }
    for (std::uint64_t id : ids) state_->remove(id);
}

NotificationCenter& NotificationCenter::defaultCenter() {
    // Never destroyed: observers may be removed during static destruction.
    static NotificationCenter* center = new NotificationCenter;
    return *center;
}

void NotificationCenter::post(Notification notification) {
    std::vector<std::shared_ptr<Observer>> recipients;
    {
        std::lock_guard lock(state_->mutex);
        for (const auto& observer : state_->observers) {
            if (observer->name.empty() || observer->name == notification.name) recipients.push_back(observer);
        }
    }
    if (recipients.empty()) return;
    const auto shared = std::make_shared<const Notification>(std::move(notification));
    for (const auto& observer : recipients) {
        if (observer->queue) {
            observer->queue.async([observer, shared] { deliver(observer, *shared); });
        } else {
            deliver(observer, *shared);
        }
    }
}

void NotificationCenter::post(std::string name, std::any object, UserInfo userInfo) {
    post(Notification{std::move(name), std::move(object), std::move(userInfo)});
}

ObserverToken NotificationCenter::addObserver(std::string name, DispatchQueue* queue,
                                              std::function<void(const Notification&)> handler) {
    auto observer = std::make_shared<Observer>();
    observer->name = std::move(name);
    if (queue) observer->queue = queue->handle();
    observer->handler = std::move(handler);
    std::lock_guard lock(state_->mutex);
    observer->id = state_->nextId++;
    state_->observers.push_back(observer);
    return ObserverToken(state_, observer->id);
}

void NotificationCenter::removeObserver(const ObserverToken& token) {
    if (token.center_.lock() == state_) state_->remove(token.id_);
}

ObserverToken::~ObserverToken() { remove(); }

ObserverToken::ObserverToken(ObserverToken&& other) noexcept
    : center_(std::move(other.center_)), id_(std::exchange(other.id_, 0)) {}

ObserverToken& ObserverToken::operator=(ObserverToken&& other) noexcept {
    if (this != &other) {
        remove();
        center_ = std::move(other.center_);
        id_ = std::exchange(other.id_, 0);
    }
    return *this;
}

void ObserverToken::remove() {
    if (id_ == 0) return;
    if (auto center = center_.lock()) center->remove(id_);
    release();
}

void ObserverToken::release() {
    center_.reset();
    id_ = 0;
}

}  // namespace tamsel::platform
