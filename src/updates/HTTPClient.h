#pragma once

#include <chrono>
#include <expected>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "updates/UpdateError.h"

// The one HTTP client of the update code (libcurl), standing in for the
// shared URL session. Requests run synchronously on the calling thread; the
// callers put them on a background queue. Only http and https are spoken, so
// a misconfigured base address can never read local files.
namespace tamsel::updates {

// Header names compare without regard to case, as HTTP says.
struct CaseInsensitiveLess {
    bool operator()(std::string_view a, std::string_view b) const;
    using is_transparent = void;
};
using HTTPHeaders = std::map<std::string, std::string, CaseInsensitiveLess>;

struct HTTPRequest {
    enum class Method { get, head };

    std::string url;
    Method method = Method::get;
    // How long connecting may take, and how long the transfer may go without
    // receiving a byte. Like the URL session's request time-out it does not
    // bound a download that keeps moving.
    std::chrono::milliseconds timeout{60'000};
    // The fraction done (0.0 to 1.0), when the server said how much is coming.
    // Called on the requesting thread.
    std::function<void(double)> progress;
};

struct HTTPResponse {
    long status = 0;
    // The headers of the final reply (after redirects); a repeated header
    // keeps its last value.
    HTTPHeaders headers;

    std::optional<std::string> header(std::string_view name) const;
    // "HTTP 200, Last-Modified: …" style text for log lines.
    std::string description() const;
};

// Receives the body in pieces; returning false aborts the transfer with a
// fileSystem error (the receiver could not keep what it was given).
using BodyReceiver = std::function<bool(std::string_view chunk)>;

class HTTPClient {
public:
    // Performs the request. A reply with any status is a response; no reply
    // (refused, reset, timed out, cut short) is a transport error. The
    // response, when there was one, is also put in `response` so that a
    // failure after the headers arrived can still be described.
    static std::expected<HTTPResponse, Error> perform(const HTTPRequest& request, const BodyReceiver& receiver,
                                                      HTTPResponse* partialResponse = nullptr);

    // The whole body in memory; for small documents such as the manifest.
    static std::expected<std::pair<HTTPResponse, std::string>, Error> fetch(const HTTPRequest& request,
                                                                           HTTPResponse* partialResponse = nullptr);

    // Where the stall timer of every request reads the time: the steady
    // clock, unless tests install a source that moves only when they move it,
    // so that a stalled transfer times out exactly when a test says and a
    // healthy one never does. An empty source goes back to the steady clock.
    // Requests already running keep the source they started with.
    using TimeSource = std::function<std::chrono::steady_clock::time_point()>;
    static void setTimeSource(TimeSource source);
};

}  // namespace tamsel::updates
