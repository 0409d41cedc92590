#include "platform/ValueCoding.h"

#include <bit>
#include <chrono>
#include <cstdint>

#include <fmt/format.h>

namespace tamsel::platform {
namespace {

void putUInt64(std::string& out, std::uint64_t number) {
    for (int i = 0; i < 8; ++i) out += static_cast<char>((number >> (8 * i)) & 0xFF);
}

void putBytes(std::string& out, std::string_view bytes) {
    putUInt64(out, bytes.size());
    out += bytes;
}

void encodeInto(std::string& out, const Value& value) {
    switch (value.type()) {
    case Value::Type::boolean:
        out += 'b';
        out += *value.asBool() ? '\1' : '\0';
        break;
    case Value::Type::integer:
        out += 'i';
        putUInt64(out, static_cast<std::uint64_t>(*value.asInteger()));
        break;
    case Value::Type::real:
        out += 'r';
        putUInt64(out, std::bit_cast<std::uint64_t>(*value.asDouble()));
        break;
    case Value::Type::string:
        out += 's';
        putBytes(out, *value.getIf<std::string>());
        break;
    case Value::Type::date: {
        // 'u': microseconds since 1970, which hold every Date; 't' (nanoseconds)
        // is only read, from stores written before.
        out += 'u';
        putUInt64(out, static_cast<std::uint64_t>(value.asDate()->time_since_epoch().count()));
        break;
    }
    case Value::Type::data: {
        out += 'd';
        const Data& bytes = *value.getIf<Data>();
        putBytes(out, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
        break;
    }
    case Value::Type::array: {
        out += 'a';
        const Array& elements = *value.getIf<Array>();
        putUInt64(out, elements.size());
        for (const Value& element : elements) encodeInto(out, element);
        break;
    }
    case Value::Type::dictionary: {
        out += 'o';
        const Dictionary& entries = *value.getIf<Dictionary>();
        putUInt64(out, entries.size());
        for (const auto& [key, element] : entries) {
            putBytes(out, key);
            encodeInto(out, element);
        }
        break;
    }
    }
}

struct Decoder {
    std::string_view input;
    std::size_t position = 0;
    bool tooDeep = false;

    std::size_t remaining() const { return input.size() - position; }

    std::optional<std::uint64_t> uint64() {
        if (remaining() < 8) return std::nullopt;
        std::uint64_t number = 0;
        for (int i = 0; i < 8; ++i) {
            number |= std::uint64_t{static_cast<unsigned char>(input[position + static_cast<std::size_t>(i)])}
                      << (8 * i);
        }
        position += 8;
        return number;
    }

    std::optional<std::string_view> bytes() {
        const auto length = uint64();
        if (!length || *length > remaining()) return std::nullopt;
        const auto result = input.substr(position, static_cast<std::size_t>(*length));
        position += result.size();
        return result;
    }

    // `depth`: the number of containers around the value.
    std::optional<Value> value(int depth) {
        if (remaining() < 1) return std::nullopt;
        const char tag = input[position++];
        if ((tag == 'a' || tag == 'o') && depth >= Value::maximumDepth) {
            tooDeep = true;
            return std::nullopt;
        }
        switch (tag) {
        case 'b': {
            if (remaining() < 1) return std::nullopt;
            const char flag = input[position++];
            if (flag != '\0' && flag != '\1') return std::nullopt;
            return Value(flag == '\1');
        }
        case 'i': {
            const auto number = uint64();
            if (!number) return std::nullopt;
            return Value(static_cast<std::int64_t>(*number));
        }
        case 'r': {
            const auto bits = uint64();
            if (!bits) return std::nullopt;
            return Value(std::bit_cast<double>(*bits));
        }
        case 's': {
            const auto text = bytes();
            if (!text) return std::nullopt;
            return Value(std::string(*text));
        }
        case 't': {
            const auto since = uint64();
            if (!since) return std::nullopt;
            const std::chrono::nanoseconds nanos{static_cast<std::int64_t>(*since)};
            return Value(Date(std::chrono::floor<Date::duration>(nanos)));
        }
        case 'u': {
            const auto since = uint64();
            if (!since) return std::nullopt;
            return Value(Date(Date::duration(static_cast<std::int64_t>(*since))));
        }
        case 'd': {
            const auto content = bytes();
            if (!content) return std::nullopt;
            return Value(Data(content->begin(), content->end()));
        }
        case 'a': {
            const auto count = uint64();
            // Every element takes at least two bytes; a larger count is a lie.
            if (!count || *count > remaining() / 2) return std::nullopt;
            Array elements;
            elements.reserve(static_cast<std::size_t>(*count));
            for (std::uint64_t i = 0; i < *count; ++i) {
                auto element = value(depth + 1);
                if (!element) return std::nullopt;
                elements.push_back(std::move(*element));
            }
            return Value(std::move(elements));
        }
        case 'o': {
            const auto count = uint64();
            if (!count || *count > remaining() / 10) return std::nullopt;
            Dictionary entries;
            for (std::uint64_t i = 0; i < *count; ++i) {
                const auto key = bytes();
                if (!key) return std::nullopt;
                auto element = value(depth + 1);
                if (!element) return std::nullopt;
                entries.insert_or_assign(std::string(*key), std::move(*element));
            }
            return Value(std::move(entries));
        }
        default: return std::nullopt;
        }
    }
};

}  // namespace

std::string encodeValue(const Value& value) {
    std::string out;
    encodeInto(out, value);
    return out;
}

std::expected<Value, std::string> decodeValue(std::string_view bytes) {
    Decoder decoder{bytes};
    auto value = decoder.value(0);
    if (decoder.tooDeep) return std::unexpected(fmt::format("nested deeper than {} levels", Value::maximumDepth));
    if (!value || decoder.remaining() != 0) return std::unexpected(std::string("malformed bytes"));
    return std::move(*value);
}

}  // namespace tamsel::platform
