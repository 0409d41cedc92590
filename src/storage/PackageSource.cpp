#include "storage/PackageSource.h"

#include <atomic>

namespace tamsel::storage {

namespace {
std::atomic<PackageSource*> registeredSource{nullptr};
}

PackageSource* PackageSource::shared() { return registeredSource.load(std::memory_order_acquire); }

void PackageSource::setShared(PackageSource* source) {
    registeredSource.store(source, std::memory_order_release);
}

}  // namespace tamsel::storage
