#pragma once

#include <array>
#include <string_view>

#include "model/RawRepresentable.h"

namespace tamsel::model {

// Whether a load comes from the page's own site or from another one; the raw
// strings are Safari's "load-type" values.
enum class LoadType {
    firstParty,  // "first-party"
    thirdParty,  // "third-party"
};

template <>
struct RawValueTable<LoadType> {
    static constexpr std::array<std::string_view, 2> rawValues{"first-party", "third-party"};
};

}  // namespace tamsel::model
