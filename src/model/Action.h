#pragma once

#include <functional>
#include <optional>
#include <string>

#include "model/ActionType.h"
#include "model/Hashing.h"

namespace tamsel::model {

// What a content-blocker entry does. Any action may carry a selector (only
// hide actions use one); it is written to JSON whenever present.
struct Action {
    ActionType type = ActionType::block;
    std::optional<std::string> selector{};

    bool operator==(const Action&) const = default;
};

}  // namespace tamsel::model

template <>
struct std::hash<tamsel::model::Action> {
    std::size_t operator()(const tamsel::model::Action& action) const {
        return tamsel::model::HashBuilder().add(action.type).add(action.selector).value();
    }
};
