#pragma once

#include <atomic>
#include <chrono>

namespace tamsel::platform {

// A point in wall-clock time, as stored in preferences and history records.
using Date = std::chrono::system_clock::time_point;

// Where code that reasons about dates (pause expiry, statistics periods, retry
// throttling) reads "now", so that tests can hold time still or move it.
class Clock {
public:
    virtual ~Clock();
    virtual Date now() const = 0;

    // The real wall clock; lives for the whole process.
    static Clock& system();
};

// A clock that only moves when told to. Safe to read and move from any thread.
class ManualClock : public Clock {
public:
    // Starts at the current wall-clock time.
    ManualClock();
    explicit ManualClock(Date start);

    Date now() const override;
    void set(Date date);
    void advance(std::chrono::system_clock::duration by);

private:
    std::atomic<std::chrono::system_clock::rep> ticks_;
};

}  // namespace tamsel::platform
