#pragma once

#include "model/ExtensionType.h"
#include "platform/DispatchQueue.h"
#include "platform/Files.h"
#include "storage/RebuildLedger.h"

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>
#include <vector>

// Settles rebuild debts once the Safari JSON files that pay them are on disk.
//
// A rebuilt file is put in place whole at once and Safari reloads it from
// there at once; waiting for the disk before the reload would hold up the
// user for nothing a reader could see. The file's debt in the ledger is kept
// until its bytes and its name are down, so a power loss in between leaves
// the debt on record and the next start rebuilds the file. Files handed over
// together are flushed together: their folder once, the ledger once.
//
// Thread-safe. Destruction waits for what was handed over.
namespace tamsel::storage {

class RebuildSettler {
public:
    RebuildSettler();
    ~RebuildSettler();
    RebuildSettler(const RebuildSettler&) = delete;
    RebuildSettler& operator=(const RebuildSettler&) = delete;

    // Flushes `file` in the background, then clears the extension's debt if
    // it is still `ticket` (nothing to clear without one). A file that fails
    // to flush leaves its debt.
    void settleWhenFlushed(platform::UnflushedFile file, model::ExtensionType extension,
                           std::optional<RebuildLedger::Ticket> ticket);

    // Whether nothing handed over is still waiting for the disk.
    bool isIdle() const;
    void waitUntilIdle();

private:
    struct Pending {
        platform::UnflushedFile file;
        model::ExtensionType extension;
        std::optional<RebuildLedger::Ticket> ticket;
    };

    void drain();

    mutable std::mutex mutex_;
    std::condition_variable idle_;
    std::vector<Pending> pending_;
    bool draining_ = false;
    platform::DispatchQueue queue_;
};

}  // namespace tamsel::storage
