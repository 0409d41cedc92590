// tamsel filter-server --root DIR [--port N] [--date TEXT] [--fault ENDPOINT=FAULT]...
//     publish the package files of DIR on 127.0.0.1 until killed; prints the
//     base address as its first line of output
// tamsel update [--server URL] [--no-reload]
//     one update check and, when the server has another version, the install;
//     the server is --server, else the shared default "FilterServerBaseURL"
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <signal.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/Command.h"
#include "platform/MainRunLoop.h"
#include "platform/Stores.h"
#include "updates/FilterServer.h"
#include "updates/RuleArchive.h"
#include "updates/UpdateManager.h"
#include "updates/UpdateSettings.h"
#include "updates/VersionDateFormatter.h"

namespace tamsel::host {
namespace {

using updates::FilterServer;
using updates::UpdateResult;

// --- filter-server ----------------------------------------------------------------

struct FilterServerOptions {
    std::string root;
    std::uint16_t port = 0;
    std::optional<std::string> date;
    std::vector<std::string> faults;
};

// "archive=no-answer" → the endpoint and its fault.
std::optional<std::pair<FilterServer::Endpoint, FilterServer::Fault>> parseFault(const std::string& text) {
    const auto equals = text.find('=');
    if (equals == std::string::npos) return std::nullopt;
    const auto endpoint = model::fromRawValue<FilterServer::Endpoint>(std::string_view(text).substr(0, equals));
    const auto fault = model::fromRawValue<FilterServer::Fault>(std::string_view(text).substr(equals + 1));
    if (!endpoint || !fault) return std::nullopt;
    return std::pair{*endpoint, *fault};
}

int runFilterServer(const FilterServerOptions& options) {
    FilterServer server({options.root, options.port});
    if (options.date) {
        auto date = updates::VersionDateFormatter().date(*options.date);
        if (!date) return reportUsageError("--date " + *options.date + ": not a date like \"Tue, 05 Mar 2024 12:34:56 GMT\"");
        server.setPublicationDate(date);
    }
    for (const std::string& text : options.faults) {
        auto fault = parseFault(text);
        if (!fault) return reportUsageError("--fault " + text + ": expected metadata=FAULT or archive=FAULT");
        server.setFault(fault->first, fault->second);
    }
    // Packing now names an unusable folder before anyone asks for it.
    if (auto published = server.publication(); !published) return reportFailure("filter-server: " + published.error());

    // Blocked before the server's threads exist, so that they inherit the
    // mask and the signals reach the sigwait below.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stopSignals, signal);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    if (auto started = server.start(); !started) return reportFailure("filter-server: " + started.error());
    printLine(server.baseURL());

    int received = 0;
    sigwait(&stopSignals, &received);
    server.stop();
    return exitSuccess;
}

// --- update -----------------------------------------------------------------------------

// Shows the download's progress: a bar redrawn in place on a terminal,
// otherwise a line at every tenth.
class ProgressDisplay {
public:
    explicit ProgressDisplay(bool enabled) : enabled_(enabled), isTerminal_(::isatty(STDOUT_FILENO) == 1) {}

    // Called on the download's thread.
    void show(double fraction) {
        if (!enabled_) return;
        const int percent = static_cast<int>(std::clamp(fraction, 0.0, 1.0) * 100.0);
        std::lock_guard lock(mutex_);
        if (isTerminal_) {
            if (percent == lastShown_) return;
            constexpr int width = 40;
            const auto filled = static_cast<std::size_t>(percent * width / 100);
            std::fprintf(stdout, "\rdownloading [%s%s] %3d%%", std::string(filled, '#').c_str(),
                         std::string(width - filled, ' ').c_str(), percent);
            barOpen_ = percent < 100;
            if (!barOpen_) std::fputc('\n', stdout);
            lastShown_ = percent;
        } else {
            const int tenth = percent / 10 * 10;
            if (tenth <= lastShown_) return;
            std::fprintf(stdout, "progress: %d%%\n", tenth);
            lastShown_ = tenth;
        }
        std::fflush(stdout);
    }

