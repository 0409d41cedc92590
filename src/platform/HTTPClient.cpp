#include "platform/HTTPClient.h"
#include "platform/Text.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <mutex>

namespace tamsel::platform {
namespace {

// curl_global_init is not safe to race with other threads' first requests.
void initialiseCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}


std::mutex timeSourceMutex;
HTTPClient::TimeSource installedTimeSource;

HTTPClient::TimeSource currentTimeSource() {
    std::lock_guard lock(timeSourceMutex);
    if (installedTimeSource) return installedTimeSource;
    return [] { return std::chrono::steady_clock::now(); };
}

struct Transfer {
    const HTTPRequest* request = nullptr;
    const BodyReceiver* receiver = nullptr;
    HTTPClient::TimeSource now = currentTimeSource();
    HTTPResponse response;
    bool receiverRefused = false;
    bool tooLarge = false;
    std::uint64_t received = 0;
    bool stalled = false;
    bool wasCancelled = false;
    curl_off_t lastReceived = -1;
    std::chrono::steady_clock::time_point lastActivity = now();
    double lastFraction = -1;
};

size_t onHeader(char* data, size_t size, size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    const std::string_view line(data, size * count);
    transfer->lastActivity = transfer->now();
    if (line.starts_with("HTTP/")) {
        // A new reply begins (after a redirect or an interim 100): forget the
        // previous one's headers.
        transfer->response.headers.clear();
        return size * count;
    }
    const auto colon = line.find(':');
    if (colon != std::string_view::npos) {
        transfer->response.headers.insert_or_assign(trimmed(line.substr(0, colon)),
                                                    trimmed(line.substr(colon + 1)));
    }
    return size * count;
}

size_t onBody(char* data, size_t size, size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    transfer->lastActivity = transfer->now();
    transfer->received += size * count;
    if (transfer->request->maximumBodySize && transfer->received > *transfer->request->maximumBodySize) {
        transfer->tooLarge = true;
        return 0;  // makes curl stop with CURLE_WRITE_ERROR
    }
    if (*transfer->receiver && !(*transfer->receiver)(std::string_view(data, size * count))) {
        transfer->receiverRefused = true;
        return 0;  // makes curl stop with CURLE_WRITE_ERROR
    }
    return size * count;
}

int onProgress(void* context, curl_off_t downloadTotal, curl_off_t downloaded, curl_off_t, curl_off_t) {
    auto* transfer = static_cast<Transfer*>(context);
    if (transfer->request->isCancelled && transfer->request->isCancelled()) {
        transfer->wasCancelled = true;
        return 1;  // aborts the transfer
    }
    const auto now = transfer->now();
    if (downloaded != transfer->lastReceived) {
        transfer->lastReceived = downloaded;
        transfer->lastActivity = now;
    } else if (now - transfer->lastActivity > transfer->request->timeout) {
        transfer->stalled = true;
        return 1;  // aborts the transfer
    }
    if (transfer->request->progress && downloadTotal > 0) {
        const double fraction = std::min(1.0, static_cast<double>(downloaded) / static_cast<double>(downloadTotal));
        if (fraction != transfer->lastFraction) {
            transfer->lastFraction = fraction;
            transfer->request->progress(fraction);
        }
    }
    return 0;
}

struct CurlDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};

}  // namespace

bool CaseInsensitiveLess::operator()(std::string_view a, std::string_view b) const {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return asciiLower(x) < asciiLower(y);
    });
}

std::optional<std::string> HTTPResponse::header(std::string_view name) const {
    const auto it = headers.find(name);
    if (it == headers.end()) return std::nullopt;
    return it->second;
}

std::string HTTPResponse::description() const {
    std::string text = "HTTP " + std::to_string(status);
    for (const char* name : {"Content-Length", "Last-Modified"}) {
        if (auto value = header(name)) text += std::string(", ") + name + ": " + *value;
    }
    return text;
}

