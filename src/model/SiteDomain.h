#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tamsel::model {

// The domain under which the rules of a site are kept, for a page's host or
// a name the user typed; nothing when the host cannot serve as one.
//
// Safari refuses a whole rule list when one of its domains is not lower-case
// ASCII, and every whitelist rule ends up in every extension's file, so one
// bad host would switch off all blocking. Hence, before the EditorValidator
// check that the result must pass:
//  * ASCII letters are lower-cased;
//  * a host with non-ASCII characters is converted label by label to its
//    punycode form (IDNA 2008 with the non-transitional mapping of UTS #46,
//    as browsers do: "Bücher.de" → "xn--bcher-kva.de"); a leading "*" is
//    kept. A host that does not convert (a disallowed character, broken
//    UTF-8) gives nothing;
//  * IP addresses give nothing: a host whose last label is a number
//    ("192.168.0.1", "127.1", "0x7f.1") or that holds a ":" (IPv6);
//  * the result must be a DNS name, or nothing is given: labels of ASCII
//    letters, digits, hyphens and underscores, separated by single dots,
//    each 1 to 63 characters long, the whole (after a leading "*") at most
//    253. So white space, control characters, empty labels ("a..b.com")
//    and oversized names never reach a rule, whatever the EditorValidator,
//    which does not look for them, would say.
// Pure ASCII hosts are not run through the IDNA rules, so names Safari takes
// as they are ("my_host.example.com") stay valid.
std::optional<std::string> domainForHost(std::string_view host);

}  // namespace tamsel::model
