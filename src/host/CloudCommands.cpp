// tamsel cloud login --server URL --user NAME --token TOKEN
//     signs this data root in to a cloud server (after checking the token)
// tamsel cloud logout
// tamsel cloud status [--json]
//     the server, the user and the account status; "No account" (and no
//     network traffic) when none is signed in
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdio>
#include <memory>
#include <string>

#include "host/Command.h"
#include "platform/BuildConfig.h"
#include "platform/CKContainer.h"
#include "platform/CloudAccount.h"

namespace tamsel::host {
namespace {

using platform::CKAccountStatus;
using platform::CKContainer;
using platform::CloudAccount;

std::string syncContainerIdentifier() { return std::string("iCloud.") + build::baseIdentifier; }

struct LoginOptions {
    std::string server;
    std::string user;
    std::string token;
};

int login(const LoginOptions& options) {
    if (!options.server.starts_with("http://") && !options.server.starts_with("https://")) {
        return reportUsageError("--server " + options.server + ": expected an http:// or https:// address");
    }
    const CloudAccount account{options.server, options.user, options.token};
    platform::CKTransport::Configuration configuration;
    configuration.containerIdentifier = syncContainerIdentifier();
    configuration.account = [account] { return std::optional(account); };
    auto [status, error] = CKContainer::make(configuration)->accountStatusNow();
    if (status != CKAccountStatus::available) {
        return reportFailure("cloud login: the server did not accept the account (" +
                             std::string(platform::rawValue(status)) +
                             (error ? ": " + error->localizedDescription() : std::string()) + ")");
    }
    if (auto saved = CloudAccount::save(account); !saved) return reportFailure("cloud login: " + saved.error());
    printLine("Signed in to " + options.server + " as " + options.user);
    return exitSuccess;
}

int logout() {
    auto removed = CloudAccount::remove();
    if (!removed) return reportFailure("cloud logout: " + removed.error());
    printLine(*removed ? "Signed out" : "No account");
    return exitSuccess;
}

int status(bool json) {
    auto account = CloudAccount::load();
    if (!account) return reportFailure("cloud status: " + account.error());
    CKAccountStatus status = CKAccountStatus::noAccount;
    std::optional<platform::CKError> error;
    if (*account) std::tie(status, error) = CKContainer::container(syncContainerIdentifier())->accountStatusNow();
    if (json) {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        writer.StartObject();
        writer.Key("server");
        *account ? (void)writer.String((*account)->serverURL.c_str()) : (void)writer.Null();
        writer.Key("user");
        *account ? (void)writer.String((*account)->userName.c_str()) : (void)writer.Null();
        writer.Key("accountStatus");
        const auto text = platform::rawValue(status);
        writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
        if (error) {
            writer.Key("error");
            writer.String(error->localizedDescription().c_str());
        }
        writer.EndObject();
        printLine(buffer.GetString());
        return exitSuccess;
    }
    if (!*account) {
        printLine("No account");
        return exitSuccess;
    }
    printLine("Server: " + (*account)->serverURL);
    printLine("User: " + (*account)->userName);
    printLine("Account status: " + std::string(platform::rawValue(status)));
    if (error) printLine("Error: " + error->localizedDescription());
    return exitSuccess;
}

void addCloudCommands(CommandLine& commandLine) {
    CLI::App* cloud = commandLine.group("cloud", "Sign this data root in to a cloud server");
    auto options = std::make_shared<LoginOptions>();
    CLI::App* loginCommand = cloud->add_subcommand("login", "Sign in with a user's token");
    loginCommand->add_option("--server", options->server, "The server's address (http://HOST:PORT)")->required();
    loginCommand->add_option("--user", options->user, "The user's name")->required();
    loginCommand->add_option("--token", options->token, "The user's token (from cloud-server add-user)")->required();
    commandLine.setAction(loginCommand, [options] { return login(*options); }, Preparation::none);

    CLI::App* logoutCommand = cloud->add_subcommand("logout", "Forget the account");
    commandLine.setAction(logoutCommand, [] { return logout(); }, Preparation::none);

    CLI::App* statusCommand = cloud->add_subcommand("status", "Show the account and its status");
    commandLine.setAction(statusCommand, [&commandLine] { return status(commandLine.options().json); },
                          Preparation::none);
}

const CommandRegistration registration{"cloud", addCloudCommands};

}  // namespace
}  // namespace tamsel::host
