#include "platform/MainRunLoop.h"

#include "platform/FatalError.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include <unistd.h>

namespace tamsel::platform {
namespace {

using SteadyClock = std::chrono::steady_clock;

// How often runUntil() looks at its predicate while no block arrives, for
// predicates that watch state changed by other threads without posting.
constexpr std::chrono::milliseconds kPredicatePollInterval{5};

struct Loop {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::function<void()>> blocks;
    std::thread::id driver;
    int depth = 0;  // nested drives by the driver
    bool stopRequested = false;
};

// Never destroyed: blocks may still be posted while static objects go away.
Loop& loop() {
    static Loop* instance = new Loop;
    return *instance;
}

// Makes the calling thread the driver for the scope's lifetime.
class DriveScope {
public:
    DriveScope() {
        Loop& l = loop();
        std::lock_guard lock(l.mutex);
        if (l.depth > 0 && l.driver != std::this_thread::get_id()) {
            fatalError("MainRunLoop: a second thread tried to drive the main run loop");
        }
        l.driver = std::this_thread::get_id();
        ++l.depth;
    }
    ~DriveScope() {
        Loop& l = loop();
        std::lock_guard lock(l.mutex);
        if (--l.depth == 0) l.driver = std::thread::id();
    }
    DriveScope(const DriveScope&) = delete;
    DriveScope& operator=(const DriveScope&) = delete;
};

// Runs the front block with the lock released; the block's captures are
// destroyed before the lock is taken again.
void runFront(std::unique_lock<std::mutex>& lock) {
    std::function<void()> block = std::move(loop().blocks.front());
    loop().blocks.pop_front();
    lock.unlock();
    block();
    block = nullptr;
    lock.lock();
}

bool isProcessInitialThread() { return ::gettid() == ::getpid(); }

}  // namespace

void MainRunLoop::post(std::function<void()> block) {
    Loop& l = loop();
    {
        std::lock_guard lock(l.mutex);
        l.blocks.push_back(std::move(block));
    }
    l.changed.notify_all();
}

std::size_t MainRunLoop::drain() {
    DriveScope scope;
    std::size_t count = 0;
    std::unique_lock lock(loop().mutex);
    while (!loop().blocks.empty()) {
        runFront(lock);
        ++count;
    }
    return count;
}

bool MainRunLoop::runUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
    DriveScope scope;
    const auto deadline = SteadyClock::now() + timeout;
    Loop& l = loop();
    for (;;) {
        if (predicate()) return true;
        std::unique_lock lock(l.mutex);
        if (l.blocks.empty()) {
            const auto now = SteadyClock::now();
            if (now >= deadline) return false;
            l.changed.wait_until(lock, std::min(deadline, now + kPredicatePollInterval),
                                 [&l] { return !l.blocks.empty(); });
            if (l.blocks.empty()) continue;
        }
        runFront(lock);
    }
}

void MainRunLoop::run() {
    DriveScope scope;
    Loop& l = loop();
    std::unique_lock lock(l.mutex);
    for (;;) {
        l.changed.wait(lock, [&l] { return l.stopRequested || !l.blocks.empty(); });
        if (l.stopRequested) {
            l.stopRequested = false;
            return;
        }
        runFront(lock);
    }
}

void MainRunLoop::stop() {
    Loop& l = loop();
    {
        std::lock_guard lock(l.mutex);
        l.stopRequested = true;
    }
    l.changed.notify_all();
}

std::size_t MainRunLoop::pendingCount() {
    std::lock_guard lock(loop().mutex);
    return loop().blocks.size();
}

bool MainRunLoop::isMainThread() {
    {
        std::lock_guard lock(loop().mutex);
        if (loop().depth > 0) return loop().driver == std::this_thread::get_id();
    }
    return isProcessInitialThread();
}

}  // namespace tamsel::platform
