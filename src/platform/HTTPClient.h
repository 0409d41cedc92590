#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>


// The one HTTP client of the program (libcurl), standing in for the shared
// URL session: the update code's downloads and the cloud client's requests.
// Requests run synchronously on the calling thread; the callers put them on a
// background queue. Only http and https are spoken, so a misconfigured base
// address can never read local files.
namespace tamsel::platform {

// Why a request got no complete reply.
struct HTTPError {
    enum class Code {
        // No usable reply: refused, reset, timed out, malformed URL.
        transport,
        // The body is larger than the request allowed.
        tooLarge,
        // The body receiver refused a piece.
        receiverRefused,
        // The request's cancellation flag was raised.
        cancelled,
    };
    Code code = Code::transport;
    std::string description;

    static HTTPError make(Code code, std::string description) { return {code, std::move(description)}; }
    friend bool operator==(const HTTPError&, const HTTPError&) = default;
};

// Header names compare without regard to case, as HTTP says.
struct CaseInsensitiveLess {
    bool operator()(std::string_view a, std::string_view b) const;
    using is_transparent = void;
};
using HTTPHeaders = std::map<std::string, std::string, CaseInsensitiveLess>;

struct HTTPRequest {
    enum class Method { get, head, post };

    std::string url;
    Method method = Method::get;
    // How long connecting may take, how long the transfer may go without
    // receiving a byte, and how long it may crawl below
    // HTTPClient::lowSpeedLimit bytes a second. Like the URL session's
    // request time-out it does not bound a download that keeps moving.
    std::chrono::milliseconds timeout{60'000};
    // The fraction done (0.0 to 1.0), when the server said how much is coming.
    // Called on the requesting thread.
    std::function<void(double)> progress;
    // The most the body may be: a larger announced "Content-Length" refuses
    // the reply before its body, and a body that grows past it is cut off.
    // Either is a tooLarge error. None: no limit.
    std::optional<std::uint64_t> maximumBodySize = std::nullopt;
    // How long the whole request may take, however it moves. None: no limit.
    std::optional<std::chrono::milliseconds> totalTimeout = std::nullopt;
    // Sent as they stand ("Content-Type", "Authorization", …).
    std::vector<std::pair<std::string, std::string>> headers = {};
    // The body of a post.
    std::string body = {};
    // Asked while the transfer runs (at least once a second); once it
    // answers true the transfer stops with a cancelled error. May be empty.
    std::function<bool()> isCancelled = {};
    // A stream that stays open and trickles (server-sent events): no
    // low-speed limit; only `timeout` without any byte counts as a stall.
    bool streaming = false;
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
// receiverRefused error (the receiver could not keep what it was given).
using BodyReceiver = std::function<bool(std::string_view chunk)>;

class HTTPClient {
public:
    // Below this many bytes a second for a whole request time-out, a transfer
    // counts as stalled: a server that trickles a byte now and then must not
    // hold a download open for ever.
    static constexpr long lowSpeedLimit = 1024;

    // Performs the request. A reply with any status is a response; no reply
    // (refused, reset, timed out, cut short) is a transport error. The
    // response, when there was one, is also put in `response` so that a
    // failure after the headers arrived can still be described.
    static std::expected<HTTPResponse, HTTPError> perform(const HTTPRequest& request, const BodyReceiver& receiver,
                                                      HTTPResponse* partialResponse = nullptr);

    // The whole body in memory; for small documents such as the manifest.
    static std::expected<std::pair<HTTPResponse, std::string>, HTTPError> fetch(const HTTPRequest& request,
                                                                           HTTPResponse* partialResponse = nullptr);

    // Where the stall timer of every request reads the time: the steady
    // clock, unless tests install a source that moves only when they move it,
    // so that a stalled transfer times out exactly when a test says and a
    // healthy one never does. An empty source goes back to the steady clock.
    // Requests already running keep the source they started with.
    using TimeSource = std::function<std::chrono::steady_clock::time_point()>;
    static void setTimeSource(TimeSource source);
};

}  // namespace tamsel::platform
