#include <atomic>
#include <thread>

#include "cloud/CloudServerFixture.h"
#include "platform/CKContainer.h"
#include "platform/CKOperations.h"
#include "platform/CKPushConnection.h"
#include "platform/CloudAccount.h"
#include "platform/NotificationCenter.h"

namespace tamsel::cloud::testing {
namespace {

using platform::CKAccountStatus;
using platform::CKContainer;
using platform::CKDatabase;
using platform::CKError;
using platform::CKFetchRecordZoneChangesOperation;
using platform::CKModifyRecordsOperation;
using platform::CKModifyRecordZonesOperation;
using platform::CKModifySubscriptionsOperation;
using platform::CKRecord;
using platform::CKRecordID;
using platform::CKRecordZone;
using platform::CKRecordZoneID;
using platform::CKServerChangeToken;
using platform::CloudAccount;
using Code = CKError::Code;

const CKRecordZoneID rulesZone{"BlockerRulesZone", CKRecordZoneID::defaultOwnerName};

struct ModifyResult {
    std::vector<std::shared_ptr<CKRecord>> saved;
    std::vector<CKRecordID> deleted;
    std::optional<CKError> error;
    std::thread::id thread;
};

struct FetchResult {
    std::vector<std::shared_ptr<CKRecord>> changed;
    std::vector<std::string> deleted;
    std::vector<std::optional<CKServerChangeToken>> tokenUpdates;
    std::optional<CKServerChangeToken> token;
    bool moreComing = false;
    std::optional<CKError> zoneError;
    std::optional<CKError> error;
};

class CloudClientTest : public CloudServerTest {
protected:
    std::shared_ptr<CKContainer> containerFor(const std::string& token, const std::string& device = "device-A",
                                              std::chrono::milliseconds timeout = std::chrono::seconds(10),
                                              const std::string& identifier = "iCloud.app.tamsel.Tamsel") {
        platform::CKTransport::Configuration configuration;
        configuration.containerIdentifier = identifier;
        const std::string url = server_->baseURL();
        configuration.account = [url, token]() -> std::optional<CloudAccount> {
            return CloudAccount{url, "user", token};
        };
        configuration.deviceID = device;
        configuration.requestTimeout = timeout;
        return CKContainer::make(std::move(configuration));
    }

    static std::shared_ptr<CKRecord> rule(const std::string& name, const std::string& value) {
        auto record = std::make_shared<CKRecord>("rule", CKRecordID{name, rulesZone});
        record->set("name", value);
        record->set("caseSensitive", std::int64_t{0});
        return record;
    }

    static ModifyResult save(const std::shared_ptr<CKDatabase>& database, std::vector<std::shared_ptr<CKRecord>> records,
                             std::vector<CKRecordID> deletions = {}) {
        ModifyResult result;
        auto operation = std::make_shared<CKModifyRecordsOperation>(std::move(records), std::move(deletions));
        operation->modifyRecordsCompletionBlock = [&result](const auto& saved, const auto& deleted, const auto& error) {
            result.saved = saved;
            result.deleted = deleted;
            result.error = error;
            result.thread = std::this_thread::get_id();
        };
        database->addOperation(operation);
        operation->waitUntilFinished();
        return result;
    }

    static std::optional<CKError> saveZone(const std::shared_ptr<CKDatabase>& database, const CKRecordZoneID& zone = rulesZone) {
        std::optional<CKError> error;
        bool called = false;
        auto operation = std::make_shared<CKModifyRecordZonesOperation>(std::vector{CKRecordZone(zone)},
                                                                         std::vector<CKRecordZoneID>{});
        operation->modifyRecordZonesCompletionBlock = [&](const auto&, const auto&, const auto& e) {
            error = e;
            called = true;
        };
        database->addOperation(operation);
        operation->waitUntilFinished();
        EXPECT_TRUE(called);
        return error;
    }

