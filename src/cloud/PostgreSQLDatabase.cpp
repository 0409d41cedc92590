#include <libpq-fe.h>

#include <poll.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <thread>
#include <memory>
#include <mutex>
#include <vector>

#include "cloud/SQLDatabase.h"

namespace tamsel::cloud {
namespace {

// ?1, ?2, … → $1, $2, … (no statement of the store has a question mark
// anywhere else).
std::string postgresPlaceholders(std::string_view sql) {
    std::string text(sql);
    for (char& c : text) {
        if (c == '?') c = '$';
    }
    return text;
}

struct ResultDeleter {
    void operator()(PGresult* result) const { PQclear(result); }
};
using Result = std::unique_ptr<PGresult, ResultDeleter>;

struct ConnectionDeleter {
    void operator()(PGconn* connection) const { PQfinish(connection); }
};
using Connection = std::unique_ptr<PGconn, ConnectionDeleter>;

[[noreturn]] void raise(PGconn* connection, const PGresult* result) {
    const char* state = result ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
    const std::string message = result ? PQresultErrorMessage(result) : PQerrorMessage(connection);
    const std::string code = state ? state : "";
    // Serialisation failures, deadlocks, lock time-outs and a lost server
    // may all go well when tried again.
    if (code == "40001" || code == "40P01" || code == "55P03" || code.starts_with("08") ||
        PQstatus(connection) != CONNECTION_OK) {
        throw SQLBusy(message);
    }
    throw SQLError(message);
}

class PostgreSQLConnection final : public SQLConnection {
public:
    explicit PostgreSQLConnection(PGconn* connection) : connection_(connection) {}

    void execute(std::string_view sql, const SQLParameters& parameters) override { run(sql, parameters); }

    std::vector<SQLRow> query(std::string_view sql, const SQLParameters& parameters) override {
        Result result = run(sql, parameters);
        std::vector<SQLRow> rows;
        const int count = PQntuples(result.get());
        const int columns = PQnfields(result.get());
        rows.reserve(static_cast<std::size_t>(count));
        for (int r = 0; r < count; ++r) {
            SQLRow row;
            row.columns.reserve(static_cast<std::size_t>(columns));
            for (int c = 0; c < columns; ++c) {
                if (PQgetisnull(result.get(), r, c)) {
                    row.columns.emplace_back(std::nullopt);
                } else {
                    row.columns.emplace_back(std::string(PQgetvalue(result.get(), r, c),
                                                         static_cast<std::size_t>(PQgetlength(result.get(), r, c))));
                }
            }
            rows.push_back(std::move(row));
        }
        return rows;
    }

    Result run(std::string_view sql, const SQLParameters& parameters) {
        std::vector<std::string> texts(parameters.size());
        std::vector<const char*> values(parameters.size(), nullptr);
        for (std::size_t i = 0; i < parameters.size(); ++i) {
            if (const auto* integer = std::get_if<std::int64_t>(&parameters[i])) {
                texts[i] = std::to_string(*integer);
                values[i] = texts[i].c_str();
            } else if (const auto* text = std::get_if<std::string>(&parameters[i])) {
                values[i] = text->c_str();
            }
        }
        const std::string statement = postgresPlaceholders(sql);
        Result result(PQexecParams(connection_, statement.c_str(), static_cast<int>(values.size()), nullptr,
                                   values.data(), nullptr, nullptr, 0));
        const auto status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
        if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) raise(connection_, result.get());
        return result;
    }

private:
    PGconn* connection_;
};

// A few connections, each serving one transaction at a time. Writers of one
// zone wait for each other on the zone's row, held until commit.
class PostgreSQLDatabase final : public SQLDatabase {
public:
    static constexpr std::size_t poolSize = 8;

    explicit PostgreSQLDatabase(std::string address) : address_(std::move(address)) {
        // The first connection proves the address now.
        idle_.push_back(connect());
        opened_ = 1;
    }

    void transaction(const std::function<void(SQLConnection&)>& body) override {
        Connection connection = acquire();
        PostgreSQLConnection sql(connection.get());
        try {
            sql.execute("BEGIN", {});
            body(sql);
            sql.execute("COMMIT", {});
        } catch (...) {
            if (PQstatus(connection.get()) == CONNECTION_OK) {
                Result ignored(PQexec(connection.get(), "ROLLBACK"));
            }
            release(std::move(connection));
            throw;
        }
        release(std::move(connection));
    }

