#pragma once

#include "runtime/BlockedResource.h"
#include "runtime/BlockedResourceDatabase.h"
#include "runtime/StoreError.h"

#include "platform/DispatchQueue.h"

#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

namespace tamsel::runtime {

// Write batching for the blocked-resource store. Records handed to insert()
// wait on the writer queue, which commits everything that has arrived by then
// in one transaction, so that a burst of reports costs a few transactions
// rather than one each. A batch that finds the file damaged is written again
// into the fresh store that takes its place.
class BlockedResourceWriter {
public:
    using Completion = std::function<void(const std::optional<StoreError>& error)>;

    explicit BlockedResourceWriter(BlockedResourceDatabase& database);
    // Waits for the records handed over so far to be written.
    ~BlockedResourceWriter();

    // `completion` runs on the writer queue once the records are committed or have failed.
    void insert(std::vector<BlockedResource> records, Completion completion);

    // When records were handed over since the last call: runs `settled` on the
    // writer queue once they are written, with the last failure among them.
    // Otherwise answers false and runs nothing.
    bool whenWrittenSinceLastSave(std::function<void(const std::optional<StoreError>& failure)> settled);

    // Blocks until every record handed over before the call is committed or has failed.
    void waitUntilWritten();

private:
    struct PendingInsert {
        std::vector<BlockedResource> records;
        Completion completion;
    };

    void flushPending();
    void writeBatch(BlockedResourceDatabase& database, const std::vector<PendingInsert>& batch);

    BlockedResourceDatabase& database_;
    std::mutex pendingMutex_;
    std::vector<PendingInsert> pending_;
    std::size_t recordsSinceSave_ = 0;
    std::optional<StoreError> failureSinceSave_;
    // Last, so that it is destroyed first: the writes still queued finish
    // while everything they use is there.
    platform::DispatchQueue queue_;
};

}  // namespace tamsel::runtime
