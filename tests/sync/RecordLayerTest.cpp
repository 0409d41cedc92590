// Records and back, the local changes queue, the record metadata and the merge.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/UserDefaults.h"
#include "support/TestSupport.h"
#include "sync/LocalChangeRecorder.h"
#include "sync/LocalChangesQueue.h"
#include "sync/RecordMapping.h"
#include "sync/RecordMerge.h"
#include "sync/RecordMetaData.h"
#include "sync/ResultsHandler.h"

namespace tamsel::sync {
namespace {

using platform::CKRecord;
using platform::CKRecordID;
using platform::Dictionary;
using platform::Value;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

model::Rule everyField() {
    model::Blocker blocker;
    blocker.trigger.urlFilter = "^https?://ads\\.";
    blocker.trigger.caseSensitive = true;
    blocker.trigger.resourceTypes = std::vector{model::ResourceType::styleSheet, model::ResourceType::svg};
    blocker.trigger.loadType = std::vector{model::LoadType::firstParty};
    blocker.trigger.domainFilter = model::DomainFilter{model::DomainFilterType::unlessDomain, {"*example.com", "a.org"}};
    blocker.action.type = model::ActionType::hide;
    blocker.action.selector = "div.ad";
    return model::Rule("R-1", "Every field", blocker);
}

CKRecord recordOf(const std::string& type, const std::string& name, const Dictionary& fields) {
    CKRecord record(type, CKRecordID{name, rulesZoneID()});
    for (auto& [key, value] : recordFields(fields)) record.set(key, value);
    return record;
}

// --- Mapping ------------------------------------------------------------------------

TEST(RecordMappingTest, ARuleWithEveryFieldTravelsAndComesBackEqual) {
    const model::Rule rule = everyField();
    const Dictionary fields = fieldsOf(rule, "my-package");
    EXPECT_EQ(fields.at("caseSensitive"), Value(true));
    EXPECT_EQ(fields.at("resourceTypes"), Value(platform::Array{Value("style-sheet"), Value("svg-document")}));
    EXPECT_EQ(fields.at("domainFilterType"), Value("unless-domain"));

    const CKRecord record = recordOf("rule", rule.id, fields);
    EXPECT_EQ(*record.object("caseSensitive"), platform::CKRecordValue(std::int64_t{1}));
    const auto* reference = std::get_if<platform::CKReference>(record.object("package"));
    ASSERT_NE(reference, nullptr);
    EXPECT_EQ(reference->recordID, (CKRecordID{"my-package", rulesZoneID()}));
    EXPECT_EQ(reference->action, platform::CKReference::Action::none);

    EXPECT_EQ(ruleFromRecord(record), rule);
    EXPECT_EQ(packageRecordName(record), "my-package");
    EXPECT_EQ(dictionaryFields(record.fields()), fields);
}

TEST(RecordMappingTest, OptionalPartsStayAbsentAndAPlainRuleComesBackEqual) {
    model::Blocker blocker;
    blocker.trigger.urlFilter = "x";
    const model::Rule rule("R-2", "Plain", blocker);
    const Dictionary fields = fieldsOf(rule, "p");
    for (const char* absent : {"resourceTypes", "loadType", "domainFilterType", "domainFilterValues", "selector"}) {
        EXPECT_FALSE(fields.contains(absent)) << absent;
    }
    EXPECT_EQ(ruleFromRecord(recordOf("rule", "R-2", fields)), rule);
}

TEST(RecordMappingTest, RecordsThatDoNotFitTheModelAreInvalidData) {
    const Dictionary good = fieldsOf(everyField(), "p");
    auto without = [&](const std::string& key) {
        Dictionary fields = good;
        fields.erase(key);
        return recordOf("rule", "R", fields);
    };
    auto with = [&](const std::string& key, Value value) {
        Dictionary fields = good;
        fields.insert_or_assign(key, std::move(value));
        return recordOf("rule", "R", fields);
    };
    for (const auto& record : {without("name"), without("urlFilter"), without("actionType"),
                               with("actionType", Value("hide")), with("resourceTypes", platform::Array{Value("stylesheet")}),
                               with("loadType", platform::Array{Value("any-party")}), with("domainFilterType", Value("if")),
                               with("urlFilter", Value(std::int64_t{3}))}) {
        EXPECT_EQ(ruleFromRecord(record), std::unexpected(RecordMappingError::invalidData)) << record.description();
    }
    EXPECT_EQ(packageFromRecord(recordOf("package", "P", {})), std::unexpected(RecordMappingError::invalidData));
    EXPECT_EQ(ruleFromRecord(recordOf("package", "P", good)), std::unexpected(RecordMappingError::invalidData));
    const auto package = packageFromRecord(recordOf("package", "P", {{"name", Value("Mine")}}));
    ASSERT_TRUE(package);
    EXPECT_EQ(package->id, "P");
    EXPECT_EQ(package->name, "Mine");
}

TEST(ResultsHandlerTest, RecordsThatCannotBeAppliedAreLoggedAndSkippedAndTheRestKept) {
    tamsel::testing::LogCapture log;
    ResultsHandler results;
    Dictionary linkless = fieldsOf(everyField(), "p");
    linkless.erase("package");
    results.recordChanged(recordOf("rule", "R-no-link", linkless));
    results.recordChanged(recordOf("note", "N", {{"name", Value("x")}}));
    results.recordChanged(recordOf("rule", "R-bad", {{"name", Value("x")}}));
    results.recordChanged(recordOf("rule", "R-1", fieldsOf(everyField(), "p")));
    results.recordChanged(recordOf("package", "p", {{"name", Value("Mine")}}));
    results.recordDeleted("gone");

    EXPECT_TRUE(log.contains("♻️ iCloud Sync: Can't find package link in R-no-link rule"));
    EXPECT_TRUE(log.contains("♻️ iCloud Sync: Unknown record type note"));
    ASSERT_THAT(results.rulesPending, SizeIs(1));
    EXPECT_EQ(results.rulesPending[0].first, everyField());
    EXPECT_EQ(results.rulesPending[0].second, "p");
    EXPECT_THAT(results.packagesPending, SizeIs(1));
    EXPECT_THAT(results.deletedPending, ElementsAre("gone"));

    results.dropPending([](const std::string& name) { return name == "R-1" || name == "gone"; });
    EXPECT_THAT(results.rulesPending, IsEmpty());
    EXPECT_THAT(results.deletedPending, IsEmpty());
    EXPECT_THAT(results.packagesPending, SizeIs(1));
}

// --- Queue -----------------------------------------------------------------------------

class LocalChangesQueueTest : public ::testing::Test {
protected:
    std::shared_ptr<platform::UserDefaults> open() { return platform::UserDefaults::open(directory_.path(), "standard"); }

