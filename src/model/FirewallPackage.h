#pragma once

#include <functional>
#include <string>
#include <vector>

#include "model/Hashing.h"

// Firewall lists travel in the downloaded rule set beside the Safari packages.
// This program applies none of them; it only keeps their record format, which
// the other programs of the product share.
namespace tamsel::model {

struct FirewallRule {
    std::string id{};
    std::string host{};  // the host name to block

    bool operator==(const FirewallRule&) const = default;
};

struct FirewallPackage {
    std::string id{};
    std::vector<FirewallRule> rules{};  // order matters for equality

    bool operator==(const FirewallPackage&) const = default;
};

}  // namespace tamsel::model

template <>
struct std::hash<tamsel::model::FirewallRule> {
    std::size_t operator()(const tamsel::model::FirewallRule& rule) const {
        return tamsel::model::HashBuilder().add(rule.id).add(rule.host).value();
    }
};

template <>
struct std::hash<tamsel::model::FirewallPackage> {
    std::size_t operator()(const tamsel::model::FirewallPackage& package) const {
        return tamsel::model::HashBuilder().add(package.id).add(package.rules).value();
    }
};
