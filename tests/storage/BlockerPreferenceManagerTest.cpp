#include "storage/BlockerPreferenceManager.h"

#include "platform/BuildConfig.h"
#include "platform/DataRoot.h"
#include "platform/MainRunLoop.h"
#include "platform/NotificationCenter.h"
#include "platform/Stores.h"
#include "platform/UserDefaults.h"
#include "settings/Keys.h"
#include "storage/PackagePreferences.h"
#include "support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

namespace tamsel::storage {
namespace {

using model::ExtensionType;
using model::Package;
using model::Rule;
using platform::Dictionary;
using platform::Value;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

model::Blocker blockerFor(const std::string& urlFilter, model::ActionType type = model::ActionType::block) {
    model::Blocker blocker;
    blocker.trigger.urlFilter = urlFilter;
    blocker.action.type = type;
    return blocker;
}

Rule blockRule(const std::string& id) { return Rule(id, id, blockerFor(id)); }

Rule whitelistRule(const std::string& id, std::vector<ExtensionType> partial = {}) {
    return Rule(id, id, blockerFor(id, model::ActionType::ignorePreviousRules), std::move(partial));
}

Package package(const std::string& id, std::vector<Rule> rules = {}) { return Package(id, id, std::move(rules)); }

std::shared_ptr<platform::Store> shared() { return platform::SharedDefaults::shared(); }
std::shared_ptr<platform::Store> ubiquitous() { return platform::UbiquitousStore::shared(); }

class FakePackageSource : public PackageSource {
public:
    std::vector<Package> configurable;
    std::vector<Package> custom;
    PackageList configurablePackageList() const override { return std::make_shared<std::vector<Package>>(configurable); }
    PackageList customPackageList() const override { return std::make_shared<std::vector<Package>>(custom); }
};

class RecordingObserver : public BlockerPreferenceChangesObserver {
public:
    explicit RecordingObserver(std::vector<std::string>* events) : events_(events) {}
    void blockerPreferencesDidChange(BlockerPreferenceManager&) override {
        calls.fetch_add(1);
        if (events_) events_->push_back("observer");
    }
    std::atomic<int> calls{0};

private:
    std::vector<std::string>* events_;
};

// Records the preference notifications in the order they arrive, with the
// object they carry.
class NotificationRecorder {
public:
    explicit NotificationRecorder(std::vector<std::string>& events) {
        for (const char* name : {"WillSaveUserPreference", "DidSaveUserPreference"}) {
            tokens_.push_back(platform::NotificationCenter::defaultCenter().addObserver(
                name, nullptr, [&events, this](const platform::Notification& notification) {
                    events.push_back(notification.name);
                    const auto* object = std::any_cast<BlockerPreferenceManager*>(&notification.object);
                    objects.push_back(object ? *object : nullptr);
                }));
        }
    }
    std::vector<BlockerPreferenceManager*> objects;

private:
    std::vector<platform::ObserverToken> tokens_;
};

class BlockerPreferenceManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ExtensionReloading::setShared(recorder);
        platform::MainRunLoop::drain();
    }
    void TearDown() override {
        platform::MainRunLoop::drain();
        ExtensionReloading::setShared(nullptr);
    }

    void storeLocally(bool locally) { shared()->set(Value(locally), settings::Keys::storePreferencesLocally); }

    std::shared_ptr<BlockerPreferenceManager> makeManager(std::weak_ptr<BlockerPreferenceChangesObserver> observer = {}) {
        return BlockerPreferenceManager::create(std::move(observer), {&source, nullptr});
    }

    testing::ScopedDataRoot root;
    testing::LogCapture log;
    std::shared_ptr<RecordingExtensionReloading> recorder = std::make_shared<RecordingExtensionReloading>();
    FakePackageSource source;
};

using Request = RecordingExtensionReloading::Request;

// --- Reading -------------------------------------------------------------

