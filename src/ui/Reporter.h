#pragma once

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "model/RawRepresentable.h"

// Problem reports about a site: what the report view sends, and the narrow
// seam through which it is sent.
//
// A Report becomes a record of type "Report" in the public database of the
// report container ("iCloud." + the base identifier + ".Report"), with the
// keys "type", "url", "comment" (absent when empty), "device", "appVersion"
// and "osVersion". The cloud side implements Reporter; until it is wired in,
// LocalReporter stands in and fails every post, saying why.
namespace tamsel::ui {

enum class ReportType { brokenSite, somethingNotBlocked, emptySpace, otherProblem };

// The row title key of a report type.
std::string_view titleKey(ReportType type);

struct Report {
    ReportType type = ReportType::brokenSite;
    std::string url;
    std::optional<std::string> comment;
    std::string device;
    std::string appVersion;
    std::string osVersion;

    // A report of this machine and build: device = the hardware model
    // (empty when unknown), appVersion = short version + " (" + build + ")"
    // (empty when either is unknown), osVersion = "macOS " + the system's
    // version. An empty comment is none.
    static Report make(ReportType type, std::string url, std::string comment);

    // For the log: "Report(type: brokenSite, url: …, comment: …, device: …, appVersion: …, osVersion: …)".
    std::string description() const;

    friend bool operator==(const Report&, const Report&) = default;
};

class Reporter {
public:
    // success, and the error's text when it failed.
    using Completion = std::function<void(bool success, std::optional<std::string> error)>;

    virtual ~Reporter() = default;

    // Sends the report once (nothing is queued or retried); `completion`
    // runs on the main queue.
    virtual void post(const Report& report, Completion completion) = 0;

    // "iCloud." + the base identifier + ".Report".
    static std::string containerIdentifier();

    // The process's reporter, which report views use unless given one: a
    // LocalReporter until the cloud side installs its own. Thread-safe.
    static std::shared_ptr<Reporter> shared();
    // nullptr goes back to a LocalReporter.
    static void setShared(std::shared_ptr<Reporter> reporter);
};

// The stand-in while no report service exists: writes "Posting report " +
// the report, then "Error reporting: " + why, and fails.
class LocalReporter final : public Reporter {
public:
    static constexpr const char* unavailable = "Problem reports can't be sent: no report service is set up";
    void post(const Report& report, Completion completion) override;
};

}  // namespace tamsel::ui

template <>
struct tamsel::model::RawValueTable<tamsel::ui::ReportType> {
    static constexpr std::array<std::string_view, 4> rawValues{"brokenSite", "somethingNotBlocked", "emptySpace",
                                                               "otherProblem"};
};
