#include "control/DataManager.h"

#include "model/JSONCoding.h"
#include "platform/Files.h"
#include "platform/MainRunLoop.h"
#include "storage/PathProvider.h"
#include "storage/PersistentStore.h"
#include "storage/RebuildLedger.h"
#include "support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include <fmt/format.h>

namespace tamsel::control {
namespace {

using model::ExtensionType;
using model::JSONFileName;
using model::Package;
using model::Rule;
using storage::RecordingExtensionReloading;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using Request = RecordingExtensionReloading::Request;
using Report = RecordingRuleChangeReporting::Report;

Rule blockRule(const std::string& id) {
    model::Blocker blocker;
    blocker.trigger.urlFilter = id;
    return Rule(id, id, blocker);
}

Rule whitelistRule(const std::string& id) {
    model::Blocker blocker;
    blocker.trigger.urlFilter = ".*";
    blocker.action.type = model::ActionType::ignorePreviousRules;
    return Rule(id, id, blocker);
}

Package package(const std::string& id, std::vector<Rule> rules = {}) { return Package(id, "Name of " + id, std::move(rules)); }

std::vector<std::string> idsOf(const std::vector<Package>& packages) {
    std::vector<std::string> ids;
    for (const Package& p : packages) ids.push_back(p.id);
    return ids;
}

std::vector<std::string> ruleIDsOf(const Package& package) {
    std::vector<std::string> ids;
    for (const Rule& rule : package.rules) ids.push_back(rule.id);
    return ids;
}

std::vector<Package> readList(JSONFileName file) {
    const auto text = platform::readFile(storage::PathProvider::filtersFolderURL() / model::fileName(file));
    if (!text) return {};
    return model::decodePackages(*text).value_or(std::vector<Package>{});
}

// A reloader that answers every request with one fixed result on the main queue.
class AnsweringReloading : public storage::ExtensionReloading {
public:
    explicit AnsweringReloading(storage::ReloadingResult answer) : answer_(std::move(answer)) {}
    void saveToJSONAndReload(ExtensionType, bool, storage::ReloadingCompletion completion) override { answer(completion); }
    void saveToJSONAndReloadAll(std::optional<ExtensionType>, storage::ReloadingCompletion completion) override {
        answer(completion);
    }

private:
    void answer(const storage::ReloadingCompletion& completion) {
        if (completion) platform::DispatchQueue::main().async([completion, answer = answer_] { completion(answer); });
    }
    storage::ReloadingResult answer_;
};

class DataManagerTest : public ::testing::Test {
protected:
    void TearDown() override { platform::MainRunLoop::drain(); }

    // Counts "WillSavePackages" notifications whose object is `manager`.
    int willSaveCount() {
        platform::MainRunLoop::drain();
        return willSave_;
    }

    void fillModel() {
        manager.setGeneralPackages({package("block-ads", {blockRule("a1")}), package("block-trackers")});
        manager.setInternationalPackages({package("block-german", {blockRule("g1")})});
        manager.setConfigurablePackages({package("whitelist", {whitelistRule("w1")}), package("block-url")});
        manager.setCustomPackages({package("mine", {blockRule("m1"), blockRule("m2")}), package("yours")});
    }

