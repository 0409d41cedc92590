#include "model/SiteDomain.h"

#include <idn2.h>

#include <algorithm>
#include <memory>

#include "model/EditorValidator.h"

namespace tamsel::model {

namespace {

constexpr std::size_t maximumLabelLength = 63;
constexpr std::size_t maximumNameLength = 253;

bool isASCII(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::string lowerASCII(std::string_view text) {
    std::string lowered(text);
    for (char& c : lowered) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return lowered;
}

std::optional<std::string> punycode(std::string_view host) {
    const std::string input(host);
    char* output = nullptr;
    const int status = idn2_to_ascii_8z(input.c_str(), &output, IDN2_NONTRANSITIONAL | IDN2_NFC_INPUT);
    const std::unique_ptr<char, decltype(&idn2_free)> owned(output, &idn2_free);
    if (status != IDN2_OK || !output) return std::nullopt;
    // The mapping already lower-cases, but ASCII labels beside converted ones
    // pass through libidn2 unchanged in some versions.
    return lowerASCII(output);
}

// Browsers read a host whose last label is a number as an IPv4 address, in
// any of the dotted, short or hexadecimal forms.
bool looksLikeIPAddress(std::string_view host) {
    if (host.find(':') != std::string_view::npos) return true;
    if (host.ends_with('.')) host.remove_suffix(1);
    const auto dot = host.rfind('.');
    std::string_view last = dot == std::string_view::npos ? host : host.substr(dot + 1);
    if (last.empty()) return false;
    if (last.starts_with("0x")) {
        last.remove_prefix(2);
        return std::all_of(last.begin(), last.end(), [](char c) {
            return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
        });
    }
    return std::all_of(last.begin(), last.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Labels of letters, digits, hyphens and underscores between single dots,
// each label 1 to 63 characters and the whole at most 253, as DNS allows; a
// leading "*" (the wildcard form) is not counted. `domain` is lower-case.
bool isDNSName(std::string_view domain) {
    if (domain.starts_with('*')) domain.remove_prefix(1);
    if (domain.empty() || domain.size() > maximumNameLength) return false;
    std::size_t label = 0;
    for (const char c : domain) {
        if (c == '.') {
            if (label == 0) return false;
            label = 0;
            continue;
        }
        const bool allowed = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
        if (!allowed || ++label > maximumLabelLength) return false;
    }
    return label > 0;
}

}  // namespace

std::optional<std::string> domainForHost(std::string_view host) {
    std::string domain;
    if (isASCII(host)) {
        domain = lowerASCII(host);
    } else {
        const bool wildcard = host.starts_with('*');
        auto converted = punycode(wildcard ? host.substr(1) : host);
        if (!converted) return std::nullopt;
        domain = wildcard ? "*" + *converted : std::move(*converted);
    }
    if (!isDNSName(domain) || looksLikeIPAddress(domain) || !EditorValidator::isValidDomain(domain)) {
        return std::nullopt;
    }
    return domain;
}

}  // namespace tamsel::model
