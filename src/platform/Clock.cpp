#include "platform/Clock.h"

namespace tamsel::platform {
namespace {

class SystemClock final : public Clock {
public:
    Date now() const override { return std::chrono::system_clock::now(); }
};

}  // namespace

Clock::~Clock() = default;

Clock& Clock::system() {
    static SystemClock clock;
    return clock;
}

ManualClock::ManualClock() : ManualClock(std::chrono::system_clock::now()) {}

ManualClock::ManualClock(Date start) : ticks_(start.time_since_epoch().count()) {}

Date ManualClock::now() const {
    return Date(std::chrono::system_clock::duration(ticks_.load()));
}

void ManualClock::set(Date date) { ticks_.store(date.time_since_epoch().count()); }

void ManualClock::advance(std::chrono::system_clock::duration by) { ticks_.fetch_add(by.count()); }

}  // namespace tamsel::platform