    testing::ScopedDataRoot root;
    testing::LogCapture log;
    std::shared_ptr<RecordingExtensionReloading> reloads = std::make_shared<RecordingExtensionReloading>();
    std::shared_ptr<RecordingRuleChangeReporting> reports = std::make_shared<RecordingRuleChangeReporting>();
    DataManager manager{{reloads, reports}};

private:
    int willSave_ = 0;
    platform::ObserverToken observer_ = platform::NotificationCenter::defaultCenter().addObserver(
        "WillSavePackages", nullptr, [this](const platform::Notification& notification) {
            const auto* object = std::any_cast<DataManager*>(&notification.object);
            EXPECT_TRUE(platform::DispatchQueue::isMainThread());
            if (object && *object == &manager) ++willSave_;
        });
};

// --- The lists and edits of the sync merge -------------------------------------------

TEST_F(DataManagerTest, AllPackagesConcatenatesTheListsInCategoryOrder) {
    fillModel();
    EXPECT_THAT(idsOf(manager.allPackages()),
                ElementsAre("block-ads", "block-trackers", "block-german", "whitelist", "block-url", "mine", "yours"));
}

TEST_F(DataManagerTest, ACustomPackageNeverTakesAConfigurableIdentifier) {
    fillModel();
    const auto before = manager.allPackages();
    manager.addOrReplaceCustomPackage(package("whitelist", {blockRule("sneaky")}));
    manager.addOrReplaceCustomPackage(package("block-url"));
    EXPECT_EQ(manager.allPackages(), before);
    EXPECT_TRUE(log.contains("There's already a configurable package with ID whitelist"));
    EXPECT_TRUE(log.contains("There's already a configurable package with ID block-url"));
}

TEST_F(DataManagerTest, AddingACustomPackageRenamesInPlaceOrAppends) {
    fillModel();
    const auto before = platform::Clock::systemNow();
    manager.addOrReplaceCustomPackage(Package("mine", "Renamed", {blockRule("ignored")}));
    manager.addOrReplaceCustomPackage(package("new", {blockRule("n1")}));

    const auto custom = manager.customPackages();
    ASSERT_THAT(idsOf(custom), ElementsAre("mine", "yours", "new"));
    EXPECT_EQ(custom[0].name, "Renamed");
    EXPECT_THAT(ruleIDsOf(custom[0]), ElementsAre("m1", "m2")) << "a rename keeps the old rules";
    EXPECT_GE(custom[0].createdAt, before);
    EXPECT_THAT(ruleIDsOf(custom[2]), ElementsAre("n1"));
}

TEST_F(DataManagerTest, SetRulePrefersTheConfigurablePackage) {
    // The invariant forbids this overlap; the lookup order still decides.
    manager.setConfigurablePackages({package("twin", {blockRule("r")})});
    manager.setCustomPackages({package("twin", {blockRule("r")})});

    manager.setRule(blockRule("added"), "twin");
    Rule changed = blockRule("r");
    changed.blocker.trigger.urlFilter = "changed";
    manager.setRule(changed, "twin");

    EXPECT_THAT(ruleIDsOf(manager.configurablePackages()[0]), ElementsAre("r", "added"));
    EXPECT_EQ(manager.configurablePackages()[0].rules[0].blocker.trigger.urlFilter, "changed");
    EXPECT_THAT(ruleIDsOf(manager.customPackages()[0]), ElementsAre("r"));
    EXPECT_EQ(manager.customPackages()[0].rules[0].blocker.trigger.urlFilter, "r");

    manager.setRule(blockRule("x"), "nowhere");
    EXPECT_TRUE(log.contains("Can't find package with identifier nowhere"));
}

TEST_F(DataManagerTest, RemoveByIdentifierTakesPackagesFirstThenRules) {
    fillModel();
    manager.setCustomPackages({package("mine", {blockRule("m1"), blockRule("m2")}), package("m1")});
    const auto createdAt = manager.customPackages()[0].createdAt;

    EXPECT_TRUE(manager.removeByIdentifier("m1")) << "the custom package named m1 goes first";
    EXPECT_THAT(idsOf(manager.customPackages()), ElementsAre("mine"));
    EXPECT_TRUE(manager.removeByIdentifier("m1")) << "then the rule named m1";
    EXPECT_THAT(ruleIDsOf(manager.customPackages()[0]), ElementsAre("m2"));
    EXPECT_EQ(manager.customPackages()[0].createdAt, createdAt);

    EXPECT_TRUE(manager.removeByIdentifier("w1"));
    EXPECT_THAT(manager.configurablePackages()[0].rules, IsEmpty());
    EXPECT_FALSE(manager.removeByIdentifier("a1")) << "general packages are not the sync's business";
    EXPECT_FALSE(manager.removeByIdentifier("nothing"));
}

TEST_F(DataManagerTest, ASharedListStaysAsItWasWhileEditsReplaceIt) {
    fillModel();
    const storage::PackageList configurable = manager.configurablePackageList();
    const storage::PackageList custom = manager.customPackageList();
    EXPECT_EQ(manager.configurablePackageList(), configurable) << "sharing copies nothing";

    manager.setRule(blockRule("added"), "block-url");
    manager.addOrReplaceCustomPackage(package("new"));
    ASSERT_TRUE(manager.removeByIdentifier("m1"));

    EXPECT_THAT(ruleIDsOf((*configurable)[1]), IsEmpty());
    EXPECT_THAT(idsOf(*custom), ElementsAre("mine", "yours"));
    EXPECT_THAT(ruleIDsOf((*custom)[0]), ElementsAre("m1", "m2"));
    EXPECT_THAT(ruleIDsOf(manager.configurablePackages()[1]), ElementsAre("added"));
    EXPECT_THAT(idsOf(manager.customPackages()), ElementsAre("mine", "yours", "new"));
    EXPECT_THAT(ruleIDsOf(manager.customPackages()[0]), ElementsAre("m2"));
}

// --- Saving ----------------------------------------------------------------------------

TEST_F(DataManagerTest, SavingAnEmptyModelIsRefusedWithoutSideEffects) {
    std::optional<DataManager::SaveError> error;
    bool called = false;
    manager.savePackages({JSONFileName::blockCustom, JSONFileName::blockConfigurable}, true,
                         [&](std::optional<DataManager::SaveError> result) {
                             called = true;
                             error = result;
                         });
    ASSERT_TRUE(called);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(*error, DataManager::SaveError(PersistingError::allPackagesEmpty));
    EXPECT_EQ(willSaveCount(), 0);
    EXPECT_FALSE(std::filesystem::exists(storage::PathProvider::filtersFolderURL() / "block-custom.json"));
    EXPECT_THAT(reloads->requests(), IsEmpty());
}

TEST_F(DataManagerTest, SavingWritesTheRequestedFilesAndRebuildsTheCustomExtension) {
    fillModel();
    bool succeeded = false;
    manager.savePackages({JSONFileName::blockCustom, JSONFileName::blockInternational, JSONFileName::blockAds},
                         false, [&](std::optional<DataManager::SaveError> error) { succeeded = !error; });

    EXPECT_EQ(idsOf(readList(JSONFileName::blockCustom)), idsOf(manager.customPackages()));
    EXPECT_EQ(readList(JSONFileName::blockInternational), manager.internationalPackages());
    const auto ads = platform::readFile(storage::PathProvider::filtersFolderURL() / "block-ads.json");
    ASSERT_TRUE(ads.has_value());
    EXPECT_EQ(model::decodePackage(*ads).value(), manager.generalPackages()[0]);
    EXPECT_FALSE(std::filesystem::exists(storage::PathProvider::filtersFolderURL() / "block-configurable.json"));

    EXPECT_THAT(reloads->requests(), ElementsAre(Request{Request::Kind::one, ExtensionType::customRules, false, {}}));
    EXPECT_EQ(willSaveCount(), 1);
    EXPECT_TRUE(succeeded);
}

TEST_F(DataManagerTest, OneFileFailingDoesNotStopTheOthers) {
    fillModel();
    // A folder where the configurable file should be: the rename onto it fails.
    std::filesystem::create_directories(storage::PathProvider::filtersFolderURL() / "block-configurable.json" / "x");
    manager.savePackages({JSONFileName::blockConfigurable, JSONFileName::blockCustom,
                          JSONFileName::blockSocial /* not in memory */},
                         false);

    EXPECT_EQ(idsOf(readList(JSONFileName::blockCustom)), (std::vector<std::string>{"mine", "yours"}));
    EXPECT_TRUE(log.contains("Can't save block-configurable.json"));
    EXPECT_TRUE(log.contains("Can't save block-social.json"));
    EXPECT_EQ(reloads->requests().size(), 1u) << "the rebuild still follows";
}

TEST_F(DataManagerTest, TheReloadErrorReachesTheCaller) {
    DataManager failing({std::make_shared<AnsweringReloading>(
                             std::unexpected(storage::ReloadingError::disabledInSettings())),
                         reports});
    failing.setCustomPackages({package("mine")});
    std::optional<DataManager::SaveError> error;
    failing.savePackages({JSONFileName::blockCustom}, false,
                         [&](std::optional<DataManager::SaveError> result) { error = result; });
    EXPECT_FALSE(error.has_value()) << "the result arrives on the main queue";
    platform::MainRunLoop::drain();
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(*error, DataManager::SaveError(storage::ReloadingError::disabledInSettings()));
}

// --- The popover's rule changes -------------------------------------------------------------

TEST_F(DataManagerTest, SavingAWhitelistRuleRewritesTheConfigurableFileAndEveryExtension) {
    fillModel();
    const Package whitelist = manager.configurablePackages()[0];
    manager.saveRule(whitelistRule("w2"), whitelist);

    EXPECT_THAT(ruleIDsOf(manager.configurablePackages()[0]), ElementsAre("w1", "w2"));
    const auto written = readList(JSONFileName::blockConfigurable);
    ASSERT_EQ(written.size(), 2u);
    EXPECT_THAT(ruleIDsOf(written[0]), ElementsAre("w1", "w2"));
    EXPECT_THAT(reloads->requests(), ElementsAre(Request{Request::Kind::one, ExtensionType::customRules, true, {}}));
    EXPECT_EQ(reloads->extensionsToRebuild().size(), model::allCases<ExtensionType>().size());
    EXPECT_THAT(reports->reports(), ElementsAre(Report{Report::Kind::added, "w2", "whitelist"}));
}

TEST_F(DataManagerTest, SavingACustomRuleReplacesItInPlace) {
    fillModel();
    Rule changed = blockRule("m1");
    changed.blocker.trigger.urlFilter = "changed";
    manager.saveRule(changed, manager.customPackages()[0]);

    EXPECT_EQ(manager.customPackages()[0].rules[0].blocker.trigger.urlFilter, "changed");
    EXPECT_EQ(readList(JSONFileName::blockCustom)[0].rules[0].blocker.trigger.urlFilter, "changed");
    EXPECT_FALSE(std::filesystem::exists(storage::PathProvider::filtersFolderURL() / "block-configurable.json"));
    EXPECT_THAT(reloads->requests(), ElementsAre(Request{Request::Kind::one, ExtensionType::customRules, false, {}}));
    EXPECT_THAT(reports->reports(), ElementsAre(Report{Report::Kind::added, "m1", "mine"}));
}

TEST_F(DataManagerTest, DeletingARuleSavesAndReportsIt) {
    fillModel();
    manager.deleteRule(blockRule("m1"), package("mine"));
    EXPECT_THAT(ruleIDsOf(manager.customPackages()[0]), ElementsAre("m2"));
    EXPECT_THAT(ruleIDsOf(readList(JSONFileName::blockCustom)[0]), ElementsAre("m2"));
    EXPECT_THAT(reports->reports(), ElementsAre(Report{Report::Kind::deleted, "m1", "mine"}));
}

TEST_F(DataManagerTest, DeletingARuleNoPackageHoldsChangesNothing) {
    fillModel();
    const auto before = manager.allPackages();
    bool called = false;
    manager.deleteRule(blockRule("m1"), package("yours"), [&](auto) { called = true; });
    manager.deleteRule(blockRule("m1"), package("nowhere"), [&](auto) { called = true; });
    platform::MainRunLoop::drain();

    EXPECT_EQ(manager.allPackages(), before);
    EXPECT_TRUE(log.contains("Can't delete rule: can't find old package to remove the rule from"));
    EXPECT_FALSE(called);
    EXPECT_THAT(reloads->requests(), IsEmpty());
    EXPECT_THAT(reports->reports(), IsEmpty());
    EXPECT_EQ(willSaveCount(), 0);
}

// --- Loading and wiring ------------------------------------------------------------------------

TEST_F(DataManagerTest, LoadAllPackagesFillsEveryListFromTheFiles) {
    const auto filters = storage::PathProvider::filtersFolderURL();
    std::filesystem::create_directories(filters);
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(TAMSEL_SOURCE_DIR) / "resources/packages")) {
        std::filesystem::copy_file(entry.path(), filters / entry.path().filename());
    }
    manager.loadAllPackages();

