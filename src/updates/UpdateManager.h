#pragma once

#include <array>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "model/RawRepresentable.h"
#include "platform/Clock.h"
#include "storage/ExtensionReloading.h"
#include "updates/MetadataManager.h"
#include "updates/UpdateResult.h"
#include "updates/VersionDateFormatter.h"

// Finds out whether the filter server holds a rule archive other than the
// installed one and, if so, installs it: download and unpack (RuleArchive),
// record the version under "localVersion", rebuild and reload every extension
// but block-custom (storage::ExtensionReloading). Log lines go to the
// "Update" category.
//
// A check:
//   1. refuses with currentlyUpdating while another check runs;
//   2. finds the server's version: the manifest's date as a version text, or
//      with the legacy check (UpdateSettings) the archive's "Last-Modified";
//   3. compares it with "localVersion" for equality only: an older server
//      version counts as new;
//   4. installs when they differ.
//
// Notifications go to the default centre on the main queue, with the
// manager (an `UpdateManager*`) as object. Completion handlers run on the
// main queue, which must be driven for a check to finish.
namespace tamsel::updates {

class UpdateManager : public std::enable_shared_from_this<UpdateManager> {
public:
    enum class UpdateManagerError { cachedCloudVersionNotAvailable, headerFieldsNotFound };

    static inline const std::string newRulesUpdateAvailableNotification = "New Rules Update Available From Cloud";
    static inline const std::string startUpdatingNotification = "Start Updating Rules From Cloud";
    static inline const std::string successfullyUpdatedNotification = "Successfuly Updated Rules From Cloud";
    static inline const std::string failedUpdatingNotification = "Failed Updating Rules From Cloud";

    struct Configuration {
        // None: UpdateSettings::filterServerBaseURL() at each check; with
        // neither, a check fails at once with noFilterServer.
        std::optional<std::string> filterServerBaseURL;
        // None: UpdateSettings::useLegacyUpdateCheck() at each check.
        std::optional<bool> useLegacyUpdateCheck;
        // Null: storage::ExtensionReloading::shared() at each reload.
        std::shared_ptr<storage::ExtensionReloading> reloading;
    };

    using ProgressHandler = std::function<void(double)>;
    using CompletionHandler = std::function<void(UpdateResult)>;

    // The process's manager, created on first use with the default configuration.
    static std::shared_ptr<UpdateManager> shared();
    static std::shared_ptr<UpdateManager> make(Configuration configuration = {});

    // Runs one check and, when the server's version differs, the install.
    // `progressHandler` gets the download's fraction on the download's thread;
    // `completionHandler` gets the result on the main queue. May be called
    // from any thread.
    void checkForUpdates(bool shouldReload, ProgressHandler progressHandler, CompletionHandler completionHandler);

    bool isCurrentlyUpdating() const;
    // The server's version found by the last check that reached the server.
    std::optional<std::string> cachedCloudVersion() const;

    const MetadataManager& metadataManager() const { return metadataManager_; }
    static const VersionDateFormatter& ruleVersionDateFormatter();

    // "localVersion" read back as a date; none when absent or unreadable.
    static std::optional<platform::Date> localVersionDate();

    // "downloadedFiltersDate": stored as text in the version format; none
    // when absent or unreadable. Setting none removes it.
    static std::optional<platform::Date> downloadedFiltersDate();
    static void setDownloadedFiltersDate(std::optional<platform::Date> date);

private:
    explicit UpdateManager(Configuration configuration);

    struct Check;
    static void findCloudVersion(const std::shared_ptr<Check>& check);
    static void install(const std::shared_ptr<Check>& check);
    static void record(const std::shared_ptr<Check>& check);
    static void finish(const std::shared_ptr<Check>& check, UpdateResult result,
                       std::optional<std::string> notification = std::nullopt);

    const Configuration configuration_;
    const MetadataManager metadataManager_;

    mutable std::mutex mutex_;
    bool isCurrentlyUpdating_ = false;
    std::optional<std::string> cachedCloudVersion_;
};

}  // namespace tamsel::updates

namespace tamsel::model {
template <>
struct RawValueTable<updates::UpdateManager::UpdateManagerError> {
    static constexpr std::array<std::string_view, 2> rawValues{"cachedCloudVersionNotAvailable",
                                                               "headerFieldsNotFound"};
};
}  // namespace tamsel::model