TEST_F(BlockerPreferenceManagerTest, NothingStoredMeansEverythingEnabled) {
    const Package ads = package("block-ads", {blockRule("a"), blockRule("b"), blockRule("c")});

    EXPECT_FALSE(isDisabled(ads));
    EXPECT_FALSE(isDisabled(ads.rules[0], ads));
    EXPECT_EQ(disabledRulesCount(ads), 0u);
    EXPECT_EQ(enabledRulesCount(ads), 3u);
    EXPECT_THAT(makeManager()->disabledPackages(), IsEmpty());
    EXPECT_THAT(makeManager()->disabledRules(), IsEmpty());
}

TEST_F(BlockerPreferenceManagerTest, CountsOnlyTrueEntriesOfThePackagesOwnRules) {
    const Package ads = package("block-ads", {blockRule("a"), blockRule("b"), blockRule("c")});
    ubiquitous()->set(Value(Dictionary{{"block-ads", Value(Dictionary{{"a", Value(true)},
                                                                       {"b", Value(false)},
                                                                       {"gone", Value(true)}})},
                                       {"other", Value(Dictionary{{"c", Value(true)}})}}),
                      "DisabledRuleIDs");

    EXPECT_TRUE(isDisabled(ads.rules[0], ads));
    EXPECT_FALSE(isDisabled(ads.rules[1], ads));
    EXPECT_FALSE(isDisabled(ads.rules[2], ads));
    EXPECT_EQ(disabledRulesCount(ads), 1u);
    EXPECT_EQ(enabledRulesCount(ads), 2u);
}

TEST_F(BlockerPreferenceManagerTest, MalformedMapsReadAsEmptyAsAWhole) {
    // One value of the wrong type spoils the whole map, not just its entry.
    ubiquitous()->set(Value(Dictionary{{"block-ads", Value(true)}, {"block-social", Value(1)}}),
                      "DisabledPackageIDs");
    EXPECT_FALSE(isDisabled(package("block-ads")));
    EXPECT_THAT(makeManager()->disabledPackages(), IsEmpty());

    ubiquitous()->set(Value(Dictionary{{"p", Value(Dictionary{{"r", Value(true)}})}, {"q", Value("r")}}),
                      "DisabledRuleIDs");
    EXPECT_THAT(makeManager()->disabledRules(), IsEmpty());

    ubiquitous()->set(Value(Dictionary{{"p", Value(Dictionary{{"r", Value(true)}, {"s", Value("yes")}})}}),
                      "DisabledRuleIDs");
    EXPECT_FALSE(isDisabled(blockRule("r"), package("p")));

    ubiquitous()->set(Value(platform::Array{Value("block-ads")}), "DisabledPackageIDs");
    EXPECT_THAT(makeManager()->disabledPackages(), IsEmpty());
}

// --- The chosen store ------------------------------------------------------

TEST_F(BlockerPreferenceManagerTest, StoringLocallyLeavesTheUbiquitousStoreUntouched) {
    storeLocally(true);
    ubiquitous()->set(Value(Dictionary{{"block-ads", Value(true)}}), "DisabledPackageIDs");
    const Dictionary cloudBefore = ubiquitous()->dictionaryRepresentation();

    auto manager = makeManager();
    EXPECT_FALSE(isDisabled(package("block-ads")));
    manager->saveDisabledPreferenceWithoutReload(package("block-social"));
    manager->saveEnabledPreferenceWithoutReload(blockRule("r"), package("block-ads"));
    manager->savePreferenceWithReload({package("block-trackers")}, true);
    manager->waitForPendingWrites();

    EXPECT_EQ(ubiquitous()->dictionaryRepresentation(), cloudBefore);
    EXPECT_EQ(shared()->dictionary("DisabledPackageIDs"),
              (Dictionary{{"block-social", Value(true)}, {"block-trackers", Value(true)}}));
    EXPECT_TRUE(isDisabled(package("block-social")));
}

TEST_F(BlockerPreferenceManagerTest, SwitchingStoresDoesNotCopyTheMaps) {
    auto manager = makeManager();
    manager->saveDisabledPreferenceWithoutReload(package("block-ads"));
    EXPECT_TRUE(ubiquitous()->dictionary("DisabledPackageIDs").has_value());
    EXPECT_FALSE(shared()->dictionary("DisabledPackageIDs").has_value());
    EXPECT_TRUE(isDisabled(package("block-ads")));

    // The flag is read afresh on every read.
    storeLocally(true);
    EXPECT_FALSE(isDisabled(package("block-ads")));
    storeLocally(false);
    EXPECT_TRUE(isDisabled(package("block-ads")));
}