    EXPECT_THAT(idsOf(manager.generalPackages()), ElementsAre("block-ads", "block-trackers", "block-annoyances",
                                                              "block-social", "block-comments", "block-adult"));
    EXPECT_THAT(idsOf(manager.internationalPackages()), ElementsAre("block-german", "block-french"));
    EXPECT_THAT(idsOf(manager.configurablePackages()),
                ElementsAre("whitelist", "block-url", "block-cookies", "hide-elements", "make-https"));
    EXPECT_EQ(manager.customPackages().size(), 1u);
    EXPECT_FALSE(manager.generalPackages()[0].rules.empty());
}

TEST_F(DataManagerTest, BrokenFilesLoadAsPlaceholdersAndDefaultsAndAreNamed) {
    const auto filters = storage::PathProvider::filtersFolderURL();
    const auto put = [&filters](JSONFileName file, const std::string& bytes) {
        ASSERT_TRUE(platform::writeFileAtomically(filters / model::fileName(file), bytes));
    };
    std::filesystem::create_directories(filters);
    for (const char* id : {"block-ads", "block-annoyances", "block-comments", "block-adult"}) {
        put(*model::fromRawValue<JSONFileName>(id), model::encodePackage(package(id, {blockRule(std::string(id) + "-1")})));
    }
    const std::string regional = model::encodePackages({package("block-german", {blockRule("g1")})});
    put(JSONFileName::blockTrackers, "");
    put(JSONFileName::blockSocial, model::encodePackage(package("block-social", {blockRule("s1")})).substr(0, 40));
    put(JSONFileName::blockInternational, regional.substr(0, regional.size() - 2));
    put(JSONFileName::blockConfigurable, "");
    put(JSONFileName::blockCustom, "\xFF\xFE not a package list");

    manager.loadAllPackages();

    const auto general = manager.generalPackages();
    EXPECT_THAT(idsOf(general), ElementsAre("block-ads", "block-trackers", "block-annoyances", "block-social",
                                            "block-comments", "block-adult"));
    for (std::size_t broken : {1u, 3u}) {
        EXPECT_EQ(general[broken].name, "some-name");
        EXPECT_THAT(general[broken].rules, IsEmpty());
    }
    EXPECT_THAT(ruleIDsOf(general[5]), ElementsAre("block-adult-1"));
    EXPECT_THAT(manager.internationalPackages(), IsEmpty());
    EXPECT_THAT(idsOf(manager.configurablePackages()),
                ElementsAre("whitelist", "block-url", "block-cookies", "hide-elements", "make-https"));
    EXPECT_THAT(manager.customPackages(), IsEmpty());

    for (const char* line : {"Package file block-trackers is empty", "block-trackers doesn't exist on disk.",
                             "Failed to decode package file block-social. Error: ", "block-social doesn't exist on disk.",
                             "Failed to decode package file block-international. Error: ",
                             "Package file block-configurable is empty",
                             "Failed to decode package file block-custom. Error: "}) {
        EXPECT_TRUE(log.contains(line)) << line;
    }
    EXPECT_FALSE(log.contains("block-ads doesn't exist on disk."));
}

