#include "control/SaveReloadOperation.h"

#include "control/DataManager.h"
#include "model/JSONCoding.h"
#include "platform/Files.h"
#include "platform/Log.h"
#include "storage/DisabledStateMaps.h"
#include "storage/PathProvider.h"
#include "storage/PersistentStore.h"
#include "support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>

namespace tamsel::control {
namespace {

using model::ActionType;
using model::ExtensionType;
using model::Package;
using model::Rule;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

Rule blockRule(const std::string& id) {
    model::Blocker blocker;
    blocker.trigger.urlFilter = id;
    return Rule(id, id, blocker);
}

Rule whitelistRule(const std::string& id, std::vector<ExtensionType> partial = {}) {
    model::Blocker blocker;
    blocker.trigger.urlFilter = id;
    blocker.trigger.domainFilter = model::DomainFilter{model::DomainFilterType::ifDomain, {id + ".example"}};
    blocker.action.type = ActionType::ignorePreviousRules;
    Rule rule(id, id, blocker);
    rule.partialWhitelist = std::move(partial);
    return rule;
}

Package package(const std::string& id, std::vector<Rule> rules) { return Package(id, "Name of " + id, std::move(rules)); }

// The url-filters of the extension's Safari JSON file, in order; nothing when
// there is no file.
std::optional<std::vector<std::string>> fileEntries(ExtensionType type) {
    const auto text = platform::readFile(storage::PathProvider::safariJSONFilePath(type));
    if (!text) return std::nullopt;
    auto blockers = model::decodeBlockerArray(*text);
    EXPECT_TRUE(blockers.has_value());
    std::vector<std::string> filters;
    if (blockers) {
        for (const auto& blocker : *blockers) filters.push_back(blocker.trigger.urlFilter);
    }
    return filters;
}

class SaveReloadOperationTest : public ::testing::Test {
protected:
    SaveReloadOperationTest() {
        // Ads: the whitelisting rule of the ads package itself whitelists its
        // own extension and so moves to the end; a3 is switched off.
        data.setGeneralPackages({
            package("block-ads", {blockRule("ads1"), whitelistRule("ads-own-wl"), blockRule("ads2"),
                                  blockRule("ads3")}),
            package("block-trackers", {blockRule("trk1")}),
            package("block-social", {}),
        });
        data.setConfigurablePackages({
            package("whitelist", {whitelistRule("wl-all"),
                                  whitelistRule("wl-ads-trk", {ExtensionType::blockAds, ExtensionType::blockTrackers}),
                                  whitelistRule("wl-off")}),
            package("block-url", {blockRule("url1")}),
        });
        data.setCustomPackages({
            package("my-rules", {blockRule("mine1"), whitelistRule("mine-wl-ads", {ExtensionType::blockAds}),
                                 whitelistRule("mine-wl-all")}),
        });
        storage::DisabledRules disabled{{"block-ads", {{"ads3", true}}}, {"whitelist", {{"wl-off", true}}}};
        storage::BlockerPreferenceManager::chosenStore()->set(platform::Value(storage::encode(disabled)),
                                                              storage::BlockerPreferenceManager::disabledRuleIDsKey);
    }

    // Runs one operation to its end on this thread; returns whether it asked
    // for the reload.
    bool run(ExtensionType type, bool allowsCancelling = false,
             std::function<void(SaveReloadOperation&)> beforeStart = {}) {
        auto operation = std::make_shared<SaveReloadOperation>(
            type, allowsCancelling, [](storage::ReloadingResult) {}, data,
            [this](ExtensionType reloaded, storage::ReloadingCompletion completion) {
                reloadRequests.push_back(reloaded);
                EXPECT_TRUE(completion) << "the completion travels with the reload request";
            });
        if (beforeStart) beforeStart(*operation);
        operation->start();
        return operation->didRequestReload();
    }

