#pragma once

#include <filesystem>
#include <mutex>

// A mutex that also excludes other processes: an exclusive flock(2) on a lock
// file. Use it where several programs of the product read, change and write
// back one stored value, so that two such updates never interleave and lose
// one of them.
//
// Meets BasicLockable, so std::lock_guard and std::unique_lock work with it.
// Threads of one process exclude each other as well, whether they share the
// object or each open their own on the same path: every lock() opens the
// file afresh, and flock(2) treats separate opens as separate owners.
//
// When the lock file cannot be opened or locked (a read-only folder, a file
// system without flock) the failure is logged and the lock degrades to the
// in-process mutex alone: the update still happens, only without the
// guarantee against other processes.
namespace tamsel::platform {

class InterProcessMutex {
public:
    // The file (and its folder) is created on first lock, never removed.
    explicit InterProcessMutex(std::filesystem::path lockFile);
    ~InterProcessMutex();

    InterProcessMutex(const InterProcessMutex&) = delete;
    InterProcessMutex& operator=(const InterProcessMutex&) = delete;

    void lock();
    void unlock();

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
    std::mutex threads_;
    int descriptor_ = -1;
};

}  // namespace tamsel::platform