// --- One-time moves from the older layout ------------------------------------

TEST_F(BlockerPreferenceManagerTest, PackageMoveRunsOnceAndRemovesTheOldKeyFromBothStores) {
    ubiquitous()->set(Value(platform::Array{Value("block-social")}), "DisabledUserPreferenceForPackages");
    shared()->set(Value(platform::Array{Value("block-social")}), "DisabledUserPreferenceForPackages");
    ubiquitous()->set(Value(Dictionary{{"block-ads", Value(false)}}), "DisabledPackageIDs");

    EXPECT_EQ(makeManager()->disabledPackages(),
              (DisabledPackages{{"block-ads", false}, {"block-social", true}}));

    EXPECT_TRUE(shared()->boolValue("DidMigrateDisabledPackageIDsFromOldArrayOnce"));
    EXPECT_EQ(ubiquitous()->dictionary("DisabledPackageIDs"),
              (Dictionary{{"block-ads", Value(false)}, {"block-social", Value(true)}}));
    EXPECT_FALSE(ubiquitous()->value("DisabledUserPreferenceForPackages").has_value());
    EXPECT_FALSE(shared()->value("DisabledUserPreferenceForPackages").has_value());
    EXPECT_THAT(log.lines(), ElementsAre("Migrating disabled package IDs (1) from old array to the new dictionary",
                                         "BEFORE: dictionary.count = 1", "[\"block-ads\": false]",
                                         "AFTER: dictionary.count = 2",
                                         "[\"block-ads\": false, \"block-social\": true]"));

    // Old data that reappears is not moved a second time.
    ubiquitous()->set(Value(platform::Array{Value("block-adult")}), "DisabledUserPreferenceForPackages");
    EXPECT_FALSE(isDisabled(package("block-adult")));
    EXPECT_EQ(log.lines().size(), 5u);
}

TEST_F(BlockerPreferenceManagerTest, RuleMoveKeepsOtherEntriesOfAPackage) {
    ubiquitous()->set(Value(Dictionary{{"p", Value(Dictionary{{"a", Value(false)}})}}), "DisabledRuleIDs");
    ubiquitous()->set(Value(Dictionary{{"p", Value(platform::Array{Value("b")})},
                                       {"q", Value(platform::Array{Value("c"), Value("d")})}}),
                      "DisabledUserPreferenceForRules");

    EXPECT_EQ(makeManager()->disabledRules(),
              (DisabledRules{{"p", {{"a", false}, {"b", true}}}, {"q", {{"c", true}, {"d", true}}}}));
    EXPECT_TRUE(log.contains("Migrating disabled rule IDs (2) from old array to the new dictionary"));
    EXPECT_TRUE(shared()->boolValue("DidMigrateDisabledRuleIDsFromOldArrayOnce"));
    EXPECT_FALSE(ubiquitous()->value("DisabledUserPreferenceForRules").has_value());
    // The package move is separate and has not run: no package map was read.
    EXPECT_FALSE(shared()->boolValue("DidMigrateDisabledPackageIDsFromOldArrayOnce"));
}

TEST_F(BlockerPreferenceManagerTest, SetFlagsPreventTheMoves) {
    shared()->set(Value(true), "DidMigrateDisabledPackageIDsFromOldArrayOnce");
    shared()->set(Value(true), "DidMigrateDisabledRuleIDsFromOldArrayOnce");
    ubiquitous()->set(Value(platform::Array{Value("block-social")}), "DisabledUserPreferenceForPackages");
    ubiquitous()->set(Value(Dictionary{{"p", Value(platform::Array{Value("b")})}}), "DisabledUserPreferenceForRules");

    auto manager = makeManager();
    EXPECT_THAT(manager->disabledPackages(), IsEmpty());
    EXPECT_THAT(manager->disabledRules(), IsEmpty());
    EXPECT_TRUE(ubiquitous()->value("DisabledUserPreferenceForPackages").has_value());
    EXPECT_THAT(log.lines(), IsEmpty());
}

