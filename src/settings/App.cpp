#include "settings/App.h"

#include <atomic>
#include <mutex>

#include "platform/BuildConfig.h"
#include "platform/Stores.h"
#include "settings/Keys.h"

#ifndef TAMSEL_BUILD_NUMBER
#define TAMSEL_BUILD_NUMBER ""
#endif

namespace tamsel::settings {
namespace {

std::atomic<bool> macMainApp{false};
std::atomic<bool> macButtonExtension{false};
std::atomic<bool> betaBuild{false};
std::atomic<bool> cloudUpdateDisabled{false};

std::optional<std::string> nonEmpty(const char* text) {
    if (text == nullptr || *text == '\0') return std::nullopt;
    return std::string(text);
}

}  // namespace

bool App::isMacMainApp() { return macMainApp.load(); }
void App::setIsMacMainApp(bool value) { macMainApp.store(value); }
bool App::isMacButtonExtension() { return macButtonExtension.load(); }
void App::setIsMacButtonExtension(bool value) { macButtonExtension.store(value); }
bool App::isBetaBuild() { return betaBuild.load(); }
void App::setIsBetaBuild(bool value) { betaBuild.store(value); }
bool App::isCloudUpdateDisabled() { return cloudUpdateDisabled.load(); }
void App::setIsCloudUpdateDisabled(bool value) { cloudUpdateDisabled.store(value); }

bool App::didLaunchOnce() { return platform::Defaults::standard()->boolValue(Keys::didLaunchAppOnce); }

void App::setDidLaunchOnce(bool value) { platform::Defaults::standard()->set(value, Keys::didLaunchAppOnce); }

platform::Date App::currentBuildFirstLaunchDate(const platform::Clock& clock) {
    // Two threads reading for the first time must not store two different
    // dates; the other processes read after the one that stored it.
    static std::mutex firstReadMutex;
    std::lock_guard lock(firstReadMutex);
    const auto defaults = platform::SharedDefaults::shared();
    if (auto stored = defaults->date(Keys::currentBuildFirstLaunchDate)) return *stored;
    const platform::Date now = clock.now();
    defaults->set(now, Keys::currentBuildFirstLaunchDate);
    return now;
}

bool App::mustShowVisualEditor() {
    return platform::SharedDefaults::shared()->boolValue(Keys::mustShowVisualEditor);
}

void App::setMustShowVisualEditor(bool value) {
    platform::SharedDefaults::shared()->set(value, Keys::mustShowVisualEditor);
}

std::optional<std::string> App::mustShowVisualEditorURL() {
    return platform::SharedDefaults::shared()->string(Keys::mustShowVisualEditorURL);
}

void App::setMustShowVisualEditorURL(const std::optional<std::string>& url) {
    std::optional<platform::Value> value;
    if (url) value = platform::Value(*url);
    platform::SharedDefaults::shared()->set(std::move(value), Keys::mustShowVisualEditorURL);
}

std::optional<std::string> App::version() { return nonEmpty(build::version); }

std::optional<std::string> App::buildNumber() { return nonEmpty(TAMSEL_BUILD_NUMBER); }

std::string App::versionWithBuildNumberString() {
    const auto shortVersion = version();
    const auto build = buildNumber();
    if (shortVersion && build) return *shortVersion + " (" + *build + ")";
    if (shortVersion) return *shortVersion;
    if (build) return "(" + *build + ")";
    return {};
}

}  // namespace tamsel::settings