    static FetchResult fetch(const std::shared_ptr<CKDatabase>& database, std::optional<CKServerChangeToken> token,
                             bool fetchAll = true, std::optional<int> limit = std::nullopt) {
        FetchResult result;
        auto operation = std::make_shared<CKFetchRecordZoneChangesOperation>(
            std::vector{rulesZone},
            std::unordered_map<CKRecordZoneID, CKFetchRecordZoneChangesOperation::ZoneConfiguration>{
                {rulesZone, {token, limit}}});
        operation->fetchAllChanges = fetchAll;
        operation->recordChangedBlock = [&](const auto& record) { result.changed.push_back(record); };
        operation->recordWithIDWasDeletedBlock = [&](const CKRecordID& id, const std::string&) {
            result.deleted.push_back(id.recordName);
        };
        operation->recordZoneChangeTokensUpdatedBlock = [&](const auto&, const auto& token) {
            result.tokenUpdates.push_back(token);
        };
        operation->recordZoneFetchCompletionBlock = [&](const auto&, const auto& token, bool more, const auto& error) {
            result.token = token;
            result.moreComing = more;
            result.zoneError = error;
        };
        operation->fetchRecordZoneChangesCompletionBlock = [&](const auto& error) { result.error = error; };
        operation->setQualityOfService(platform::QualityOfService::userInitiated);
        database->addOperation(operation);
        operation->waitUntilFinished();
        return result;
    }
};

TEST_F(CloudClientTest, WithoutAnAccountTheStatusIsNoAccountAndNothingIsSent) {
    auto container = CKContainer::container("iCloud.app.tamsel.Tamsel");  // reads the (absent) account file
    const auto before = server_->requestCount();
    auto [status, error] = container->accountStatusNow();
    EXPECT_EQ(status, CKAccountStatus::noAccount);
    auto result = save(container->privateCloudDatabase(), {rule("r", "x")});
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->code, Code::notAuthenticated);
    EXPECT_EQ(server_->requestCount(), before);