// --- Saving without reload ---------------------------------------------------

TEST_F(BlockerPreferenceManagerTest, EnablingANeverDisabledRuleStoresExplicitFalseAndNotifiesOnMain) {
    std::vector<std::string> events;
    NotificationRecorder notifications(events);
    auto observer = std::make_shared<RecordingObserver>(&events);
    auto manager = makeManager(observer);

    manager->saveEnabledPreferenceWithoutReload(blockRule("r"), package("block-ads"));

    EXPECT_EQ(ubiquitous()->dictionary("DisabledRuleIDs"),
              (Dictionary{{"block-ads", Value(Dictionary{{"r", Value(false)}})}}));
    EXPECT_THAT(events, IsEmpty()) << "notifications travel through the main queue";
    platform::MainRunLoop::drain();
    EXPECT_THAT(events, ElementsAre("WillSaveUserPreference", "DidSaveUserPreference", "observer"));
    EXPECT_THAT(notifications.objects, ElementsAre(manager.get(), manager.get()));
    EXPECT_THAT(recorder->requests(), IsEmpty());
}

TEST_F(BlockerPreferenceManagerTest, PackageSwitchesWithoutReloadTellTheObserverAtOnceAndPostNothing) {
    std::vector<std::string> events;
    NotificationRecorder notifications(events);
    auto observer = std::make_shared<RecordingObserver>(&events);
    auto manager = makeManager(observer);

    manager->saveDisabledPreferenceWithoutReload(package("block-ads"));
    EXPECT_EQ(observer->calls.load(), 1);
    manager->saveEnabledPreferenceWithoutReload(package("block-social"));
    EXPECT_EQ(observer->calls.load(), 2);
    enable(package("block-ads"), false);

    platform::MainRunLoop::drain();
    EXPECT_THAT(events, ElementsAre("observer", "observer"));
    EXPECT_EQ(manager->disabledPackages(), (DisabledPackages{{"block-ads", false}, {"block-social", false}}));
    EXPECT_THAT(recorder->requests(), IsEmpty());
}

// --- Saving with reload --------------------------------------------------------

TEST_F(BlockerPreferenceManagerTest, ReloadRebuildsOnlyTheAffectedExtensions) {
    auto manager = makeManager();
    manager->savePreferenceWithReload({package("block-ads", {blockRule("a")})}, true);
    manager->waitForPendingWrites();
    EXPECT_THAT(recorder->requests(), ElementsAre(Request{Request::Kind::one, ExtensionType::blockAds, false, {}}));
    EXPECT_TRUE(isDisabled(package("block-ads")));

    // Each type once, in order of first appearance.
    recorder->clear();
    manager->savePreferenceWithReload({package("block-german"), package("block-ads"), package("block-french"),
                                       package("my-list", {blockRule("x")})},
                                      true);
    manager->waitForPendingWrites();
    EXPECT_THAT(recorder->extensionsToRebuild(),
                ElementsAre(ExtensionType::regionalRules, ExtensionType::blockAds, ExtensionType::customRules));
}

TEST_F(BlockerPreferenceManagerTest, AWhitelistRuleInAnyPackageRebuildsEveryExtension) {
    auto manager = makeManager();
    manager->savePreferenceWithReload({package("whitelist", {whitelistRule("w")})}, true);
    manager->waitForPendingWrites();
    EXPECT_THAT(recorder->requests(), ElementsAre(Request{Request::Kind::all, {}, false, {}}));
    EXPECT_EQ(recorder->extensionsToRebuild().size(), model::allCases<ExtensionType>().size());

    recorder->clear();
    manager->savePreferenceWithReload(
        {package("block-ads"), package("mine", {blockRule("b"), whitelistRule("w", {ExtensionType::blockAds})})},
        false);
    manager->waitForPendingWrites();
    EXPECT_THAT(recorder->requests(), ElementsAre(Request{Request::Kind::all, {}, false, {}}));
    EXPECT_EQ(manager->disabledPackages(),
              (DisabledPackages{{"block-ads", false}, {"mine", false}, {"whitelist", true}}));
}

