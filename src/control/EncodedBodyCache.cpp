#include "control/EncodedBodyCache.h"

#include <algorithm>

namespace tamsel::control {

bool EncodedBodyCache::Part::statesHold(const storage::EnabledRuleSelection& selection) const {
    return std::all_of(states.begin(), states.end(),
                       [&selection](const auto& state) { return selection.stateOf(state.first) == state.second; });
}

bool EncodedBodyCache::Part::holds(const storage::PackageList& now, std::size_t at,
                                   const storage::EnabledRuleSelection& selection) const {
    if (!list || file || !now || index >= list->size() || at >= now->size()) return false;
    // The same list means the same package; a list read or edited since
    // holds a copy, which is compared by value (identifier, name, rules).
    const bool samePackage = (list == now && index == at) || (*list)[index] == (*now)[at];
    return samePackage && statesHold(selection);
}

bool EncodedBodyCache::Part::holds(const platform::FileStamp& now,
                                   const storage::EnabledRuleSelection& selection) const {
    return file && now.exists && *file == now && statesHold(selection);
}

EncodedBodyCache::Body EncodedBodyCache::body(model::ExtensionType extension) const {
    std::lock_guard lock(mutex_);
    const auto found = bodies_.find(extension);
    return found == bodies_.end() ? Body{} : found->second;
}

void EncodedBodyCache::keep(model::ExtensionType extension, Body body) {
    Body replaced;  // released outside the lock
    std::lock_guard lock(mutex_);
    replaced = std::exchange(bodies_[extension], std::move(body));
}

void EncodedBodyCache::forget(model::ExtensionType extension) {
    Body replaced;
    std::lock_guard lock(mutex_);
    if (const auto found = bodies_.find(extension); found != bodies_.end()) {
        replaced = std::move(found->second);
        bodies_.erase(found);
    }
}

void EncodedBodyCache::forgetAll() {
    std::map<model::ExtensionType, Body> replaced;
    std::lock_guard lock(mutex_);
    replaced.swap(bodies_);
}

}  // namespace tamsel::control
