#include "platform/Value.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fmt/format.h>
#include <limits>

namespace tamsel::platform {
namespace {

template <class T>
std::optional<T> alternative(const auto& storage) {
    if (const T* value = std::get_if<T>(&storage)) return *value;
    return std::nullopt;
}

// --- JSON in ---------------------------------------------------------------

namespace od = simdjson::ondemand;

struct JSONReader {
    const char* begin;

    std::string describe(simdjson::error_code error, auto& node) const {
        std::string message = fmt::format("invalid JSON: {}", simdjson::error_message(error));
        const char* location = nullptr;
        if constexpr (requires { node.current_location(); }) {
            if (node.current_location().get(location) == simdjson::SUCCESS && location != nullptr) {
                message += fmt::format(" (near offset {})", location - begin);
            }
        }
        return message;
    }

    // Nesting is refused before the container is entered: the recursion
    // below stays within the limit, and so does simdjson, whose own depth
    // bookkeeping is not checked in release builds.
    std::string tooDeep(od::document& document) const {
        std::string message = fmt::format("invalid JSON: nested deeper than {} levels", Value::maximumDepth);
        const char* location = nullptr;
        if (document.current_location().get(location) == simdjson::SUCCESS && location != nullptr) {
            message += fmt::format(" (near offset {})", location - begin);
        }
        return message;
    }

    // Works on a document (the root) and on a nested value alike: both offer
    // the same typed getters, and only the root may be a scalar. `depth` is
    // the number of containers around the node.
    template <class Node>
    std::expected<Value, std::string> read(Node& node, od::document& document, int depth) {
        od::json_type type;
        if (auto error = node.type().get(type)) return std::unexpected(describe(error, document));
        if ((type == od::json_type::object || type == od::json_type::array) && depth >= Value::maximumDepth) {
            return std::unexpected(tooDeep(document));
        }
        switch (type) {
        case od::json_type::object: {
            od::object object;
            if (auto error = node.get_object().get(object)) return std::unexpected(describe(error, document));
            Dictionary dictionary;
            for (auto field : object) {
                std::string_view key;
                if (auto error = field.unescaped_key().get(key)) return std::unexpected(describe(error, document));
                od::value child;
                if (auto error = field.value().get(child)) return std::unexpected(describe(error, document));
                auto parsed = read(child, document, depth + 1);
                if (!parsed) return parsed;
                dictionary.insert_or_assign(std::string(key), std::move(*parsed));
            }
            return Value(std::move(dictionary));
        }
        case od::json_type::array: {
            od::array array;
            if (auto error = node.get_array().get(array)) return std::unexpected(describe(error, document));
            Array elements;
            for (auto element : array) {
                od::value child;
                if (auto error = element.get(child)) return std::unexpected(describe(error, document));
                auto parsed = read(child, document, depth + 1);
                if (!parsed) return parsed;
                elements.push_back(std::move(*parsed));
            }
            return Value(std::move(elements));
        }
        case od::json_type::number: return readNumber(node, document);
        case od::json_type::string: {
            std::string_view text;
            if (auto error = node.get_string().get(text)) return std::unexpected(describe(error, document));
            return Value(std::string(text));
        }
        case od::json_type::boolean: {
            bool flag = false;
            if (auto error = node.get_bool().get(flag)) return std::unexpected(describe(error, document));
            return Value(flag);
        }
        case od::json_type::null: {
            std::string message = "JSON null has no property-list value";
            const char* location = nullptr;
            if (document.current_location().get(location) == simdjson::SUCCESS && location != nullptr) {
                message += fmt::format(" (near offset {})", location - begin);
            }
            return std::unexpected(message);
        }
        }
        return std::unexpected(std::string("invalid JSON: unknown value type"));
    }