    // Ends a bar that stopped short of 100%, so that the result starts a line.
    void finish() {
        std::lock_guard lock(mutex_);
        if (barOpen_) std::fputc('\n', stdout);
        barOpen_ = false;
        std::fflush(stdout);
    }

private:
    const bool enabled_;
    const bool isTerminal_;
    std::mutex mutex_;
    int lastShown_ = -1;
    bool barOpen_ = false;
};

std::string resultJSON(const UpdateResult& result, const std::optional<std::string>& version) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    writer.Key("result");
    writeString(writer, model::rawValue(result.kind));
    writer.Key("version");
    if (version) {
        writeString(writer, *version);
    } else {
        writer.Null();
    }
    if (result.error) {
        writer.Key("error");
        writer.StartObject();
        writer.Key("code");
        writeString(writer, model::rawValue(result.error->code));
        writer.Key("description");
        writeString(writer, result.error->description);
        writer.EndObject();
    }
    writer.EndObject();
    return buffer.GetString();
}

int runUpdate(const std::optional<std::string>& server, bool noReload, const GlobalOptions& global) {
    if (!server && !updates::UpdateSettings::filterServerBaseURL()) {
        return reportFailure("update: no filter server is configured (give --server URL, or store one with "
                             "`tamsel defaults write " + updates::UpdateSettings::filterServerBaseURLKey + " URL`)");
    }
    // Package files that the rebuild finds missing come from the same server.
    updates::installArchiveDownloader(server);
    auto manager = updates::UpdateManager::make({server, std::nullopt, nullptr});
    ProgressDisplay progress(!global.json);

    std::optional<UpdateResult> result;
    manager->checkForUpdates(
        !noReload, [&progress](double fraction) { progress.show(fraction); },
        [&result](UpdateResult delivered) {
            result = std::move(delivered);
            platform::MainRunLoop::stop();
        });
    // Every check ends with a result on the main queue; the download's own
    // time-outs bound the wait.
    platform::MainRunLoop::run();
    progress.finish();

    const auto version = platform::SharedDefaults::shared()->string(updates::UpdateSettings::localVersionKey);
    if (global.json) {
        printLine(resultJSON(*result, version));
    } else {
        printLine(fmt::format("result: {}", model::rawValue(result->kind)));
        if (version) printLine("version: " + *version);
    }
    switch (result->kind) {
        case UpdateResult::Kind::success:
        case UpdateResult::Kind::noNewUpdates: return exitSuccess;
        case UpdateResult::Kind::currentlyUpdating: return reportFailure("update: another check is running");
        case UpdateResult::Kind::error: {
            // One line whatever the description carries (a server's text, a
            // decoder's reason).
            std::string description = result->error->description;
            std::replace_if(
                description.begin(), description.end(),
                [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, ' ');
            return reportFailure(
                fmt::format("update failed ({}): {}", model::rawValue(result->error->code), description));
        }
    }
    return exitFailure;
}

// --- registration ---------------------------------------------------------------------------

void addUpdateCommands(CommandLine& commandLine) {
    // Every command of the program reads package files; a missing filter
    // file is fetched from the filter server when one is configured, as in
    // the extension.
    updates::installArchiveDownloader();

    CLI::App& app = commandLine.app();

    auto serverOptions = std::make_shared<FilterServerOptions>();
    CLI::App* filterServer = app.add_subcommand(
        "filter-server", "Publish the package files of a folder as the rule archive on 127.0.0.1 until killed");
    filterServer->add_option("--root", serverOptions->root, "Folder whose files make the archive")
        ->required()
        ->check(CLI::ExistingDirectory);
    filterServer->add_option("--port", serverOptions->port, "Port to listen on (default 0: any free port)");
    filterServer->add_option("--date", serverOptions->date,
                             "Fixed publication date, e.g. \"Tue, 05 Mar 2024 12:34:56 GMT\" "
                             "(default: the newest file's modification time)");
    filterServer->add_option("--fault", serverOptions->faults,
                             "Make an endpoint misbehave: metadata=FAULT or archive=FAULT, FAULT one of "
                             "not-found, server-error, reset, no-answer, not-plist, truncated, wrong-password, "
                             "zip-slip, symlink, oversized, no-last-modified, endless, trickle, zip-bomb");
    commandLine.setAction(
        filterServer, [serverOptions] { return runFilterServer(*serverOptions); }, Preparation::none);

    struct UpdateOptions {
        std::optional<std::string> server;
        bool noReload = false;
    };
    auto updateOptions = std::make_shared<UpdateOptions>();
    CLI::App* update = app.add_subcommand("update", "Check the filter server for new rules and install them");
    update->add_option("--server", updateOptions->server,
                       "Filter server's base address (default: the shared default \"" +
                           updates::UpdateSettings::filterServerBaseURLKey + "\"; there is no other)");
    update->add_flag("--no-reload", updateOptions->noReload, "Install without rebuilding and reloading the extensions");
    commandLine.setAction(update, [updateOptions, &commandLine] {
        return runUpdate(updateOptions->server, updateOptions->noReload, commandLine.options());
    }, Preparation::writer);
}

const CommandRegistration registration{"update", addUpdateCommands};

}  // namespace
}  // namespace tamsel::host
