#include "model/EditorValidator.h"

#include <algorithm>

namespace tamsel::model {

bool EditorValidator::isValid(const std::vector<std::string>& domains) {
    return !domains.empty() && std::all_of(domains.begin(), domains.end(), [](const std::string& domain) {
        return isValidDomain(domain);
    });
}

bool EditorValidator::isValidDomain(std::string_view domain) {
    if (domain == "localhost" || domain == "*localhost") return true;
    if (domain.empty() || domain.find('.') == std::string_view::npos) return false;
    if (domain.front() == '.' || domain.back() == '.' || domain.front() == '-' || domain.back() == '-') {
        return false;
    }
    // Safari's only wildcard is a leading one.
    if (domain.find('*', 1) != std::string_view::npos) return false;
    if (domain.find(".*") != std::string_view::npos || domain.find("*.") != std::string_view::npos) return false;
    return std::none_of(forbiddenCharacters.begin(), forbiddenCharacters.end(), [domain](std::string_view character) {
        return domain.find(character) != std::string_view::npos;
    });
}

}  // namespace tamsel::model
