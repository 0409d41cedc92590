#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>

// Whether the host application is running.
//
// There is no workspace to ask for running applications, so the host
// application announces itself with an exclusive flock() on a lock file in
// the group container for as long as it runs (HostPresence). The kernel drops
// the lock when the process ends, however it ends, so a crashed host never
// looks alive. isRunning() tries a shared lock on the same file without
// blocking: refused means a host holds it. Probes take a shared lock so that
// two processes probing at once never mistake each other for the host.
//
// Caveat: a child forked by the host without exec inherits the lock and
// keeps it until it exits; the lock file is opened close-on-exec.
namespace tamsel::settings {

class MainApp {
public:
    // The host application's bundle identifier (a build setting).
    static std::string mainAppBundleID();

    // "<group container>/host-application.lock", under the current data root.
    static std::filesystem::path lockFilePath();

    // Asks afresh on every call; never blocks, never creates the file.
    static bool isRunning();

    // The host application's side: holds the lock while it lives.
    class HostPresence {
    public:
        // Takes the lock; fails with a readable reason when the file cannot be
        // opened or another host application already holds it. Momentary
        // probes of other processes are waited out.
        static std::expected<HostPresence, std::string> acquire();

        HostPresence(HostPresence&& other) noexcept;
        HostPresence& operator=(HostPresence&& other) noexcept;
        HostPresence(const HostPresence&) = delete;
        HostPresence& operator=(const HostPresence&) = delete;
        ~HostPresence();

        // Gives the lock up early: the host application is quitting.
        void release();
        bool isHeld() const { return fd_ >= 0; }

    private:
        explicit HostPresence(int fd) : fd_(fd) {}
        int fd_ = -1;
    };

    // The stand-in for the workspace's termination notice: a small thread
    // that probes every `interval` and, the first time it finds no host
    // application running (at once, if none runs when it starts), calls
    // `onTermination` once, on that thread. Callers that need another queue
    // hop there themselves. Destroying the watcher stops it; after the
    // destructor returns the handler is not running and will not run. The
    // handler may destroy its own watcher.
    class TerminationWatcher {
    public:
        explicit TerminationWatcher(std::function<void()> onTermination,
                                    std::chrono::milliseconds interval = std::chrono::milliseconds(250));
        ~TerminationWatcher();
        TerminationWatcher(const TerminationWatcher&) = delete;
        TerminationWatcher& operator=(const TerminationWatcher&) = delete;

        // Whether the handler has been called.
        bool hasFired() const;

        struct State;

    private:
        std::shared_ptr<State> state_;
        std::thread thread_;
    };
};

}  // namespace tamsel::settings
