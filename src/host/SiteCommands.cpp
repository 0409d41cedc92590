// tamsel whitelist DOMAIN [--only EXT,...] [--enable-package]
// tamsel unwhitelist DOMAIN
// tamsel https DOMAIN [--enable-package]
// tamsel unhttps DOMAIN
// tamsel pause | resume
// tamsel site DOMAIN [--json]
//
// What the popover does for the page in the active tab; the page's host is
// the DOMAIN argument. A change prints what it did, which extensions' Safari
// JSON files were rewritten and which extensions Safari reloaded.
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/stat.h>

#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "control/DataManager.h"
#include "control/ExtensionManager.h"
#include "control/PauseStatus.h"
#include "control/RuleChanger.h"
#include "host/Command.h"
#include "host/SubstituteHost.h"
#include "model/ConfigurableType.h"
#include "model/SiteDomain.h"
#include "platform/LocalContentBlockerManager.h"
#include "platform/Log.h"
#include "platform/MainRunLoop.h"
#include "storage/ExtensionReloading.h"
#include "storage/PackagePreferences.h"
#include "storage/PathProvider.h"
#include "ui/SiteState.h"

namespace tamsel::host {
namespace {

using control::DataManager;
using control::ExtensionManager;
using control::PauseStatus;
using control::RuleChanger;
using model::ConfigurableType;
using model::ExtensionType;
using Change = RuleChanger::Change;
using Whitelisting = ui::SiteState::Whitelisting;

constexpr auto changeTimeout = std::chrono::minutes(10);

// The lines the popover writes to the system log.
const platform::SystemLogger popoverLog("Popover");

std::string joined(const std::vector<std::string>& words) { return words.empty() ? "none" : fmt::format("{}", fmt::join(words, " ")); }

std::vector<std::string> rawValues(const std::vector<ExtensionType>& types) {
    std::vector<std::string> names;
    for (ExtensionType type : types) names.emplace_back(model::rawValue(type));
    return names;
}

// The host as typed, with control characters escaped, so that the failure
// stays one line whatever the argument held.
std::string shownHost(std::string_view host) {
    std::string shown;
    for (const char c : host) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            shown += "\\n";
        } else if (c == '\t') {
            shown += "\\t";
        } else if (c == '\r') {
            shown += "\\r";
        } else if (byte < 0x20 || byte == 0x7F) {
            shown += fmt::format("\\x{:02x}", byte);
        } else {
            shown += c;
        }
    }
    return shown;
}

// `logLine`: what the popover writes to the system log in the same case.
int invalidDomain(const std::string& host, const char* logLine = nullptr) {
    if (logLine) popoverLog.error("%s", logLine);
    return reportFailure("invalid domain \"" + shownHost(host) +
                         "\": Safari's domain lists take host names such as example.com or *example.com");
}

DataManager& loadedDataManager() {
    DataManager& manager = DataManager::shared();
    manager.loadAllPackages();
    return manager;
}

// The command line's answer to the enable-package question: the flag's.
class FlagPrompt : public control::RuleChangePrompt {
public:
    explicit FlagPrompt(bool confirm) : confirm_(confirm) {}

    void askToEnablePackage(const EnablePackageQuestion& question, std::function<void(bool)> answer) override {
        question_ = question;
        answer(confirm_);
    }
    void showAlert(const Alert& alert) override { reportFailure(alert.title + ": " + alert.message); }
    void refresh() override {}

    // The question, when it was asked.
    const std::optional<EnablePackageQuestion>& question() const { return question_; }
    bool confirmed() const { return question_ && confirm_; }

    int reportDeclined() const {
        return reportFailure(question_->title + " " + question_->message + " (--enable-package answers \"" +
                             question_->confirmButton + "\")");
    }

private:
    bool confirm_;
    std::optional<EnablePackageQuestion> question_;
};

// What Safari and the files say happened since a moment.
struct Effects {
    std::vector<std::string> rebuilt;
    std::vector<std::string> reloaded;
    std::vector<std::string> failures;
};

// A Safari JSON file as it stands: every write replaces the file (a new
// inode), so a file whose identity changed was written. Comparing times
// alone would miss writes in the first milliseconds: the file system stamps
// files with a clock that may lag behind the one we read.
struct FileIdentity {
    ino_t inode = 0;
    struct timespec modified {};

