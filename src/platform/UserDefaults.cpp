#include "platform/UserDefaults.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <thread>

#include "platform/Log.h"
#include "platform/ValueCoding.h"

namespace tamsel::platform {
namespace {

const SystemLogger& logger() {
    static const SystemLogger instance("UserDefaults");
    return instance;
}

// How often the watcher looks for commits of other connections. Short enough
// that a signal from another process feels immediate, long enough to cost
// nothing while idle.
constexpr auto pollInterval = std::chrono::milliseconds(25);
constexpr int busyTimeoutMilliseconds = 5000;

// Every set or removal takes the next version of the whole database, so the
// watcher finds what changed since it last looked with one indexed query.
// A removal leaves its row behind with a NULL value, so that it can be seen.
constexpr const char* schema = R"sql(
CREATE TABLE IF NOT EXISTS entries (
    key     TEXT PRIMARY KEY NOT NULL,
    value   BLOB,
    version INTEGER NOT NULL
);
CREATE INDEX IF NOT EXISTS entries_by_version ON entries(version);
)sql";

struct Change {
    std::int64_t version = 0;
    std::string key;
    std::optional<Value> value;
    bool external = false;
};

struct Observer {
    std::optional<std::string> key;  // absent: every key
    UserDefaults::KeyHandler keyHandler;
    UserDefaults::ChangesHandler changesHandler;
    bool removed = false;  // guarded by Impl::observersMutex
};

std::expected<Value, std::string> decodeBlob(const SQLite::Column& column) {
    const auto* bytes = static_cast<const char*>(column.getBlob());
    return decodeValue(std::string_view(bytes, static_cast<std::size_t>(column.getBytes())));
}

std::optional<Value> decodeColumn(const SQLite::Column& column, const std::string& key) {
    if (column.isNull()) return std::nullopt;
    auto value = decodeBlob(column);
    if (!value) {
        logger().error("Ignoring the unreadable value stored for key \"%s\": %s", key.c_str(), value.error().c_str());
        return std::nullopt;
    }
    return std::move(*value);
}

}  // namespace

struct UserDefaults::Impl : std::enable_shared_from_this<UserDefaults::Impl> {
    std::string suiteName;
    std::filesystem::path path;

    // The connection and what the watcher knows about the file.
    mutable std::mutex databaseMutex;
    std::unique_ptr<SQLite::Database> database;
    std::int64_t lastSeenVersion = 0;
    std::int64_t lastDataVersion = 0;
    // Versions written here while older versions of other connections were
    // still unseen; the watcher must not report them as external.
    std::set<std::int64_t> ownUnseenVersions;
    bool watching = false;

    // Delivery. Lock order: databaseMutex before deliveryMutex.
    std::mutex deliveryMutex;
    std::condition_variable deliveryCondition;
    std::deque<Change> ownChanges;
    std::uint64_t flushesRequested = 0;
    std::uint64_t flushesServed = 0;
    bool stopping = false;
    std::thread watcher;
    std::atomic<std::thread::id> watcherId;

    std::mutex observersMutex;
    std::condition_variable observerFinished;
    std::vector<std::shared_ptr<Observer>> observers;
    std::shared_ptr<Observer> running;

    // --- database ----------------------------------------------------------

    std::int64_t maximumVersion() const {
        return database->execAndGet("SELECT COALESCE(MAX(version), 0) FROM entries").getInt64();
    }

    std::int64_t dataVersion() const { return database->execAndGet("PRAGMA data_version").getInt64(); }

