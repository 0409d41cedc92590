#pragma once

#include <chrono>
#include <cstddef>
#include <functional>

namespace tamsel::platform {

// The run loop behind DispatchQueue::main(). Nothing runs main-queue blocks by
// itself: the host program calls run(), and tests call drain() or runUntil()
// to run them deterministically on the test's thread.
//
// Only one thread drives the loop at a time; the thread that does is the main
// thread for DispatchQueue::isMainThread(). A block may drive the loop again
// (a nested drain), but a second thread that tries to drive it while the first
// one does ends the process with a fatal error.
class MainRunLoop {
public:
    // Queues a block on the main queue and wakes the driver; the same as
    // DispatchQueue::main().async(block).
    static void post(std::function<void()> block);

    // Runs every block queued now and any that those blocks queue, until the
    // queue is empty. Returns how many blocks ran.
    static std::size_t drain();

    // Runs blocks as they arrive, waiting for new ones, until `predicate` holds
    // (checked first and after every block) or `timeout` passes. Returns the
    // last value of the predicate.
    static bool runUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout);

    // Runs blocks as they arrive until stop() is called. A stop() that comes
    // while nothing runs the loop makes the next run() return at once.
    static void run();
    static void stop();

    // Blocks queued and not yet started.
    static std::size_t pendingCount();

    // See DispatchQueue::isMainThread().
    static bool isMainThread();
};

}  // namespace tamsel::platform
