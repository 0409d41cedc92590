#include "runtime/BlockedResourceSchema.h"

#include "runtime/URLHost.h"

#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>
#include <fmt/format.h>
#include <sqlite3.h>

#include <string>

namespace tamsel::runtime::BlockedResourceSchema {

namespace {

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

constexpr const char* dailyCountSQL = R"sql(
CREATE TABLE BlockedResourceDailyCount(
    day INTEGER NOT NULL,
    extensionID TEXT NOT NULL,
    count INTEGER NOT NULL,
    PRIMARY KEY (day, extensionID)
) WITHOUT ROWID;
)sql";

// Keeps both count tables; the hour and the day of a date (microseconds) are
// floor divisions, right for dates before 1970 too.
constexpr const char* countingTriggerSQL = R"sql(
CREATE TRIGGER BlockedResourceCounting AFTER INSERT ON BlockedResource
WHEN NEW.date IS NOT NULL AND NEW.extensionID IS NOT NULL
BEGIN
    INSERT INTO BlockedResourceHourlyCount(hour, extensionID, count)
    VALUES ((NEW.date - (NEW.date % 3600000000 + 3600000000) % 3600000000) / 3600000000,
            NEW.extensionID, 1)
    ON CONFLICT(hour, extensionID) DO UPDATE SET count = count + 1;
    INSERT INTO BlockedResourceDailyCount(day, extensionID, count)
    VALUES ((NEW.date - (NEW.date % 86400000000 + 86400000000) % 86400000000) / 86400000000,
            NEW.extensionID, 1)
    ON CONFLICT(day, extensionID) DO UPDATE SET count = count + 1;
END;
)sql";

// A page's records are found by their page's key.
constexpr const char* pageIndexSQL = "CREATE INDEX BlockedResourceByPage ON BlockedResource(page_key(pageURL));";

constexpr const char* dropTriggerSQL = "DROP TRIGGER IF EXISTS BlockedResourceCounting;";

// Layout 1 had no daily table; the daily counts follow from its hourly ones.
constexpr const char* fillDailyCountSQL = R"sql(
INSERT INTO BlockedResourceDailyCount(day, extensionID, count)
SELECT (hour - (hour % 24 + 24) % 24) / 24, extensionID, SUM(count)
FROM BlockedResourceHourlyCount GROUP BY 1, 2;
)sql";

// Layouts 1 and 2 kept nanoseconds; hours and days are the same either way.
constexpr const char* nanosecondsToMicrosecondsSQL =
    "UPDATE BlockedResource SET date = (date - (date % 1000 + 1000) % 1000) / 1000 WHERE date IS NOT NULL;";

std::string stampSQL() {
    return fmt::format("PRAGMA application_id = {}; PRAGMA user_version = {};", applicationID, version);
}

std::optional<std::int64_t> integer(SQLite::Database& database, const char* sql) {
    SQLite::Statement statement(database, sql);
    if (!statement.executeStep() || statement.getColumn(0).isNull()) return std::nullopt;
    return statement.getColumn(0).getInt64();
}

std::int64_t tableCount(SQLite::Database& database) {
    return integer(database, "SELECT COUNT(*) FROM sqlite_schema WHERE name NOT LIKE 'sqlite_%'").value_or(0);
}

// Runs `sql` in a write transaction when `stillNeeded` (asked inside it)
// holds. Two processes may find the same work to do at once; the write lock
// decides which does it, and the other finds it done.
template <class Check>
void change(SQLite::Database& database, Check&& stillNeeded, const std::string& sql) {
    SQLite::Transaction transaction(database, SQLite::TransactionBehavior::IMMEDIATE);
    if (stillNeeded()) database.exec(sql);
    transaction.commit();
}

void pageKeyFunction(sqlite3_context* context, int, sqlite3_value** arguments) {
    if (sqlite3_value_type(arguments[0]) == SQLITE_NULL) {
        sqlite3_result_null(context);
        return;
    }
    const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(arguments[0]));
    const auto length = static_cast<std::size_t>(sqlite3_value_bytes(arguments[0]));
    sqlite3_result_int(context, pageKey(std::string_view(text ? text : "", text ? length : 0)));
}

}  // namespace

