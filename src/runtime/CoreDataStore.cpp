#include "runtime/CoreDataStore.h"

#include "platform/BuildConfig.h"
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "runtime/URLHost.h"
#include "storage/StoreURL.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <mutex>
#include <random>
#include <utility>

namespace tamsel::runtime {

namespace {

using platform::Date;

constexpr std::int64_t nanosecondsPerHour = 3'600'000'000'000;
constexpr std::int64_t hoursPerDay = 24;
// "TMSL": marks the file as ours, so that a database of any other program
// left at our path is recognised as such and not mistaken for an old store.
constexpr std::int64_t applicationID = 0x544D534C;
constexpr std::int64_t schemaVersion = 2;
// Other processes of the product may hold the write lock for a burst of
// records; waiting this long loses nothing and never stalls in practice.
constexpr int busyTimeoutMilliseconds = 10'000;

// Dates are nanoseconds since 1970 UTC. Counts of an interval read whole UTC
// days from the daily table, the whole hours at either end from the hourly
// table, and only the records of partial hours one by one (through the date
// index), so that a year of history sums a few thousand rows, not millions.
// The trigger keeps both tables in step inside the inserting transaction, so
// readers always see records and counts agree, whichever process wrote them.
constexpr const char* recordsAndHourlyCountSQL = R"sql(
CREATE TABLE BlockedResource(
    id BLOB,
    date INTEGER,
    extensionID TEXT,
    blockedURL TEXT,
    pageURL TEXT,
    pageDomain TEXT
);
CREATE INDEX BlockedResourceByDate ON BlockedResource(date, extensionID);
CREATE TABLE BlockedResourceHourlyCount(
    hour INTEGER NOT NULL,
    extensionID TEXT NOT NULL,
    count INTEGER NOT NULL,
    PRIMARY KEY (hour, extensionID)
) WITHOUT ROWID;
)sql";

// The daily table and the trigger that keeps both count tables; the hour and
// the day of a date are floor divisions, right for dates before 1970 too.
constexpr const char* dailyCountSQL = R"sql(
CREATE TABLE BlockedResourceDailyCount(
    day INTEGER NOT NULL,
    extensionID TEXT NOT NULL,
    count INTEGER NOT NULL,
    PRIMARY KEY (day, extensionID)
) WITHOUT ROWID;
CREATE TRIGGER BlockedResourceCounting AFTER INSERT ON BlockedResource
WHEN NEW.date IS NOT NULL AND NEW.extensionID IS NOT NULL
BEGIN
    INSERT INTO BlockedResourceHourlyCount(hour, extensionID, count)
    VALUES ((NEW.date - (NEW.date % 3600000000000 + 3600000000000) % 3600000000000) / 3600000000000,
            NEW.extensionID, 1)
    ON CONFLICT(hour, extensionID) DO UPDATE SET count = count + 1;
    INSERT INTO BlockedResourceDailyCount(day, extensionID, count)
    VALUES ((NEW.date - (NEW.date % 86400000000000 + 86400000000000) % 86400000000000) / 86400000000000,
            NEW.extensionID, 1)
    ON CONFLICT(day, extensionID) DO UPDATE SET count = count + 1;
END;
)sql";

// Version 1 had no daily table: its trigger fed the hourly table alone, from
// which the daily counts follow.
constexpr const char* dropVersion1TriggerSQL = "DROP TRIGGER IF EXISTS BlockedResourceCounting;";
constexpr const char* fillDailyCountSQL = R"sql(
INSERT INTO BlockedResourceDailyCount(day, extensionID, count)
SELECT (hour - (hour % 24 + 24) % 24) / 24, extensionID, SUM(count)
FROM BlockedResourceHourlyCount GROUP BY 1, 2;
)sql";

constexpr const char* insertSQL =
    "INSERT INTO BlockedResource(id, date, extensionID, blockedURL, pageURL, pageDomain) "
    "VALUES (?1, ?2, ?3, ?4, ?5, ?6)";

