#pragma once

#include <functional>
#include <string>

#include "platform/Clock.h"

// Times actions that finish later than they start (saving and reloading
// extensions) and logs how long they took.
namespace tamsel::settings {

class LongActionExecutor {
public:
    // Reports that the action has finished. Safe to call from any thread; only
    // the first call counts.
    using Finish = std::function<void()>;

    // `clock` must outlive the Finish it hands out.
    //
    // Records the start, runs `action` with its Finish, and when Finish is
    // called logs on the main queue
    //   * Successfully Finished Long Action "NAME": SECONDSs *
    // where SECONDS is the start's interval relative to that moment, and so
    // is negative (for example -0.25).
    static void execute(std::string name, const std::function<void(Finish)>& action,
                        const platform::Clock& clock = platform::Clock::system());

    // The same for code that finishes the action somewhere else: returns the
    // Finish of an action that started now.
    static Finish start(std::string name, const platform::Clock& clock = platform::Clock::system());

    // The line for an action that took `elapsedSeconds`.
    static std::string finishedLine(const std::string& name, double elapsedSeconds);
};

}  // namespace tamsel::settings
