#pragma once

#include "model/ExtensionType.h"
#include "model/Rule.h"
#include "storage/DisabledStateMaps.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

// The compiler's choice of rules, from the disabled states as they stood when
// the selection was made. One selection serves a whole rebuild and answers
// rule by rule, so that rules can be chosen while a file is still being read,
// without gathering its package first.
namespace tamsel::storage {

class EnabledRuleSelection {
public:
    EnabledRuleSelection(DisabledPackages disabledPackages, DisabledRules disabledRules);

    // The choice among one package's rules. Refers to its selection, which
    // must outlive it.
    class PackageRules {
    public:
        bool isPackageEnabled() const { return enabled_; }
        // Whether the rule goes into its own extension's file before the
        // whitelisting entries: the package is enabled and is not the
        // configurable whitelist, the rule is enabled, and it does not
        // whitelist the package's own extension.
        bool takesBlockingRule(const model::Rule& rule) const;
        // Whether the rule is an enabled whitelisting rule of an enabled
        // package that applies to extensions of `type`.
        bool takesWhitelistRule(const model::Rule& rule, model::ExtensionType type) const;

    private:
        friend class EnabledRuleSelection;
        PackageRules(bool enabled, bool feedsBlocking, model::ExtensionType ownType,
                     const std::map<std::string, bool>* disabledRules);
        bool isRuleEnabled(const model::Rule& rule) const;

        bool enabled_;
        bool feedsBlocking_;
        model::ExtensionType ownType_;
        const std::map<std::string, bool>* disabledRules_;  // null: none of its rules is switched off
    };

    PackageRules forPackage(std::string_view packageID) const;

    // What the choice among one package's rules follows from, so that a
    // choice made under another selection can be told to still hold: the
    // package's switch and its rules switched off, nothing else.
    struct PackageState {
        bool enabled = true;
        std::vector<std::string> disabledRuleIDs;  // in order

        bool operator==(const PackageState&) const = default;
    };
    PackageState stateOf(std::string_view packageID) const;

private:
    DisabledPackages disabledPackages_;
    DisabledRules disabledRules_;
};

}  // namespace tamsel::storage
