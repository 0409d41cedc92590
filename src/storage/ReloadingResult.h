#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <string>
#include <variant>

// The outcome of every save-and-reload of a content-blocker extension, as it
// travels back to whoever asked for it.
namespace tamsel::storage {

// Why an extension could not be reloaded.
struct ReloadingError {
    // Safari answered the reload with an error.
    struct SafariReturnedError {
        std::string domain;
        std::int64_t code = 0;
        std::string description;
        friend bool operator==(const SafariReturnedError&, const SafariReturnedError&) = default;
    };
    // The user has switched the extension off in Safari's settings.
    struct DisabledInSettings {
        friend bool operator==(const DisabledInSettings&, const DisabledInSettings&) = default;
    };

    std::variant<SafariReturnedError, DisabledInSettings> reason;

    static ReloadingError safariReturnedError(std::string domain, std::int64_t code, std::string description) {
        return {SafariReturnedError{std::move(domain), code, std::move(description)}};
    }
    static ReloadingError disabledInSettings() { return {DisabledInSettings{}}; }

    bool isDisabledInSettings() const { return std::holds_alternative<DisabledInSettings>(reason); }
    // Safari's error, when that is the reason.
    const SafariReturnedError* safariError() const { return std::get_if<SafariReturnedError>(&reason); }

    // For logs and alerts: Safari's own description, or a line naming the
    // settings switch.
    std::string description() const {
        if (const auto* error = safariError()) return error->description;
        return "disabled in Settings";
    }

    friend bool operator==(const ReloadingError&, const ReloadingError&) = default;
};

// Success, or the error that ended the reload.
using ReloadingResult = std::expected<void, ReloadingError>;

// An empty function means "no completion".
using ReloadingCompletion = std::function<void(ReloadingResult)>;

}  // namespace tamsel::storage
