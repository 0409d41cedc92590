#include "control/ExtensionManager.h"

#include "control/DataManager.h"
#include "control/SaveReloadOperation.h"
#include "platform/BuildConfig.h"
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "platform/MainRunLoop.h"
#include "platform/NotificationCenter.h"
#include "platform/Text.h"
#include "settings/App.h"
#include "settings/LongActionExecutor.h"
#include "settings/MainApp.h"
#include "settings/NotificationNames.h"
#include "storage/RebuildLedger.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <utility>

namespace tamsel::control {

namespace {

using model::ExtensionType;
using storage::ReloadingCompletion;
using storage::ReloadingError;
using storage::ReloadingResult;
namespace Names = settings::NotificationNames;

using platform::lowercased;

std::string lockLabel(std::string_view what) {
    return lowercased(std::string(build::baseIdentifier)) + "." + std::string(what);
}

template <class Value>
std::map<ExtensionType, Value> mapOfAllTypes(Value value) {
    std::map<ExtensionType, Value> map;
    for (ExtensionType type : model::allCases<ExtensionType>()) map.emplace(type, value);
    return map;
}

void onMain(std::function<void()> block) { platform::DispatchQueue::main().async(std::move(block)); }

// Safari fails reloads now and then for no reason of ours; these two codes
// are worth another try.
bool isRandomSafariFailure(const platform::PlatformError& error) { return error.code == 3 || error.code == 4097; }

std::string key(ExtensionManager::Key key) { return std::string(model::rawValue(key)); }

}  // namespace

// The extensions of one save-all or reload-all request: collects their
// results and completes the request once every one of them has settled.
class ExtensionManager::Batch {
public:
    Batch(std::vector<ExtensionType> extensions, ReloadingCompletion completion,
          settings::LongActionExecutor::Finish finishLongAction)
        : remaining_(extensions.begin(), extensions.end()),
          total_(extensions.size()),
          completion_(std::move(completion)),
          finishLongAction_(std::move(finishLongAction)) {}

    // Records the extension's outcome (none: it had nothing to write) and
    // returns the fraction of the batch done.
    double settle(ExtensionType extension, const std::optional<ReloadingResult>& result) {
        ReloadingCompletion completion;
        std::optional<ReloadingResult> outcome;
        double progress = 1.0;
        {
            std::lock_guard lock(mutex_);
            if (remaining_.erase(extension) == 0) return done();
            if (result && !*result) failures_.emplace(extension, result->error());
            progress = doneLocked();
            if (!remaining_.empty()) return progress;
            completion = std::move(completion_);
            outcome = failures_.empty() ? ReloadingResult{} : ReloadingResult(std::unexpected(failures_.begin()->second));
        }
        if (finishLongAction_) finishLongAction_();
        if (completion) completion(*outcome);
        return progress;
    }

private:
    double done() {
        std::lock_guard lock(mutex_);
        return doneLocked();
    }
    double doneLocked() const {
        return total_ == 0 ? 1.0 : static_cast<double>(total_ - remaining_.size()) / static_cast<double>(total_);
    }

