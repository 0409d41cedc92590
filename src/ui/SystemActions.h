#pragma once

#include <memory>
#include <string>

// What the popover asks of the system outside the extension: launch the host
// application, open a web page in the default browser, open a mail link in
// the default mail application. The process that runs the extension supplies
// the real ones (on Linux a configured command, or the page that drives
// `tamsel serve`); the default only writes what it would open.
namespace tamsel::ui {

class SystemActions {
public:
    virtual ~SystemActions() = default;

    virtual void launchApplication(const std::string& bundleIdentifier) = 0;
    virtual void openInBrowser(const std::string& url) = 0;
    virtual void openMailLink(const std::string& mailtoURL) = 0;
};

// Writes "Would launch <id>", "Would open <url>", "Would open mail <link>"
// to standard output.
class PrintingSystemActions final : public SystemActions {
public:
    void launchApplication(const std::string& bundleIdentifier) override;
    void openInBrowser(const std::string& url) override;
    void openMailLink(const std::string& mailtoURL) override;
};

}  // namespace tamsel::ui
