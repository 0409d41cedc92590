#pragma once

#include "platform/Value.h"

#include <map>
#include <optional>
#include <string>

// The two maps in which the user's switched-off packages and rules are kept,
// and their stored form. A missing entry means "enabled"; switching something
// back on stores false rather than removing the entry, so that another device
// learns about the change instead of keeping its own older true.
namespace tamsel::storage {

// package identifier → true when the package is switched off.
using DisabledPackages = std::map<std::string, bool>;

// package identifier → (rule identifier → true when the rule is switched off).
using DisabledRules = std::map<std::string, std::map<std::string, bool>>;

// The stored dictionary as a package map. A single value that is not a
// boolean makes the whole map unreadable, and an unreadable map counts as
// empty: a half-understood map could switch on what the user switched off
// just as well as the reverse, and "everything enabled" is the documented
// default.
DisabledPackages decodeDisabledPackages(const std::optional<platform::Dictionary>& stored);

// The same for the rule map: every value must be a dictionary of booleans.
DisabledRules decodeDisabledRules(const std::optional<platform::Dictionary>& stored);

platform::Dictionary encode(const DisabledPackages& packages);
platform::Dictionary encode(const DisabledRules& rules);

// Readable forms for the one-time move's trace lines:
// ["block-ads": true, "whitelist": false] and ["p": ["r": true]].
std::string describe(const DisabledPackages& packages);
std::string describe(const DisabledRules& rules);

}  // namespace tamsel::storage
