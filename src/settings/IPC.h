#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/UserDefaults.h"
#include "platform/Value.h"

// Signals between the host application, the agent and this extension.
//
// There is no notification service between the processes: the sender writes
// a value under a well-known key of SharedDefaults, and every process that
// observes that key (makeObserver) is called with the new value. A signal
// carries its whole content in the value, so the receiver reads no other key.
namespace tamsel::settings {

class IPC {
public:
    // What the toolbar extension changed for a site.
    enum class ChangedType { whitelist, makeHTTPS };

    // The content of a change signal.
    struct Change {
        ChangedType type;
        bool enabled;
        std::string domain;

        friend bool operator==(const Change&, const Change&) = default;
    };

    // The SharedDefaults key of a change signal:
    // "actionExtensionDidChangeWhitelist" or "actionExtensionDidChangeMakeHTTPS".
    static const char* key(ChangedType type);

    // Writes {"type": raw value, "domain": domain, "enabled": enabled} under
    // the key of `didChange`.
    static void send(ChangedType didChange, bool enabled, const std::string& domain);

    // Writes true under "actionExtensionAsksToShowVisualEditor".
    static void showVisualEditor();

    // Writes true under "agentAsksToSaveToJSONAndReloadAllExtensions".
    static void saveToJSONAndReloadAllExtensions();

    // Reads a change signal back. A missing or mistyped value, or a type that
    // is neither raw value, gives nothing and prints
    // "Error getting values from dict: some value is nil".
    static std::optional<Change> getValues(const platform::Dictionary& dictionary);

    // Called with the defaults object and the key's new value (none after a
    // removal), on the store's observation thread.
    using ChangeHandler = std::function<void(platform::UserDefaults& defaults,
                                             const std::optional<platform::Value>& newValue)>;

    // Observes `key` of SharedDefaults, in this and in the other processes,
    // for as long as the token lives.
    [[nodiscard]] static platform::ObservationToken makeObserver(const std::string& key, ChangeHandler handler);
};

// "whitelist", "makeHTTPS".
std::string_view rawValue(IPC::ChangedType type);
std::optional<IPC::ChangedType> changedTypeFromRawValue(std::string_view raw);
std::span<const IPC::ChangedType> allChangedTypeCases();

}  // namespace tamsel::settings

template <>
struct std::hash<tamsel::settings::IPC::Change> {
    std::size_t operator()(const tamsel::settings::IPC::Change& change) const noexcept;
};
