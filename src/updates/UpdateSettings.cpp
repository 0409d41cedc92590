#include "updates/UpdateSettings.h"

#include "platform/Stores.h"

namespace tamsel::updates {

std::optional<std::string> UpdateSettings::filterServerBaseURL() {
    auto stored = platform::SharedDefaults::shared()->string(filterServerBaseURLKey);
    if (stored && !stored->empty()) return stored;
    return std::nullopt;
}

bool UpdateSettings::useLegacyUpdateCheck() {
    return platform::SharedDefaults::shared()->boolValue(useLegacyUpdateCheckKey);
}

std::string UpdateSettings::url(std::string_view base, std::string_view path) {
    while (base.ends_with('/')) base.remove_suffix(1);
    std::string result(base);
    if (!path.starts_with('/')) result += '/';
    result += path;
    return result;
}

}  // namespace tamsel::updates
