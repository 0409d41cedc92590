#include "platform/Log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace tamsel::platform {
namespace {

std::mutex& outletMutex() {
    static std::mutex mutex;
    return mutex;
}

LogSink& sinkSlot() {
    static LogSink sink;
    return sink;
}

bool& silenced() {
    static bool value = false;
    return value;
}

std::atomic<bool> debugEnabled{false};

std::string vformat(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length <= 0) return {};
    std::string result(static_cast<size_t>(length), '\0');
    std::vsnprintf(result.data(), result.size() + 1, format, args);
    return result;
}

void emit(const LogRecord& record) {
    std::lock_guard lock(outletMutex());
    if (sinkSlot()) sinkSlot()(record);
    if (silenced()) return;
    if (record.outlet == LogRecord::Outlet::console) {
        std::fwrite(record.message.data(), 1, record.message.size(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
        return;
    }
    std::fprintf(stderr, "%s\n", streamLine(record).c_str());
}

void systemLine(LogLevel level, const std::string& category, const char* format, va_list args) {
    emit(LogRecord{LogRecord::Outlet::system, level, category, vformat(format, args)});
}

}  // namespace

std::string_view toString(LogLevel level) {
    switch (level) {
    case LogLevel::debug: return "debug";
    case LogLevel::info: return "info";
    case LogLevel::error: return "error";
    }
    return "info";
}

std::string streamLine(const LogRecord& record) {
    switch (record.outlet) {
    case LogRecord::Outlet::console: return record.message;
    case LogRecord::Outlet::system:
        return "[" + std::string(toString(record.level)) + "] [" + record.category + "] " + record.message;
    case LogRecord::Outlet::debug: return "[debug] " + record.message;
    }
    return record.message;
}

void consolePrint(std::string_view line) {
    emit(LogRecord{LogRecord::Outlet::console, LogLevel::info, {}, std::string(line)});
}

void SystemLogger::info(const char* format, ...) const {
    va_list args;
    va_start(args, format);
    systemLine(LogLevel::info, category_, format, args);
    va_end(args);
}

void SystemLogger::debug(const char* format, ...) const {
    va_list args;
    va_start(args, format);
    systemLine(LogLevel::debug, category_, format, args);
    va_end(args);
}

void SystemLogger::error(const char* format, ...) const {
    va_list args;
    va_start(args, format);
    systemLine(LogLevel::error, category_, format, args);
    va_end(args);
}

bool debugLogsEnabled() { return debugEnabled.load(std::memory_order_relaxed); }

void setDebugLogsEnabled(bool enabled) { debugEnabled.store(enabled, std::memory_order_relaxed); }

void debugLog(const char* format, ...) {
    if (!debugLogsEnabled()) return;
    va_list args;
    va_start(args, format);
    std::string message = vformat(format, args);
    va_end(args);
    emit(LogRecord{LogRecord::Outlet::debug, LogLevel::debug, {}, std::move(message)});
}

std::string formatString(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string result = vformat(format, args);
    va_end(args);
    return result;
}

LogSink setLogSink(LogSink sink, bool silence) {
    std::lock_guard lock(outletMutex());
    LogSink previous = std::move(sinkSlot());
    sinkSlot() = std::move(sink);
    silenced() = silence && sinkSlot();
    return previous;
}

}  // namespace tamsel::platform