    std::mutex mutex_;
    std::set<ExtensionType> remaining_;
    const std::size_t total_;
    std::map<ExtensionType, ReloadingError> failures_;
    ReloadingCompletion completion_;
    settings::LongActionExecutor::Finish finishLongAction_;
};

// --- Making ---------------------------------------------------------------------------

std::shared_ptr<ExtensionManager> ExtensionManager::shared() {
    static std::mutex mutex;
    // Never destroyed: worker threads may still answer while the process exits.
    static auto* instance = new std::shared_ptr<ExtensionManager>();
    std::lock_guard lock(mutex);
    if (!*instance) {
        *instance = create();
        storage::ExtensionReloading::setShared(*instance);
    }
    return *instance;
}

std::shared_ptr<ExtensionManager> ExtensionManager::create() { return create(Configuration{}); }

std::shared_ptr<ExtensionManager> ExtensionManager::create(Configuration configuration) {
    return std::make_shared<ExtensionManager>(Passkey{}, std::move(configuration));
}

ExtensionManager::ExtensionManager(Passkey, Configuration configuration)
    : configuration_(std::move(configuration)),
      saveQueue_(std::string(saveQueueName)),
      reloadSafariOnlyQueue_(std::string(reloadQueueName)),
      synchronizedExtensionStatusCache_(lockLabel("extension-status-lock"),
                                        mapOfAllTypes<std::optional<bool>>(std::nullopt)),
      reloadingExtensions_(lockLabel("extension-reloading-lock"), mapOfAllTypes(false)) {
    saveQueue_.setMaxConcurrentOperationCount(2);
    saveQueue_.setQualityOfService(platform::QualityOfService::userInitiated);
    reloadSafariOnlyQueue_.setMaxConcurrentOperationCount(4);
    reloadSafariOnlyQueue_.setQualityOfService(platform::QualityOfService::userInitiated);
}

ExtensionManager::~ExtensionManager() {
    saveQueue_.cancelAllOperations();
    reloadSafariOnlyQueue_.cancelAllOperations();
}

std::shared_ptr<platform::ContentBlockerManager> ExtensionManager::contentBlockers() const {
    return configuration_.contentBlockers ? configuration_.contentBlockers
                                          : platform::ContentBlockerManager::shared();
}

DataManager& ExtensionManager::dataManager() const {
    return configuration_.dataManager ? *configuration_.dataManager : DataManager::shared();
}

const platform::Clock& ExtensionManager::clock() const {
    return configuration_.clock ? *configuration_.clock : platform::Clock::system();
}

void ExtensionManager::scheduleAfter(std::chrono::steady_clock::duration delay, std::function<void()> block) {
    if (configuration_.scheduleAfter) {
        configuration_.scheduleAfter(delay, std::move(block));
    } else {
        platform::DispatchQueue::global(platform::QualityOfService::userInitiated).asyncAfter(delay, std::move(block));
    }
}

// --- Identifiers -------------------------------------------------------------------------

std::string ExtensionManager::extensionID(ExtensionType type) { return model::bundleIdentifier(type); }

std::optional<ExtensionType> ExtensionManager::extensionType(std::string_view forID) {
    return model::extensionTypeFromBundleIdentifier(forID);
}

bool ExtensionManager::mayWrite() {
    if (settings::App::isMacMainApp()) return true;
    return settings::App::isMacButtonExtension() && !settings::MainApp::isRunning();
}

// --- Saving ----------------------------------------------------------------------------------

void ExtensionManager::saveToJSONAndReload(ExtensionType extension, bool didChangeWhitelist,
                                           ReloadingCompletion completion) {
    if (!mayWrite()) {
        platform::consolePrint("Ignoring saveToJSONAndReload, because Main app is running and this is not Main app.");
        if (completion) onMain([completion = std::move(completion)] { completion(ReloadingResult{}); });
        return;
    }
    if (didChangeWhitelist && extension == ExtensionType::customRules) {
        saveToJSONAndReloadAll(std::nullopt, std::move(completion));
        return;
    }
    saveOne(extension, std::move(completion));
    repairOwedRebuilds({extension});
}

void ExtensionManager::repairOwedRebuilds(const std::vector<ExtensionType>& queued) {
    if (!mayWrite()) return;
    for (ExtensionType extension : storage::RebuildLedger::owed()) {
        if (std::find(queued.begin(), queued.end(), extension) != queued.end()) continue;
        platform::consolePrint("Rebuilding \"" + model::localizedName(extension) +
                               "\" extension, which still owes a rebuild");
        saveOne(extension, {});
    }
}

void ExtensionManager::saveOne(ExtensionType extension, ReloadingCompletion completion) {
    const std::string displayName = model::localizedName(extension);
    platform::consolePrint("Starting to save JSON and reloading Safari for \"" + displayName + "\" extension");
    postWillReloadNotification(extension, false);
    auto finishLongAction = settings::LongActionExecutor::start("Reload Extension " + displayName, clock());

    auto self = shared_from_this();
    ++pendingStateQueries_;
    queryState(extension, [self, extension, completion = std::move(completion),
                           finishLongAction](std::optional<bool> enabled) mutable {
        if (!settings::App::isMacButtonExtension() && enabled != true) {
            self->postDidReloadNotification(extension, false, std::nullopt, std::nullopt);
            finishLongAction();
            self->handleFoundDisabledExtension(extension, std::move(completion));
        } else {
            self->saveExtensionStatus(extension, true);
            auto settled = [self, extension, finishLongAction](const std::optional<ReloadingResult>& result) {
                self->saveExtensionStatus(extension, false);
                finishLongAction();
                self->postDidReloadNotification(extension, false, std::nullopt, result);
            };
            self->addSaveOperation(
                extension,
                [settled, completion = std::move(completion)](ReloadingResult result) {
                    settled(result);
                    if (completion) completion(std::move(result));
                },
                [settled] { settled(std::nullopt); });
        }
        --self->pendingStateQueries_;
    });
}

void ExtensionManager::saveToJSONAndReloadAll(std::optional<ExtensionType> except,
                                              ReloadingCompletion mainCompletion) {
    if (!mayWrite()) {
        platform::consolePrint(
            "Ignoring saveToJSONAndReloadAll, because Main app is running and this is not Main app.");
        if (mainCompletion) onMain([completion = std::move(mainCompletion)] { completion(ReloadingResult{}); });
        return;
    }
    platform::consolePrint(except ? "Saving JSON and reloading ALL Safari extensions, except " +
                                        model::localizedName(*except) + "."
                                  : std::string("Saving JSON and reloading ALL Safari extensions."));
    postWillReloadNotification(ExtensionType::customRules, true);
    saveQueue_.cancelAllOperations();
    reloadSafariOnlyQueue_.cancelAllOperations();
    platform::consolePrint("Canceled all prior reload operations to make it faster");
    auto finishLongAction = settings::LongActionExecutor::start("Save-Reload All Extensions", clock());

    auto self = shared_from_this();
    ++pendingStateQueries_;
    allEnabledExtensions(except, [self, except, finishLongAction, mainCompletion = std::move(mainCompletion)](
                                     std::vector<ExtensionType> extensions) mutable {
        if (extensions.empty()) {
            if (settings::App::isMacButtonExtension()) {
                const auto all = model::allCases<ExtensionType>();
                extensions.assign(all.begin(), all.end());
            } else {
                finishLongAction();
                platform::consolePrint("No enabled extensions found");
                --self->pendingStateQueries_;
                return;
            }
        }
        auto covered = extensions;
        if (except) covered.push_back(*except);
        auto batch = std::make_shared<Batch>(extensions, std::move(mainCompletion), finishLongAction);
        for (ExtensionType extension : extensions) {
            auto settled = [self, batch, extension](const std::optional<ReloadingResult>& result) {
                self->saveExtensionStatus(extension, false);
                const double progress = batch->settle(extension, result);
                self->postDidReloadNotification(extension, true, progress, result);
            };
            self->saveExtensionStatus(extension, true);
            self->addSaveOperation(
                extension, [settled](ReloadingResult result) { settled(result); },
                [settled] { onMain([settled] { settled(std::nullopt); }); });
        }
        self->repairOwedRebuilds(covered);
        --self->pendingStateQueries_;
    });
}

namespace {

// A save operation whose start and end of work the configuration's observer hears of.
class ObservedSaveReloadOperation final : public SaveReloadOperation {
public:
    template <class... Arguments>
    ObservedSaveReloadOperation(std::function<void(ExtensionType, bool)> observer, ExtensionType extension,
                                Arguments&&... arguments)
        : SaveReloadOperation(extension, std::forward<Arguments>(arguments)...),
          observer_(std::move(observer)),
          extension_(extension) {}

