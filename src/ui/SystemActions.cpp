#include "ui/SystemActions.h"

#include "platform/Log.h"

namespace tamsel::ui {

void PrintingSystemActions::launchApplication(const std::string& bundleIdentifier) {
    platform::consolePrint("Would launch " + bundleIdentifier);
}

void PrintingSystemActions::openInBrowser(const std::string& url) { platform::consolePrint("Would open " + url); }

void PrintingSystemActions::openMailLink(const std::string& mailtoURL) {
    platform::consolePrint("Would open mail " + mailtoURL);
}

}  // namespace tamsel::ui
