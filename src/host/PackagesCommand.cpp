// tamsel packages [--json]              every package, with its disabled state
// tamsel enable PACKAGE_ID              switch a package on
// tamsel disable PACKAGE_ID             switch a package off
// tamsel export PACKAGE_ID [--to PATH]  write one package for sharing
// tamsel import FILE                    add a shared file's packages as custom packages
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "control/DataManager.h"
#include "control/PackageImport.h"
#include "control/RuleChangeReporting.h"
#include "host/Command.h"
#include "host/InputFile.h"
#include "host/SubstituteHost.h"
#include "model/JSONCoding.h"
#include "platform/Files.h"
#include "platform/MainRunLoop.h"
#include "storage/ExtensionReloading.h"
#include "storage/PackagePreferences.h"
#include "storage/PackageSummary.h"
#include "storage/PathProvider.h"
#include "storage/PersistentStore.h"

namespace tamsel::host {
namespace {

using control::DataManager;
using model::Package;

// Loads every package file into the process's data manager.
DataManager& loadedDataManager() {
    DataManager& manager = DataManager::shared();
    manager.loadAllPackages();
    return manager;
}

std::optional<Package> findPackage(const DataManager& manager, const std::string& identifier) {
    const auto all = manager.allPackages();
    const auto found = std::find_if(all.begin(), all.end(), [&](const Package& p) { return p.id == identifier; });
    if (found == all.end()) return std::nullopt;
    return *found;
}

// Notes which extensions the command's changes have rebuilt, passing every
// request on to the extension reloading in place before it.
class RebuildRecording {
public:
    RebuildRecording()
        : previous_(storage::ExtensionReloading::shared()),
          recorder_(std::make_shared<storage::RecordingExtensionReloading>(previous_)) {
        storage::ExtensionReloading::setShared(recorder_);
    }
    ~RebuildRecording() { storage::ExtensionReloading::setShared(previous_); }
    RebuildRecording(const RebuildRecording&) = delete;
    RebuildRecording& operator=(const RebuildRecording&) = delete;

