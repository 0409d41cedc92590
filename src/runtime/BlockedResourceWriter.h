#pragma once

#include "runtime/BlockedResource.h"
#include "runtime/BlockedResourceDatabase.h"
#include "runtime/StoreError.h"

#include "platform/DispatchQueue.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace tamsel::runtime {

// Write batching for the blocked-resource store (group commit). The first
// record handed to insert() after a commit opens a short window; the writer
// queue then commits everything that arrived meanwhile in one transaction, so
// that a burst of reports costs a few transactions rather than one each, and
// the threads that report are not woken once per record. A batch that finds
// the file damaged is written again into the fresh store that takes its place.
class BlockedResourceWriter {
public:
    using Completion = std::function<void(const std::optional<StoreError>& error)>;

    // How long the first record of a batch waits for others to join it, and
    // how many records end the wait early.
    static constexpr std::chrono::milliseconds groupCommitWindow{2};
    static constexpr std::size_t groupCommitRecords = 4096;

    explicit BlockedResourceWriter(BlockedResourceDatabase& database,
                                   std::chrono::milliseconds window = groupCommitWindow);
    // Waits for the records handed over so far to be written.
    ~BlockedResourceWriter();

    // `completion` runs on the writer queue once the records are committed or have failed.
    void insert(std::vector<BlockedResource> records, Completion completion);

    // When records were handed over since the last call: runs `settled` on the
    // writer queue once they are written, with the last failure among them.
    // Otherwise answers false and runs nothing.
    using SaveCompletion = std::function<void(const std::optional<StoreError>& failure)>;
    bool whenWrittenSinceLastSave(SaveCompletion settled);

    // Blocks until every record handed over before the call is committed or has failed.
    void waitUntilWritten();

private:
    struct PendingInsert {
        std::vector<BlockedResource> records;
        Completion completion;
    };

    // Runs on the writer queue: waits out the window, then commits what is pending.
    void flushPending();
    void writeBatch(BlockedResourceDatabase& database, const std::vector<PendingInsert>& batch);

    BlockedResourceDatabase& database_;
    const std::chrono::milliseconds window_;
    std::mutex pendingMutex_;
    // Told when the pending records reach groupCommitRecords, or someone waits.
    std::condition_variable batchFull_;
    std::vector<PendingInsert> pending_;
    std::size_t pendingRecords_ = 0;
    // Someone waits for the pending records: the window closes at once.
    bool hurried_ = false;
    std::size_t recordsSinceSave_ = 0;
    std::optional<StoreError> failureSinceSave_;
    // The completions of the save queued last, while it has not run and no
    // flush has been queued after it; later saves join it.
    std::shared_ptr<std::vector<SaveCompletion>> openSave_;
    // Last, so that it is destroyed first: the writes still queued finish
    // while everything they use is there.
    platform::DispatchQueue queue_;
};

}  // namespace tamsel::runtime