    // Signing in takes effect at the next request, and the change is seen.
    std::atomic<int> changes = 0;
    auto observer = platform::NotificationCenter::defaultCenter().addObserver(
        CKContainer::accountChangedNotification, nullptr, [&](const auto&) { ++changes; });
    container->startMonitoringAccountChanges(std::chrono::milliseconds(20));
    ASSERT_TRUE(CloudAccount::save({server_->baseURL(), "alice", aliceToken_}));
    EXPECT_EQ(container->accountStatusNow().first, CKAccountStatus::available);
    for (int i = 0; i < 200 && changes == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_GE(changes, 1);
    ASSERT_TRUE(CloudAccount::remove());
    EXPECT_EQ(container->accountStatusNow().first, CKAccountStatus::noAccount);
}

TEST_F(CloudClientTest, AccountStatusFollowsTheServersAnswer) {
    EXPECT_EQ(containerFor(aliceToken_)->accountStatusNow().first, CKAccountStatus::available);
    EXPECT_EQ(containerFor("unknown")->accountStatusNow().first, CKAccountStatus::noAccount);
    ASSERT_EQ(injectFault(R"({"endpoint":"users/current","status":403,"serverErrorCode":"ACCESS_DENIED"})")->status, 200);
    EXPECT_EQ(containerFor(aliceToken_)->accountStatusNow().first, CKAccountStatus::restricted);
    auto container = containerFor(aliceToken_);
    server_->stop();
    auto [status, error] = container->accountStatusNow();
    EXPECT_EQ(status, CKAccountStatus::couldNotDetermine);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, Code::networkFailure);
}

TEST_F(CloudClientTest, SavesFetchesAndHandsAConflictOverWithServerClientAndAncestor) {
    auto deviceA = containerFor(aliceToken_, "device-A")->privateCloudDatabase();
    auto deviceB = containerFor(aliceToken_, "device-B")->privateCloudDatabase();
    ASSERT_FALSE(saveZone(deviceA));
    ASSERT_FALSE(saveZone(deviceA));  // saving it again is fine

    auto record = rule("rule-1", "first");
    auto saved = save(deviceA, {record});
    ASSERT_FALSE(saved.error) << saved.error->localizedDescription();
    ASSERT_EQ(saved.saved.size(), 1u);
    ASSERT_TRUE(record->recordChangeTag());
    EXPECT_TRUE(record->changedKeys().empty());
    EXPECT_NE(saved.thread, std::this_thread::get_id());

    // Device B keeps only the system fields, as the sync code does, and
    // builds its next version on them.
    auto fetched = fetch(deviceB, std::nullopt);
    ASSERT_EQ(fetched.changed.size(), 1u);
    const std::string archived = fetched.changed[0]->encodeSystemFields();
    auto rebuilt = CKRecord::decodeSystemFields(archived);
    ASSERT_TRUE(rebuilt) << rebuilt.error();
    EXPECT_EQ(rebuilt->recordChangeTag(), record->recordChangeTag());
    EXPECT_TRUE(rebuilt->fields().empty());

    // A changes the record; B's version, based on the old tag, conflicts.
    record->set("name", std::string("from A"));
    ASSERT_FALSE(save(deviceA, {record}).error);
    auto fromB = std::make_shared<CKRecord>(*rebuilt);
    fromB->set("name", std::string("from B"));
    fromB->set("selector", std::string(".ad"));
    auto conflict = save(deviceB, {fromB});
    ASSERT_TRUE(conflict.error);
    EXPECT_EQ(conflict.error->code, Code::partialFailure);
    const CKError* item = conflict.error->partialError("rule-1");
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->code, Code::serverRecordChanged);
    ASSERT_TRUE(item->serverRecord && item->clientRecord && item->ancestorRecord);
    EXPECT_EQ(std::get<std::string>(*item->serverRecord->object("name")), "from A");
    EXPECT_EQ(item->serverRecord->recordChangeTag(), record->recordChangeTag());
    EXPECT_EQ(std::get<std::string>(*item->clientRecord->object("name")), "from B");
    EXPECT_EQ(item->ancestorRecord->recordChangeTag(), rebuilt->recordChangeTag());

    // Merged onto the server record, the save goes through.
    auto merged = std::make_shared<CKRecord>(*item->serverRecord);
    merged->set("selector", std::string(".ad"));
    auto resolved = save(deviceB, {merged});
    ASSERT_FALSE(resolved.error) << resolved.error->localizedDescription();

    // A record from the server knows its ancestor's keys.
    auto stale = std::make_shared<CKRecord>(*fetched.changed[0]);
    stale->set("name", std::string("stale"));
    auto again = save(deviceB, {stale});
    ASSERT_TRUE(again.error);
    const CKError* second = again.error->partialError("rule-1");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(std::get<std::string>(*second->ancestorRecord->object("name")), "first");

    // A new record whose name exists: server record changed, empty ancestor.
    auto duplicate = save(deviceB, {rule("rule-1", "dup")});
    const CKError* exists = duplicate.error->partialError("rule-1");
    ASSERT_NE(exists, nullptr);
    EXPECT_EQ(exists->code, Code::serverRecordChanged);
    EXPECT_TRUE(exists->ancestorRecord->fields().empty());
    EXPECT_EQ(std::get<std::string>(*exists->serverRecord->object("selector")), ".ad");
}

