// Two data roots ("two machines") of one user against one cloud server.
#include "sync/SyncFixture.h"

namespace tamsel::sync::testing {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

model::Package customPackage(const std::string& id, std::vector<model::Rule> rules) {
    return model::Package(id, "My " + id, std::move(rules));
}

class TwoMachineSyncTest : public SyncTest {
protected:
    void SetUp() override {
        SyncTest::SetUp();
        a_ = makeMachine("A", aliceToken_);
        b_ = makeMachine("B", aliceToken_);
    }
    void TearDown() override {
        a_.reset();
        b_.reset();
        SyncTest::TearDown();
    }

    // A uploads one package with two rules, B fetches it.
    void syncBoth() {
        givePackages(*a_, {customPackage("mine", {hideRule("R1", "Banner", ".banner"), blockRule("R2", "ads\\.js")})});
        startSync(*a_);
        startSync(*b_);
        ASSERT_TRUE(fetch(*b_));
        ASSERT_TRUE(findRule(*b_, "mine", "R1"));
    }

    void resetLog() {
        log_.reset();
        log_.emplace();
    }

    std::optional<tamsel::testing::LogCapture> log_{std::in_place};
    std::unique_ptr<Machine> a_, b_;
};

TEST_F(TwoMachineSyncTest, InitialUploadOfExistingPackagesReachesTheOtherMachine) {
    const auto mine = customPackage("mine", {hideRule("R1", "Banner", ".banner"), blockRule("R2", "ads\\.js")});
    givePackages(*a_, {mine});
    startSync(*a_);

    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Preparing packages for initial sync"));
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Zone saved successfully!"));
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Subscription saved successfully! ID: "));
    EXPECT_TRUE(a_->standard->boolValue(SyncManager::existingDataMarkedAsAddedKey));
    EXPECT_TRUE(a_->standard->boolValue(SyncManager::zoneSavedKey));
    EXPECT_TRUE(a_->sync->localChanges().changes().empty());
    EXPECT_EQ(a_->sync->recordMetaData().count(), 3u);
    EXPECT_EQ(a_->ubiquitous->integer(SyncManager::notifyMacAgentFlagKey), 1);
    const auto records = serverRecords(aliceToken_);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_THAT(records.at("R1"), HasSubstr(R"("selector":{"value":".banner")"));

    startSync(*b_);
    ASSERT_TRUE(fetch(*b_));
    const auto fetched = findPackage(*b_, "mine");
    ASSERT_TRUE(fetched);
    EXPECT_EQ(*fetched, mine);  // same identifier, name and rules, field for field
    // A second update uploads nothing again.
    resetLog();
    startSync(*a_);
    EXPECT_FALSE(log_->contains("Preparing packages for initial sync"));
}

TEST_F(TwoMachineSyncTest, AddChangeAndDeleteOfARuleAppearOnTheOtherMachineAfterItsFetch) {
    syncBoth();

    saveRule(*a_, hideRule("R3", "Sidebar", ".sidebar"), "mine");
    EXPECT_TRUE(a_->sync->localChanges().changes().empty());
    ASSERT_TRUE(fetch(*b_));
    EXPECT_EQ(findRule(*b_, "mine", "R3"), hideRule("R3", "Sidebar", ".sidebar"));

    saveRule(*a_, hideRule("R3", "Sidebar", "#side", {"example.org"}), "mine");
    ASSERT_TRUE(fetch(*b_));
    EXPECT_EQ(findRule(*b_, "mine", "R3"), hideRule("R3", "Sidebar", "#side", {"example.org"}));

    deleteRule(*a_, hideRule("R3", "Sidebar", "#side"), "mine");
    ASSERT_TRUE(fetch(*b_));
    EXPECT_FALSE(findRule(*b_, "mine", "R3"));
    EXPECT_TRUE(findRule(*b_, "mine", "R1"));
    EXPECT_FALSE(serverRecords(aliceToken_).contains("R3"));
    // B's package file holds what B's model holds.
    use(*b_);
    control::DataManager reread{{b_->reloads, std::make_shared<control::RecordingRuleChangeReporting>()}};
    reread.loadAllPackages();
    ASSERT_THAT(reread.customPackages(), SizeIs(1));
    EXPECT_EQ(reread.customPackages()[0], *findPackage(*b_, "mine"));
}

TEST_F(TwoMachineSyncTest, ARemovedPackageGoesWithItsRulesOnTheOtherMachine) {
    syncBoth();
    givePackages(*a_, {customPackage("second", {blockRule("S1", "x")})});
    use(*a_);
    a_->sync->packageAdded(*findPackage(*a_, "second"));
    a_->sync->ruleCollectionAdded(findPackage(*a_, "second")->rules, *findPackage(*a_, "second"));
    settle(*a_);
    ASSERT_TRUE(fetch(*b_));
    ASSERT_TRUE(findRule(*b_, "second", "S1"));

    const auto mine = *findPackage(*a_, "mine");
    use(*a_);
    {
        auto editing = a_->data->beginEditing();
        ASSERT_TRUE(a_->data->removeByIdentifier("mine"));
        a_->data->savePackages({model::JSONFileName::blockCustom}, false);
    }
    a_->sync->packageDeleted(mine);
    settle(*a_);
    EXPECT_TRUE(a_->sync->localChanges().changes().empty());
    const auto records = serverRecords(aliceToken_);
    EXPECT_FALSE(records.contains("mine"));
    EXPECT_FALSE(records.contains("R1"));
    EXPECT_TRUE(records.contains("S1"));

    ASSERT_TRUE(fetch(*b_));
    EXPECT_FALSE(findPackage(*b_, "mine"));
    EXPECT_TRUE(findRule(*b_, "second", "S1"));
}

TEST_F(TwoMachineSyncTest, AnEditOnOneSideOutlivesADeleteOnTheOther) {
    syncBoth();

    deleteRule(*a_, hideRule("R1", "Banner", ".banner"), "mine");
    // B has not fetched the deletion; its edit meets a record that is gone
    // and is saved as a new one.
    saveRule(*b_, hideRule("R1", "Banner", ".top-banner"), "mine");
    EXPECT_TRUE(b_->sync->localChanges().changes().empty());
    ASSERT_TRUE(serverRecords(aliceToken_).contains("R1"));

    ASSERT_TRUE(fetch(*a_));
    EXPECT_EQ(findRule(*a_, "mine", "R1"), hideRule("R1", "Banner", ".top-banner"));
    ASSERT_TRUE(fetch(*b_));
    EXPECT_EQ(findRule(*b_, "mine", "R1"), hideRule("R1", "Banner", ".top-banner"));
}

TEST_F(TwoMachineSyncTest, ADeleteFetchedWhileAnEditWaitsKeepsTheEdit) {
    syncBoth();
    deleteRule(*a_, hideRule("R2", "", ""), "mine");

    // B edits while signed out, so the edit waits; then it fetches the deletion.
    *b_->account = std::nullopt;
    saveRule(*b_, blockRule("R2", "tracker\\.js"), "mine");
    EXPECT_THAT(b_->sync->localChanges().changes().addedRules, SizeIs(1));
    *b_->account = platform::CloudAccount{server_->baseURL(), "B", aliceToken_};
    ASSERT_TRUE(fetch(*b_));
    EXPECT_EQ(findRule(*b_, "mine", "R2"), blockRule("R2", "tracker\\.js"));
    use(*b_);
    b_->sync->accountStatusChanged();
    settle(*b_);
    EXPECT_TRUE(b_->sync->localChanges().changes().empty());
    ASSERT_TRUE(fetch(*a_));
    EXPECT_EQ(findRule(*a_, "mine", "R2"), blockRule("R2", "tracker\\.js"));
}

TEST_F(TwoMachineSyncTest, ConflictingEditsMergeFieldByFieldWithLocalChangesWinning) {
    syncBoth();

    // A changes the selector, B (not having fetched) the name.
    saveRule(*a_, hideRule("R1", "Banner", ".new-banner"), "mine");
    resetLog();
    saveRule(*b_, hideRule("R1", "Top banner", ".banner"), "mine");

    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Merging R1"));
    EXPECT_FALSE(log_->contains("full duplicate"));
    const auto merged = hideRule("R1", "Top banner", ".new-banner");
    EXPECT_EQ(findRule(*b_, "mine", "R1"), merged);
    EXPECT_TRUE(b_->sync->localChanges().changes().empty());
    const auto records = serverRecords(aliceToken_);
    EXPECT_THAT(records.at("R1"), HasSubstr(R"("name":{"value":"Top banner")"));
    EXPECT_THAT(records.at("R1"), HasSubstr(R"("selector":{"value":".new-banner")"));

    ASSERT_TRUE(fetch(*a_));
    EXPECT_EQ(findRule(*a_, "mine", "R1"), merged);
}

TEST_F(TwoMachineSyncTest, ALocalCopyEqualToTheServersIsDroppedAsAFullDuplicate) {
    const auto mine = customPackage("mine", {hideRule("R1", "Banner", ".banner")});
    givePackages(*a_, {mine});
    givePackages(*b_, {mine});
    startSync(*a_);
    const auto before = serverRecords(aliceToken_);

    resetLog();
    startSync(*b_);
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Local record is a full duplicate of server version, minus metadata"));
    EXPECT_TRUE(b_->sync->localChanges().changes().empty());
    EXPECT_EQ(b_->sync->recordMetaData().count(), 2u);
    EXPECT_EQ(serverRecords(aliceToken_), before);  // nothing pushed again
}

TEST_F(TwoMachineSyncTest, MoreComingIsFollowedUntilTheServerIsDoneAndOnlyThenAPushStarts) {
    b_ = makeMachine("B", aliceToken_, [](SyncManager::Configuration& configuration, Machine&) {
        configuration.fetchResultsLimit = 2;
    });
    std::vector<model::Rule> rules;
    for (int i = 0; i < 5; ++i) rules.push_back(blockRule("R" + std::to_string(i), "ad" + std::to_string(i)));
    givePackages(*a_, {customPackage("mine", rules)});
    startSync(*a_);
    startSync(*b_);

    resetLog();
    ASSERT_TRUE(fetch(*b_));
    const auto lines = log_->lines();
    const auto count = std::count(lines.begin(), lines.end(), "♻️ iCloud Sync: more coming...");
    EXPECT_EQ(count, 2);  // 6 records, 2 a page
    const auto finished = std::find(lines.begin(), lines.end(), "♻️ iCloud Sync: Finished remote changes fetch");
    ASSERT_NE(finished, lines.end());
    const auto lastMore = std::find(lines.rbegin(), lines.rend(), "♻️ iCloud Sync: more coming...");
    EXPECT_LT(std::distance(lines.begin(), lastMore.base()), std::distance(lines.begin(), finished));
    const auto push = std::find(lines.begin(), lines.end(), "♻️ iCloud Sync: No local record changes to push");
    EXPECT_GT(std::distance(lines.begin(), push), std::distance(lines.begin(), finished));
    EXPECT_EQ(findPackage(*b_, "mine")->rules, rules);

    // The token covers all of it: the next fetch brings nothing.
    const auto applied = b_->sync->totals().fetched;
    ASSERT_TRUE(fetch(*b_));
    EXPECT_EQ(b_->sync->totals().fetched, applied);
}

TEST_F(TwoMachineSyncTest, AnExpiredTokenIsDroppedAndTheZoneFetchedFromTheStart) {
    syncBoth();
    saveRule(*a_, hideRule("R3", "Footer", ".footer"), "mine");
    const auto token = b_->sync->serverToken();
    ASSERT_TRUE(token);

    cloud::FaultRule rule;
    rule.endpoint = "changes/zone";
    rule.status = 410;
    rule.serverErrorCode = "CHANGE_TOKEN_EXPIRED";
    server_->faults().add(rule);
    resetLog();
    ASSERT_TRUE(fetch(*b_));
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Token expired, replacing it"));
    EXPECT_TRUE(findRule(*b_, "mine", "R3"));
    EXPECT_NE(b_->sync->serverToken(), token);
    EXPECT_TRUE(b_->sync->serverToken());
}

TEST_F(TwoMachineSyncTest, AnUnreadableTokenStartsTheFetchWithoutOne) {
    syncBoth();
    b_->standard->set(platform::Value(platform::Data{1, 2, 3}), SyncManager::serverTokenKey);
    saveRule(*a_, hideRule("R3", "Footer", ".footer"), "mine");
    resetLog();
    ASSERT_TRUE(fetch(*b_));
    EXPECT_TRUE(log_->contains("Error unarchiving serverToken: "));
    EXPECT_TRUE(findRule(*b_, "mine", "R3"));
}

TEST_F(TwoMachineSyncTest, CloudStuffDisabledLeavesTheServerAndTheDefaultsUntouched) {
    a_->shared->set(platform::Value(true), SyncManager::cloudStuffDisabledKey);
    givePackages(*a_, {customPackage("mine", {hideRule("R1", "Banner", ".banner")})});
    const auto requests = server_->requestCount();

    startSync(*a_);
    saveRule(*a_, hideRule("R2", "Footer", ".footer"), "mine");
    ASSERT_TRUE(fetch(*a_));
    use(*a_);
    a_->sync->pushAllLocalUpdates(1);
    a_->sync->accountStatusChanged();
    settle(*a_);

    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: SyncManager is disabled"));
    EXPECT_EQ(server_->requestCount(), requests);
    EXPECT_THAT(a_->standard->dictionaryRepresentation(), IsEmpty());
    EXPECT_THAT(a_->ubiquitous->dictionaryRepresentation(), IsEmpty());
}

TEST_F(TwoMachineSyncTest, AChangeParkedWithoutAnAccountIsPushedOnceTheAccountIsAvailable) {
    // This machine hears the account-changed notification itself.
    a_ = makeMachine("A", aliceToken_, [](SyncManager::Configuration& configuration, Machine&) {
        configuration.observeNotifications = true;
    });
    *a_->account = std::nullopt;
    givePackages(*a_, {customPackage("mine", {hideRule("R1", "Banner", ".banner")})});
    startSync(*a_);
    EXPECT_EQ(a_->sync->lastAccountStatus(), platform::CKAccountStatus::noAccount);
    EXPECT_TRUE(a_->sync->pendingOnAccountUnavailable());
    resetLog();
    saveRule(*a_, hideRule("R2", "Footer", ".footer"), "mine");
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Account status: No account"));
    EXPECT_THAT(a_->sync->localChanges().changes().addedRules, SizeIs(2));
    EXPECT_THAT(serverRecords(aliceToken_), IsEmpty());

    *a_->account = platform::CloudAccount{server_->baseURL(), "A", aliceToken_};
    use(*a_);
    platform::NotificationCenter::defaultCenter().post(platform::CKContainer::accountChangedNotification);
    settle(*a_);
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Account status changed!"));
    EXPECT_FALSE(a_->sync->pendingOnAccountUnavailable());
    EXPECT_TRUE(a_->sync->localChanges().changes().empty());
    EXPECT_THAT(serverRecords(aliceToken_), SizeIs(3));
}

TEST_F(TwoMachineSyncTest, PendingChangesSurviveARestartAndArePushedByTheNextManager) {
    *a_->account = std::nullopt;
    givePackages(*a_, {customPackage("mine", {hideRule("R1", "Banner", ".banner")})});
    startSync(*a_);
    ASSERT_FALSE(a_->sync->localChanges().changes().empty());

    // A new process over the same data root, signed in this time.
    *a_->account = platform::CloudAccount{server_->baseURL(), "A", aliceToken_};
    a_->sync.reset();
    use(*a_);
    SyncManager::Configuration configuration;
    configuration.container = a_->container;
    configuration.standardDefaults = platform::UserDefaults::open(a_->home.path() / "extension", "standard");
    configuration.sharedDefaults = a_->shared;
    configuration.ubiquitousStore = a_->ubiquitous;
    configuration.dataManager = a_->data.get();
    configuration.reloading = a_->reloads;
    configuration.observeNotifications = false;
    auto next = SyncManager::create(configuration);
    next->update(a_->data->customPackages());
    ASSERT_TRUE(next->waitUntilIdle(20s));
    EXPECT_TRUE(next->localChanges().changes().empty());
    EXPECT_THAT(serverRecords(aliceToken_), SizeIs(2));
}

}  // namespace
}  // namespace tamsel::sync::testing
