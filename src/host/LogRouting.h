#pragma once

#include <filesystem>

// Where the program's log lines go.
//
// Standard output carries a command's result and nothing else; standard
// error carries one line per failure. The product's own lines (console
// traces of the model, compiler and reloads; system-log lines with level and
// category; debug lines) all go to the log file under the data root, and with
// -v to standard error as well.
namespace tamsel::host {

// "<data root>/logs/tamsel.log", rotated by size.
std::filesystem::path logFilePath();

// Routes every log line as above for the rest of the process, so that lines
// that worker threads write while the program ends are kept as well. The
// file is opened with the first line: a command that logs nothing leaves no
// trace. Call once the data root is chosen.
void routeLogLines(bool verbose);

}  // namespace tamsel::host
