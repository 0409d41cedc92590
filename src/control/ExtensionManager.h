#pragma once

#include "control/EncodedBodyCache.h"
#include "model/ExtensionType.h"
#include "model/RawRepresentable.h"
#include "platform/Clock.h"
#include "platform/ContentBlockerManager.h"
#include "platform/DispatchGroup.h"
#include "platform/OperationQueue.h"
#include "platform/Synchronized.h"
#include "storage/ExtensionReloading.h"
#include "storage/RebuildSettler.h"
#include "storage/ReloadingResult.h"

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The one place through which the program rebuilds or reloads Safari's
// content-blocker extensions.
//
// It decides whether this process may write at all (the host application has
// priority over the toolbar extension), queues one SaveReloadOperation per
// extension on the save queue (two at a time), queues the reloads on their own
// queue (four at a time), retries the reload failures Safari produces at
// random, keeps a cache of which extensions the user enabled in Safari's
// settings, and tells the process about progress through notifications on the
// default centre, always posted on the main queue. Callers' completions run on
// the main queue too.
namespace tamsel::control {

class DataManager;

class ExtensionManager : public storage::ExtensionReloading,
                         public std::enable_shared_from_this<ExtensionManager> {
public:
    // Keys of the notifications' user info.
    enum class Key { extensionType, errorDescription, progress };

    // Who the manager works with and how it waits; empty members mean the
    // process-wide ones. Tests shorten or capture the retry wait.
    struct Configuration {
        // Whose package lists the save operations read and fill.
        DataManager* dataManager = nullptr;
        // Safari; looked up at each use when empty.
        std::shared_ptr<platform::ContentBlockerManager> contentBlockers;
        // Time between a reload that Safari failed at random and the next try.
        std::chrono::steady_clock::duration retryDelay = std::chrono::milliseconds(3000);
        // Tries after the first one before a random failure counts as final.
        int reloadAttemptLimit = 10;
        // Runs `block` once `delay` has passed. Empty: on the global
        // user-initiated queue.
        std::function<void(std::chrono::steady_clock::duration delay, std::function<void()> block)> scheduleAfter;
        // Times the long actions.
        const platform::Clock* clock = nullptr;
        // Told on the save queue's thread as each save operation starts
        // (true) and ends (false) its work, so that tests can see how many
        // run at once. Empty: nobody is told.
        std::function<void(model::ExtensionType extension, bool started)> saveObserver;
    };

    static constexpr std::string_view saveQueueName = "Write Safari JSON";
    static constexpr std::string_view reloadQueueName = "Reload Safari Extension";

    // The process's manager, made on first use; it installs itself as the
    // shared storage::ExtensionReloading so that every save elsewhere in the
    // program rebuilds through it.
    static std::shared_ptr<ExtensionManager> shared();
    // A manager of its own (tests, tools). Not installed anywhere.
    static std::shared_ptr<ExtensionManager> create();
    static std::shared_ptr<ExtensionManager> create(Configuration configuration);

    ~ExtensionManager() override;
    ExtensionManager(const ExtensionManager&) = delete;
    ExtensionManager& operator=(const ExtensionManager&) = delete;

    // --- Saving and reloading ------------------------------------------------------

    // Rebuilds and reloads one extension. A whitelist change made in the
    // custom extension rebuilds every enabled extension instead, because
    // whitelisting entries end every extension's file.
    void saveToJSONAndReload(model::ExtensionType extension, bool didChangeWhitelist,
                             storage::ReloadingCompletion completion) override;

    // Rebuilds and reloads every enabled extension but `except`, after
    // dropping all queued work, so that a burst of changes ends in one
    // rebuild. The completion runs once every queued extension has settled:
    // success when all reloaded, else the error of the first failed
    // extension in ExtensionType order. An extension that had nothing to
    // write counts as settled without a result. The long action
    // "Save-Reload All Extensions" ends at the same moment.
    void saveToJSONAndReloadAll(std::optional<model::ExtensionType> except,
                                storage::ReloadingCompletion mainCompletion) override;

    // Rebuilds and reloads, one by one, every extension that still owes a
    // rebuild (storage::RebuildLedger) and is not in `queued`: a process
    // that died between a package change and its rebuild, or a reload that
    // failed for good. Called when a writer starts, and by every save
    // request for the extensions it does not cover itself. Nothing happens
    // while this process may not write.
    void repairOwedRebuilds(const std::vector<model::ExtensionType>& queued = {});

    // Reloads the extension's file as it is on disk.
    void reloadWithoutSaving(model::ExtensionType extension, storage::ReloadingCompletion completion);
    // Reloads every enabled extension as its file is on disk; the completion
    // is aggregated as for saveToJSONAndReloadAll.
    void reloadAllWithoutSaving(storage::ReloadingCompletion completion);

    // Pause all blocking for an hour, or end the pause, and reload every
    // extension so that they see it.
    void pauseBlocking(storage::ReloadingCompletion completion);
    void resumeBlocking(storage::ReloadingCompletion completion);

    // The reload request: adds the extension to the reload queue. Saving
    // operations call it once their file is written.
    void reload(model::ExtensionType extension, storage::ReloadingCompletion completion);

    // --- Safari's view of the extensions ---------------------------------------------

    // The types Safari reports as enabled, in ExtensionType order, less
    // `except`. Answers on some other thread.
    void allEnabledExtensions(std::optional<model::ExtensionType> except,
                              std::function<void(std::vector<model::ExtensionType>)> completion);

    // Safari's last known enabled state of each extension; nothing while
    // unknown.
    std::optional<bool> cachedStatus(model::ExtensionType extension) const;
    // Asks Safari for the state of all eight extensions, writes the answers
    // into the cache, then posts "didUpdateExtensionStatusCache".
    void updateExtensionStatusCache();

    // --- Reloading map and progress -----------------------------------------------------

    bool isExtensionReloading(model::ExtensionType extension) const;
    void saveExtensionStatus(model::ExtensionType extension, bool reloading);
    int numberOfReloadingExtensions() const;

    // --- Notifications ------------------------------------------------------------------

    void postWillReloadNotification(model::ExtensionType extension, bool isWhitelist);
    // `result` absent: the reload was skipped (no error description).
    void postDidReloadNotification(model::ExtensionType extension, bool isWhitelist, std::optional<double> progress,
                                   const std::optional<storage::ReloadingResult>& result);
    void postDidUpdateExtensionStatusCacheNotification();

    // The extension is switched off in Safari's settings: posts
    // "Found Disabled Extension" and completes with disabledInSettings.
    void handleFoundDisabledExtension(model::ExtensionType extension, storage::ReloadingCompletion completion);

    // --- Identifiers ---------------------------------------------------------------------

    static std::string extensionID(model::ExtensionType type);
    static std::optional<model::ExtensionType> extensionType(std::string_view forID);

    // --- For the command line and tests ---------------------------------------------------

    // Whether nothing is queued, running or waiting for a retry, and every
    // rebuilt file is on disk.
    bool isIdle() const;
    // Runs the main queue until the manager is idle and the main queue has
    // nothing left, or `timeout` passed. Must be called on the main thread.
    bool waitUntilIdle(std::chrono::milliseconds timeout = std::chrono::minutes(10));

    // Drops the encoded rules kept from earlier rebuilds: the next rebuild of
    // each extension encodes all of its packages again (and keeps them).
    void forgetEncodedBodies() { bodies_->forgetAll(); }

    // Whether this process may write the Safari JSON files now: it is the
    // host application, or the toolbar extension while the host application
    // is not running.
    static bool mayWrite();

    struct Passkey {};
    ExtensionManager(Passkey, Configuration configuration);

private:
    class Batch;
    using StatusCache = std::map<model::ExtensionType, std::optional<bool>>;
    using ReloadingMap = std::map<model::ExtensionType, bool>;

    // A reload on its way through the queue and its retries.
    struct ReloadRequest {
        storage::ReloadingCompletion completion;
        // Called instead when the queue drops the reload before it ran.
        std::function<void()> onDropped;
    };
    void enqueueReload(model::ExtensionType extension, int attempt, ReloadRequest request);
    void handleReloadAnswer(model::ExtensionType extension, int attempt, const std::optional<platform::PlatformError>& error,
                            ReloadRequest request);
    // saveToJSONAndReload of one extension, without repairing the others.
    void saveOne(model::ExtensionType extension, storage::ReloadingCompletion completion);
    void addSaveOperation(model::ExtensionType extension, storage::ReloadingCompletion completion,
                          std::function<void()> onSkipped);
    void queryState(model::ExtensionType extension, std::function<void(std::optional<bool>)> answer);
    void reloadEach(std::vector<model::ExtensionType> extensions, storage::ReloadingCompletion completion);

    std::shared_ptr<platform::ContentBlockerManager> contentBlockers() const;
    DataManager& dataManager() const;
    const platform::Clock& clock() const;
    void scheduleAfter(std::chrono::steady_clock::duration delay, std::function<void()> block);

    Configuration configuration_;
    platform::OperationQueue saveQueue_;
    platform::OperationQueue reloadSafariOnlyQueue_;
    platform::Synchronized<StatusCache> synchronizedExtensionStatusCache_;
    platform::Synchronized<ReloadingMap> reloadingExtensions_;
    // What each extension's packages contributed to its file at its last
    // rebuild, for the next rebuild to take while it still holds.
    const std::shared_ptr<EncodedBodyCache> bodies_ = std::make_shared<EncodedBodyCache>();
    // Puts rebuilt files on disk after Safari has them, and settles their debts.
    const std::shared_ptr<storage::RebuildSettler> settler_ = std::make_shared<storage::RebuildSettler>();
    // Retries waiting for their delay, and cache refreshes in flight.
    std::atomic<int> pendingRetries_{0};
    std::atomic<int> pendingStateQueries_{0};
};

}  // namespace tamsel::control

namespace tamsel::model {
template <>
struct RawValueTable<control::ExtensionManager::Key> {
    static constexpr std::array<std::string_view, 3> rawValues{"extensionType", "errorDescription", "progress"};
};
}  // namespace tamsel::model
