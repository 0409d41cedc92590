#pragma once

#include "platform/Log.h"

// The model prints its decode errors and encode traces on standard output,
// as the system does. Commands whose standard output is data (JSON, one line
// per file) hold a ConsoleToStandardError while they decode and encode: the
// console lines then go to standard error when -v is given, and nowhere
// otherwise (the command reports the same reason itself); system-log and
// debug lines go to standard error as always.
namespace tamsel::host {

class ConsoleToStandardError {
public:
    explicit ConsoleToStandardError(bool keepConsoleLines);
    ~ConsoleToStandardError();
    ConsoleToStandardError(const ConsoleToStandardError&) = delete;
    ConsoleToStandardError& operator=(const ConsoleToStandardError&) = delete;

private:
    platform::LogSink previous_;
};

}  // namespace tamsel::host