    static std::optional<FileIdentity> of(const std::filesystem::path& path) {
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) return std::nullopt;
        return FileIdentity{status.st_ino, status.st_mtim};
    }
    friend bool operator==(const FileIdentity& a, const FileIdentity& b) {
        return a.inode == b.inode && a.modified.tv_sec == b.modified.tv_sec &&
               a.modified.tv_nsec == b.modified.tv_nsec;
    }
};

class EffectsSince {
public:
    EffectsSince() : reloads_(std::chrono::system_clock::now()) {
        for (ExtensionType type : model::allCases<ExtensionType>()) {
            files_.push_back(FileIdentity::of(storage::PathProvider::safariJSONFilePath(type)));
        }
    }

    Effects collect() const {
        auto safari = platform::LocalContentBlockerManager::open(
            [](const std::string& identifier) -> std::optional<std::filesystem::path> {
                const auto type = ExtensionManager::extensionType(identifier);
                if (!type) return std::nullopt;
                return storage::PathProvider::safariJSONFilePath(*type);
            });
        Effects effects;
        std::size_t index = 0;
        for (ExtensionType type : model::allCases<ExtensionType>()) {
            const std::string name(model::rawValue(type));
            const auto now = FileIdentity::of(storage::PathProvider::safariJSONFilePath(type));
            if (now && now != files_[index]) effects.rebuilt.push_back(name);
            ++index;
            const auto last = safari->lastReload(ExtensionManager::extensionID(type));
            if (!last || last->date < reloads_) continue;
            if (last->error) {
                effects.failures.push_back(name + ": " + last->error->preferredText());
            } else {
                effects.reloaded.push_back(name);
            }
        }
        return effects;
    }

private:
    std::vector<std::optional<FileIdentity>> files_;
    std::chrono::system_clock::time_point reloads_;
};

void printEffects(const Effects& effects) {
    printLine("rebuilt: " + joined(effects.rebuilt));
    printLine("reloaded: " + joined(effects.reloaded));
    for (const std::string& failure : effects.failures) printLine("failed: " + failure);
}

// Runs one rule change to its end: the package question first when the
// package is switched off, then the change and its rebuild.
struct ChangeRequest {
    std::string verb;        // "whitelist", "unwhitelist", "https", "unhttps"
    std::string domain;
    std::optional<ConfigurableType> needsPackage;  // asked to be switched on first
    bool confirmPackage = false;
    std::function<void(RuleChanger&, RuleChanger::Completion)> change;
    std::vector<std::string> detailLines;  // printed after the first line
    // What a change of a domain that no rule holds says; undoing what is not
    // there changes nothing, as doing again what is there changes nothing.
    std::string notFound = "no rule holds the domain";
};

void printUnchanged(const ChangeRequest& request) {
    printLine(fmt::format("{} {}: {}", request.verb, request.domain, model::rawValue(Change::unchanged)));
    printLine(request.notFound);
    printEffects({});
}