TEST_F(CloudClientTest, FetchesFollowMoreComingAndReportDeletionsAndTokens) {
    auto database = containerFor(aliceToken_)->privateCloudDatabase();
    ASSERT_FALSE(saveZone(database));
    std::vector<std::shared_ptr<CKRecord>> batch;
    for (int i = 0; i < 450; ++i) batch.push_back(rule(fmt::format("r{}", i), "x"));
    // Over the limit of one request: the server refuses the whole batch.
    batch.push_back(rule("r450", "x"));
    std::vector<std::shared_ptr<CKRecord>> first(batch.begin(), batch.begin() + 401);
    auto tooMany = save(database, first);
    ASSERT_TRUE(tooMany.error);
    EXPECT_EQ(tooMany.error->code, Code::limitExceeded);
    ASSERT_FALSE(save(database, std::vector(batch.begin(), batch.begin() + 225)).error);
    ASSERT_FALSE(save(database, std::vector(batch.begin() + 225, batch.begin() + 450)).error);

    auto onePage = fetch(database, std::nullopt, false, 150);
    EXPECT_EQ(onePage.changed.size(), 150u);
    EXPECT_TRUE(onePage.moreComing);
    auto all = fetch(database, std::nullopt);
    EXPECT_EQ(all.changed.size(), 450u);
    EXPECT_EQ(all.tokenUpdates.size(), 2u);
    EXPECT_FALSE(all.moreComing);
    ASSERT_TRUE(all.token);

    // The token survives archiving.
    auto token = CKServerChangeToken::unarchive(all.token->archive());
    ASSERT_TRUE(token);
    EXPECT_FALSE(CKServerChangeToken::unarchive("garbage"));

    ASSERT_FALSE(save(database, {}, {CKRecordID{"r1", rulesZone}, CKRecordID{"r2", rulesZone}}).error);
    auto delta = fetch(database, *token);
    EXPECT_TRUE(delta.changed.empty());
    EXPECT_EQ(delta.deleted, (std::vector<std::string>{"r1", "r2"}));

    // Purged below the token: expired, and the fetch says so.
    ASSERT_EQ(post("/admin/purge",
                   R"({"container":"iCloud.app.tamsel.Tamsel","environment":"development","database":"private","owner":"alice","zoneID":{"zoneName":"BlockerRulesZone"}})",
                   adminToken_)
                  ->status,
              200);
    auto expired = fetch(database, *token);
    ASSERT_TRUE(expired.error);
    EXPECT_EQ(expired.error->code, Code::changeTokenExpired);
    EXPECT_EQ(expired.zoneError->code, Code::changeTokenExpired);
}

TEST_F(CloudClientTest, MissingZonesAndAtomicBatchesArriveAsTheirCodes) {
    auto database = containerFor(aliceToken_)->privateCloudDatabase();
    auto missing = fetch(database, std::nullopt);
    ASSERT_TRUE(missing.error);
    EXPECT_EQ(missing.error->code, Code::zoneNotFound);
    auto noZone = save(database, {rule("a", "x")});
    ASSERT_TRUE(noZone.error);
    EXPECT_EQ(noZone.error->code, Code::zoneNotFound);

    ASSERT_FALSE(saveZone(database));
    ASSERT_FALSE(save(database, {rule("a", "x")}).error);
    auto batch = save(database, {rule("b", "x"), rule("a", "again")});
    ASSERT_TRUE(batch.error);
    EXPECT_EQ(batch.error->code, Code::partialFailure);
    EXPECT_EQ(batch.error->partialError("b")->code, Code::batchRequestFailed);
    EXPECT_EQ(batch.error->partialError("a")->code, Code::serverRecordChanged);
    EXPECT_TRUE(batch.saved.empty());

    // Subscriptions: saved once, a duplicate is refused.
    auto subscribe = [&] {
        std::optional<CKError> error;
        auto operation = std::make_shared<CKModifySubscriptionsOperation>(
            std::vector{platform::CKRecordZoneSubscription{rulesZone, "zone-sub", {true}}}, std::vector<std::string>{});
        operation->modifySubscriptionsCompletionBlock = [&](const auto&, const auto&, const auto& e) { error = e; };
        database->addOperation(operation);
        operation->waitUntilFinished();
        return error;
    };
    EXPECT_FALSE(subscribe());
    auto duplicate = subscribe();
    ASSERT_TRUE(duplicate);
    ASSERT_NE(duplicate->partialError("zone-sub"), nullptr);
    EXPECT_EQ(duplicate->partialError("zone-sub")->code, Code::serverRejectedRequest);
    EXPECT_EQ(duplicate->partialError("zone-sub")->serverErrorCode, "EXISTS");
}

