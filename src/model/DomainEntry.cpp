#include "model/DomainEntry.h"

#include <string>

namespace tamsel::model {

namespace {

std::string_view withoutLeadingAsterisk(std::string_view text) {
    if (text.starts_with('*')) text.remove_prefix(1);
    return text;
}

}  // namespace

bool domainEntryMatches(std::string_view entry, std::string_view host) {
    if (!entry.starts_with('*')) return entry == host;
    std::string suffix;
    suffix.reserve(entry.size());
    for (char c : entry) {
        if (c != '*') suffix.push_back(c);
    }
    return host.ends_with(suffix);
}

bool domainEntryNames(std::string_view entry, std::string_view domain) {
    return withoutLeadingAsterisk(entry) == withoutLeadingAsterisk(domain);
}

}  // namespace tamsel::model
