#pragma once

#include <CLI/CLI.hpp>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>

// The frame of the `tamsel` program: global options, exit statuses and the
// registry through which each command file adds its subcommands.
//
// A command file registers itself at namespace scope, so a new command needs
// no edit of main.cpp:
//
//     namespace {
//     void addRulesCommands(tamsel::host::CommandLine& commandLine) {
//         CLI::App* rules = commandLine.group("rules", "Check and print package files");
//         CLI::App* check = rules->add_subcommand("check", "...");
//         commandLine.setAction(check, [] { return tamsel::host::exitSuccess; });
//     }
//     const tamsel::host::CommandRegistration registration{"rules", addRulesCommands};
//     }  // namespace
//
// Actions run after the whole command line has been parsed and the global
// options have taken effect (data root chosen, log lines routed, debug logs
// switched on). A command writes its result on standard output and, when it
// fails, one line on standard error (reportFailure); the product's log lines
// go to the log file, and with -v to standard error (host/LogRouting.h).
namespace tamsel::host {

inline constexpr int exitSuccess = 0;
// A failure that was reported on standard error.
inline constexpr int exitFailure = 1;
// The command line could not be understood.
inline constexpr int exitUsage = 2;

struct GlobalOptions {
    std::optional<std::string> home;  // --home DIR
    bool verbose = false;             // -v
    bool json = false;                // --json
};

// The body of a command; returns the exit status.
using CommandAction = std::function<int()>;

// What a command needs done before it runs. Most commands read packages or
// drive Safari and need the data root's first use done (host/FirstUse.h);
// those that change packages, preferences or Safari JSON files also start as
// writers (startWriter in host/SubstituteHost.h); those that only read files
// they are given, the key-value stores or the blocked-resource history need
// nothing.
enum class Preparation { firstUse, writer, none };

class CommandLine {
public:
    CommandLine();

    CLI::App& app() { return app_; }
    const GlobalOptions& options() const { return options_; }

    // The command group `name` ("rules", "defaults", ...), created on first
    // use, so that several files can add subcommands to one group.
    CLI::App* group(const std::string& name, const std::string& description);

    // When `command` is the last subcommand on the command line, `action` runs,
    // after `preparation`.
    void setAction(CLI::App* command, CommandAction action, Preparation preparation = Preparation::firstUse);

    // Parses, applies the global options and runs the chosen action.
    int run(int argc, const char* const* argv);

private:
    struct Registered {
        CLI::App* command;
        CommandAction action;
        Preparation preparation;
    };

    int applyGlobalOptions();
    const CLI::App* deepestCommand() const;
    std::string describe(const CLI::ParseError& error) const;
    const Registered* chosenAction() const;

    CLI::App app_;
    GlobalOptions options_;
    std::vector<Registered> actions_;
};

// Adds one file's commands; see the example above. Registrations run in the
// order of their keys, which is the order of the commands in --help.
class CommandRegistration {
public:
    using AddCommands = std::function<void(CommandLine&)>;
    CommandRegistration(std::string key, AddCommands addCommands);

    // Every registration made so far, sorted by key.
    static void addAll(CommandLine& commandLine);
};

// "1 package", "2 packages": `noun` with an "s" unless `count` is 1.
std::string counted(std::size_t count, std::string_view noun);

// Writes `text` and a newline on standard output, flushed at once, so that a
// program reading line by line sees each answer as it is made.
void printLine(const std::string& text);

// A string of any length into a JSON writer.
inline void writeString(rapidjson::Writer<rapidjson::StringBuffer>& writer, std::string_view text) {
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

// Writes "tamsel: <line>" on standard error and returns exitFailure.
int reportFailure(std::string_view line);

// Writes "tamsel: <line>" on standard error and returns exitUsage.
int reportUsageError(std::string_view line);

}  // namespace tamsel::host