// See IntervalParts for how an interval is cut into these five ranges.
constexpr const char* rangeCountSQL =
    "SELECT extensionID, SUM(n) FROM ("
    " SELECT extensionID, count AS n FROM BlockedResourceDailyCount WHERE day >= ?1 AND day < ?2"
    " UNION ALL"
    " SELECT extensionID, count AS n FROM BlockedResourceHourlyCount WHERE hour >= ?3 AND hour < ?4"
    " UNION ALL"
    " SELECT extensionID, count AS n FROM BlockedResourceHourlyCount WHERE hour >= ?5 AND hour < ?6"
    " UNION ALL"
    " SELECT extensionID, COUNT(*) AS n FROM BlockedResource WHERE date >= ?7 AND date < ?8 GROUP BY extensionID"
    " UNION ALL"
    " SELECT extensionID, COUNT(*) AS n FROM BlockedResource WHERE date >= ?9 AND date < ?10 GROUP BY extensionID"
    ") GROUP BY extensionID";

// Records without a date are in no count table but still count for all time.
constexpr const char* allTimeCountSQL =
    "SELECT extensionID, SUM(n) FROM ("
    " SELECT extensionID, count AS n FROM BlockedResourceDailyCount"
    " UNION ALL"
    " SELECT extensionID, COUNT(*) AS n FROM BlockedResource WHERE date IS NULL GROUP BY extensionID"
    ") GROUP BY extensionID";

constexpr const char* firstDateSQL =
    "SELECT date FROM BlockedResource WHERE date IS NOT NULL ORDER BY date LIMIT 1";

constexpr const char* pageRecordsSQL =
    "SELECT id, date, extensionID, blockedURL, pageURL, pageDomain FROM BlockedResource "
    "WHERE pageURL = ?1 ORDER BY rowid";

std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
    std::int64_t q = a / b;
    return (a % b != 0 && ((a < 0) != (b < 0))) ? q - 1 : q;
}

std::int64_t ceilDiv(std::int64_t a, std::int64_t b) {
    return -floorDiv(-a, b);
}

std::string stampSchemaSQL() {
    return fmt::format("PRAGMA application_id = {}; PRAGMA user_version = {};", applicationID, schemaVersion);
}

// An interval [from, to) of nanoseconds cut into the ranges that the range
// count query reads: whole UTC days, the whole hours before and after them,
// and the partial hours at either end. Empty ranges are [0, 0).
struct IntervalParts {
    std::int64_t dayFrom = 0, dayTo = 0;
    std::int64_t headHourFrom = 0, headHourTo = 0;
    std::int64_t tailHourFrom = 0, tailHourTo = 0;
    std::int64_t headFrom = 0, headTo = 0;
    std::int64_t tailFrom = 0, tailTo = 0;

    static IntervalParts cut(std::int64_t from, std::int64_t to) {
        IntervalParts parts;
        to = std::max(from, to);
        std::int64_t hourFrom = ceilDiv(from, nanosecondsPerHour);
        std::int64_t hourTo = floorDiv(to, nanosecondsPerHour);
        if (hourFrom >= hourTo) {
            parts.headFrom = from;
            parts.headTo = to;
            return parts;
        }
        parts.headFrom = from;
        parts.headTo = hourFrom * nanosecondsPerHour;
        parts.tailFrom = hourTo * nanosecondsPerHour;
        parts.tailTo = to;
        std::int64_t dayFrom = ceilDiv(hourFrom, hoursPerDay);
        std::int64_t dayTo = floorDiv(hourTo, hoursPerDay);
        if (dayFrom >= dayTo) {
            parts.headHourFrom = hourFrom;
            parts.headHourTo = hourTo;
            return parts;
        }
        parts.dayFrom = dayFrom;
        parts.dayTo = dayTo;
        parts.headHourFrom = hourFrom;
        parts.headHourTo = dayFrom * hoursPerDay;
        parts.tailHourFrom = dayTo * hoursPerDay;
        parts.tailHourTo = hourTo;
        return parts;
    }

    // The ten bound values, in the order of the query's parameters.
    std::array<std::int64_t, 10> bindings() const {
        return {dayFrom, dayTo, headHourFrom, headHourTo, tailHourFrom, tailHourTo, headFrom, headTo, tailFrom, tailTo};
    }
};