int runChange(DataManager& manager, const ChangeRequest& request) {
    RuleChanger changer(manager);
    auto prompt = std::make_shared<FlagPrompt>(request.confirmPackage);
    const EffectsSince since;

    std::optional<RuleChanger::Result> result;
    const auto change = [&] { request.change(changer, [&result](RuleChanger::Result outcome) { result = outcome; }); };
    if (request.needsPackage) {
        changer.performEnablingPackage(*request.needsPackage, prompt, change);
        if (prompt->question() && !prompt->confirmed()) return prompt->reportDeclined();
    } else {
        change();
    }
    if (!platform::MainRunLoop::runUntil([&] { return result.has_value(); }, changeTimeout)) {
        return reportFailure("the change did not finish in time");
    }
    if (!*result) {
        const auto& error = result->error();
        if (const auto* failure = std::get_if<RuleChanger::Failure>(&error)) {
            switch (*failure) {
                case RuleChanger::Failure::packageMissing:
                    return reportFailure("the package for " + request.verb + " changes doesn't exist");
                case RuleChanger::Failure::ruleNotBuilt:
                    return invalidDomain(request.domain, "Can't save rule: domain invalid");
                case RuleChanger::Failure::domainNotFound:
                    printUnchanged(request);
                    return exitSuccess;
            }
        }
        finishPendingExtensionWork();
        printEffects(since.collect());
        return reportFailure("saved, but rebuilding failed: " + RuleChanger::description(error));
    }

    // Switching a rule or its package back on rewrites no package file, so
    // nothing was rebuilt yet; the change is meant to take effect now.
    const bool switchedOn = prompt->confirmed() || **result == Change::enabled;
    if (switchedOn && (**result == Change::enabled || **result == Change::unchanged)) {
        std::optional<storage::ReloadingResult> rebuilt;
        storage::ExtensionReloading::shared()->saveToJSONAndReload(
            ExtensionType::customRules, request.needsPackage == ConfigurableType::whitelist,
            [&rebuilt](storage::ReloadingResult outcome) { rebuilt = std::move(outcome); });
        if (!platform::MainRunLoop::runUntil([&] { return rebuilt.has_value(); }, changeTimeout)) {
            return reportFailure("the extensions were not rebuilt in time");
        }
        if (!*rebuilt) return reportFailure("rebuilding failed: " + rebuilt->error().description());
    }
    if (!finishPendingExtensionWork()) return reportFailure("extension reloads did not finish in time");

    printLine(fmt::format("{} {}: {}", request.verb, request.domain, model::rawValue(**result)));
    for (const std::string& line : request.detailLines) printLine(line);
    if (prompt->confirmed()) printLine("enabled package: " + std::string(model::rawValue(*request.needsPackage)));
    if (const auto leftToHost = rebuildLeftToHostApplication(); leftToHost && (**result != Change::unchanged || prompt->confirmed())) {
        printLine("rebuilt: " + *leftToHost);
        return exitSuccess;
    }
    const Effects effects = since.collect();
    printEffects(effects);
    return effects.failures.empty() ? exitSuccess : exitFailure;
}

// --- whitelist / unwhitelist ------------------------------------------------------------------

struct WhitelistOptions {
    std::string host;
    std::vector<std::string> only;
    bool enablePackage = false;
};

int runWhitelist(const WhitelistOptions& options) {
    std::vector<ExtensionType> in;
    for (const std::string& name : options.only) {
        const auto type = model::fromRawValue<ExtensionType>(name);
        if (!type) return reportUsageError("--only: unknown extension \"" + name + "\"");
        if (std::find(in.begin(), in.end(), *type) == in.end()) in.push_back(*type);
    }
    const auto domain = model::domainForHost(options.host);
    if (!domain) return invalidDomain(options.host, "Can't save rule: domain invalid");
    return runChange(loadedDataManager(), {"whitelist", *domain, ConfigurableType::whitelist, options.enablePackage,
                      [domain = *domain, in](RuleChanger& changer, RuleChanger::Completion done) {
                          changer.whitelist(domain, in, std::move(done));
                      },
                      {"in: " + (in.empty() ? std::string("all extensions") : joined(rawValues(in)))}});
}

int runUnwhitelist(const std::string& host) {
    const auto domain = model::domainForHost(host);
    if (!domain) return invalidDomain(host, "Can't remove rule: domain invalid");
    return runChange(loadedDataManager(),
                     {"unwhitelist", *domain, std::nullopt, false,
                      [domain = *domain](RuleChanger& changer, RuleChanger::Completion done) {
                          if (const auto rule = changer.whitelistRule(domain)) {
                              changer.unwhitelist(domain, *rule, std::move(done));
                          } else {
                              done(std::unexpected(RuleChanger::Error(RuleChanger::Failure::domainNotFound)));
                          }
                      },
                      {},
                      *domain + " is not whitelisted"});
}

// --- https / unhttps ---------------------------------------------------------------------------------

int runHttps(const std::string& host, bool enablePackage) {
    DataManager& manager = loadedDataManager();
    // As in the popover, a switched-off package is named before the domain
    // is looked at.
    const auto package = RuleChanger(manager).configurablePackage(ConfigurableType::makeHttps);
    if (!enablePackage && package && storage::isDisabled(*package)) {
        FlagPrompt prompt(false);
        prompt.askToEnablePackage(RuleChanger::enablePackageQuestion(*package), [](bool) {});
        return prompt.reportDeclined();
    }
    const auto domain = model::domainForHost(host);
    if (!domain) return invalidDomain(host, "Can't save rule: domain invalid");
    return runChange(manager, {"https", *domain, ConfigurableType::makeHttps, enablePackage,
                               [domain = *domain](RuleChanger& changer, RuleChanger::Completion done) {
                                   changer.makeHttps(domain, std::move(done));
                               },
                               {}});
}

