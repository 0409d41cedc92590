#pragma once

#include <functional>
#include <string>

// What the rule changer needs from whoever shows the popover: a question to
// the user, a plain alert, and a nudge to re-read the site's state. The
// popover implements it with alerts over its presented view; the command
// line answers the question from a flag.
namespace tamsel::control {

class RuleChangePrompt {
public:
    // The two-button question whether to switch on a package that a change
    // needs. The texts are localised already.
    struct EnablePackageQuestion {
        std::string title;
        std::string message;
        std::string laterButton;
        std::string confirmButton;

        friend bool operator==(const EnablePackageQuestion&, const EnablePackageQuestion&) = default;
    };

    // A one-button alert, localised.
    struct Alert {
        std::string title;
        std::string message;

        friend bool operator==(const Alert&, const Alert&) = default;
    };

    virtual ~RuleChangePrompt() = default;

    // Shows the question; `answer` is called at most once, with true for the
    // confirm button and false for "later". It may be called before this
    // returns (a non-interactive answer) or later from the main queue.
    virtual void askToEnablePackage(const EnablePackageQuestion& question, std::function<void(bool confirmed)> answer) = 0;

    virtual void showAlert(const Alert& alert) = 0;

    // The site's rules changed; the popover re-reads them.
    virtual void refresh() = 0;
};

}  // namespace tamsel::control
