#pragma once

#include "model/ExtensionType.h"
#include "model/Hashing.h"
#include "platform/Clock.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace tamsel::runtime {

// One stored record of a blocked resource. Every attribute is optional, as in
// the stored entity; records written by this program always carry all of
// them except `pageDomain`, which is absent when the page URL has no host.
struct BlockedResource {
    std::optional<std::string> id;           // a random UUID, upper-case text
    std::optional<platform::Date> date;      // when the record was created
    std::optional<std::string> extensionID;  // the ExtensionType's raw value
    std::optional<std::string> blockedURL;
    std::optional<std::string> pageURL;
    std::optional<std::string> pageDomain;

    bool operator==(const BlockedResource&) const = default;
};

// Blocked-resource counts per content-blocker extension. Extensions without
// records are absent rather than zero.
using ExtensionCounts = std::map<model::ExtensionType, std::int64_t>;

// The sum of every extension's count.
std::int64_t total(const ExtensionCounts& counts);

}  // namespace tamsel::runtime

template <>
struct std::hash<tamsel::runtime::BlockedResource> {
    std::size_t operator()(const tamsel::runtime::BlockedResource& r) const {
        std::optional<std::size_t> date;
        if (r.date) date = static_cast<std::size_t>(r.date->time_since_epoch().count());
        return tamsel::model::HashBuilder{}
            .add(r.id).add(date).add(r.extensionID).add(r.blockedURL).add(r.pageURL).add(r.pageDomain)
            .value();
    }
};
