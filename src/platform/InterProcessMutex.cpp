#include "platform/InterProcessMutex.h"

#include "platform/Log.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace tamsel::platform {

namespace {
const SystemLogger logger("Files");
}

InterProcessMutex::InterProcessMutex(std::filesystem::path lockFile) : path_(std::move(lockFile)) {}

InterProcessMutex::~InterProcessMutex() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

void InterProcessMutex::lock() {
    threads_.lock();
    std::error_code ignored;
    std::filesystem::create_directories(path_.parent_path(), ignored);
    const int descriptor = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (descriptor < 0) {
        logger.error("Can't open lock file %s: %s", path_.c_str(), std::strerror(errno));
        return;
    }
    int result;
    do {
        result = ::flock(descriptor, LOCK_EX);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        logger.error("Can't lock %s: %s", path_.c_str(), std::strerror(errno));
        ::close(descriptor);
        return;
    }
    descriptor_ = descriptor;
}

void InterProcessMutex::unlock() {
    if (descriptor_ >= 0) {
        // Closing the only descriptor of this open releases the flock.
        ::close(descriptor_);
        descriptor_ = -1;
    }
    threads_.unlock();
}

}  // namespace tamsel::platform
