#pragma once

#include "platform/QualityOfService.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

namespace tamsel::platform {

// A queue of blocks, run on a shared pool of worker threads.
//
//  * A serial queue runs one block at a time, in the order they were submitted.
//  * A concurrent queue starts blocks in submission order and lets them run in
//    parallel (bounded by the pool, at most 64 workers). A barrier block waits
//    for everything submitted before it, runs alone, and holds back everything
//    submitted after it until it is done.
//  * sync() runs the block on the calling thread once the queue lets it start,
//    so a synchronous read of a concurrent queue costs no thread hop and runs in
//    parallel with other reads.
//
// Blocks may block (wait on groups, sync onto other queues): the pool grows a
// worker when none is idle, so one waiting block cannot starve the others.
//
// Destruction: the destructor stops taking new work, then waits until every
// block submitted before it has run (unless it is called from one of the
// queue's own blocks, in which case the remaining blocks still run, later).
// Blocks whose asyncAfter deadline has not passed yet are dropped, and so is
// work that reaches the queue through a Handle after destruction began.
//
// The main queue is the run loop that the host drives (see MainRunLoop.h);
// global queues are concurrent queues that live for the whole process and, as
// with the real thing, treat a barrier as a plain block.
class DispatchQueue {
public:
    enum class Kind { serial, concurrent };

    explicit DispatchQueue(std::string label, Kind kind = Kind::serial,
                           QualityOfService qos = QualityOfService::defaultQoS);
    ~DispatchQueue();

    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    // The queue that the host's run loop drains; blocks run on the driving thread.
    static DispatchQueue& main();
    // One process-wide concurrent queue per quality of service.
    static DispatchQueue& global(QualityOfService qos = QualityOfService::defaultQoS);
    // True on the thread currently driving the main queue; while no thread
    // drives it, true on the process's initial thread.
    static bool isMainThread();

    void async(std::function<void()> block);
    void asyncBarrier(std::function<void()> block);
    // Submits the block once `delay` has passed (steady clock). Blocks with equal
    // deadlines are submitted in the order asyncAfter was called.
    void asyncAfter(std::chrono::steady_clock::duration delay, std::function<void()> block);

    // Runs the block on the calling thread once the queue lets it start, and
    // returns when it has finished. Exceptions reach the caller.
    //
    // Calling sync on a serial queue (or from a barrier block on a concurrent
    // queue) from inside that same queue would deadlock: it ends the process with
    // a fatal error instead. From a plain block of a concurrent queue it runs at
    // once. On the main queue, from the main thread, it runs inline.
    void sync(const std::function<void()>& block) { runSync(block); }

    template <class F>
        requires std::is_invocable_v<F&>
    auto sync(F&& block) -> std::invoke_result_t<F&>;

    const std::string& label() const;
    Kind kind() const;
    QualityOfService qualityOfService() const;

    struct Core;

    // A copyable reference through which work can be sent to the queue later
    // (notifications, group notifications). It does not keep the queue working:
    // once the DispatchQueue is destroyed, blocks sent through a handle are
    // dropped.
    class Handle {
    public:
        Handle() = default;
        void async(std::function<void()> block) const;
        explicit operator bool() const { return core_ != nullptr; }

    private:
        friend class DispatchQueue;
        explicit Handle(std::shared_ptr<Core> core) : core_(std::move(core)) {}
        std::shared_ptr<Core> core_;
    };

    Handle handle() const { return Handle(core_); }

private:
    explicit DispatchQueue(std::shared_ptr<Core> core);
    void runSync(const std::function<void()>& block);

    std::shared_ptr<Core> core_;
};

template <class F>
    requires std::is_invocable_v<F&>
auto DispatchQueue::sync(F&& block) -> std::invoke_result_t<F&> {
    using Result = std::invoke_result_t<F&>;
    if constexpr (std::is_void_v<Result>) {
        runSync([&block] { std::invoke(block); });
    } else if constexpr (std::is_reference_v<Result>) {
        std::remove_reference_t<Result>* result = nullptr;
        runSync([&] { result = &std::invoke(block); });
        return static_cast<Result>(*result);
    } else {
        std::optional<Result> result;
        runSync([&] { result.emplace(std::invoke(block)); });
        return std::move(*result);
    }
}

}  // namespace tamsel::platform
