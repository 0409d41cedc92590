#include "sync/RecordMerge.h"

namespace tamsel::sync {

MergeResult mergeRecords(const platform::CKRecord& server, const platform::CKRecord& client,
                         const platform::CKRecord& ancestor) {
    auto merged = std::make_shared<platform::CKRecord>(server);
    merged->markSynchronised();
    if (!client.recordChangeTag() && ancestor.fields().empty() && server.fields() == client.fields()) {
        return {MergeResult::Outcome::fullDuplicate, merged};
    }
    for (const auto& [field, value] : client.fields()) {
        const platform::CKRecordValue* base = ancestor.object(field);
        if (base && *base == value) continue;  // not changed here: the server's value stays
        merged->set(field, value);
    }
    // A field the local side removed since its base version goes too.
    for (const auto& [field, value] : ancestor.fields()) {
        if (!client.object(field) && server.object(field) && *server.object(field) == value) {
            merged->set(field, std::nullopt);
        }
    }
    return {MergeResult::Outcome::merged, merged};
}

}  // namespace tamsel::sync
