#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/SafariPage.h"

namespace tamsel::control {
class DataManager;
}

// What the extension handler needs of the popover: the shared controller that
// it refreshes for the current page, asks about the current domain's
// whitelist state for the badge, and winds down when the popover closes.
// Every call comes on the main queue.
namespace tamsel::handler {

// What the handler knows of the page in the active tab, handed to the popover
// at each refresh.
struct PopoverContext {
    std::shared_ptr<platform::SafariPage> currentPage;
    std::optional<std::string> currentPageURL;
    bool popoverVisible = false;
};

class Popover {
public:
    virtual ~Popover() = default;

    // Re-reads the domain, whitelist and HTTPS state of the current page.
    virtual void refreshForCurrentPage(const PopoverContext& context) = 0;
    // A whitelist rule is known for the current domain and the domain is whitelisted.
    virtual bool isCurrentDomainWhitelisted() const = 0;
    virtual bool needsPageReload() const = 0;
    virtual void setNeedsPageReload(bool needsPageReload) = 0;
    // Blocked history, alert, whitelist editor, site reporter, blocking
    // statistics, in that order.
    virtual void dismissAllChildViews() = 0;
    virtual void scrollToTop() = 0;
    // Closes the window the popover's view is shown in.
    virtual void closeWindow() = 0;
};

// A popover that knows the site's whitelist state and nothing else: for a
// process without the popover's models, and for the handler's tests.
class SiteStatePopover final : public Popover {
public:
    explicit SiteStatePopover(control::DataManager& dataManager);

    void refreshForCurrentPage(const PopoverContext& context) override;
    bool isCurrentDomainWhitelisted() const override { return whitelisted_; }
    bool needsPageReload() const override { return needsPageReload_; }
    void setNeedsPageReload(bool needsPageReload) override { needsPageReload_ = needsPageReload; }
    void dismissAllChildViews() override {}
    void scrollToTop() override {}
    void closeWindow() override {}

private:
    control::DataManager& dataManager_;
    bool whitelisted_ = false;
    bool needsPageReload_ = false;
};

}  // namespace tamsel::handler
