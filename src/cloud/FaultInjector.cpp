#include "cloud/FaultInjector.h"

#include <algorithm>

namespace tamsel::cloud {

void FaultInjector::add(FaultRule rule) {
    std::lock_guard lock(mutex_);
    rules_.push_back(std::move(rule));
}

void FaultInjector::clear() {
    std::lock_guard lock(mutex_);
    rules_.clear();
}

std::optional<FaultRule> FaultInjector::take(const FaultCall& call) {
    auto names = [](const std::vector<std::string>& list, const std::string& wanted) {
        return wanted.empty() || std::ranges::find(list, wanted) != list.end();
    };
    std::lock_guard lock(mutex_);
    for (auto it = rules_.begin(); it != rules_.end(); ++it) {
        if (!it->endpoint.empty() && it->endpoint != call.endpoint) continue;
        if (!it->database.empty() && it->database != call.database) continue;
        if (!names(call.zones, it->zone) || !names(call.recordNames, it->recordName)) continue;
        FaultRule taken = *it;
        if (--it->count <= 0) rules_.erase(it);
        return taken;
    }
    return std::nullopt;
}

}  // namespace tamsel::cloud