    std::string_view dialect() const override { return "postgresql"; }

    void notify(const std::string& channel, const std::string& payload) override {
        transaction([&](SQLConnection& sql) { sql.execute("SELECT pg_notify(?1, ?2)", {channel, payload}); });
    }

    std::unique_ptr<Listener> listen(const std::string& channel,
                                     std::function<void(const std::string& payload)> received) override {
        return std::make_unique<PostgreSQLListener>(address_, channel, std::move(received));
    }

private:
    // A connection of its own that LISTENs, read on a thread that looks at
    // its stop flag between waits of at most a fifth of a second. A lost
    // connection is opened again.
    class PostgreSQLListener final : public Listener {
    public:
        PostgreSQLListener(std::string address, std::string channel, std::function<void(const std::string&)> received)
            : address_(std::move(address)), channel_(std::move(channel)), received_(std::move(received)) {
            thread_ = std::thread([this] { run(); });
        }
        ~PostgreSQLListener() override {
            stopping_ = true;
            thread_.join();
        }

    private:
        void run() {
            while (!stopping_) {
                Connection connection(PQconnectdb(address_.c_str()));
                if (!connection || PQstatus(connection.get()) != CONNECTION_OK) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(500));
                    continue;
                }
                char* escaped = PQescapeIdentifier(connection.get(), channel_.c_str(), channel_.size());
                const std::string statement = std::string("LISTEN ") + (escaped ? escaped : "");
                PQfreemem(escaped);
                Result listening(PQexec(connection.get(), statement.c_str()));
                if (!listening || PQresultStatus(listening.get()) != PGRES_COMMAND_OK) continue;
                while (!stopping_ && PQstatus(connection.get()) == CONNECTION_OK) {
                    const int socket = PQsocket(connection.get());
                    pollfd descriptor{socket, POLLIN, 0};
                    if (::poll(&descriptor, 1, 200) < 0 && errno != EINTR) break;
                    if (!PQconsumeInput(connection.get())) break;
                    while (PGnotify* notification = PQnotifies(connection.get())) {
                        const std::string payload = notification->extra ? notification->extra : "";
                        PQfreemem(notification);
                        received_(payload);
                    }
                }
            }
        }

        const std::string address_;
        const std::string channel_;
        const std::function<void(const std::string&)> received_;
        std::atomic<bool> stopping_ = false;
        std::thread thread_;
    };

    Connection connect() {
        Connection connection(PQconnectdb(address_.c_str()));
        if (!connection || PQstatus(connection.get()) != CONNECTION_OK) {
            throw SQLBusy(std::string("cannot connect to PostgreSQL: ") +
                          (connection ? PQerrorMessage(connection.get()) : "out of memory"));
        }
        Result quiet(PQexec(connection.get(), "SET client_min_messages TO warning"));
        return connection;
    }

    Connection acquire() {
        std::unique_lock lock(mutex_);
        available_.wait(lock, [this] { return !idle_.empty() || opened_ < poolSize; });
        if (!idle_.empty()) {
            Connection connection = std::move(idle_.back());
            idle_.pop_back();
            lock.unlock();
            if (PQstatus(connection.get()) != CONNECTION_OK) PQreset(connection.get());
            return connection;
        }
        ++opened_;
        lock.unlock();
        try {
            return connect();
        } catch (...) {
            std::lock_guard relock(mutex_);
            --opened_;
            available_.notify_one();
            throw;
        }
    }

    void release(Connection connection) {
        {
            std::lock_guard lock(mutex_);
            idle_.push_back(std::move(connection));
        }
        available_.notify_one();
    }

    const std::string address_;
    std::mutex mutex_;
    std::condition_variable available_;
    std::vector<Connection> idle_;
    std::size_t opened_ = 0;
};

}  // namespace

std::unique_ptr<SQLDatabase> openPostgreSQLDatabase(const std::string& address) {
    return std::make_unique<PostgreSQLDatabase>(address);
}

}  // namespace tamsel::cloud