    tamsel::testing::TemporaryDirectory directory_;
    std::shared_ptr<platform::UserDefaults> defaults_ = open();
    LocalChangesQueue queue_{defaults_, directory_ / "sync-state.lock"};
};

TEST_F(LocalChangesQueueTest, ChangesWaitUnderTheFourKeysAndSurviveANewProcess) {
    const model::Package package("P", "Mine", {everyField()});
    queue_.allAdded({package});
    queue_.rulesDeleted({"R-old"});
    queue_.packageDeleted("P-old");

    EXPECT_TRUE(defaults_->dictionary("AddedPackages"));
    EXPECT_EQ(defaults_->dictionary("AddedRules")->at("R-1"), Value(fieldsOf(everyField(), "P")));
    EXPECT_EQ(defaults_->array("DeletedRules"), (platform::Array{Value("R-old")}));
    EXPECT_EQ(defaults_->array("DeletedPackages"), (platform::Array{Value("P-old")}));

    LocalChangesQueue reopened(open(), directory_ / "sync-state.lock");
    EXPECT_EQ(reopened.changes(), queue_.changes());
    EXPECT_EQ(reopened.changes().count(), 4u);
}

TEST_F(LocalChangesQueueTest, ALaterChangeReplacesAnEarlierOneAndADeleteCancelsAnAdd) {
    model::Rule rule = everyField();
    queue_.ruleAdded(rule, "P");
    rule.name = "Renamed";
    queue_.ruleAdded(rule, "P");
    ASSERT_THAT(queue_.changes().addedRules, SizeIs(1));
    EXPECT_EQ(queue_.changes().addedRules.at("R-1").at("name"), Value("Renamed"));

    queue_.rulesDeleted({"R-1"});
    queue_.rulesDeleted({"R-1"});
    EXPECT_THAT(queue_.changes().addedRules, IsEmpty());
    EXPECT_THAT(queue_.changes().deletedRules, ElementsAre("R-1"));
    queue_.ruleAdded(rule, "P");
    EXPECT_THAT(queue_.changes().deletedRules, IsEmpty());

    queue_.drop("R-1");
    EXPECT_TRUE(queue_.changes().empty());
}

TEST_F(LocalChangesQueueTest, AConfirmedPushRemovesOnlyWhatWasSentUnchanged) {
    model::Rule first = everyField();
    model::Rule second("R-2", "Second", everyField().blocker);
    queue_.rulesAdded({first, second}, "P");
    queue_.rulesDeleted({"R-3"});
    const auto sent = queue_.changes().addedRules;

    // R-2 changes while the push is under way: that change must still go.
    second.name = "Second, again";
    queue_.ruleAdded(second, "P");
    queue_.confirm(sent, {"R-3"});

    const auto left = queue_.changes();
    EXPECT_THAT(left.addedRules, ElementsAre(Pair("R-2", fieldsOf(second, "P"))));
    EXPECT_THAT(left.deletedRules, IsEmpty());
}

TEST_F(LocalChangesQueueTest, ConcurrentRecordersLoseNoChange) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, t] {
            LocalChangesQueue own(open(), directory_ / "sync-state.lock");
            for (int i = 0; i < 25; ++i) {
                own.ruleAdded(model::Rule("R-" + std::to_string(t) + "-" + std::to_string(i), "n", {}), "P");
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_THAT(queue_.changes().addedRules, SizeIs(100));
}

TEST_F(LocalChangesQueueTest, TheRecorderOfShortLivedProgramsQueuesChangesUnlessSyncIsDisabled) {
    auto shared = platform::UserDefaults::open(directory_.path(), "shared");
    LocalChangeRecorder recorder(defaults_, shared);
    const model::Package package("P", "Mine", {everyField(), model::Rule("R-2", "Second", {})});
    recorder.ruleAdded(everyField(), package);
    recorder.packageDeleted(package);
    EXPECT_THAT(queue_.changes().addedRules, IsEmpty());
    EXPECT_THAT(queue_.changes().deletedPackages, ElementsAre("P"));
    EXPECT_THAT(queue_.changes().deletedRules, ElementsAre("R-1", "R-2"));

    shared->set(Value(true), "cloudStuffDisabled");
    recorder.packageAdded(model::Package("Q", "Other", {}));
    recorder.ruleCollectionAdded({everyField()}, package);
    EXPECT_THAT(queue_.changes().addedPackages, IsEmpty());
    EXPECT_THAT(queue_.changes().addedRules, IsEmpty());
}

// --- Metadata -----------------------------------------------------------------------

TEST(RecordMetaDataTest, ARecordRebuiltFromStoredMetadataCarriesTheTagAndTheServerFieldsAsItsBase) {
    tamsel::testing::TemporaryDirectory directory;
    tamsel::testing::LogCapture log;
    RecordMetaData metaData(platform::UserDefaults::open(directory.path(), "standard"), {});

    auto server = std::make_shared<CKRecord>(recordOf("rule", "R-1", fieldsOf(everyField(), "P")));
    server->setSystemFields("tag-7", platform::CKTimestamp{1000}, platform::CKTimestamp{2000}, "u", "u");
    server->markSynchronised();
    metaData.store({server});
    EXPECT_TRUE(log.contains("♻️ iCloud Sync: Changetag for R-1: tag-7"));

    model::Rule changed = everyField();
    changed.blocker.action.selector.reset();
    changed.name = "Changed";
    const auto snapshot = metaData.snapshot();
    const auto record = snapshot.record("R-1", RecordType::rule, fieldsOf(changed, "P"));
    EXPECT_EQ(record->recordChangeTag(), "tag-7");
    EXPECT_EQ(record->serverFields(), server->fields());
    EXPECT_EQ(record->object("selector"), nullptr);
    EXPECT_TRUE(record->changedKeys().contains("selector"));
    EXPECT_EQ(ruleFromRecord(*record), changed);

    const auto fresh = snapshot.record("R-9", RecordType::rule, fieldsOf(changed, "P"));
    EXPECT_FALSE(fresh->recordChangeTag());
    metaData.remove({"R-1"});
    EXPECT_EQ(metaData.count(), 0u);
}

// --- Merge --------------------------------------------------------------------------

TEST(RecordMergeTest, LocalSelectorAndServerNameBothSurvive) {
    const Dictionary base = fieldsOf(everyField(), "P");
    CKRecord ancestor = recordOf("rule", "R-1", base);
    Dictionary local = base;
    local.insert_or_assign("selector", Value("div.local"));
    Dictionary remote = base;
    remote.insert_or_assign("name", Value("Server name"));
    CKRecord server = recordOf("rule", "R-1", remote);
    server.setSystemFields("tag-2", std::nullopt, std::nullopt, "", "");
    CKRecord client = recordOf("rule", "R-1", local);
    client.setSystemFields("tag-1", std::nullopt, std::nullopt, "", "");

    const auto result = mergeRecords(server, client, ancestor);
    ASSERT_EQ(result.outcome, MergeResult::Outcome::merged);
    const auto rule = ruleFromRecord(*result.record);
    ASSERT_TRUE(rule);
    EXPECT_EQ(rule->name, "Server name");
    EXPECT_EQ(rule->blocker.action.selector, "div.local");
    EXPECT_EQ(result.record->recordChangeTag(), "tag-2");
}

TEST(RecordMergeTest, WithoutABaseEveryLocalFieldWinsAndARemovedFieldGoes) {
    const Dictionary base = fieldsOf(everyField(), "P");
    Dictionary local = base;
    local.erase("selector");
    local.insert_or_assign("name", Value("Local"));
    Dictionary remote = base;
    remote.insert_or_assign("urlFilter", Value("server"));
    CKRecord client = recordOf("rule", "R-1", local);
    client.setSystemFields("tag-1", std::nullopt, std::nullopt, "", "");

    const auto noBase = mergeRecords(recordOf("rule", "R-1", remote), client, CKRecord("rule", client.recordID()));
    EXPECT_EQ(noBase.outcome, MergeResult::Outcome::merged);
    EXPECT_EQ(*noBase.record->object("name"), platform::CKRecordValue(std::string("Local")));
    EXPECT_EQ(*noBase.record->object("urlFilter"), platform::CKRecordValue(std::string("^https?://ads\\.")));
    EXPECT_NE(noBase.record->object("selector"), nullptr);  // nothing says it was removed

    const auto withBase = mergeRecords(recordOf("rule", "R-1", remote), client, recordOf("rule", "R-1", base));
    EXPECT_EQ(withBase.record->object("selector"), nullptr);
    EXPECT_EQ(*withBase.record->object("urlFilter"), platform::CKRecordValue(std::string("server")));
}

TEST(RecordMergeTest, OnlyAnUntaggedCopyWithoutBaseAndEqualFieldsIsAFullDuplicate) {
    const Dictionary fields = fieldsOf(everyField(), "P");
    const CKRecord server = recordOf("rule", "R-1", fields);
    const CKRecord empty("rule", server.recordID());
    EXPECT_EQ(mergeRecords(server, recordOf("rule", "R-1", fields), empty).outcome, MergeResult::Outcome::fullDuplicate);

    CKRecord tagged = recordOf("rule", "R-1", fields);
    tagged.setSystemFields("tag-1", std::nullopt, std::nullopt, "", "");
    EXPECT_EQ(mergeRecords(server, tagged, empty).outcome, MergeResult::Outcome::merged);
    Dictionary fewer = fields;
    fewer.erase("selector");
    EXPECT_EQ(mergeRecords(server, recordOf("rule", "R-1", fewer), empty).outcome, MergeResult::Outcome::merged);
    EXPECT_EQ(mergeRecords(server, recordOf("rule", "R-1", fields), server).outcome, MergeResult::Outcome::merged);
}

}  // namespace
}  // namespace tamsel::sync
