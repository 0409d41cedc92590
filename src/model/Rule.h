#pragma once

#include <functional>
#include <string>
#include <vector>

#include "model/Blocker.h"
#include "model/ExtensionType.h"
#include "model/Hashing.h"

namespace tamsel::model {

// A named content-blocker entry with an identifier, as the user and the filter
// lists deal in them. Whether a rule is switched off is a user preference and
// not part of this value.
struct Rule {
    std::string id;    // fixed; identifies the rule within its package
    std::string name;  // fixed; display name
    // Meaningful only for whitelist rules (action ignorePreviousRules): the
    // extensions whose blocking the rule switches off; empty means all.
    std::vector<ExtensionType> partialWhitelist;
    Blocker blocker;

    // Keeps `partiallyWhitelistIn` only for a whitelist rule. For any other
    // rule the list is dropped, and a non-empty one is reported on the console
    // with "* Warning * setting partialWhitelist for non-whitelist rule, WTF?".
    // (Decoding does not go through this check: a file's list is kept as is.)
    Rule(std::string id, std::string name, Blocker blocker,
         std::vector<ExtensionType> partiallyWhitelistIn = {});

    // True when this is a whitelist rule that applies to extensions of `type`:
    // its partial whitelist names `type` or is empty.
    bool isWhitelist(ExtensionType type) const;

    bool operator==(const Rule&) const = default;
};

}  // namespace tamsel::model

template <>
struct std::hash<tamsel::model::Rule> {
    std::size_t operator()(const tamsel::model::Rule& rule) const {
        return tamsel::model::HashBuilder()
            .add(rule.id)
            .add(rule.name)
            .add(rule.partialWhitelist)
            .add(rule.blocker)
            .value();
    }
};
