#include "storage/DisabledStateMaps.h"

#include <fmt/format.h>

namespace tamsel::storage {

namespace {

std::optional<std::map<std::string, bool>> booleansOf(const platform::Dictionary& dictionary) {
    std::map<std::string, bool> result;
    for (const auto& [key, value] : dictionary) {
        const auto flag = value.asBool();
        if (!flag) return std::nullopt;
        result.emplace(key, *flag);
    }
    return result;
}

platform::Dictionary encodeBooleans(const std::map<std::string, bool>& map) {
    platform::Dictionary result;
    for (const auto& [key, flag] : map) result.insert_or_assign(key, platform::Value(flag));
    return result;
}

std::string describeBooleans(const std::map<std::string, bool>& map) {
    if (map.empty()) return "[:]";
    std::string text = "[";
    for (auto it = map.begin(); it != map.end(); ++it) {
        if (it != map.begin()) text += ", ";
        text += fmt::format("\"{}\": {}", it->first, it->second);
    }
    return text + "]";
}

}  // namespace

DisabledPackages decodeDisabledPackages(const std::optional<platform::Dictionary>& stored) {
    if (!stored) return {};
    return booleansOf(*stored).value_or(DisabledPackages{});
}

DisabledRules decodeDisabledRules(const std::optional<platform::Dictionary>& stored) {
    if (!stored) return {};
    DisabledRules result;
    for (const auto& [packageID, value] : *stored) {
        const auto inner = value.asDictionary();
        if (!inner) return {};
        auto rules = booleansOf(*inner);
        if (!rules) return {};
        result.emplace(packageID, std::move(*rules));
    }
    return result;
}

platform::Dictionary encode(const DisabledPackages& packages) { return encodeBooleans(packages); }

platform::Dictionary encode(const DisabledRules& rules) {
    platform::Dictionary result;
    for (const auto& [packageID, inner] : rules) {
        result.insert_or_assign(packageID, platform::Value(encodeBooleans(inner)));
    }
    return result;
}

std::string describe(const DisabledPackages& packages) { return describeBooleans(packages); }

std::string describe(const DisabledRules& rules) {
    if (rules.empty()) return "[:]";
    std::string text = "[";
    for (auto it = rules.begin(); it != rules.end(); ++it) {
        if (it != rules.begin()) text += ", ";
        text += fmt::format("\"{}\": {}", it->first, describeBooleans(it->second));
    }
    return text + "]";
}

}  // namespace tamsel::storage
