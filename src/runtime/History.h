#pragma once

#include "model/ExtensionType.h"
#include "model/Hashing.h"
#include "platform/SafariPage.h"

#include <functional>
#include <memory>
#include <string>

namespace tamsel::runtime {

// One blocked resource as the history keeps it in memory for an open page.
struct History {
    std::shared_ptr<platform::SafariPage> page;  // compared by identity
    std::string url;                            // the blocked resource
    model::ExtensionType extension;             // the content blocker that blocked it

    bool operator==(const History&) const = default;
};

}  // namespace tamsel::runtime

template <>
struct std::hash<tamsel::runtime::History> {
    std::size_t operator()(const tamsel::runtime::History& h) const {
        return tamsel::model::HashBuilder{}
            .add(std::hash<const void*>{}(h.page.get()))
            .add(std::string_view(h.url))
            .add(h.extension)
            .value();
    }
};
