#include "storage/ExtensionReloading.h"

#include "platform/DispatchQueue.h"

#include <algorithm>

namespace tamsel::storage {

namespace {

std::mutex sharedMutex;
std::shared_ptr<ExtensionReloading> sharedReloading;

}  // namespace

std::shared_ptr<ExtensionReloading> ExtensionReloading::shared() {
    std::lock_guard lock(sharedMutex);
    if (!sharedReloading) sharedReloading = std::make_shared<RecordingExtensionReloading>();
    return sharedReloading;
}

void ExtensionReloading::setShared(std::shared_ptr<ExtensionReloading> reloading) {
    std::lock_guard lock(sharedMutex);
    sharedReloading = std::move(reloading);
}

RecordingExtensionReloading::RecordingExtensionReloading(std::shared_ptr<ExtensionReloading> target)
    : target_(std::move(target)) {}

void RecordingExtensionReloading::saveToJSONAndReload(model::ExtensionType extension, bool didChangeWhitelist,
                                                      ReloadingCompletion completion) {
    {
        std::lock_guard lock(mutex_);
        requests_.push_back({Request::Kind::one, extension, didChangeWhitelist, std::nullopt});
    }
    if (target_) {
        target_->saveToJSONAndReload(extension, didChangeWhitelist, std::move(completion));
    } else {
        complete(std::move(completion));
    }
}

void RecordingExtensionReloading::saveToJSONAndReloadAll(std::optional<model::ExtensionType> except,
                                                         ReloadingCompletion mainCompletion) {
    {
        std::lock_guard lock(mutex_);
        requests_.push_back({Request::Kind::all, std::nullopt, false, except});
    }
    if (target_) {
        target_->saveToJSONAndReloadAll(except, std::move(mainCompletion));
    } else {
        complete(std::move(mainCompletion));
    }
}

void RecordingExtensionReloading::complete(ReloadingCompletion completion) const {
    // Real reload results arrive on the main queue; so do these.
    if (completion) {
        platform::DispatchQueue::main().async([completion = std::move(completion)] { completion({}); });
    }
}

std::vector<RecordingExtensionReloading::Request> RecordingExtensionReloading::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void RecordingExtensionReloading::clear() {
    std::lock_guard lock(mutex_);
    requests_.clear();
}

std::vector<model::ExtensionType> RecordingExtensionReloading::extensionsToRebuild() const {
    std::vector<model::ExtensionType> result;
    const auto add = [&result](model::ExtensionType type) {
        if (std::find(result.begin(), result.end(), type) == result.end()) result.push_back(type);
    };
    for (const Request& request : requests()) {
        const bool everyExtension =
            request.kind == Request::Kind::all ||
            (request.didChangeWhitelist && request.extension == model::ExtensionType::customRules);
        if (!everyExtension) {
            add(*request.extension);
            continue;
        }
        for (model::ExtensionType type : model::allCases<model::ExtensionType>()) {
            if (type != request.except) add(type);
        }
    }
    return result;
}

}  // namespace tamsel::storage
