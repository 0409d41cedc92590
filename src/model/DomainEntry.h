#pragma once

#include <string_view>

// How the entries of a rule's domain list ("example.com", "*example.com") are
// compared with a page's host and with each other.
namespace tamsel::model {

// Whether the entry covers the host, as Safari reads a domain list: an entry
// with a leading "*" matches every host that ends with the entry without its
// asterisks (a plain suffix test, so "*ample.com" matches "example.com"); any
// other entry matches only the identical host (case-sensitive).
bool domainEntryMatches(std::string_view entry, std::string_view host);

// Whether the entry names the domain itself, a leading "*" ignored on either
// side: "*example.com" and "example.com" name the same domain, while
// "www.example.com" does not. This is how the whitelist finds the rule that
// already lists a domain, as opposed to one that merely covers it.
bool domainEntryNames(std::string_view entry, std::string_view domain);

}  // namespace tamsel::model
