#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

// The little SQL the cloud store needs, spoken to SQLite or to PostgreSQL.
// Statements are written once, with ?1, ?2, … placeholders and SQL that both
// understand (INSERT … ON CONFLICT, UPDATE … RETURNING); the PostgreSQL
// connection turns the placeholders into $1, $2, ….
namespace tamsel::cloud {

using SQLValue = std::variant<std::nullptr_t, std::int64_t, std::string>;
using SQLParameters = std::vector<SQLValue>;

struct SQLRow {
    std::vector<std::optional<std::string>> columns;

    bool isNull(std::size_t index) const { return !columns.at(index).has_value(); }
    std::string text(std::size_t index) const { return columns.at(index).value_or(""); }
    std::int64_t integer(std::size_t index) const;
};

// A failure of the database itself (not of a request's content).
struct SQLError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// Another writer held the database longer than we wait: the request may be
// retried.
struct SQLBusy : SQLError {
    using SQLError::SQLError;
};

class SQLConnection {
public:
    virtual ~SQLConnection() = default;
    virtual void execute(std::string_view sql, const SQLParameters& parameters = {}) = 0;
    virtual std::vector<SQLRow> query(std::string_view sql, const SQLParameters& parameters = {}) = 0;
    std::optional<SQLRow> queryOne(std::string_view sql, const SQLParameters& parameters = {}) {
        auto rows = query(sql, parameters);
        if (rows.empty()) return std::nullopt;
        return std::move(rows.front());
    }
};

class SQLDatabase {
public:
    virtual ~SQLDatabase() = default;

    // Runs `body` as one transaction: committed when it returns, rolled back
    // when it throws (and the exception goes on). Writers of one zone are
    // serialised for the whole transaction by the zone row they update, so
    // that the order of their commits is the order of their change numbers.
    virtual void transaction(const std::function<void(SQLConnection&)>& body) = 0;

    // "sqlite" or "postgresql".
    virtual std::string_view dialect() const = 0;

    // Word to the other processes on the same database, for what they must
    // hear at once (pushes). A database that is never shared (SQLite) has
    // none: notify does nothing and listen returns null.
    class Listener {
    public:
        virtual ~Listener() = default;
    };
    virtual void notify(const std::string& channel, const std::string& payload) {
        (void)channel;
        (void)payload;
    }
    // Calls `received` on a thread of the listener's own for every payload
    // notified on `channel` (by any process, this one included) until the
    // listener is destroyed.
    virtual std::unique_ptr<Listener> listen(const std::string& channel,
                                             std::function<void(const std::string& payload)> received) {
        (void)channel;
        (void)received;
        return nullptr;
    }

    // "sqlite:PATH" (":memory:" for a database of this process only) or a
    // "postgresql://…" connection address. Creates the tables when missing.
    // Throws SQLError when it cannot be opened.
    static std::unique_ptr<SQLDatabase> open(const std::string& address);
};

std::unique_ptr<SQLDatabase> openSQLiteDatabase(const std::string& path);
// Null when the program was built without PostgreSQL.
std::unique_ptr<SQLDatabase> openPostgreSQLDatabase(const std::string& address);

}  // namespace tamsel::cloud
