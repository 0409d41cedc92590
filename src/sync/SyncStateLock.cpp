#include "sync/SyncStateLock.h"

#include "platform/UserDefaults.h"

namespace tamsel::sync {
namespace {

std::mutex& threadMutex() {
    static std::mutex mutex;
    return mutex;
}

}  // namespace

SyncStateLock::SyncStateLock(const std::filesystem::path& lockFile) : threads_(threadMutex()) {
    if (lockFile.empty()) return;
    processes_ = std::make_unique<platform::InterProcessMutex>(lockFile);
    processes_->lock();
}

SyncStateLock::~SyncStateLock() {
    if (processes_) processes_->unlock();
}

std::filesystem::path syncStateLockFile(const std::shared_ptr<platform::Store>& standardDefaults) {
    const auto* defaults = dynamic_cast<const platform::UserDefaults*>(standardDefaults.get());
    if (!defaults || defaults->path().empty()) return {};
    return defaults->path().parent_path() / "sync-state.lock";
}

}  // namespace tamsel::sync