TEST_F(DataManagerTest, ThePreferenceManagerReadsThisInstancesWhitelist) {
    manager.setConfigurablePackages({package("whitelist", {whitelistRule("w1")})});
    auto preferences = manager.preferenceManager();
    EXPECT_EQ(preferences, manager.preferenceManager());
    EXPECT_EQ(preferences->findEnabledWhitelistBlockers(ExtensionType::blockAds).size(), 1u);

    preferences->savePreferenceWithReload({package("block-ads")}, true);
    preferences->waitForPendingWrites();
    EXPECT_THAT(reloads->requests(), ElementsAre(Request{Request::Kind::one, ExtensionType::blockAds, false, {}}));
}

TEST_F(DataManagerTest, TheSharedInstanceIsTheProcesssPackageSource) {
    EXPECT_EQ(&DataManager::shared(), &DataManager::shared());
    EXPECT_EQ(storage::PackageSource::shared(), &DataManager::shared());
}

TEST_F(DataManagerTest, TheUpdateRulesObserverLivesAsLongAsTheInstance) {
    int calls = 0;
    {
        DataManager scoped;
        scoped.setUpdateRulesObserver(platform::NotificationCenter::defaultCenter().addObserver(
            "DidUpdatePreinstalledBlockers", nullptr, [&calls](const platform::Notification&) { ++calls; }));
        platform::NotificationCenter::defaultCenter().post("DidUpdatePreinstalledBlockers");
    }
    platform::NotificationCenter::defaultCenter().post("DidUpdatePreinstalledBlockers");
    EXPECT_EQ(calls, 1);
}

