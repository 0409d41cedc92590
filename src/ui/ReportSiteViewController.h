#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ui/AlertViewController.h"
#include "ui/Reporter.h"
#include "ui/Theme.h"

// The site problem report: the child view the popover presents for its
// report row. The user picks what is wrong, may add a comment, and sends.
//
// Public API for a view layer (all on the main queue):
//   typeRows()            the four report types with their titles and the check
//   prompt(), placeholder(), footer(), note(), sendButtonTitle()
//   titleText(), isSending()
//                         "reporter.title.sending" while a post runs,
//                         "reporter.title.sent" after a success
//   chooseReportType(t), setComment(text), send(), dismiss()
// After a successful send the view stays open, ready for another report.
namespace tamsel::ui {

class ReportSiteViewController : public std::enable_shared_from_this<ReportSiteViewController> {
public:
    struct Presenter {
        std::function<std::optional<std::string>()> currentPageURL;
        std::function<void(std::shared_ptr<AlertViewController>)> presentAlert;
        std::function<void()> dismiss;
        std::function<void()> changed;
    };

    struct TypeRow {
        ReportType type;
        std::string id;  // the type's raw value
        std::string title;
        bool checked = false;
    };

    // `reporter` null: Reporter::shared().
    ReportSiteViewController(std::shared_ptr<Reporter> reporter, Presenter presenter);

    std::optional<ReportType> reportType() const { return reportType_; }
    const std::string& comment() const { return comment_; }
    std::vector<TypeRow> typeRows() const;

    std::string titleText() const;
    Font titleFont() const { return Themes::current()->titleFont(); }
    std::string prompt() const;
    std::string placeholder() const;
    std::string footer() const;
    std::string note() const;
    std::string sendButtonTitle() const;
    bool isSending() const { return sending_; }
    // The send button is hidden while sending.
    bool sendButtonVisible() const { return !sending_; }

    void chooseReportType(ReportType type);
    void setComment(std::string comment);
    // Sends when a type is chosen and the page's URL is known; otherwise
    // writes why and does nothing.
    void send();
    void dismiss();

    std::string description() const { return "<ReportSiteViewController>"; }

private:
    enum class Title { normal, sending, sent };
    void finishSending(bool success, const std::optional<std::string>& error);
    void changed() const;

    std::shared_ptr<Reporter> reporter_;
    Presenter presenter_;
    std::optional<ReportType> reportType_;
    std::string comment_;
    bool sending_ = false;
    Title title_ = Title::normal;
};

}  // namespace tamsel::ui
