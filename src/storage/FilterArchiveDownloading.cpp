#include "storage/FilterArchiveDownloading.h"

#include <mutex>

namespace tamsel::storage {

namespace {

std::mutex sharedMutex;
std::shared_ptr<FilterArchiveDownloading> sharedDownloading;

}  // namespace

std::shared_ptr<FilterArchiveDownloading> FilterArchiveDownloading::shared() {
    std::lock_guard lock(sharedMutex);
    if (!sharedDownloading) sharedDownloading = std::make_shared<NoFilterArchiveDownloading>();
    return sharedDownloading;
}

void FilterArchiveDownloading::setShared(std::shared_ptr<FilterArchiveDownloading> downloading) {
    std::lock_guard lock(sharedMutex);
    sharedDownloading = std::move(downloading);
}

void NoFilterArchiveDownloading::downloadZippedRules(std::string /*identifier*/,
                                                     std::function<void(bool downloaded)> completion) {
    if (completion) completion(false);
}

}  // namespace tamsel::storage