    testing::ScopedDataRoot root;
    testing::LogCapture log;
    DataManager data;
    std::vector<ExtensionType> reloadRequests;
};

TEST_F(SaveReloadOperationTest, WritesEachExtensionsRulesWithItsWhitelistingEntriesLast) {
    ASSERT_TRUE(run(ExtensionType::blockAds));
    EXPECT_THAT(*fileEntries(ExtensionType::blockAds),
                ElementsAre("ads1", "ads2", "wl-all", "wl-ads-trk", "mine-wl-ads", "mine-wl-all"));

    ASSERT_TRUE(run(ExtensionType::blockTrackers));
    EXPECT_THAT(*fileEntries(ExtensionType::blockTrackers), ElementsAre("trk1", "wl-all", "wl-ads-trk", "mine-wl-all"));

    // The custom extension: configurable packages but the whitelist, then the
    // custom ones; a custom whitelisting rule for other extensions stays in
    // place, and the one for every extension moves to the end.
    ASSERT_TRUE(run(ExtensionType::customRules));
    EXPECT_THAT(*fileEntries(ExtensionType::customRules),
                ElementsAre("url1", "mine1", "mine-wl-ads", "wl-all", "mine-wl-all"));

    EXPECT_THAT(reloadRequests,
                ElementsAre(ExtensionType::blockAds, ExtensionType::blockTrackers, ExtensionType::customRules));
    const auto lines = log.lines();
    EXPECT_THAT(lines, ::testing::Contains("🏳️ START saving JSON for \"" + model::localizedName(ExtensionType::blockAds) + "\""));
    EXPECT_THAT(lines, ::testing::Contains("Searching enabled rules in 1 packages"));
    EXPECT_THAT(lines, ::testing::Contains("Found 2 enabled rules"));
    EXPECT_THAT(lines, ::testing::Contains("Added 4 whitelist rules"));
    EXPECT_THAT(lines, ::testing::Contains("🏁 DONE saving JSON for \"" + model::localizedName(ExtensionType::blockAds) + "\""));
}

TEST_F(SaveReloadOperationTest, SwitchedOffPackagesLeaveEveryFileWhileCustomWhitelistingStays) {
    storage::BlockerPreferenceManager::chosenStore()->set(
        platform::Value(storage::encode(storage::DisabledPackages{{"whitelist", true}, {"my-rules", false}})),
        storage::BlockerPreferenceManager::disabledPackageIDsKey);
    ASSERT_TRUE(run(ExtensionType::blockTrackers));
    EXPECT_THAT(*fileEntries(ExtensionType::blockTrackers), ElementsAre("trk1", "mine-wl-all"));
}

TEST_F(SaveReloadOperationTest, AnExtensionWithNothingEnabledGetsNoWhitelistEntriesAndStillReloads) {
    data.setGeneralPackages({package("block-comments", {whitelistRule("own")})});
    ASSERT_TRUE(run(ExtensionType::blockComments));
    // The placeholder entry stands in for an empty list.
    const auto entries = fileEntries(ExtensionType::blockComments);
    ASSERT_TRUE(entries);
    EXPECT_THAT(*entries, ElementsAre(storage::PersistentStore::placeholderBlocker().trigger.urlFilter));
    EXPECT_TRUE(log.contains("Found 0 enabled rules"));
    EXPECT_FALSE(log.contains("whitelist rules"));
}

TEST_F(SaveReloadOperationTest, AHeldGeneralPackageWithoutRulesIsReadAfreshForThisRunOnly) {
    ASSERT_TRUE(storage::PersistentStore::write(package("block-social", {blockRule("social-from-disk")}),
                                                model::JSONFileName::blockSocial));
    ASSERT_TRUE(run(ExtensionType::blockSocial));
    EXPECT_THAT(*fileEntries(ExtensionType::blockSocial),
                ElementsAre("social-from-disk", "wl-all", "mine-wl-all"));
    const auto held = data.generalPackages();
    const auto social = std::find_if(held.begin(), held.end(), [](const Package& p) { return p.id == "block-social"; });
    ASSERT_NE(social, held.end());
    EXPECT_THAT(social->rules, IsEmpty());
}

TEST_F(SaveReloadOperationTest, AGeneralFileReadFromDiskKeepsTheSelectionAndABrokenOneWritesNothing) {
    // block-ads is not held: its file is read rule by rule, and the rules are
    // chosen as in memory (a3 switched off, the own whitelisting rule last).
    data.setGeneralPackages({});
    ASSERT_TRUE(storage::PersistentStore::write(
        package("block-ads", {blockRule("ads1"), whitelistRule("ads-own-wl"), blockRule("ads2"), blockRule("ads3")}),
        model::JSONFileName::blockAds));
    ASSERT_TRUE(run(ExtensionType::blockAds));
    EXPECT_THAT(*fileEntries(ExtensionType::blockAds),
                ElementsAre("ads1", "ads2", "wl-all", "wl-ads-trk", "mine-wl-ads", "mine-wl-all"));
    EXPECT_TRUE(log.contains("Searching enabled rules in 1 packages"));
    EXPECT_TRUE(log.contains("Found 2 enabled rules"));

    // A rule that fails to decode after good ones: the whole file counts as
    // unreadable, and the Safari JSON file of the last run stays as it was.
    const std::string good = model::encodeRule(blockRule("good"));
    ASSERT_TRUE(platform::writeFileAtomically(
        storage::PathProvider::filtersFolderURL() / model::fileName(model::JSONFileName::blockAds),
        R"({"id":"block-ads","name":"Ads","rules":[)" + good + R"(,{"id":"bad","name":"bad"}]})"));
    reloadRequests.clear();
    EXPECT_FALSE(run(ExtensionType::blockAds));
    EXPECT_TRUE(log.contains("⛔️ Don't writing to block-ads because packages [] is empty"));
    EXPECT_THAT(*fileEntries(ExtensionType::blockAds),
                ElementsAre("ads1", "ads2", "wl-all", "wl-ads-trk", "mine-wl-ads", "mine-wl-all"));
    EXPECT_THAT(reloadRequests, IsEmpty());
}

TEST_F(SaveReloadOperationTest, NoPackagesMeansNoFileNoReloadAndTheOldFileStays) {
    // Annoyances: nothing held and no file on disk.
    EXPECT_FALSE(run(ExtensionType::blockAnnoyances));
    EXPECT_TRUE(log.contains("⛔️ Don't writing to block-annoyances because packages [] is empty"));
    EXPECT_FALSE(fileEntries(ExtensionType::blockAnnoyances));

    // Regional: nothing held and nothing to read; an earlier file is left.
    ASSERT_TRUE(storage::PersistentStore::write(std::vector<model::Blocker>{blockRule("old").blocker},
                                                ExtensionType::regionalRules));
    EXPECT_FALSE(run(ExtensionType::regionalRules));
    EXPECT_TRUE(log.contains("⛔️ Don't writing to block-international because DataManager.internationalPackages is empty"));
    EXPECT_THAT(*fileEntries(ExtensionType::regionalRules), ElementsAre("old"));
    EXPECT_THAT(reloadRequests, IsEmpty());
}

TEST_F(SaveReloadOperationTest, LoadsMissingListsIntoTheDataManager) {
    DataManager empty;
    ASSERT_TRUE(storage::PersistentStore::write(
        std::vector<Package>{package("whitelist", {whitelistRule("disk-wl")})}, model::JSONFileName::blockConfigurable));
    ASSERT_TRUE(storage::PersistentStore::write(std::vector<Package>{package("de", {blockRule("regional1")})},
                                                model::JSONFileName::blockInternational));
    auto operation = std::make_shared<SaveReloadOperation>(
        ExtensionType::regionalRules, false, storage::ReloadingCompletion{}, empty,
        [](ExtensionType, storage::ReloadingCompletion) {});
    operation->start();
    EXPECT_THAT(*fileEntries(ExtensionType::regionalRules), ElementsAre("regional1", "disk-wl"));
    EXPECT_EQ(empty.internationalPackages().size(), 1u);
    EXPECT_FALSE(empty.configurablePackages().empty());
}

TEST_F(SaveReloadOperationTest, WithoutTheWhitelistPackageTheFileHasNoWhitelistEntries) {
    data.setConfigurablePackages({package("block-url", {blockRule("url1")})});
    data.setCustomPackages({package("my-rules", {blockRule("mine1")})});
    ASSERT_TRUE(run(ExtensionType::blockAds));
    EXPECT_THAT(*fileEntries(ExtensionType::blockAds), ElementsAre("ads1", "ads2"));
    EXPECT_TRUE(log.contains("Can't find Whitelist package in DataManager.configurablePackages"));
}

TEST_F(SaveReloadOperationTest, AFailedWriteIsLoggedAndTheReloadStillFollows) {
    // A folder where the file should be: the file system refuses the file.
    std::filesystem::create_directories(storage::PathProvider::safariJSONFilePath(ExtensionType::blockAds));
    ASSERT_TRUE(run(ExtensionType::blockAds));
    EXPECT_TRUE(log.contains("Can't save to Safari JSON file and reload Safari: "));
    EXPECT_TRUE(log.contains("🏁 DONE saving JSON for"));
    EXPECT_THAT(reloadRequests, ElementsAre(ExtensionType::blockAds));
}

// Cancels the operation when a console line starting with `trigger` is logged.
class CancelOnLine {
public:
    CancelOnLine(SaveReloadOperation& operation, std::string trigger)
        : previous_(platform::setLogSink(
              [&operation, trigger = std::move(trigger)](const platform::LogRecord& record) {
                  if (record.message.rfind(trigger, 0) == 0) operation.cancel();
              },
              true)) {}
    ~CancelOnLine() { platform::setLogSink(previous_); }

private:
    platform::LogSink previous_;
};

TEST_F(SaveReloadOperationTest, CancellingARunningOperationStopsItOnlyWhenItAllowsCancelling) {
    std::optional<CancelOnLine> cancelling;
    EXPECT_FALSE(run(ExtensionType::blockAds, true, [&](SaveReloadOperation& operation) {
        cancelling.emplace(operation, "Searching enabled rules");
    }));
    cancelling.reset();
    EXPECT_FALSE(fileEntries(ExtensionType::blockAds)) << "stopped before writing";

    EXPECT_TRUE(run(ExtensionType::blockAds, false, [&](SaveReloadOperation& operation) {
        cancelling.emplace(operation, "Searching enabled rules");
    }));
    cancelling.reset();
    EXPECT_TRUE(fileEntries(ExtensionType::blockAds));
    EXPECT_THAT(reloadRequests, ElementsAre(ExtensionType::blockAds));
}

TEST_F(SaveReloadOperationTest, AnOperationCancelledBeforeItStartsNeverRuns) {
    for (bool allowsCancelling : {false, true}) {
        EXPECT_FALSE(run(ExtensionType::blockAds, allowsCancelling, [](SaveReloadOperation& op) { op.cancel(); }));
    }
    EXPECT_FALSE(log.contains("START saving JSON"));
    EXPECT_FALSE(fileEntries(ExtensionType::blockAds));
}

}  // namespace
}  // namespace tamsel::control
