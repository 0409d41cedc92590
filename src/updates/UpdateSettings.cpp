#include "updates/UpdateSettings.h"

#include "platform/Stores.h"

#ifndef TAMSEL_FILTER_SERVER_URL
#define TAMSEL_FILTER_SERVER_URL "http://127.0.0.1:8765"
#endif

namespace tamsel::updates {

std::string UpdateSettings::defaultFilterServerBaseURL() { return TAMSEL_FILTER_SERVER_URL; }

std::string UpdateSettings::filterServerBaseURL() {
    auto stored = platform::SharedDefaults::shared()->string(filterServerBaseURLKey);
    if (stored && !stored->empty()) return *stored;
    return defaultFilterServerBaseURL();
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
