#pragma once

#include <optional>
#include <string>

#include "platform/Clock.h"

// What this process is, how it was built, and the few stored values that
// belong to the application as a whole. Everything is type-level.
namespace tamsel::settings {

class App {
public:
    // Process kind. Each is false at start; the owning process sets it once,
    // early, and never clears it.
    static bool isMacMainApp();
    static void setIsMacMainApp(bool value);
    static bool isMacButtonExtension();
    static void setIsMacButtonExtension(bool value);

    // Build flags, held in memory.
    static bool isBetaBuild();
    static void setIsBetaBuild(bool value);
    static bool isCloudUpdateDisabled();
    static void setIsCloudUpdateDisabled(bool value);

    // "DidLaunchAppOnce" in Defaults; false when missing.
    static bool didLaunchOnce();
    static void setDidLaunchOnce(bool value);

    // "currentBuildFirstLaunchDateKey" in SharedDefaults. The first read
    // finds no date, stores `clock.now()` and returns it; every later read
    // returns that same date.
    static platform::Date currentBuildFirstLaunchDate(const platform::Clock& clock = platform::Clock::system());

    // "mustShowVisualEditorKey" in SharedDefaults; false when missing.
    static bool mustShowVisualEditor();
    static void setMustShowVisualEditor(bool value);

    // "mustShowVisualEditorURLKey" in SharedDefaults: the URL's absolute
    // string. Setting none removes the key.
    static std::optional<std::string> mustShowVisualEditorURL();
    static void setMustShowVisualEditorURL(const std::optional<std::string>& url);

    // From the build: the short version ("0.1.0") and the build number.
    static std::optional<std::string> version();
    static std::optional<std::string> buildNumber();
    // "0.1.0 (42)" for reports; whichever part is missing is left out.
    static std::string versionWithBuildNumberString();
};

}  // namespace tamsel::settings
