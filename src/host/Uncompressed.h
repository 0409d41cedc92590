#pragma once

#include <httplib.h>

// Answers on loopback go out uncompressed. cpp-httplib compresses a text
// answer in whatever the request accepts, brotli first and at brotli's
// highest quality: seconds per megabyte (11 s for a page area that carries
// the style sheet of the benchmark rule set, 2.6 MB), where two processes on
// one machine gain nothing from it.
namespace tamsel::host {

// Call from a pre-routing handler: forgets what the request accepts.
inline void answerUncompressed(const httplib::Request& request) {
    // The server hands its own (non-const) request to the handlers as const.
    const_cast<httplib::Request&>(request).headers.erase("Accept-Encoding");
}

}  // namespace tamsel::host
