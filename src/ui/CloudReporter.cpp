#include "ui/CloudReporter.h"

#include <string>
#include <utility>

#include "platform/Log.h"

namespace tamsel::ui {

CloudReporter::CloudReporter(std::shared_ptr<sync::ReportPoster> poster)
    : poster_(poster ? std::move(poster) : std::make_shared<sync::ReportPoster>()) {}

sync::ReportRecord CloudReporter::record(const Report& report) {
    return {std::string(model::rawValue(report.type)), report.url, report.comment, report.device, report.appVersion,
            report.osVersion};
}

void CloudReporter::post(const Report& report, Completion completion) {
    platform::consolePrint("Posting report " + report.description());
    poster_->post(record(report), [completion = std::move(completion)](const std::optional<platform::CKError>& error) {
        if (error) {
            platform::consolePrint("Error reporting: " + error->localizedDescription());
        } else {
            platform::consolePrint("Successfuly posted report.");
        }
        if (completion) completion(!error, error ? std::optional(error->localizedDescription()) : std::nullopt);
    });
}

}  // namespace tamsel::ui