int runUnhttps(const std::string& host) {
    const auto domain = model::domainForHost(host);
    if (!domain) return invalidDomain(host, "Can't remove rule: domain invalid");
    return runChange(loadedDataManager(), {"unhttps", *domain, std::nullopt, false,
                      [domain = *domain](RuleChanger& changer, RuleChanger::Completion done) {
                          if (!changer.makeHttpsRule(domain)) {
                              popoverLog.error("Can't unforce https: domain or rule doesn't exist");
                          }
                          changer.unforceHttps(domain, std::move(done));
                      },
                      {},
                      "HTTPS is not forced for " + *domain});
}

// --- pause / resume --------------------------------------------------------------------------------------

int runPause(bool pause) {
    const EffectsSince since;
    std::optional<storage::ReloadingResult> result;
    auto manager = ExtensionManager::shared();
    const auto done = [&result](storage::ReloadingResult outcome) { result = std::move(outcome); };
    if (pause) {
        manager->pauseBlocking(done);
    } else {
        manager->resumeBlocking(done);
    }
    if (!platform::MainRunLoop::runUntil([&] { return result.has_value(); }, changeTimeout)) {
        return reportFailure("the extensions were not reloaded in time");
    }
    if (!finishPendingExtensionWork()) return reportFailure("extension reloads did not finish in time");
    printLine(pause ? fmt::format("paused for {} minutes", PauseStatus::minutesLeft()) : std::string("resumed"));
    const Effects effects = since.collect();
    printEffects(effects);
    if (!*result) return reportFailure("reloading failed: " + result->error().description());
    return exitSuccess;
}

// --- site ----------------------------------------------------------------------------------------------------

std::string siteJSON(const ui::SiteState& state) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    const auto string = [&writer](const std::string& text) {
        writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    };
    const auto ruleID = [&](const std::optional<model::Rule>& rule) {
        if (rule) {
            string(rule->id);
        } else {
            writer.Null();
        }
    };
    const auto whitelisting = state.whitelisting();
    writer.StartObject();
    writer.Key("domain");
    string(state.domain);
    writer.Key("whitelisted");
    writer.Bool(whitelisting == Whitelisting::fully || whitelisting == Whitelisting::partially);
    writer.Key("whitelistedIn");
    writer.StartArray();
    for (const std::string& name : rawValues(state.whitelistedIn())) string(name);
    writer.EndArray();
    writer.Key("whitelistRule");
    ruleID(state.whitelistRule);
    writer.Key("whitelistRuleEnabled");
    writer.Bool(state.whitelistRuleEnabled);
    writer.Key("whitelistPackageEnabled");
    writer.Bool(state.whitelistPackageEnabled);
    writer.Key("forcedHttps");
    writer.Bool(state.https() == ui::SiteState::Https::forced);
    writer.Key("httpsRule");
    ruleID(state.httpsRule);
    writer.Key("makeHttpsPackageEnabled");
    writer.Bool(state.makeHttpsPackageEnabled);
    writer.Key("paused");
    writer.Bool(state.paused);
    writer.Key("minutesLeft");
    writer.Int64(state.minutesLeft);
    writer.EndObject();
    return buffer.GetString();
}

void printSite(const ui::SiteState& state) {
    printLine("domain: " + state.domain);
    switch (state.whitelisting()) {
        case Whitelisting::fully:
            printLine(fmt::format("whitelisted: yes, in all extensions (rule {})", state.whitelistRule->id));
            break;
        case Whitelisting::partially:
            printLine(fmt::format("whitelisted: yes, in {} (rule {})", joined(rawValues(state.whitelistedIn())),
                                  state.whitelistRule->id));
            break;
        case Whitelisting::ruleOff:
            printLine(fmt::format("whitelisted: no (rule {} is switched off)", state.whitelistRule->id));
            break;
        case Whitelisting::packageOff: printLine("whitelisted: no (the whitelist package is switched off)"); break;
        case Whitelisting::no: printLine("whitelisted: no"); break;
    }
    switch (state.https()) {
        case ui::SiteState::Https::forced:
            printLine(fmt::format("forced HTTPS: yes (rule {})", state.httpsRule->id));
            break;
        case ui::SiteState::Https::packageOff: printLine("forced HTTPS: no (the make-https package is switched off)"); break;
        case ui::SiteState::Https::no: printLine("forced HTTPS: no"); break;
    }
    if (state.paused) {
        printLine(fmt::format("paused: yes, {} minutes left", state.minutesLeft));
    } else {
        printLine(state.pauseEnded ? "paused: no (the hour was over: the pause ended)" : "paused: no");
    }
}

