#include "platform/Stores.h"

#include <mutex>

#include "platform/BuildConfig.h"
#include "platform/CKContainer.h"
#include "platform/CloudAccount.h"
#include "platform/UbiquitousStoreSync.h"
#include "platform/DataRoot.h"
#include "platform/Log.h"
#include "platform/NotificationCenter.h"

namespace tamsel::platform {
namespace {

struct OpenedStores {
    std::mutex mutex;
    std::shared_ptr<UserDefaults> standard;
    std::shared_ptr<UserDefaults> shared;
    std::shared_ptr<UbiquitousStore> ubiquitous;
};

OpenedStores& opened() {
    static OpenedStores stores;
    return stores;
}

const SystemLogger& logger() {
    static const SystemLogger instance("Defaults");
    return instance;
}

// A process must keep running without its files; it just forgets on exit.
std::shared_ptr<UserDefaults> openOrKeepInMemory(const std::filesystem::path& directory, const std::string& suite) {
    if (auto defaults = UserDefaults::open(directory, suite)) return defaults;
    logger().error("Keeping the defaults suite \"%s\" in memory only", suite.c_str());
    return UserDefaults::inMemory(suite);
}

std::shared_ptr<UserDefaults> standardLocked(OpenedStores& stores) {
    if (!stores.standard) stores.standard = openOrKeepInMemory(DataRoot::extensionDirectory(), Defaults::suiteName);
    return stores.standard;
}

}  // namespace

std::shared_ptr<UserDefaults> Defaults::standard() {
    auto& stores = opened();
    std::lock_guard lock(stores.mutex);
    return standardLocked(stores);
}

std::shared_ptr<UserDefaults> SharedDefaults::shared() {
    auto& stores = opened();
    std::lock_guard lock(stores.mutex);
    if (!stores.shared) {
        stores.shared = UserDefaults::open(DataRoot::groupContainer(), build::groupIdentifier);
        if (!stores.shared) {
            logger().error("Could not open the shared defaults of group \"%s\"; using the standard defaults",
                           build::groupIdentifier);
            stores.shared = standardLocked(stores);
        }
    }
    return stores.shared;
}

std::shared_ptr<UbiquitousStore> UbiquitousStore::shared() {
    auto& stores = opened();
    std::lock_guard lock(stores.mutex);
    if (!stores.ubiquitous) {
        stores.ubiquitous =
            std::make_shared<UbiquitousStore>(openOrKeepInMemory(DataRoot::cloudDirectory(), suiteName));
        auto account = CloudAccount::load();
        if (account && *account) {
            CKTransport::Configuration configuration;
            configuration.containerIdentifier = std::string("iCloud.") + build::baseIdentifier;
            auto sync = std::make_shared<UbiquitousStoreSync>(
                stores.ubiquitous->backing(), openOrKeepInMemory(DataRoot::cloudDirectory(), "ubiquitous-sync"),
                std::make_shared<CKTransport>(std::move(configuration)));
            stores.ubiquitous->attachSync(sync);
            sync->start();
        }
    }
    return stores.ubiquitous;
}

UbiquitousStore::UbiquitousStore(std::shared_ptr<UserDefaults> backing) : backing_(std::move(backing)) {
    // What the cloud would push from the user's other devices arrives here
    // as writes of other processes to the same file.
    externalChanges_ = backing_->observeAll([](const std::vector<std::string>& changedKeys, bool external) {
        if (!external) return;
        NotificationCenter::defaultCenter().post(
            didChangeExternallyNotification, {},
            UserInfo{{changedKeysKey, changedKeys}, {changeReasonKey, std::int64_t{serverChange}}});
    });
}

UbiquitousStore::~UbiquitousStore() {
    // Before the backing goes: what waits to be sent is sent now.
    if (auto attached = sync()) attached->shutdown();
}

std::optional<Value> UbiquitousStore::value(const std::string& key) const { return backing_->value(key); }

void UbiquitousStore::set(std::optional<Value> value, const std::string& key) {
    backing_->set(std::move(value), key);
    if (auto attached = sync()) {
        attached->noteLocalChange(key);
        attached->scheduleSynchronization();
    }
}

void UbiquitousStore::synchronize() {
    if (auto attached = sync()) attached->scheduleSynchronization();
}

void UbiquitousStore::attachSync(std::shared_ptr<UbiquitousStoreSync> sync) {
    std::lock_guard lock(syncMutex_);
    sync_ = std::move(sync);
}

std::shared_ptr<UbiquitousStoreSync> UbiquitousStore::sync() const {
    std::lock_guard lock(syncMutex_);
    return sync_;
}

Dictionary UbiquitousStore::dictionaryRepresentation() const { return backing_->dictionaryRepresentation(); }

void finishSharedStoreSync() {
    std::shared_ptr<UbiquitousStore> store;
    {
        auto& stores = opened();
        std::lock_guard lock(stores.mutex);
        store = stores.ubiquitous;
    }
    if (!store) return;
    if (auto attached = store->sync()) attached->shutdown();
}

void resetSharedStoresForTesting() {
    OpenedStores released;
    {
        auto& stores = opened();
        std::lock_guard lock(stores.mutex);
        std::swap(released.standard, stores.standard);
        std::swap(released.shared, stores.shared);
        std::swap(released.ubiquitous, stores.ubiquitous);
    }
    // Closing joins the watcher threads; do it without holding the lock that
    // their handlers may need to reach the stores.
}

}  // namespace tamsel::platform