TEST_F(DataManagerTest, ConcurrentEditsAndReadsLoseNoChange) {
    fillModel();
    constexpr int perThread = 50;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < perThread; ++i) {
                manager.setRule(blockRule(fmt::format("t{}-{}", t, i)), t % 2 ? "mine" : "block-url");
                // Whole-list replacements of other lists, as the compiler's loads do.
                manager.setInternationalPackages(manager.internationalPackages());
                EXPECT_GE(manager.allPackages().size(), 7u);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(manager.customPackages()[0].rules.size(), 2u + 2 * perThread);
    EXPECT_EQ(manager.configurablePackages()[1].rules.size(), 2u * perThread);
}

// --- Package files shared with other programs -----------------------------------------

// Another program of the data root: its own data manager over the same files.
class SharedFilesTest : public DataManagerTest {
protected:
    void SetUp() override {
        const auto filters = storage::PathProvider::filtersFolderURL();
        std::filesystem::create_directories(filters);
        for (const auto& entry :
             std::filesystem::directory_iterator(std::filesystem::path(TAMSEL_SOURCE_DIR) / "resources/packages")) {
            std::filesystem::copy_file(entry.path(), filters / entry.path().filename());
        }
        manager.loadAllPackages();
        other.loadAllPackages();
    }

    Package whitelistOf(const DataManager& holder) {
        for (const Package& package : holder.configurablePackages()) {
            if (package.id == "whitelist") return package;
        }
        return package("missing");
    }

