// tamsel content-rules evaluate RULES.json     what a Safari JSON rule list does to loads read from standard input
// tamsel content-rules stylesheet RULES.json   the list's global style sheet, one selector a line
// tamsel safari load PAGE_URL [--resource URL:TYPE ...]
//                                              load a page in the substitute Safari: each resource is
//                                              matched against the reloaded extensions, and blocked ones
//                                              are reported as Safari reports them
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/Command.h"
#include "host/InputFile.h"
#include "host/PageLoads.h"
#include "host/SubstituteHost.h"
#include "model/ExtensionType.h"
#include "platform/Clock.h"
#include "platform/ContentRuleMatcher.h"
#include "platform/MainRunLoop.h"
#include "platform/SafariPage.h"
#include "runtime/CoreDataStore.h"
#include "runtime/HistoryStore.h"
#include "storage/StoreURL.h"

namespace tamsel::host {
namespace {

using platform::ContentLoad;
using platform::ContentRuleMatcher;
using platform::LoadEffects;
using platform::LoadResourceType;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void writeStrings(Writer& writer, const std::vector<std::string>& texts) {
    writer.StartArray();
    for (const auto& text : texts) writeString(writer, text);
    writer.EndArray();
}

std::string refusal(const std::string& path, const platform::ContentRuleListError& error) {
    std::string line = path + ": " + std::string(error.message());
    if (error.entryIndex) line += " (entry " + std::to_string(*error.entryIndex) + ")";
    if (!error.detail.empty()) line += " " + error.detail;
    return line;
}

// The list of RULES.json, compiled; on failure the reason is reported and nothing returned.
std::shared_ptr<const ContentRuleMatcher> loadList(const std::string& path, int& status) {
    auto bytes = loadInputFile(path);
    if (!bytes) {
        status = reportFailure(path + ": " + bytes.error());
        return nullptr;
    }
    auto matcher = ContentRuleMatcher::compile(std::string_view(bytes->data(), bytes->size()));
    if (!matcher) {
        status = reportFailure(refusal(path, matcher.error()));
        return nullptr;
    }
    return *matcher;
}

// --- content-rules evaluate ----------------------------------------------------------------

// One request line, or why it cannot be read.
std::expected<ContentLoad, std::string> readRequest(std::string_view line) {
    simdjson::dom::parser parser;
    simdjson::dom::object object;
    if (auto error = parser.parse(simdjson::padded_string(line)).get_object().get(object))
        return std::unexpected(std::string("not a JSON object: ") + simdjson::error_message(error));
    ContentLoad load;
    std::string_view text;
    if (object["url"].get_string().get(text)) return std::unexpected("\"url\" must be a string");
    load.url = text;
    simdjson::dom::element main;
    if (!object["mainDocumentURL"].get(main) && !main.is_null()) {
        if (main.get_string().get(text)) return std::unexpected("\"mainDocumentURL\" must be a string");
        load.mainDocumentURL = text;
    }
    if (object["resourceType"].get_string().get(text))
        return std::unexpected("\"resourceType\" must be a string");
    const auto type = platform::loadResourceTypeFromName(text);
    if (!type) return std::unexpected("unknown resourceType \"" + std::string(text) + "\"");
    load.resourceType = *type;
    if (platform::canonicalURL(load.url) && !load.mainDocumentURL.empty() &&
        !platform::canonicalURL(load.mainDocumentURL))
        return std::unexpected("\"mainDocumentURL\" is not a valid URL");
    return load;
}

std::string effectsLine(const LoadEffects& effects) {
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    writer.StartObject();
    writer.Key("blocked");
    writer.Bool(effects.blocked);
    writer.Key("blockCookies");
    writer.Bool(effects.blockCookies);
    writer.Key("url");
    writeString(writer, effects.url);
    writer.Key("selectors");
    writeStrings(writer, effects.selectors);
    writer.Key("stylesheetApplied");
    writer.Bool(!effects.evaluated || !effects.stylesheetAppliedFor.empty());
    writer.EndObject();
    return buffer.GetString();
}

std::string errorLine(const std::string& message) {
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    writer.StartObject();
    writer.Key("error");
    writeString(writer, message);
    writer.EndObject();
    return buffer.GetString();
}

int runEvaluate(const std::string& path) {
    int status = exitSuccess;
    const std::shared_ptr<const ContentRuleMatcher> matcher = loadList(path, status);
    if (!matcher) return status;
    const std::vector<platform::NamedContentRuleMatcher> lists{{path, matcher}};
    std::string line;
    std::size_t number = 0;
    while (std::getline(std::cin, line)) {
        ++number;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const auto request = readRequest(line);
        printLine(request ? effectsLine(platform::evaluateLoad(lists, *request))
                          : errorLine(fmt::format("line {}: {}", number, request.error())));
        std::fflush(stdout);
    }
    return exitSuccess;
}

int runStylesheet(const std::string& path, const GlobalOptions& global) {
    int status = exitSuccess;
    const std::shared_ptr<const ContentRuleMatcher> matcher = loadList(path, status);
    if (!matcher) return status;
    if (global.json) {
        rapidjson::StringBuffer buffer;
        Writer writer(buffer);
        writeStrings(writer, matcher->globalStyleSheet());
        printLine(buffer.GetString());
    } else {
        for (const auto& selector : matcher->globalStyleSheet()) printLine(selector);
    }
    return exitSuccess;
}

// --- safari load ---------------------------------------------------------------------------

// Hands what a content blocker blocked on a page to the history, as Safari's
// report reaches the extension handler. The handler replaces this once it
// takes Safari's reports itself.
bool recordBlockedResources(const std::string& pageURL, model::ExtensionType type,
                            const std::vector<std::string>& urls) {
    runtime::CoreDataStore store(storage::storeURL(runtime::CoreDataStore::databaseName).parent_path(),
                                 platform::Clock::system());
    if (!store.isLoaded()) return false;
    std::set<std::string> stored;
    if (auto records = store.blockedResources(pageURL))
        for (const auto& record : *records)
            if (record.blockedURL) stored.insert(*record.blockedURL);
    std::vector<std::string> fresh;
    for (const auto& url : urls)
        if (!stored.contains(url)) fresh.push_back(url);
    if (fresh.empty()) return true;
    auto page = std::make_shared<platform::StaticSafariPage>(
        platform::SafariPageProperties{pageURL, std::nullopt, false, true});
    {
        runtime::HistoryStore history(store);
        bool saved = false;
        history.addRecords(fresh, page, type, [&saved] { saved = true; });
        if (!platform::MainRunLoop::runUntil([&saved] { return saved; }, std::chrono::minutes(1))) return false;
    }
    store.waitUntilWritten();
    return true;
}

struct LoadOptions {
    std::string page;
    std::vector<std::string> resources;  // URL:TYPE
};

struct LoadedResource {
    std::string url;
    LoadResourceType type = LoadResourceType::image;
    LoadEffects effects;
};

int runLoad(const LoadOptions& options, const GlobalOptions& global) {
    std::vector<LoadedResource> resources;
    for (const auto& item : options.resources) {
        const size_t colon = item.rfind(':');
        const auto type = colon == std::string::npos ? std::nullopt
                                                     : platform::loadResourceTypeFromName(item.substr(colon + 1));
        if (!type)
            return reportUsageError("--resource " + item + ": expected URL:TYPE with TYPE one of document, image, "
                                    "style-sheet, script, font, raw, svg-document, media, popup, ping, fetch, "
                                    "websocket, other");
        resources.push_back({item.substr(0, colon), *type, {}});
    }
    if (!platform::canonicalURL(options.page)) return reportUsageError("PAGE_URL: not a URL that Safari loads");

    const EnabledContentBlockers blockers = enabledContentBlockers();
    const auto& lists = blockers.lists;
    const auto& types = blockers.types;
    const LoadEffects page = platform::evaluateLoad(lists, {options.page, "", LoadResourceType::document});
    const std::vector<std::string> selectors = pageStyleSheet(blockers, options.page);

    // Safari's reports: per content blocker, the URLs it blocked on the page.
    std::map<std::string, std::vector<std::string>> reports;
    if (page.blocked)
        for (const auto& identifier : page.blockedBy) reports[identifier].push_back(options.page);
    for (auto& resource : resources) {
        resource.effects = platform::evaluateLoad(lists, {resource.url, options.page, resource.type});
        for (const auto& identifier : resource.effects.blockedBy) reports[identifier].push_back(resource.url);
    }
    for (const auto& [identifier, urls] : reports) {
        if (!recordBlockedResources(options.page, types.at(identifier), urls))
            return reportFailure("the blocked resources could not be recorded");
    }

    auto extensionNames = [&blockers](const std::vector<std::string>& identifiers) {
        return blockers.extensionNames(identifiers);
    };
    if (global.json) {
        rapidjson::StringBuffer buffer;
        Writer writer(buffer);
        writer.StartObject();
        writer.Key("url");
        writeString(writer, options.page);
        writer.Key("blocked");
        writer.Bool(page.blocked);
        writer.Key("extensions");
        writeStrings(writer, extensionNames(page.blockedBy));
        writer.Key("resources");
        writer.StartArray();
        for (const auto& resource : resources) {
            writer.StartObject();
            writer.Key("url");
            writeString(writer, resource.url);
            writer.Key("type");
            writeString(writer, platform::name(resource.type));
            writer.Key("blocked");
            writer.Bool(resource.effects.blocked);
            writer.Key("extensions");
            writeStrings(writer, extensionNames(resource.effects.blockedBy));
            writer.Key("finalURL");
            writeString(writer, resource.effects.url);
            writer.EndObject();
        }
        writer.EndArray();
        writer.Key("selectors");
        writeStrings(writer, selectors);
        writer.EndObject();
        printLine(buffer.GetString());
        return exitSuccess;
    }
    if (page.blocked)
        printLine(fmt::format("page blocked by {}", fmt::join(extensionNames(page.blockedBy), ", ")));
    for (const auto& resource : resources) {
        if (resource.effects.blocked) {
            printLine(fmt::format("blocked {} ({}) by {}", resource.url, platform::name(resource.type),
                                  fmt::join(extensionNames(resource.effects.blockedBy), ", ")));
        } else if (resource.effects.url != resource.url && resource.effects.evaluated &&
                   resource.effects.url.starts_with("https") != resource.url.starts_with("https")) {
            printLine(fmt::format("upgraded {} to {}", resource.url, resource.effects.url));
        } else {
            printLine(fmt::format("loaded {} ({})", resource.url, platform::name(resource.type)));
        }
    }
    printLine(fmt::format("style sheet: {} selector{}", selectors.size(), selectors.size() == 1 ? "" : "s"));
    for (const auto& selector : selectors) printLine("  " + selector);
    return exitSuccess;
}

// --- registration --------------------------------------------------------------------------

void addContentRulesCommands(CommandLine& commandLine) {
    CLI::App* group = commandLine.group("content-rules", "Match loads against a Safari JSON rule list");

    auto evaluatePath = std::make_shared<std::string>();
    CLI::App* evaluate = group->add_subcommand(
        "evaluate", "Read loads as JSON lines on standard input and write what the list does to each");
    evaluate->add_option("RULES", *evaluatePath, "A Safari JSON rule list")->required();
    // Only the file given is read: the data root plays no part.
    commandLine.setAction(evaluate, [evaluatePath] { return runEvaluate(*evaluatePath); }, Preparation::none);

    auto stylesheetPath = std::make_shared<std::string>();
    CLI::App* stylesheet =
        group->add_subcommand("stylesheet", "Print the list's global style sheet, one selector a line");
    stylesheet->add_option("RULES", *stylesheetPath, "A Safari JSON rule list")->required();
    commandLine.setAction(
        stylesheet, [stylesheetPath, &commandLine] { return runStylesheet(*stylesheetPath, commandLine.options()); },
        Preparation::none);

    CLI::App* safari = commandLine.group("safari", "Drive the substitute Safari content-blocker manager");
    auto load = std::make_shared<LoadOptions>();
    CLI::App* loadCommand = safari->add_subcommand(
        "load", "Load a page and its resources through the reloaded content blockers; report what they block");
    loadCommand->add_option("PAGE_URL", load->page, "The page's URL")->required();
    loadCommand->add_option("--resource", load->resources, "A resource of the page, as URL:TYPE");
    commandLine.setAction(loadCommand, [load, &commandLine] { return runLoad(*load, commandLine.options()); });
}

const CommandRegistration registration{"content-rules", addContentRulesCommands};

}  // namespace
}  // namespace tamsel::host