    template <class Node>
    std::expected<Value, std::string> readNumber(Node& node, od::document& document) {
        od::number_type kind;
        if (auto error = node.get_number_type().get(kind)) return std::unexpected(describe(error, document));
        if (kind == od::number_type::signed_integer) {
            std::int64_t integer = 0;
            if (auto error = node.get_int64().get(integer)) return std::unexpected(describe(error, document));
            return Value(integer);
        }
        if (kind == od::number_type::unsigned_integer) {
            // Beyond int64 an integer survives only approximately, as a double.
            std::uint64_t integer = 0;
            if (node.get_uint64().get(integer) == simdjson::SUCCESS) {
                if (integer <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
                    return Value(static_cast<std::int64_t>(integer));
                }
                return Value(static_cast<double>(integer));
            }
        } else {
            double real = 0;
            if (node.get_double().get(real) == simdjson::SUCCESS) return Value(real);
        }
        // Integers wider than 64 bits: simdjson only hands out their text.
        std::string_view token;
        auto raw = node.raw_json_token();
        if constexpr (std::is_same_v<decltype(raw), std::string_view>) {
            token = raw;
        } else if (auto error = std::move(raw).get(token)) {
            return std::unexpected(describe(error, document));
        }
        std::string digits(token.substr(0, token.find_first_of(" \t\r\n,]}")));
        return Value(std::strtod(digits.c_str(), nullptr));
    }
};

// --- JSON out --------------------------------------------------------------

using JSONWriter = rapidjson::Writer<rapidjson::StringBuffer>;

void writeJSON(const Value& value, JSONWriter& writer) {
    switch (value.type()) {
    case Value::Type::boolean: writer.Bool(*value.asBool()); break;
    case Value::Type::integer: writer.Int64(*value.asInteger()); break;
    case Value::Type::real: {
        const double real = *value.asDouble();
        if (std::isfinite(real)) {
            writer.Double(real);
        } else {
            writer.Null();
        }
        break;
    }
    case Value::Type::string: {
        const std::string& text = *value.getIf<std::string>();
        writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
        break;
    }
    case Value::Type::date: {
        const std::string text = formatISO8601(*value.asDate());
        writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
        break;
    }
    case Value::Type::data: {
        const std::string text = base64Encode(*value.getIf<Data>());
        writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
        break;
    }
    case Value::Type::array:
        writer.StartArray();
        for (const Value& element : *value.getIf<Array>()) writeJSON(element, writer);
        writer.EndArray();
        break;
    case Value::Type::dictionary:
        writer.StartObject();
        for (const auto& [key, element] : *value.getIf<Dictionary>()) {
            writer.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
            writeJSON(element, writer);
        }
        writer.EndObject();
        break;
    }
}

// --- ISO 8601 --------------------------------------------------------------

struct Cursor {
    std::string_view text;
    std::size_t position = 0;

