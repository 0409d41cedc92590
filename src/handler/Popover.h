#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/SafariPage.h"
#include "ui/SafariExtensionViewController.h"
#include "ui/SystemActions.h"

// What the extension handler needs of the popover: the shared controller that
// it refreshes for the current page, asks about the current domain's
// whitelist state for the badge, and winds down when the popover closes.
// Every call comes on the main queue.
namespace tamsel::handler {

class Popover {
public:
    virtual ~Popover() = default;

    // Makes `delegate` (the handler) the controller's delegate and re-reads
    // the domain, whitelist and HTTPS state of the current page.
    virtual void refreshForCurrentPage(std::weak_ptr<ui::ActionViewControllerDelegate> delegate) = 0;
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

// The popover of the ui models: SafariExtensionViewController.
class ViewControllerPopover final : public Popover {
public:
    // `closeWindow` closes the popover's window (nothing when empty).
    ViewControllerPopover(std::shared_ptr<ui::SafariExtensionViewController> controller,
                          std::shared_ptr<control::RuleChanger> ruleChanger, std::function<void()> closeWindow = {});

    void refreshForCurrentPage(std::weak_ptr<ui::ActionViewControllerDelegate> delegate) override;
    bool isCurrentDomainWhitelisted() const override;
    bool needsPageReload() const override { return controller_->needsPageReload(); }
    void setNeedsPageReload(bool needsPageReload) override { controller_->setNeedsPageReload(needsPageReload); }
    void dismissAllChildViews() override { controller_->dismissAllChildViews(); }
    // The model keeps no scroll position; a view layer starts at the top.
    void scrollToTop() override {}
    void closeWindow() override {
        if (closeWindow_) closeWindow_();
    }

    const std::shared_ptr<ui::SafariExtensionViewController>& controller() const { return controller_; }

private:
    std::shared_ptr<ui::SafariExtensionViewController> controller_;
    std::shared_ptr<control::RuleChanger> ruleChanger_;
    std::function<void()> closeWindow_;
};

// The popover's requests of the system, through the workspace: the host
// application is launched by its bundle identifier, links open with the
// configured commands (platform/Workspace.h).
class WorkspaceSystemActions final : public ui::SystemActions {
public:
    void launchApplication(const std::string& bundleIdentifier) override;
    void openInBrowser(const std::string& url) override;
    void openMailLink(const std::string& mailtoURL) override;
};

}  // namespace tamsel::handler
