#include "ui/AlertViewController.h"

#include <utility>

#include "ui/Texts.h"

namespace tamsel::ui {

AlertViewController::AlertViewController(std::string titleText, std::string messageText,
                                         std::optional<std::string> okButtonText, Action okButtonAction,
                                         std::optional<std::string> cancelButtonText, Action cancelButtonAction)
    : titleText_(std::move(titleText)),
      messageText_(std::move(messageText)),
      okButtonText_(okButtonText ? std::move(*okButtonText) : commonUIText("alert.ok-button")),
      cancelButtonText_(cancelButtonText.value_or("")),
      showCancelButton_(cancelButtonText.has_value()),
      cancelButtonAction_(std::move(cancelButtonAction)),
      okButtonAction_(std::move(okButtonAction)) {}

void AlertViewController::pressOK() {
    if (auto action = std::exchange(okButtonAction_, {})) action();
}

void AlertViewController::pressCancel() {
    if (auto action = std::exchange(cancelButtonAction_, {})) action();
}

std::string AlertViewController::description() const { return "<AlertViewController: " + titleText_ + ">"; }

CustomFadePresentationAnimator::Frame CustomFadePresentationAnimator::offscreen(const Rect& presenting) const {
    Rect rect = presenting;
    if (direction == Direction::rightToLeft) {
        rect.x += presenting.width;
    } else {
        rect.y += presenting.height;
    }
    return {rect, 0};
}

const char* CustomFadePresentationAnimator::rawValue(Direction direction) {
    return direction == Direction::rightToLeft ? "rightToLeft" : "bottomToTop";
}

}  // namespace tamsel::ui