TEST_F(CloudClientTest, EveryInjectedFaultReachesTheClientAsItsError) {
    struct Case {
        std::string rule;
        Code code;
        std::optional<double> retryAfter;
    };
    const std::vector<Case> cases{
        {R"("status":429,"serverErrorCode":"THROTTLED","retryAfter":3)", Code::requestRateLimited, 3},
        {R"("status":503,"serverErrorCode":"TRY_AGAIN_LATER","retryAfter":30)", Code::serviceUnavailable, 30},
        {R"("status":503,"serverErrorCode":"ZONE_BUSY","retryAfter":2)", Code::zoneBusy, 2},
        {R"("status":401,"serverErrorCode":"AUTHENTICATION_FAILED")", Code::notAuthenticated, std::nullopt},
        {R"("status":421,"serverErrorCode":"AUTHENTICATION_REQUIRED")", Code::notAuthenticated, std::nullopt},
        {R"("status":403,"serverErrorCode":"ACCESS_DENIED")", Code::permissionFailure, std::nullopt},
        {R"("status":400,"serverErrorCode":"BAD_REQUEST")", Code::invalidArguments, std::nullopt},
        {R"("status":400,"serverErrorCode":"LIMIT_EXCEEDED")", Code::limitExceeded, std::nullopt},
        {R"("status":413,"serverErrorCode":"QUOTA_EXCEEDED")", Code::quotaExceeded, std::nullopt},
        {R"("status":404,"serverErrorCode":"ZONE_NOT_FOUND")", Code::zoneNotFound, std::nullopt},
        {R"("status":410,"serverErrorCode":"CHANGE_TOKEN_EXPIRED")", Code::changeTokenExpired, std::nullopt},
        {R"("status":409,"serverErrorCode":"CONFLICT")", Code::serverRecordChanged, std::nullopt},
        {R"("status":400,"serverErrorCode":"ATOMIC_ERROR")", Code::batchRequestFailed, std::nullopt},
        {R"("status":500,"serverErrorCode":"INTERNAL_ERROR")", Code::internalError, std::nullopt},
        // No code of the protocol: the status decides; a bare 400 is never
        // "invalid arguments", which would drop the caller's changes.
        {R"("status":502,"retryAfter":5)", Code::serviceUnavailable, 5},
        {R"("status":429)", Code::requestRateLimited, std::nullopt},
        {R"("status":400)", Code::internalError, std::nullopt},
        // A 200 that is no answer at all.
        {R"("status":200)", Code::serviceUnavailable, std::nullopt},
    };
    auto database = containerFor(aliceToken_)->privateCloudDatabase();
    ASSERT_FALSE(saveZone(database));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rule);
        ASSERT_EQ(injectFault(R"({"endpoint":"records/modify",)" + c.rule + "}")->status, 200);
        auto record = rule("pending", "keep me");
        auto result = save(database, {record});
        ASSERT_TRUE(result.error);
        EXPECT_EQ(result.error->code, c.code) << result.error->localizedDescription();
        EXPECT_EQ(result.error->retryAfterSeconds, c.retryAfter);
        // The record the caller holds is as it was: nothing is lost.
        EXPECT_FALSE(record->recordChangeTag());
        EXPECT_TRUE(record->changedKeys().contains("name"));

        ASSERT_EQ(injectFault(R"({"endpoint":"changes/zone",)" + c.rule + "}")->status, 200);
        auto fetched = fetch(database, std::nullopt);
        ASSERT_TRUE(fetched.error);
        EXPECT_EQ(fetched.error->code, c.code);
    }
    // The Retry-After header alone is read too.
    ASSERT_EQ(injectFault(R"({"endpoint":"records/modify","status":503,"retryAfter":9})")->status, 200);
    EXPECT_EQ(save(database, {rule("x", "y")}).error->retryAfterSeconds, 9);

    // A slow server is a network failure once the request times out.
    ASSERT_EQ(injectFault(R"({"endpoint":"records/modify","delayMilliseconds":1500})")->status, 200);
    auto impatient = containerFor(aliceToken_, "device-A", std::chrono::milliseconds(300))->privateCloudDatabase();
    auto slow = save(impatient, {rule("slow", "y")});
    ASSERT_TRUE(slow.error);
    EXPECT_EQ(slow.error->code, Code::networkFailure);

    // No server at all.
    server_->stop();
    auto down = save(database, {rule("down", "y")});
    ASSERT_TRUE(down.error);
    EXPECT_EQ(down.error->code, Code::networkFailure);
}

