#include "platform/ContentRuleURL.h"

#include <libpsl.h>

#include <array>
#include <charconv>
#include <mutex>

namespace tamsel::platform {
namespace {

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool isSchemeCharacter(char c, bool first) {
    const bool alpha = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (first) return alpha;
    return alpha || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

// Schemes with an authority, and their default ports (0: none).
std::optional<int> specialSchemePort(std::string_view scheme) {
    if (scheme == "http" || scheme == "ws") return 80;
    if (scheme == "https" || scheme == "wss") return 443;
    if (scheme == "ftp") return 21;
    if (scheme == "file") return 0;
    return std::nullopt;
}

void appendEncoded(std::string& out, std::string_view text) {
    constexpr char hex[] = "0123456789ABCDEF";
    size_t start = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte <= 0x7F && byte != ' ') continue;
        out.append(text.substr(start, i - start));
        const char escaped[3] = {'%', hex[byte >> 4], hex[byte & 0xF]};
        out.append(escaped, sizeof escaped);
        start = i + 1;
    }
    out.append(text.substr(start));
}

bool hasControlCharacter(std::string_view text) {
    for (char c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return true;
    return false;
}

constexpr std::array<bool, 256> forbiddenHostCharacters = [] {
    std::array<bool, 256> table{};
    for (unsigned char c : std::string_view(" #%/:<>?@[\\]^|")) table[c] = true;
    for (unsigned c = 0x80; c < 256; ++c) table[c] = true;
    return table;
}();

bool isForbiddenHostCharacter(char c) { return forbiddenHostCharacters[static_cast<unsigned char>(c)]; }

}  // namespace

std::optional<CanonicalURL> canonicalURL(std::string_view url) {
    while (!url.empty() && (url.front() == ' ' || url.front() == '\t')) url.remove_prefix(1);
    while (!url.empty() && (url.back() == ' ' || url.back() == '\t')) url.remove_suffix(1);
    if (url.empty() || hasControlCharacter(url)) return std::nullopt;

    const size_t colon = url.find(':');
    if (colon == std::string_view::npos || colon == 0) return std::nullopt;
    CanonicalURL result;
    for (size_t i = 0; i < colon; ++i) {
        if (!isSchemeCharacter(url[i], i == 0)) return std::nullopt;
        result.scheme += lower(url[i]);
    }
    if (result.scheme == "data") return std::nullopt;
    std::string_view rest = url.substr(colon + 1);

    const auto defaultPort = specialSchemePort(result.scheme);
    // Room for the whole URL, so that it is written without growing.
    result.text.reserve(url.size() + 8);
    if (!defaultPort) {
        if (rest.empty()) return std::nullopt;
        result.text += result.scheme;
        result.text += ':';
        appendEncoded(result.text, rest);
        return result;
    }
    if (!rest.starts_with("//")) return std::nullopt;
    rest.remove_prefix(2);
    const size_t authorityEnd = rest.find_first_of("/?#");
    std::string_view authority = rest.substr(0, authorityEnd);
    std::string_view tail = authorityEnd == std::string_view::npos ? std::string_view{} : rest.substr(authorityEnd);

    std::string_view userinfo;
    if (const size_t at = authority.rfind('@'); at != std::string_view::npos) {
        userinfo = authority.substr(0, at + 1);
        authority.remove_prefix(at + 1);
    }
    std::string_view host = authority;
    std::string_view port;
    if (host.starts_with('[')) {
        const size_t close = host.find(']');
        if (close == std::string_view::npos) return std::nullopt;
        port = host.substr(close + 1);
        host = host.substr(0, close + 1);
        if (!port.empty()) {
            if (port.front() != ':') return std::nullopt;
            port.remove_prefix(1);
        }
    } else if (const size_t portColon = host.rfind(':'); portColon != std::string_view::npos) {
        port = host.substr(portColon + 1);
        host = host.substr(0, portColon);
    }
    if (host.empty() && result.scheme != "file") return std::nullopt;
    if (!host.starts_with('['))
        for (char c : host)
            if (isForbiddenHostCharacter(c)) return std::nullopt;
    result.host.assign(host);
    for (char& c : result.host) c = lower(c);

    std::string portText;
    if (!port.empty()) {
        int number = 0;
        const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
        if (error != std::errc{} || end != port.data() + port.size() || number < 0 || number > 65535)
            return std::nullopt;
        if (number != *defaultPort) {
            portText = ":" + std::to_string(number);
            result.hasPort = true;
        }
    }

    result.text += result.scheme;
    result.text += "://";
    appendEncoded(result.text, userinfo);
    result.text += result.host;
    result.text += portText;
    if (tail.empty() || tail.front() != '/') result.text += '/';
    appendEncoded(result.text, tail);
    return result;
}

std::string registrableDomain(std::string_view host) {
    static std::once_flag once;
    static psl_ctx_t* context = nullptr;
    std::call_once(once, [] {
        context = psl_latest(nullptr);
        if (!context) context = const_cast<psl_ctx_t*>(psl_builtin());
    });
    const std::string text(host);
    if (context) {
        if (const char* domain = psl_registrable_domain(context, text.c_str())) return domain;
    }
    return text;
}

std::optional<std::string> upgradedToSecure(const CanonicalURL& url) {
    if (url.hasPort) return std::nullopt;
    if (url.scheme == "http") return "https" + url.text.substr(4);
    if (url.scheme == "ws") return "wss" + url.text.substr(2);
    return std::nullopt;
}

}  // namespace tamsel::platform
