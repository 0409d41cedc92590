#pragma once

#include <cctype>
#include <optional>
#include <string_view>

#include "platform/Text.h"

namespace tamsel::platform {

// The character that a url-filter escape stands for, as WebKit's regular
// expression reader decodes it: control escapes (\f \n \r \t \v, \cX), hex
// (\xHH, \uHHHH; without enough digits the letter itself), octal after \0,
// and \b inside a class (backspace). `pos` is just past the escaped letter
// `e` and moves over what the escape consumes. Any other letter is left to
// the caller (character classes, back references, word boundaries, identity
// escapes): the answer is then empty and `pos` unchanged.
inline std::optional<unsigned> controlEscapeValue(char e, bool inClass, std::string_view pattern, size_t& pos) {
    const auto hex = [&](size_t count, char letter) -> unsigned {
        if (pos + count > pattern.size()) return static_cast<unsigned char>(letter);
        const long value = hexadecimalValue(pattern.substr(pos, count));
        if (value < 0) return static_cast<unsigned char>(letter);
        pos += count;
        return static_cast<unsigned>(value);
    };
    switch (e) {
    case 'b': return inClass ? std::optional<unsigned>(0x08) : std::nullopt;
    case 'f': return '\f';
    case 'n': return '\n';
    case 'r': return '\r';
    case 't': return '\t';
    case 'v': return '\v';
    case 'x': return hex(2, 'x');
    case 'u': return hex(4, 'u');
    case 'c':
        if (pos < pattern.size() && std::isalpha(static_cast<unsigned char>(pattern[pos])))
            return static_cast<unsigned>(pattern[pos++]) % 32;
        --pos;  // "\c" without a letter is a literal backslash followed by 'c'
        return '\\';
    case '0': {
        unsigned value = 0;
        for (int digits = 0; digits < 2 && pos < pattern.size() && pattern[pos] >= '0' && pattern[pos] <= '7';
             ++digits)
            value = value * 8 + static_cast<unsigned>(pattern[pos++] - '0');
        return value;
    }
    default: return std::nullopt;
    }
}

}  // namespace tamsel::platform