TEST_F(CloudClientTest, CancellingStopsARequestInFlightAndAnOperationNotYetStarted) {
    auto container = containerFor(aliceToken_);
    auto database = container->privateCloudDatabase();
    ASSERT_FALSE(saveZone(database));
    ASSERT_EQ(injectFault(R"({"endpoint":"records/modify","delayMilliseconds":3000})")->status, 200);
    std::optional<CKError> error;
    auto operation = std::make_shared<CKModifyRecordsOperation>(std::vector{rule("c", "x")}, std::vector<CKRecordID>{});
    operation->modifyRecordsCompletionBlock = [&](const auto&, const auto&, const auto& e) { error = e; };
    const auto start = std::chrono::steady_clock::now();
    database->addOperation(operation);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    operation->cancel();
    operation->waitUntilFinished();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2500));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, Code::operationCancelled);

    // Held back by a dependency, then cancelled: never sent, still told.
    platform::OperationQueue queue;
    auto gate = platform::BlockOperation::make([] {});
    auto waiting = std::make_shared<CKFetchRecordZoneChangesOperation>(std::vector{rulesZone});
    std::optional<CKError> fetchError;
    bool told = false;
    waiting->fetchRecordZoneChangesCompletionBlock = [&](const auto& e) {
        fetchError = e;
        told = true;
    };
    waiting->setDatabase(database);
    waiting->addDependency(gate);
    const auto before = server_->requestCount();
    queue.addOperation(waiting);
    waiting->cancel();
    queue.addOperation(gate);
    waiting->waitUntilFinished();
    EXPECT_TRUE(told);
    ASSERT_TRUE(fetchError);
    EXPECT_EQ(fetchError->code, Code::operationCancelled);
    EXPECT_EQ(server_->requestCount(), before);
}

TEST_F(CloudClientTest, ReportsGoToThePublicDatabaseOfTheReportContainer) {
    auto container = containerFor(bobToken_, "device-A", std::chrono::seconds(10), "iCloud.app.tamsel.Tamsel.Report");
    auto report = std::make_shared<CKRecord>("Report", CKRecordID{"REPORT-1", {}});
    report->set("type", std::string("brokenSite"));
    report->set("url", std::string("https://example.com/"));
    auto result = save(container->publicCloudDatabase(), {report});
    ASSERT_FALSE(result.error) << result.error->localizedDescription();
    ASSERT_EQ(store_->reports().size(), 1u);
    EXPECT_EQ(store_->reports()[0].record.recordName, "REPORT-1");
}

// Collects a push connection's events.
struct Inbox {
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<std::pair<std::string, std::string>> events;

    platform::CKPushConnection::Handler handler() {
        return [this](const std::string& kind, const std::string& data) {
            std::lock_guard lock(mutex);
            events.emplace_back(kind, data);
            arrived.notify_all();
        };
    }
    bool waitFor(std::size_t count, std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex);
        return arrived.wait_for(lock, timeout, [&] { return events.size() >= count; });
    }
    std::size_t size() {
        std::lock_guard lock(mutex);
        return events.size();
    }
};

