#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace tamsel::model {

// The one check every domain passes before it goes into a rule's domain list,
// whether the user typed it in an editor or it came from the page in the
// active tab. It accepts what Safari's "if-domain" and "unless-domain" lists
// accept in shape: names with at least one dot, optionally with a leading "*"
// (which also matches subdomains), plus "localhost".
//
// It does not convert anything: Safari wants lower-case ASCII (punycode), so
// page hosts go through domainForHost() (SiteDomain.h), which calls this.
class EditorValidator {
public:
    // The characters no domain may contain, each as UTF-8: the ASCII
    // punctuation !@#$%^&()+=`[]{}\|;:"',~<>?/ and the ellipsis U+2026.
    // "*" and "-" are absent on purpose: they have rules of their own. White
    // space is not rejected.
    static constexpr std::array<std::string_view, 29> forbiddenCharacters{
        "!", "@", "#", "$", "%", "^", "&", "(", ")", "+", "=", "`", "[", "]", "{",
        "}", "\\", "|", ";", ":", "\"", "'", ",", "~", "\u2026", "<", ">", "?", "/"};

    // True when the list is not empty and every domain in it is valid.
    static bool isValid(const std::vector<std::string>& domains);

    // "localhost" and "*localhost" are valid. Anything else must contain a
    // dot; must not begin or end with "." or "-"; may hold "*" only as its
    // first character, and then not directly before a "."; must not contain
    // ".*"; and must contain no forbidden character.
    static bool isValidDomain(std::string_view domain);
};

}  // namespace tamsel::model
