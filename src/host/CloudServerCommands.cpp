// tamsel cloud-server [--listen ADDRESS:PORT] [--tls-cert FILE --tls-key FILE] [--database sqlite:PATH|postgresql://…]
//     serve the cloud until killed; the first line of output is
//     "listening on http(s)://ADDRESS:PORT"
// tamsel cloud-server add-user NAME [--admin]     prints the new token alone
// tamsel cloud-server remove-user NAME
// tamsel cloud-server revoke-token NAME           prints the new token alone
// tamsel cloud-server users [--json]
// tamsel cloud-server reports [--json]            newest first
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <signal.h>

#include <fmt/format.h>

#include <csignal>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "cloud/CloudServer.h"
#include "cloud/CloudStore.h"
#include "host/Command.h"
#include "platform/DataRoot.h"

namespace tamsel::host {
namespace {

using cloud::CloudServer;
using cloud::CloudStore;

std::string isoTime(std::int64_t milliseconds) {
    const std::time_t seconds = static_cast<std::time_t>(milliseconds / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

struct ServerOptions {
    std::string listen = "127.0.0.1:8790";
    std::optional<std::string> database;
    std::optional<std::string> tlsCertificate;
    std::optional<std::string> tlsKey;
    std::string name;
    bool admin = false;
};

std::string defaultDatabase() { return "sqlite:" + (platform::DataRoot::cloudDirectory() / "cloud-server.sqlite").string(); }

std::expected<std::shared_ptr<CloudStore>, std::string> openStore(const ServerOptions& options) {
    try {
        return std::make_shared<CloudStore>(cloud::SQLDatabase::open(options.database.value_or(defaultDatabase())));
    } catch (const std::exception& error) {
        return std::unexpected(std::string(error.what()));
    }
}

int runServer(const ServerOptions& options) {
    CloudServer::Configuration configuration;
    const auto colon = options.listen.rfind(':');
    if (colon == std::string::npos) return reportUsageError("--listen " + options.listen + ": expected ADDRESS:PORT");
    configuration.address = options.listen.substr(0, colon);
    if (configuration.address.starts_with('[') && configuration.address.ends_with(']')) {
        configuration.address = configuration.address.substr(1, configuration.address.size() - 2);
    }
    try {
        std::size_t used = 0;
        configuration.port = std::stoi(options.listen.substr(colon + 1), &used);
        if (used != options.listen.size() - colon - 1 || configuration.port < 0 || configuration.port > 65535) {
            throw std::out_of_range("port");
        }
    } catch (const std::exception&) {
        return reportUsageError("--listen " + options.listen + ": the port is a number from 0 to 65535");
    }
    configuration.tlsCertificate = options.tlsCertificate;
    configuration.tlsKey = options.tlsKey;
    auto store = openStore(options);
    if (!store) return reportFailure("cloud-server: " + store.error());

    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stopSignals, signal);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    CloudServer server(*store, configuration);
    if (auto started = server.start(); !started) return reportFailure("cloud-server: " + started.error());
    printLine("listening on " + server.baseURL());

    int received = 0;
    sigwait(&stopSignals, &received);
    server.stop();
    return exitSuccess;
}

int addUser(const ServerOptions& options) {
    auto store = openStore(options);
    if (!store) return reportFailure("cloud-server: " + store.error());
    auto token = (*store)->addUser(options.name, options.admin);
    if (!token) return reportFailure("cloud-server add-user: " + token.error());
    printLine(*token);
    return exitSuccess;
}

int removeUser(const ServerOptions& options) {
    auto store = openStore(options);
    if (!store) return reportFailure("cloud-server: " + store.error());
    if (!(*store)->removeUser(options.name)) return reportFailure("cloud-server remove-user: no user \"" + options.name + "\"");
    return exitSuccess;
}

int revokeToken(const ServerOptions& options) {
    auto store = openStore(options);
    if (!store) return reportFailure("cloud-server: " + store.error());
    auto token = (*store)->revokeToken(options.name);
    if (!token) return reportFailure("cloud-server revoke-token: no user \"" + options.name + "\"");
    printLine(*token);
    return exitSuccess;
}

int listUsers(const ServerOptions& options, bool json) {
    auto store = openStore(options);
    if (!store) return reportFailure("cloud-server: " + store.error());
    const auto users = (*store)->users();
    if (json) {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        writer.StartArray();
        for (const auto& user : users) {
            writer.StartObject();
            writer.Key("name");
            writeString(writer, user.name);
            writer.Key("admin");
            writer.Bool(user.admin);
            writer.Key("userRecordName");
            writeString(writer, user.userRecordName);
            writer.Key("created");
            writeString(writer, isoTime(user.createdMilliseconds));
            writer.EndObject();
        }
        writer.EndArray();
        printLine(buffer.GetString());
        return exitSuccess;
    }
    for (const auto& user : users) {
        printLine(fmt::format("{}{}  {}  {}", user.name, user.admin ? " (admin)" : "", user.userRecordName,
                              isoTime(user.createdMilliseconds)));
    }
    return exitSuccess;
}

std::string fieldText(const platform::CKRecordFields& fields, const std::string& name) {
    auto it = fields.find(name);
    if (it == fields.end()) return {};
    if (const auto* text = std::get_if<std::string>(&it->second)) return *text;
    return {};
}

int listReports(const ServerOptions& options, bool json) {
    auto store = openStore(options);
    if (!store) return reportFailure("cloud-server: " + store.error());
    const auto reports = (*store)->reports();
    static const char* keys[] = {"type", "url", "comment", "device", "appVersion", "osVersion"};
    if (json) {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        writer.StartArray();
        for (const auto& report : reports) {
            writer.StartObject();
            writer.Key("container");
            writeString(writer, report.container);
            writer.Key("environment");
            writeString(writer, report.environment);
            writer.Key("recordName");
            writeString(writer, report.record.recordName);
            writer.Key("created");
            writeString(writer, isoTime(report.record.createdMilliseconds));
            writer.Key("createdBy");
            writeString(writer, report.record.createdBy);
            writer.Key("fields");
            platform::ckwire::writeFields(writer, report.record.fields);
            writer.EndObject();
        }
        writer.EndArray();
        printLine(buffer.GetString());
        return exitSuccess;
    }
    for (const auto& report : reports) {
        std::string line = isoTime(report.record.createdMilliseconds) + "  " + report.record.recordName;
        for (const char* key : keys) {
            const std::string value = fieldText(report.record.fields, key);
            if (!value.empty()) line += fmt::format("  {}={}", key, value);
        }
        printLine(line);
    }
    return exitSuccess;
}

void addCloudServerCommands(CommandLine& commandLine) {
    auto options = std::make_shared<ServerOptions>();
    CLI::App* server = commandLine.app().add_subcommand("cloud-server", "Serve the cloud (CloudKit Web Services shape)");
    server->add_option("--listen", options->listen, "ADDRESS:PORT to listen on (default 127.0.0.1:8790; port 0: any)");
    server->add_option("--tls-cert", options->tlsCertificate, "PEM certificate for https");
    server->add_option("--tls-key", options->tlsKey, "PEM private key for https");
    server->add_option("--database", options->database,
                       "sqlite:PATH or postgresql://… (default: a SQLite file in the data root's cloud folder)");
    commandLine.setAction(server, [options] { return runServer(*options); }, Preparation::none);

    auto addDatabaseOption = [options](CLI::App* command) {
        command->add_option("--database", options->database, "sqlite:PATH or postgresql://…");
    };
    CLI::App* add = server->add_subcommand("add-user", "Add a user and print their token");
    add->add_option("NAME", options->name, "The user's name")->required();
    add->add_flag("--admin", options->admin, "The user may read reports and inject faults");
    addDatabaseOption(add);
    commandLine.setAction(add, [options] { return addUser(*options); }, Preparation::none);

    CLI::App* remove = server->add_subcommand("remove-user", "Remove a user");
    remove->add_option("NAME", options->name, "The user's name")->required();
    addDatabaseOption(remove);
    commandLine.setAction(remove, [options] { return removeUser(*options); }, Preparation::none);

    CLI::App* revoke = server->add_subcommand("revoke-token", "Replace a user's token and print the new one");
    revoke->add_option("NAME", options->name, "The user's name")->required();
    addDatabaseOption(revoke);
    commandLine.setAction(revoke, [options] { return revokeToken(*options); }, Preparation::none);

    CLI::App* users = server->add_subcommand("users", "List the users");
    addDatabaseOption(users);
    commandLine.setAction(users, [options, &commandLine] { return listUsers(*options, commandLine.options().json); },
                          Preparation::none);

    CLI::App* reports = server->add_subcommand("reports", "List the problem reports, newest first");
    addDatabaseOption(reports);
    commandLine.setAction(
        reports, [options, &commandLine] { return listReports(*options, commandLine.options().json); },
        Preparation::none);
}

const CommandRegistration registration{"cloud-server", addCloudServerCommands};

}  // namespace
}  // namespace tamsel::host
