#pragma once

namespace tamsel::storage {

class BlockerPreferenceManager;

// Told when the disabled states of packages or rules have changed: after a
// save made through a manager, and when another device changed the package
// map. Managers hold their observer weakly.
class BlockerPreferenceChangesObserver {
public:
    virtual ~BlockerPreferenceChangesObserver() = default;
    virtual void blockerPreferencesDidChange(BlockerPreferenceManager& manager) = 0;
};

}  // namespace tamsel::storage