std::int64_t nanoseconds(Date date) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(date.time_since_epoch()).count();
}

Date dateFromNanoseconds(std::int64_t value) {
    return Date{std::chrono::duration_cast<Date::duration>(std::chrono::nanoseconds{value})};
}

bool isDamage(int code) {
    int primary = code & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

// UUIDs are kept as their 16 bytes; anything else is kept as text.
std::optional<std::array<unsigned char, 16>> uuidBytes(std::string_view text) {
    std::array<unsigned char, 16> bytes{};
    std::size_t count = 0;
    int high = -1;
    for (char c : text) {
        if (c == '-') continue;
        if (!std::isxdigit(static_cast<unsigned char>(c)) || count == bytes.size()) return std::nullopt;
        int nibble = std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : (std::toupper(c) - 'A' + 10);
        if (high < 0) {
            high = nibble;
        } else {
            bytes[count++] = static_cast<unsigned char>(high << 4 | nibble);
            high = -1;
        }
    }
    if (count != bytes.size() || high >= 0 || text.size() != 36) return std::nullopt;
    return bytes;
}

std::string uuidText(const unsigned char* bytes) {
    std::string text;
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += fmt::format("{:02X}", bytes[i]);
    }
    return text;
}

std::string newUUID() {
    thread_local std::mt19937_64 generator{std::random_device{}()};
    std::array<unsigned char, 16> bytes{};
    for (std::size_t i = 0; i < bytes.size(); i += 8) {
        std::uint64_t word = generator();
        for (std::size_t j = 0; j < 8; ++j) bytes[i + j] = static_cast<unsigned char>(word >> (8 * j));
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);  // version 4
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);  // RFC 4122 variant
    return uuidText(bytes.data());
}

class Statement {
public:
    Statement() = default;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    ~Statement() { reset(); }

    sqlite3_stmt* get() const { return statement_; }
    sqlite3_stmt** out() { return &statement_; }
    void reset() {
        sqlite3_finalize(statement_);
        statement_ = nullptr;
    }

private:
    sqlite3_stmt* statement_ = nullptr;
};

// Resets a cached statement on every path out of a query.
class StatementUse {
public:
    explicit StatementUse(sqlite3_stmt* statement) : statement_(statement) {}
    ~StatementUse() {
        sqlite3_reset(statement_);
        sqlite3_clear_bindings(statement_);
    }
    StatementUse(const StatementUse&) = delete;
    StatementUse& operator=(const StatementUse&) = delete;

private:
    sqlite3_stmt* statement_;
};

void bindText(sqlite3_stmt* statement, int index, const std::optional<std::string>& text) {
    if (text) sqlite3_bind_text(statement, index, text->data(), static_cast<int>(text->size()), SQLITE_STATIC);
    else sqlite3_bind_null(statement, index);
}

std::optional<std::string> columnText(sqlite3_stmt* statement, int column) {
    if (sqlite3_column_type(statement, column) == SQLITE_NULL) return std::nullopt;
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
    return std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
}

platform::SystemLogger& logger() {
    static platform::SystemLogger instance("CoreData");
    return instance;
}

}  // namespace

std::int64_t total(const ExtensionCounts& counts) {
    std::int64_t sum = 0;
    for (const auto& [type, count] : counts) sum += count;
    return sum;
}

struct CoreDataStore::Impl {
    Impl(std::filesystem::path directory, const platform::Clock& clock)
        : url(std::move(directory) / storeFileName),
          clock(clock),
          writer(std::string(build::baseIdentifier) + ".core-data-store.writer") {}

    ~Impl() {
        writer.sync([] {});
        std::lock_guard lock(databaseMutex);
        closeLocked();
    }

    struct PendingInsert {
        std::vector<BlockedResource> records;
        InsertCompletion completion;
    };

    std::string description() const {
        return fmt::format("<StoreDescription> (type: SQLite, configuration: {}, url: file://{})", modelName,
                           url.string());
    }

