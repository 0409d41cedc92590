#pragma once

#include "control/EncodedBodyCache.h"
#include "model/ExtensionType.h"
#include "platform/Operation.h"
#include "storage/RebuildSettler.h"
#include "storage/ReloadingResult.h"

#include <atomic>
#include <functional>
#include <memory>

// Rebuilds one content-blocker extension's Safari JSON file and then hands the
// extension to the reload queue.
//
// The file holds the blockers of the enabled, non-whitelisting rules of the
// packages that feed the extension, followed by every enabled whitelisting
// rule that applies to it: Safari applies an "ignore-previous-rules" entry
// only to what stands before it, so whitelisting entries always come last.
//
// Only the extension manager creates these, and runs them on its save queue.
// main() blocks its thread while package files are read on other queues.
namespace tamsel::control {

class DataManager;

class SaveReloadOperation : public platform::Operation {
public:
    // Adds an extension to the manager's reload queue; `completion` gets the
    // reload's result.
    using ReloadRequest = std::function<void(model::ExtensionType, storage::ReloadingCompletion)>;

    // `completion` is passed on to the reload request and never called by
    // the operation itself: an extension that ends up with nothing to write
    // is neither written nor reloaded, and its completion is never called.
    // With `allowsCancelling` false the operation runs to its end even when
    // cancelled after it started. `dataManager` must outlive the operation.
    // With `bodies`, what each package contributes to the file is taken from
    // there while it still holds, and kept there for the next rebuild;
    // without, everything is encoded afresh. The file is the same either way.
    // With `settler`, the file is reloaded before it is on disk and the
    // settler settles the extension's rebuild debt once it is; without, the
    // file is on disk before the reload is asked for.
    SaveReloadOperation(model::ExtensionType extensionType, bool allowsCancelling,
                        storage::ReloadingCompletion completion, DataManager& dataManager,
                        ReloadRequest reloadRequest, std::shared_ptr<EncodedBodyCache> bodies = nullptr,
                        std::shared_ptr<storage::RebuildSettler> settler = nullptr);

    void main() override;

    model::ExtensionType extensionType() const { return extensionType_; }
    bool allowsCancelling() const { return allowsCancelling_; }

    // Whether main() got as far as asking for the reload. False for an
    // operation that was dropped, cancelled or found nothing to write.
    bool didRequestReload() const { return didRequestReload_.load(); }

private:
    bool reachedCheckpointCancelled() const;

    const model::ExtensionType extensionType_;
    const bool allowsCancelling_;
    storage::ReloadingCompletion completion_;
    DataManager& dataManager_;
    ReloadRequest reloadRequest_;
    std::shared_ptr<EncodedBodyCache> bodies_;
    std::shared_ptr<storage::RebuildSettler> settler_;
    std::atomic<bool> didRequestReload_{false};
};

}  // namespace tamsel::control
