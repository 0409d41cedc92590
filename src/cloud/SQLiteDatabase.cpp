#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <charconv>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "cloud/SQLDatabase.h"

namespace tamsel::cloud {

std::int64_t SQLRow::integer(std::size_t index) const {
    const auto& column = columns.at(index);
    if (!column) return 0;
    std::int64_t value = 0;
    std::from_chars(column->data(), column->data() + column->size(), value);
    return value;
}

namespace {

bool isBusy(const SQLite::Exception& error) {
    const int code = error.getErrorCode() & 0xff;
    return code == SQLITE_BUSY || code == SQLITE_LOCKED;
}

using StatementCache = std::unordered_map<std::string, std::unique_ptr<SQLite::Statement>>;

class SQLiteConnection final : public SQLConnection {
public:
    SQLiteConnection(SQLite::Database& database, StatementCache& cache) : database_(database), cache_(cache) {}

    void execute(std::string_view sql, const SQLParameters& parameters) override { run(sql, parameters, nullptr); }

    std::vector<SQLRow> query(std::string_view sql, const SQLParameters& parameters) override {
        std::vector<SQLRow> rows;
        run(sql, parameters, &rows);
        return rows;
    }

private:
    void run(std::string_view sql, const SQLParameters& parameters, std::vector<SQLRow>* rows) {
        try {
            // Prepared once, kept for the next time: the store asks the same
            // few statements over and over.
            auto& cached = cache_[std::string(sql)];
            if (!cached) cached = std::make_unique<SQLite::Statement>(database_, std::string(sql));
            SQLite::Statement& statement = *cached;
            struct Reset {
                SQLite::Statement& statement;
                ~Reset() {
                    try {
                        statement.reset();
                        statement.clearBindings();
                    } catch (const SQLite::Exception&) {
                        // reset() repeats the last step's error, already reported.
                    }
                }
            } reset{statement};
            for (std::size_t i = 0; i < parameters.size(); ++i) {
                const int index = static_cast<int>(i + 1);
                if (const auto* integer = std::get_if<std::int64_t>(&parameters[i])) {
                    statement.bind(index, *integer);
                } else if (const auto* text = std::get_if<std::string>(&parameters[i])) {
                    statement.bind(index, *text);
                } else {
                    statement.bind(index);
                }
            }
            while (statement.executeStep()) {
                if (!rows) continue;
                SQLRow row;
                const int count = statement.getColumnCount();
                row.columns.reserve(static_cast<std::size_t>(count));
                for (int c = 0; c < count; ++c) {
                    auto column = statement.getColumn(c);
                    if (column.isNull()) {
                        row.columns.emplace_back(std::nullopt);
                    } else {
                        row.columns.emplace_back(column.getString());
                    }
                }
                rows->push_back(std::move(row));
            }
        } catch (const SQLite::Exception& error) {
            if (isBusy(error)) throw SQLBusy(error.what());
            throw SQLError(error.what());
        }
    }

    SQLite::Database& database_;
    StatementCache& cache_;
};

// One connection for the whole server: SQLite lets one writer in at a time
// anyway, and a mutex is cheaper than its busy handler. Other processes on
// the same file wait up to the busy timeout.
class SQLiteDatabase final : public SQLDatabase {
public:
    explicit SQLiteDatabase(const std::string& path)
        : database_(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE | SQLite::OPEN_FULLMUTEX) {
        database_.setBusyTimeout(5000);
        if (path != ":memory:") database_.exec("PRAGMA journal_mode=WAL");
        database_.exec("PRAGMA synchronous=NORMAL");
    }

    void transaction(const std::function<void(SQLConnection&)>& body) override {
        std::lock_guard lock(mutex_);
        try {
            // IMMEDIATE: take the write lock up front, so that a read-then-write
            // transaction never fails half-way for another process's writer.
            database_.exec("BEGIN IMMEDIATE");
        } catch (const SQLite::Exception& error) {
            if (isBusy(error)) throw SQLBusy(error.what());
            throw SQLError(error.what());
        }
        SQLiteConnection connection(database_, cache_);
        try {
            body(connection);
            database_.exec("COMMIT");
        } catch (...) {
            try {
                database_.exec("ROLLBACK");
            } catch (const SQLite::Exception&) {
                // A failed COMMIT may already have rolled back.
            }
            throw;
        }
    }

    std::string_view dialect() const override { return "sqlite"; }

private:
    std::mutex mutex_;
    SQLite::Database database_;
    StatementCache cache_;  // destroyed before the database
};

}  // namespace

std::unique_ptr<SQLDatabase> openSQLiteDatabase(const std::string& path) {
    try {
        return std::make_unique<SQLiteDatabase>(path);
    } catch (const SQLite::Exception& error) {
        throw SQLError(std::string("cannot open the SQLite database ") + path + ": " + error.what());
    }
}

std::unique_ptr<SQLDatabase> SQLDatabase::open(const std::string& address) {
    if (address.starts_with("sqlite:")) return openSQLiteDatabase(address.substr(7));
    if (address.starts_with("postgresql://") || address.starts_with("postgres://")) {
        auto database = openPostgreSQLDatabase(address);
        if (!database) throw SQLError("this program was built without PostgreSQL");
        return database;
    }
    throw SQLError("the database must be sqlite:PATH or postgresql://…, not \"" + address + "\"");
}

}  // namespace tamsel::cloud
