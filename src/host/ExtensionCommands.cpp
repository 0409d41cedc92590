// tamsel compile [EXT...]                    save and reload extensions (all when none named)
// tamsel reload [EXT...]                     reload extensions as their files are
// tamsel extensions [--json]                 each extension's state, file and last reload
// tamsel safari set-state EXT enabled|disabled
// tamsel safari fail-next EXT CODE COUNT     make Safari fail the next COUNT reloads
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "control/ExtensionManager.h"
#include "host/Command.h"
#include "platform/ContentRuleListValidator.h"
#include "platform/Files.h"
#include "platform/LocalContentBlockerManager.h"
#include "platform/MainRunLoop.h"
#include "storage/PathProvider.h"
#include "storage/RebuildLedger.h"

namespace tamsel::host {
namespace {

using control::ExtensionManager;
using model::ExtensionType;
using Clock = std::chrono::system_clock;

std::shared_ptr<platform::LocalContentBlockerManager> safari() {
    return platform::LocalContentBlockerManager::open(
        [](const std::string& identifier) -> std::optional<std::filesystem::path> {
            const auto type = ExtensionManager::extensionType(identifier);
            if (!type) return std::nullopt;
            return storage::PathProvider::safariJSONFilePath(*type);
        });
}

// The named extensions by raw value ("block-ads"), or every one when none
// is named. Unknown names are a usage error.
std::optional<std::vector<ExtensionType>> chosenExtensions(const std::vector<std::string>& names) {
    std::vector<ExtensionType> chosen;
    if (names.empty()) {
        const auto all = model::allCases<ExtensionType>();
        return std::vector<ExtensionType>(all.begin(), all.end());
    }
    for (const auto& name : names) {
        const auto type = model::fromRawValue<ExtensionType>(name);
        if (!type) {
            reportUsageError("unknown extension \"" + name + "\" (one of block-ads, block-trackers, "
                             "block-annoyances, block-social, block-comments, block-adult, "
                             "block-international, block-custom)");
            return std::nullopt;
        }
        chosen.push_back(*type);
    }
    return chosen;
}

// What became of one extension in this run, read from Safari's record of
// its reloads: a reload that started before this run is not this run's.
struct Outcome {
    ExtensionType extension = ExtensionType::blockAds;
    enum class Kind { reloaded, failed, skipped } kind = Kind::skipped;
    std::size_t entries = 0;
    std::string error;
};

std::vector<Outcome> outcomes(const std::vector<ExtensionType>& extensions, Clock::time_point since) {
    auto manager = safari();
    std::vector<Outcome> result;
    for (ExtensionType extension : extensions) {
        Outcome outcome;
        outcome.extension = extension;
        const auto last = manager->lastReload(ExtensionManager::extensionID(extension));
        if (last && last->date >= since) {
            if (last->error) {
                outcome.kind = Outcome::Kind::failed;
                outcome.error = last->error->preferredText();
            } else {
                outcome.kind = Outcome::Kind::reloaded;
                outcome.entries = last->entryCount;
            }
        }
        result.push_back(std::move(outcome));
    }
    return result;
}

int report(const std::vector<Outcome>& results, bool json, const char* doneWord) {
    bool failed = false;
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartArray();
    for (const Outcome& outcome : results) {
        const std::string name(model::rawValue(outcome.extension));
        failed = failed || outcome.kind == Outcome::Kind::failed;
        if (json) {
            writer.StartObject();
            writer.Key("extension");
            writer.String(name.c_str());
            writer.Key("result");
            writer.String(outcome.kind == Outcome::Kind::reloaded ? "success"
                          : outcome.kind == Outcome::Kind::failed ? "error"
                                                                  : "skipped");
            if (outcome.kind == Outcome::Kind::reloaded) {
                writer.Key("entries");
                writer.Uint64(outcome.entries);
            }
            if (outcome.kind == Outcome::Kind::failed) {
                writer.Key("error");
                writer.String(outcome.error.c_str());
            }
            writer.EndObject();
            continue;
        }
        switch (outcome.kind) {
            case Outcome::Kind::reloaded:
                printLine(fmt::format("{}: {}, {} entries", name, doneWord, outcome.entries));
                break;
            case Outcome::Kind::failed: printLine(fmt::format("{}: failed: {}", name, outcome.error)); break;
            case Outcome::Kind::skipped: printLine(fmt::format("{}: skipped, nothing to write", name)); break;
        }
    }
    writer.EndArray();
    if (json) printLine(buffer.GetString());
    return failed ? exitFailure : exitSuccess;
}

int refuseWhileHostRuns() {
    return reportFailure("the host application is running: it alone writes the Safari JSON files now");
}

// --- compile and reload --------------------------------------------------------------

int compile(const std::vector<std::string>& names, bool json) {
    const auto extensions = chosenExtensions(names);
    if (!extensions) return exitUsage;
    if (!ExtensionManager::mayWrite()) return refuseWhileHostRuns();
    const auto since = Clock::now();
    auto manager = ExtensionManager::shared();
    if (names.empty()) {
        manager->saveToJSONAndReloadAll(std::nullopt, {});
    } else {
        for (ExtensionType extension : *extensions) manager->saveToJSONAndReload(extension, false, {});
    }
    if (!manager->waitUntilIdle()) return reportFailure("the extensions did not finish reloading in time");
    return report(outcomes(*extensions, since), json, "reloaded");
}

int reload(const std::vector<std::string>& names, bool json) {
    const auto extensions = chosenExtensions(names);
    if (!extensions) return exitUsage;
    const auto since = Clock::now();
    auto manager = ExtensionManager::shared();
    if (names.empty()) {
        manager->reloadAllWithoutSaving({});
    } else {
        for (ExtensionType extension : *extensions) manager->reloadWithoutSaving(extension, {});
    }
    if (!manager->waitUntilIdle()) return reportFailure("the extensions did not finish reloading in time");
    return report(outcomes(*extensions, since), json, "reloaded");
}

// --- extensions --------------------------------------------------------------------------

struct FileState {
    bool exists = false;
    std::size_t entries = 0;
    std::optional<std::string> refusal;
};

FileState fileState(const std::filesystem::path& path) {
    FileState state;
    const auto bytes = platform::readFile(path);
    if (!bytes) return state;
    state.exists = true;
    if (const auto error = platform::validateContentRuleList(*bytes, &state.entries)) state.refusal = error->message();
    return state;
}

std::string dateText(Clock::time_point date) {
    // fmt prints a system-clock time in the local zone; gmtime keeps it UTC.
    return fmt::format("{:%Y-%m-%d %H:%M:%S} UTC", fmt::gmtime(Clock::to_time_t(date)));
}

int listExtensions(bool json) {
    auto manager = safari();
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    const std::vector<ExtensionType> owed = storage::RebuildLedger::owed();
    writer.StartArray();
    for (ExtensionType extension : model::allCases<ExtensionType>()) {
        const bool owesRebuild = std::find(owed.begin(), owed.end(), extension) != owed.end();
        const std::string identifier = ExtensionManager::extensionID(extension);
        const std::string name(model::rawValue(extension));
        const auto path = storage::PathProvider::safariJSONFilePath(extension);
        const bool enabled = manager->isEnabled(identifier);
        const FileState file = fileState(path);
        const auto last = manager->lastReload(identifier);
        if (!json) {
            std::string line = fmt::format("{}: {}, ", name, enabled ? "enabled" : "disabled");
            line += !file.exists     ? fmt::format("no file ({})", path.string())
                    : file.refusal   ? fmt::format("{} (refused: {})", path.string(), *file.refusal)
                                     : fmt::format("{} ({} entries)", path.string(), file.entries);
            if (!last) {
                line += ", never reloaded";
            } else if (last->error) {
                line += fmt::format(", last reload {} failed: {}", dateText(last->date), last->error->preferredText());
            } else {
                line += fmt::format(", last reload {} ok, {} entries", dateText(last->date), last->entryCount);
            }
            if (owesRebuild) line += ", owes a rebuild";
            printLine(line);
            continue;
        }
        writer.StartObject();
        writer.Key("extension");
        writer.String(name.c_str());
        writer.Key("identifier");
        writer.String(identifier.c_str());
        writer.Key("enabled");
        writer.Bool(enabled);
        writer.Key("file");
        writer.String(path.string().c_str());
        writer.Key("fileExists");
        writer.Bool(file.exists);
        if (file.exists) {
            writer.Key("fileEntries");
            writer.Uint64(file.entries);
            if (file.refusal) {
                writer.Key("fileRefusal");
                writer.String(file.refusal->c_str());
            }
        }
        writer.Key("owesRebuild");
        writer.Bool(owesRebuild);
        writer.Key("lastReload");
        if (!last) {
            writer.Null();
        } else {
            writer.StartObject();
            writer.Key("date");
            writer.String(dateText(last->date).c_str());
            writer.Key("result");
            writer.String(last->error ? "error" : "success");
            if (last->error) {
                writer.Key("error");
                writer.String(last->error->preferredText().c_str());
            } else {
                writer.Key("entries");
                writer.Uint64(last->entryCount);
            }
            writer.EndObject();
        }
        writer.EndObject();
    }
    writer.EndArray();
    if (json) printLine(buffer.GetString());
    return exitSuccess;
}

// --- safari ---------------------------------------------------------------------------------

int setState(const std::string& name, const std::string& state) {
    const auto extension = model::fromRawValue<ExtensionType>(name);
    if (!extension) return reportUsageError("unknown extension \"" + name + "\"");
    if (state != "enabled" && state != "disabled") {
        return reportUsageError("state must be \"enabled\" or \"disabled\", not \"" + state + "\"");
    }
    safari()->setEnabled(ExtensionManager::extensionID(*extension), state == "enabled");
    printLine(fmt::format("{}: {}", name, state));
    return exitSuccess;
}

int failNext(const std::string& name, std::int64_t code, int count) {
    const auto extension = model::fromRawValue<ExtensionType>(name);
    if (!extension) return reportUsageError("unknown extension \"" + name + "\"");
    if (count < 0) return reportUsageError("COUNT must not be negative");
    const std::string identifier = ExtensionManager::extensionID(*extension);
    auto manager = safari();
    manager->failNext(identifier, code, count);
    printLine(fmt::format("{}: the next {} reloads fail with code {}", name, manager->pendingFailures(identifier), code));
    return exitSuccess;
}

void addExtensionCommands(CommandLine& commandLine) {
    CLI::App& app = commandLine.app();
    const GlobalOptions& global = commandLine.options();

    auto compileNames = std::make_shared<std::vector<std::string>>();
    CLI::App* compileCommand =
        app.add_subcommand("compile", "Rebuild the Safari JSON files of extensions and reload them (all when none named)");
    compileCommand->add_option("EXT", *compileNames, "Extensions by raw value, e.g. block-ads");
    commandLine.setAction(compileCommand, [compileNames, &global] { return compile(*compileNames, global.json); }, Preparation::writer);

    auto reloadNames = std::make_shared<std::vector<std::string>>();
    CLI::App* reloadCommand =
        app.add_subcommand("reload", "Reload extensions from their Safari JSON files as they are (all when none named)");
    reloadCommand->add_option("EXT", *reloadNames, "Extensions by raw value, e.g. block-ads");
    commandLine.setAction(reloadCommand, [reloadNames, &global] { return reload(*reloadNames, global.json); }, Preparation::writer);

    CLI::App* listCommand =
        app.add_subcommand("extensions", "Each extension's Safari state, file, entry count and last reload");
    commandLine.setAction(listCommand, [&global] { return listExtensions(global.json); });

    CLI::App* safariGroup = commandLine.group("safari", "Drive the substitute Safari content-blocker manager");
    auto stateArgs = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* setStateCommand = safariGroup->add_subcommand("set-state", "Switch an extension on or off in Safari's settings");
    setStateCommand->add_option("EXT", stateArgs->first, "Extension by raw value")->required();
    setStateCommand->add_option("STATE", stateArgs->second, "enabled or disabled")->required();
    commandLine.setAction(setStateCommand, [stateArgs] { return setState(stateArgs->first, stateArgs->second); });

    struct FailArgs {
        std::string extension;
        std::int64_t code = 0;
        int count = 0;
    };
    auto failArgs = std::make_shared<FailArgs>();
    CLI::App* failCommand =
        safariGroup->add_subcommand("fail-next", "Make the next COUNT reloads of an extension fail with CODE");
    failCommand->add_option("EXT", failArgs->extension, "Extension by raw value")->required();
    failCommand->add_option("CODE", failArgs->code, "Error code (3 and 4097 are the ones Safari gives at random)")
        ->required();
    failCommand->add_option("COUNT", failArgs->count, "How many reloads fail")->required();
    commandLine.setAction(failCommand,
                          [failArgs] { return failNext(failArgs->extension, failArgs->code, failArgs->count); });
}

const CommandRegistration registration{"compile", addExtensionCommands};

}  // namespace
}  // namespace tamsel::host
