// Every branch of the push's error handling, played by the server's fault
// injection; retries wait on a clock the test moves.
#include "sync/SyncFixture.h"

namespace tamsel::sync::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class PushErrorTest : public SyncTest {
protected:
    void SetUp() override {
        SyncTest::SetUp();
        a_ = makeMachine("A", aliceToken_);
        givePackages(*a_, {model::Package("mine", "Mine", {hideRule("R1", "Banner", ".banner")})});
        startSync(*a_);
        ASSERT_TRUE(a_->sync->localChanges().changes().empty());
        resetLog();
    }
    void TearDown() override {
        a_.reset();
        SyncTest::TearDown();
    }

    void resetLog() {
        log_.reset();
        log_.emplace();
    }

    void inject(int status, const std::string& code, std::optional<int> retryAfter = std::nullopt, int count = 1,
                const std::string& recordName = {}, const std::string& reason = "injected fault",
                const std::string& endpoint = "records/modify") {
        cloud::FaultRule rule;
        rule.endpoint = endpoint;
        rule.status = status;
        rule.serverErrorCode = code;
        rule.retryAfter = retryAfter;
        rule.count = count;
        rule.recordName = recordName;
        rule.reason = reason;
        server_->faults().add(rule);
    }

    bool pending(const std::string& name) {
        const auto changes = a_->sync->localChanges().changes();
        return changes.addedRules.contains(name) || changes.addedPackages.contains(name);
    }

    std::optional<tamsel::testing::LogCapture> log_{std::in_place};
    std::unique_ptr<Machine> a_;
};

TEST_F(PushErrorTest, ChangesAreCutIntoAsManyOperationsAsTheLongerBatchListNeeds) {
    std::vector<model::Rule> rules;
    for (int i = 0; i < 10; ++i) rules.push_back(blockRule("S" + std::to_string(i), "x"));
    a_->sync->localChanges().rulesAdded(rules, "mine");
    a_->sync->localChanges().rulesDeleted({"D1", "D2", "D3"});

    const auto operations = a_->sync->pushLocalChangesOperations(4);
    std::vector<std::pair<std::size_t, std::size_t>> sizes;
    for (const auto& operation : operations) {
        sizes.emplace_back(operation->recordsToSave().size(), operation->recordIDsToDelete().size());
    }
    EXPECT_THAT(sizes, ElementsAre(std::pair{2u, 1u}, std::pair{2u, 1u}, std::pair{2u, 1u}, std::pair{2u, 0u},
                                   std::pair{2u, 0u}));
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Records to add/modify 10"));
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Records to delete 3"));
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Splitting data into 4 operations"));

    a_->sync->localChanges().update([](auto& changes) { changes = {}; });
    EXPECT_THAT(a_->sync->pushLocalChangesOperations(1), IsEmpty());
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: No local record changes to push"));
}

struct TransientCase {
    int status;
    std::string code;
};

class TransientErrorTest : public PushErrorTest, public ::testing::WithParamInterface<TransientCase> {};

TEST_P(TransientErrorTest, WaitsWhatTheServerSaysThenPushesAgain) {
    inject(GetParam().status, GetParam().code, 7);
    saveRule(*a_, hideRule("R2", "Footer", ".footer"), "mine");
    EXPECT_THAT(scheduler_.delays(), ElementsAre(7.0));
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Retrying data push in 7.0 secs ..."));
    EXPECT_TRUE(pending("R2"));
    EXPECT_EQ(a_->sync->lastRequestDelay(), 4.0);

    scheduler_.advance(std::chrono::seconds(6));
    settle(*a_);
    EXPECT_TRUE(pending("R2"));
    scheduler_.advance(std::chrono::seconds(1));
    settle(*a_);
    EXPECT_FALSE(pending("R2"));
    EXPECT_TRUE(serverRecords(aliceToken_).contains("R2"));
}

INSTANTIATE_TEST_SUITE_P(Codes, TransientErrorTest,
                         ::testing::Values(TransientCase{503, "TRY_AGAIN_LATER"}, TransientCase{429, "THROTTLED"},
                                           TransientCase{503, "ZONE_BUSY"}));

TEST_F(PushErrorTest, WithoutRetryAfterTheDelaySquares) {
    inject(503, "TRY_AGAIN_LATER", std::nullopt, 3);
    saveRule(*a_, hideRule("R2", "Footer", ".footer"), "mine");
    for (double wait : {2.0, 4.0, 16.0}) {
        EXPECT_EQ(scheduler_.waiting(), 1u);
        scheduler_.advance(std::chrono::duration<double>(wait));
        settle(*a_);
    }
    EXPECT_THAT(scheduler_.delays(), ElementsAre(2.0, 4.0, 16.0));
    EXPECT_EQ(a_->sync->lastRequestDelay(), 256.0);
    EXPECT_FALSE(pending("R2"));
}

TEST_F(PushErrorTest, ANetworkFailureIsRetriedWithTheDelay) {
    a_ = makeMachine("A", aliceToken_, [this](SyncManager::Configuration& configuration, Machine&) {
        platform::CKTransport::Configuration transport;
        transport.containerIdentifier = configuration.container->containerIdentifier();
        transport.account = [url = server_->baseURL(), token = aliceToken_] {
            return std::optional(platform::CloudAccount{url, "A", token});
        };
        transport.deviceID = "device-A";
        transport.requestTimeout = std::chrono::milliseconds(300);
        configuration.container = platform::CKContainer::make(std::move(transport));
    });
    givePackages(*a_, {model::Package("mine", "Mine", {})});
    startSync(*a_);
    cloud::FaultRule slow;
    slow.endpoint = "records/modify";
    slow.delay = std::chrono::milliseconds(1500);
    server_->faults().add(slow);
    saveRule(*a_, hideRule("R2", "Footer", ".footer"), "mine");
    EXPECT_THAT(scheduler_.delays(), ElementsAre(2.0));
    EXPECT_TRUE(pending("R2"));
    EXPECT_TRUE(log_->contains("CKError 4 (networkFailure)"));
    scheduler_.advance(std::chrono::seconds(2));
    settle(*a_);
    EXPECT_FALSE(pending("R2"));
}

