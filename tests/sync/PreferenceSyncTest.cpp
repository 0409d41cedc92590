// Disabled-state preferences and the push counter travelling through the
// key-value store from machine A to machine B, and who applies them.
#include "platform/UbiquitousStoreSync.h"
#include "settings/NotificationNames.h"
#include "storage/BlockerPreferenceManager.h"
#include "storage/DisabledStateMaps.h"
#include "sync/SyncFixture.h"

namespace tamsel::sync::testing {
namespace {

using platform::UbiquitousStore;
using platform::UbiquitousStoreSync;
using platform::Value;

// A machine's key-value store with its sync to the server, driven by hand.
struct KeyValueDevice {
    std::shared_ptr<UbiquitousStore> store;
    std::shared_ptr<UbiquitousStoreSync> sync;

    KeyValueDevice(const std::filesystem::path& home, std::shared_ptr<platform::CKTransport> transport)
        : store(std::make_shared<UbiquitousStore>(platform::UserDefaults::open(home / "cloud", UbiquitousStore::suiteName))),
          sync(std::make_shared<UbiquitousStoreSync>(store->backing(),
                                                     platform::UserDefaults::open(home / "cloud", "ubiquitous-sync"),
                                                     std::move(transport))) {}

    void put(Value value, const std::string& key) {
        store->backing()->set(std::move(value), key);
        sync->noteLocalChange(key);
    }
};

struct Roles {
    bool isButtonExtension = true;
    bool isMainApp = false;
    bool mainAppRunning = false;
};

class PreferenceSyncTest : public SyncTest {
protected:
    void SetUp() override {
        SyncTest::SetUp();
        a_ = makeMachine("A", aliceToken_);
        a_->sync.reset();
        aStore_ = std::make_unique<KeyValueDevice>(a_->home.path(), a_->container->transport());
    }
    void TearDown() override {
        b_.reset();
        bStore_.reset();
        aStore_.reset();
        a_.reset();
        SyncTest::TearDown();
    }

    // B listens to the key-value store's notification, in the given roles.
    void makeB(Roles roles) {
        b_ = makeMachine("B", aliceToken_, [&](SyncManager::Configuration& configuration, Machine& machine) {
            bStore_ = std::make_unique<KeyValueDevice>(machine.home.path(),
                                                       configuration.container->transport());
            configuration.ubiquitousStore = bStore_->store;
            configuration.observeNotifications = true;
            configuration.isButtonExtension = [roles] { return roles.isButtonExtension; };
            configuration.isMainApp = [roles] { return roles.isMainApp; };
            configuration.isMainAppRunning = [roles] { return roles.mainAppRunning; };
        });
        remoteSyncs_ = platform::NotificationCenter::defaultCenter().addObserver(
            settings::NotificationNames::RemotePreferenceSync, nullptr, [this](const platform::Notification&) { ++remoteSyncPosts_; });
    }

    void switchOffOnA(const std::string& packageID) {
        storage::DisabledPackages disabled = storage::decodeDisabledPackages(
            aStore_->store->dictionary(storage::BlockerPreferenceManager::disabledPackageIDsKey));
        disabled.insert_or_assign(packageID, true);
        aStore_->put(Value(storage::encode(disabled)), storage::BlockerPreferenceManager::disabledPackageIDsKey);
        ASSERT_FALSE(aStore_->sync->synchronizeNow());
    }

    // B reads the server's changes; its notification reaches B's manager.
    void arriveOnB() {
        use(*b_);
        ASSERT_FALSE(bStore_->sync->synchronizeNow());
        settle(*b_);
    }

    // What B's preference manager reads now.
    storage::DisabledPackages disabledOnB() {
        use(*b_);
        return storage::BlockerPreferenceManager::create()->disabledPackages();
    }

    std::size_t reloadAllRequests(Machine& machine) {
        const auto requests = machine.reloads->requests();
        return static_cast<std::size_t>(std::count_if(requests.begin(), requests.end(), [](const auto& request) {
            return request.kind == storage::RecordingExtensionReloading::Request::Kind::all;
        }));
    }

