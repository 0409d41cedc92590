#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "model/DomainFilter.h"
#include "model/Hashing.h"
#include "model/LoadType.h"
#include "model/ResourceType.h"

namespace tamsel::model {

// Which loads a content-blocker entry matches. Plain value; nothing is
// validated or normalised on construction.
//
// The optional lists are three-state on purpose: an absent list ("any") and a
// present empty list are different triggers, are written differently, and
// compare unequal.
struct Trigger {
    std::string urlFilter{};  // the url-filter regular expression
    // JSON input without the key decodes as true; this default only serves
    // code that builds triggers by hand and says nothing.
    bool caseSensitive = false;
    std::optional<std::vector<ResourceType>> resourceTypes{};
    std::optional<std::vector<LoadType>> loadType{};
    // A filter whose value list is empty is not written to JSON at all, so it
    // reads back as no filter.
    std::optional<DomainFilter> domainFilter{};

    bool operator==(const Trigger&) const = default;
};

}  // namespace tamsel::model

template <>
struct std::hash<tamsel::model::Trigger> {
    std::size_t operator()(const tamsel::model::Trigger& trigger) const {
        return tamsel::model::HashBuilder()
            .add(trigger.urlFilter)
            .add(trigger.caseSensitive)
            .add(trigger.resourceTypes)
            .add(trigger.loadType)
            .add(trigger.domainFilter)
            .value();
    }
};
