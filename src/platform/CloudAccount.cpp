#include "platform/CloudAccount.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include "platform/DataRoot.h"
#include "platform/Files.h"
#include "platform/Text.h"
#include "platform/UUID.h"

namespace tamsel::platform {

std::filesystem::path CloudAccount::location() { return DataRoot::cloudDirectory() / "account.json"; }

std::expected<std::optional<CloudAccount>, std::string> CloudAccount::load() {
    const auto path = location();
    std::error_code ignored;
    if (!std::filesystem::exists(path, ignored)) return std::nullopt;
    auto bytes = readFile(path);
    if (!bytes) return std::unexpected(path.string() + ": " + bytes.error().message());
    simdjson::dom::parser parser;
    simdjson::dom::element json;
    if (parser.parse(*bytes).get(json) != simdjson::SUCCESS) return std::unexpected(path.string() + ": not JSON");
    std::string_view server, user, token;
    if (json["server"].get(server) != simdjson::SUCCESS || json["user"].get(user) != simdjson::SUCCESS ||
        json["token"].get(token) != simdjson::SUCCESS) {
        return std::unexpected(path.string() + ": not an account (server, user, token)");
    }
    return CloudAccount{std::string(server), std::string(user), std::string(token)};
}

std::expected<void, std::string> CloudAccount::save(const CloudAccount& account) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    writer.Key("server");
    writer.String(account.serverURL.c_str());
    writer.Key("user");
    writer.String(account.userName.c_str());
    writer.Key("token");
    writer.String(account.token.c_str());
    writer.EndObject();
    const auto path = location();
    // The token is a secret: the file exists with owner-only permissions
    // before the atomic replace, which keeps an existing file's permissions.
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor >= 0) {
        ::fchmod(descriptor, 0600);
        ::close(descriptor);
    }
    auto written = writeFileAtomically(path, std::string_view(buffer.GetString(), buffer.GetSize()));
    if (!written) return std::unexpected(path.string() + ": " + written.error().message());
    return {};
}

std::expected<bool, std::string> CloudAccount::remove() {
    std::error_code error;
    const bool removed = std::filesystem::remove(location(), error);
    if (error) return std::unexpected(location().string() + ": " + error.message());
    return removed;
}

std::string CloudAccount::deviceID() {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    const auto path = DataRoot::cloudDirectory() / "device-id";
    if (auto bytes = readFile(path); bytes && parseUUID(trimmed(*bytes))) return trimmed(*bytes);
    const std::string id = newUUIDString();
    (void)writeFileAtomically(path, id + "\n");
    // Another process may have won the race: its identifier stands.
    if (auto bytes = readFile(path); bytes && parseUUID(trimmed(*bytes))) return trimmed(*bytes);
    return id;
}

}  // namespace tamsel::platform
