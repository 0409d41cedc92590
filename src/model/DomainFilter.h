#pragma once

#include <functional>
#include <string>
#include <vector>

#include "model/DomainFilterType.h"
#include "model/Hashing.h"

namespace tamsel::model {

// The sites a trigger is limited to (ifDomain) or excluded from (unlessDomain).
// Values are domains as Safari expects them: lower-case punycode, optionally
// with a leading "*" for subdomains. Nothing here validates them.
struct DomainFilter {
    DomainFilterType type = DomainFilterType::ifDomain;  // fixed at construction
    std::vector<std::string> values{};

    bool operator==(const DomainFilter&) const = default;
};

}  // namespace tamsel::model

template <>
struct std::hash<tamsel::model::DomainFilter> {
    std::size_t operator()(const tamsel::model::DomainFilter& filter) const {
        return tamsel::model::HashBuilder().add(filter.type).add(filter.values).value();
    }
};
