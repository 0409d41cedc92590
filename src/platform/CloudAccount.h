#pragma once

#include <expected>
#include <filesystem>
#include <optional>
#include <string>

// The cloud account this data root is signed in with: the server, the user
// and the user's token, in <home>/cloud/account.json (readable by the owner
// only). No file: no account, and the cloud client sends nothing.
namespace tamsel::platform {

struct CloudAccount {
    std::string serverURL;
    std::string userName;
    std::string token;

    static std::filesystem::path location();
    // None when no account is configured; an error when the file is there but
    // cannot be read or is not an account.
    static std::expected<std::optional<CloudAccount>, std::string> load();
    static std::expected<void, std::string> save(const CloudAccount& account);
    // False when there was none.
    static std::expected<bool, std::string> remove();

    // This installation's device identifier, made on first use: what the
    // server uses to not push a change back to the device that made it.
    static std::string deviceID();

    friend bool operator==(const CloudAccount&, const CloudAccount&) = default;
};

}  // namespace tamsel::platform