TEST_F(BlockerPreferenceManagerTest, ReloadingSavesAreAppliedInOrderAndNotifyOnMain) {
    std::vector<std::string> events;
    NotificationRecorder notifications(events);
    auto observer = std::make_shared<RecordingObserver>(&events);
    auto manager = makeManager(observer);
    EXPECT_EQ(manager->serialWriteQueueLabel(),
              std::string(build::baseIdentifier) + ".writeQueue.BlockerPreferenceManager");

    for (int i = 0; i < 20; ++i) manager->savePreferenceWithReload({package("block-ads")}, i % 2 == 0);
    manager->waitForPendingWrites();
    EXPECT_FALSE(isDisabled(package("block-ads"))) << "the last request (enable) must win";

    ASSERT_TRUE(platform::MainRunLoop::runUntil([&] { return observer->calls.load() == 20; },
                                                std::chrono::seconds(10)));
    ASSERT_EQ(events.size(), 60u);
    EXPECT_EQ(std::count(events.begin(), events.end(), "WillSaveUserPreference"), 20);
    // Every "did" is followed by the observer call.
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (events[i] == "DidSaveUserPreference") {
            ASSERT_LT(i + 1, events.size());
            EXPECT_EQ(events[i + 1], "observer");
        }
    }
}

TEST_F(BlockerPreferenceManagerTest, PendingWorkKeepsTheManagerAliveAndTheObserverIsHeldWeakly) {
    auto observer = std::make_shared<RecordingObserver>(nullptr);
    {
        auto manager = makeManager(observer);
        manager->savePreferenceWithReload({package("block-ads")}, true);
    }
    observer.reset();
    // The queued save still runs, and its main-queue delivery finds no observer.
    ASSERT_TRUE(testing::waitUntil([] { return isDisabled(package("block-ads")); }));
    ASSERT_TRUE(testing::waitUntil([&] { return !recorder->requests().empty(); }));
    platform::MainRunLoop::drain();
}

TEST_F(BlockerPreferenceManagerTest, EnableWithReloadGoesThroughTheWriteQueue) {
    ubiquitous()->set(Value(Dictionary{{"block-social", Value(true)}}), "DisabledPackageIDs");
    enable(package("block-social"), true);
    ASSERT_TRUE(testing::waitUntil([&] { return !recorder->requests().empty(); }));
    EXPECT_THAT(recorder->requests(), ElementsAre(Request{Request::Kind::one, ExtensionType::blockSocial, false, {}}));
    EXPECT_FALSE(isDisabled(package("block-social")));
}

// --- The compiler's selections ---------------------------------------------------

TEST_F(BlockerPreferenceManagerTest, EnabledBlockersSkipDisabledWhitelistAndSelfWhitelistingRules) {
    const Package ads = package("block-ads", {blockRule("a1"), blockRule("a2"), whitelistRule("a3"),
                                              whitelistRule("a4", {ExtensionType::blockTrackers})});
    const Package off = package("block-social", {blockRule("s1")});
    const Package whitelist = package("whitelist", {whitelistRule("w1")});
    const Package custom = package("mine", {blockRule("c1"), whitelistRule("c2", {ExtensionType::blockAds})});
    auto manager = makeManager();
    manager->saveDisabledPreferenceWithoutReload(off);
    ubiquitous()->set(Value(Dictionary{{"block-ads", Value(Dictionary{{"a2", Value(true)}})},
                                       {"mine", Value(Dictionary{{"c1", Value(false)}})}}),
                      "DisabledRuleIDs");

    const auto blockers = manager->findEnabledBlockersRemovingWhitelistRules({ads, off, whitelist, custom});
    // a4 whitelists trackers only, so in the ads package it stays in place;
    // c2 whitelists ads, not its own (custom) extension, so it stays too.
    EXPECT_THAT(blockers, ElementsAre(ads.rules[0].blocker, ads.rules[3].blocker, custom.rules[0].blocker,
                                      custom.rules[1].blocker));
}

