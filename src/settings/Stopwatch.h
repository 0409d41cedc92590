#pragma once

#include <chrono>
#include <functional>
#include <optional>

// Measures one stretch of work with the monotonic clock. Not thread-safe:
// one owner starts and stops it.
namespace tamsel::settings {

class Stopwatch {
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Now = std::function<TimePoint()>;

    // `now` lets tests drive time; by default the steady clock.
    explicit Stopwatch(Now now = &std::chrono::steady_clock::now);

    // Starts afresh, forgetting any earlier measurement.
    void start();
    // Stops; does nothing unless running.
    void stop();

    bool isRunning() const { return isRunning_; }
    std::optional<TimePoint> t1() const { return t1_; }
    std::optional<TimePoint> t2() const { return t2_; }

    // From t1 to t2, or to now while running; zero before the first start.
    std::chrono::duration<double> elapsed() const;
    double elapsedSeconds() const { return elapsed().count(); }

private:
    Now now_;
    std::optional<TimePoint> t1_;
    std::optional<TimePoint> t2_;
    bool isRunning_ = false;
};

}  // namespace tamsel::settings
