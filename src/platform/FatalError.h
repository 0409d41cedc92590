#pragma once

#include <string_view>

namespace tamsel::platform {

// Ends the process on a programming error that cannot be recovered from (a
// queue that would deadlock on itself, an unbalanced group leave, a missing
// app-group container). Writes "Fatal error: <message>" as one line on standard
// error, then aborts, so that the failure is loud and death tests can match it.
[[noreturn]] void fatalError(std::string_view message);

}  // namespace tamsel::platform