TEST_F(PushErrorTest, AnyOtherErrorIsRetriedWithTheDelay) {
    inject(500, "INTERNAL_ERROR");
    saveRule(*a_, hideRule("R2", "Footer", ".footer"), "mine");
    EXPECT_THAT(scheduler_.delays(), ElementsAre(2.0));
    scheduler_.advance(std::chrono::seconds(2));
    settle(*a_);
    EXPECT_FALSE(pending("R2"));
}

TEST_F(PushErrorTest, NotAuthenticatedParksThePushUntilTheAccountChanges) {
    inject(401, "AUTHENTICATION_FAILED");
    saveRule(*a_, hideRule("R2", "Footer", ".footer"), "mine");
    EXPECT_FALSE(a_->sync->lastAccountStatus());
    EXPECT_TRUE(a_->sync->pendingOnAccountUnavailable());
    EXPECT_TRUE(pending("R2"));
    EXPECT_EQ(scheduler_.waiting(), 0u);

    use(*a_);
    a_->sync->accountStatusChanged();
    settle(*a_);
    EXPECT_FALSE(pending("R2"));
    EXPECT_TRUE(serverRecords(aliceToken_).contains("R2"));
}

TEST_F(PushErrorTest, InvalidArgumentsDropsTheOffendingRecordsChangesOnly) {
    *a_->account = std::nullopt;
    saveRule(*a_, hideRule("R-bad", "Bad", ".bad"), "mine");
    saveRule(*a_, hideRule("R-ok", "Fine", ".fine"), "mine");
    *a_->account = platform::CloudAccount{server_->baseURL(), "A", aliceToken_};
    inject(400, "BAD_REQUEST", std::nullopt, 1, "R-bad", "the record R-bad is not valid");

    use(*a_);
    a_->sync->accountStatusChanged();
    settle(*a_);
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: R-bad CKError 12"));
    EXPECT_FALSE(pending("R-bad"));
    EXPECT_FALSE(pending("R-ok"));
    const auto records = serverRecords(aliceToken_);
    EXPECT_TRUE(records.contains("R-ok"));
    EXPECT_FALSE(records.contains("R-bad"));
    EXPECT_EQ(scheduler_.waiting(), 0u);
}

TEST_F(PushErrorTest, AConflictWithoutAServerRecordIsPushedAgain) {
    inject(409, "CONFLICT");
    saveRule(*a_, hideRule("R2", "Footer", ".footer"), "mine");
    EXPECT_TRUE(log_->contains("Merge failed"));
    EXPECT_FALSE(pending("R2"));
}

TEST_F(PushErrorTest, ZoneNotFoundMakesTheZoneAgain) {
    inject(404, "ZONE_NOT_FOUND");
    saveRule(*a_, hideRule("R2", "Footer", ".footer"), "mine");
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Zone already exists (?)") ||
                log_->contains("♻️ iCloud Sync: Zone saved successfully!"));
    EXPECT_TRUE(a_->standard->boolValue(SyncManager::zoneSavedKey));
    EXPECT_FALSE(pending("R2"));
}

TEST_F(PushErrorTest, LimitExceededDoublesTheSplit) {
    inject(413, "LIMIT_EXCEEDED");
    saveRule(*a_, hideRule("R2", "Footer", ".footer"), "mine");
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Splitting data into 2 operations"));
    EXPECT_FALSE(pending("R2"));
}

TEST_F(PushErrorTest, MoreRecordsThanTheServerTakesAtOnceArriveInSmallerPushes) {
    std::vector<model::Rule> rules;
    for (int i = 0; i < 450; ++i) rules.push_back(blockRule("L" + std::to_string(i), "ad" + std::to_string(i)));
    a_->sync->localChanges().rulesAdded(rules, "mine");
    use(*a_);
    a_->sync->pushAllLocalUpdates(1);
    settle(*a_);
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Splitting data into 2 operations"));
    EXPECT_TRUE(a_->sync->localChanges().changes().empty());
    EXPECT_THAT(serverRecords(aliceToken_), SizeIs(452));
}

TEST_F(PushErrorTest, AFetchThatFindsNoZoneMakesItAgain) {
    inject(404, "ZONE_NOT_FOUND", std::nullopt, 1, {}, "injected fault", "changes/zone");
    EXPECT_TRUE(fetch(*a_));
    EXPECT_TRUE(log_->contains("♻️ iCloud Sync: Zone not found, will create one..."));
    EXPECT_TRUE(a_->standard->boolValue(SyncManager::zoneSavedKey));
}

TEST_F(PushErrorTest, ASuccessfulPushRaisesTheAgentCounterEachTime) {
    const auto before = a_->ubiquitous->integer(SyncManager::notifyMacAgentFlagKey).value_or(0);
    saveRule(*a_, hideRule("R2", "Footer", ".footer"), "mine");
    saveRule(*a_, hideRule("R3", "Header", ".header"), "mine");
    EXPECT_EQ(a_->ubiquitous->integer(SyncManager::notifyMacAgentFlagKey), before + 2);
}

}  // namespace
}  // namespace tamsel::sync::testing