TEST_F(BlockerPreferenceManagerTest, WhitelistBlockersComeFromTheWhitelistPackageThenCustomPackages) {
    source.configurable = {package("block-url", {whitelistRule("u")}),
                           package("whitelist", {whitelistRule("w-all"), whitelistRule("w-ads", {ExtensionType::blockAds}),
                                                 whitelistRule("w-off"), blockRule("w-block")})};
    source.custom = {package("one", {whitelistRule("c-all"), whitelistRule("c-trackers", {ExtensionType::blockTrackers})}),
                     package("two", {whitelistRule("d-all")})};
    auto manager = makeManager();
    manager->saveDisabledPreferenceWithoutReload(package("two"));
    ubiquitous()->set(Value(Dictionary{{"whitelist", Value(Dictionary{{"w-off", Value(true)}})}}), "DisabledRuleIDs");

    EXPECT_THAT(manager->findEnabledWhitelistBlockers(ExtensionType::blockAds),
                ElementsAre(blockerFor("w-all", model::ActionType::ignorePreviousRules),
                            blockerFor("w-ads", model::ActionType::ignorePreviousRules),
                            blockerFor("c-all", model::ActionType::ignorePreviousRules)));
    EXPECT_THAT(manager->findEnabledWhitelistBlockers(ExtensionType::blockTrackers),
                ElementsAre(blockerFor("w-all", model::ActionType::ignorePreviousRules),
                            blockerFor("c-all", model::ActionType::ignorePreviousRules),
                            blockerFor("c-trackers", model::ActionType::ignorePreviousRules)));

    // A disabled whitelist package drops its own entries; custom ones still apply.
    manager->saveDisabledPreferenceWithoutReload(package("whitelist"));
    EXPECT_THAT(manager->findEnabledWhitelistBlockers(ExtensionType::blockAds),
                ElementsAre(blockerFor("c-all", model::ActionType::ignorePreviousRules)));
}

TEST_F(BlockerPreferenceManagerTest, MissingWhitelistPackageMeansNoWhitelistAtAll) {
    source.configurable = {package("block-url")};
    source.custom = {package("one", {whitelistRule("c-all")})};
    EXPECT_THAT(makeManager()->findEnabledWhitelistBlockers(ExtensionType::blockAds), IsEmpty());
    EXPECT_TRUE(log.contains("Can't find Whitelist package in DataManager.configurablePackages"));

    // With no registered source at all the same holds.
    EXPECT_THAT(BlockerPreferenceManager::create()->findEnabledWhitelistBlockers(ExtensionType::blockAds), IsEmpty());
}

TEST_F(BlockerPreferenceManagerTest, TheRegisteredSourceServesManagersWithoutOne) {
    source.configurable = {package("whitelist", {whitelistRule("w")})};
    PackageSource::setShared(&source);
    const auto blockers = BlockerPreferenceManager::create()->findEnabledWhitelistBlockers(ExtensionType::customRules);
    PackageSource::setShared(nullptr);
    EXPECT_THAT(blockers, ElementsAre(blockerFor("w", model::ActionType::ignorePreviousRules)));
}

// --- Changes made elsewhere -------------------------------------------------------

TEST_F(BlockerPreferenceManagerTest, AnotherWritersChangeOfThePackageMapReachesTheObserverOnMain) {
    auto observer = std::make_shared<RecordingObserver>(nullptr);
    auto manager = makeManager(observer);

    // Another connection to the cloud store's file stands for another device.
    auto elsewhere = platform::UserDefaults::open(platform::DataRoot::cloudDirectory(),
                                                  platform::UbiquitousStore::suiteName);
    ASSERT_NE(elsewhere, nullptr);
    elsewhere->set(Value(Dictionary{{"block-ads", Value(true)}}), "DisabledPackageIDs");

    ASSERT_TRUE(platform::MainRunLoop::runUntil([&] { return observer->calls.load() == 1; },
                                                std::chrono::seconds(10)));
    EXPECT_TRUE(isDisabled(package("block-ads")));
}

