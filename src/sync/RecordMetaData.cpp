#include "sync/RecordMetaData.h"

#include "platform/Log.h"
#include "sync/RecordMapping.h"
#include "sync/SyncStateLock.h"

namespace tamsel::sync {

using platform::Dictionary;
using platform::Value;

RecordMetaData::RecordMetaData(std::shared_ptr<platform::Store> defaults, std::filesystem::path lockFile)
    : defaults_(std::move(defaults)), lockFile_(std::move(lockFile)) {}

RecordMetaData::Snapshot RecordMetaData::snapshot() const {
    return {defaults_->dictionary(key).value_or(Dictionary{}),
            defaults_->dictionary(serverFieldsKey).value_or(Dictionary{})};
}

std::size_t RecordMetaData::count() const { return defaults_->dictionary(key).value_or(Dictionary{}).size(); }

std::shared_ptr<platform::CKRecord> RecordMetaData::Snapshot::record(const std::string& recordName,
                                                                     std::string_view recordType,
                                                                     const Dictionary& fields) const {
    const platform::CKRecordID id{recordName, rulesZoneID()};
    std::shared_ptr<platform::CKRecord> record;
    if (const auto stored = systemFields.find(recordName); stored != systemFields.end()) {
        if (const auto* bytes = stored->second.getIf<platform::Data>()) {
            auto decoded = platform::CKRecord::decodeSystemFields(
                std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
            if (decoded && decoded->recordID() == id && decoded->recordType() == recordType) {
                record = std::make_shared<platform::CKRecord>(std::move(*decoded));
            }
        }
    }
    if (record) {
        if (const auto known = serverFields.find(recordName); known != serverFields.end()) {
            if (const auto* ancestor = known->second.getIf<Dictionary>()) {
                for (auto& [field, value] : recordFields(*ancestor)) record->set(field, std::move(value));
            }
        }
        record->markSynchronised();
    } else {
        record = std::make_shared<platform::CKRecord>(std::string(recordType), id);
    }
    const platform::CKRecordFields wanted = recordFields(fields);
    for (const auto& key : record->allKeys()) {
        if (!wanted.contains(key)) record->set(key, std::nullopt);
    }
    for (const auto& [field, value] : wanted) record->set(field, value);
    return record;
}

void RecordMetaData::store(const std::vector<std::shared_ptr<const platform::CKRecord>>& records) {
    if (records.empty()) return;
    SyncStateLock lock(lockFile_);
    Dictionary system = defaults_->dictionary(key).value_or(Dictionary{});
    Dictionary server = defaults_->dictionary(serverFieldsKey).value_or(Dictionary{});
    for (const auto& record : records) {
        const std::string& name = record->recordID().recordName;
        const std::string bytes = record->encodeSystemFields();
        platform::consolePrint("♻️ iCloud Sync: Changetag for " + name + ": " + record->recordChangeTag().value_or("none"));
        system.insert_or_assign(name, Value(platform::Data(bytes.begin(), bytes.end())));
        server.insert_or_assign(name, Value(dictionaryFields(record->fields())));
    }
    defaults_->set(Value(std::move(system)), key);
    defaults_->set(Value(std::move(server)), serverFieldsKey);
}

void RecordMetaData::remove(const std::vector<std::string>& recordNames) {
    if (recordNames.empty()) return;
    SyncStateLock lock(lockFile_);
    Dictionary system = defaults_->dictionary(key).value_or(Dictionary{});
    Dictionary server = defaults_->dictionary(serverFieldsKey).value_or(Dictionary{});
    std::size_t removed = 0;
    for (const auto& name : recordNames) removed += system.erase(name) + server.erase(name);
    if (removed == 0) return;
    defaults_->set(Value(std::move(system)), key);
    defaults_->set(Value(std::move(server)), serverFieldsKey);
}

}  // namespace tamsel::sync
