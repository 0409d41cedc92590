#pragma once

#include "model/ExtensionType.h"
#include "platform/Clock.h"
#include "runtime/BlockedResource.h"
#include "runtime/StoreError.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tamsel::runtime {

// The persistent store of blocked-resource records: one SQLite database,
// "blocked-resources-data.sqlite" in the app-group container, shared by every
// process of the product. It joins the parts that do the work:
// BlockedResourceDatabase (the connection, and moving a damaged file aside),
// BlockedResourceSchema (tables and upgrades), BlockedResourceWriter (write
// batching) and BlockedResourceQueries (the counts and reads).
//
// Writes are asynchronous and batched. Reads (the counts and the first date)
// are synchronous and safe from any thread. A store of an older schema
// version is upgraded in place; one of a newer version is left alone and not
// used. When no store can be opened, writes fail and reads answer nothing.
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