    void write(const std::optional<Value>& value, const std::string& key) {
        if (value && value->exceedsMaximumDepth()) {
            logger().error("Could not write key \"%s\" of suite \"%s\": the value is nested deeper than %d levels",
                           key.c_str(), suiteName.c_str(), Value::maximumDepth);
            return;
        }
        std::lock_guard lock(databaseMutex);
        std::int64_t version = 0;
        std::int64_t previousMaximum = 0;
        try {
            SQLite::Transaction transaction(*database, SQLite::TransactionBehavior::IMMEDIATE);
            if (!value) {
                SQLite::Statement existing(*database, "SELECT 1 FROM entries WHERE key = ? AND value IS NOT NULL");
                existing.bind(1, key);
                if (!existing.executeStep()) return;  // nothing to remove, nothing to tell
            }
            previousMaximum = maximumVersion();
            version = previousMaximum + 1;
            SQLite::Statement upsert(*database,
                                     "INSERT INTO entries(key, value, version) VALUES(?, ?, ?) "
                                     "ON CONFLICT(key) DO UPDATE SET value = excluded.value, version = excluded.version");
            upsert.bind(1, key);
            if (value) {
                const std::string bytes = encodeValue(*value);
                upsert.bind(2, bytes.data(), static_cast<int>(bytes.size()));
            } else {
                upsert.bind(2);
            }
            upsert.bind(3, version);
            upsert.exec();
            transaction.commit();
        } catch (const std::exception& error) {
            logger().error("Could not write key \"%s\" of suite \"%s\": %s", key.c_str(), suiteName.c_str(),
                           error.what());
            return;
        }
        // Without observers nothing is delivered, and startWatching() starts
        // the bookkeeping afresh.
        if (!watching) return;
        if (previousMaximum == lastSeenVersion) {
            lastSeenVersion = version;
        } else {
            ownUnseenVersions.insert(version);
        }
        {
            std::lock_guard deliveryLock(deliveryMutex);
            ownChanges.push_back(Change{version, key, value, false});
            deliveryCondition.notify_all();
        }
    }

    // Changes committed by other connections since the last look, oldest
    // first, together with this connection's undelivered ones.
    std::vector<Change> collectChanges() {
        std::vector<Change> changes;
        std::lock_guard lock(databaseMutex);
        try {
            const std::int64_t current = dataVersion();
            if (current != lastDataVersion) {
                lastDataVersion = current;
                SQLite::Statement query(*database,
                                        "SELECT key, value, version FROM entries WHERE version > ? ORDER BY version");
                query.bind(1, lastSeenVersion);
                while (query.executeStep()) {
                    const std::int64_t version = query.getColumn(2).getInt64();
                    lastSeenVersion = std::max(lastSeenVersion, version);
                    if (ownUnseenVersions.erase(version) > 0) continue;
                    std::string key = query.getColumn(0).getString();
                    auto value = decodeColumn(query.getColumn(1), key);
                    changes.push_back(Change{version, std::move(key), std::move(value), true});
                }
                std::erase_if(ownUnseenVersions, [&](std::int64_t version) { return version <= lastSeenVersion; });
            }
        } catch (const std::exception& error) {
            // A busy or briefly unreadable file is retried on the next poll.
            debugLog("UserDefaults: polling suite \"%s\" failed: %s", suiteName.c_str(), error.what());
        }
        {
            std::lock_guard deliveryLock(deliveryMutex);
            changes.insert(changes.end(), std::make_move_iterator(ownChanges.begin()),
                           std::make_move_iterator(ownChanges.end()));
            ownChanges.clear();
        }
        std::stable_sort(changes.begin(), changes.end(),
                         [](const Change& a, const Change& b) { return a.version < b.version; });
        return changes;
    }

    // --- delivery ----------------------------------------------------------

    void startWatching() {
        std::lock_guard lock(databaseMutex);
        if (watching) return;
        // Observers hear of changes from now on, not of the file's history.
        try {
            lastSeenVersion = maximumVersion();
            lastDataVersion = dataVersion();
        } catch (const std::exception& error) {
            logger().error("Could not read suite \"%s\": %s", suiteName.c_str(), error.what());
        }
        ownUnseenVersions.clear();
        watching = true;
        // The thread keeps the state alive even when the store goes first
        // (a handler may drop the last reference to its own store).
        watcher = std::thread([self = shared_from_this()] { self->watch(); });
        watcherId = watcher.get_id();
    }

    void stopWatching() {
        std::thread thread;
        {
            std::lock_guard lock(databaseMutex);
            std::lock_guard deliveryLock(deliveryMutex);
            stopping = true;
            deliveryCondition.notify_all();
            thread = std::move(watcher);
        }
        if (!thread.joinable()) return;
        if (thread.get_id() == std::this_thread::get_id()) {
            thread.detach();
        } else {
            thread.join();
        }
    }

