// tamsel report-site URL --type brokenSite|somethingNotBlocked|emptySpace|otherProblem [--comment TEXT]
//     sends a problem report about the page at URL to the report container of
//     the cloud account (tamsel cloud login), as the popover's report view
//     does; prints the report sent
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "host/Command.h"
#include "model/RawRepresentable.h"
#include "platform/CloudAccount.h"
#include "platform/MainRunLoop.h"
#include "ui/CloudReporter.h"

namespace tamsel::host {
namespace {

// The cloud client gives up on a request after 30 s; this is only a backstop.
constexpr auto postTimeout = std::chrono::seconds(90);

struct ReportOptions {
    std::string url;
    std::string type;
    std::string comment;
};

int reportSite(const ReportOptions& options) {
    const auto type = model::fromRawValue<ui::ReportType>(options.type);
    if (!type) {
        return reportUsageError("report-site --type " + options.type +
                                ": expected brokenSite, somethingNotBlocked, emptySpace or otherProblem");
    }
    if (options.url.find("://") == std::string::npos) {
        return reportUsageError("report-site " + options.url + ": expected an absolute URL (https://HOST/…)");
    }
    auto account = platform::CloudAccount::load();
    if (!account) return reportFailure("report-site: " + account.error());
    if (!*account) return reportFailure("report-site: no cloud account; sign in with tamsel cloud login first");

    const auto report = ui::Report::make(*type, options.url, options.comment);
    auto reporter = std::make_shared<ui::CloudReporter>();
    std::optional<std::optional<std::string>> outcome;  // set: done; inner: the error
    reporter->post(report, [&outcome](bool success, std::optional<std::string> error) {
        outcome = success ? std::nullopt : std::optional(error.value_or("the report was not stored"));
    });
    if (!platform::MainRunLoop::runUntil([&] { return outcome.has_value(); }, postTimeout)) {
        return reportFailure("report-site: no answer from " + (*account)->serverURL);
    }
    if (*outcome) return reportFailure("report-site: " + **outcome);
    printLine("Sent report: " + report.description());
    return exitSuccess;
}

void addReportCommand(CommandLine& commandLine) {
    auto options = std::make_shared<ReportOptions>();
    CLI::App* command = commandLine.app().add_subcommand("report-site", "Send a problem report about a page");
    command->add_option("URL", options->url, "The page's address")->required();
    command->add_option("--type", options->type, "brokenSite, somethingNotBlocked, emptySpace or otherProblem")
        ->required();
    command->add_option("--comment", options->comment, "What is wrong, in words");
    commandLine.setAction(command, [options] { return reportSite(*options); }, Preparation::none);
}

const CommandRegistration registration{"report-site", addReportCommand};

}  // namespace
}  // namespace tamsel::host