    StoreError error(int code, std::string_view message) const {
        return StoreError{code, std::string(message),
                          fmt::format("[\"SQLiteErrorCode\": {}, \"SQLiteErrorName\": \"{}\", \"path\": \"{}\"]",
                                      code, sqlite3_errstr(code), url.string())};
    }

    StoreError lastError(int code) const {
        return error(code, database ? sqlite3_errmsg(database) : sqlite3_errstr(code));
    }

    // --- opening and recovery; all with databaseMutex held ---------------

    void load() {
        std::lock_guard lock(databaseMutex);
        auto failure = openLocked();
        if (!failure) {
            platform::consolePrint("Core Data stack has been initialized with description: " + description());
            return;
        }
        platform::consolePrint("Unresolved error " + failure->description + ", " + failure->userInfo);
        if (isDamage(failure->code)) recoverLocked(*failure);
    }

    std::optional<StoreError> execLocked(const char* sql) {
        int rc = sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
        if (rc != SQLITE_OK) return lastError(rc);
        return std::nullopt;
    }

    std::optional<std::int64_t> integerLocked(const char* sql, std::optional<StoreError>& failure) {
        Statement statement;
        int rc = sqlite3_prepare_v2(database, sql, -1, statement.out(), nullptr);
        if (rc == SQLITE_OK) rc = sqlite3_step(statement.get());
        if (rc == SQLITE_ROW) {
            if (sqlite3_column_type(statement.get(), 0) == SQLITE_NULL) return std::nullopt;
            return sqlite3_column_int64(statement.get(), 0);
        }
        if (rc != SQLITE_DONE) failure = lastError(rc);
        return std::nullopt;
    }

