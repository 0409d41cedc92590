#include "runtime/BlockedResourceWriter.h"

#include "runtime/BlockedResourceSchema.h"

#include "platform/BuildConfig.h"
#include "platform/UUID.h"

#include <SQLiteCpp/Transaction.h>

#include <string>
#include <utility>

namespace tamsel::runtime {

namespace {

constexpr const char* insertSQL =
    "INSERT INTO BlockedResource(id, date, extensionID, blockedURL, pageURL, pageDomain) "
    "VALUES (?1, ?2, ?3, ?4, ?5, ?6)";

void bindText(SQLite::Statement& statement, int index, const std::optional<std::string>& text) {
    if (text) statement.bindNoCopy(index, *text);
    else statement.bind(index);
}

}  // namespace

BlockedResourceWriter::BlockedResourceWriter(BlockedResourceDatabase& database, std::chrono::milliseconds window)
    : database_(database), window_(window), queue_(std::string(build::baseIdentifier) + ".core-data-store.writer") {}

BlockedResourceWriter::~BlockedResourceWriter() { waitUntilWritten(); }

void BlockedResourceWriter::insert(std::vector<BlockedResource> records, Completion completion) {
    // A flush is queued whenever pending records exist: the one queued when
    // the first of them arrived, which has not taken them yet. Work is queued
    // under the lock, so the queue's order is the order of these changes, and
    // saves and waits queued after this call run after the records' commit.
    bool full = false;
    {
        std::lock_guard lock(pendingMutex_);
        const bool first = pending_.empty();
        recordsSinceSave_ += records.size();
        pendingRecords_ += records.size();
        full = pendingRecords_ >= groupCommitRecords;
        pending_.push_back({std::move(records), std::move(completion)});
        if (first) {
            queue_.async([this] { flushPending(); });
            // A save queued before this flush must not answer for these records.
            openSave_.reset();
        }
    }
    if (full) batchFull_.notify_one();
}

bool BlockedResourceWriter::whenWrittenSinceLastSave(SaveCompletion settled) {
    std::lock_guard lock(pendingMutex_);
    if (std::exchange(recordsSinceSave_, 0) == 0) return false;
    // A burst asks for a save after every report; those that find a save
    // still queued with no flush behind it join it instead of queuing one each.
    if (openSave_) {
        openSave_->push_back(std::move(settled));
        return true;
    }
    auto save = std::make_shared<std::vector<SaveCompletion>>();
    save->push_back(std::move(settled));
    openSave_ = save;
    // The records since the last save are committed (or failed) by the time
    // this runs: their flush was queued before it.
    queue_.async([this, save] {
        std::optional<StoreError> failure;
        std::vector<SaveCompletion> waiting;
        {
            std::lock_guard lock(pendingMutex_);
            if (openSave_ == save) openSave_.reset();
            waiting.swap(*save);
            failure = std::exchange(failureSinceSave_, std::nullopt);
        }
        for (auto& completion : waiting) completion(failure);
    });
    return true;
}

void BlockedResourceWriter::waitUntilWritten() {
    // Whoever waits gets the pending records committed without the window.
    {
        std::lock_guard lock(pendingMutex_);
        hurried_ = true;
    }
    batchFull_.notify_one();
    queue_.sync([] {});
}

void BlockedResourceWriter::flushPending() {
    std::vector<PendingInsert> batch;
    {
        std::unique_lock lock(pendingMutex_);
        if (!pending_.empty() && window_.count() > 0) {
            batchFull_.wait_for(lock, window_, [this] { return hurried_ || pendingRecords_ >= groupCommitRecords; });
        }
        hurried_ = false;
        batch.swap(pending_);
        pendingRecords_ = 0;
    }
    if (batch.empty()) return;
    auto write = [&](BlockedResourceDatabase& open) { writeBatch(open, batch); };
    auto failure = database_.use(write);
    // The damaged file has been moved aside by now; the batch goes to the new one.
    if (failure && failure->isDamage()) failure = database_.use(write);
    if (failure) {
        std::lock_guard lock(pendingMutex_);
        failureSinceSave_ = failure;
    }
    for (auto& insert : batch) {
        if (insert.completion) insert.completion(failure);
    }
}

void BlockedResourceWriter::writeBatch(BlockedResourceDatabase& database, const std::vector<PendingInsert>& batch) {
    SQLite::Transaction transaction(database.connection(), SQLite::TransactionBehavior::IMMEDIATE);
    SQLite::Statement& statement = database.statement(insertSQL);
    for (const auto& insert : batch) {
        for (const auto& record : insert.records) {
            statement.reset();
            statement.clearBindings();
            // UUIDs are kept as their 16 bytes; anything else is kept as text.
            const auto uuid = record.id ? platform::parseUUID(*record.id) : std::nullopt;
            if (uuid) statement.bind(1, uuid->data(), static_cast<int>(uuid->size()));
            else bindText(statement, 1, record.id);
            if (record.date) statement.bind(2, static_cast<std::int64_t>(record.date->time_since_epoch().count()));
            bindText(statement, 3, record.extensionID);
            bindText(statement, 4, record.blockedURL);
            bindText(statement, 5, record.pageURL);
            // The page's host is not stored again: the column stays NULL.
            switch (BlockedResourceSchema::storedPageDomain(record.pageURL, record.pageDomain).kind) {
                case BlockedResourceSchema::StoredPageDomain::Kind::derived: statement.bind(6); break;
                case BlockedResourceSchema::StoredPageDomain::Kind::absent:
                    statement.bind(6, static_cast<const void*>(""), 0);
                    break;
                case BlockedResourceSchema::StoredPageDomain::Kind::text: statement.bindNoCopy(6, *record.pageDomain); break;
            }
            statement.exec();
        }
    }
    transaction.commit();
}

}  // namespace tamsel::runtime
