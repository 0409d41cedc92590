#include "ui/FeedbackMail.h"

#include <fmt/format.h>

#include "platform/Stores.h"
#include "platform/UUID.h"
#include "settings/App.h"
#include "settings/Device.h"
#include "storage/PackagePreferences.h"
#include "ui/Texts.h"
#include "updates/UpdateSettings.h"

namespace tamsel::ui {

std::string FeedbackMail::diagnosticBlock(const std::optional<std::string>& pageURL,
                                          const std::vector<PackageGroup>& groups) {
    const auto shared = platform::SharedDefaults::shared();
    std::string block = commonUIText("app-name") + " " + settings::App::version().value_or("") + " (Build " +
                        settings::App::buildNumber().value_or("") + ")";
    block += "\nmacOS " + settings::Device::systemVersion();
    if (const auto model = settings::Device::model()) block += "\nDevice model: " + *model;
    if (const auto version = shared->string(updates::UpdateSettings::localVersionKey)) {
        block += "\nRule version: " + *version;
    }
    block += "\nUID: " + userIdentifier();
    if (const auto original = shared->string("originalAppVersion")) block += "\nOriginal app version: " + *original;
    block += "\nSent from: Toolbar Extension";
    if (pageURL) block += "\nPage URL: " + *pageURL;
    for (const PackageGroup& group : groups) {
        block += "\n\n" + uppercased(group.title);
        for (const model::Package& package : group.packages) {
            block += "\n" + package.displayName() + (storage::isDisabled(package) ? " [off]" : " [on]");
        }
    }
    return block;
}

std::string FeedbackMail::percentEncodedQueryValue(std::string_view text) {
    static constexpr std::string_view kept = "-._~!$'()*,;:@/?";
    std::string encoded;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const bool alphanumeric = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (alphanumeric || kept.find(c) != std::string_view::npos) {
            encoded += c;
        } else {
            encoded += fmt::format("%{:02X}", byte);
        }
    }
    return encoded;
}

std::optional<std::string> FeedbackMail::link(std::string_view address, std::string_view body) {
    const auto at = address.find('@');
    const bool plausible = at != std::string_view::npos && at > 0 && at + 1 < address.size() &&
                           address.find_first_of(" \t\r\n?&#<>\"") == std::string_view::npos;
    if (!plausible) return std::nullopt;
    return "mailto:" + std::string(address) + "?subject=" + percentEncodedQueryValue(subject) +
           "&body=" + percentEncodedQueryValue(body);
}

std::string FeedbackMail::userIdentifier() {
    const auto shared = platform::SharedDefaults::shared();
    const std::string key(userIdentifierKey);
    if (auto stored = shared->string(key); stored && !stored->empty()) return *stored;
    std::string made = platform::newUUIDString();
    shared->set(platform::Value(made), key);
    return made;
}

}  // namespace tamsel::ui