    std::optional<StoreError> openLocked() {
        std::error_code ignored;
        std::filesystem::create_directories(url.parent_path(), ignored);
        int rc = sqlite3_open_v2(url.c_str(), &database,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
        if (rc != SQLITE_OK) {
            auto failure = lastError(rc);
            closeLocked();
            return failure;
        }
        sqlite3_extended_result_codes(database, 1);
        sqlite3_busy_timeout(database, busyTimeoutMilliseconds);
        struct stat info {};
        openedFile.reset();
        if (::stat(url.c_str(), &info) == 0) openedFile = {info.st_dev, info.st_ino};

        // The schema is checked before anything is written, so that a file of
        // some other program is moved aside exactly as it was found.
        auto failure = prepareSchemaLocked();
        if (!failure) failure = execLocked("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;");
        if (!failure) failure = probeLocked();
        if (failure) closeLocked();
        return failure;
    }

    std::optional<std::int64_t> tableCountLocked(std::optional<StoreError>& failure) {
        return integerLocked("SELECT COUNT(*) FROM sqlite_schema WHERE name NOT LIKE 'sqlite_%'", failure);
    }

    // Runs `sql` in a write transaction when `stillNeeded` (asked inside it)
    // holds. Two processes may find the same work to do at once; the write
    // lock decides which does it, and the other finds it done.
    template <class Check>
    std::optional<StoreError> changeSchemaLocked(Check&& stillNeeded, const std::string& sql) {
        if (auto failure = execLocked("BEGIN IMMEDIATE")) return failure;
        std::optional<StoreError> failure;
        bool needed = stillNeeded(failure);
        if (!failure && needed) failure = execLocked(sql.c_str());
        if (!failure) failure = execLocked("COMMIT");
        if (failure) sqlite3_exec(database, "ROLLBACK", nullptr, nullptr, nullptr);
        return failure;
    }

    std::optional<StoreError> prepareSchemaLocked() {
        std::optional<StoreError> failure;
        auto tables = tableCountLocked(failure);
        if (failure) return failure;
        if (tables.value_or(0) == 0) {
            failure = changeSchemaLocked(
                [this](std::optional<StoreError>& f) { return tableCountLocked(f).value_or(0) == 0; },
                std::string(recordsAndHourlyCountSQL) + dailyCountSQL + stampSchemaSQL());
            if (failure) return failure;
        }
        auto application = integerLocked("PRAGMA application_id", failure);
        auto version = integerLocked("PRAGMA user_version", failure);
        if (failure) return failure;
        if (application == applicationID && version == 1) {
            failure = changeSchemaLocked(
                [this](std::optional<StoreError>& f) { return integerLocked("PRAGMA user_version", f) == 1; },
                std::string(dropVersion1TriggerSQL) + dailyCountSQL + fillDailyCountSQL + stampSchemaSQL());
            if (failure) return failure;
            version = schemaVersion;
        }
        if (application == applicationID && version > schemaVersion) {
            // Ours, from a newer version of the product that runs beside this
            // one: its history is not to be moved aside, only left alone.
            return error(SQLITE_CANTOPEN,
                         fmt::format("The blocked-resources database has schema version {}, newer than {}",
                                     *version, schemaVersion));
        }
        if (application != applicationID || version != schemaVersion) {
            return error(SQLITE_NOTADB,
                         fmt::format("The file is not a blocked-resources database (application id {}, "
                                     "schema version {})",
                                     application.value_or(0), version.value_or(0)));
        }
        return std::nullopt;
    }

    // Reads the ends of the table and its date index and the whole count
    // table, where a truncated or overwritten file shows its damage, so that
    // it is found now rather than by the first statistics query.
    std::optional<StoreError> probeLocked() {
        std::optional<StoreError> failure;
        for (const char* sql : {"SELECT MAX(rowid) FROM BlockedResource",
                                "SELECT date FROM BlockedResource ORDER BY date DESC LIMIT 1",
                                "SELECT date FROM BlockedResource ORDER BY date LIMIT 1",
                                "SELECT COUNT(*) FROM BlockedResourceHourlyCount",
                                "SELECT COUNT(*) FROM BlockedResourceDailyCount"}) {
            integerLocked(sql, failure);
            if (failure) return failure;
        }
        return std::nullopt;
    }

    void closeLocked() {
        insertStatement.reset();
        rangeStatement.reset();
        allTimeStatement.reset();
        firstDateStatement.reset();
        if (database) sqlite3_close_v2(database);
        database = nullptr;
    }

    // Renames the store's files to "<name>.corrupt-<timestamp>[-wal|-shm]".
    std::optional<std::filesystem::path> moveAsideLocked() {
        std::string stamp = fmt::format("{:%Y%m%dT%H%M%SZ}",
                                        std::chrono::floor<std::chrono::seconds>(clock.now()));
        std::filesystem::path aside;
        std::error_code error;
        for (int attempt = 1;; ++attempt) {
            std::string name = url.filename().string() + ".corrupt-" + stamp;
            if (attempt > 1) name += fmt::format("-{}", attempt);
            aside = url.parent_path() / name;
            if (!std::filesystem::exists(aside, error)) break;
        }
        std::filesystem::rename(url, aside, error);
        if (error) {
            logger().error("Could not move the damaged store %s aside: %s", url.c_str(), error.message().c_str());
            return std::nullopt;
        }
        for (const char* suffix : {"-wal", "-shm"}) {
            std::filesystem::path companion = url.string() + suffix;
            if (std::filesystem::exists(companion, error)) {
                std::filesystem::rename(companion, aside.string() + suffix, error);
            }
        }
        return aside;
    }

    void recoverLocked(const StoreError& damage) {
        // Another process may have moved the damaged file aside already and
        // started a fresh store at the path; that one is left alone.
        std::optional<std::pair<dev_t, ino_t>> damaged = database ? openedFile : std::nullopt;
        closeLocked();
        struct stat info {};
        bool replacedMeanwhile =
            damaged && ::stat(url.c_str(), &info) == 0 && std::pair{info.st_dev, info.st_ino} != *damaged;
        if (!replacedMeanwhile) {
            auto aside = moveAsideLocked();
            if (!aside) return;
            logger().error("The blocked-resources store %s is damaged (%s); moved it aside to %s and started an "
                           "empty store",
                           url.c_str(), damage.description.c_str(), aside->c_str());
        }
        reopenLocked();
    }

    void reopenLocked() {
        closeLocked();
        if (auto failure = openLocked()) {
            platform::consolePrint("Unresolved error " + failure->description + ", " + failure->userInfo);
            return;
        }
        platform::consolePrint("Core Data stack has been initialized with description: " + description());
    }

    // When another process has found the file damaged, moved it aside and
    // started a new store at the path, what this connection wrote to the old
    // file would be lost to everyone; so before each use the connection
    // follows the path to whatever file is there now.
    void followPathLocked() {
        if (!database || !openedFile) return;
        struct stat info {};
        if (::stat(url.c_str(), &info) == 0 && std::pair{info.st_dev, info.st_ino} == *openedFile) return;
        reopenLocked();
    }

    sqlite3_stmt* cachedLocked(Statement& statement, const char* sql, std::optional<StoreError>& failure) {
        if (!statement.get()) {
            int rc = sqlite3_prepare_v3(database, sql, -1, SQLITE_PREPARE_PERSISTENT, statement.out(), nullptr);
            if (rc != SQLITE_OK) {
                failure = lastError(rc);
                statement.reset();
            }
        }
        return statement.get();
    }

    // --- writing -----------------------------------------------------------

    void enqueue(PendingInsert insert) {
        bool first = false;
        {
            std::lock_guard lock(pendingMutex);
            first = pending.empty();
            recordsSinceSave += insert.records.size();
            pending.push_back(std::move(insert));
        }
        if (first) writer.async([this] { flushPending(); });
    }

    void flushPending() {
        std::vector<PendingInsert> batch;
        {
            std::lock_guard lock(pendingMutex);
            batch.swap(pending);
        }
        if (batch.empty()) return;
        std::optional<StoreError> failure;
        {
            std::lock_guard lock(databaseMutex);
            followPathLocked();
            failure = writeLocked(batch);
            if (failure && isDamage(failure->code)) {
                recoverLocked(*failure);
                failure = writeLocked(batch);
            }
        }
        if (failure) {
            std::lock_guard lock(pendingMutex);
            failureSinceSave = failure;
        }
        for (auto& insert : batch) {
            if (insert.completion) insert.completion(failure);
        }
    }

    std::optional<StoreError> writeLocked(const std::vector<PendingInsert>& batch) {
        if (!database) return error(SQLITE_CANTOPEN, "The blocked-resources store is not loaded");
        if (auto failure = execLocked("BEGIN IMMEDIATE")) return failure;
        std::optional<StoreError> failure;
        sqlite3_stmt* statement = cachedLocked(insertStatement, insertSQL, failure);
        for (const auto& insert : batch) {
            for (const auto& record : insert.records) {
                if (failure) break;
                StatementUse use(statement);
                std::optional<std::array<unsigned char, 16>> bytes;
                if (record.id) bytes = uuidBytes(*record.id);
                if (bytes) sqlite3_bind_blob(statement, 1, bytes->data(), 16, SQLITE_STATIC);
                else bindText(statement, 1, record.id);
                if (record.date) sqlite3_bind_int64(statement, 2, nanoseconds(*record.date));
                bindText(statement, 3, record.extensionID);
                bindText(statement, 4, record.blockedURL);
                bindText(statement, 5, record.pageURL);
                bindText(statement, 6, record.pageDomain);
                int rc = sqlite3_step(statement);
                if (rc != SQLITE_DONE) failure = lastError(rc);
            }
        }
        if (!failure) failure = execLocked("COMMIT");
        if (failure) sqlite3_exec(database, "ROLLBACK", nullptr, nullptr, nullptr);
        return failure;
    }

    // --- reading -----------------------------------------------------------

    // Runs `query` under the lock; a damaged file found on the way is
    // recovered from, and the query answers nothing this time.
    template <class Query>
    auto read(const char* operation, Query&& query) -> decltype(query(std::declval<std::optional<StoreError>&>())) {
        std::lock_guard lock(databaseMutex);
        followPathLocked();
        std::optional<StoreError> failure;
        if (!database) {
            failure = error(SQLITE_CANTOPEN, "The blocked-resources store is not loaded");
        } else {
            auto result = query(failure);
            if (!failure) return result;
        }
        logger().error("Error while fetching %s: %s", operation, failure->description.c_str());
        if (isDamage(failure->code)) recoverLocked(*failure);
        return std::nullopt;
    }

    std::optional<ExtensionCounts> countsLocked(sqlite3_stmt* statement, std::optional<StoreError>& failure) {
        std::vector<std::pair<std::string, std::int64_t>> rows;
        int rc;
        while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
            if (auto id = columnText(statement, 0)) rows.emplace_back(*id, sqlite3_column_int64(statement, 1));
        }
        if (rc != SQLITE_DONE) {
            failure = lastError(rc);
            return std::nullopt;
        }
        ExtensionCounts counts;
        for (model::ExtensionType type : model::allCases<model::ExtensionType>()) {
            auto row = std::find_if(rows.begin(), rows.end(),
                                    [&](const auto& r) { return r.first == model::rawValue(type); });
            if (row != rows.end()) counts[type] = row->second;
        }
        return counts;
    }

