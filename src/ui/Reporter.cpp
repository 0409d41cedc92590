#include "ui/Reporter.h"

#include <mutex>

#include "platform/BuildConfig.h"
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "settings/App.h"
#include "settings/Device.h"

namespace tamsel::ui {

std::string_view titleKey(ReportType type) {
    switch (type) {
        case ReportType::brokenSite: return "action.table.cell.report.broken-site";
        case ReportType::somethingNotBlocked: return "action.table.cell.report.not-blocked";
        case ReportType::emptySpace: return "action.table.cell.report.empty-space";
        case ReportType::otherProblem: return "action.table.cell.report.other";
    }
    return "";
}

Report Report::make(ReportType type, std::string url, std::string comment) {
    Report report;
    report.type = type;
    report.url = std::move(url);
    if (!comment.empty()) report.comment = std::move(comment);
    report.device = settings::Device::model().value_or("");
    const auto version = settings::App::version();
    const auto build = settings::App::buildNumber();
    if (version && build) report.appVersion = *version + " (" + *build + ")";
    report.osVersion = "macOS " + settings::Device::systemVersion();
    return report;
}

std::string Report::description() const {
    return "Report(type: " + std::string(model::rawValue(type)) + ", url: " + url +
           ", comment: " + (comment ? "\"" + *comment + "\"" : std::string("nil")) + ", device: " + device +
           ", appVersion: " + appVersion + ", osVersion: " + osVersion + ")";
}

namespace {
struct SharedReporter {
    std::mutex mutex;
    std::shared_ptr<Reporter> reporter = std::make_shared<LocalReporter>();
};
SharedReporter& sharedReporter() {
    static SharedReporter instance;
    return instance;
}
}  // namespace

std::string Reporter::containerIdentifier() { return std::string("iCloud.") + build::baseIdentifier + ".Report"; }

std::shared_ptr<Reporter> Reporter::shared() {
    std::lock_guard lock(sharedReporter().mutex);
    return sharedReporter().reporter;
}

void Reporter::setShared(std::shared_ptr<Reporter> reporter) {
    std::lock_guard lock(sharedReporter().mutex);
    sharedReporter().reporter = reporter ? std::move(reporter) : std::make_shared<LocalReporter>();
}

void LocalReporter::post(const Report& report, Completion completion) {
    platform::consolePrint("Posting report " + report.description());
    platform::consolePrint(std::string("Error reporting: ") + unavailable);
    if (!completion) return;
    platform::DispatchQueue::main().async([completion = std::move(completion)] { completion(false, unavailable); });
}

}  // namespace tamsel::ui
