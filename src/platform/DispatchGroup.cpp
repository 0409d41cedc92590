#include "platform/DispatchGroup.h"

#include "platform/FatalError.h"

#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

namespace tamsel::platform {

struct DispatchGroup::State {
    std::mutex mutex;
    std::condition_variable reachedZero;
    long count = 0;
    std::vector<std::pair<DispatchQueue::Handle, std::function<void()>>> notifications;

    void leave() {
        std::vector<std::pair<DispatchQueue::Handle, std::function<void()>>> due;
        {
            std::lock_guard lock(mutex);
            if (count == 0) fatalError("DispatchGroup: leave() called more often than enter()");
            if (--count > 0) return;
            due.swap(notifications);
            // Under the lock: a woken waiter may destroy the group at once.
            reachedZero.notify_all();
        }
        for (auto& [queue, block] : due) queue.async(std::move(block));
    }
};

DispatchGroup::DispatchGroup() : state_(std::make_shared<State>()) {}

DispatchGroup::~DispatchGroup() = default;

void DispatchGroup::enter() {
    std::lock_guard lock(state_->mutex);
    ++state_->count;
}

void DispatchGroup::leave() { state_->leave(); }

void DispatchGroup::wait() {
    std::unique_lock lock(state_->mutex);
    state_->reachedZero.wait(lock, [this] { return state_->count == 0; });
}

bool DispatchGroup::wait(std::chrono::steady_clock::duration timeout) {
    std::unique_lock lock(state_->mutex);
    return state_->reachedZero.wait_for(lock, timeout, [this] { return state_->count == 0; });
}

void DispatchGroup::notify(DispatchQueue& queue, std::function<void()> block) {
    {
        std::lock_guard lock(state_->mutex);
        if (state_->count > 0) {
            state_->notifications.emplace_back(queue.handle(), std::move(block));
            return;
        }
    }
    queue.async(std::move(block));
}

void DispatchGroup::async(DispatchQueue& queue, std::function<void()> block) {
    enter();
    queue.async([state = state_, block = std::move(block)]() mutable {
        block();
        // Captures go before waiters are released, so they may free what the
        // block referred to.
        block = nullptr;
        state->leave();
    });
}

}  // namespace tamsel::platform
