#pragma once

#include "model/Package.h"
#include "model/Rule.h"
#include "storage/DisabledStateMaps.h"

#include <cstddef>
#include <string_view>

// The disabled-state questions asked of packages and rules. The records
// themselves know nothing of the user's preferences; each question reads the
// stored maps afresh through a new BlockerPreferenceManager.
namespace tamsel::storage {

// Whether the package is switched off; false when it has no entry.
bool isDisabled(const model::Package& package);

// Whether the rule is switched off in `inPackage`; false when either the
// package or the rule has no entry.
bool isDisabled(const model::Rule& rule, const model::Package& inPackage);

// The same question answered from a rule map the caller read once, for loops
// over many rules.
bool isDisabledFast(const model::Rule& rule, std::string_view inPackageID, const DisabledRules& disabledRulesCache);

// How many of the package's rules are switched off, and how many are not.
std::size_t disabledRulesCount(const model::Package& package);
std::size_t disabledRulesCount(const model::Package& package, const DisabledRules& disabledRulesCache);
std::size_t enabledRulesCount(const model::Package& package);
std::size_t enabledRulesCount(const model::Package& package, const DisabledRules& disabledRulesCache);

// Switches the package on: with reload as BlockerPreferenceManager's
// savePreferenceWithReload does (the affected extensions are rebuilt),
// without it only the stored state changes.
void enable(const model::Package& package, bool withReload);

}  // namespace tamsel::storage
