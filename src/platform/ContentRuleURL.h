#pragma once

#include <optional>
#include <string>
#include <string_view>

// URLs as WebKit's content blockers see them. Rules are matched against the
// canonical text of a URL, and first/third party is decided by registrable
// domains from the public-suffix list.
namespace tamsel::platform {

struct CanonicalURL {
    std::string text;    // scheme and host lower-cased, default port dropped, "/" for an empty path
    std::string scheme;  // lower-case, without ':'
    std::string host;    // lower-case; empty for URLs without an authority (about:, blob:, ...)
    bool hasPort = false;  // an explicit port other than the scheme's default

    bool operator==(const CanonicalURL&) const = default;
};

// The canonical form of `url`, or nothing for an invalid URL and for a
// `data:` URL (neither is ever evaluated against a rule list). Bytes outside
// ASCII and spaces are percent-encoded, as a browser sends them.
std::optional<CanonicalURL> canonicalURL(std::string_view url);

// The registrable domain (eTLD+1) of a lower-case host by the system's
// public-suffix list; the host itself when it has none (a public suffix, an
// IP address, a single label).
std::string registrableDomain(std::string_view host);

// `url` with an http or ws scheme and no explicit port upgraded to https or
// wss; nothing when make-https leaves it alone.
std::optional<std::string> upgradedToSecure(const CanonicalURL& url);

}  // namespace tamsel::platform
