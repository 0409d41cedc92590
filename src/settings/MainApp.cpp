#include "settings/MainApp.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "platform/BuildConfig.h"
#include "platform/DataRoot.h"
#include "platform/Log.h"

namespace tamsel::settings {
namespace {

const platform::SystemLogger logger("MainApp");

int openLockFile(const std::filesystem::path& path, int flags) {
    int fd;
    do {
        fd = ::open(path.c_str(), flags | O_CLOEXEC, 0644);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

int lockFile(int fd, int operation) {
    int result;
    do {
        result = ::flock(fd, operation);
    } while (result != 0 && errno == EINTR);
    return result;
}

}  // namespace

std::string MainApp::mainAppBundleID() { return build::hostBundleIdentifier; }

std::filesystem::path MainApp::lockFilePath() {
    return platform::DataRoot::groupContainer() / "host-application.lock";
}

bool MainApp::isRunning() {
    const int fd = openLockFile(lockFilePath(), O_RDONLY);
    if (fd < 0) {
        // No lock file: no host application has ever run under this root.
        if (errno != ENOENT) platform::debugLog("Cannot open the host lock file: %s", std::strerror(errno));
        return false;
    }
    bool running = false;
    if (lockFile(fd, LOCK_SH | LOCK_NB) == 0) {
        lockFile(fd, LOCK_UN);
    } else if (errno == EWOULDBLOCK) {
        running = true;
    } else {
        platform::debugLog("Cannot probe the host lock file: %s", std::strerror(errno));
    }
    ::close(fd);
    return running;
}

std::expected<MainApp::HostPresence, std::string> MainApp::HostPresence::acquire() {
    const std::filesystem::path path = lockFilePath();
    std::error_code ignored;
    std::filesystem::create_directories(path.parent_path(), ignored);
    const int fd = openLockFile(path, O_RDWR | O_CREAT);
    if (fd < 0) return std::unexpected("cannot open " + path.string() + ": " + std::strerror(errno));

    // A probe holds its shared lock for microseconds; only a lock that stays
    // refused for this long belongs to another host application.
    constexpr auto patience = std::chrono::milliseconds(500);
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        if (lockFile(fd, LOCK_EX | LOCK_NB) == 0) return HostPresence(fd);
        const int error = errno;
        if (error != EWOULDBLOCK || std::chrono::steady_clock::now() >= deadline) {
            ::close(fd);
            if (error == EWOULDBLOCK) return std::unexpected("another host application holds " + path.string());
            return std::unexpected("cannot lock " + path.string() + ": " + std::strerror(error));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

MainApp::HostPresence::HostPresence(HostPresence&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }

MainApp::HostPresence& MainApp::HostPresence::operator=(HostPresence&& other) noexcept {
    if (this != &other) {
        release();
        fd_ = other.fd_;
        other.fd_ = -1;
    }
    return *this;
}

MainApp::HostPresence::~HostPresence() { release(); }

void MainApp::HostPresence::release() {
    if (fd_ < 0) return;
    lockFile(fd_, LOCK_UN);
    ::close(fd_);
    fd_ = -1;
}

struct MainApp::TerminationWatcher::State {
    std::mutex mutex;
    std::condition_variable wake;
    bool stopping = false;
    bool fired = false;
};

MainApp::TerminationWatcher::TerminationWatcher(std::function<void()> onTermination,
                                                std::chrono::milliseconds interval)
    : state_(std::make_shared<State>()) {
    // The thread holds its own reference to the state and the handler, so a
    // handler that destroys the watcher leaves both alive until it returns.
    thread_ = std::thread([state = state_, handler = std::move(onTermination), interval] {
        std::unique_lock lock(state->mutex);
        while (!state->stopping) {
            lock.unlock();
            const bool running = isRunning();
            lock.lock();
            if (state->stopping) return;
            if (!running) {
                state->fired = true;
                lock.unlock();
                handler();
                return;
            }
            state->wake.wait_for(lock, interval, [&] { return state->stopping; });
        }
    });
}

MainApp::TerminationWatcher::~TerminationWatcher() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->wake.notify_all();
    if (thread_.get_id() == std::this_thread::get_id()) {
        thread_.detach();
    } else {
        thread_.join();
    }
}

bool MainApp::TerminationWatcher::hasFired() const {
    std::lock_guard lock(state_->mutex);
    return state_->fired;
}

}  // namespace tamsel::settings
