#include "sync/ReportPoster.h"

#include <utility>
#include <vector>

#include "platform/BuildConfig.h"
#include "platform/CKOperations.h"
#include "platform/DispatchQueue.h"
#include "platform/QualityOfService.h"
#include "platform/UUID.h"

namespace tamsel::sync {

using platform::CKError;
using platform::CKRecord;
using platform::CKRecordID;

namespace {
constexpr const char* recordType = "Report";
}  // namespace

std::shared_ptr<CKRecord> makeReportRecord(const ReportRecord& report, std::string recordName) {
    if (recordName.empty()) recordName = platform::newUUIDString();
    auto record = std::make_shared<CKRecord>(recordType, CKRecordID{std::move(recordName), {}});
    record->set("type", report.type);
    record->set("url", report.url);
    if (report.comment && !report.comment->empty()) record->set("comment", *report.comment);
    record->set("device", report.device);
    record->set("appVersion", report.appVersion);
    record->set("osVersion", report.osVersion);
    return record;
}

std::string ReportPoster::containerIdentifier() { return std::string("iCloud.") + build::baseIdentifier + ".Report"; }

ReportPoster::ReportPoster(std::shared_ptr<platform::CKContainer> container)
    : container_(container ? std::move(container) : platform::CKContainer::container(containerIdentifier())) {}

void ReportPoster::post(const ReportRecord& report, Completion completion) const {
    auto operation = std::make_shared<platform::CKModifyRecordsOperation>(
        std::vector<std::shared_ptr<CKRecord>>{makeReportRecord(report)}, std::vector<CKRecordID>{});
    operation->setQualityOfService(platform::QualityOfService::userInitiated);
    operation->modifyRecordsCompletionBlock = [completion = std::move(completion)](
                                                  const std::vector<std::shared_ptr<CKRecord>>&,
                                                  const std::vector<CKRecordID>&, const std::optional<CKError>& error) {
        if (!completion) return;
        // A one-record save that failed reports that record's own error.
        std::optional<CKError> shown = error;
        if (error && error->code == CKError::Code::partialFailure && error->partialErrors &&
            error->partialErrors->size() == 1) {
            shown = error->partialErrors->front().error;
        }
        platform::DispatchQueue::main().async([completion, shown] { completion(shown); });
    };
    container_->publicCloudDatabase()->addOperation(operation);
}

}  // namespace tamsel::sync
