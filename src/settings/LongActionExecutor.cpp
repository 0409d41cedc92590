#include "settings/LongActionExecutor.h"

#include <fmt/format.h>

#include <atomic>
#include <memory>

#include "platform/DispatchQueue.h"
#include "platform/Log.h"

namespace tamsel::settings {

std::string LongActionExecutor::finishedLine(const std::string& name, double elapsedSeconds) {
    // The interval is measured from now back to the start, hence negative;
    // a whole number still reads as a decimal ("-2.0").
    std::string seconds = fmt::format("{}", -elapsedSeconds);
    if (seconds.find_first_of(".eEn") == std::string::npos) seconds += ".0";
    return "* Successfully Finished Long Action \"" + name + "\": " + seconds + "s *";
}

LongActionExecutor::Finish LongActionExecutor::start(std::string name, const platform::Clock& clock) {
    const platform::Date started = clock.now();
    auto finished = std::make_shared<std::atomic<bool>>(false);
    return [name = std::move(name), started, finished, &clock] {
        if (finished->exchange(true)) return;
        const std::chrono::duration<double> elapsed = clock.now() - started;
        platform::DispatchQueue::main().async(
            [line = finishedLine(name, elapsed.count())] { platform::consolePrint(line); });
    };
}

void LongActionExecutor::execute(std::string name, const std::function<void(Finish)>& action,
                                 const platform::Clock& clock) {
    action(start(std::move(name), clock));
}

}  // namespace tamsel::settings