TEST_F(CloudClientTest, PushTellsTheUsersOtherDevicesAndNeverTheWriter) {
    auto containerA = containerFor(aliceToken_, "device-A");
    auto containerB = containerFor(aliceToken_, "device-B");
    auto containerBob = containerFor(bobToken_, "device-C");
    ASSERT_FALSE(saveZone(containerA->privateCloudDatabase()));
    ASSERT_FALSE(saveZone(containerBob->privateCloudDatabase()));
    for (const auto& container : {containerA, containerBob}) {
        auto operation = std::make_shared<CKModifySubscriptionsOperation>(
            std::vector{platform::CKRecordZoneSubscription{rulesZone, "zone-sub", {true}}}, std::vector<std::string>{});
        container->privateCloudDatabase()->addOperation(operation);
        operation->waitUntilFinished();
    }
    Inbox inboxA, inboxB, inboxBob;
    platform::CKPushConnection pushA(containerA->transport(), inboxA.handler());
    platform::CKPushConnection pushB(containerB->transport(), inboxB.handler());
    platform::CKPushConnection pushBob(containerBob->transport(), inboxBob.handler());
    for (auto* push : {&pushA, &pushB, &pushBob}) push->start();
    for (auto* push : {&pushA, &pushB, &pushBob}) ASSERT_TRUE(push->waitUntilConnected(std::chrono::seconds(5)));
    EXPECT_EQ(server_->push().streamCount(), 3u);

    ASSERT_FALSE(save(containerA->privateCloudDatabase(), {rule("r", "x")}).error);
    ASSERT_TRUE(inboxB.waitFor(1, std::chrono::seconds(5)));
    {
        std::lock_guard lock(inboxB.mutex);
        EXPECT_EQ(inboxB.events[0].first, "zoneChanged");
        EXPECT_NE(inboxB.events[0].second.find("\"zoneName\":\"BlockerRulesZone\""), std::string::npos);
        EXPECT_NE(inboxB.events[0].second.find("zone-sub"), std::string::npos);
    }
    // A write of B reaches A; neither hears its own, Bob hears nothing.
    ASSERT_FALSE(save(containerB->privateCloudDatabase(), {rule("s", "x")}).error);
    ASSERT_TRUE(inboxA.waitFor(1, std::chrono::seconds(5)));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(inboxA.size(), 1u);
    EXPECT_EQ(inboxB.size(), 1u);
    EXPECT_EQ(inboxBob.size(), 0u);

    // A failed write tells no one.
    ASSERT_TRUE(save(containerA->privateCloudDatabase(), {rule("r", "again")}).error);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(inboxB.size(), 1u);

    pushB.stop();
    for (int i = 0; i < 100 && server_->push().streamCount() > 2; ++i) {
        // The server notices a gone device at its next write to it.
        server_->push().publish(DatabaseScope{"iCloud.app.tamsel.Tamsel", "development", false, "alice"}.key(), "probe",
                                PushEvent{"probe", "{}"}, "device-A");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(server_->push().streamCount(), 2u);
}

TEST(PushHubTest, EventsForADeviceAreCoalescedUntilItReads) {
    PushHub hub;
    auto reader = hub.open("scope", "device-B");
    auto writer = hub.open("scope", "device-A");
    ASSERT_TRUE(reader && writer);
    for (int i = 0; i < 5; ++i) hub.publish("scope", "zone:sub", PushEvent{"zoneChanged", std::to_string(i)}, "device-A");
    hub.publish("scope", "kvs", PushEvent{"keyValueChanged", "{}"}, "device-A");
    auto events = reader->next(std::chrono::milliseconds(0));
    ASSERT_TRUE(events);
    ASSERT_EQ(events->size(), 2u);
    EXPECT_EQ((*events)[1].data, "4");  // the latest
    auto none = writer->next(std::chrono::milliseconds(0));
    ASSERT_TRUE(none);
    EXPECT_TRUE(none->empty());

    hub.setMaximumStreams(2);
    EXPECT_EQ(hub.open("scope", "device-C"), nullptr);
    hub.shutdown();
    EXPECT_FALSE(reader->next(std::chrono::milliseconds(0)));
}

}  // namespace
}  // namespace tamsel::cloud::testing
