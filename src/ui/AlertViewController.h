#pragma once

#include <functional>
#include <optional>
#include <string>

// The in-popover alert, and how child views come and go over the popover.
//
// An alert is plain data for the view layer: title, message, the OK button's
// text and, when showCancelButton, the cancel button's. The buttons' actions
// run when the popover's alertOK()/alertCancel() is called; either button
// also dismisses the alert. An alert without cancel text has only the OK
// button.
namespace tamsel::ui {

class AlertViewController {
public:
    using Action = std::function<void()>;

    // `okButtonText` absent: the table's "alert.ok-button". `cancelButtonText`
    // absent: no cancel button.
    AlertViewController(std::string titleText, std::string messageText,
                        std::optional<std::string> okButtonText = std::nullopt, Action okButtonAction = {},
                        std::optional<std::string> cancelButtonText = std::nullopt, Action cancelButtonAction = {});

    const std::string& titleText() const { return titleText_; }
    const std::string& messageText() const { return messageText_; }
    const std::string& okButtonText() const { return okButtonText_; }
    const std::string& cancelButtonText() const { return cancelButtonText_; }
    bool showCancelButton() const { return showCancelButton_; }

    // Runs the button's action (if any). Each action runs at most once.
    void pressOK();
    void pressCancel();

    // For log lines: "<AlertViewController: title>".
    std::string description() const;

private:
    std::string titleText_;
    std::string messageText_;
    std::string okButtonText_;
    std::string cancelButtonText_;
    bool showCancelButton_ = false;
    Action cancelButtonAction_;
    Action okButtonAction_;
};

// The fade presentation of one child view over the popover: the presented
// view starts one width to the right (rightToLeft) or one height below
// (bottomToTop) of the presenting view, transparent, and moves onto the
// presenting view's frame while fading in, over animationDuration; the view
// of the presenting screen (the delegate's, e.g. the popover's table) fades
// out at the same time. Dismissal runs the same animation backwards and then
// removes the presented view, with or without a delegate view to fade back in.
struct CustomFadePresentationAnimator {
    enum class Direction { rightToLeft, bottomToTop };

    struct Rect {
        double x = 0;
        double y = 0;
        double width = 0;
        double height = 0;
        friend bool operator==(const Rect&, const Rect&) = default;
    };
    // A view's place and opacity at one end of the animation.
    struct Frame {
        Rect rect;
        double alpha = 1;
        friend bool operator==(const Frame&, const Frame&) = default;
    };

    // Seconds; 0.3 wherever the popover presents a child.
    double animationDuration = 0.3;
    Direction direction = Direction::rightToLeft;

    // Where the presented view is before presentation and after dismissal.
    Frame offscreen(const Rect& presenting) const;
    // Where it is while presented.
    Frame onscreen(const Rect& presenting) const { return {presenting, 1}; }
    // The presenting screen's view: transparent while a child is presented.
    static constexpr double presentingAlphaWhilePresented = 0;

    // "rightToLeft" / "bottomToTop".
    static const char* rawValue(Direction direction);
};

}  // namespace tamsel::ui
