#include "host/ConsoleRouting.h"

#include <cstdio>
#include <string>

namespace tamsel::host {

ConsoleToStandardError::ConsoleToStandardError(bool keepConsoleLines) {
    // The sink runs under the log's own lock, so it writes to the stream
    // directly instead of logging again.
    previous_ = platform::setLogSink(
        [keepConsoleLines](const platform::LogRecord& record) {
            switch (record.outlet) {
            case platform::LogRecord::Outlet::console:
                if (keepConsoleLines) std::fprintf(stderr, "%s\n", record.message.c_str());
                break;
            case platform::LogRecord::Outlet::system:
                std::fprintf(stderr, "[%s] [%s] %s\n", std::string(platform::toString(record.level)).c_str(),
                             record.category.c_str(), record.message.c_str());
                break;
            case platform::LogRecord::Outlet::debug:
                std::fprintf(stderr, "[debug] %s\n", record.message.c_str());
                break;
            }
        },
        /*silence=*/true);
}

ConsoleToStandardError::~ConsoleToStandardError() {
    // The only sinks the program installs are these routings, and each one
    // silences the streams; an outer routing does so again once it is back.
    const bool silence = static_cast<bool>(previous_);
    platform::setLogSink(std::move(previous_), silence);
}

}  // namespace tamsel::host