std::int16_t pageKey(std::string_view pageURL) {
    std::uint32_t hash = 2166136261u;
    for (const char byte : pageURL) {
        hash ^= static_cast<unsigned char>(byte);
        hash *= 16777619u;
    }
    // The halves folded together; two bytes in the index.
    return static_cast<std::int16_t>(static_cast<std::uint16_t>((hash >> 16) ^ (hash & 0xFFFFu)));
}

StoredPageDomain storedPageDomain(const std::optional<std::string>& pageURL,
                                  const std::optional<std::string>& pageDomain) {
    const std::optional<std::string> host = pageURL ? urlHost(*pageURL) : std::nullopt;
    if (pageDomain == host) return {StoredPageDomain::Kind::derived};
    if (!pageDomain) return {StoredPageDomain::Kind::absent};
    return {StoredPageDomain::Kind::text};
}

void registerFunctions(SQLite::Database& database) {
    sqlite3_create_function_v2(database.getHandle(), "page_key", 1,
                               SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS, nullptr, &pageKeyFunction,
                               nullptr, nullptr, nullptr);
}

std::optional<StoreError> prepare(SQLite::Database& database, const std::filesystem::path& path) {
    try {
        if (tableCount(database) == 0) {
            change(database, [&] { return tableCount(database) == 0; },
                   std::string(recordsAndHourlyCountSQL) + dailyCountSQL + countingTriggerSQL + pageIndexSQL +
                       stampSQL());
        }
        const auto application = integer(database, "PRAGMA application_id");
        auto layout = integer(database, "PRAGMA user_version");
        if (application == applicationID && layout >= 1 && layout < version) {
            const auto from = *layout;
            std::string upgrade;
            if (from <= 2) {
                upgrade += dropTriggerSQL;
                if (from == 1) upgrade += std::string(dailyCountSQL) + fillDailyCountSQL;
                upgrade += std::string(nanosecondsToMicrosecondsSQL) + countingTriggerSQL;
            }
            // NULL has stood for "no domain"; from here on that is an empty blob.
            upgrade += "UPDATE BlockedResource SET pageDomain = X'' WHERE pageDomain IS NULL;";
            upgrade += std::string(pageIndexSQL) + stampSQL();
            change(database, [&] { return integer(database, "PRAGMA user_version") == from; }, upgrade);
            layout = version;
        }
        if (application == applicationID && layout > version) {
            // Ours, from a newer version of the product that runs beside this
            // one: its history is not to be moved aside, only left alone.
            return StoreError::of(
                SQLITE_CANTOPEN,
                fmt::format("The blocked-resources database has schema version {}, newer than {}", *layout, version),
                path);
        }
        if (application != applicationID || layout != version) {
            return StoreError::of(SQLITE_NOTADB,
                                  fmt::format("The file is not a blocked-resources database (application id {}, "
                                              "schema version {})",
                                              application.value_or(0), layout.value_or(0)),
                                  path);
        }
        return std::nullopt;
    } catch (const SQLite::Exception& exception) {
        return StoreError::of(exception, path);
    }
}

std::optional<StoreError> probe(SQLite::Database& database, const std::filesystem::path& path) {
    try {
        for (const char* sql : {"SELECT MAX(rowid) FROM BlockedResource",
                                "SELECT date FROM BlockedResource ORDER BY date DESC LIMIT 1",
                                "SELECT date FROM BlockedResource ORDER BY date LIMIT 1",
                                "SELECT COUNT(*) FROM BlockedResourceHourlyCount",
                                "SELECT COUNT(*) FROM BlockedResourceDailyCount",
                                "SELECT rowid FROM BlockedResource WHERE page_key(pageURL) = 0 LIMIT 1"}) {
            integer(database, sql);
        }
        return std::nullopt;
    } catch (const SQLite::Exception& exception) {
        return StoreError::of(exception, path);
    }
}

}  // namespace tamsel::runtime::BlockedResourceSchema
