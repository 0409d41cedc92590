#pragma once

#include "platform/DispatchQueue.h"

#include <functional>
#include <string>
#include <type_traits>
#include <utility>

namespace tamsel::platform {

// A value guarded by a concurrent queue: reads run synchronously and in
// parallel with each other; writes are submitted asynchronously as barriers, so
// each runs alone and in submission order. A read issued after a write (from
// the same thread, or after anything that happened after the write) sees it.
//
// Destroying the wrapper waits for writes still pending.
template <class T>
class Synchronized {
public:
    // The queue's label is `label` + ".synchronized".
    explicit Synchronized(std::string label, T initial = T{})
        : value_(std::move(initial)),
          queue_(std::move(label) + ".synchronized", DispatchQueue::Kind::concurrent,
                 QualityOfService::defaultQoS) {}

    Synchronized(const Synchronized&) = delete;
    Synchronized& operator=(const Synchronized&) = delete;

    // Runs f(const T&) and returns its result by value, so that nothing refers
    // into the guarded value after the read has ended.
    template <class F>
        requires std::is_invocable_v<F&, const T&>
    auto read(F&& f) const -> std::decay_t<std::invoke_result_t<F&, const T&>> {
        using Result = std::decay_t<std::invoke_result_t<F&, const T&>>;
        return queue_.sync([&]() -> Result { return std::invoke(f, std::as_const(value_)); });
    }

    void write(std::function<void(T&)> f) {
        queue_.asyncBarrier([this, f = std::move(f)] { f(value_); });
    }

    // A copy of the value.
    T value() const {
        return read([](const T& v) { return v; });
    }

    const std::string& label() const { return queue_.label(); }

private:
    // Declared before the queue so that the queue, destroyed first, finishes
    // the pending writes while the value still exists.
    T value_;
    mutable DispatchQueue queue_;
};

}  // namespace tamsel::platform
