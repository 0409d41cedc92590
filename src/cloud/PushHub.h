#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// The devices that hold a push connection, and what each still has to be
// told. Events are coalesced per device: a zone that changes ten times before
// the device reads is one event. An event never goes to the device that
// caused it.
namespace tamsel::cloud {

struct PushEvent {
    std::string kind;  // "zoneChanged", "keyValueChanged"
    std::string data;  // JSON
};

class PushStream {
public:
    PushStream(std::string scope, std::string deviceID) : scope_(std::move(scope)), deviceID_(std::move(deviceID)) {}

    // The pending events, once there is one or `wait` has passed (then
    // empty); none once the stream is closed.
    std::optional<std::vector<PushEvent>> next(std::chrono::milliseconds wait);
    void close();

    const std::string& scope() const { return scope_; }
    const std::string& deviceID() const { return deviceID_; }

private:
    friend class PushHub;
    void add(const std::string& coalescingKey, const PushEvent& event);

    const std::string scope_;
    const std::string deviceID_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, PushEvent> pending_;
    bool closed_ = false;
};

class PushHub {
public:
    // None when `maximumStreams` are open already.
    std::shared_ptr<PushStream> open(const std::string& scope, const std::string& deviceID);
    void remove(const std::shared_ptr<PushStream>& stream);
    // Tells every stream of `scope` except those of `exceptDevice`.
    void publish(const std::string& scope, const std::string& coalescingKey, const PushEvent& event,
                 const std::string& exceptDevice);
    // Closes every stream; later opens fail.
    void shutdown();
    std::size_t streamCount() const;

    void setMaximumStreams(std::size_t maximum);

private:
    mutable std::mutex mutex_;
    std::multimap<std::string, std::shared_ptr<PushStream>> streams_;
    std::size_t maximumStreams_ = 64;
    bool shutDown_ = false;
};

}  // namespace tamsel::cloud
