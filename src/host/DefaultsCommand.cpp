// tamsel defaults write|read|delete: the key-value stores from the command
// line, in the shape of the macOS `defaults` command, so that scripts and
// tests can set up the state that the other programs of the product share.
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "host/Command.h"
#include "platform/Stores.h"
#include "platform/Value.h"
#include "platform/Text.h"

namespace tamsel::host {
namespace {

const std::vector<std::string> storeNames{"shared", "standard", "ubiquitous"};

std::shared_ptr<platform::Store> openStore(const std::string& name) {
    if (name == "standard") return platform::Defaults::standard();
    if (name == "ubiquitous") return platform::UbiquitousStore::shared();
    return platform::SharedDefaults::shared();
}

// The suite behind a store, which can also say why a stored value is
// unreadable.
std::shared_ptr<platform::UserDefaults> openSuite(const std::string& name) {
    if (name == "standard") return platform::Defaults::standard();
    if (name == "ubiquitous") return platform::UbiquitousStore::shared()->backing();
    return platform::SharedDefaults::shared();
}

using platform::lowercased;

std::expected<platform::Value, std::string> parseBool(const std::string& text) {
    const std::string word = lowercased(text);
    if (word == "true" || word == "yes" || word == "1") return platform::Value(true);
    if (word == "false" || word == "no" || word == "0") return platform::Value(false);
    return std::unexpected("-bool takes true, false, yes, no, 1 or 0, not \"" + text + "\"");
}

std::expected<platform::Value, std::string> parseInteger(const std::string& text) {
    std::int64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (text.empty() || error != std::errc() || stop != end) {
        return std::unexpected("-int takes a whole number that fits in 64 bits, not \"" + text + "\"");
    }
    return platform::Value(number);
}

std::expected<platform::Value, std::string> parseFloat(const std::string& text) {
    double number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (text.empty() || error != std::errc() || stop != end || !std::isfinite(number)) {
        return std::unexpected("-float takes a finite decimal number, not \"" + text + "\"");
    }
    return platform::Value(number);
}

std::expected<platform::Value, std::string> parseDate(const std::string& text) {
    if (auto date = platform::parseISO8601(text)) return platform::Value(*date);
    return std::unexpected("-date takes an ISO 8601 date such as 2024-03-05T12:34:56Z, not \"" + text + "\"");
}

std::expected<platform::Value, std::string> parseJSON(const std::string& text) {
    auto value = platform::Value::fromJSON(text);
    if (!value) return std::unexpected("-json: " + value.error());
    return value;
}

// The value after a type flag, as the flag says to read it.
std::expected<platform::Value, std::string> parseTyped(const std::string& flag, const std::string& text) {
    if (flag == "-bool" || flag == "-boolean") return parseBool(text);
    if (flag == "-int" || flag == "-integer") return parseInteger(text);
    if (flag == "-float") return parseFloat(text);
    if (flag == "-string") return platform::Value(text);
    if (flag == "-date") return parseDate(text);
    if (flag == "-json") return parseJSON(text);
    return std::unexpected("unknown type " + flag + " (use -bool, -int, -float, -string, -date or -json)");
}

// How `defaults read` shows one value: plainly, for shell scripts.
std::string plainText(const platform::Value& value) {
    switch (value.type()) {
    case platform::Value::Type::boolean: return *value.asBool() ? "1" : "0";
    case platform::Value::Type::integer: return std::to_string(*value.asInteger());
    case platform::Value::Type::real: return fmt::format("{}", *value.asDouble());
    case platform::Value::Type::string: return *value.asString();
    case platform::Value::Type::date: return platform::formatISO8601(*value.asDate());
    case platform::Value::Type::data: return platform::base64Encode(*value.asData());
    case platform::Value::Type::array:
    case platform::Value::Type::dictionary: return value.toJSON();
    }
    return value.toJSON();
}

struct WriteOptions {
    std::string store = "shared";
};

int runWrite(const WriteOptions& options, const std::vector<std::string>& arguments) {
    // KEY -type VALUE, or KEY VALUE for a string.
    if (arguments.empty()) return reportUsageError("defaults write: a KEY is required");
    const std::string& key = arguments[0];
    std::expected<platform::Value, std::string> value = std::unexpected(std::string());
    if (arguments.size() == 2 && !arguments[1].starts_with("-")) {
        value = platform::Value(arguments[1]);
    } else if (arguments.size() == 3) {
        value = parseTyped(arguments[1], arguments[2]);
    } else if (arguments.size() < 3) {
        return reportUsageError("defaults write " + key + ": a type and a VALUE are required (e.g. -bool true)");
    } else {
        return reportUsageError("defaults write " + key + ": unexpected arguments after the value: " + arguments[3]);
    }
    if (!value) return reportUsageError("defaults write " + key + ": " + value.error());
    openStore(options.store)->set(std::move(*value), key);
    return exitSuccess;
}

struct KeyOptions {
    std::string store = "shared";
    std::optional<std::string> key;
};

int runRead(const KeyOptions& options, const GlobalOptions& global) {
    const auto suite = openSuite(options.store);
    if (!options.key) {
        printLine(platform::Value(suite->dictionaryRepresentation()).toJSON());
        return exitSuccess;
    }
    const auto value = suite->storedValue(*options.key);
    if (!value) {
        return reportFailure("the " + options.store + " store's value for key " + *options.key +
                             " is unreadable: " + value.error());
    }
    if (!*value) return reportFailure("the " + options.store + " store has no key " + *options.key);
    printLine(global.json ? (*value)->toJSON() : plainText(**value));
    return exitSuccess;
}

int runDelete(const KeyOptions& options) {
    const auto store = openStore(options.store);
    if (!store->value(*options.key)) {
        return reportFailure("the " + options.store + " store has no key " + *options.key);
    }
    store->removeObject(*options.key);
    return exitSuccess;
}

CLI::Option* addStoreOption(CLI::App* command, std::string& store) {
    return command->add_option("--store", store, "shared (the app group; default), standard or ubiquitous")
        ->check(CLI::IsMember(storeNames));
}

void addDefaultsCommands(CommandLine& commandLine) {
    CLI::App* defaults = commandLine.group("defaults", "Read and write the key-value stores");

    auto writeOptions = std::make_shared<WriteOptions>();
    CLI::App* write = defaults->add_subcommand(
        "write", "Store a value: KEY -bool|-int|-float|-string|-date|-json VALUE (options go before KEY)");
    addStoreOption(write, writeOptions->store);
    // The type flags look like options to CLI11 (-bool would be -b -o -o -l),
    // so everything from KEY on is left unparsed and read by runWrite.
    write->prefix_command();
    write->fallthrough(false);
    commandLine.setAction(
        write, [writeOptions, write] { return runWrite(*writeOptions, write->remaining()); }, Preparation::none);

    auto readOptions = std::make_shared<KeyOptions>();
    CLI::App* read = defaults->add_subcommand("read", "Print a key's value, or the whole store as JSON");
    addStoreOption(read, readOptions->store);
    read->add_option("KEY", readOptions->key, "The key; without it the whole store");
    commandLine.setAction(
        read, [readOptions, &commandLine] { return runRead(*readOptions, commandLine.options()); },
        Preparation::none);

    auto deleteOptions = std::make_shared<KeyOptions>();
    CLI::App* remove = defaults->add_subcommand("delete", "Remove a key");
    addStoreOption(remove, deleteOptions->store);
    remove->add_option("KEY", deleteOptions->key, "The key")->required();
    commandLine.setAction(remove, [deleteOptions] { return runDelete(*deleteOptions); }, Preparation::none);
}

const CommandRegistration registration{"defaults", addDefaultsCommands};

}  // namespace
}  // namespace tamsel::host
