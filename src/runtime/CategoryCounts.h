#pragma once

#include "model/Hashing.h"
#include "runtime/BlockedResource.h"

#include <cstdint>
#include <functional>

namespace tamsel::runtime {

// The three counters of the blocking statistics, folded from per-extension
// counts: ads are what the ads and the regional lists blocked, trackers what
// the tracker list blocked, and others everything else (annoyances, social,
// comments, adult and the user's own rules).
struct CategoryCounts {
    std::int64_t ads = 0;
    std::int64_t trackers = 0;
    std::int64_t others = 0;

    bool operator==(const CategoryCounts&) const = default;
};

CategoryCounts categoryCounts(const ExtensionCounts& counts);

}  // namespace tamsel::runtime

template <>
struct std::hash<tamsel::runtime::CategoryCounts> {
    std::size_t operator()(const tamsel::runtime::CategoryCounts& c) const {
        return tamsel::model::HashBuilder{}.add(c.ads).add(c.trackers).add(c.others).value();
    }
};
