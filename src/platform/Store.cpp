#include "platform/Store.h"

namespace tamsel::platform {

std::optional<Dictionary> Store::dictionary(const std::string& key) const {
    const auto stored = value(key);
    return stored ? stored->asDictionary() : std::nullopt;
}

bool Store::boolValue(const std::string& key) const {
    const auto stored = value(key);
    return stored && stored->asBool().value_or(false);
}

std::optional<std::string> Store::string(const std::string& key) const {
    const auto stored = value(key);
    return stored ? stored->asString() : std::nullopt;
}

std::optional<Date> Store::date(const std::string& key) const {
    const auto stored = value(key);
    return stored ? stored->asDate() : std::nullopt;
}

std::optional<std::int64_t> Store::integer(const std::string& key) const {
    const auto stored = value(key);
    return stored ? stored->asInteger() : std::nullopt;
}

std::optional<double> Store::doubleValue(const std::string& key) const {
    const auto stored = value(key);
    return stored ? stored->asDouble() : std::nullopt;
}

std::optional<Data> Store::data(const std::string& key) const {
    const auto stored = value(key);
    return stored ? stored->asData() : std::nullopt;
}

std::optional<Array> Store::array(const std::string& key) const {
    const auto stored = value(key);
    return stored ? stored->asArray() : std::nullopt;
}

}  // namespace tamsel::platform