int runSite(const std::string& host, const GlobalOptions& global) {
    const auto domain = model::domainForHost(host);
    if (!domain) return invalidDomain(host);
    // A site's state is in the whitelist and make-HTTPS packages: the rule
    // set's large lists are not read for it.
    DataManager& manager = DataManager::shared();
    manager.refreshUserPackagesFromDisk();
    const ui::SiteState state = ui::SiteState::read(manager, *domain);
    if (global.json) {
        printLine(siteJSON(state));
    } else {
        printSite(state);
    }
    return exitSuccess;
}

// --- registration -------------------------------------------------------------------------------------------

void addSiteCommands(CommandLine& commandLine) {
    CLI::App& app = commandLine.app();

    auto whitelist = std::make_shared<WhitelistOptions>();
    CLI::App* whitelistCommand = app.add_subcommand("whitelist", "Switch blocking off for a site");
    whitelistCommand->add_option("DOMAIN", whitelist->host, "The page's host")->required();
    whitelistCommand->add_option("--only", whitelist->only, "Only in these extensions (block-ads,block-social,...)")
        ->delimiter(',');
    whitelistCommand->add_flag("--enable-package", whitelist->enablePackage,
                               "Switch the whitelist package on when it is off");
    commandLine.setAction(whitelistCommand, [whitelist] { return runWhitelist(*whitelist); }, Preparation::writer);

    auto unwhitelistHost = std::make_shared<std::string>();
    CLI::App* unwhitelistCommand = app.add_subcommand("unwhitelist", "Switch blocking back on for a site");
    unwhitelistCommand->add_option("DOMAIN", *unwhitelistHost, "The page's host")->required();
    commandLine.setAction(unwhitelistCommand, [unwhitelistHost] { return runUnwhitelist(*unwhitelistHost); }, Preparation::writer);

    struct HttpsOptions {
        std::string host;
        bool enablePackage = false;
    };
    auto https = std::make_shared<HttpsOptions>();
    CLI::App* httpsCommand = app.add_subcommand("https", "Force HTTPS on a site");
    httpsCommand->add_option("DOMAIN", https->host, "The page's host")->required();
    httpsCommand->add_flag("--enable-package", https->enablePackage, "Switch the make-https package on when it is off");
    commandLine.setAction(httpsCommand, [https] { return runHttps(https->host, https->enablePackage); }, Preparation::writer);

    auto unhttpsHost = std::make_shared<std::string>();
    CLI::App* unhttpsCommand = app.add_subcommand("unhttps", "Stop forcing HTTPS on a site");
    unhttpsCommand->add_option("DOMAIN", *unhttpsHost, "The page's host")->required();
    commandLine.setAction(unhttpsCommand, [unhttpsHost] { return runUnhttps(*unhttpsHost); }, Preparation::writer);

    CLI::App* pauseCommand = app.add_subcommand("pause", "Pause all blocking for an hour");
    commandLine.setAction(pauseCommand, [] { return runPause(true); }, Preparation::writer);
    CLI::App* resumeCommand = app.add_subcommand("resume", "End the pause");
    commandLine.setAction(resumeCommand, [] { return runPause(false); }, Preparation::writer);

    auto siteHost = std::make_shared<std::string>();
    CLI::App* siteCommand =
        app.add_subcommand("site", "What the popover shows for a site: whitelist, forced HTTPS, pause");
    siteCommand->add_option("DOMAIN", *siteHost, "The page's host")->required();
    commandLine.setAction(siteCommand, [siteHost, &commandLine] { return runSite(*siteHost, commandLine.options()); });
}

const CommandRegistration registration{"site", addSiteCommands};

}  // namespace
}  // namespace tamsel::host
