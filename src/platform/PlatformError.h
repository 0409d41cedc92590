#pragma once

#include <cstdint>
#include <optional>
#include <string>

// An error as the Apple frameworks hand it over: a domain, a code, a text for
// people and, for some, a help anchor with the precise reason (Safari puts
// the rule-list compiler's message there).
namespace tamsel::platform {

struct PlatformError {
    std::string domain;
    std::int64_t code = 0;
    std::string localizedDescription;
    std::optional<std::string> helpAnchor;

    // What log lines show as the error's description.
    const std::string& description() const { return localizedDescription; }

    // The help anchor when there is one, else the description.
    const std::string& preferredText() const { return helpAnchor ? *helpAnchor : localizedDescription; }

    bool operator==(const PlatformError&) const = default;
};

// "The operation couldn’t be completed. (DOMAIN error CODE.)", as the
// frameworks word an error that has no text of its own.
std::string defaultErrorDescription(const std::string& domain, std::int64_t code);

}  // namespace tamsel::platform
