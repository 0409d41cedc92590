#include "control/PauseStatus.h"

#include <algorithm>

#include "platform/Stores.h"
#include "settings/Keys.h"

namespace tamsel::control {

namespace {

std::shared_ptr<platform::UserDefaults> store() { return platform::SharedDefaults::shared(); }

}  // namespace

bool PauseStatus::isPaused() { return store()->boolValue(settings::Keys::blockingPausedStatus); }

void PauseStatus::setPaused(bool paused) { store()->set(platform::Value(paused), settings::Keys::blockingPausedStatus); }

std::optional<platform::Date> PauseStatus::pausedDate() { return store()->date(settings::Keys::blockingPausedDate); }

void PauseStatus::setPausedDate(std::optional<platform::Date> date) {
    std::optional<platform::Value> value;
    if (date) value = platform::Value(*date);
    store()->set(std::move(value), settings::Keys::blockingPausedDate);
}

std::int64_t PauseStatus::minutesLeft(const platform::Clock& clock) {
    if (!isPaused()) return 0;
    const auto start = pausedDate();
    if (!start) return 0;
    const auto elapsed = std::chrono::duration_cast<std::chrono::minutes>(clock.now() - *start);
    return std::max<std::int64_t>(0, (pauseLength - elapsed).count());
}

void PauseStatus::begin(const platform::Clock& clock) {
    setPaused(true);
    setPausedDate(clock.now());
}

void PauseStatus::end() {
    setPaused(false);
    setPausedDate(std::nullopt);
}

bool PauseStatus::endPauseIfExpired(const std::function<void()>& reloadAllWithoutSaving,
                                    const platform::Clock& clock) {
    if (!isPaused() || minutesLeft(clock) >= 1) return false;
    end();
    if (reloadAllWithoutSaving) reloadAllWithoutSaving();
    return true;
}

}  // namespace tamsel::control