    std::vector<std::string> rebuilt() const {
        std::vector<std::string> names;
        for (auto type : recorder_->extensionsToRebuild()) names.emplace_back(model::rawValue(type));
        return names;
    }

private:
    std::shared_ptr<storage::ExtensionReloading> previous_;
    std::shared_ptr<storage::RecordingExtensionReloading> recorder_;
};

// --- packages -------------------------------------------------------------------

struct PackageRow {
    std::string id;
    std::string name;
    std::string category;
    std::string extensionType;
    std::size_t rules = 0;
    std::size_t enabledRules = 0;
    std::size_t disabledRules = 0;
    bool enabled = true;
};

std::vector<PackageRow> packageRows(const DataManager& manager) {
    auto preferences = storage::BlockerPreferenceManager::create();
    const storage::DisabledPackages disabledPackages = preferences->disabledPackages();
    const storage::DisabledRules disabledRules = preferences->disabledRules();
    std::vector<PackageRow> rows;
    for (const Package& package : manager.allPackages()) {
        const auto disabled = disabledPackages.find(package.id);
        rows.push_back({package.id, package.name, std::string(model::rawValue(package.category())),
                        std::string(model::rawValue(package.type())), package.rules.size(),
                        storage::enabledRulesCount(package, disabledRules),
                        storage::disabledRulesCount(package, disabledRules),
                        disabled == disabledPackages.end() || !disabled->second});
    }
    return rows;
}

PackageRow rowOf(const std::string& id, const std::string& name, std::size_t rules, std::size_t disabledRules,
                 const storage::DisabledPackages& disabledPackages) {
    const Package shape(id, name, {});
    const auto disabled = disabledPackages.find(id);
    return {id,
            name,
            std::string(model::rawValue(shape.category())),
            std::string(model::rawValue(shape.type())),
            rules,
            rules - disabledRules,
            disabledRules,
            disabled == disabledPackages.end() || !disabled->second};
}

// The same rows without decoding the large package files: the general and
// regional lists come from their summaries (storage/PackageSummary.h), the
// small user files are read as usual. Gives nothing when a large file is not
// in its place, for then loading the packages may move or download it.
std::optional<std::vector<PackageRow>> summarisedRows() {
    using model::JSONFileName;
    // The order of the data manager's general list.
    constexpr std::array general{JSONFileName::blockAds,    JSONFileName::blockTrackers, JSONFileName::blockAnnoyances,
                                 JSONFileName::blockSocial, JSONFileName::blockComments, JSONFileName::blockAdult};
    const auto inPlace = [](JSONFileName file) {
        std::error_code error;
        return std::filesystem::is_regular_file(storage::PathProvider::filtersFolderURL() / model::fileName(file),
                                                error) &&
               !std::filesystem::exists(storage::PathProvider::sharedContainerURL() / model::fileName(file), error);
    };
    if (!std::all_of(general.begin(), general.end(), inPlace) || !inPlace(JSONFileName::blockInternational)) {
        return std::nullopt;
    }

    auto preferences = storage::BlockerPreferenceManager::create();
    const storage::DisabledPackages disabledPackages = preferences->disabledPackages();
    const storage::DisabledRules disabledRules = preferences->disabledRules();
    const auto disabledIn = [&](const storage::PackageOutline& outline) -> std::size_t {
        const auto rules = disabledRules.find(outline.id);
        return rules == disabledRules.end() ? 0 : outline.disabledCount(rules->second);
    };

    // A general file's package takes the place named by its identifier; a
    // place that none takes keeps an empty stand-in, as in the data manager.
    std::vector<storage::PackageOutline> generalPackages;
    for (JSONFileName file : general) {
        storage::PackageOutline placeholder;
        placeholder.id = model::rawValue(file);
        placeholder.name = "some-name";
        generalPackages.push_back(std::move(placeholder));
    }
    for (JSONFileName file : general) {
        auto outlines = storage::PackageSummary::outlines(file);
        if (!outlines || outlines->empty()) continue;
        for (auto& place : generalPackages) {
            if (place.id == outlines->front().id) {
                place = std::move(outlines->front());
                break;
            }
        }
    }
    std::vector<PackageRow> rows;
    const auto addOutlines = [&](const std::vector<storage::PackageOutline>& outlines) {
        for (const auto& outline : outlines) {
            rows.push_back(rowOf(outline.id, outline.name, outline.ruleCount, disabledIn(outline), disabledPackages));
        }
    };
    addOutlines(generalPackages);
    addOutlines(storage::PackageSummary::outlines(JSONFileName::blockInternational).value_or(
        std::vector<storage::PackageOutline>{}));

    std::vector<Package> small;
    const auto append = [&small](std::vector<Package> packages) {
        std::move(packages.begin(), packages.end(), std::back_inserter(small));
    };
    // Neither file is ever downloaded, so both answer before returning.
    storage::PersistentStore::readConfigurablePackages(append);
    storage::PersistentStore::readCustomPackages(append);
    for (const Package& package : small) {
        rows.push_back(rowOf(package.id, package.name, package.rules.size(),
                             storage::disabledRulesCount(package, disabledRules), disabledPackages));
    }
    return rows;
}

std::string rowsJSON(const std::vector<PackageRow>& rows) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartArray();
    for (const PackageRow& row : rows) {
        writer.StartObject();
        writer.Key("id");
        writeString(writer, row.id);
        writer.Key("name");
        writeString(writer, row.name);
        writer.Key("category");
        writeString(writer, row.category);
        writer.Key("extensionType");
        writeString(writer, row.extensionType);
        writer.Key("rules");
        writer.Uint64(row.rules);
        writer.Key("enabledRules");
        writer.Uint64(row.enabledRules);
        writer.Key("disabledRules");
        writer.Uint64(row.disabledRules);
        writer.Key("enabled");
        writer.Bool(row.enabled);
        writer.EndObject();
    }
    writer.EndArray();
    return buffer.GetString();
}

int runPackages(const GlobalOptions& global) {
    auto summarised = summarisedRows();
    const auto rows = summarised ? std::move(*summarised) : packageRows(loadedDataManager());
    if (global.json) {
        printLine(rowsJSON(rows));
        return exitSuccess;
    }
    constexpr auto rowFormat = "{:<40} {:<13} {:<19} {:>6} {:>7} {:>8}  {:<8}  {}";
    printLine(fmt::format(rowFormat, "ID", "CATEGORY", "EXTENSION", "RULES", "ENABLED", "DISABLED", "STATE", "NAME"));
    for (const PackageRow& row : rows) {
        printLine(fmt::format(rowFormat, row.id, row.category, row.extensionType, row.rules, row.enabledRules,
                              row.disabledRules, row.enabled ? "enabled" : "disabled", row.name));
    }
    return exitSuccess;
}

// --- enable / disable ---------------------------------------------------------------

int runSwitch(const std::string& identifier, bool disable, const GlobalOptions& global) {
    DataManager& manager = loadedDataManager();
    const auto package = findPackage(manager, identifier);
    if (!package) return reportFailure("no package with identifier " + identifier);

    RebuildRecording rebuilds;
    auto preferences = manager.preferenceManager();
    preferences->savePreferenceWithReload({*package}, disable);
    preferences->waitForPendingWrites();
    platform::MainRunLoop::drain();

    const auto rebuilt = rebuilds.rebuilt();
    const auto leftToHost = rebuildLeftToHostApplication();
    if (global.json) {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        writer.StartObject();
        writer.Key("id");
        writeString(writer, identifier);
        writer.Key("enabled");
        writer.Bool(!disable);
        writer.Key("rebuild");
        writer.StartArray();
        for (const auto& name : rebuilt) writeString(writer, name);
        writer.EndArray();
        writer.Key("rebuildLeftToHostApplication");
        writer.Bool(leftToHost.has_value());
        writer.EndObject();
        printLine(buffer.GetString());
    } else {
        printLine(fmt::format("{}: {}", identifier, disable ? "disabled" : "enabled"));
        printLine(leftToHost ? "rebuild: " + *leftToHost : fmt::format("rebuild: {}", fmt::join(rebuilt, " ")));
    }
    return exitSuccess;
}

// --- export -------------------------------------------------------------------------------

int runExport(const std::string& identifier, const std::optional<std::string>& to) {
    const std::filesystem::path path = to ? std::filesystem::path(*to) : storage::PersistentStore::sharedPackagesPath();
    // Only a regular file is replaced: not a FIFO, a device or a link that
    // happens to be where the user pointed. (The write checks again.)
    if (auto replaceable = platform::checkReplaceable(path); !replaceable) {
        return reportFailure("can't export " + identifier + " to " + path.string() + ": " +
                             replaceable.error().message());
    }
    const auto package = findPackage(loadedDataManager(), identifier);
    if (!package) return reportFailure("no package with identifier " + identifier);
    if (auto written = storage::PersistentStore::writeForSharing(*package, path); !written) {
        return reportFailure("can't export " + identifier + ": " + written.error().description());
    }
    printLine(path.string());
    return exitSuccess;
}

// --- import -------------------------------------------------------------------------------

bool isWhitelistRule(const model::Rule& rule) {
    return rule.blocker.action.type == model::ActionType::ignorePreviousRules;
}

int runImport(const std::string& file) {
    auto bytes = loadInputFile(file);
    if (!bytes) return reportFailure(file + ": " + bytes.error());
    const auto decoded = model::decodePackageFile(*bytes);
    if (!decoded) return reportFailure(file + ": " + decoded.error().description);
    // The whole file or nothing: checked before any package goes in.
    if (auto refusal = control::importRefusal(decoded->packages)) {
        return reportFailure(file + ": nothing imported: " + *refusal);
    }

    DataManager& manager = loadedDataManager();
    // Merged into the custom packages as they are on disk, and saved before
    // any other program changes them.
    std::optional<DataManager::Editing> editing(std::in_place, manager);
    bool whitelistChanged = false;
    std::size_t imported = 0;
    for (const Package& package : decoded->packages) {
        const auto custom = manager.customPackages();
        const bool existed = std::any_of(custom.begin(), custom.end(),
                                         [&](const Package& held) { return held.id == package.id; });
        manager.addOrReplaceCustomPackage(package);
        // A package of the same identifier keeps its rules; the shared rules
        // join them, replacing those with the same identifier.
        if (existed) {
            for (const model::Rule& rule : package.rules) manager.setRule(rule, package.id);
        }
        whitelistChanged = whitelistChanged || std::any_of(package.rules.begin(), package.rules.end(), isWhitelistRule);
        ++imported;
    }
    if (imported == 0) return reportFailure(file + ": holds no packages");

    RebuildRecording rebuilds;
    std::optional<std::optional<DataManager::SaveError>> outcome;
    manager.savePackages({model::JSONFileName::blockCustom}, whitelistChanged,
                         [&outcome](std::optional<DataManager::SaveError> error) { outcome = error; });
    // The files are written: the imported packages and rules wait for the
    // next cloud push.
    const auto reporting = control::RuleChangeReporting::shared();
    for (const Package& package : decoded->packages) {
        const auto custom = manager.customPackages();
        const auto stored = std::find_if(custom.begin(), custom.end(),
                                         [&](const Package& held) { return held.id == package.id; });
        if (stored == custom.end()) continue;
        reporting->packageAdded(*stored);
        reporting->ruleCollectionAdded(package.rules, *stored);
    }
    editing.reset();
    if (!platform::MainRunLoop::runUntil([&] { return outcome.has_value(); }, std::chrono::minutes(5))) {
        return reportFailure("the custom extension was not rebuilt in time");
    }
    if (*outcome) {
        const auto& error = **outcome;
        if (std::holds_alternative<control::PersistingError>(error)) return reportFailure("nothing to save");
        return reportFailure("rebuilding failed: " + std::get<storage::ReloadingError>(error).description());
    }
    printLine(fmt::format("imported {} package{} into {}", imported, imported == 1 ? "" : "s",
                          model::fileName(model::JSONFileName::blockCustom)));
    const auto leftToHost = rebuildLeftToHostApplication();
    printLine(leftToHost ? "rebuild: " + *leftToHost : fmt::format("rebuild: {}", fmt::join(rebuilds.rebuilt(), " ")));
    return exitSuccess;
}

// --- registration ---------------------------------------------------------------------------

void addPackagesCommands(CommandLine& commandLine) {
    CLI::App& app = commandLine.app();

    CLI::App* packages = app.add_subcommand(
        "packages", "List every package: identifier, category, extension, rule counts, enabled or disabled");
    commandLine.setAction(packages, [&commandLine] { return runPackages(commandLine.options()); });

    for (const bool disable : {false, true}) {
        auto identifier = std::make_shared<std::string>();
        CLI::App* command = app.add_subcommand(disable ? "disable" : "enable",
                                               disable ? "Switch a package off and rebuild its extensions"
                                                       : "Switch a package on and rebuild its extensions");
        command->add_option("PACKAGE_ID", *identifier, "The package's identifier")->required();
        commandLine.setAction(command, [identifier, disable, &commandLine] {
            return runSwitch(*identifier, disable, commandLine.options());
        }, Preparation::writer);
    }

    struct ExportOptions {
        std::string identifier;
        std::optional<std::string> to;
    };
    auto exportOptions = std::make_shared<ExportOptions>();
    CLI::App* exportCommand = app.add_subcommand("export", "Write one package to a file for sharing");
    exportCommand->add_option("PACKAGE_ID", exportOptions->identifier, "The package's identifier")->required();
    exportCommand->add_option("--to", exportOptions->to, "Where to write (default: Documents/Rules.tmsl)");
    commandLine.setAction(exportCommand,
                          [exportOptions] { return runExport(exportOptions->identifier, exportOptions->to); });

    auto importFile = std::make_shared<std::string>();
    CLI::App* importCommand = app.add_subcommand("import", "Add the packages of a shared file as custom packages");
    importCommand->add_option("FILE", *importFile, "A shared package file")->required();
    commandLine.setAction(importCommand, [importFile] { return runImport(*importFile); }, Preparation::writer);
}

const CommandRegistration registration{"packages", addPackagesCommands};

}  // namespace
}  // namespace tamsel::host
