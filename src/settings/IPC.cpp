#include "settings/IPC.h"

#include <array>

#include "platform/Log.h"
#include "platform/Stores.h"
#include "settings/Keys.h"

namespace tamsel::settings {
namespace {

constexpr std::array changedTypes{IPC::ChangedType::whitelist, IPC::ChangedType::makeHTTPS};

}  // namespace

std::string_view rawValue(IPC::ChangedType type) {
    switch (type) {
    case IPC::ChangedType::whitelist: return "whitelist";
    case IPC::ChangedType::makeHTTPS: return "makeHTTPS";
    }
    return {};
}

std::optional<IPC::ChangedType> changedTypeFromRawValue(std::string_view raw) {
    for (const auto type : changedTypes) {
        if (rawValue(type) == raw) return type;
    }
    return std::nullopt;
}

std::span<const IPC::ChangedType> allChangedTypeCases() { return changedTypes; }

const char* IPC::key(ChangedType type) {
    switch (type) {
    case ChangedType::whitelist: return Keys::actionExtensionDidChangeWhitelist;
    case ChangedType::makeHTTPS: return Keys::actionExtensionDidChangeMakeHTTPS;
    }
    return Keys::actionExtensionDidChangeWhitelist;
}

void IPC::send(ChangedType didChange, bool enabled, const std::string& domain) {
    platform::Dictionary signal;
    signal.insert_or_assign("type", platform::Value(rawValue(didChange)));
    signal.insert_or_assign("domain", platform::Value(domain));
    signal.insert_or_assign("enabled", platform::Value(enabled));
    platform::SharedDefaults::shared()->set(platform::Value(std::move(signal)), key(didChange));
}

void IPC::showVisualEditor() {
    platform::SharedDefaults::shared()->set(true, Keys::actionExtensionAsksToShowVisualEditor);
}

void IPC::saveToJSONAndReloadAllExtensions() {
    platform::SharedDefaults::shared()->set(true, Keys::agentAsksToSaveToJSONAndReloadAllExtensions);
}

std::optional<IPC::Change> IPC::getValues(const platform::Dictionary& dictionary) {
    const auto read = [&](const char* name) -> const platform::Value* {
        const auto found = dictionary.find(name);
        return found == dictionary.end() ? nullptr : &found->second;
    };
    std::optional<ChangedType> type;
    std::optional<std::string> domain;
    std::optional<bool> enabled;
    if (const auto* value = read("type")) {
        if (const auto raw = value->asString()) type = changedTypeFromRawValue(*raw);
    }
    if (const auto* value = read("domain")) domain = value->asString();
    if (const auto* value = read("enabled")) enabled = value->asBool();
    if (!type || !domain || !enabled) {
        platform::consolePrint("Error getting values from dict: some value is nil");
        return std::nullopt;
    }
    return Change{*type, *enabled, std::move(*domain)};
}

platform::ObservationToken IPC::makeObserver(const std::string& key, ChangeHandler handler) {
    auto defaults = platform::SharedDefaults::shared();
    // The handler holds the defaults weakly: the token must not keep the
    // store it observes alive.
    std::weak_ptr<platform::UserDefaults> weakDefaults = defaults;
    return defaults->observe(key, [weakDefaults, handler = std::move(handler)](
                                      const std::optional<platform::Value>& newValue) {
        if (auto strong = weakDefaults.lock()) handler(*strong, newValue);
    });
}

}  // namespace tamsel::settings

std::size_t std::hash<tamsel::settings::IPC::Change>::operator()(
    const tamsel::settings::IPC::Change& change) const noexcept {
    std::size_t seed = std::hash<std::string_view>()(tamsel::settings::rawValue(change.type));
    const auto combine = [&seed](std::size_t value) { seed ^= value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2); };
    combine(std::hash<bool>()(change.enabled));
    combine(std::hash<std::string>()(change.domain));
    return seed;
}
