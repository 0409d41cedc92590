#pragma once

#include <array>
#include <string_view>

#include "model/RawRepresentable.h"

namespace tamsel::model {

// Whether a trigger's domain list names the only sites it applies on, or the
// sites it never applies on. The raw string is also the trigger's JSON key
// under which the list is written.
enum class DomainFilterType {
    ifDomain,      // "if-domain"
    unlessDomain,  // "unless-domain"
};

template <>
struct RawValueTable<DomainFilterType> {
    static constexpr std::array<std::string_view, 2> rawValues{"if-domain", "unless-domain"};
};

}  // namespace tamsel::model