    void watch() {
        for (;;) {
            std::uint64_t flushTarget = 0;
            {
                std::unique_lock lock(deliveryMutex);
                deliveryCondition.wait_for(lock, pollInterval, [&] {
                    return stopping || !ownChanges.empty() || flushesRequested > flushesServed;
                });
                if (stopping) break;
                flushTarget = flushesRequested;
            }
            deliver(collectChanges());
            {
                std::lock_guard lock(deliveryMutex);
                flushesServed = std::max(flushesServed, flushTarget);
            }
            deliveryCondition.notify_all();
        }
        // Nobody waits for a flush that can no longer happen.
        std::lock_guard lock(deliveryMutex);
        flushesServed = flushesRequested;
        deliveryCondition.notify_all();
    }

    void deliver(const std::vector<Change>& changes) {
        std::size_t begin = 0;
        while (begin < changes.size()) {
            // A run of external changes is one batch, as it arrived together;
            // each change made here is a batch of its own.
            std::size_t end = begin + 1;
            if (changes[begin].external) {
                while (end < changes.size() && changes[end].external) ++end;
            }
            std::vector<std::string> keys;
            for (std::size_t i = begin; i < end; ++i) keys.push_back(changes[i].key);
            const bool external = changes[begin].external;

            std::vector<std::shared_ptr<Observer>> snapshot;
            {
                std::lock_guard lock(observersMutex);
                snapshot = observers;
            }
            for (const auto& observer : snapshot) {
                if (observer->key) {
                    for (std::size_t i = begin; i < end; ++i) {
                        if (changes[i].key == *observer->key) call(observer, [&] { observer->keyHandler(changes[i].value); });
                    }
                } else {
                    call(observer, [&] { observer->changesHandler(keys, external); });
                }
            }
            begin = end;
        }
    }

    template <class Body>
    void call(const std::shared_ptr<Observer>& observer, Body&& body) {
        {
            std::lock_guard lock(observersMutex);
            if (observer->removed) return;
            running = observer;
        }
        try {
            body();
        } catch (const std::exception& error) {
            logger().error("An observer of suite \"%s\" threw: %s", suiteName.c_str(), error.what());
        } catch (...) {
            logger().error("An observer of suite \"%s\" threw", suiteName.c_str());
        }
        {
            std::lock_guard lock(observersMutex);
            running.reset();
        }
        observerFinished.notify_all();
    }

    std::function<void()> add(std::shared_ptr<Observer> observer) {
        {
            std::lock_guard lock(observersMutex);
            observers.push_back(observer);
        }
        startWatching();
        return [weak = weak_from_this(), observer] {
            if (auto self = weak.lock()) self->remove(observer);
        };
    }

    void remove(const std::shared_ptr<Observer>& observer) {
        std::unique_lock lock(observersMutex);
        observer->removed = true;
        std::erase(observers, observer);
        // A handler that removes itself must not wait for itself.
        if (std::this_thread::get_id() == watcherId) return;
        observerFinished.wait(lock, [&] { return running != observer; });
    }

    void flush() {
        {
            std::lock_guard lock(databaseMutex);
            if (!watching) return;  // no observers ever: nothing to deliver
        }
        if (std::this_thread::get_id() == watcherId) return;
        std::unique_lock lock(deliveryMutex);
        if (stopping) return;
        const std::uint64_t ticket = ++flushesRequested;
        deliveryCondition.notify_all();
        deliveryCondition.wait(lock, [&] { return flushesServed >= ticket; });
    }
};

ObservationToken& ObservationToken::operator=(ObservationToken&& other) noexcept {
    if (this != &other) {
        reset();
        remove_ = std::exchange(other.remove_, nullptr);
    }
    return *this;
}

void ObservationToken::reset() {
    if (!remove_) return;
    auto remove = std::move(remove_);
    remove_ = nullptr;
    remove();
}