    std::filesystem::path url;
    const platform::Clock& clock;

    mutable std::mutex databaseMutex;
    sqlite3* database = nullptr;
    std::optional<std::pair<dev_t, ino_t>> openedFile;
    Statement insertStatement;
    Statement rangeStatement;
    Statement allTimeStatement;
    Statement firstDateStatement;

    std::mutex pendingMutex;
    std::vector<PendingInsert> pending;
    std::size_t recordsSinceSave = 0;
    std::optional<StoreError> failureSinceSave;

    // Last, so that it is destroyed first: the writes still queued finish
    // while the database is open.
    platform::DispatchQueue writer;
};

CoreDataStore::CoreDataStore(std::filesystem::path directory, const platform::Clock& clock)
    : impl_(std::make_unique<Impl>(std::move(directory), clock)) {
    impl_->load();
}

CoreDataStore::~CoreDataStore() = default;

CoreDataStore& CoreDataStore::shared() {
    static CoreDataStore store(storage::storeURL(databaseName).parent_path());
    return store;
}

const std::filesystem::path& CoreDataStore::storeURL() const {
    return impl_->url;
}

bool CoreDataStore::isLoaded() const {
    std::lock_guard lock(impl_->databaseMutex);
    return impl_->database != nullptr;
}

std::string CoreDataStore::storeDescription() const {
    return impl_->description();
}

