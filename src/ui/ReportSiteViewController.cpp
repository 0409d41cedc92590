#include "ui/ReportSiteViewController.h"

#include <utility>

#include "platform/Log.h"
#include "ui/Texts.h"

namespace tamsel::ui {

ReportSiteViewController::ReportSiteViewController(std::shared_ptr<Reporter> reporter, Presenter presenter)
    : reporter_(reporter ? std::move(reporter) : Reporter::shared()), presenter_(std::move(presenter)) {}

std::vector<ReportSiteViewController::TypeRow> ReportSiteViewController::typeRows() const {
    std::vector<TypeRow> rows;
    for (ReportType type : model::allCases<ReportType>()) {
        rows.push_back({type, std::string(model::rawValue(type)), commonUIText(titleKey(type)), reportType_ == type});
    }
    return rows;
}

std::string ReportSiteViewController::titleText() const {
    switch (title_) {
        case Title::sending: return commonUIText("reporter.title.sending");
        case Title::sent: return commonUIText("reporter.title.sent");
        case Title::normal: break;
    }
    return commonUIText("action.table.cell.report.blocking-problem");
}

std::string ReportSiteViewController::prompt() const { return commonUIText("action.table.cell.report.select-type"); }
std::string ReportSiteViewController::placeholder() const { return commonUIText("reporter.textfield.placeholder"); }
std::string ReportSiteViewController::footer() const { return commonUIText("reporter.textfield.footer.note"); }
std::string ReportSiteViewController::note() const { return commonUIText("action.table.footer.report.note"); }
std::string ReportSiteViewController::sendButtonTitle() const {
    return commonUIText("reporter.navigation-bar.button.send");
}

void ReportSiteViewController::chooseReportType(ReportType type) {
    reportType_ = type;
    changed();
}

void ReportSiteViewController::setComment(std::string comment) {
    comment_ = std::move(comment);
    changed();
}

void ReportSiteViewController::send() {
    platform::consolePrint("Save button did press");
    if (!reportType_) {
        platform::debugLog("Can't report site: reportType is nil");
        return;
    }
    const auto url = presenter_.currentPageURL ? presenter_.currentPageURL() : std::nullopt;
    if (!url) {
        platform::debugLog("Can't report site: currentPageURL is nil");
        return;
    }
    const Report report = Report::make(*reportType_, *url, comment_);
    title_ = Title::sending;
    sending_ = true;
    changed();
    reporter_->post(report, [weak = weak_from_this()](bool success, std::optional<std::string> error) {
        if (const auto view = weak.lock()) view->finishSending(success, error);
    });
}

void ReportSiteViewController::finishSending(bool success, const std::optional<std::string>& error) {
    sending_ = false;
    if (success) {
        title_ = Title::sent;
        reportType_.reset();
    } else {
        title_ = Title::normal;
        const std::string text = error.value_or("unknown error");
        platform::debugLog("Error sending report: %s", text.c_str());
        if (presenter_.presentAlert) {
            presenter_.presentAlert(std::make_shared<AlertViewController>(commonUIText("alert.error.title"), text));
        }
    }
    changed();
}

void ReportSiteViewController::dismiss() {
    if (presenter_.dismiss) presenter_.dismiss();
}

void ReportSiteViewController::changed() const {
    if (presenter_.changed) presenter_.changed();
}

}  // namespace tamsel::ui
