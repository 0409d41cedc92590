#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/CKContainer.h"
#include "platform/CKError.h"
#include "platform/CKRecord.h"

// Sends problem reports to the public database of the report container.
//
// A report travels one way: it is saved once as a new record and never read
// back, queued or retried. The receiving side expects this layout:
//
//   record type "Report", record name a new UUID in the default zone;
//   "type", "url", "device", "appVersion", "osVersion" (STRING);
//   "comment" (STRING), absent when the user wrote none.
namespace tamsel::sync {

struct ReportRecord {
    std::string type;  // "brokenSite", "somethingNotBlocked", "emptySpace" or "otherProblem"
    std::string url;   // the page's absolute URL
    std::optional<std::string> comment;
    std::string device;
    std::string appVersion;
    std::string osVersion;

    friend bool operator==(const ReportRecord&, const ReportRecord&) = default;
};

// The record for a report, named `recordName` (a new UUID when empty). An
// empty comment counts as none.
std::shared_ptr<platform::CKRecord> makeReportRecord(const ReportRecord& report, std::string recordName = {});

class ReportPoster {
public:
    // No error: the server stored the record.
    using Completion = std::function<void(const std::optional<platform::CKError>& error)>;

    // `container` null: the report container ("iCloud." + the base
    // identifier + ".Report") of the configured account.
    explicit ReportPoster(std::shared_ptr<platform::CKContainer> container = nullptr);

    // Saves the report as a new record with a modify-records operation of
    // user-initiated quality of service on the container's public database.
    // `completion` runs on the main queue.
    void post(const ReportRecord& report, Completion completion) const;

    const std::shared_ptr<platform::CKContainer>& container() const { return container_; }

    static std::string containerIdentifier();

private:
    std::shared_ptr<platform::CKContainer> container_;
};

}  // namespace tamsel::sync
