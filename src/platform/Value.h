#pragma once

#include <concepts>
#include <cstdint>
#include <expected>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/Clock.h"

// A property-list value: what the key-value stores hold and what signals
// between the processes carry. A value keeps its exact type: a boolean never
// reads back as an integer, an integer never as a boolean.
namespace tamsel::platform {

class Value;

using Data = std::vector<std::uint8_t>;
using Array = std::vector<Value>;
using Dictionary = std::map<std::string, Value>;

class Value {
public:
    // The closed set of kinds, in property-list order.
    enum class Type { boolean, integer, real, string, date, data, array, dictionary };

    // There is no default value on purpose: every stored value has a type.
    // To fill a Dictionary use insert_or_assign/emplace, not operator[].
    Value(bool value) : storage_(value) {}
    template <std::integral T>
        requires(!std::same_as<T, bool>)
    Value(T value) : storage_(static_cast<std::int64_t>(value)) {}
    Value(double value) : storage_(value) {}
    Value(std::string value) : storage_(std::move(value)) {}
    Value(std::string_view value) : storage_(std::string(value)) {}
    // Without this a string literal would silently become a boolean.
    Value(const char* value) : storage_(std::string(value)) {}
    Value(Date value) : storage_(value) {}
    Value(Data value) : storage_(std::move(value)) {}
    Value(Array value) : storage_(std::move(value)) {}
    Value(Dictionary value) : storage_(std::move(value)) {}

    Type type() const { return static_cast<Type>(storage_.index()); }

    bool isBool() const { return type() == Type::boolean; }
    bool isInteger() const { return type() == Type::integer; }
    bool isDouble() const { return type() == Type::real; }
    bool isString() const { return type() == Type::string; }
    bool isDate() const { return type() == Type::date; }
    bool isData() const { return type() == Type::data; }
    bool isArray() const { return type() == Type::array; }
    bool isDictionary() const { return type() == Type::dictionary; }

    // Each accessor answers only for its own type, with one exception:
    // asDouble() also reads an integer, as any number widens to a double.
    std::optional<bool> asBool() const;
    std::optional<std::int64_t> asInteger() const;
    std::optional<double> asDouble() const;
    std::optional<std::string> asString() const;
    std::optional<Date> asDate() const;
    std::optional<Data> asData() const;
    std::optional<Array> asArray() const;
    std::optional<Dictionary> asDictionary() const;

    // The content in place, without a copy; null for another type. T is one
    // of bool, std::int64_t, double, std::string, Date, Data, Array, Dictionary.
    template <class T>
    const T* getIf() const {
        return std::get_if<T>(&storage_);
    }

    // Compares type and content: Value(1) != Value(1.0) != Value(true).
    friend bool operator==(const Value&, const Value&) = default;

    // How deep arrays and dictionaries may nest: a top-level container is at
    // level 1. Everything that walks a value (comparing, hashing, coding,
    // destroying) recurses once per level, so values from outside are held
    // to this limit wherever they enter: fromJSON refuses deeper text, the
    // stores refuse to write deeper values and read deeper stored bytes as
    // unreadable. Far deeper than any setting needs, far shallower than the
    // stack allows.
    static constexpr int maximumDepth = 256;

    // True when containers nest deeper than maximumDepth. Looks no further
    // down than that, so it is safe on any value.
    bool exceedsMaximumDepth() const;

    // JSON text → value. Objects become dictionaries, arrays arrays, integral
    // numbers integers (up to int64), other numbers doubles, true/false
    // booleans, strings strings. JSON null has no property-list form and is
    // an error, as are malformed text and nesting deeper than maximumDepth;
    // the error says what and where.
    static std::expected<Value, std::string> fromJSON(std::string_view json);

    // Compact JSON. Dates are written as ISO 8601 strings, data as base64
    // strings, so they read back as strings; doubles always carry a fraction
    // or exponent so that they read back as doubles. Non-finite doubles,
    // which JSON cannot express, are written as null.
    std::string toJSON() const;

private:
    std::variant<bool, std::int64_t, double, std::string, Date, Data, Array, Dictionary> storage_;

    friend struct std::hash<Value>;
};

std::string_view rawValue(Value::Type type);

// ISO 8601 in UTC: "2024-03-05T12:34:56Z", with ".mmm" milliseconds only
// when the date has a sub-second part.
std::string formatISO8601(Date date);

// Accepts "YYYY-MM-DD", or that with "T" (or a space) and "hh:mm[:ss[.fff…]]"
// followed by "Z", "±hh:mm", "±hhmm" or nothing (read as UTC).
std::optional<Date> parseISO8601(std::string_view text);

// Base64 (standard alphabet, padded), as used for data in JSON.
std::string base64Encode(const Data& data);
std::optional<Data> base64Decode(std::string_view text);

}  // namespace tamsel::platform

template <>
struct std::hash<tamsel::platform::Value> {
    std::size_t operator()(const tamsel::platform::Value& value) const noexcept;
};
