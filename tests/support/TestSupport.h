#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Log.h"

// Helpers shared by every test suite. Include as "support/TestSupport.h".
namespace tamsel::testing {

// A fresh, empty folder under the system's temporary folder, removed with
// everything in it when the object goes.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::filesystem::path& child) const { return path_ / child; }

private:
    std::filesystem::path path_;
};

// Points the data root at a fresh temporary folder and drops the opened
// stores, so that Defaults, SharedDefaults and UbiquitousStore start empty
// under it. On destruction the stores are dropped again and the previous
// data root comes back.
class ScopedDataRoot {
public:
    ScopedDataRoot();
    ~ScopedDataRoot();
    ScopedDataRoot(const ScopedDataRoot&) = delete;
    ScopedDataRoot& operator=(const ScopedDataRoot&) = delete;

    const std::filesystem::path& home() const { return directory_.path(); }

private:
    std::optional<std::filesystem::path> previous_;
    TemporaryDirectory directory_;
};

// Sets (or, with std::nullopt, unsets) an environment variable and restores
// the previous state on destruction. Not for use while other threads read the
// environment.
class ScopedEnvironmentVariable {
public:
    ScopedEnvironmentVariable(std::string name, std::optional<std::string> value);
    ~ScopedEnvironmentVariable();
    ScopedEnvironmentVariable(const ScopedEnvironmentVariable&) = delete;
    ScopedEnvironmentVariable& operator=(const ScopedEnvironmentVariable&) = delete;

private:
    std::string name_;
    std::optional<std::string> previous_;
};

// Collects every log record while it lives (the lines still reach their
// streams unless `silence` is true). Thread-safe.
class LogCapture {
public:
    explicit LogCapture(bool silence = true);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<platform::LogRecord> records() const;
    // The console (standard output) lines, in order.
    std::vector<std::string> lines() const;
    // The messages of every outlet, in order.
    std::vector<std::string> messages() const;
    // Whether any record of any outlet contains `text`.
    bool contains(std::string_view text) const;

private:
    mutable std::mutex mutex_;
    std::vector<platform::LogRecord> records_;
    platform::LogSink previous_;
};

// Forks; the child runs `body` and exits with its result (1 when it throws).
// Returns the child's exit status, or 128 + signal when it was killed.
// The child shares the parent's memory image, so it should only do simple
// things: no threads (ThreadSanitizer ends such children) and no SQLite
// connections to files that the parent has open. Use runChildEntry for those.
int runChildProcess(const std::function<int()>& body);

// A child process in a fresh image of this test program: forks, execs this
// executable with the entry's name, and there runs the entry registered with
// TAMSEL_CHILD_ENTRY(name) instead of the tests. The child sees the current
// data root as $TAMSEL_HOME. Returns the exit status as runChildProcess does.
int runChildEntry(const std::string& name, const std::vector<std::string>& arguments = {});

using ChildEntry = int (*)(const std::vector<std::string>& arguments);
bool registerChildEntry(const char* name, ChildEntry entry);

// Polls `condition` every few milliseconds until it holds or `timeout`
// passes; returns whether it held. For waiting on other threads and processes.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace tamsel::testing

// Defines a child entry point:
//   TAMSEL_CHILD_ENTRY(writeFlag) { ...; return 0; }   // `arguments` in scope
#define TAMSEL_CHILD_ENTRY(name)                                                                  \
    static int tamselChildEntry_##name(const std::vector<std::string>& arguments);               \
    [[maybe_unused]] static const bool tamselChildEntryRegistered_##name =                        \
        ::tamsel::testing::registerChildEntry(#name, &tamselChildEntry_##name);                   \
    static int tamselChildEntry_##name([[maybe_unused]] const std::vector<std::string>& arguments)