TEST_F(BlockerPreferenceManagerTest, OtherChangedKeysAndReleasedManagersAreIgnored) {
    auto observer = std::make_shared<RecordingObserver>(nullptr);
    auto manager = makeManager(observer);
    const auto post = [](std::vector<std::string> keys) {
        platform::NotificationCenter::defaultCenter().post(
            platform::UbiquitousStore::didChangeExternallyNotification, {},
            {{platform::UbiquitousStore::changedKeysKey, std::any(std::move(keys))}});
    };

    post({"DisabledRuleIDs", "UserHasMacDevice"});
    platform::MainRunLoop::drain();
    EXPECT_EQ(observer->calls.load(), 0);

    post({"UserHasMacDevice", "DisabledPackageIDs"});
    platform::MainRunLoop::drain();
    EXPECT_EQ(observer->calls.load(), 1);

    post({"DisabledPackageIDs"});
    manager.reset();
    platform::MainRunLoop::drain();
    post({"DisabledPackageIDs"});
    platform::MainRunLoop::drain();
    EXPECT_EQ(observer->calls.load(), 1);
}

// --- Several writers at once ------------------------------------------------------

constexpr int switchesPerWriter = 40;

// Switches off this writer's own packages and switches on its own rules, one
// read-modify-write at a time, half of them through the reloading path.
int switchOwnPackages(const std::string& writer) {
    auto manager = BlockerPreferenceManager::create();
    for (int i = 0; i < switchesPerWriter; ++i) {
        const Package own = package(writer + "-" + std::to_string(i));
        if (i % 2 == 0) {
            manager->saveDisabledPreferenceWithoutReload(own);
        } else {
            manager->savePreferenceWithReload({own}, true);
        }
        manager->saveEnabledPreferenceWithoutReload(blockRule(writer + "-rule-" + std::to_string(i)), package("shared"));
    }
    manager->waitForPendingWrites();
    return 0;
}

TAMSEL_CHILD_ENTRY(switchOwnPackages) { return switchOwnPackages(arguments.at(0)); }

void expectEverySwitchKept(const std::vector<std::string>& writers) {
    auto manager = BlockerPreferenceManager::create();
    const DisabledPackages packages = manager->disabledPackages();
    const DisabledRules rules = manager->disabledRules();
    EXPECT_EQ(packages.size(), writers.size() * switchesPerWriter);
    ASSERT_EQ(rules.count("shared"), 1u);
    EXPECT_EQ(rules.at("shared").size(), writers.size() * switchesPerWriter);
    for (const std::string& writer : writers) {
        for (int i = 0; i < switchesPerWriter; ++i) {
            const std::string id = writer + "-" + std::to_string(i);
            EXPECT_TRUE(packages.contains(id) && packages.at(id)) << id;
            EXPECT_TRUE(rules.at("shared").contains(writer + "-rule-" + std::to_string(i)));
        }
    }
}

TEST_F(BlockerPreferenceManagerTest, TwoProcessesSwitchingAtOnceLoseNoSwitch) {
    for (bool locally : {false, true}) {
        SCOPED_TRACE(locally ? "shared defaults" : "ubiquitous store");
        storeLocally(locally);
        shared()->removeObject("DisabledPackageIDs");
        shared()->removeObject("DisabledRuleIDs");
        ubiquitous()->removeObject("DisabledPackageIDs");
        ubiquitous()->removeObject("DisabledRuleIDs");

        int first = -1;
        int second = -1;
        std::thread a([&] { first = testing::runChildEntry("switchOwnPackages", {"a"}); });
        std::thread b([&] { second = testing::runChildEntry("switchOwnPackages", {"b"}); });
        a.join();
        b.join();
        ASSERT_EQ(first, 0);
        ASSERT_EQ(second, 0);
        expectEverySwitchKept({"a", "b"});
    }
}

TEST_F(BlockerPreferenceManagerTest, ThreadsSwitchingAtOnceLoseNoSwitch) {
    std::vector<std::thread> threads;
    for (const char* writer : {"x", "y", "z"}) threads.emplace_back([writer] { switchOwnPackages(writer); });
    for (auto& thread : threads) thread.join();
    expectEverySwitchKept({"x", "y", "z"});
}

}  // namespace
}  // namespace tamsel::storage
