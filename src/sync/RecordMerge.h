#pragma once

#include <memory>

#include "platform/CKRecord.h"

// The three-way merge of a record that changed on the server since this
// device last saw it: the server's version (S), what this device tried to
// save (C) and the version C was based on (A).
namespace tamsel::sync {

struct MergeResult {
    enum class Outcome {
        // C is S minus the system fields: nothing to push, nothing to apply.
        fullDuplicate,
        // `record` is S with every field that the local side changed taken
        // from C: local changes win, field by field.
        merged,
    };
    Outcome outcome;
    std::shared_ptr<platform::CKRecord> record;
};

// Full duplicate: C carries no change tag, A has no fields, and S and C hold
// the same fields with equal values. Otherwise S is the base, and each field
// of C that A does not hold with C's value (the local side changed it) is
// written into S; a field that C removed since A is removed from S.
MergeResult mergeRecords(const platform::CKRecord& server, const platform::CKRecord& client,
                         const platform::CKRecord& ancestor);

}  // namespace tamsel::sync