    bool atEnd() const { return position >= text.size(); }
    char peek() const { return atEnd() ? '\0' : text[position]; }
    bool consume(char expected) {
        if (peek() != expected) return false;
        ++position;
        return true;
    }
    // Exactly `count` decimal digits.
    std::optional<int> digits(int count) {
        if (position + static_cast<std::size_t>(count) > text.size()) return std::nullopt;
        int result = 0;
        for (int i = 0; i < count; ++i) {
            const char c = text[position + static_cast<std::size_t>(i)];
            if (c < '0' || c > '9') return std::nullopt;
            result = result * 10 + (c - '0');
        }
        position += static_cast<std::size_t>(count);
        return result;
    }
};

constexpr std::string_view base64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

bool Value::exceedsMaximumDepth() const {
    // The levels still allowed below `value`, counting its own.
    const auto exceeds = [](const auto& self, const Value& value, int levelsLeft) -> bool {
        const auto* elements = value.getIf<Array>();
        const auto* entries = value.getIf<Dictionary>();
        if (!elements && !entries) return false;
        if (levelsLeft == 0) return true;
        if (elements) {
            return std::any_of(elements->begin(), elements->end(),
                               [&](const Value& element) { return self(self, element, levelsLeft - 1); });
        }
        return std::any_of(entries->begin(), entries->end(),
                           [&](const auto& entry) { return self(self, entry.second, levelsLeft - 1); });
    };
    return exceeds(exceeds, *this, maximumDepth);
}

std::optional<bool> Value::asBool() const { return alternative<bool>(storage_); }
std::optional<std::int64_t> Value::asInteger() const { return alternative<std::int64_t>(storage_); }
std::optional<double> Value::asDouble() const {
    if (const auto* integer = std::get_if<std::int64_t>(&storage_)) return static_cast<double>(*integer);
    return alternative<double>(storage_);
}
std::optional<std::string> Value::asString() const { return alternative<std::string>(storage_); }
std::optional<Date> Value::asDate() const { return alternative<Date>(storage_); }
std::optional<Data> Value::asData() const { return alternative<Data>(storage_); }
std::optional<Array> Value::asArray() const { return alternative<Array>(storage_); }
std::optional<Dictionary> Value::asDictionary() const { return alternative<Dictionary>(storage_); }

std::expected<Value, std::string> Value::fromJSON(std::string_view json) {
    // The parser keeps buffers sized for the largest document it has seen;
    // one per thread makes repeated parsing cheap without any locking.
    thread_local od::parser parser;
    simdjson::padded_string padded(json);
    JSONReader reader{padded.data()};
    od::document document;
    if (auto error = parser.iterate(padded).get(document)) {
        return std::unexpected(fmt::format("invalid JSON: {}", simdjson::error_message(error)));
    }
    auto value = reader.read(document, document, 0);
    if (!value) return value;
    // Only at the end of the input has the document no current location.
    const char* location = nullptr;
    if (document.current_location().get(location) != simdjson::OUT_OF_BOUNDS) {
        return std::unexpected(reader.describe(simdjson::TRAILING_CONTENT, document));
    }
    return value;
}

std::string Value::toJSON() const {
    rapidjson::StringBuffer buffer;
    JSONWriter writer(buffer);
    writeJSON(*this, writer);
    return std::string(buffer.GetString(), buffer.GetSize());
}

std::string_view rawValue(Value::Type type) {
    switch (type) {
    case Value::Type::boolean: return "boolean";
    case Value::Type::integer: return "integer";
    case Value::Type::real: return "real";
    case Value::Type::string: return "string";
    case Value::Type::date: return "date";
    case Value::Type::data: return "data";
    case Value::Type::array: return "array";
    case Value::Type::dictionary: return "dictionary";
    }
    return "unknown";
}

std::string formatISO8601(Date date) {
    using namespace std::chrono;
    const auto day = floor<days>(date);
    const year_month_day ymd{day};
    const auto sinceMidnight = floor<milliseconds>(date - day);
    const hh_mm_ss<milliseconds> time{sinceMidnight};
    std::string result = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", static_cast<int>(ymd.year()),
                                     static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                                     time.hours().count(), time.minutes().count(), time.seconds().count());
    if (time.subseconds().count() != 0) result += fmt::format(".{:03}", time.subseconds().count());
    result += 'Z';
    return result;
}

std::optional<Date> parseISO8601(std::string_view text) {
    using namespace std::chrono;
    Cursor cursor{text};
    const auto year = cursor.digits(4);
    if (!year || !cursor.consume('-')) return std::nullopt;
    const auto month = cursor.digits(2);
    if (!month || !cursor.consume('-')) return std::nullopt;
    const auto dayOfMonth = cursor.digits(2);
    if (!dayOfMonth) return std::nullopt;
    const year_month_day ymd{std::chrono::year{*year}, std::chrono::month{static_cast<unsigned>(*month)},
                             std::chrono::day{static_cast<unsigned>(*dayOfMonth)}};
    if (!ymd.ok()) return std::nullopt;
    Date result = sys_days{ymd};
    if (cursor.atEnd()) return result;

    if (!cursor.consume('T') && !cursor.consume(' ')) return std::nullopt;
    const auto hour = cursor.digits(2);
    if (!hour || *hour > 23 || !cursor.consume(':')) return std::nullopt;
    const auto minute = cursor.digits(2);
    if (!minute || *minute > 59) return std::nullopt;
    int second = 0;
    nanoseconds fraction{0};
    if (cursor.consume(':')) {
        const auto parsedSecond = cursor.digits(2);
        if (!parsedSecond || *parsedSecond > 59) return std::nullopt;
        second = *parsedSecond;
        if (cursor.consume('.') || cursor.consume(',')) {
            std::int64_t scale = 100'000'000;
            bool anyDigit = false;
            while (cursor.peek() >= '0' && cursor.peek() <= '9') {
                fraction += nanoseconds{(cursor.peek() - '0') * scale};
                scale /= 10;
                ++cursor.position;
                anyDigit = true;
            }
            if (!anyDigit) return std::nullopt;
        }
    }
    result += hours{*hour} + minutes{*minute} + seconds{second};
    result += duration_cast<Date::duration>(fraction);

    if (cursor.atEnd() || cursor.consume('Z') || cursor.consume('z')) {
        return cursor.atEnd() ? std::optional<Date>(result) : std::nullopt;
    }
    const char sign = cursor.peek();
    if (sign != '+' && sign != '-') return std::nullopt;
    ++cursor.position;
    const auto offsetHours = cursor.digits(2);
    if (!offsetHours || *offsetHours > 23) return std::nullopt;
    int offsetMinutes = 0;
    if (!cursor.atEnd()) {
        cursor.consume(':');
        const auto parsed = cursor.digits(2);
        if (!parsed || *parsed > 59) return std::nullopt;
        offsetMinutes = *parsed;
    }
    if (!cursor.atEnd()) return std::nullopt;
    const minutes offset = hours{*offsetHours} + minutes{offsetMinutes};
    // "+02:00" means local time runs ahead of UTC, so UTC is earlier.
    result += sign == '+' ? -offset : offset;
    return result;
}

std::string base64Encode(const Data& data) {
    std::string result;
    result.reserve((data.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= data.size(); i += 3) {
        const std::uint32_t triple = (std::uint32_t{data[i]} << 16) | (std::uint32_t{data[i + 1]} << 8) | data[i + 2];
        result += base64Alphabet[(triple >> 18) & 63];
        result += base64Alphabet[(triple >> 12) & 63];
        result += base64Alphabet[(triple >> 6) & 63];
        result += base64Alphabet[triple & 63];
    }
    const std::size_t rest = data.size() - i;
    if (rest > 0) {
        std::uint32_t triple = std::uint32_t{data[i]} << 16;
        if (rest == 2) triple |= std::uint32_t{data[i + 1]} << 8;
        result += base64Alphabet[(triple >> 18) & 63];
        result += base64Alphabet[(triple >> 12) & 63];
        result += rest == 2 ? base64Alphabet[(triple >> 6) & 63] : '=';
        result += '=';
    }
    return result;
}

std::optional<Data> base64Decode(std::string_view text) {
    while (!text.empty() && text.back() == '=') text.remove_suffix(1);
    if (text.size() % 4 == 1) return std::nullopt;
    Data result;
    result.reserve(text.size() * 3 / 4);
    std::uint32_t accumulator = 0;
    int bits = 0;
    for (const char c : text) {
        const auto index = base64Alphabet.find(c);
        if (index == std::string_view::npos) return std::nullopt;
        accumulator = (accumulator << 6) | static_cast<std::uint32_t>(index);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            result.push_back(static_cast<std::uint8_t>((accumulator >> bits) & 0xFF));
        }
    }
    return result;
}

}  // namespace tamsel::platform

