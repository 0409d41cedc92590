#include "runtime/BlockedResourceDatabase.h"

#include "platform/Log.h"
#include "runtime/BlockedResourceSchema.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <chrono>

namespace tamsel::runtime {

namespace {

// Other processes of the product may hold the write lock for a burst of
// records; waiting this long loses nothing and never stalls in practice.
constexpr int busyTimeoutMilliseconds = 10'000;

platform::SystemLogger& logger() {
    static platform::SystemLogger instance("CoreData");
    return instance;
}

std::optional<std::pair<dev_t, ino_t>> fileIdentity(const std::filesystem::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    return std::pair{info.st_dev, info.st_ino};
}

}  // namespace

BlockedResourceDatabase::BlockedResourceDatabase(std::filesystem::path url, const platform::Clock& clock)
    : url_(std::move(url)), clock_(clock) {}

std::string BlockedResourceDatabase::description() const {
    return fmt::format("<StoreDescription> (type: SQLite, configuration: Model, url: file://{})", url_.string());
}

void BlockedResourceDatabase::load() {
    std::lock_guard lock(mutex_);
    auto failure = openLocked();
    if (!failure) {
        platform::consolePrint("Core Data stack has been initialized with description: " + description());
        return;
    }
    platform::consolePrint("Unresolved error " + failure->description + ", " + failure->userInfo);
    if (failure->isDamage()) recoverLocked(*failure);
}

bool BlockedResourceDatabase::isLoaded() const {
    std::lock_guard lock(mutex_);
    return connection_ != nullptr;
}

SQLite::Statement& BlockedResourceDatabase::statement(const char* sql) {
    auto& cached = statements_[sql];
    if (!cached) {
        cached = std::make_unique<SQLite::Statement>(*connection_, sql);
    } else {
        cached->reset();
        cached->clearBindings();
    }
    return *cached;
}

void BlockedResourceDatabase::releaseStatementsLocked() {
    for (auto& [sql, statement] : statements_) statement->tryReset();
}

std::optional<StoreError> BlockedResourceDatabase::openLocked() {
    std::error_code ignored;
    std::filesystem::create_directories(url_.parent_path(), ignored);
    try {
        connection_ = std::make_unique<SQLite::Database>(
            url_, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE | SQLite::OPEN_NOMUTEX, busyTimeoutMilliseconds);
    } catch (const SQLite::Exception& exception) {
        closeLocked();
        return StoreError::of(exception, url_);
    }
    sqlite3_extended_result_codes(connection_->getHandle(), 1);
    BlockedResourceSchema::registerFunctions(*connection_);
    openedFile_ = fileIdentity(url_);

    // The schema is checked before anything is written, so that a file of
    // some other program is moved aside exactly as it was found.
    auto failure = BlockedResourceSchema::prepare(*connection_, url_);
    if (!failure) {
        try {
            // A large batch leaves a large log behind; after the checkpoint
            // that empties it the log is cut back to the size checkpoints
            // keep it at anyway (1000 pages), rather than keeping its peak.
            connection_->exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; "
                              "PRAGMA journal_size_limit=4194304;");
        } catch (const SQLite::Exception& exception) {
            failure = StoreError::of(exception, url_);
        }
    }
    if (!failure) failure = BlockedResourceSchema::probe(*connection_, url_);
    if (failure) closeLocked();
    return failure;
}

void BlockedResourceDatabase::closeLocked() {
    statements_.clear();
    connection_.reset();
}

void BlockedResourceDatabase::reopenLocked() {
    closeLocked();
    if (auto failure = openLocked()) {
        platform::consolePrint("Unresolved error " + failure->description + ", " + failure->userInfo);
        return;
    }
    platform::consolePrint("Core Data stack has been initialized with description: " + description());
}

// When another process has found the file damaged, moved it aside and
// started a new store at the path, what this connection wrote to the old file
// would be lost to everyone; so before each use the connection follows the
// path to whatever file is there now.
void BlockedResourceDatabase::followPathLocked() {
    if (!connection_ || !openedFile_) return;
    if (fileIdentity(url_) == openedFile_) return;
    reopenLocked();
}

void BlockedResourceDatabase::recoverLocked(const StoreError& damage) {
    // Another process may have moved the damaged file aside already and
    // started a fresh store at the path; that one is left alone.
    const auto damaged = connection_ ? openedFile_ : std::nullopt;
    closeLocked();
    const auto current = fileIdentity(url_);
    const bool replacedMeanwhile = damaged && current && *current != *damaged;
    if (!replacedMeanwhile) {
        auto aside = moveAsideLocked();
        if (!aside) return;
        logger().error("The blocked-resources store %s is damaged (%s); moved it aside to %s and started an "
                       "empty store",
                       url_.c_str(), damage.description.c_str(), aside->c_str());
    }
    reopenLocked();
}

// Renames the store's files to "<name>.corrupt-<timestamp>[-n][-wal|-shm]".
std::optional<std::filesystem::path> BlockedResourceDatabase::moveAsideLocked() {
    // In UTC whatever the process's zone (fmt's chrono formatting of a
    // system-clock time would use the local zone).
    const auto now = std::chrono::floor<std::chrono::seconds>(clock_.now());
    const auto day = std::chrono::floor<std::chrono::days>(now);
    const std::chrono::year_month_day date{day};
    const std::chrono::hh_mm_ss time{now - day};
    const std::string stamp = fmt::format("{:04}{:02}{:02}T{:02}{:02}{:02}Z", static_cast<int>(date.year()),
                                          static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                                          time.hours().count(), time.minutes().count(), time.seconds().count());
    std::filesystem::path aside;
    std::error_code error;
    for (int attempt = 1;; ++attempt) {
        std::string name = url_.filename().string() + ".corrupt-" + stamp;
        if (attempt > 1) name += fmt::format("-{}", attempt);
        aside = url_.parent_path() / name;
        if (!std::filesystem::exists(aside, error)) break;
    }
    std::filesystem::rename(url_, aside, error);
    if (error) {
        logger().error("Could not move the damaged store %s aside: %s", url_.c_str(), error.message().c_str());
        return std::nullopt;
    }
    for (const char* suffix : {"-wal", "-shm"}) {
        const std::filesystem::path companion = url_.string() + suffix;
        if (std::filesystem::exists(companion, error)) {
            std::filesystem::rename(companion, aside.string() + suffix, error);
        }
    }
    return aside;
}

}  // namespace tamsel::runtime
