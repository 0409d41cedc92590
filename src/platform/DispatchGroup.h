#pragma once

#include "platform/DispatchQueue.h"

#include <chrono>
#include <functional>
#include <memory>

namespace tamsel::platform {

// Counts pieces of work in flight and tells when all of them are done.
//
// Blocks submitted with async() and notifications hold the group's state, not
// the group object, so the group may be destroyed while work is outstanding.
// Leaving more often than entering ends the process with a fatal error.
class DispatchGroup {
public:
    DispatchGroup();
    ~DispatchGroup();

    DispatchGroup(const DispatchGroup&) = delete;
    DispatchGroup& operator=(const DispatchGroup&) = delete;

    void enter();
    void leave();

    // Blocks until the count is zero.
    void wait();
    // Returns false when the count was still above zero after `timeout`.
    bool wait(std::chrono::steady_clock::duration timeout);

    // Queues `block` on `queue` once the count reaches zero; at once when it is
    // zero now. Each notification fires once.
    void notify(DispatchQueue& queue, std::function<void()> block);

    // enter(), then queue `block` on `queue`, leaving when it has run.
    void async(DispatchQueue& queue, std::function<void()> block);

    struct State;

private:
    std::shared_ptr<State> state_;
};

}  // namespace tamsel::platform
