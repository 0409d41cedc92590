#pragma once

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>

// Small text helpers for ASCII protocol text (header names, identifiers,
// zone names). They never look at the process's locale.
namespace tamsel::platform {

inline char asciiLower(char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

inline std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), asciiLower);
    return text;
}

inline bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Without leading and trailing white space.
inline std::string trimmed(std::string_view text) {
    const auto first = std::find_if_not(text.begin(), text.end(), isSpace);
    const auto last = std::find_if_not(text.rbegin(), text.rend(), isSpace).base();
    return first < last ? std::string(first, last) : std::string();
}

// The number `digits` spell in hexadecimal; -1 when one of them is no
// hexadecimal digit.
inline long hexadecimalValue(std::string_view digits) {
    long value = 0;
    for (char c : digits) {
        const int digit = c >= '0' && c <= '9' ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : -1;
        if (digit < 0) return -1;
        value = value * 16 + digit;
    }
    return value;
}

inline bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return std::ranges::equal(a, b, [](char x, char y) { return asciiLower(x) == asciiLower(y); });
}

}  // namespace tamsel::platform
