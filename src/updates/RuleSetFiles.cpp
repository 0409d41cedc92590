#include "updates/RuleSetFiles.h"

#include <simdjson.h>

#include <string>

#include "model/JSONCoding.h"
#include "model/JSONFileName.h"
#include "platform/Log.h"
#include "storage/PathProvider.h"

namespace tamsel::updates {
namespace {

using model::JSONFileName;

const platform::SystemLogger& logger() {
    static const platform::SystemLogger instance("Download");
    return instance;
}

constexpr std::string_view hostsFileName = "hosts.txt";

enum class Kind { generalPackage, packageList, hostList };

std::optional<JSONFileName> packageFile(std::string_view name) {
    for (const JSONFileName file : model::allCases<JSONFileName>()) {
        if (model::fileName(file) == name) return file;
    }
    return std::nullopt;
}

Error invalid(std::string_view name, std::string_view reason) {
    // Decoder texts are one line, but a file's bytes may end up in them.
    std::string text = "The archive's " + std::string(name) + " is not a valid package file: " + std::string(reason);
    for (char& c : text) {
        if (c == '\n' || c == '\r' || c == '\t') c = ' ';
    }
    return Error::make(ErrorCode::invalidPackageFile, std::move(text));
}

}  // namespace

EntryHandling RuleSetFiles::handling(std::string_view name) {
    const std::string text(name);
    if (name == hostsFileName) return EntryHandling::replace;
    if (const auto file = packageFile(name)) {
        switch (*file) {
            case JSONFileName::blockCustom:
                logger().info("Skipping %s from the archive: the user's own packages never come from the server",
                              text.c_str());
                return EntryHandling::skip;
            case JSONFileName::blockConfigurable: {
                // A file of the earlier layout is moved into the filters
                // folder on its first read, but only while the folder has
                // none: a seeded file would hide the user's for ever.
                std::error_code ignored;
                const auto old = storage::PathProvider::sharedContainerURL() / text;
                if (std::filesystem::exists(old, ignored)) {
                    logger().info("Kept the user's %s at the old location; the archive's copy was not installed",
                                  text.c_str());
                    return EntryHandling::skip;
                }
                return EntryHandling::installIfAbsent;
            }
            default: return EntryHandling::replace;
        }
    }
    logger().info("Skipping %s from the archive: not a file of the rule set", text.c_str());
    return EntryHandling::skip;
}

std::optional<Error> RuleSetFiles::check(std::string_view name, const std::filesystem::path& staged) {
    Kind kind = Kind::hostList;
    if (const auto file = packageFile(name)) {
        kind = (*file == JSONFileName::blockInternational || *file == JSONFileName::blockConfigurable)
                   ? Kind::packageList
                   : Kind::generalPackage;
    } else if (name != hostsFileName) {
        return invalid(name, "not a file of the rule set");
    }

    simdjson::padded_string bytes;
    if (const auto error = simdjson::padded_string::load(staged.string()).get(bytes); error) {
        return Error::make(ErrorCode::fileSystem,
                           "The archive's " + std::string(name) + " could not be read: " + simdjson::error_message(error));
    }
    if (kind == Kind::hostList) {
        const std::string_view text(bytes.data(), bytes.size());
        if (!simdjson::validate_utf8(text.data(), text.size()) || text.find('\0') != std::string_view::npos) {
            return Error::make(ErrorCode::invalidPackageFile,
                               "The archive's " + std::string(name) + " is not a text file of host names");
        }
        return std::nullopt;
    }
    if (bytes.size() == 0) return invalid(name, "the file is empty");
    if (kind == Kind::packageList) {
        if (auto packages = model::decodePackages(bytes); !packages) return invalid(name, packages.error().description);
        return std::nullopt;
    }
    // A general file may hold tens of thousands of rules: they are decoded
    // one by one and dropped, never held all at once.
    auto package = model::decodePackageRuleByRule(bytes, [](const std::string&, model::Rule&&) {});
    if (!package) return invalid(name, package.error().description);
    const std::string expected(name.substr(0, name.size() - std::string_view(".json").size()));
    if (package->id != expected) {
        // The package reader files a package by its identifier: this one
        // would stand in for another file's and leave its own extension empty.
        return invalid(name, "it holds the package \"" + package->id + "\", not \"" + expected + "\"");
    }
    return std::nullopt;
}

}  // namespace tamsel::updates
