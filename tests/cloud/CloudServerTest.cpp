#include <atomic>
#include <set>
#include <thread>

#include "cloud/CloudServerFixture.h"

namespace tamsel::cloud::testing {
namespace {

const std::string nameField = R"({"name":{"value":"Ads","type":"STRING"}})";

TEST_F(CloudServerTest, SavesUpdatesAndAnswersConflictsWithTheServerRecord) {
    auto created = modify(operation("create", "r1", R"({"name":{"value":"A","type":"STRING"},"n":{"value":1,"type":"INT64"}})"),
                          aliceToken_);
    ASSERT_EQ(created->status, 200) << created->body;
    const std::string tag1 = created->text("/records/0/recordChangeTag");
    ASSERT_FALSE(tag1.empty());

    auto again = modify(operation("create", "r1", nameField), aliceToken_);
    EXPECT_EQ(again->text("/records/0/serverErrorCode"), "EXISTS");
    EXPECT_EQ(again->text("/records/0/serverRecord/fields/name/value"), "A");

    // An update changes only the fields it names.
    auto updated = modify(operation("update", "r1", R"({"name":{"value":"B","type":"STRING"}})", tag1), aliceToken_);
    const std::string tag2 = updated->text("/records/0/recordChangeTag");
    ASSERT_FALSE(tag2.empty()) << updated->body;
    EXPECT_NE(tag1, tag2);
    EXPECT_EQ(updated->text("/records/0/fields/name/value"), "B");
    EXPECT_TRUE(updated->has("/records/0/fields/n"));

    // The old tag is a conflict, and the answer carries what the server has.
    auto stale = modify(operation("update", "r1", R"({"name":{"value":"C","type":"STRING"}})", tag1), aliceToken_);
    EXPECT_EQ(stale->status, 200);
    EXPECT_EQ(stale->text("/records/0/serverErrorCode"), "CONFLICT");
    EXPECT_EQ(stale->text("/records/0/serverRecord/recordChangeTag"), tag2);
    EXPECT_EQ(stale->text("/records/0/serverRecord/fields/name/value"), "B");
    EXPECT_EQ(lookup("r1", aliceToken_)->text("/records/0/fields/name/value"), "B");

    auto noTag = modify(operation("update", "r1", nameField), aliceToken_);
    EXPECT_EQ(noTag->text("/records/0/serverErrorCode"), "BAD_REQUEST");

    // Force paths ignore the tag; replace drops the fields it does not name.
    auto forced = modify(operation("forceUpdate", "r1", R"({"x":{"value":"1","type":"STRING"}})"), aliceToken_);
    EXPECT_TRUE(forced->has("/records/0/fields/n"));
    EXPECT_TRUE(forced->has("/records/0/fields/x"));
    auto replaced = modify(operation("forceReplace", "r1", R"({"y":{"value":2.5,"type":"DOUBLE"}})"), aliceToken_);
    EXPECT_FALSE(replaced->has("/records/0/fields/n"));
    EXPECT_TRUE(replaced->has("/records/0/fields/y"));
    const std::string tag3 = replaced->text("/records/0/recordChangeTag");
    auto replaceStale = modify(operation("replace", "r1", nameField, tag2), aliceToken_);
    EXPECT_EQ(replaceStale->text("/records/0/serverErrorCode"), "CONFLICT");
    auto forceCreate = modify(operation("forceUpdate", "r2", nameField), aliceToken_);
    EXPECT_FALSE(forceCreate->text("/records/0/recordChangeTag").empty());

    // Deletion: a stale tag conflicts; the right one, or force, deletes.
    auto deleteStale = modify(operation("delete", "r1", "{}", tag1), aliceToken_);
    EXPECT_EQ(deleteStale->text("/records/0/serverErrorCode"), "CONFLICT");
    auto deleted = modify(operation("delete", "r1", "{}", tag3), aliceToken_);
    EXPECT_TRUE(deleted->at("/records/0/deleted").get_bool().value_unsafe()) << deleted->body;
    EXPECT_EQ(lookup("r1", aliceToken_)->text("/records/0/serverErrorCode"), "NOT_FOUND");
    auto updateGone = modify(operation("update", "r1", nameField, tag3), aliceToken_);
    EXPECT_EQ(updateGone->text("/records/0/serverErrorCode"), "NOT_FOUND");
    // Deleting what is gone is done, so that a batch of deletions never
    // fails for a record another device removed first.
    auto forceDeleted = modify(operation("forceDelete", "r1"), aliceToken_);
    EXPECT_TRUE(forceDeleted->has("/records/0/deleted"));
    EXPECT_FALSE(forceDeleted->has("/records/0/serverErrorCode"));
}

TEST_F(CloudServerTest, AnAtomicBatchInACustomZoneFailsWholeAndTheDefaultZoneSavesWhatItCan) {
    ASSERT_EQ(createZone("BlockerRulesZone", aliceToken_)->status, 200);
    ASSERT_EQ(modify(operation("create", "existing", nameField), aliceToken_, "BlockerRulesZone")->status, 200);

    auto batch = modify(operation("create", "new1", nameField) + "," + operation("create", "existing", nameField) + "," +
                            operation("create", "new2", nameField),
                        aliceToken_, "BlockerRulesZone");
    ASSERT_EQ(batch->status, 200) << batch->body;
    EXPECT_EQ(batch->text("/records/0/serverErrorCode"), "ATOMIC_ERROR");
    EXPECT_EQ(batch->text("/records/1/serverErrorCode"), "EXISTS");
    EXPECT_EQ(batch->text("/records/2/serverErrorCode"), "ATOMIC_ERROR");
    EXPECT_EQ(lookup("new1", aliceToken_, "BlockerRulesZone")->text("/records/0/serverErrorCode"), "NOT_FOUND");
    // Nothing of the failed batch moved the zone's changes.
    auto fetched = changes("BlockerRulesZone", aliceToken_);
    EXPECT_EQ(fetched->count("/zones/0/records"), 1u);

    ASSERT_EQ(modify(operation("create", "existing", nameField), aliceToken_)->status, 200);
    auto loose = modify(operation("create", "new1", nameField) + "," + operation("create", "existing", nameField),
                        aliceToken_);
    EXPECT_FALSE(loose->text("/records/0/recordChangeTag").empty());
    EXPECT_EQ(loose->text("/records/1/serverErrorCode"), "EXISTS");
    EXPECT_EQ(lookup("new1", aliceToken_)->text("/records/0/recordName"), "new1");
}

TEST_F(CloudServerTest, ChangesPageAt200WithMoreComingAndReturnDeletedMarkers) {
    ASSERT_EQ(createZone("Z", aliceToken_)->status, 200);
    for (int batch = 0; batch < 2; ++batch) {
        std::string operations;
        for (int i = 0; i < 225; ++i) {
            if (i) operations += ",";
            operations += operation("create", fmt::format("r{}", batch * 225 + i), nameField);
        }
        ASSERT_EQ(modify(operations, aliceToken_, "Z")->status, 200);
    }
    std::set<std::string> seen;
    std::string token;
    int pages = 0;
    for (bool more = true; more; ++pages) {
        auto page = changes("Z", aliceToken_, token, 1000);  // asked for more than the cap
        ASSERT_EQ(page->status, 200) << page->body;
        EXPECT_LE(page->count("/zones/0/records"), 200u);
        for (std::size_t i = 0; i < page->count("/zones/0/records"); ++i) {
            EXPECT_TRUE(seen.insert(page->text(fmt::format("/zones/0/records/{}/recordName", i))).second);
        }
        more = page->at("/zones/0/moreComing").get_bool().value_unsafe();
        token = page->text("/zones/0/syncToken");
        ASSERT_LT(pages, 10);
    }
    EXPECT_EQ(pages, 3);
    EXPECT_EQ(seen.size(), 450u);

    // Nothing new: an empty answer, the same position.
    auto nothing = changes("Z", aliceToken_, token);
    EXPECT_EQ(nothing->count("/zones/0/records"), 0u);
    EXPECT_FALSE(nothing->at("/zones/0/moreComing").get_bool().value_unsafe());

    ASSERT_EQ(modify(operation("forceDelete", "r3") + "," + operation("forceDelete", "r4") + "," +
                         operation("forceUpdate", "r5", R"({"name":{"value":"new","type":"STRING"}})"),
                     aliceToken_, "Z")
                  ->status,
              200);
    auto delta = changes("Z", aliceToken_, token);
    ASSERT_EQ(delta->count("/zones/0/records"), 3u) << delta->body;
    EXPECT_EQ(delta->text("/zones/0/records/0/recordName"), "r3");
    EXPECT_TRUE(delta->at("/zones/0/records/0/deleted").get_bool().value_unsafe());
    EXPECT_TRUE(delta->at("/zones/0/records/1/deleted").get_bool().value_unsafe());
    EXPECT_EQ(delta->text("/zones/0/records/2/fields/name/value"), "new");

    // A fetch from nothing ends with the living records (later pages may
    // carry markers of records it never handed out, which are harmless).
    std::set<std::string> living;
    token.clear();
    for (bool more = true; more;) {
        auto page = changes("Z", aliceToken_, token);
        for (std::size_t i = 0; i < page->count("/zones/0/records"); ++i) {
            const std::string name = page->text(fmt::format("/zones/0/records/{}/recordName", i));
            if (page->has(fmt::format("/zones/0/records/{}/deleted", i))) {
                living.erase(name);
            } else {
                living.insert(name);
            }
        }
        more = page->at("/zones/0/moreComing").get_bool().value_unsafe();
        token = page->text("/zones/0/syncToken");
    }
    EXPECT_EQ(living.size(), 448u);
    EXPECT_FALSE(living.contains("r3"));
}

TEST_F(CloudServerTest, TokensExpireBelowThePurgeHorizonAndWithTheirZoneInstance) {
    ASSERT_EQ(createZone("Z", aliceToken_)->status, 200);
    ASSERT_EQ(modify(operation("create", "a", nameField) + "," + operation("create", "b", nameField), aliceToken_, "Z")->status, 200);
    const std::string before = changes("Z", aliceToken_)->text("/zones/0/syncToken");
    ASSERT_EQ(modify(operation("forceDelete", "a"), aliceToken_, "Z")->status, 200);
    const std::string afterDelete = changes("Z", aliceToken_, before)->text("/zones/0/syncToken");

    auto purged = post("/admin/purge",
                       R"({"container":"iCloud.app.tamsel.Tamsel","environment":"development","database":"private","owner":"alice","zoneID":{"zoneName":"Z"}})",
                       adminToken_);
    ASSERT_EQ(purged->status, 200) << purged->body;
    EXPECT_EQ(changes("Z", aliceToken_, before)->text("/zones/0/serverErrorCode"), "CHANGE_TOKEN_EXPIRED");
    // A token at the horizon saw every deletion: still good.
    EXPECT_EQ(changes("Z", aliceToken_, afterDelete)->text("/zones/0/serverErrorCode"), "");

    // Another user's token, a made-up one, and one of a zone made again.
    ASSERT_EQ(createZone("Z", bobToken_)->status, 200);
    EXPECT_EQ(changes("Z", bobToken_, afterDelete)->text("/zones/0/serverErrorCode"), "CHANGE_TOKEN_EXPIRED");
    EXPECT_EQ(changes("Z", aliceToken_, "not-a-token")->text("/zones/0/serverErrorCode"), "BAD_REQUEST");
    auto removed = post(databasePath() + "zones/modify",
                        R"({"operations":[{"operationType":"delete","zone":{"zoneID":{"zoneName":"Z"}}}]})", aliceToken_);
    ASSERT_TRUE(removed->has("/zones/0/deleted")) << removed->body;
    EXPECT_EQ(changes("Z", aliceToken_, afterDelete)->text("/zones/0/serverErrorCode"), "ZONE_NOT_FOUND");
    EXPECT_EQ(modify(operation("create", "c", nameField), aliceToken_, "Z")->code(), "ZONE_NOT_FOUND");
    ASSERT_EQ(createZone("Z", aliceToken_)->status, 200);
    EXPECT_EQ(changes("Z", aliceToken_, afterDelete)->text("/zones/0/serverErrorCode"), "CHANGE_TOKEN_EXPIRED");
    EXPECT_EQ(changes("Z", aliceToken_)->count("/zones/0/records"), 0u);
}

TEST_F(CloudServerTest, LimitsOfOperationsRecordSizeAndBody) {
    std::string operations;
    for (int i = 0; i < 401; ++i) operations += (i ? "," : "") + operation("create", fmt::format("r{}", i), nameField);
    auto tooMany = modify(operations, aliceToken_);
    EXPECT_EQ(tooMany->status, 400);
    EXPECT_EQ(tooMany->code(), "LIMIT_EXCEEDED");
    EXPECT_EQ(lookup("r0", aliceToken_)->text("/records/0/serverErrorCode"), "NOT_FOUND");

    const std::string big(1024 * 1024 + 10, 'x');
    auto large = modify(operation("create", "big", fmt::format(R"({{"name":{{"value":"{}","type":"STRING"}}}})", big)) +
                            "," + operation("create", "small", nameField),
                        aliceToken_);
    EXPECT_EQ(large->text("/records/0/serverErrorCode"), "LIMIT_EXCEEDED");
    EXPECT_FALSE(large->text("/records/1/recordChangeTag").empty());

    const std::string huge(5 * 1024 * 1024, 'x');
    auto body = modify(operation("create", "huge", fmt::format(R"({{"name":{{"value":"{}","type":"STRING"}}}})", huge)),
                       aliceToken_);
    EXPECT_EQ(body->code(), "LIMIT_EXCEEDED");
    EXPECT_EQ(get(databasePath() + "users/current", aliceToken_)->status, 200);
}

TEST_F(CloudServerTest, BadInputIsAProtocolErrorAndNothingIsStored) {
    const auto path = databasePath() + "records/modify";
    EXPECT_EQ(post(path, "{not json", aliceToken_)->code(), "BAD_REQUEST");
    EXPECT_EQ(post(path, "[]", aliceToken_)->code(), "BAD_REQUEST");
    EXPECT_EQ(modify(operation("upsert", "x", nameField), aliceToken_)->code(), "BAD_REQUEST");
    EXPECT_EQ(modify(operation("create", "x", R"({"n":{"value":"one","type":"INT64"}})"), aliceToken_)->code(), "BAD_REQUEST");
    EXPECT_EQ(modify(operation("create", "x", R"({"n":{"value":1,"type":"BOOLEAN"}})"), aliceToken_)->code(), "BAD_REQUEST");
    EXPECT_EQ(modify(operation("create", "x", R"({"b":{"value":"%%%","type":"BYTES"}})"), aliceToken_)->code(), "BAD_REQUEST");
    EXPECT_EQ(modify(operation("create", "x\\u0001y", nameField), aliceToken_)->code(), "BAD_REQUEST");
    EXPECT_EQ(post(databasePath("shared") + "records/modify", "{}", aliceToken_)->code(), "BAD_REQUEST");
    EXPECT_EQ(lookup("x", aliceToken_)->text("/records/0/serverErrorCode"), "NOT_FOUND");

    // Odd but printable names and every field type travel unchanged.
    const std::string odd = R"(a/b c?d=e&f ü'\"; DROP TABLE records;--)";
    auto saved = modify(
        operation("create", odd,
                  R"({"s":{"value":"t","type":"STRING"},"i":{"value":-5,"type":"INT64"},"d":{"value":0.5,"type":"DOUBLE"},)"
                  R"("t":{"value":1700000000000,"type":"TIMESTAMP"},"r":{"value":{"recordName":"p","action":"NONE"},"type":"REFERENCE"},)"
                  R"("l":{"value":["a","b"],"type":"STRING_LIST"},"b":{"value":"AAEC","type":"BYTES"}})"),
        aliceToken_);
    ASSERT_EQ(saved->status, 200) << saved->body;
    EXPECT_EQ(saved->text("/records/0/recordName"), R"(a/b c?d=e&f ü'"; DROP TABLE records;--)");
    auto found = lookup(R"(a/b c?d=e&f ü'\"; DROP TABLE records;--)", aliceToken_);
    EXPECT_EQ(found->text("/records/0/fields/r/value/recordName"), "p");
    EXPECT_EQ(found->text("/records/0/fields/b/value"), "AAEC");
    EXPECT_EQ(found->at("/records/0/fields/i/value").get_int64().value_unsafe(), -5);
    EXPECT_EQ(found->text("/records/0/fields/t/type"), "TIMESTAMP");
    EXPECT_EQ(found->count("/records/0/fields/l/value"), 2u);
}

TEST_F(CloudServerTest, TokensSignInAndEachUserHasAPrivateDatabaseOfTheirOwn) {
    auto none = get(databasePath() + "users/current", "");
    EXPECT_EQ(none->status, 421);
    EXPECT_EQ(none->code(), "AUTHENTICATION_REQUIRED");
    auto wrong = get(databasePath() + "users/current", "0123");
    EXPECT_EQ(wrong->status, 401);
    EXPECT_EQ(wrong->code(), "AUTHENTICATION_FAILED");
    auto byParameter = get(databasePath() + "users/current?ckWebAuthToken=" + aliceToken_, "");
    EXPECT_EQ(byParameter->status, 200);
    EXPECT_FALSE(byParameter->text("/userRecordName").empty());

    ASSERT_EQ(createZone("BlockerRulesZone", aliceToken_)->status, 200);
    ASSERT_EQ(modify(operation("create", "secret", nameField), aliceToken_, "BlockerRulesZone")->status, 200);
    ASSERT_EQ(modify(operation("create", "secret", nameField), aliceToken_)->status, 200);
    // Bob sees none of it, and his writes land in his own database.
    EXPECT_EQ(changes("BlockerRulesZone", bobToken_)->text("/zones/0/serverErrorCode"), "ZONE_NOT_FOUND");
    EXPECT_EQ(lookup("secret", bobToken_)->text("/records/0/serverErrorCode"), "NOT_FOUND");
    EXPECT_EQ(changes("_defaultZone", bobToken_)->count("/zones/0/records"), 0u);
    auto bobsOwn = modify(operation("create", "secret", nameField), bobToken_);
    EXPECT_FALSE(bobsOwn->text("/records/0/recordChangeTag").empty());
    auto bobDeletes = modify(operation("forceDelete", "secret"), bobToken_);
    ASSERT_EQ(bobDeletes->status, 200);
    EXPECT_EQ(lookup("secret", aliceToken_)->text("/records/0/recordName"), "secret");
    EXPECT_EQ(get(databasePath() + "zones/list", bobToken_)->count("/zones"), 1u);

    // A revoked token no longer signs in; a removed user neither.
    auto newToken = store_->revokeToken("alice");
    ASSERT_TRUE(newToken);
    EXPECT_EQ(get(databasePath() + "users/current", aliceToken_)->code(), "AUTHENTICATION_FAILED");
    EXPECT_EQ(get(databasePath() + "users/current", *newToken)->status, 200);
    ASSERT_TRUE(store_->removeUser("bob"));
    EXPECT_EQ(get(databasePath() + "users/current", bobToken_)->code(), "AUTHENTICATION_FAILED");
}

TEST_F(CloudServerTest, TheReportContainerTakesReportsFromAnyoneAndShowsThemOnlyToTheAdministrator) {
    const std::string container = "iCloud.app.tamsel.Tamsel.Report";
    const std::string report =
        R"({"type":{"value":"brokenSite","type":"STRING"},"url":{"value":"https://example.com/","type":"STRING"}})";
    auto first = modify(operation("create", "R-1", report, "", "Report"), aliceToken_, "_defaultZone", "public", container);
    EXPECT_FALSE(first->text("/records/0/recordChangeTag").empty()) << first->body;
    auto second = modify(operation("create", "R-2", report, "", "Report"), bobToken_, "_defaultZone", "public", container);
    EXPECT_FALSE(second->text("/records/0/recordChangeTag").empty());

    EXPECT_EQ(modify(operation("create", "R-3", report, "", "rule"), aliceToken_, "_defaultZone", "public", container)->code(),
              "ACCESS_DENIED");
    EXPECT_EQ(modify(operation("forceDelete", "R-1", "{}", "", "Report"), aliceToken_, "_defaultZone", "public", container)
                  ->code(),
              "ACCESS_DENIED");
    EXPECT_EQ(post(databasePath("public", container) + "records/lookup", R"({"records":[{"recordName":"R-1"}]})", aliceToken_)
                  ->code(),
              "ACCESS_DENIED");
    EXPECT_EQ(post(databasePath("public", container) + "records/query", R"({"query":{"recordType":"Report"}})", aliceToken_)
                  ->code(),
              "ACCESS_DENIED");
    // Another container's public database is read-only for users.
    EXPECT_EQ(modify(operation("create", "x", nameField), aliceToken_, "_defaultZone", "public")->code(), "ACCESS_DENIED");

    auto query = post(databasePath("public", container) + "records/query", R"({"query":{"recordType":"Report"}})", adminToken_);
    EXPECT_EQ(query->count("/records"), 2u) << query->body;
    const auto reports = store_->reports();
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[0].record.recordName, "R-2");  // newest first
    EXPECT_EQ(reports[0].container, container);
}

TEST_F(CloudServerTest, InjectedFaultsAnswerTheNextMatchingCallsOnly) {
    EXPECT_EQ(post("/admin/faults", R"({"status":503})", aliceToken_)->code(), "ACCESS_DENIED");
    ASSERT_EQ(injectFault(R"({"endpoint":"records/modify","recordName":"r1","count":2,"status":503,"serverErrorCode":"TRY_AGAIN_LATER","retryAfter":7})")
                  ->status,
              200);
    EXPECT_EQ(modify(operation("create", "other", nameField), aliceToken_)->status, 200);
    for (int i = 0; i < 2; ++i) {
        auto failed = modify(operation("create", "r1", nameField), aliceToken_);
        EXPECT_EQ(failed->status, 503);
        EXPECT_EQ(failed->code(), "TRY_AGAIN_LATER");
        EXPECT_EQ(failed->retryAfterHeader, "7");
        EXPECT_EQ(failed->at("/retryAfter").get_int64().value_unsafe(), 7);
    }
    EXPECT_EQ(modify(operation("create", "r1", nameField), aliceToken_)->status, 200);

    ASSERT_EQ(injectFault(R"({"endpoint":"changes/zone","delayMilliseconds":300})")->status, 200);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(changes("_defaultZone", aliceToken_)->status, 200);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}

TEST_F(CloudServerTest, ConcurrentWritersOfOneZoneGetDistinctNumbersAndNoChangeIsSkipped) {
    ASSERT_EQ(createZone("Z", aliceToken_)->status, 200);
    std::string token = changes("Z", aliceToken_)->text("/zones/0/syncToken");
    std::atomic<int> failures = 0;
    std::vector<std::thread> writers;
    std::set<std::string> fetched;
    std::atomic<bool> writing = true;
    for (int w = 0; w < 4; ++w) {
        writers.emplace_back([&, w] {
            for (int i = 0; i < 20; ++i) {
                auto answer = modify(operation("create", fmt::format("w{}-{}", w, i), nameField), aliceToken_, "Z");
                if (answer->status != 200 || answer->text("/records/0/recordChangeTag").empty()) ++failures;
            }
        });
    }
    // A reader following along never misses a change committed behind it.
    std::thread reader([&] {
        while (true) {
            const bool last = !writing;
            auto page = changes("Z", aliceToken_, token);
            for (std::size_t i = 0; i < page->count("/zones/0/records"); ++i) {
                fetched.insert(page->text(fmt::format("/zones/0/records/{}/recordName", i)));
            }
            token = page->text("/zones/0/syncToken");
            if (last && !page->at("/zones/0/moreComing").get_bool().value_unsafe()) break;
        }
    });
    for (auto& writer : writers) writer.join();
    writing = false;
    reader.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(fetched.size(), 80u);
}

TEST_F(CloudServerTest, SubscriptionsAreKeptPerUserAndDuplicatesAreRefused) {
    ASSERT_EQ(createZone("Z", aliceToken_)->status, 200);
    const std::string create =
        R"({"operations":[{"operationType":"create","subscription":{"subscriptionID":"sub-1","subscriptionType":"zone","zoneID":{"zoneName":"Z"},"notificationInfo":{"shouldSendContentAvailable":true}}}]})";
    auto saved = post(databasePath() + "subscriptions/modify", create, aliceToken_);
    EXPECT_EQ(saved->text("/subscriptions/0/subscriptionID"), "sub-1") << saved->body;
    EXPECT_EQ(post(databasePath() + "subscriptions/modify", create, aliceToken_)->text("/subscriptions/0/serverErrorCode"),
              "EXISTS");
    // Bob has no zone Z.
    EXPECT_EQ(post(databasePath() + "subscriptions/modify", create, bobToken_)->text("/subscriptions/0/serverErrorCode"),
              "ZONE_NOT_FOUND");
    DatabaseScope alice{"iCloud.app.tamsel.Tamsel", "development", false, "alice"};
    EXPECT_EQ(store_->subscriptionsOnZone(alice, "Z"), std::vector<std::string>{"sub-1"});
}

}  // namespace
}  // namespace tamsel::cloud::testing
