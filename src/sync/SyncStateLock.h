#pragma once

#include <filesystem>
#include <memory>
#include <mutex>

#include "platform/InterProcessMutex.h"
#include "platform/Store.h"

// Holds the sync state's lock file for one read-modify-write of the standard
// defaults' sync keys, so that two processes of one data root (a command and
// the long-running server) never lose each other's changes. With no file it
// excludes the threads of this process only.
namespace tamsel::sync {

class SyncStateLock {
public:
    explicit SyncStateLock(const std::filesystem::path& lockFile);
    ~SyncStateLock();
    SyncStateLock(const SyncStateLock&) = delete;
    SyncStateLock& operator=(const SyncStateLock&) = delete;

private:
    std::unique_lock<std::mutex> threads_;
    std::unique_ptr<platform::InterProcessMutex> processes_;
};

// "sync-state.lock" beside the standard defaults' file; empty for a store
// that is not a file.
std::filesystem::path syncStateLockFile(const std::shared_ptr<platform::Store>& standardDefaults);

}  // namespace tamsel::sync
