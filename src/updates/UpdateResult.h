#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "model/RawRepresentable.h"
#include "updates/UpdateError.h"

// The outcome of one update check, as handed to the caller.
namespace tamsel::updates {

struct UpdateResult {
    enum class Kind {
        error,              // the check or the install failed
        success,            // a new archive was installed
        noNewUpdates,       // the installed version equals the server's
        currentlyUpdating,  // a check was already running; nothing was done
    };

    Kind kind = Kind::success;
    // Set for `error`.
    std::optional<Error> error;

    static UpdateResult failure(Error error) { return {Kind::error, std::move(error)}; }
    static UpdateResult of(Kind kind) { return {kind, std::nullopt}; }

    // The kind's raw value, or for an error "error: " and its description.
    std::string description() const;

    friend bool operator==(const UpdateResult&, const UpdateResult&) = default;
};

}  // namespace tamsel::updates

namespace tamsel::model {
template <>
struct RawValueTable<updates::UpdateResult::Kind> {
    static constexpr std::array<std::string_view, 4> rawValues{"error", "success", "noNewUpdates",
                                                               "currentlyUpdating"};
};
}  // namespace tamsel::model
