#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/CKRecord.h"
#include "platform/Store.h"
#include "platform/Value.h"

// What this device last knew of each record on the server, in the standard
// defaults:
//
//   "RecordMetaData"      record name → the record's archived system fields
//                         (its change tag above all), so that the next save
//                         of the record says which version it was based on;
//   "RecordServerFields"  record name → the record's fields as the server
//                         had them in that version, the ancestor a conflict
//                         is merged against (the system fields carry no
//                         field values).
//
// Both are written under the sync state's lock, for many records at once.
namespace tamsel::sync {

class RecordMetaData {
public:
    static inline const std::string key = "RecordMetaData";
    static inline const std::string serverFieldsKey = "RecordServerFields";

    // The two dictionaries read at one moment.
    struct Snapshot {
        platform::Dictionary systemFields;
        platform::Dictionary serverFields;

        // A record to save under `recordName`: rebuilt from its stored system
        // fields (carrying the last known change tag, with the server's
        // fields as its ancestor) or new, then with every field of `fields`
        // set and every field the server had but `fields` lacks removed.
        std::shared_ptr<platform::CKRecord> record(const std::string& recordName, std::string_view recordType,
                                                   const platform::Dictionary& fields) const;
    };

    RecordMetaData(std::shared_ptr<platform::Store> defaults, std::filesystem::path lockFile);

    Snapshot snapshot() const;

    // Stores each record's system fields and fields, as the server has them
    // now; writes "♻️ iCloud Sync: Changetag for NAME: TAG" for each.
    void store(const std::vector<std::shared_ptr<const platform::CKRecord>>& records);
    void remove(const std::vector<std::string>& recordNames);

    std::size_t count() const;

private:
    std::shared_ptr<platform::Store> defaults_;
    std::filesystem::path lockFile_;
};

}  // namespace tamsel::sync
