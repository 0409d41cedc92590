#pragma once

#include "platform/Clock.h"
#include "runtime/StoreError.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <sqlite3.h>

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace tamsel::runtime {

// The connection to the blocked-resource database file, shared by the
// store's writer and its queries: one SQLite database in WAL mode that every
// process of the product opens at once, with a generous busy timeout.
//
// A damaged file (not a database, truncated, or a database of another
// program) is moved aside as "<name>.corrupt-<UTC timestamp>[-n]" with its
// -wal and -shm companions, with an error line, and an empty store takes its
// place; this happens when the store opens and whenever a later operation
// finds the damage. When another process has done that first, this one
// follows the path to the new file rather than writing into the moved one.
class BlockedResourceDatabase {
public:
    // `clock` stamps the names of moved-aside files.
    BlockedResourceDatabase(std::filesystem::path url, const platform::Clock& clock);

    const std::filesystem::path& url() const { return url_; }
    // The printed form of the store description, as in the loading line.
    std::string description() const;

    // Opens the file, writing "Core Data stack has been initialized with
    // description: …" or "Unresolved error …", and recovers from damage.
    void load();
    bool isLoaded() const;

    // Runs `work(connection)` under the connection's lock, on the file now at
    // the path. A failure (thrown SQLite::Exception or returned StoreError)
    // that shows damage is recovered from before the error is handed back;
    // with no connection the work does not run.
    template <class Work>
    std::optional<StoreError> use(Work&& work) {
        std::lock_guard lock(mutex_);
        followPathLocked();
        if (!connection_) return StoreError::of(SQLITE_CANTOPEN, "The blocked-resources store is not loaded", url_);
        std::optional<StoreError> failure;
        try {
            work(*this);
        } catch (const SQLite::Exception& exception) {
            failure = StoreError::of(exception, url_);
        }
        releaseStatementsLocked();
        if (failure && failure->isDamage()) recoverLocked(*failure);
        return failure;
    }

    // For the work handed to use(): the open connection and its prepared
    // statements, kept until the connection closes.
    SQLite::Database& connection() { return *connection_; }
    SQLite::Statement& statement(const char* sql);

private:
    // A statement stopped before its last row keeps its read transaction, and
    // with it an old snapshot of the file; every use ends with all reset.
    void releaseStatementsLocked();
    std::optional<StoreError> openLocked();
    void reopenLocked();
    void closeLocked();
    void followPathLocked();
    void recoverLocked(const StoreError& damage);
    std::optional<std::filesystem::path> moveAsideLocked();

    std::filesystem::path url_;
    const platform::Clock& clock_;
    mutable std::mutex mutex_;
    std::unique_ptr<SQLite::Database> connection_;
    std::map<const char*, std::unique_ptr<SQLite::Statement>> statements_;
    std::optional<std::pair<dev_t, ino_t>> openedFile_;
};

}  // namespace tamsel::runtime
