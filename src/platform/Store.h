#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Value.h"

// What every key-value store offers: the user-defaults stores (Defaults,
// SharedDefaults) and the ubiquitous store. Keys are texts, values are
// property-list values. All operations are thread-safe.
namespace tamsel::platform {

class Store {
public:
    virtual ~Store() = default;

    // The value stored under `key`, absent when there is none.
    virtual std::optional<Value> value(const std::string& key) const = 0;

    // Stores `value` under `key`; std::nullopt removes the key. Failures to
    // persist are logged, not reported: a setting that cannot be written
    // must not stop the caller.
    virtual void set(std::optional<Value> value, const std::string& key) = 0;

    // Pushes pending changes outwards. The user-defaults stores persist on
    // every set, so for them this does nothing.
    virtual void synchronize() = 0;

    // Every key with its value, at one moment.
    virtual Dictionary dictionaryRepresentation() const = 0;

    // Typed reads. Each is absent (or false, for boolValue) when the key is
    // missing or holds a value of another type.
    std::optional<Dictionary> dictionary(const std::string& key) const;
    bool boolValue(const std::string& key) const;
    std::optional<std::string> string(const std::string& key) const;
    std::optional<Date> date(const std::string& key) const;
    std::optional<std::int64_t> integer(const std::string& key) const;
    std::optional<double> doubleValue(const std::string& key) const;
    std::optional<Data> data(const std::string& key) const;
    std::optional<Array> array(const std::string& key) const;

    void removeObject(const std::string& key) { set(std::nullopt, key); }
};

}  // namespace tamsel::platform