    void main() override {
        if (observer_) observer_(extension_, true);
        SaveReloadOperation::main();
        if (observer_) observer_(extension_, false);
    }

private:
    std::function<void(ExtensionType, bool)> observer_;
    ExtensionType extension_;
};

}  // namespace

void ExtensionManager::addSaveOperation(ExtensionType extension, ReloadingCompletion completion,
                                        std::function<void()> onSkipped) {
    std::weak_ptr<ExtensionManager> weak = weak_from_this();
    auto operation = std::make_shared<ObservedSaveReloadOperation>(
        configuration_.saveObserver, extension, false, std::move(completion), dataManager(),
        [weak, onSkipped](ExtensionType type, ReloadingCompletion reloadCompletion) {
            // A newer save-all may drop the queued reload; the extension then
            // counts as skipped here, and the newer request reloads it.
            if (auto self = weak.lock()) self->enqueueReload(type, 0, {std::move(reloadCompletion), onSkipped});
        },
        bodies_, settler_);
    // Runs when the operation is finished, also when the queue dropped it.
    std::weak_ptr<SaveReloadOperation> weakOperation = operation;
    operation->setCompletionBlock([weakOperation, onSkipped = std::move(onSkipped)] {
        auto finished = weakOperation.lock();
        if (!finished || !finished->didRequestReload()) onSkipped();
    });
    platform::consolePrint("Adding extension \"" + model::localizedName(extension) + "\" to save queue");
    saveQueue_.addOperation(std::move(operation));
}

// --- Reloading ---------------------------------------------------------------------------------

void ExtensionManager::reload(ExtensionType extension, ReloadingCompletion completion) {
    enqueueReload(extension, 0, {std::move(completion), {}});
}

void ExtensionManager::enqueueReload(ExtensionType extension, int attempt, ReloadRequest request) {
    const std::string displayName = model::localizedName(extension);
    platform::consolePrint("Adding extension \"" + displayName + "\" to Safari reload queue");
    std::weak_ptr<ExtensionManager> weak = weak_from_this();
    auto blockers = contentBlockers();
    auto started = std::make_shared<std::atomic<bool>>(false);
    auto onDropped = request.onDropped;
    auto operation = platform::BlockOperation::make([weak, blockers, extension, attempt, displayName, started,
                                                     request = std::move(request)]() mutable {
        started->store(true);
        platform::consolePrint("♻️ Starting to reload extension " + displayName);
        // The operation keeps its slot on the queue until Safari answers.
        platform::DispatchGroup answered;
        answered.enter();
        blockers->reloadContentBlocker(
            extensionID(extension), [&answered, weak, extension, attempt,
                                     request = std::move(request)](std::optional<platform::PlatformError> error) {
                onMain([weak, extension, attempt, error = std::move(error), request]() mutable {
                    if (auto self = weak.lock()) self->handleReloadAnswer(extension, attempt, error, std::move(request));
                });
                answered.leave();
            });
        answered.wait();
    });
    // Cancelled before it ran: the queue dropped it.
    operation->setCompletionBlock([started, onDropped = std::move(onDropped)] {
        if (!started->load() && onDropped) onDropped();
    });
    reloadSafariOnlyQueue_.addOperation(std::move(operation));
}

void ExtensionManager::handleReloadAnswer(ExtensionType extension, int attempt,
                                          const std::optional<platform::PlatformError>& error,
                                          ReloadRequest request) {
    const std::string displayName = model::localizedName(extension);
    auto& completion = request.completion;
    if (!error) {
        platform::consolePrint("✅ Reloaded extension: " + displayName);
        if (completion) completion(ReloadingResult{});
        return;
    }
    const int limit = configuration_.reloadAttemptLimit;
    if (isRandomSafariFailure(*error) && attempt < limit) {
        platform::consolePrint("⚠️ Couldn't reload \"" + displayName + "\" - Safari randomly returned error: " +
                               error->description() + " (" + std::to_string(error->code) + ")");
        platform::consolePrint("Trying to reload \"" + displayName + "\" again: attempts " +
                               std::to_string(attempt + 1) + "/" + std::to_string(limit));
        ++pendingRetries_;
        std::weak_ptr<ExtensionManager> weak = weak_from_this();
        scheduleAfter(configuration_.retryDelay, [weak, extension, attempt, request = std::move(request)]() mutable {
            if (auto self = weak.lock()) {
                self->enqueueReload(extension, attempt + 1, std::move(request));
                --self->pendingRetries_;
            }
        });
        return;
    }
    platform::consolePrint("❌ Error reloading \"" + displayName + "\" Safari JSON: " + error->preferredText());
    const auto failure = ReloadingError::safariReturnedError(error->domain, error->code, error->preferredText());
    postDidReloadNotification(extension, false, std::nullopt, ReloadingResult(std::unexpected(failure)));
    if (completion) completion(std::unexpected(failure));
}

void ExtensionManager::reloadWithoutSaving(ExtensionType extension, ReloadingCompletion completion) {
    auto self = shared_from_this();
    ++pendingStateQueries_;
    queryState(extension, [self, extension, completion = std::move(completion)](std::optional<bool> enabled) mutable {
        if (!settings::App::isMacButtonExtension() && enabled != true) {
            self->handleFoundDisabledExtension(extension, std::move(completion));
        } else {
            self->reload(extension, std::move(completion));
        }
        --self->pendingStateQueries_;
    });
}

void ExtensionManager::reloadAllWithoutSaving(ReloadingCompletion completion) {
    auto self = shared_from_this();
    ++pendingStateQueries_;
    allEnabledExtensions(std::nullopt, [self, completion = std::move(completion)](
                                           std::vector<ExtensionType> extensions) mutable {
        if (extensions.empty() && settings::App::isMacButtonExtension()) {
            const auto all = model::allCases<ExtensionType>();
            extensions.assign(all.begin(), all.end());
        }
        self->reloadEach(std::move(extensions), std::move(completion));
        --self->pendingStateQueries_;
    });
}

void ExtensionManager::reloadEach(std::vector<ExtensionType> extensions, ReloadingCompletion completion) {
    if (extensions.empty()) {
        if (completion) onMain([completion = std::move(completion)] { completion(ReloadingResult{}); });
        return;
    }
    auto batch = std::make_shared<Batch>(extensions, std::move(completion), settings::LongActionExecutor::Finish{});
    for (ExtensionType extension : extensions) {
        enqueueReload(extension, 0,
                      {[batch, extension](ReloadingResult result) { batch->settle(extension, result); },
                       [batch, extension] { onMain([batch, extension] { batch->settle(extension, std::nullopt); }); }});
    }
}

void ExtensionManager::handleFoundDisabledExtension(ExtensionType extension, ReloadingCompletion completion) {
    platform::SystemLogger("ExtensionManager")
        .error("%s", ("Error reloading extension " + std::string(model::rawValue(extension)) +
                      ": disabled in Settings")
                         .c_str());
    onMain([extension, completion = std::move(completion)] {
        platform::NotificationCenter::defaultCenter().post(Names::foundDisabledExtension, extension);
        if (completion) completion(std::unexpected(ReloadingError::disabledInSettings()));
    });
}

// --- Safari's view -----------------------------------------------------------------------------

void ExtensionManager::queryState(ExtensionType extension, std::function<void(std::optional<bool>)> answer) {
    auto self = shared_from_this();
    const std::string identifier = extensionID(extension);
    contentBlockers()->getStateOfContentBlocker(
        identifier, [self, extension, identifier, answer = std::move(answer)](
                        std::optional<platform::ContentBlockerState> state, std::optional<platform::PlatformError> error) {
            std::optional<bool> enabled;
            if (state) {
                enabled = state->isEnabled;
            } else {
                platform::consolePrint("Can't check '" + identifier + "' extension state: " +
                                       (error ? error->description() : std::string("no answer")));
            }
            const std::optional<bool> cached = self->cachedStatus(extension);
            self->synchronizedExtensionStatusCache_.write(
                [extension, enabled](StatusCache& cache) { cache[extension] = enabled; });
            if (enabled == true && cached == false) {
                platform::consolePrint(model::localizedName(extension) +
                                       " extension was disabled in Safari settings. User has just turned it on. "
                                       "Reloading it now...");
            }
            answer(enabled);
        });
}

std::optional<bool> ExtensionManager::cachedStatus(ExtensionType extension) const {
    return synchronizedExtensionStatusCache_.read([extension](const StatusCache& cache) -> std::optional<bool> {
        auto found = cache.find(extension);
        return found == cache.end() ? std::nullopt : found->second;
    });
}

void ExtensionManager::allEnabledExtensions(std::optional<ExtensionType> except,
                                            std::function<void(std::vector<ExtensionType>)> completion) {
    struct Answers {
        std::mutex mutex;
        std::map<ExtensionType, bool> enabled;
    };
    auto answers = std::make_shared<Answers>();
    auto group = std::make_shared<platform::DispatchGroup>();
    for (ExtensionType extension : model::allCases<ExtensionType>()) {
        group->enter();
        queryState(extension, [answers, group, extension](std::optional<bool> enabled) {
            {
                std::lock_guard lock(answers->mutex);
                answers->enabled[extension] = enabled == true;
            }
            group->leave();
        });
    }
    group->notify(platform::DispatchQueue::global(platform::QualityOfService::userInitiated),
                  [answers, group, except, completion = std::move(completion)] {
                      std::vector<ExtensionType> result;
                      {
                          std::lock_guard lock(answers->mutex);
                          for (const auto& [extension, enabled] : answers->enabled) {
                              if (enabled && extension != except) result.push_back(extension);
                          }
                      }
                      completion(std::move(result));
                  });
}

void ExtensionManager::updateExtensionStatusCache() {
    auto self = shared_from_this();
    auto updateCacheGroup = std::make_shared<platform::DispatchGroup>();
    ++pendingStateQueries_;
    for (ExtensionType extension : model::allCases<ExtensionType>()) {
        updateCacheGroup->enter();
        const std::optional<bool> before = cachedStatus(extension);
        queryState(extension, [self, updateCacheGroup, extension, before](std::optional<bool> enabled) {
            if (enabled == true && before == false) self->saveToJSONAndReload(extension, false, {});
            updateCacheGroup->leave();
        });
    }
    updateCacheGroup->notify(platform::DispatchQueue::global(platform::QualityOfService::userInitiated),
                             [self, updateCacheGroup] {
                                 self->postDidUpdateExtensionStatusCacheNotification();
                                 --self->pendingStateQueries_;
                             });
}

// --- Reloading map ---------------------------------------------------------------------------

bool ExtensionManager::isExtensionReloading(ExtensionType extension) const {
    return reloadingExtensions_.read([extension](const ReloadingMap& map) {
        auto found = map.find(extension);
        return found != map.end() && found->second;
    });
}

void ExtensionManager::saveExtensionStatus(ExtensionType extension, bool reloading) {
    reloadingExtensions_.write([extension, reloading](ReloadingMap& map) { map[extension] = reloading; });
}

int ExtensionManager::numberOfReloadingExtensions() const {
    return reloadingExtensions_.read([](const ReloadingMap& map) {
        return static_cast<int>(std::count_if(map.begin(), map.end(), [](const auto& entry) { return entry.second; }));
    });
}

// --- Notifications -----------------------------------------------------------------------------

void ExtensionManager::postWillReloadNotification(ExtensionType extension, bool isWhitelist) {
    platform::UserInfo userInfo{{key(Key::extensionType), extension}};
    if (isWhitelist) userInfo.emplace(key(Key::progress), 0.0);
    onMain([userInfo = std::move(userInfo)] {
        platform::NotificationCenter::defaultCenter().post(Names::willReloadExtension, {}, userInfo);
    });
}

void ExtensionManager::postDidReloadNotification(ExtensionType extension, bool isWhitelist,
                                                 std::optional<double> progress,
                                                 const std::optional<ReloadingResult>& result) {
    platform::UserInfo userInfo{{key(Key::extensionType), extension}};
    if (result && !*result) userInfo.emplace(key(Key::errorDescription), result->error().description());
    if (isWhitelist && progress) userInfo.emplace(key(Key::progress), *progress);
    onMain([userInfo = std::move(userInfo)] {
        platform::NotificationCenter::defaultCenter().post(Names::didReloadExtension, {}, userInfo);
    });
}

void ExtensionManager::postDidUpdateExtensionStatusCacheNotification() {
    onMain([] { platform::NotificationCenter::defaultCenter().post(Names::didUpdateExtensionStatusCache); });
}

// --- Waiting -------------------------------------------------------------------------------------

bool ExtensionManager::isIdle() const {
    return pendingStateQueries_.load() == 0 && pendingRetries_.load() == 0 && saveQueue_.operationCount() == 0 &&
           reloadSafariOnlyQueue_.operationCount() == 0 && settler_->isIdle();
}

bool ExtensionManager::waitUntilIdle(std::chrono::milliseconds timeout) {
    return platform::MainRunLoop::runUntil(
        [this] { return isIdle() && platform::MainRunLoop::pendingCount() == 0; }, timeout);
}

}  // namespace tamsel::control
