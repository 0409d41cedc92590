#include "host/Command.h"

#include "host/FirstUse.h"
#include "host/LogRouting.h"
#include "host/SubstituteHost.h"
#include "platform/BuildConfig.h"
#include "platform/DataRoot.h"
#include "platform/Log.h"
#include "platform/Stores.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace tamsel::host {
namespace {

std::vector<std::pair<std::string, CommandRegistration::AddCommands>>& registry() {
    static std::vector<std::pair<std::string, CommandRegistration::AddCommands>> entries;
    return entries;
}

// Scripts read our standard error line by line, so a message never spans two.
std::string oneLine(std::string_view text) {
    std::string line(text);
    std::replace(line.begin(), line.end(), '\n', ' ');
    while (!line.empty() && line.back() == ' ') line.pop_back();
    return line;
}

int writeError(std::string_view line, int status) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s\n", oneLine(line).c_str());
    return status;
}

int report(std::string_view line, int status) { return writeError("tamsel: " + std::string(line), status); }

}  // namespace

CommandLine::CommandLine()
    : app_("Tamsel content blocker: filter lists, site exceptions, Safari's content blockers, rule updates "
           "and blocking statistics from the command line",
           "tamsel") {
    // Subcommands inherit fallthrough, so global options may also follow them.
    app_.fallthrough();
    app_.set_version_flag("--version", std::string("tamsel ") + build::version, "Print the version and exit");
    app_.require_subcommand(1);
    app_.add_option("--home", options_.home, "Data root (default: $TAMSEL_HOME, else the XDG data folder)");
    app_.add_flag("-v,--verbose", options_.verbose,
                  "Switch debug lines on and write the log lines on standard error too (they always go to "
                  "logs/tamsel.log under the data root)");
    app_.add_flag("--json", options_.json, "Machine-readable output where a command prints data");
}

CLI::App* CommandLine::group(const std::string& name, const std::string& description) {
    for (CLI::App* existing : app_.get_subcommands([](CLI::App*) { return true; })) {
        if (existing->get_name() == name) return existing;
    }
    CLI::App* created = app_.add_subcommand(name, description);
    created->require_subcommand(1);
    return created;
}

void CommandLine::setAction(CLI::App* command, CommandAction action, Preparation preparation) {
    actions_.push_back({command, std::move(action), preparation});
}

int CommandLine::run(int argc, const char* const* argv) {
    try {
        app_.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return app_.exit(help);
    } catch (const CLI::ParseError& error) {
        return writeError(describe(error), exitUsage);
    }
    if (int status = applyGlobalOptions(); status != exitSuccess) return status;
    const Registered* chosen = chosenAction();
    if (chosen == nullptr) return reportUsageError("no command given (see tamsel --help)");
    routeLogLines(options_.verbose);
    installSubstituteHost();
    int status = exitSuccess;
    try {
        if (chosen->preparation != Preparation::none) {
            const auto prepared = prepareDataRootOnFirstUse();
            if (!prepared) return reportFailure("first use: " + prepared.error());
            if (prepared->compileFailure) reportFailure("first use: compiling failed: " + *prepared->compileFailure);
        }
        if (chosen->preparation == Preparation::writer) startWriter();
        status = chosen->action();
    } catch (const std::exception& error) {
        status = reportFailure(error.what());
    }
    // A command's saves may have queued rebuilds and reloads; they finish
    // before the program does.
    if (!finishPendingExtensionWork()) return reportFailure("extension reloads did not finish in time");
    // Key-value store writes go to the cloud before the program ends.
    platform::finishSharedStoreSync();
    return status;
}

int CommandLine::applyGlobalOptions() {
    if (options_.verbose) platform::setDebugLogsEnabled(true);
    if (options_.home) {
        if (options_.home->empty()) return reportUsageError("--home: the folder must not be empty");
        std::error_code error;
        const std::filesystem::path home = std::filesystem::absolute(*options_.home, error);
        if (error) return reportUsageError("--home " + *options_.home + ": " + error.message());
        platform::DataRoot::setHome(home);
    }
    return exitSuccess;
}

const CLI::App* CommandLine::deepestCommand() const {
    const CLI::App* command = &app_;
    for (;;) {
        const auto chosen = command->get_subcommands();
        if (chosen.empty()) return command;
        command = chosen.back();
    }
}

std::string CommandLine::describe(const CLI::ParseError& error) const {
    // CLI11 checks for a missing subcommand before it complains about words
    // it did not know, so "tamsel rules chek" would read "A subcommand is
    // required"; name the unknown word instead, and the command it follows.
    std::string path;
    for (const CLI::App* command = deepestCommand(); command != nullptr; command = command->get_parent()) {
        path = command->get_name() + (path.empty() ? "" : " " + path);
    }
    const auto unknown = app_.remaining();
    if (!unknown.empty()) {
        return path + ": unknown command or argument \"" + unknown.front() + "\" (see " + path + " --help)";
    }
    return path + ": " + error.what();
}

const CommandLine::Registered* CommandLine::chosenAction() const {
    const CLI::App* command = deepestCommand();
    for (const Registered& registered : actions_) {
        if (registered.command == command) return &registered;
    }
    return nullptr;
}

CommandRegistration::CommandRegistration(std::string key, AddCommands addCommands) {
    registry().emplace_back(std::move(key), std::move(addCommands));
}

void CommandRegistration::addAll(CommandLine& commandLine) {
    auto entries = registry();
    std::stable_sort(entries.begin(), entries.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [key, addCommands] : entries) addCommands(commandLine);
}

void printLine(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

std::string counted(std::size_t count, std::string_view noun) {
    return std::to_string(count) + " " + std::string(noun) + (count == 1 ? "" : "s");
}

int reportFailure(std::string_view line) { return report(line, exitFailure); }

int reportUsageError(std::string_view line) { return report(line, exitUsage); }

}  // namespace tamsel::host