UserDefaults::UserDefaults(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

UserDefaults::~UserDefaults() { impl_->stopWatching(); }

namespace {

std::unique_ptr<SQLite::Database> openDatabase(const std::string& location, int extraFlags) {
    auto database = std::make_unique<SQLite::Database>(
        location, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE | SQLite::OPEN_FULLMUTEX | extraFlags,
        busyTimeoutMilliseconds);
    // WAL lets readers of other processes go on while one writes.
    database->exec("PRAGMA journal_mode = WAL");
    database->exec("PRAGMA synchronous = NORMAL");
    database->exec(schema);
    return database;
}

std::shared_ptr<UserDefaults::Impl> makeImpl(std::string suiteName, std::filesystem::path path,
                                             std::unique_ptr<SQLite::Database> database) {
    auto impl = std::make_shared<UserDefaults::Impl>();
    impl->suiteName = std::move(suiteName);
    impl->path = std::move(path);
    impl->database = std::move(database);
    impl->lastSeenVersion = impl->maximumVersion();
    impl->lastDataVersion = impl->dataVersion();
    return impl;
}

}  // namespace

std::shared_ptr<UserDefaults> UserDefaults::open(const std::filesystem::path& directory,
                                                 const std::string& suiteName) {
    const auto path = directory / (suiteName + ".sqlite");
    try {
        std::error_code error;
        std::filesystem::create_directories(directory, error);
        if (error) throw std::runtime_error("cannot create " + directory.string() + ": " + error.message());
        auto impl = makeImpl(suiteName, path, openDatabase(path.string(), 0));
        return std::shared_ptr<UserDefaults>(new UserDefaults(std::move(impl)));
    } catch (const std::exception& error) {
        logger().error("Could not open the defaults suite \"%s\" at %s: %s", suiteName.c_str(), path.c_str(),
                       error.what());
        return nullptr;
    }
}

std::shared_ptr<UserDefaults> UserDefaults::inMemory(const std::string& suiteName) {
    auto impl = makeImpl(suiteName, {}, openDatabase(":memory:", SQLite::OPEN_MEMORY));
    return std::shared_ptr<UserDefaults>(new UserDefaults(std::move(impl)));
}

const std::string& UserDefaults::suiteName() const { return impl_->suiteName; }

const std::filesystem::path& UserDefaults::path() const { return impl_->path; }

std::optional<Value> UserDefaults::value(const std::string& key) const {
    auto stored = storedValue(key);
    if (!stored) {
        logger().error("Ignoring the unreadable value stored for key \"%s\": %s", key.c_str(), stored.error().c_str());
        return std::nullopt;
    }
    return std::move(*stored);
}

std::expected<std::optional<Value>, std::string> UserDefaults::storedValue(const std::string& key) const {
    std::lock_guard lock(impl_->databaseMutex);
    try {
        SQLite::Statement query(*impl_->database, "SELECT value FROM entries WHERE key = ? AND value IS NOT NULL");
        query.bind(1, key);
        if (!query.executeStep()) return std::nullopt;
        auto value = decodeBlob(query.getColumn(0));
        if (!value) return std::unexpected(std::move(value.error()));
        return std::move(*value);
    } catch (const std::exception& error) {
        logger().error("Could not read key \"%s\" of suite \"%s\": %s", key.c_str(), impl_->suiteName.c_str(),
                       error.what());
        return std::nullopt;
    }
}

void UserDefaults::set(std::optional<Value> value, const std::string& key) { impl_->write(value, key); }

Dictionary UserDefaults::dictionaryRepresentation() const {
    Dictionary result;
    std::lock_guard lock(impl_->databaseMutex);
    try {
        SQLite::Statement query(*impl_->database, "SELECT key, value FROM entries WHERE value IS NOT NULL");
        while (query.executeStep()) {
            std::string key = query.getColumn(0).getString();
            if (auto value = decodeColumn(query.getColumn(1), key)) result.insert_or_assign(std::move(key), std::move(*value));
        }
    } catch (const std::exception& error) {
        logger().error("Could not read suite \"%s\": %s", impl_->suiteName.c_str(), error.what());
    }
    return result;
}

ObservationToken UserDefaults::observe(const std::string& key, KeyHandler handler) {
    auto observer = std::make_shared<Observer>();
    observer->key = key;
    observer->keyHandler = std::move(handler);
    return ObservationToken(impl_->add(std::move(observer)));
}

ObservationToken UserDefaults::observeAll(ChangesHandler handler) {
    auto observer = std::make_shared<Observer>();
    observer->changesHandler = std::move(handler);
    return ObservationToken(impl_->add(std::move(observer)));
}

void UserDefaults::deliverPendingChanges() { impl_->flush(); }

}  // namespace tamsel::platform
