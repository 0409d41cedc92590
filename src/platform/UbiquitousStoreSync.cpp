#include "platform/UbiquitousStoreSync.h"

#include <chrono>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include "platform/CKWire.h"
#include "platform/Log.h"
#include "platform/NotificationCenter.h"
#include "platform/Stores.h"
#include "platform/Value.h"
#include "platform/ValueCoding.h"

namespace tamsel::platform {
namespace {

const SystemLogger& logger() {
    static const SystemLogger instance("CloudKit");
    return instance;
}

const std::string pendingPrefix = "pending:";
const std::string syncTokenKey = "syncToken";
const std::string accountKey = "account";

std::int64_t systemMilliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

UbiquitousStoreSync::UbiquitousStoreSync(std::shared_ptr<UserDefaults> store, std::shared_ptr<UserDefaults> state,
                                         std::shared_ptr<CKTransport> transport, Clock clock)
    : store_(std::move(store)),
      state_(std::move(state)),
      transport_(std::move(transport)),
      clock_(clock ? std::move(clock) : Clock(systemMilliseconds)),
      queue_("UbiquitousStoreSync", DispatchQueue::Kind::serial, QualityOfService::utility) {}

UbiquitousStoreSync::~UbiquitousStoreSync() { shutdown(); }

void UbiquitousStoreSync::shutdown() {
    stop();
    {
        std::unique_lock lock(scheduleMutex_);
        if (closed_) return;
        closed_ = true;
        idle_.wait(lock, [this] { return inFlight_ == 0; });
    }
    if (!pendingKeys().empty() && transport_->account()) {
        if (auto error = synchronizeNow()) {
            logger().error("Key-value store changes wait for the next start: %s", error->localizedDescription().c_str());
        }
    }
}

void UbiquitousStoreSync::noteLocalChange(const std::string& key) {
    state_->set(Value(clock_()), pendingPrefix + key);
}

std::vector<std::string> UbiquitousStoreSync::pendingKeys() const {
    std::vector<std::string> keys;
    for (const auto& [key, value] : state_->dictionaryRepresentation()) {
        if (key.starts_with(pendingPrefix)) keys.push_back(key.substr(pendingPrefix.size()));
    }
    return keys;
}

void UbiquitousStoreSync::scheduleSynchronization() {
    {
        std::lock_guard lock(scheduleMutex_);
        if (closed_ || scheduled_) return;
        scheduled_ = true;
        ++inFlight_;
    }
    queue_.async([this] {
        bool closed = false;
        {
            std::lock_guard lock(scheduleMutex_);
            scheduled_ = false;
            closed = closed_;
        }
        if (!closed) {
            if (auto error = synchronizeNow(); error && error->code != CKError::Code::notAuthenticated) {
                logger().error("Key-value store synchronisation failed: %s", error->localizedDescription().c_str());
            }
        }
        // The last touch of `this`: notified under the lock, so that the
        // waiting destructor cannot go on before it is done.
        std::lock_guard lock(scheduleMutex_);
        --inFlight_;
        idle_.notify_all();
    });
}

void UbiquitousStoreSync::start() {
    if (push_) return;
    {
        std::lock_guard lock(scheduleMutex_);
        if (closed_) return;
    }
    std::weak_ptr<UbiquitousStoreSync> weak = weak_from_this();
    push_ = std::make_unique<CKPushConnection>(transport_, [weak](const std::string& kind, const std::string&) {
        if (kind != "keyValueChanged") return;
        if (auto self = weak.lock()) self->scheduleSynchronization();
    });
    push_->start();
    scheduleSynchronization();
}

void UbiquitousStoreSync::stop() {
    if (push_) push_->stop();
    push_.reset();
}

std::optional<CKError> UbiquitousStoreSync::synchronizeNow() {
    std::lock_guard lock(mutex_);
    if (auto error = push()) return error;
    return pull();
}

std::optional<CKError> UbiquitousStoreSync::push() {
    std::vector<PendingItem> items;
    for (const auto& [key, value] : state_->dictionaryRepresentation()) {
        if (!key.starts_with(pendingPrefix)) continue;
        items.push_back({key.substr(pendingPrefix.size()), value.asInteger().value_or(0)});
    }
    // Requests of a bounded size, as the record operations keep them.
    std::vector<std::string> refused;
    for (std::size_t first = 0; first < items.size(); first += ckwire::maximumOperationsPerRequest) {
        const std::size_t last = std::min(items.size(), first + ckwire::maximumOperationsPerRequest);
        if (auto error = pushBatch(std::span(items).subspan(first, last - first), refused)) return error;
    }
    if (!refused.empty()) postChange(refused, UbiquitousStore::quotaViolationChange);
    return std::nullopt;
}

std::optional<CKError> UbiquitousStoreSync::pushBatch(std::span<const PendingItem> items,
                                                      std::vector<std::string>& refused) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    writer.Key("items");
    writer.StartArray();
    for (const auto& item : items) {
        writer.StartObject();
        writer.Key("key");
        writer.String(item.key.data(), static_cast<rapidjson::SizeType>(item.key.size()));
        writer.Key("value");
        if (auto value = store_->value(item.key)) {
            const std::string bytes = encodeValue(*value);
            const std::string encoded = base64Encode(Data(bytes.begin(), bytes.end()));
            writer.String(encoded.data(), static_cast<rapidjson::SizeType>(encoded.size()));
        } else {
            writer.Null();
        }
        writer.Key("timestamp");
        writer.Int64(item.stamp);
        writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();

    auto answer = transport_->send(false, "kvs/modify", std::string(buffer.GetString(), buffer.GetSize()));
    if (!answer) return answer.error();
    simdjson::dom::parser parser;
    simdjson::dom::array results;
    if (parser.parse(*answer).get_object()["items"].get(results) != simdjson::SUCCESS || results.size() != items.size()) {
        return CKError::make(CKError::Code::serviceUnavailable, "The server's answer could not be read: kvs/modify");
    }
    std::size_t index = 0;
    for (simdjson::dom::element result : results) {
        const PendingItem& item = items[index++];
        if (result["serverErrorCode"].error() == simdjson::SUCCESS) refused.push_back(item.key);
        // Sent (or outdone by a later write elsewhere, which the read below
        // brings): no longer waiting, unless it was set again meanwhile.
        if (state_->value(pendingPrefix + item.key) == Value(item.stamp)) state_->set(std::nullopt, pendingPrefix + item.key);
    }
    return std::nullopt;
}

std::optional<CKError> UbiquitousStoreSync::pull() {
    auto account = transport_->account();
    if (!account) return CKError::make(CKError::Code::notAuthenticated, "No account");
    const std::string accountName = account->serverURL + " " + account->userName;
    const auto previousAccount = state_->value(accountKey);
    const bool otherAccount = previousAccount && previousAccount != Value(accountName);
    std::int64_t since = otherAccount ? 0 : state_->value(syncTokenKey).value_or(Value(0)).asInteger().value_or(0);

    const std::string body = "{\"syncToken\":" + std::to_string(since) + "}";
    auto answer = transport_->send(false, "kvs/changes", body);
    if (!answer) return answer.error();
    simdjson::dom::parser parser;
    simdjson::dom::element json;
    simdjson::dom::array items;
    std::int64_t token = 0;
    if (parser.parse(*answer).get(json) != simdjson::SUCCESS || json["items"].get(items) != simdjson::SUCCESS ||
        json["syncToken"].get(token) != simdjson::SUCCESS) {
        return CKError::make(CKError::Code::serviceUnavailable, "The server's answer could not be read: kvs/changes");
    }
    std::vector<std::string> changed;
    for (simdjson::dom::element item : items) {
        std::string_view key;
        std::int64_t stamp = 0;
        if (item["key"].get(key) != simdjson::SUCCESS || item["timestamp"].get(stamp) != simdjson::SUCCESS) continue;
        const std::string name(key);
        // A later write of this device, not yet sent, wins.
        if (auto pending = state_->value(pendingPrefix + name); pending && pending->asInteger().value_or(0) > stamp) {
            continue;
        }
        std::optional<Value> value;
        std::string_view encoded;
        if (item["value"].get(encoded) == simdjson::SUCCESS) {
            auto bytes = base64Decode(encoded);
            if (!bytes) continue;
            auto decoded = decodeValue(std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
            if (!decoded) continue;
            value = std::move(*decoded);
        }
        if (store_->value(name) == value) continue;
        store_->set(value, name);
        changed.push_back(name);
    }
    state_->set(Value(token), syncTokenKey);
    state_->set(Value(accountName), accountKey);
    if (otherAccount) {
        postChange(changed, UbiquitousStore::accountChange);
    } else if (!changed.empty()) {
        postChange(changed, since == 0 && !previousAccount ? UbiquitousStore::initialSyncChange
                                                           : UbiquitousStore::serverChange);
    }
    return std::nullopt;
}

void UbiquitousStoreSync::postChange(const std::vector<std::string>& keys, std::int64_t reason) {
    NotificationCenter::defaultCenter().post(
        UbiquitousStore::didChangeExternallyNotification, {},
        UserInfo{{UbiquitousStore::changedKeysKey, keys}, {UbiquitousStore::changeReasonKey, reason}});
}

}  // namespace tamsel::platform
