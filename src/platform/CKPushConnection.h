#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/CKContainer.h"

// This device's push channel from the cloud server: a server-sent-events
// connection to the private database of a container, kept open on a thread
// of its own and opened again after a failure. The server tells it
// "zoneChanged" (a subscribed zone changed on another device; fetch now) and
// "keyValueChanged" (the key-value store changed on another device), never
// about this device's own writes. Events are hints: several changes may
// arrive as one. Without an account nothing is opened.
namespace tamsel::platform {

class CKPushConnection {
public:
    // Called on the connection's thread, one event at a time.
    using Handler = std::function<void(const std::string& kind, const std::string& data)>;

    CKPushConnection(std::shared_ptr<CKTransport> transport, Handler handler);
    ~CKPushConnection();
    CKPushConnection(const CKPushConnection&) = delete;
    CKPushConnection& operator=(const CKPushConnection&) = delete;

    void start();
    // Closes the connection and joins its thread. Idempotent.
    void stop();

    // Waits until the server has confirmed the connection (its "ready"
    // event); false when `timeout` passed first.
    bool waitUntilConnected(std::chrono::milliseconds timeout);
    bool isConnected() const;

    // How long to wait before opening again after a failure.
    std::chrono::milliseconds reconnectDelay{1000};

private:
    void run();
    void connected(bool value);
    void dispatch(const std::string& kind, const std::string& data);

    std::shared_ptr<CKTransport> transport_;
    Handler handler_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool stopping_ = false;
    bool connected_ = false;
    std::thread thread_;
};

}  // namespace tamsel::platform
