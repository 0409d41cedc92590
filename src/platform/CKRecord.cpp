#include "platform/CKRecord.h"

#include <fmt/format.h>

#include "platform/Value.h"
#include "platform/ValueCoding.h"

namespace tamsel::platform {
namespace {

constexpr std::string_view systemFieldsKind = "CKRecordSystemFields/1";
constexpr std::string_view changeTokenKind = "CKServerChangeToken/1";

std::optional<std::string> stringIn(const Dictionary& dictionary, const std::string& key) {
    auto it = dictionary.find(key);
    if (it == dictionary.end()) return std::nullopt;
    return it->second.asString();
}

std::optional<std::int64_t> integerIn(const Dictionary& dictionary, const std::string& key) {
    auto it = dictionary.find(key);
    if (it == dictionary.end()) return std::nullopt;
    return it->second.asInteger();
}

}  // namespace

CKRecord::CKRecord(std::string recordType, CKRecordID recordID)
    : recordID_(std::move(recordID)), recordType_(std::move(recordType)) {}

const CKRecordValue* CKRecord::object(const std::string& key) const {
    auto it = fields_.find(key);
    return it == fields_.end() ? nullptr : &it->second;
}

void CKRecord::set(const std::string& key, std::optional<CKRecordValue> value) {
    if (value) {
        fields_.insert_or_assign(key, std::move(*value));
    } else {
        fields_.erase(key);
    }
    changedKeys_.insert(key);
}

std::vector<std::string> CKRecord::allKeys() const {
    std::vector<std::string> keys;
    for (const auto& [key, value] : fields_) keys.push_back(key);
    return keys;
}

std::string CKRecord::encodeSystemFields() const {
    Dictionary archive;
    archive.emplace("kind", std::string(systemFieldsKind));
    archive.emplace("recordName", recordID_.recordName);
    archive.emplace("zoneName", recordID_.zoneID.zoneName);
    archive.emplace("ownerName", recordID_.zoneID.ownerName);
    archive.emplace("recordType", recordType_);
    if (recordChangeTag_) archive.emplace("recordChangeTag", *recordChangeTag_);
    if (creationDate_) archive.emplace("created", creationDate_->milliseconds);
    if (modificationDate_) archive.emplace("modified", modificationDate_->milliseconds);
    archive.emplace("creator", creatorUserRecordName_);
    archive.emplace("modifier", lastModifiedUserRecordName_);
    return encodeValue(Value(std::move(archive)));
}

std::expected<CKRecord, std::string> CKRecord::decodeSystemFields(std::string_view bytes) {
    auto value = decodeValue(bytes);
    if (!value) return std::unexpected("the system fields cannot be read: " + value.error());
    const Dictionary* archive = value->getIf<Dictionary>();
    if (!archive || stringIn(*archive, "kind") != std::string(systemFieldsKind)) {
        return std::unexpected(std::string("the bytes are not archived system fields"));
    }
    auto name = stringIn(*archive, "recordName");
    auto zone = stringIn(*archive, "zoneName");
    auto owner = stringIn(*archive, "ownerName");
    auto type = stringIn(*archive, "recordType");
    if (!name || !zone || !owner || !type) return std::unexpected(std::string("the system fields are incomplete"));
    CKRecord record(*type, CKRecordID{*name, CKRecordZoneID{*zone, *owner}});
    record.recordChangeTag_ = stringIn(*archive, "recordChangeTag");
    if (auto created = integerIn(*archive, "created")) record.creationDate_ = CKTimestamp{*created};
    if (auto modified = integerIn(*archive, "modified")) record.modificationDate_ = CKTimestamp{*modified};
    record.creatorUserRecordName_ = stringIn(*archive, "creator").value_or("");
    record.lastModifiedUserRecordName_ = stringIn(*archive, "modifier").value_or("");
    return record;
}

std::string describe(const CKRecordValue& value) {
    if (const auto* text = std::get_if<std::string>(&value)) return fmt::format("\"{}\"", *text);
    if (const auto* integer = std::get_if<std::int64_t>(&value)) return std::to_string(*integer);
    if (const auto* real = std::get_if<double>(&value)) return fmt::format("{}", *real);
    if (const auto* timestamp = std::get_if<CKTimestamp>(&value)) return fmt::format("@{}ms", timestamp->milliseconds);
    if (const auto* reference = std::get_if<CKReference>(&value)) {
        return fmt::format("<CKReference {}>", reference->recordID.recordName);
    }
    if (const auto* list = std::get_if<std::vector<std::string>>(&value)) {
        std::string text = "(";
        for (std::size_t i = 0; i < list->size(); ++i) text += (i ? ", \"" : "\"") + (*list)[i] + "\"";
        return text + ")";
    }
    return fmt::format("<{} bytes>", std::get<CKBytes>(value).bytes.size());
}

std::string CKRecord::description() const {
    std::string text = fmt::format("<CKRecord recordType={} recordID={}:({}:{}) recordChangeTag={} fields={{", recordType_,
                                   recordID_.recordName, recordID_.zoneID.zoneName, recordID_.zoneID.ownerName,
                                   recordChangeTag_.value_or("none"));
    bool first = true;
    for (const auto& [key, value] : fields_) {
        text += (first ? "" : ", ") + key + "=" + describe(value);
        first = false;
    }
    return text + "}>";
}

void CKRecord::applyServerState(const CKRecord& server) {
    recordType_ = server.recordType_;
    fields_ = server.fields_;
    recordChangeTag_ = server.recordChangeTag_;
    creationDate_ = server.creationDate_;
    modificationDate_ = server.modificationDate_;
    creatorUserRecordName_ = server.creatorUserRecordName_;
    lastModifiedUserRecordName_ = server.lastModifiedUserRecordName_;
    markSynchronised();
}

void CKRecord::setSystemFields(std::optional<std::string> changeTag, std::optional<CKTimestamp> created,
                               std::optional<CKTimestamp> modified, std::string creator, std::string modifier) {
    recordChangeTag_ = std::move(changeTag);
    creationDate_ = created;
    modificationDate_ = modified;
    creatorUserRecordName_ = std::move(creator);
    lastModifiedUserRecordName_ = std::move(modifier);
}

void CKRecord::markSynchronised() {
    changedKeys_.clear();
    serverFields_ = fields_;
}

std::string CKServerChangeToken::archive() const {
    Dictionary archive;
    archive.emplace("kind", std::string(changeTokenKind));
    archive.emplace("token", opaque_);
    return encodeValue(Value(std::move(archive)));
}

std::expected<CKServerChangeToken, std::string> CKServerChangeToken::unarchive(std::string_view bytes) {
    auto value = decodeValue(bytes);
    if (!value) return std::unexpected("the change token cannot be read: " + value.error());
    const Dictionary* archive = value->getIf<Dictionary>();
    if (!archive || stringIn(*archive, "kind") != std::string(changeTokenKind)) {
        return std::unexpected(std::string("the bytes are not an archived change token"));
    }
    auto token = stringIn(*archive, "token");
    if (!token) return std::unexpected(std::string("the archived change token is empty"));
    return CKServerChangeToken(*token);
}

std::string_view rawValue(CKAccountStatus status) {
    switch (status) {
        case CKAccountStatus::couldNotDetermine: return "could not determine";
        case CKAccountStatus::available: return "available";
        case CKAccountStatus::restricted: return "restricted";
        case CKAccountStatus::noAccount: return "no account";
        case CKAccountStatus::temporarilyUnavailable: return "temporarily unavailable";
    }
    return "could not determine";
}

}  // namespace tamsel::platform
