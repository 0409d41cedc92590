#pragma once

#include <functional>
#include <string>
#include <string_view>

// The three logging outlets of the program.
//
//  * console lines: plain text on standard output, exactly as the code writes
//    them (model, compiler, reload and sync traces);
//  * system-log lines: a level and a category, printf-style formats, on
//    standard error (files, updates, downloads);
//  * debug lines: printf-style, on standard error, only while debug logging
//    is switched on.
//
// Every outlet writes whole lines under one lock, so lines of different
// threads never interleave. Those are the streams while no sink is installed;
// the tamsel program installs one that sends every line to its log file (and
// to standard error only with -v), and tests install one to read the lines.
namespace tamsel::platform {

enum class LogLevel { debug, info, error };

std::string_view toString(LogLevel level);

// One line on standard output, as-is (a newline is appended).
void consolePrint(std::string_view line);

// A system logger for one category, such as "Download" or "Files".
class SystemLogger {
public:
    explicit SystemLogger(std::string category) : category_(std::move(category)) {}

    void info(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void debug(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void error(const char* format, ...) const __attribute__((format(printf, 2, 3)));

    const std::string& category() const { return category_; }

private:
    std::string category_;
};

// Debug lines: written only while debugLogsEnabled() is true.
bool debugLogsEnabled();
void setDebugLogsEnabled(bool enabled);
void debugLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

// printf-style formatting into a std::string.
std::string formatString(const char* format, ...) __attribute__((format(printf, 1, 2)));

// What a sink receives: the outlet, and for system lines the level and category.
struct LogRecord {
    enum class Outlet { console, system, debug } outlet;
    LogLevel level = LogLevel::info;
    std::string category;
    std::string message;
};

using LogSink = std::function<void(const LogRecord&)>;

// The text a stream shows for a record, without the newline:
// "[error] [Download] ...", "[debug] ...", or a console line unchanged.
std::string streamLine(const LogRecord& record);

// Installs a sink that sees every record; while one is installed the records
// still go to their streams unless `silence` is true. Returns the previous sink.
LogSink setLogSink(LogSink sink, bool silence = false);

}  // namespace tamsel::platform
