#include "platform/CloudAccount.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <system_error>

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
    // The token is a secret: the new file is the owner's alone from its first
    // byte, then replaces the old one at once (readers see the old account or
    // the new one, never a part).
    const auto temporary = path.string() + "." + newUUIDString() + ".tmp";
    const int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor < 0) return std::unexpected(temporary + ": " + std::generic_category().message(errno));
    const std::string_view bytes(buffer.GetString(), buffer.GetSize());
    const bool written = ::write(descriptor, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) &&
                         ::fsync(descriptor) == 0;
    const int error = errno;
    ::close(descriptor);
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        const int failure = written ? errno : error;
        ::unlink(temporary.c_str());
        return std::unexpected(path.string() + ": " + std::generic_category().message(failure));
    }
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
