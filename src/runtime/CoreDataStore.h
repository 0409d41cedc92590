#pragma once

#include "model/ExtensionType.h"
#include "platform/Clock.h"
#include "runtime/BlockedResource.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tamsel::runtime {

// Why a store operation failed.
struct StoreError {
    int code = 0;             // the SQLite (extended) result code, 0 when not from SQLite
    std::string description;  // one line, for people
    std::string userInfo;     // printed details: code, database path

    bool operator==(const StoreError&) const = default;
};

// The persistent store of blocked-resource records: one SQLite database in
// WAL mode, "blocked-resources-data.sqlite" in the app-group container, shared
// by every process of the product. Processes write at once through SQLite's
// locking (with a generous busy timeout), so none loses records.
//
// Writes are asynchronous: records handed to insertRecord() or insert() wait
// on the store's writer queue, which commits everything that has arrived by
// then in one transaction, so a burst of reports costs a few transactions
// rather than one each.
//
// Reads (the counts and the first date) are synchronous and safe from any
// thread. Counts never load records: each call is one grouped count query,
// served by daily and hourly count tables that the database keeps in step
// with the records (a trigger in the inserting transaction), plus the records
// of the partial hours at the two ends of the interval.
//
// A damaged database file (not a database, truncated, or a database of some
// other schema) is moved aside as "<name>.corrupt-<UTC timestamp>", with an
// error line, and an empty store takes its place; this happens when the store
// opens and whenever a later operation finds the damage. A store of an older
// schema version is upgraded in place; one of a newer version is left alone
// and not used. When no store can be opened, writes fail and reads answer
// nothing.
class CoreDataStore {
public:
    static constexpr std::string_view modelName = "Model";
    static constexpr std::string_view databaseName = "blocked-resources-data";
    static constexpr std::string_view storeFileName = "blocked-resources-data.sqlite";  // databaseName + ".sqlite"

    using InsertCompletion = std::function<void(const std::optional<StoreError>& error)>;

    // Opens (creating when needed) the store in `directory`; `clock` stamps new records.
    explicit CoreDataStore(std::filesystem::path directory,
                           const platform::Clock& clock = platform::Clock::system());
    // Waits for the records handed over so far to be written.
    ~CoreDataStore();

    CoreDataStore(const CoreDataStore&) = delete;
    CoreDataStore& operator=(const CoreDataStore&) = delete;

    // The process's store, in the app-group container, created on first use.
    // Without a group container the process stops ("Shared file container
    // could not be created.").
    static CoreDataStore& shared();

    const std::filesystem::path& storeURL() const;
    // Whether a database is open (false only when not even an empty one could be made).
    bool isLoaded() const;
    // The printed form of the store description, as in the loading line.
    std::string storeDescription() const;

    // Inserting a record from a background context: a record with a new UUID,
    // the clock's now, the type's raw value and the page URL's host. When it
    // has been committed (or has failed) the store writes "Saved History
    // record into Core Data background context" (or "Fail save in
    // backgroundContext: <error>") to standard output, then calls `completion`
    // on the writer queue.
    void insertRecord(std::string pageURL, std::string blockedURL, model::ExtensionType type,
                      InsertCompletion completion = {});

    // Inserts finished records as they are, in one transaction, without log lines.
    void insert(std::vector<BlockedResource> records, InsertCompletion completion = {});

    // Saving the main context: when records were inserted since the last save,
    // waits (off the caller's thread) until they are committed and writes
    // "Saved History Core Data", or "Unresolved error <error> while saving
    // Core Data context: <details>" when any of them failed. `completion` runs
    // once that is settled, on the writer queue, or at once when there was
    // nothing to save.
    void saveContext(std::function<void()> completion = {});

    // Blocks until every record handed over before the call is committed or
    // has failed. Not to be called from an insert completion.
    void waitUntilWritten();

    // Counts per extension of the records with start <= date < end; of every
    // record when either bound is absent. Absent on failure (logged).
    std::optional<ExtensionCounts> sumBlockedResourcesPerExtension(std::optional<platform::Date> start,
                                                                   std::optional<platform::Date> end) const;

    // The date of the oldest record; absent when there is none.
    std::optional<platform::Date> firstBlockedResourceDate() const;

    // The records stored for the page URL, oldest first. Absent on failure.
    std::optional<std::vector<BlockedResource>> blockedResources(std::string_view pageURL) const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace tamsel::runtime