    std::shared_ptr<RecordingExtensionReloading> otherReloads = std::make_shared<RecordingExtensionReloading>();
    DataManager other{{otherReloads, std::make_shared<RecordingRuleChangeReporting>()}};
};

TEST_F(SharedFilesTest, ASaveKeepsTheRulesAnotherProgramSavedMeanwhile) {
    const Package stale = whitelistOf(manager);
    other.saveRule(whitelistRule("theirs"), whitelistOf(other));
    manager.saveRule(whitelistRule("ours"), stale);

    const auto onDisk = readList(JSONFileName::blockConfigurable);
    const auto whitelist = std::find_if(onDisk.begin(), onDisk.end(), [](const Package& p) { return p.id == "whitelist"; });
    ASSERT_NE(whitelist, onDisk.end());
    EXPECT_THAT(ruleIDsOf(*whitelist), ::testing::IsSupersetOf({"theirs", "ours"}));
    EXPECT_EQ(whitelistOf(manager), *whitelist) << "the saving program holds what it wrote";
}

TEST_F(SharedFilesTest, ADeletionDoesNotBringBackWhatAnotherProgramRemoved) {
    ASSERT_FALSE(other.customPackages().empty());
    const Package mine = other.customPackages().front();
    other.saveRule(blockRule("gone"), mine);
    manager.refreshFromDisk();
    const Package held = manager.customPackages().front();
    other.deleteRule(blockRule("gone"), mine);
    manager.saveRule(blockRule("kept"), held);

    const auto custom = readList(JSONFileName::blockCustom);
    ASSERT_FALSE(custom.empty());
    EXPECT_THAT(ruleIDsOf(custom.front()), Not(Contains("gone")));
    EXPECT_THAT(ruleIDsOf(custom.front()), Contains("kept"));
}

