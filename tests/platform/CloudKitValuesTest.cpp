#include <gtest/gtest.h>
#include <simdjson.h>
#include <sys/stat.h>

#include "platform/CKError.h"
#include "platform/CKRecord.h"
#include "platform/CKWire.h"
#include "platform/CloudAccount.h"
#include "platform/Files.h"
#include "support/TestSupport.h"

namespace tamsel::platform {
namespace {

std::expected<CKRecordFields, std::string> parseFields(const std::string& json, const CKRecordZoneID& zone = {}) {
    simdjson::dom::parser parser;
    simdjson::dom::element element;
    if (parser.parse(json).get(element) != simdjson::SUCCESS) return std::unexpected(std::string("not JSON"));
    return ckwire::readFields(element, zone);
}

TEST(CloudKitValuesTest, EveryFieldTypeSurvivesTheWireAndWrongTypesSayWhat) {
    const CKRecordZoneID zone{"BlockerRulesZone", CKRecordZoneID::defaultOwnerName};
    CKRecordFields fields{
        {"s", std::string("ü \"quoted\"")},
        {"i", std::int64_t{-9'000'000'000'000}},
        {"d", 0.1},
        {"t", CKTimestamp{1'700'000'000'123}},
        {"r", CKReference{CKRecordID{"package-1", zone}, CKReference::Action::deleteSelf}},
        {"l", std::vector<std::string>{"a", "", "c"}},
        {"b", CKBytes{std::string("\0\1\xff", 3)}},
    };
    auto read = parseFields(ckwire::fieldsJSON(fields), zone);
    ASSERT_TRUE(read) << read.error();
    EXPECT_EQ(*read, fields);

    EXPECT_EQ(parseFields(R"({"n":{"value":"1","type":"INT64"}})").error(), "field \"n\": a INT64 value is not a 64-bit integer");
    EXPECT_EQ(parseFields(R"({"n":{"value":1.5,"type":"INT64"}})").error(), "field \"n\": a INT64 value is not a 64-bit integer");
    EXPECT_EQ(parseFields(R"({"n":{"value":1}})").error(), "field \"n\": a field has no type");
    EXPECT_EQ(parseFields(R"({"n":{"value":1,"type":"BOOL"}})").error(), "field \"n\": unknown field type \"BOOL\"");
    EXPECT_EQ(parseFields(R"({"n":{"value":["a",1],"type":"STRING_LIST"}})").error(),
              "field \"n\": an item of a STRING_LIST is not a string");
    EXPECT_EQ(parseFields(R"({"n":{"value":{"action":"NONE"},"type":"REFERENCE"}})").error(),
              "field \"n\": a REFERENCE value has no recordName");
    EXPECT_EQ(parseFields(R"({"n":{"value":{"recordName":"p","action":"CASCADE"},"type":"REFERENCE"}})").error(),
              "field \"n\": a reference's action is neither NONE nor DELETE_SELF");
    EXPECT_FALSE(parseFields(R"([])"));

    EXPECT_TRUE(ckwire::isValidName("a/b c?ü"));
    EXPECT_FALSE(ckwire::isValidName(""));
    EXPECT_FALSE(ckwire::isValidName(std::string(256, 'x')));
    EXPECT_FALSE(ckwire::isValidName("tab\there"));
}

TEST(CloudKitValuesTest, SystemFieldsAndTokensArchiveWithoutKeysAndRefuseOtherBytes) {
    CKRecord record("rule", CKRecordID{"rule 1/ü", CKRecordZoneID{"Z", "_owner"}});
    record.set("name", std::string("secret"));
    record.setSystemFields("tag-1", CKTimestamp{1}, CKTimestamp{2}, "_creator", "_modifier");
    EXPECT_TRUE(record.changedKeys().contains("name"));
    auto restored = CKRecord::decodeSystemFields(record.encodeSystemFields());
    ASSERT_TRUE(restored) << restored.error();
    EXPECT_EQ(restored->recordID(), record.recordID());
    EXPECT_EQ(restored->recordType(), "rule");
    EXPECT_EQ(restored->recordChangeTag(), "tag-1");
    EXPECT_EQ(restored->modificationDate(), CKTimestamp{2});
    EXPECT_EQ(restored->lastModifiedUserRecordName(), "_modifier");
    EXPECT_TRUE(restored->fields().empty());
    EXPECT_TRUE(restored->changedKeys().empty());

    const CKServerChangeToken token("opaque==");
    EXPECT_EQ(CKServerChangeToken::unarchive(token.archive()), token);
    // Neither kind of archive is taken for the other, nor are cut bytes.
    EXPECT_FALSE(CKServerChangeToken::unarchive(record.encodeSystemFields()));
    EXPECT_FALSE(CKRecord::decodeSystemFields(token.archive()));
    const std::string archived = record.encodeSystemFields();
    EXPECT_FALSE(CKRecord::decodeSystemFields(std::string_view(archived).substr(0, archived.size() - 3)));
    EXPECT_FALSE(CKRecord::decodeSystemFields(""));
}

TEST(CloudKitValuesTest, ServerCodesAndBareStatusesMapToTheirErrors) {
    using Code = CKError::Code;
    EXPECT_EQ(ckErrorCodeForServerCode("THROTTLED"), Code::requestRateLimited);
    EXPECT_EQ(ckErrorCodeForServerCode("ZONE_BUSY"), Code::zoneBusy);
    EXPECT_EQ(ckErrorCodeForServerCode("EXISTS"), Code::serverRecordChanged);
    EXPECT_EQ(ckErrorCodeForServerCode("SOMETHING_NEW"), std::nullopt);
    // Every code the server sends has a client error.
    for (auto code : {ckwire::ServerErrorCode::accessDenied, ckwire::ServerErrorCode::limitExceeded,
                      ckwire::ServerErrorCode::changeTokenExpired, ckwire::ServerErrorCode::zoneNotFound}) {
        EXPECT_TRUE(ckErrorCodeForServerCode(ckwire::rawValue(code))) << ckwire::rawValue(code);
        EXPECT_EQ(ckwire::serverErrorCodeFromRawValue(ckwire::rawValue(code)), code);
    }
    EXPECT_EQ(ckErrorCodeForHTTPStatus(503), Code::serviceUnavailable);
    EXPECT_EQ(ckErrorCodeForHTTPStatus(421), Code::notAuthenticated);
    EXPECT_EQ(ckErrorCodeForHTTPStatus(400), Code::internalError);  // never invalidArguments without the server's word
    EXPECT_EQ(ckErrorCodeForHTTPStatus(404), Code::internalError);

    CKError partial = CKError::make(Code::partialFailure, "1 of 2 items failed");
    partial.partialErrors = std::make_shared<const std::vector<CKItemError>>(std::vector<CKItemError>{
        {CKRecordID{"a", {}}, "a", CKError::make(Code::zoneNotFound, "")}});
    ASSERT_NE(partial.partialError("a"), nullptr);
    EXPECT_EQ(partial.partialError("a")->code, Code::zoneNotFound);
    EXPECT_EQ(partial.partialError("b"), nullptr);
    EXPECT_EQ(partial.localizedDescription(), "CKError 2 (partialFailure): 1 of 2 items failed");
}

TEST(CloudKitValuesTest, TheAccountFileIsTheOwnersAloneAndAnUnreadableOneIsAnError) {
    testing::ScopedDataRoot root;
    auto none = CloudAccount::load();
    ASSERT_TRUE(none);
    EXPECT_FALSE(*none);
    const CloudAccount account{"http://127.0.0.1:8790", "alice", "0123abcd"};
    ASSERT_TRUE(CloudAccount::save(account));
    struct stat status {};
    ASSERT_EQ(::stat(CloudAccount::location().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_EQ(CloudAccount::load().value(), account);

    ASSERT_TRUE(writeFileAtomically(CloudAccount::location(), R"({"server":"x"})"));
    EXPECT_FALSE(CloudAccount::load());
    EXPECT_EQ(CloudAccount::remove().value(), true);
    EXPECT_EQ(CloudAccount::remove().value(), false);

    const std::string device = CloudAccount::deviceID();
    EXPECT_EQ(device.size(), 36u);
    EXPECT_EQ(CloudAccount::deviceID(), device);
}

}  // namespace
}  // namespace tamsel::platform
