#include "settings/Log.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "platform/Log.h"

namespace tamsel::settings {

bool Log::debugLogsEnabled() { return platform::debugLogsEnabled(); }

void Log::setDebugLogsEnabled(bool enabled) { platform::setDebugLogsEnabled(enabled); }

void Log::log(const char* format, ...) {
    if (!debugLogsEnabled()) return;
    va_list arguments;
    va_start(arguments, format);
    va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string message(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(message.data(), message.size() + 1, format, arguments);
    va_end(arguments);
    platform::debugLog("%s", message.c_str());
}

}  // namespace tamsel::settings