    tamsel::testing::LogCapture log_;
    std::unique_ptr<Machine> a_, b_;
    std::unique_ptr<KeyValueDevice> aStore_, bStore_;
    std::atomic<int> remoteSyncPosts_ = 0;
    platform::ObserverToken remoteSyncs_;
};

TEST_F(PreferenceSyncTest, APackageSwitchedOffOnAIsOffOnBOnceTheChangeArrives) {
    makeB({});
    switchOffOnA("mine");
    EXPECT_FALSE(disabledOnB().contains("mine"));

    arriveOnB();
    EXPECT_TRUE(log_.contains("♻️ iCloud Sync: Ubiquitous store got remote changes!"));
    EXPECT_EQ(disabledOnB().at("mine"), true);
    EXPECT_GE(remoteSyncPosts_, 1);
    EXPECT_GE(reloadAllRequests(*b_), 1u);
}

TEST_F(PreferenceSyncTest, WithStorePreferencesLocallyBKeepsItsOwnButStillFetchesWhenThePushCounterMoved) {
    makeB({});
    b_->shared->set(Value(true), "StorePreferencesLocally");
    switchOffOnA("mine");
    aStore_->put(Value(std::int64_t{5}), SyncManager::notifyMacAgentFlagKey);
    ASSERT_FALSE(aStore_->sync->synchronizeNow());

    arriveOnB();
    EXPECT_FALSE(disabledOnB().contains("mine"));
    EXPECT_EQ(remoteSyncPosts_, 0);
    EXPECT_TRUE(log_.contains("♻️ iCloud Sync: Fetching from remote changes..."));
    // The fetch's end rebuilds every extension; nothing else does.
    EXPECT_EQ(reloadAllRequests(*b_), 1u);
    EXPECT_EQ(b_->standard->integer(SyncManager::notifyMacAgentFlagKey), 5);
}

TEST_F(PreferenceSyncTest, TheToolbarExtensionLeavesRemoteChangesToARunningMainApp) {
    makeB({.isButtonExtension = true, .isMainApp = false, .mainAppRunning = true});
    switchOffOnA("mine");
    arriveOnB();
    EXPECT_TRUE(log_.contains("♻️ iCloud Sync: Ignoring this Ubiquitous KVS notification, because Main app is running "
                              "and this is not Main app."));
    EXPECT_EQ(remoteSyncPosts_, 0);
    EXPECT_EQ(reloadAllRequests(*b_), 0u);
    EXPECT_FALSE(log_.contains("Fetching from remote changes"));
}

TEST_F(PreferenceSyncTest, TheMainAppAppliesAndOtherProcessesIgnore) {
    makeB({.isButtonExtension = false, .isMainApp = true, .mainAppRunning = true});
    switchOffOnA("mine");
    arriveOnB();
    EXPECT_GE(remoteSyncPosts_, 1);
    EXPECT_GE(reloadAllRequests(*b_), 1u);

    b_.reset();
    remoteSyncPosts_ = 0;
    makeB({.isButtonExtension = false, .isMainApp = false, .mainAppRunning = false});
    switchOffOnA("other");
    arriveOnB();
    EXPECT_EQ(remoteSyncPosts_, 0);
    EXPECT_EQ(reloadAllRequests(*b_), 0u);
}

TEST_F(PreferenceSyncTest, APushOnAMovesTheCounterThatMakesBFetch) {
    // As the process's shared store is: what is set on it is sent.
    aStore_->store->attachSync(aStore_->sync);
    a_ = makeMachine("A", aliceToken_, [this](SyncManager::Configuration& configuration, Machine&) {
        configuration.ubiquitousStore = aStore_->store;
    });
    givePackages(*a_, {model::Package("mine", "Mine", {hideRule("R1", "Banner", ".banner")})});
    startSync(*a_);
    ASSERT_FALSE(aStore_->sync->synchronizeNow());

    makeB({});
    arriveOnB();
    EXPECT_TRUE(findRule(*b_, "mine", "R1"));
    EXPECT_EQ(b_->standard->integer(SyncManager::notifyMacAgentFlagKey),
              aStore_->store->integer(SyncManager::notifyMacAgentFlagKey));
}

}  // namespace
}  // namespace tamsel::sync::testing
