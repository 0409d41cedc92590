#pragma once

// Waiting helpers for the concurrency tests. Every wait has a generous upper
// bound, so a fault shows up as a failed expectation instead of a hung test,
// and nothing depends on how fast a loaded machine is.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace tamsel::platform::testing {

using namespace std::chrono_literals;

inline constexpr std::chrono::milliseconds kPatience = 10s;

// Polls `predicate` until it holds or `timeout` passes.
inline bool eventually(const std::function<bool()>& predicate, std::chrono::milliseconds timeout = kPatience) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// A one-way door: waiters block until someone opens it.
class Gate {
public:
    // Notifies under the lock: a released waiter may destroy the gate at once.
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    bool wait(std::chrono::milliseconds timeout = kPatience) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [this] { return open_; });
    }
    bool isOpen() {
        std::lock_guard lock(mutex_);
        return open_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

// `count` parties meet: each arrive() returns true once all have arrived, or
// false when the others did not come in time (the work was not concurrent).
class Rendezvous {
public:
    explicit Rendezvous(int count) : remaining_(count) {}
    bool arrive(std::chrono::milliseconds timeout = kPatience) {
        std::unique_lock lock(mutex_);
        if (--remaining_ <= 0) changed_.notify_all();
        return changed_.wait_for(lock, timeout, [this] { return remaining_ <= 0; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int remaining_;
};

// Counts how many pieces of work run at once, and the most there ever were.
struct Overlap {
    std::atomic<int> active{0};
    std::atomic<int> peak{0};
    void enter() {
        const int now = ++active;
        int seen = peak.load();
        while (now > seen && !peak.compare_exchange_weak(seen, now)) {
        }
    }
    void leave() { --active; }
};

}  // namespace tamsel::platform::testing
