// tamsel rules check FILE...   decode package files and say what they hold
// tamsel rules print FILE      decode one package file and write it back
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "host/Command.h"
#include "host/InputFile.h"
#include "model/JSONCoding.h"
#include "platform/ContentRuleListValidator.h"

namespace tamsel::host {
namespace {

struct CheckOptions {
    std::vector<std::string> paths;
    std::uintmax_t maximumSize = defaultMaximumInputSize;
    bool safari = false;
};

struct CheckResult {
    std::string path;
    bool ok = false;
    std::size_t packages = 0;
    std::size_t rules = 0;
    std::string error;
};

// The first entry of `package` that Safari would refuse, as a reason.
std::optional<std::string> safariRefusal(const model::Package& package) {
    if (package.rules.empty()) return std::nullopt;
    std::vector<model::Blocker> blockers;
    blockers.reserve(package.rules.size());
    for (const auto& rule : package.rules) blockers.push_back(rule.blocker);
    const auto refusal = platform::validateContentRuleList(model::encodeBlockers(blockers));
    // Safari's limit applies to a whole extension, which no single package decides.
    if (!refusal || refusal->code == platform::ContentRuleListErrorCode::tooManyRules) return std::nullopt;
    std::string reason = "package \"" + package.id + "\"";
    if (refusal->entryIndex && *refusal->entryIndex < package.rules.size()) {
        reason += ", rule \"" + package.rules[*refusal->entryIndex].id + "\"";
    }
    reason += ": Safari would refuse it: " + std::string(refusal->message());
    if (!refusal->detail.empty()) reason += " (" + refusal->detail + ")";
    return reason;
}

CheckResult check(const std::string& path, const CheckOptions& options) {
    CheckResult result;
    result.path = path;
    auto bytes = loadInputFile(path, options.maximumSize);
    if (!bytes) {
        result.error = bytes.error();
        return result;
    }
    const auto decoded = model::decodePackageFile(*bytes);
    if (!decoded) {
        result.error = decoded.error().description;
        return result;
    }
    result.packages = decoded->packages.size();
    for (const auto& package : decoded->packages) result.rules += package.rules.size();
    if (options.safari) {
        for (const auto& package : decoded->packages) {
            if (auto refusal = safariRefusal(package)) {
                result.error = std::move(*refusal);
                return result;
            }
        }
    }
    result.ok = true;
    return result;
}

std::string resultsJSON(const std::vector<CheckResult>& results) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartArray();
    for (const auto& result : results) {
        writer.StartObject();
        writer.Key("path");
        writer.String(result.path.c_str(), static_cast<rapidjson::SizeType>(result.path.size()));
        writer.Key("ok");
        writer.Bool(result.ok);
        writer.Key("packages");
        writer.Uint64(result.packages);
        writer.Key("rules");
        writer.Uint64(result.rules);
        writer.Key("error");
        if (result.ok) {
            writer.Null();
        } else {
            writer.String(result.error.c_str(), static_cast<rapidjson::SizeType>(result.error.size()));
        }
        writer.EndObject();
    }
    writer.EndArray();
    return buffer.GetString();
}

int runCheck(const CheckOptions& options, const GlobalOptions& global) {
    std::vector<CheckResult> results;
    for (const auto& path : options.paths) results.push_back(check(path, options));
    bool allPassed = true;
    for (const auto& result : results) {
        if (result.ok) {
            if (!global.json) {
                std::printf("OK %s: %s, %s\n", result.path.c_str(), counted(result.packages, "package").c_str(),
                            counted(result.rules, "rule").c_str());
            }
        } else {
            allPassed = false;
            std::fflush(stdout);
            std::fprintf(stderr, "FAIL %s: %s\n", result.path.c_str(), result.error.c_str());
        }
    }
    if (global.json) std::printf("%s\n", resultsJSON(results).c_str());
    return allPassed ? exitSuccess : exitFailure;
}

struct PrintOptions {
    std::string path;
    std::uintmax_t maximumSize = defaultMaximumInputSize;
};

int runPrint(const PrintOptions& options) {
    auto bytes = loadInputFile(options.path, options.maximumSize);
    if (!bytes) return reportFailure(options.path + ": " + bytes.error());
    const auto decoded = model::decodePackageFile(*bytes);
    if (!decoded) return reportFailure(options.path + ": " + decoded.error().description);
    std::string output = model::encodePackageFile(*decoded) + '\n';
    if (std::fwrite(output.data(), 1, output.size(), stdout) != output.size() || std::fflush(stdout) != 0) {
        return reportFailure("cannot write to standard output");
    }
    return exitSuccess;
}

const CLI::Range atLeastOneByte(std::uintmax_t{1}, std::numeric_limits<std::uintmax_t>::max());

void addRulesCommands(CommandLine& commandLine) {
    CLI::App* rules = commandLine.group("rules", "Check and print package files");

    auto checkOptions = std::make_shared<CheckOptions>();
    CLI::App* check = rules->add_subcommand(
        "check", "Decode package files (one package or an array) and count their packages and rules");
    check->add_option("FILE", checkOptions->paths, "Package files")->required();
    check->add_option("--max-size", checkOptions->maximumSize, "Refuse files larger than this many bytes")
        ->check(atLeastOneByte);
    check->add_flag("--safari", checkOptions->safari, "Also refuse entries that Safari would not load");
    commandLine.setAction(
        check, [checkOptions, &commandLine] { return runCheck(*checkOptions, commandLine.options()); },
        Preparation::none);

    auto printOptions = std::make_shared<PrintOptions>();
    CLI::App* print = rules->add_subcommand("print", "Decode a package file and write it back as compact JSON");
    print->add_option("FILE", printOptions->path, "Package file")->required();
    print->add_option("--max-size", printOptions->maximumSize, "Refuse files larger than this many bytes")
        ->check(atLeastOneByte);
    commandLine.setAction(
        print, [printOptions] { return runPrint(*printOptions); },
        Preparation::none);
}

const CommandRegistration registration{"rules", addRulesCommands};

}  // namespace
}  // namespace tamsel::host