void CoreDataStore::insertRecord(std::string pageURL, std::string blockedURL, model::ExtensionType type,
                                 InsertCompletion completion) {
    BlockedResource record;
    record.id = newUUID();
    record.date = impl_->clock.now();
    record.extensionID = std::string(model::rawValue(type));
    record.blockedURL = std::move(blockedURL);
    record.pageDomain = urlHost(pageURL);
    record.pageURL = std::move(pageURL);
    impl_->enqueue({{std::move(record)}, [completion = std::move(completion)](const std::optional<StoreError>& error) {
                        if (error) platform::consolePrint("Fail save in backgroundContext: " + error->description);
                        else platform::consolePrint("Saved History record into Core Data background context");
                        if (completion) completion(error);
                    }});
}

void CoreDataStore::insert(std::vector<BlockedResource> records, InsertCompletion completion) {
    impl_->enqueue({std::move(records), std::move(completion)});
}

void CoreDataStore::saveContext(std::function<void()> completion) {
    // Edits can only be committed into an open store; like a failed commit
    // of pending edits this is worth a line, and the save goes on regardless.
    if (!isLoaded()) {
        logger().error("%s unable to commit editing before saving", impl_->description().c_str());
    }
    bool hasChanges = false;
    {
        std::lock_guard lock(impl_->pendingMutex);
        hasChanges = std::exchange(impl_->recordsSinceSave, 0) > 0;
    }
    if (!hasChanges) {
        if (completion) completion();
        return;
    }
    impl_->writer.async([impl = impl_.get(), completion = std::move(completion)] {
        impl->flushPending();
        std::optional<StoreError> failure;
        {
            std::lock_guard lock(impl->pendingMutex);
            failure = std::exchange(impl->failureSinceSave, std::nullopt);
        }
        if (failure) {
            platform::consolePrint("Unresolved error " + failure->description +
                                   " while saving Core Data context: " + failure->userInfo);
        } else {
            platform::consolePrint("Saved History Core Data");
        }
        if (completion) completion();
    });
}

