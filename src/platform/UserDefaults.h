#pragma once

#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Store.h"

// A user-defaults suite persisted in SQLite: one database file per suite,
// "<directory>/<suite>.sqlite", in WAL mode with a busy timeout, so that
// several processes (the host application, the agent, this extension) and
// several threads may read and write it at once. Values keep their exact
// property-list type.
//
// Observation. Observers hear of every set and removal of a key, whether made
// through this object or by another connection to the same file (another
// process, or another UserDefaults object of this process). Changes of other
// connections are noticed by polling the database's data version a few dozen
// times a second. Writing the same value again is a change too: a signal
// that is sent twice is heard twice. Several writes of another process that
// land between two polls are heard once, with the latest value.
//
// Handlers run on a background thread owned by this object, one call at a
// time and in the order of the changes. They may read and write stores
// (a write from a handler is delivered after the handler returns) and may
// drop tokens, their own included.
namespace tamsel::platform {

class UserDefaults;

// Keeps an observation alive. Destroying or resetting the token removes it;
// when that returns, the handler is not running and will not run again
// (unless the token is dropped by the handler itself, which then finishes).
class ObservationToken {
public:
    ObservationToken() = default;
    ObservationToken(ObservationToken&& other) noexcept : remove_(std::exchange(other.remove_, nullptr)) {}
    ObservationToken& operator=(ObservationToken&& other) noexcept;
    ObservationToken(const ObservationToken&) = delete;
    ObservationToken& operator=(const ObservationToken&) = delete;
    ~ObservationToken() { reset(); }

    void reset();
    bool isActive() const { return static_cast<bool>(remove_); }

private:
    friend class UserDefaults;
    explicit ObservationToken(std::function<void()> remove) : remove_(std::move(remove)) {}
    std::function<void()> remove_;
};

class UserDefaults : public Store {
public:
    // Opens (creating it and its directory if needed) the suite's database.
    // Returns nullptr, after logging why, when that fails.
    static std::shared_ptr<UserDefaults> open(const std::filesystem::path& directory,
                                              const std::string& suiteName);

    // A suite that lives in memory only, seen by no other connection. The
    // last resort when no file can be opened.
    static std::shared_ptr<UserDefaults> inMemory(const std::string& suiteName);

    ~UserDefaults() override;
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    const std::string& suiteName() const;
    // The database file; empty for an in-memory suite.
    const std::filesystem::path& path() const;

    // A stored value that cannot be decoded (another program's bytes, or a
    // value nested deeper than Value::maximumDepth) reads as absent, with a
    // line in the log; storedValue() says why.
    std::optional<Value> value(const std::string& key) const override;
    // A value nested deeper than Value::maximumDepth is not stored; a line in
    // the log says so.
    void set(std::optional<Value> value, const std::string& key) override;
    void synchronize() override {}

    // The value under `key`: absent when there is none, the reason when the
    // stored bytes cannot be decoded.
    std::expected<std::optional<Value>, std::string> storedValue(const std::string& key) const;
    Dictionary dictionaryRepresentation() const override;

    using KeyHandler = std::function<void(const std::optional<Value>& newValue)>;
    // `changedKeys` in the order of the changes; `external` is true when the
    // changes came from another connection.
    using ChangesHandler = std::function<void(const std::vector<std::string>& changedKeys, bool external)>;

    // Calls `handler` with the new value (nullopt after a removal) whenever
    // `key` is set or removed.
    [[nodiscard]] ObservationToken observe(const std::string& key, KeyHandler handler);

    // Calls `handler` with the keys changed by each batch of changes.
    [[nodiscard]] ObservationToken observeAll(ChangesHandler handler);

    // Checks for changes of other connections now and waits until the
    // handlers have been called for every change made before this call.
    // Returns at once when called from a handler. Meant for tests and for
    // orderly shutdown.
    void deliverPendingChanges();

    struct Impl;

private:
    explicit UserDefaults(std::shared_ptr<Impl> impl);
    std::shared_ptr<Impl> impl_;
};

}  // namespace tamsel::platform
