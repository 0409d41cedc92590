#include "storage/RebuildSettler.h"

#include "platform/Log.h"

#include <utility>

namespace tamsel::storage {

namespace {

const platform::SystemLogger logger("Files");

}  // namespace

RebuildSettler::RebuildSettler() : queue_("Safari JSON flush", platform::DispatchQueue::Kind::serial,
                                          platform::QualityOfService::utility) {}

RebuildSettler::~RebuildSettler() { waitUntilIdle(); }

void RebuildSettler::settleWhenFlushed(platform::UnflushedFile file, model::ExtensionType extension,
                                       std::optional<RebuildLedger::Ticket> ticket) {
    std::lock_guard lock(mutex_);
    pending_.push_back({std::move(file), extension, ticket});
    if (std::exchange(draining_, true)) return;
    queue_.async([this] { drain(); });
}

void RebuildSettler::drain() {
    for (;;) {
        std::vector<Pending> batch;
        {
            std::lock_guard lock(mutex_);
            if (pending_.empty()) {
                draining_ = false;
                idle_.notify_all();
                return;
            }
            batch.swap(pending_);
        }
        std::vector<platform::UnflushedFile> files;
        files.reserve(batch.size());
        std::vector<std::pair<model::ExtensionType, RebuildLedger::Ticket>> debts;
        for (Pending& pending : batch) {
            files.push_back(std::move(pending.file));
            if (pending.ticket) debts.emplace_back(pending.extension, *pending.ticket);
        }
        if (const std::error_code error = platform::flushFiles(files)) {
            // Which file failed is not known; every debt of the batch stays.
            logger.error("Can't put Safari JSON files on disk: %s", error.message().c_str());
            continue;
        }
        RebuildLedger::settle(debts);
    }
}

bool RebuildSettler::isIdle() const {
    std::lock_guard lock(mutex_);
    return !draining_;
}

void RebuildSettler::waitUntilIdle() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return !draining_; });
}

}  // namespace tamsel::storage
