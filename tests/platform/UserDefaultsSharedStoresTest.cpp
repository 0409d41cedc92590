#include <gtest/gtest.h>

#include <fstream>

#include "platform/BuildConfig.h"
#include "platform/DataRoot.h"
#include "platform/NotificationCenter.h"
#include "platform/Stores.h"
#include "support/TestSupport.h"

namespace tamsel::platform {
namespace {

using tamsel::testing::LogCapture;
using tamsel::testing::runChildEntry;
using tamsel::testing::ScopedDataRoot;
using tamsel::testing::waitUntil;

TEST(SharedStores, LiveUnderTheDataRootAndReopenAfterReset) {
    std::shared_ptr<UserDefaults> firstStandard;
    {
        ScopedDataRoot root;
        firstStandard = Defaults::standard();
        EXPECT_EQ(firstStandard->path(), root.home() / "extension" / "standard.sqlite");
        EXPECT_EQ(SharedDefaults::shared()->path(),
                  root.home() / "group" / (std::string(build::groupIdentifier) + ".sqlite"));
        EXPECT_EQ(UbiquitousStore::shared()->backing()->path(), root.home() / "cloud" / "ubiquitous.sqlite");
        EXPECT_EQ(Defaults::standard(), firstStandard);
        Defaults::standard()->set(true, "DidLaunchAppOnce");
    }
    ScopedDataRoot fresh;
    EXPECT_NE(Defaults::standard(), firstStandard);
    EXPECT_FALSE(Defaults::standard()->boolValue("DidLaunchAppOnce"));
    EXPECT_TRUE(firstStandard->boolValue("DidLaunchAppOnce"));  // old holders keep their store
}

TEST(SharedStores, SharedDefaultsAreSeparateFromTheStandardOnes) {
    ScopedDataRoot root;
    SharedDefaults::shared()->set(true, "blocking-paused-status");
    EXPECT_FALSE(Defaults::standard()->value("blocking-paused-status"));
    EXPECT_NE(SharedDefaults::shared(), Defaults::standard());
}

TEST(SharedStores, SharedDefaultsFallBackToTheStandardOnesWhenTheGroupIsUnusable) {
    ScopedDataRoot root;
    // A file where the group container should be: no folder can be made there.
    std::ofstream(root.home() / "group") << "in the way";
    LogCapture log;
    auto shared = SharedDefaults::shared();
    EXPECT_EQ(shared, Defaults::standard());
    EXPECT_TRUE(log.contains("using the standard defaults"));
    shared->set(1, "k");
    EXPECT_EQ(Defaults::standard()->integer("k"), 1);
}

TEST(SharedStores, StandardDefaultsKeepWorkingInMemoryWithoutTheirFolder) {
    ScopedDataRoot root;
    std::ofstream(root.home() / "extension") << "in the way";
    LogCapture log;
    auto defaults = Defaults::standard();
    ASSERT_NE(defaults, nullptr);
    defaults->set("kept", "k");
    EXPECT_EQ(defaults->string("k"), "kept");
    EXPECT_TRUE(defaults->path().empty());
    EXPECT_TRUE(log.contains("in memory only"));
}

TEST(SharedStores, SharedInstancesAreSafeToFetchFromManyThreads) {
    ScopedDataRoot root;
    std::vector<std::thread> threads;
    std::vector<std::shared_ptr<UbiquitousStore>> seen(4);
    for (std::size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&, i] {
            seen[i] = UbiquitousStore::shared();
            SharedDefaults::shared()->set(static_cast<int>(i), "thread" + std::to_string(i));
        });
    }
    for (auto& thread : threads) thread.join();
    for (const auto& store : seen) EXPECT_EQ(store, seen[0]);
    EXPECT_EQ(SharedDefaults::shared()->dictionaryRepresentation().size(), seen.size());
}

// arguments: key/JSON-value pairs written to the ubiquitous store of $TAMSEL_HOME.
TAMSEL_CHILD_ENTRY(writeUbiquitous) {
    auto store = UbiquitousStore::shared();
    for (std::size_t i = 0; i + 1 < arguments.size(); i += 2) {
        auto value = Value::fromJSON(arguments[i + 1]);
        if (!value) return 3;
        store->set(*value, arguments[i]);
    }
    return 0;
}

struct ExternalChange {
    std::vector<std::string> keys;
    std::int64_t reason = -1;
};

TEST(SharedStores, UbiquitousStorePostsChangesOfOtherProcessesOnly) {
    ScopedDataRoot root;
    auto store = UbiquitousStore::shared();
    std::mutex mutex;
    std::vector<ExternalChange> changes;
    auto observer = NotificationCenter::defaultCenter().addObserver(
        UbiquitousStore::didChangeExternallyNotification, nullptr, [&](const Notification& notification) {
            ExternalChange change;
            if (auto keys = notification.userInfoValue<std::vector<std::string>>(UbiquitousStore::changedKeysKey)) {
                change.keys = *keys;
            }
            if (auto reason = notification.userInfoValue<std::int64_t>(UbiquitousStore::changeReasonKey)) {
                change.reason = *reason;
            }
            std::lock_guard lock(mutex);
            changes.push_back(change);
        });
    auto count = [&] {
        std::lock_guard lock(mutex);
        return changes.size();
    };

    store->set(true, "UserHasiPadDevice");  // this process: no notification
    ASSERT_EQ(runChildEntry("writeUbiquitous", {"UserHasMacDevice", "true", "DisabledPackageIDs", "[\"a\"]"}), 0);
    ASSERT_TRUE(waitUntil([&] { return count() >= 1; }));
    store->backing()->deliverPendingChanges();

    std::lock_guard lock(mutex);
    std::vector<std::string> keys;
    for (const auto& change : changes) {
        EXPECT_EQ(change.reason, UbiquitousStore::serverChange);
        keys.insert(keys.end(), change.keys.begin(), change.keys.end());
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"UserHasMacDevice", "DisabledPackageIDs"}));
    EXPECT_TRUE(store->boolValue("UserHasMacDevice"));
    EXPECT_EQ(store->array("DisabledPackageIDs"), (Array{"a"}));
}

}  // namespace
}  // namespace tamsel::platform
