#pragma once

#include <memory>

#include "sync/ReportPoster.h"
#include "ui/Reporter.h"

// The reporter that sends reports to the report container of the configured
// cloud account. Without an account the post fails at once with the cloud
// client's "not authenticated" error, and nothing is sent.
namespace tamsel::ui {

class CloudReporter final : public Reporter {
public:
    // `poster` null: one for the report container of the configured account.
    explicit CloudReporter(std::shared_ptr<sync::ReportPoster> poster = nullptr);

    // Writes "Posting report " + the report, then "Successfuly posted
    // report." or "Error reporting: " + the error's description.
    void post(const Report& report, Completion completion) override;

    // The record fields of a report.
    static sync::ReportRecord record(const Report& report);

private:
    std::shared_ptr<sync::ReportPoster> poster_;
};

}  // namespace tamsel::ui