void CoreDataStore::waitUntilWritten() {
    impl_->writer.sync([] {});
}

std::optional<ExtensionCounts> CoreDataStore::sumBlockedResourcesPerExtension(std::optional<platform::Date> start,
                                                                              std::optional<platform::Date> end) const {
    if (!start || !end) {
        return impl_->read("sumBlockedResourcesPerExtensionForAllTime",
                           [this](std::optional<StoreError>& failure) -> std::optional<ExtensionCounts> {
                               sqlite3_stmt* statement =
                                   impl_->cachedLocked(impl_->allTimeStatement, allTimeCountSQL, failure);
                               if (!statement) return std::nullopt;
                               StatementUse use(statement);
                               return impl_->countsLocked(statement, failure);
                           });
    }
    const auto bindings = IntervalParts::cut(nanoseconds(*start), nanoseconds(*end)).bindings();
    return impl_->read("sumBlockedResourcesPerExtensionForPeriod",
                       [&](std::optional<StoreError>& failure) -> std::optional<ExtensionCounts> {
                           sqlite3_stmt* statement = impl_->cachedLocked(impl_->rangeStatement, rangeCountSQL, failure);
                           if (!statement) return std::nullopt;
                           StatementUse use(statement);
                           for (std::size_t i = 0; i < bindings.size(); ++i) {
                               sqlite3_bind_int64(statement, static_cast<int>(i + 1), bindings[i]);
                           }
                           return impl_->countsLocked(statement, failure);
                       });
}

std::optional<platform::Date> CoreDataStore::firstBlockedResourceDate() const {
    return impl_->read("firstBlockedResourceDate",
                       [this](std::optional<StoreError>& failure) -> std::optional<platform::Date> {
                           sqlite3_stmt* statement =
                               impl_->cachedLocked(impl_->firstDateStatement, firstDateSQL, failure);
                           if (!statement) return std::nullopt;
                           StatementUse use(statement);
                           int rc = sqlite3_step(statement);
                           if (rc == SQLITE_ROW) return dateFromNanoseconds(sqlite3_column_int64(statement, 0));
                           if (rc != SQLITE_DONE) failure = impl_->lastError(rc);
                           return std::nullopt;
                       });
}

std::optional<std::vector<BlockedResource>> CoreDataStore::blockedResources(std::string_view pageURL) const {
    return impl_->read(
        "blockedResources", [&](std::optional<StoreError>& failure) -> std::optional<std::vector<BlockedResource>> {
            Statement statement;
            int rc = sqlite3_prepare_v2(impl_->database, pageRecordsSQL, -1, statement.out(), nullptr);
            if (rc != SQLITE_OK) {
                failure = impl_->lastError(rc);
                return std::nullopt;
            }
            sqlite3_bind_text(statement.get(), 1, pageURL.data(), static_cast<int>(pageURL.size()), SQLITE_STATIC);
            std::vector<BlockedResource> records;
            sqlite3_stmt* s = statement.get();
            while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
                BlockedResource record;
                if (sqlite3_column_type(s, 0) == SQLITE_BLOB && sqlite3_column_bytes(s, 0) == 16) {
                    record.id = uuidText(static_cast<const unsigned char*>(sqlite3_column_blob(s, 0)));
                } else {
                    record.id = columnText(s, 0);
                }
                if (sqlite3_column_type(s, 1) != SQLITE_NULL) record.date = dateFromNanoseconds(sqlite3_column_int64(s, 1));
                record.extensionID = columnText(s, 2);
                record.blockedURL = columnText(s, 3);
                record.pageURL = columnText(s, 4);
                record.pageDomain = columnText(s, 5);
                records.push_back(std::move(record));
            }
            if (rc != SQLITE_DONE) {
                failure = impl_->lastError(rc);
                return std::nullopt;
            }
            return records;
        });
}

}  // namespace tamsel::runtime
