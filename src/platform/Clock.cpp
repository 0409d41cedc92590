#include "platform/Clock.h"

namespace tamsel::platform {
namespace {

class SystemClock final : public Clock {
public:
    Date now() const override { return systemNow(); }
};

}  // namespace

Clock::~Clock() = default;

Date Clock::systemNow() {
    return std::chrono::floor<Date::duration>(std::chrono::system_clock::now());
}

Clock& Clock::system() {
    static SystemClock clock;
    return clock;
}

ManualClock::ManualClock() : ManualClock(systemNow()) {}

ManualClock::ManualClock(Date start) : ticks_(start.time_since_epoch().count()) {}

Date ManualClock::now() const {
    return Date(Date::duration(ticks_.load()));
}

void ManualClock::set(Date date) { ticks_.store(date.time_since_epoch().count()); }

void ManualClock::advance(Date::duration by) { ticks_.fetch_add(by.count()); }

}  // namespace tamsel::platform
