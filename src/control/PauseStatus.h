#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "platform/Clock.h"

// The user's one-hour pause of all blocking.
//
// The pause is a shared setting: the host application, the agent and the
// content-blocker extensions read the same two SharedDefaults keys,
// "blocking-paused-status" (bool) and "blocking-paused-date" (the start).
// Another process may change them at any moment, so nothing is cached: every
// call reads them afresh.
//
// There is no timer. A pause whose hour is over stays recorded as paused
// until endPauseIfExpired() runs (when the popover is about to show), but
// minutesLeft() already answers 0 for it.
//
// Pausing and resuming themselves (setting the keys, then having Safari
// reload every extension) are ExtensionManager::pauseBlocking and
// resumeBlocking; this type only reads and writes the setting.
namespace tamsel::control {

class PauseStatus {
public:
    static constexpr std::chrono::minutes pauseLength{60};

    // "blocking-paused-status"; false when missing.
    static bool isPaused();
    static void setPaused(bool paused);

    // "blocking-paused-date": none when missing or not a date. Setting none
    // removes the key, so no stale start is left behind.
    static std::optional<platform::Date> pausedDate();
    static void setPausedDate(std::optional<platform::Date> date);

    // Whole minutes of the pause that remain: 60 minus the whole minutes
    // elapsed since the start (truncated toward zero), never below 0. 0 when
    // not paused or paused without a start. Minutes are elapsed time, so the
    // answer does not depend on the time zone or on daylight-saving changes.
    // (A start in the future, after the clock was set back, gives more than
    // 60 until the clock catches up.)
    static std::int64_t minutesLeft(const platform::Clock& clock = platform::Clock::system());

    // Records a pause that starts now / ends it (the start key is removed).
    static void begin(const platform::Clock& clock = platform::Clock::system());
    static void end();

    // When paused with less than a minute left, ends the pause and calls
    // `reloadAllWithoutSaving` once; returns whether it did.
    static bool endPauseIfExpired(const std::function<void()>& reloadAllWithoutSaving,
                                  const platform::Clock& clock = platform::Clock::system());
};

}  // namespace tamsel::control
