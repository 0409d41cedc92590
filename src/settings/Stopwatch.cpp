#include "settings/Stopwatch.h"

namespace tamsel::settings {

Stopwatch::Stopwatch(Now now) : now_(std::move(now)) {}

void Stopwatch::start() {
    t1_ = now_();
    t2_.reset();
    isRunning_ = true;
}

void Stopwatch::stop() {
    if (!isRunning_) return;
    t2_ = now_();
    isRunning_ = false;
}

std::chrono::duration<double> Stopwatch::elapsed() const {
    if (!t1_) return std::chrono::duration<double>::zero();
    const TimePoint end = isRunning_ ? now_() : *t2_;
    return end - *t1_;
}

}  // namespace tamsel::settings
