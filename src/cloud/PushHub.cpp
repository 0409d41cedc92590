#include "cloud/PushHub.h"

namespace tamsel::cloud {

std::optional<std::vector<PushEvent>> PushStream::next(std::chrono::milliseconds wait) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, wait, [this] { return closed_ || !pending_.empty(); });
    if (closed_) return std::nullopt;
    std::vector<PushEvent> events;
    for (auto& [key, event] : pending_) events.push_back(std::move(event));
    pending_.clear();
    return events;
}

void PushStream::close() {
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
    }
    changed_.notify_all();
}

void PushStream::add(const std::string& coalescingKey, const PushEvent& event) {
    {
        std::lock_guard lock(mutex_);
        if (closed_) return;
        pending_.insert_or_assign(coalescingKey, event);
    }
    changed_.notify_all();
}

std::shared_ptr<PushStream> PushHub::open(const std::string& scope, const std::string& deviceID) {
    std::lock_guard lock(mutex_);
    if (shutDown_ || streams_.size() >= maximumStreams_) return nullptr;
    auto stream = std::make_shared<PushStream>(scope, deviceID);
    streams_.emplace(scope, stream);
    return stream;
}

void PushHub::remove(const std::shared_ptr<PushStream>& stream) {
    stream->close();
    std::lock_guard lock(mutex_);
    auto [first, last] = streams_.equal_range(stream->scope());
    for (auto it = first; it != last; ++it) {
        if (it->second == stream) {
            streams_.erase(it);
            return;
        }
    }
}

void PushHub::publish(const std::string& scope, const std::string& coalescingKey, const PushEvent& event,
                      const std::string& exceptDevice) {
    std::vector<std::shared_ptr<PushStream>> targets;
    {
        std::lock_guard lock(mutex_);
        auto [first, last] = streams_.equal_range(scope);
        for (auto it = first; it != last; ++it) {
            if (exceptDevice.empty() || it->second->deviceID() != exceptDevice) targets.push_back(it->second);
        }
    }
    for (const auto& stream : targets) stream->add(coalescingKey, event);
}

void PushHub::shutdown() {
    std::multimap<std::string, std::shared_ptr<PushStream>> streams;
    {
        std::lock_guard lock(mutex_);
        shutDown_ = true;
        streams.swap(streams_);
    }
    for (auto& [scope, stream] : streams) stream->close();
}

std::size_t PushHub::streamCount() const {
    std::lock_guard lock(mutex_);
    return streams_.size();
}

void PushHub::setMaximumStreams(std::size_t maximum) {
    std::lock_guard lock(mutex_);
    maximumStreams_ = maximum;
}

}  // namespace tamsel::cloud
