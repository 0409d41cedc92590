#include "platform/CKPushConnection.h"

#include "platform/CKWire.h"
#include "platform/HTTPClient.h"
#include "platform/Log.h"

namespace tamsel::platform {
namespace {

const SystemLogger& logger() {
    static const SystemLogger instance("CloudKit");
    return instance;
}

// Splits a server-sent-events stream into events.
class EventParser {
public:
    explicit EventParser(std::function<void(const std::string&, const std::string&)> onEvent)
        : onEvent_(std::move(onEvent)) {}

    void feed(std::string_view chunk) {
        buffer_.append(chunk);
        std::size_t end;
        while ((end = buffer_.find('\n')) != std::string::npos) {
            std::string line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (line.empty()) {
                if (!kind_.empty() || !data_.empty()) onEvent_(kind_.empty() ? "message" : kind_, data_);
                kind_.clear();
                data_.clear();
            } else if (line.starts_with("event:")) {
                kind_ = line.substr(line.size() > 6 && line[6] == ' ' ? 7 : 6);
            } else if (line.starts_with("data:")) {
                if (!data_.empty()) data_ += '\n';
                data_ += line.substr(line.size() > 5 && line[5] == ' ' ? 6 : 5);
            }
            // Comments (":") keep the connection alive and say nothing.
        }
    }

private:
    std::function<void(const std::string&, const std::string&)> onEvent_;
    std::string buffer_;
    std::string kind_;
    std::string data_;
};

}  // namespace

CKPushConnection::CKPushConnection(std::shared_ptr<CKTransport> transport, Handler handler)
    : transport_(std::move(transport)), handler_(std::move(handler)) {}

CKPushConnection::~CKPushConnection() { stop(); }

void CKPushConnection::start() {
    std::lock_guard lock(mutex_);
    if (thread_.joinable()) return;
    stopping_ = false;
    thread_ = std::thread([this] { run(); });
}

void CKPushConnection::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) thread_.join();
}

bool CKPushConnection::waitUntilConnected(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [this] { return connected_; });
}

bool CKPushConnection::isConnected() const {
    std::lock_guard lock(mutex_);
    return connected_;
}

void CKPushConnection::connected(bool value) {
    {
        std::lock_guard lock(mutex_);
        connected_ = value;
    }
    changed_.notify_all();
}

void CKPushConnection::dispatch(const std::string& kind, const std::string& data) {
    if (kind == "ready") {
        connected(true);
        return;
    }
    if (handler_) handler_(kind, data);
}

void CKPushConnection::run() {
    auto stopping = [this] {
        std::lock_guard lock(mutex_);
        return stopping_;
    };
    while (!stopping()) {
        auto account = transport_->account();
        if (account) {
            HTTPRequest request{transport_->url(*account, false, "notifications"), HTTPRequest::Method::get,
                                std::chrono::seconds(60), {}};
            request.streaming = true;
            request.headers = {{"Authorization", "Bearer " + account->token},
                               {std::string(ckwire::deviceIDHeader), transport_->deviceID()}};
            request.isCancelled = stopping;
            EventParser parser([this](const std::string& kind, const std::string& data) { dispatch(kind, data); });
            auto result = HTTPClient::perform(request, [&parser](std::string_view chunk) {
                parser.feed(chunk);
                return true;
            });
            connected(false);
            if (stopping()) break;
            if (!result) {
                logger().debug("Push connection closed: %s", result.error().description.c_str());
            } else if (result->status != 200) {
                logger().error("The push connection was refused with status %ld", result->status);
            }
        }
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, reconnectDelay, [this] { return stopping_; });
    }
}

}  // namespace tamsel::platform
