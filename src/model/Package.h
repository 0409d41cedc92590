#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "model/ExtensionType.h"
#include "model/Hashing.h"
#include "model/PackageCategory.h"
#include "model/Rule.h"
#include "platform/Clock.h"

namespace tamsel::model {

using Date = platform::Date;

// A named, ordered collection of rules: one filter list or one of the user's
// own lists. A plain value: every edit produces a new package (with a fresh
// creation date) instead of changing this one.
struct Package {
    std::string id;  // well-known identifiers decide type and category
    std::string name;
    std::vector<Rule> rules;
    Date createdAt;  // not part of equality

    // Without a date, createdAt is the current time.
    Package(std::string id, std::string name, std::vector<Rule> rules,
            std::optional<Date> createdDate = std::nullopt);

    // The extension this package feeds, decided by its identifier alone:
    // an extension type's raw string gives that type, a regional list's
    // identifier gives regionalRules, anything else customRules.
    ExtensionType type() const;
    PackageCategory category() const;

    // One of the five packages the user fills from the popover and editors.
    bool isConfigurable() const;
    // The configurable whitelist package ("whitelist").
    bool isConfigurableWhitelist() const;

    // The localised name of a well-known package, else the package's own name.
    std::string displayName() const;

    // A new package whose rule with the same id as `rule` is replaced by it in
    // place, or with `rule` appended when no rule has that id.
    Package packageBySettingRule(const Rule& rule) const;

    // A new package without the rule at `index`; the caller guarantees that
    // `index` is a valid position.
    Package packageByRemovingRuleAtIndex(std::size_t index) const;

    // Compares id, name and rules; createdAt takes no part.
    bool operator==(const Package& other) const {
        return id == other.id && name == other.name && rules == other.rules;
    }
};

}  // namespace tamsel::model

template <>
struct std::hash<tamsel::model::Package> {
    std::size_t operator()(const tamsel::model::Package& package) const {
        return tamsel::model::HashBuilder().add(package.id).add(package.name).add(package.rules).value();
    }
};
