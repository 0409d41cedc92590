#pragma once

#include "platform/DispatchQueue.h"
#include "platform/Value.h"

#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace tamsel::platform {

// What Safari tells about a page when asked.
struct SafariPageProperties {
    std::optional<std::string> url;  // absent for pages without one (a new, empty tab)
    std::optional<std::string> title;
    bool usesPrivateBrowsing = false;
    bool isActive = true;

    bool operator==(const SafariPageProperties&) const = default;
};

// A web page in a Safari tab. Pages have identity: the same page is the same
// object (held through std::shared_ptr), whatever its URL says, and two pages
// at one URL are two pages.
class SafariPage {
public:
    virtual ~SafariPage() = default;

    // Asks for the page's properties; the answer comes later, on some other
    // thread, exactly once. No properties means Safari could not tell.
    virtual void getPropertiesWithCompletionHandler(
        std::function<void(std::optional<SafariPageProperties>)> completionHandler) = 0;

    // Asks Safari to reload the page. Pages that cannot reload ignore it.
    virtual void reload() {}

    // Sends a message to the script the extension injects into the page.
    virtual void dispatchMessageToScriptWithName(const std::string& name,
                                                 const std::optional<Dictionary>& userInfo) {
        (void)name;
        (void)userInfo;
    }

    // The printed form used in log lines, "<SafariPage: 0x…>".
    virtual std::string description() const {
        char text[48];
        std::snprintf(text, sizeof text, "<SafariPage: %p>", static_cast<const void*>(this));
        return text;
    }
};

// A page whose properties are fixed when it is made: the command line's page
// and the tests'. Answers asynchronously on a global queue, as Safari does.
class StaticSafariPage final : public SafariPage {
public:
    explicit StaticSafariPage(std::optional<SafariPageProperties> properties)
        : properties_(std::move(properties)) {}

    void getPropertiesWithCompletionHandler(
        std::function<void(std::optional<SafariPageProperties>)> completionHandler) override {
        DispatchQueue::global().async(
            [properties = properties_, completionHandler = std::move(completionHandler)] {
                completionHandler(properties);
            });
    }

private:
    const std::optional<SafariPageProperties> properties_;
};

}  // namespace tamsel::platform
