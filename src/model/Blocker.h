#pragma once

#include <functional>

#include "model/Action.h"
#include "model/Hashing.h"
#include "model/Trigger.h"

namespace tamsel::model {

// One Safari content-blocker entry. Its JSON object is the same in package
// files (a rule's "content") and in the Safari JSON files (an array element).
struct Blocker {
    Trigger trigger{};  // rule edits replace it, e.g. to change the domain list
    Action action{};

    bool operator==(const Blocker&) const = default;
};

}  // namespace tamsel::model

template <>
struct std::hash<tamsel::model::Blocker> {
    std::size_t operator()(const tamsel::model::Blocker& blocker) const {
        return tamsel::model::HashBuilder().add(blocker.trigger).add(blocker.action).value();
    }
};
