#pragma once

// The program's debug logging switch and its two logging functions.
// Plain console lines go through platform::consolePrint; these are for lines
// that only developers want to see.
namespace tamsel::settings {

struct Log {
    // Off by default; `tamsel -v` and tests switch it on.
    static bool debugLogsEnabled();
    static void setDebugLogsEnabled(bool enabled);

    // Writes a debug line only while debug logs are enabled.
    static void log(const char* format, ...) __attribute__((format(printf, 1, 2)));

    // Swallows its arguments: call sites kept for the record, silenced.
    template <class... Arguments>
    static void print(const Arguments&...) {}
};

}  // namespace tamsel::settings
