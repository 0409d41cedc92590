#pragma once

#include <atomic>
#include <chrono>

namespace tamsel::platform {

// A point in wall-clock time, as stored in preferences and history records.
// Microseconds, not the system clock's nanoseconds: a 64-bit count of
// nanoseconds reaches only 1677 to 2262, while the dates the product reads
// (property lists, stored values, manifests) run from year 1 to 9999 and
// beyond; microseconds hold about ±292,000 years.
using Date = std::chrono::sys_time<std::chrono::microseconds>;

// Where code that reasons about dates (pause expiry, statistics periods, retry
// throttling) reads "now", so that tests can hold time still or move it.
class Clock {
public:
    virtual ~Clock();
    virtual Date now() const = 0;

    // The system clock's now, to the microsecond.
    static Date systemNow();

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
    void advance(Date::duration by);

private:
    std::atomic<Date::rep> ticks_;
};

}  // namespace tamsel::platform
