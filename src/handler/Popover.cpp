#include "handler/Popover.h"

#include "platform/Workspace.h"

namespace tamsel::handler {

ViewControllerPopover::ViewControllerPopover(std::shared_ptr<ui::SafariExtensionViewController> controller,
                                             std::shared_ptr<control::RuleChanger> ruleChanger,
                                             std::function<void()> closeWindow)
    : controller_(std::move(controller)), ruleChanger_(std::move(ruleChanger)), closeWindow_(std::move(closeWindow)) {}

void ViewControllerPopover::refreshForCurrentPage(std::weak_ptr<ui::ActionViewControllerDelegate> delegate) {
    controller_->setDelegate(std::move(delegate));
    if (controller_->ruleChanger() != ruleChanger_) controller_->setRuleChanger(ruleChanger_);
    controller_->refreshForCurrentPage();
}

bool ViewControllerPopover::isCurrentDomainWhitelisted() const {
    return controller_->originalWhitelistRule().has_value() &&
           controller_->isCurrentDomainWhitelisted().value_or(false);
}

void WorkspaceSystemActions::launchApplication(const std::string& bundleIdentifier) {
    platform::Workspace::shared().launchApplication(bundleIdentifier);
}

void WorkspaceSystemActions::openInBrowser(const std::string& url) {
    platform::URLOpener::open(platform::URLOpener::Application::browser, url);
}

void WorkspaceSystemActions::openMailLink(const std::string& mailtoURL) {
    platform::URLOpener::open(platform::URLOpener::Application::mail, mailtoURL);
}

}  // namespace tamsel::handler