TEST_F(SharedFilesTest, RefreshReadsAgainOnlyTheListsWhoseFilesChanged) {
    const auto configurable = manager.configurablePackageList();
    const auto custom = manager.customPackageList();
    const auto international = manager.internationalPackageList();
    manager.refreshFromDisk();
    EXPECT_EQ(manager.configurablePackageList(), configurable) << "nothing changed, nothing read";

    other.saveRule(whitelistRule("theirs"), whitelistOf(other));
    manager.refreshFromDisk();
    EXPECT_NE(manager.configurablePackageList(), configurable);
    EXPECT_THAT(ruleIDsOf(whitelistOf(manager)), Contains("theirs"));
    EXPECT_EQ(manager.customPackageList(), custom);
    EXPECT_EQ(manager.internationalPackageList(), international);
}

TEST_F(SharedFilesTest, AListSetInMemoryIsTakenAsItIsUntilSaved) {
    manager.setConfigurablePackages({package("whitelist", {whitelistRule("memory")})});
    other.saveRule(whitelistRule("theirs"), whitelistOf(other));
    manager.refreshFromDisk();
    EXPECT_THAT(ruleIDsOf(whitelistOf(manager)), ElementsAre("memory"));
}

TEST_F(SharedFilesTest, AChangedGeneralFileDropsTheGeneralListForReadersToTakeFromDisk) {
    ASSERT_FALSE(manager.generalPackageList()->empty());
    ASSERT_TRUE(platform::writeFileAtomically(storage::PathProvider::filtersFolderURL() / "block-ads.json",
                                              model::encodePackage(package("block-ads", {blockRule("new")}))));
    manager.refreshFromDisk();
    EXPECT_TRUE(manager.generalPackageList()->empty());
    manager.loadAllPackages();
    EXPECT_THAT(ruleIDsOf(manager.generalPackages().front()), ElementsAre("new"));
}

TEST_F(SharedFilesTest, ARebuildRefreshingMeanwhileLosesNoEdit) {
    // A rebuild refreshes the lists without the package files' lock, on a
    // thread of its own, while this program and another one edit them.
    std::atomic<bool> editing{true};
    std::thread rebuild([&] {
        while (editing) manager.refreshFromDisk();
    });
    std::thread theirs([&] {
        for (int i = 0; i < 40; ++i) other.saveRule(whitelistRule(fmt::format("theirs-{}", i)), whitelistOf(other));
    });
    for (int i = 0; i < 40; ++i) manager.saveRule(whitelistRule(fmt::format("ours-{}", i)), whitelistOf(manager));
    theirs.join();
    editing = false;
    rebuild.join();

    const auto onDisk = readList(JSONFileName::blockConfigurable);
    const auto whitelist = std::find_if(onDisk.begin(), onDisk.end(), [](const Package& p) { return p.id == "whitelist"; });
    ASSERT_NE(whitelist, onDisk.end());
    const auto ids = ruleIDsOf(*whitelist);
    for (int i = 0; i < 40; ++i) {
        EXPECT_THAT(ids, Contains(fmt::format("ours-{}", i)));
        EXPECT_THAT(ids, Contains(fmt::format("theirs-{}", i)));
    }
}

TEST_F(SharedFilesTest, ASaveOwesTheRebuildItAsksForBeforeAnythingIsWritten) {
    manager.saveRule(blockRule("m"), manager.customPackages().front());
    EXPECT_THAT(storage::RebuildLedger::owed(), ElementsAre(ExtensionType::customRules));
    manager.saveRule(whitelistRule("w"), whitelistOf(manager));
    EXPECT_EQ(storage::RebuildLedger::owed().size(), model::allCases<ExtensionType>().size())
        << "a whitelist change owes every extension's rebuild";
}

}  // namespace
}  // namespace tamsel::control