std::expected<HTTPResponse, HTTPError> HTTPClient::perform(const HTTPRequest& request, const BodyReceiver& receiver,
                                                       HTTPResponse* partialResponse) {
    initialiseCurlOnce();
    std::unique_ptr<CURL, CurlDeleter> handle(curl_easy_init());
    if (!handle) return std::unexpected(HTTPError::make(HTTPError::Code::transport, "could not create an HTTP request"));

    Transfer transfer;
    transfer.request = &request;
    transfer.receiver = &receiver;
    char errorBuffer[CURL_ERROR_SIZE] = {};

    CURL* curl = handle.get();
    curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 10L);
    // Worker threads must not get SIGALRM from the resolver's time-outs.
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.timeout.count()));
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &transfer);
    if (request.method == HTTPRequest::Method::head) curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    if (request.method == HTTPRequest::Method::post) {
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    }
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headerList(nullptr, curl_slist_free_all);
    for (const auto& [name, value] : request.headers) {
        const std::string line = name + ": " + value;
        curl_slist* extended = curl_slist_append(headerList.get(), line.c_str());
        if (!extended) return std::unexpected(HTTPError::make(HTTPError::Code::transport, "could not add a header"));
        (void)headerList.release();
        headerList.reset(extended);
    }
    // A post must not wait for "100 Continue".
    if (request.method == HTTPRequest::Method::post) {
        curl_slist* extended = curl_slist_append(headerList.get(), "Expect:");
        if (extended) {
            (void)headerList.release();
            headerList.reset(extended);
        }
    }
    if (headerList) curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headerList.get());
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(request.timeout).count();
    if (!request.streaming) {
        curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, lowSpeedLimit);
        curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, static_cast<long>(std::max<decltype(seconds)>(1, seconds)));
    }
    if (request.totalTimeout) {
        curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(std::max<std::chrono::milliseconds::rep>(
                                                       1, request.totalTimeout->count())));
    }
    if (request.maximumBodySize) {
        curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(*request.maximumBodySize));
    }

    const CURLcode code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &transfer.response.status);
    if (partialResponse) *partialResponse = transfer.response;

    if (code == CURLE_OK) return std::move(transfer.response);
    if (transfer.tooLarge || code == CURLE_FILESIZE_EXCEEDED) {
        return std::unexpected(HTTPError::make(HTTPError::Code::tooLarge,
                                           "The download is larger than the " +
                                               std::to_string(request.maximumBodySize.value_or(0)) +
                                               " bytes allowed for it"));
    }
    if (transfer.receiverRefused) {
        return std::unexpected(HTTPError::make(HTTPError::Code::receiverRefused, "could not keep the received data"));
    }
    if (transfer.wasCancelled) return std::unexpected(HTTPError::make(HTTPError::Code::cancelled, "The request was cancelled."));
    if (transfer.stalled) return std::unexpected(HTTPError::make(HTTPError::Code::transport, "The request timed out."));
    if (code == CURLE_OPERATION_TIMEDOUT) {
        // curl says which limit it was: "Operation timed out after …" or
        // "Operation too slow. Less than … bytes/sec transferred …".
        std::string description = "The request timed out.";
        if (errorBuffer[0] != '\0') description += std::string(" ") + errorBuffer;
        return std::unexpected(HTTPError::make(HTTPError::Code::transport, std::move(description)));
    }
    std::string description = curl_easy_strerror(code);
    if (errorBuffer[0] != '\0') description += std::string(": ") + errorBuffer;
    return std::unexpected(HTTPError::make(HTTPError::Code::transport, std::move(description)));
}

std::expected<std::pair<HTTPResponse, std::string>, HTTPError> HTTPClient::fetch(const HTTPRequest& request,
                                                                            HTTPResponse* partialResponse) {
    std::string body;
    auto response = perform(
        request,
        [&body](std::string_view chunk) {
            body.append(chunk);
            return true;
        },
        partialResponse);
    if (!response) return std::unexpected(std::move(response.error()));
    return std::pair{std::move(*response), std::move(body)};
}

void HTTPClient::setTimeSource(TimeSource source) {
    std::lock_guard lock(timeSourceMutex);
    installedTimeSource = std::move(source);
}

}  // namespace tamsel::platform
