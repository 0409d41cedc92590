#include "storage/PackageFilesLock.h"

#include "platform/InterProcessMutex.h"
#include "storage/PathProvider.h"

#include <memory>
#include <mutex>

namespace tamsel::storage {

namespace {

constexpr char lockFileName[] = "package-files.lock";

// The thread that holds the lock, and how often it took it.
struct Holder {
    std::recursive_mutex threads;
    // Made at the outermost lock, so that it follows the data root.
    std::unique_ptr<platform::InterProcessMutex> processes;
    int depth = 0;
};

Holder& holder() {
    static auto* instance = new Holder();  // used until the process ends
    return *instance;
}

thread_local int heldByThisThread = 0;

}  // namespace

PackageFilesLock::PackageFilesLock() {
    Holder& shared = holder();
    shared.threads.lock();
    if (shared.depth++ == 0) {
        shared.processes = std::make_unique<platform::InterProcessMutex>(PathProvider::sharedContainerURL() / lockFileName);
        shared.processes->lock();
    }
    ++heldByThisThread;
}

PackageFilesLock::~PackageFilesLock() {
    Holder& shared = holder();
    --heldByThisThread;
    if (--shared.depth == 0) {
        shared.processes->unlock();
        shared.processes.reset();
    }
    shared.threads.unlock();
}

bool PackageFilesLock::isHeld() { return heldByThisThread > 0; }

}  // namespace tamsel::storage
