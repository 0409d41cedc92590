#include "runtime/URLHost.h"

#include <algorithm>
#include <cctype>

namespace tamsel::runtime {

std::optional<std::string> urlHost(std::string_view url) {
    auto colon = url.find(':');
    if (colon == std::string_view::npos || colon == 0) return std::nullopt;
    std::string_view scheme = url.substr(0, colon);
    bool validScheme = std::isalpha(static_cast<unsigned char>(scheme.front())) &&
                       std::all_of(scheme.begin(), scheme.end(), [](char c) {
                           return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
                       });
    if (!validScheme) return std::nullopt;
    std::string_view rest = url.substr(colon + 1);
    if (!rest.starts_with("//")) return std::nullopt;
    rest.remove_prefix(2);
    std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
    if (auto at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);

    std::string_view host;
    if (authority.starts_with('[')) {
        auto close = authority.find(']');
        if (close == std::string_view::npos) return std::nullopt;
        host = authority.substr(1, close - 1);
    } else {
        host = authority.substr(0, authority.find(':'));
    }
    if (host.empty()) return std::nullopt;
    return std::string(host);
}

}  // namespace tamsel::runtime