std::size_t std::hash<tamsel::platform::Value>::operator()(const tamsel::platform::Value& value) const noexcept {
    using namespace tamsel::platform;
    auto combine = [](std::size_t seed, std::size_t next) {
        return seed ^ (next + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
    };
    std::size_t seed = std::hash<std::size_t>{}(value.storage_.index());
    std::visit(
        [&](const auto& content) {
            using T = std::decay_t<decltype(content)>;
            if constexpr (std::is_same_v<T, Date>) {
                seed = combine(seed, std::hash<Date::rep>{}(content.time_since_epoch().count()));
            } else if constexpr (std::is_same_v<T, Data>) {
                seed = combine(seed, std::hash<std::string_view>{}(std::string_view(
                                         reinterpret_cast<const char*>(content.data()), content.size())));
            } else if constexpr (std::is_same_v<T, Array>) {
                for (const Value& element : content) seed = combine(seed, (*this)(element));
            } else if constexpr (std::is_same_v<T, Dictionary>) {
                for (const auto& [key, element] : content) {
                    seed = combine(seed, std::hash<std::string>{}(key));
                    seed = combine(seed, (*this)(element));
                }
            } else {
                seed = combine(seed, std::hash<T>{}(content));
            }
        },
        value.storage_);
    return seed;
}
