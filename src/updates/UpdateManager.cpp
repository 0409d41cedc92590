#include "updates/UpdateManager.h"

#include <charconv>

#include "model/ExtensionType.h"
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "platform/NotificationCenter.h"
#include "platform/Stores.h"
#include "updates/Downloader.h"
#include "platform/HTTPClient.h"
#include "updates/UpdateError.h"
#include "updates/RuleArchive.h"
#include "updates/UpdateSettings.h"

namespace tamsel::updates {
namespace {

const platform::SystemLogger& logger() {
    static const platform::SystemLogger instance("Update");
    return instance;
}

void postOnMain(std::string name, UpdateManager* object) {
    platform::DispatchQueue::main().async([name = std::move(name), object] {
        platform::NotificationCenter::defaultCenter().post(name, object);
    });
}

std::optional<std::string> storedLocalVersion() {
    return platform::SharedDefaults::shared()->string(UpdateSettings::localVersionKey);
}

}  // namespace

std::string UpdateResult::description() const {
    std::string text(model::rawValue(kind));
    if (error) text += ": " + error->description;
    return text;
}

// Everything one check carries from step to step. The steps hold the manager
// weakly: a check outlives a manager that went away, and still completes.
struct UpdateManager::Check {
    std::weak_ptr<UpdateManager> manager;
    // The notifications' object; compared by observers, never followed.
    UpdateManager* object = nullptr;
    bool shouldReload = true;
    ProgressHandler progress;
    CompletionHandler completion;
    std::string baseURL;
    bool useLegacyUpdateCheck = false;
    std::shared_ptr<storage::ExtensionReloading> reloading;
    std::string newVersion;
    // The archive's size as the server announced it (the manifest's "size",
    // or the HEAD reply's "Content-Length"): the download may not be much
    // larger.
    std::optional<std::uint64_t> announcedSize;
};

std::shared_ptr<UpdateManager> UpdateManager::shared() {
    static const std::shared_ptr<UpdateManager> instance = make();
    return instance;
}

std::shared_ptr<UpdateManager> UpdateManager::make(Configuration configuration) {
    return std::shared_ptr<UpdateManager>(new UpdateManager(std::move(configuration)));
}

UpdateManager::UpdateManager(Configuration configuration) : configuration_(std::move(configuration)), metadataManager_() {}

const VersionDateFormatter& UpdateManager::ruleVersionDateFormatter() {
    static const VersionDateFormatter formatter;
    return formatter;
}

bool UpdateManager::isCurrentlyUpdating() const {
    std::lock_guard lock(mutex_);
    return isCurrentlyUpdating_;
}

std::optional<std::string> UpdateManager::cachedCloudVersion() const {
    std::lock_guard lock(mutex_);
    return cachedCloudVersion_;
}

std::optional<platform::Date> UpdateManager::localVersionDate() {
    auto version = storedLocalVersion();
    if (!version) return std::nullopt;
    return ruleVersionDateFormatter().date(*version);
}

std::optional<platform::Date> UpdateManager::downloadedFiltersDate() {
    auto text = platform::SharedDefaults::shared()->string(UpdateSettings::downloadedFiltersDateKey);
    if (!text) return std::nullopt;
    return ruleVersionDateFormatter().date(*text);
}

void UpdateManager::setDownloadedFiltersDate(std::optional<platform::Date> date) {
    std::optional<platform::Value> value;
    if (date) value = platform::Value(ruleVersionDateFormatter().string(*date));
    platform::SharedDefaults::shared()->set(std::move(value), UpdateSettings::downloadedFiltersDateKey);
}

void UpdateManager::checkForUpdates(bool shouldReload, ProgressHandler progressHandler,
                                    CompletionHandler completionHandler) {
    {
        std::unique_lock lock(mutex_);
        if (isCurrentlyUpdating_) {
            lock.unlock();
            logger().info("Already currently updating from cloud");
            platform::DispatchQueue::main().async([completion = std::move(completionHandler)] {
                if (completion) completion(UpdateResult::of(UpdateResult::Kind::currentlyUpdating));
            });
            return;
        }
        isCurrentlyUpdating_ = true;
    }
    logger().info("Checking for updates in the cloud");

    auto check = std::make_shared<Check>();
    check->manager = weak_from_this();
    check->object = this;
    check->shouldReload = shouldReload;
    check->progress = std::move(progressHandler);
    check->completion = std::move(completionHandler);
    const auto baseURL = configuration_.filterServerBaseURL ? configuration_.filterServerBaseURL
                                                             : UpdateSettings::filterServerBaseURL();
    if (!baseURL) {
        logger().error("No filter server configured");
        finish(check, UpdateResult::failure(Error::make(
                          ErrorCode::noFilterServer, "No filter server is configured (shared default \"" +
                                                         UpdateSettings::filterServerBaseURLKey + "\")")));
        return;
    }
    check->baseURL = *baseURL;
    check->useLegacyUpdateCheck = configuration_.useLegacyUpdateCheck.value_or(UpdateSettings::useLegacyUpdateCheck());
    check->reloading = configuration_.reloading;
    platform::DispatchQueue::global(platform::QualityOfService::utility).async([check] { findCloudVersion(check); });
}

void UpdateManager::findCloudVersion(const std::shared_ptr<Check>& check) {
    std::string version;
    if (check->useLegacyUpdateCheck) {
        const HTTPRequest request{UpdateSettings::url(check->baseURL, UpdateSettings::archivePath),
                                  HTTPRequest::Method::head, Downloader::requestTimeout(), {}};
        auto response = HTTPClient::perform(request, {});
        if (!response) {
            logger().error("Header fields were not found in cloud file");
            finish(check, UpdateResult::failure(
                              Error::make(ErrorCode::headerFieldsNotFound, response.error().description)));
            return;
        }
        // An error reply's headers describe the error page, not the archive.
        auto lastModified = response->status < 400 ? response->header("Last-Modified") : std::nullopt;
        if (!lastModified || lastModified->empty()) {
            logger().error("Cloud file version was not found");
            finish(check, UpdateResult::failure(Error::make(ErrorCode::cloudVersionNotFound,
                                                            "The archive's reply has no \"Last-Modified\" (" +
                                                                response->description() + ")")));
            return;
        }
        version = std::move(*lastModified);
        if (auto length = response->header("Content-Length")) {
            std::uint64_t bytes = 0;
            const auto [end, error] = std::from_chars(length->data(), length->data() + length->size(), bytes);
            if (error == std::errc() && end == length->data() + length->size()) check->announcedSize = bytes;
        }
    } else {
        auto manifest =
            MetadataManager().fetchManifest(UpdateSettings::url(check->baseURL, UpdateSettings::metadataPath));
        if (!manifest) {
            finish(check, UpdateResult::failure(std::move(manifest.error())));
            return;
        }
        version = ruleVersionDateFormatter().string(manifest->date);
        if (manifest->size > 0) check->announcedSize = static_cast<std::uint64_t>(manifest->size);
    }

    if (auto manager = check->manager.lock()) {
        std::lock_guard lock(manager->mutex_);
        manager->cachedCloudVersion_ = version;
    }
    const auto localVersion = storedLocalVersion();
    if (localVersion == version) {
        logger().info("No new cloud updates available");
        finish(check, UpdateResult::of(UpdateResult::Kind::noNewUpdates));
        return;
    }
    logger().info("Cloud update is available: %s. Local version: %s", version.c_str(),
                  localVersion ? localVersion->c_str() : "nil");
    postOnMain(newRulesUpdateAvailableNotification, check->object);
    install(check);
}

void UpdateManager::install(const std::shared_ptr<Check>& check) {
    std::optional<std::string> version;
    if (auto manager = check->manager.lock()) version = manager->cachedCloudVersion();
    if (!version) {
        logger().error("cachedCloudVersion is not available");
        finish(check, UpdateResult::failure(Error::make(ErrorCode::cachedCloudVersionNotAvailable,
                                                        "No version of the filter server is known")));
        return;
    }
    check->newVersion = *version;
    const auto localVersion = storedLocalVersion();
    logger().info("Updating \"%s\" → \"%s\"", localVersion ? localVersion->c_str() : "nil", version->c_str());
    postOnMain(startUpdatingNotification, check->object);

    RuleArchive::downloadZippedRules(
        UpdateSettings::url(check->baseURL, UpdateSettings::archivePath), RuleArchive::downloadIdentifier,
        check->progress, [check](std::expected<void, Error> downloaded) {
            if (!downloaded) {
                logger().error("Error updating rules: %s", downloaded.error().description.c_str());
                finish(check, UpdateResult::failure(std::move(downloaded.error())), failedUpdatingNotification);
                return;
            }
            if (!check->shouldReload) {
                record(check);
                return;
            }
            // The user's own rules never come from the server, so the custom
            // extension keeps its file.
            auto reloading = check->reloading ? check->reloading : storage::ExtensionReloading::shared();
            reloading->saveToJSONAndReloadAll(model::ExtensionType::customRules,
                                              [check](storage::ReloadingResult reloaded) {
                                                  if (reloaded) {
                                                      record(check);
                                                      return;
                                                  }
                                                  const std::string reason = reloaded.error().description();
                                                  logger().error("Error updating rules: %s", reason.c_str());
                                                  finish(check,
                                                         UpdateResult::failure(Error{ErrorCode::reload, reason,
                                                                                     std::nullopt, reloaded.error()}),
                                                         failedUpdatingNotification);
                                              });
        },
        check->announcedSize);
}

void UpdateManager::record(const std::shared_ptr<Check>& check) {
    platform::SharedDefaults::shared()->set(platform::Value(check->newVersion), UpdateSettings::localVersionKey);
    logger().info("Successfuly updated rules to version \"%s\"", check->newVersion.c_str());
    finish(check, UpdateResult::of(UpdateResult::Kind::success), successfullyUpdatedNotification);
}

void UpdateManager::finish(const std::shared_ptr<Check>& check, UpdateResult result,
                           std::optional<std::string> notification) {
    platform::DispatchQueue::main().async([check, result = std::move(result), notification = std::move(notification)] {
        if (auto manager = check->manager.lock()) {
            std::lock_guard lock(manager->mutex_);
            manager->isCurrentlyUpdating_ = false;
        }
        if (notification) platform::NotificationCenter::defaultCenter().post(*notification, check->object);
        if (check->completion) check->completion(result);
    });
}

}  // namespace tamsel::updates
