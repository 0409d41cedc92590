#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "model/RawRepresentable.h"

// Hashes of the model's values are built field by field, in declaration order,
// over exactly the fields their equality compares. An optional contributes a
// presence marker before its contents and a list its length before its
// elements, so that "absent" and "empty" hash apart just as they compare
// unequal. Enumeration cases hash by their raw strings.
namespace tamsel::model {

class HashBuilder {
public:
    HashBuilder& add(std::string_view text) { return mix(std::hash<std::string_view>{}(text)); }
    HashBuilder& add(bool flag) { return mix(flag ? 0x9e37u : 0x7f4au); }
    HashBuilder& add(std::size_t number) { return mix(std::hash<std::size_t>{}(number)); }

    template <RawRepresentable E>
    HashBuilder& add(E value) {
        return add(rawValue(value));
    }

    // Values with a std::hash of their own (records of the model).
    template <typename T>
        requires(!RawRepresentable<T>) && requires(const T& v) { std::hash<T>{}(v); }
    HashBuilder& add(const T& value) {
        return mix(std::hash<T>{}(value));
    }

    template <typename T>
    HashBuilder& add(const std::vector<T>& list) {
        add(list.size());
        for (const auto& element : list) add(element);
        return *this;
    }

    template <typename T>
    HashBuilder& add(const std::optional<T>& value) {
        add(value.has_value());
        if (value) add(*value);
        return *this;
    }

    std::size_t value() const { return static_cast<std::size_t>(state_); }

private:
    // boost::hash_combine's mixing, widened to 64 bits.
    HashBuilder& mix(std::size_t h) {
        state_ ^= static_cast<std::uint64_t>(h) + 0x9e3779b97f4a7c15ull + (state_ << 6) + (state_ >> 2);
        return *this;
    }

    std::uint64_t state_ = 0;
};

}  // namespace tamsel::model
