#include <atomic>
#include <thread>

#include "cloud/CloudServerFixture.h"
#include "platform/CKContainer.h"
#include "platform/NotificationCenter.h"
#include "platform/Stores.h"
#include "platform/UbiquitousStoreSync.h"

namespace tamsel::cloud::testing {
namespace {

using platform::CKError;
using platform::CloudAccount;
using platform::UbiquitousStore;
using platform::UbiquitousStoreSync;
using platform::UserDefaults;
using platform::Value;

// Each device: its own store and sync state on disk, its own clock.
struct Device {
    std::shared_ptr<UbiquitousStore> store;
    std::shared_ptr<UbiquitousStoreSync> sync;
    std::atomic<std::int64_t> now{1'000'000};

    // A local write, sent at the next synchronizeNow() (the store is not
    // attached, so that no background synchronisation races the test's).
    void put(std::optional<Value> value, const std::string& key) {
        store->backing()->set(std::move(value), key);
        sync->noteLocalChange(key);
    }
};

// The changed-externally notifications of this process.
struct Notifications {
    std::mutex mutex;
    std::condition_variable posted;
    std::vector<std::pair<std::int64_t, std::vector<std::string>>> received;
    platform::ObserverToken token;

    Notifications() {
        token = platform::NotificationCenter::defaultCenter().addObserver(
            UbiquitousStore::didChangeExternallyNotification, nullptr, [this](const platform::Notification& n) {
                std::lock_guard lock(mutex);
                received.emplace_back(std::any_cast<std::int64_t>(n.userInfo.at(UbiquitousStore::changeReasonKey)),
                                      std::any_cast<std::vector<std::string>>(n.userInfo.at(UbiquitousStore::changedKeysKey)));
                posted.notify_all();
            });
    }
    bool waitFor(std::size_t count) {
        std::unique_lock lock(mutex);
        return posted.wait_for(lock, std::chrono::seconds(5), [&] { return received.size() >= count; });
    }
    void clear() {
        std::lock_guard lock(mutex);
        received.clear();
    }
};

class KeyValueSyncTest : public CloudServerTest {
protected:
    std::unique_ptr<Device> device(const std::string& name, const std::string& token) {
        auto device = std::make_unique<Device>();
        const auto folder = directory_ / name;
        std::filesystem::create_directories(folder);
        auto backing = UserDefaults::open(folder, "ubiquitous");
        device->store = std::make_shared<UbiquitousStore>(backing);
        platform::CKTransport::Configuration configuration;
        configuration.containerIdentifier = "iCloud.app.tamsel.Tamsel";
        const std::string url = server_->baseURL();
        configuration.account = [url, token] { return std::optional(CloudAccount{url, "user", token}); };
        configuration.deviceID = name;
        auto* clock = &device->now;
        device->sync = std::make_shared<UbiquitousStoreSync>(
            backing, UserDefaults::open(folder, "ubiquitous-sync"),
            std::make_shared<platform::CKTransport>(std::move(configuration)), [clock] { return clock->load(); });
        return device;
    }
};

TEST_F(KeyValueSyncTest, TheLaterWriteByDeviceTimeWinsOnEveryDevice) {
    Notifications notifications;
    auto a = device("a", aliceToken_);
    auto b = device("b", aliceToken_);
    a->now = 2000;
    a->put(Value("from A"), "k");
    a->put(Value(std::int64_t{7}), "counter");
    b->now = 1000;  // B wrote k earlier by its clock, but sends later
    b->put(Value("from B"), "k");
    ASSERT_FALSE(a->sync->synchronizeNow());
    ASSERT_FALSE(b->sync->synchronizeNow());
    EXPECT_EQ(b->store->string("k"), "from A");
    EXPECT_EQ(b->store->integer("counter"), 7);
    EXPECT_TRUE(b->sync->pendingKeys().empty());
    {
        std::lock_guard lock(notifications.mutex);
        ASSERT_EQ(notifications.received.size(), 1u);
        EXPECT_EQ(notifications.received[0].first, UbiquitousStore::initialSyncChange);
        EXPECT_EQ(notifications.received[0].second, (std::vector<std::string>{"counter", "k"}));
    }
    notifications.clear();

    // A later write of B wins, removals travel too.
    b->now = 3000;
    b->put(Value("B again"), "k");
    b->put(std::nullopt, "counter");
    ASSERT_FALSE(b->sync->synchronizeNow());
    ASSERT_FALSE(a->sync->synchronizeNow());
    EXPECT_EQ(a->store->string("k"), "B again");
    EXPECT_FALSE(a->store->value("counter"));
    std::lock_guard lock(notifications.mutex);
    ASSERT_EQ(notifications.received.size(), 1u);
    EXPECT_EQ(notifications.received[0].first, UbiquitousStore::serverChange);

    // Another user's store is another store.
    auto bob = device("bob", bobToken_);
    ASSERT_FALSE(bob->sync->synchronizeNow());
    EXPECT_FALSE(bob->store->value("k"));
}

TEST_F(KeyValueSyncTest, TheServerKeepsAtMost1024KeysAndAnnouncesTheRefusedOnes) {
    Notifications notifications;
    auto a = device("a", aliceToken_);
    for (int i = 0; i < 1025; ++i) a->put(Value(std::int64_t{i}), fmt::format("key{:04}", i));
    ASSERT_FALSE(a->sync->synchronizeNow());
    ASSERT_TRUE(notifications.waitFor(1));
    {
        std::lock_guard lock(notifications.mutex);
        EXPECT_EQ(notifications.received[0].first, UbiquitousStore::quotaViolationChange);
        EXPECT_EQ(notifications.received[0].second.size(), 1u);
    }
    // The refused key stays on this device; it is not sent again and again.
    EXPECT_EQ(a->store->dictionaryRepresentation().size(), 1025u);
    EXPECT_TRUE(a->sync->pendingKeys().empty());
    DatabaseScope alice{"iCloud.app.tamsel.Tamsel", "development", false, "alice"};
    EXPECT_EQ(store_->keyValueChanges(alice, 0).items.size(), 1024u);

    // Bytes count too: a value that would pass 1 MB in all is refused.
    const std::string big(600 * 1024, 'x');
    auto results = store_->modifyKeyValues(DatabaseScope{"c", "development", false, "bob"},
                                           {{"one", big, 1}, {"two", big, 1}});
    EXPECT_TRUE(results[0].applied);
    ASSERT_TRUE(results[1].error);
    EXPECT_EQ(results[1].error->code, ServerErrorCode::quotaExceeded);
}

TEST_F(KeyValueSyncTest, APushFromAnotherDeviceBringsItsChangesWithoutAsking) {
    Notifications notifications;
    auto a = device("a", aliceToken_);
    auto b = device("b", aliceToken_);
    ASSERT_FALSE(b->sync->synchronizeNow());
    b->sync->start();
    for (int i = 0; i < 200 && server_->push().streamCount() < 1; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(server_->push().streamCount(), 1u);
    a->put(Value(true), "notifyMacAgentFlagKey");
    ASSERT_FALSE(a->sync->synchronizeNow());
    ASSERT_TRUE(notifications.waitFor(1));
    EXPECT_EQ(b->store->boolValue("notifyMacAgentFlagKey"), true);
    b->sync->stop();
}

TEST_F(KeyValueSyncTest, WithoutAnAccountTheSharedStoreStaysLocal) {
    const auto before = server_->requestCount();
    auto store = UbiquitousStore::shared();
    EXPECT_FALSE(store->sync());
    store->set(Value("local"), "k");
    store->synchronize();
    EXPECT_EQ(store->string("k"), "local");
    EXPECT_EQ(server_->requestCount(), before);

    // Signed in, a newly opened shared store syncs through the server.
    ASSERT_TRUE(CloudAccount::save({server_->baseURL(), "alice", aliceToken_}));
    platform::resetSharedStoresForTesting();
    auto synced = UbiquitousStore::shared();
    ASSERT_TRUE(synced->sync());
    synced->set(Value("through the cloud"), "k2");
    DatabaseScope alice{"iCloud.app.tamsel.Tamsel", "development", false, "alice"};
    for (int i = 0; i < 300 && store_->keyValueChanges(alice, 0).items.empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_FALSE(store_->keyValueChanges(alice, 0).items.empty());
    synced->sync()->stop();
    ASSERT_TRUE(CloudAccount::remove());
    platform::resetSharedStoresForTesting();
}

}  // namespace
}  // namespace tamsel::cloud::testing
