// The rule archive's operations of the package-file layer (see RuleArchive.h
// for why they live in this folder rather than in storage).
#include <algorithm>
#include <atomic>
#include <string_view>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/DataRoot.h"
#include "platform/DispatchQueue.h"
#include "platform/Files.h"
#include "platform/Log.h"
#include "platform/Stores.h"
#include "storage/FilterArchiveDownloading.h"
#include "storage/PathProvider.h"
#include "storage/RebuildLedger.h"
#include "updates/ArchiveUnpacker.h"
#include "updates/Downloader.h"
#include "updates/FolderLocks.h"
#include "updates/RuleArchive.h"
#include "updates/RuleSetFiles.h"
#include "updates/UpdateManager.h"
#include "updates/UpdateSettings.h"

namespace tamsel::updates {
namespace {

const platform::SystemLogger& logger() {
    static const platform::SystemLogger instance("Download");
    return instance;
}

std::atomic<bool> alreadyDownloaded{false};
constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;
std::atomic<std::uint64_t> maximumTotal{256 * mebibyte};
std::atomic<std::uint64_t> maximumFile{64 * mebibyte};
std::atomic<std::uint64_t> maximumArchive{256 * mebibyte};

// "http://host/v4/data.zip?x#y" → "data.zip"
std::string lastPathComponent(std::string_view url) {
    url = url.substr(0, url.find_first_of("?#"));
    if (const auto scheme = url.find("://"); scheme != std::string_view::npos) url.remove_prefix(scheme + 3);
    while (url.ends_with('/')) url.remove_suffix(1);
    const auto slash = url.rfind('/');
    if (slash == std::string_view::npos) return "data.zip";  // a bare host: no path to name the file by
    return std::string(url.substr(slash + 1));
}

bool answerIfAlreadyDownloaded(const std::string& url) {
    if (!alreadyDownloaded.load()) return false;
    logger().info("Already downloaded filters from %s", url.c_str());
    return true;
}

void markExcludedAndHidden(const std::filesystem::path& file) {
    if (auto marked = platform::setExcludedFromBackup(file, true); !marked) {
        logger().error("Failed to set `isExcludedFromBackup` for `%s`. Error: %s", file.c_str(),
                       marked.error().message().c_str());
    }
    if (auto marked = platform::setHidden(file, true); !marked) {
        logger().error("Failed to set `isHidden` for `%s`. Error: %s", file.c_str(), marked.error().message().c_str());
    }
}

void removeIgnoringErrors(const std::filesystem::path& file) {
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
}

}  // namespace

namespace {

// Downloads the archive and unpacks it, whatever the already-downloaded flag
// says; completes on the download's thread.
void fetchAndUnpack(const std::string& url, const std::string& identifier, RuleArchive::ProgressHandler progress,
                    RuleArchive::Completion completion, std::optional<std::uint64_t> announcedSize) {
    const std::filesystem::path folder = RuleArchive::downloadDirectory();
    // Held until the download and the unpack are over, so that no other
    // process takes this download's files for leftovers.
    std::size_t removed = 0;
    auto use = SharedFolderUse::begin(folder, &removed);
    if (!use) {
        logger().error("Error creating directory: %s", use.error().message().c_str());
        if (completion) completion(std::unexpected(Error::make(ErrorCode::fileSystem, use.error().message())));
        return;
    }
    if (removed > 0) logger().info("Removed %zu leftovers of earlier downloads from %s", removed, folder.c_str());
    auto inUse = std::make_shared<SharedFolderUse>(std::move(*use));
    const std::filesystem::path destination = folder / lastPathComponent(url);

    // This system counts as supporting background assets; Downloader decides
    // whether this process may use them (only the host application, and only
    // with a manager installed).
    Downloader::download(
        url, destination, identifier, std::move(progress),
        [destination, inUse, completion = std::move(completion)](Downloader::DownloadResult result) {
            std::expected<void, Error> outcome;
            if (!result.isSuccess()) {
                outcome = std::unexpected(
                    result.error.value_or(Error::make(ErrorCode::transport, "The download failed")));
            } else {
                outcome = RuleArchive::unzipDownloadedArchive(destination);
                // The archive was only a carrier for the files just unpacked.
                removeIgnoringErrors(destination);
            }
            alreadyDownloaded.store(outcome.has_value());
            if (completion) completion(std::move(outcome));
        },
        RuleArchive::maximumDownloadSize(announcedSize));
}

}  // namespace

void RuleArchive::downloadZippedRules(const std::string& url, const std::string& identifier,
                                      ProgressHandler progressHandler, Completion completionHandler,
                                      std::optional<std::uint64_t> announcedSize) {
    if (answerIfAlreadyDownloaded(url)) {
        platform::DispatchQueue::main().async([completion = std::move(completionHandler)] {
            if (completion) completion({});
        });
        return;
    }
    fetchAndUnpack(url, identifier, std::move(progressHandler), std::move(completionHandler), announcedSize);
}

bool RuleArchive::isDownloadedFiltersZipArchiveExistLocally() {
    std::error_code ignored;
    return std::filesystem::exists(storage::PathProvider::downloadedArchiveURL(), ignored);
}

std::expected<void, Error> RuleArchive::unzipArchiveAndCopyDownloadedFilters() {
    const std::filesystem::path archive = storage::PathProvider::downloadedArchiveURL();
    auto unpacked = unzipDownloadedArchive(archive);
    if (unpacked) {
        std::optional<std::string> version;
        if (auto date = UpdateManager::downloadedFiltersDate()) {
            version = UpdateManager::ruleVersionDateFormatter().string(*date);
        }
        logger().info("Will use filters from Background Extension: version \"%s\"",
                      version ? version->c_str() : "nil");
        std::optional<platform::Value> stored;
        if (version) stored = platform::Value(*version);
        platform::SharedDefaults::shared()->set(std::move(stored), UpdateSettings::localVersionKey);
    } else {
        logger().error("Failed to unzip data.zip from Background Extension: %s", unpacked.error().description.c_str());
    }
    removeIgnoringErrors(archive);
    UpdateManager::setDownloadedFiltersDate(std::nullopt);
    return unpacked;
}

std::expected<void, Error> RuleArchive::unzipDownloadedArchive(const std::filesystem::path& archive) {
    logger().info("Unzipping downloaded ZIP file");
    const std::filesystem::path filters = storage::PathProvider::filtersFolderURL();
    UnpackOptions options;
    options.password = password;
    options.maximumFileSize = maximumFileSize();
    options.maximumTotalSize = maximumUnpackedSize();
    options.handling = RuleSetFiles::handling;
    options.checkFile = RuleSetFiles::check;
    options.prepareFile = markExcludedAndHidden;
    options.kept = [](std::string_view name) {
        const std::string text(name);
        logger().info("Kept the user's %s; the archive's copy was not installed", text.c_str());
    };
    // New rules for every extension: owed before the first file moves, so
    // that a process killed now leaves the rebuilds to the next writer.
    options.willInstall = storage::RebuildLedger::oweAll;
    auto installed = unpackArchive(archive, filters, options);
    if (!installed) {
        logger().error("Error unzipping file: %s", installed.error().description.c_str());
        return std::unexpected(std::move(installed.error()));
    }
    logger().info("Did unzip and copy filter files to %s", filters.c_str());
    return {};
}

std::size_t RuleArchive::finishInterruptedInstall() {
    UnpackOptions options;
    options.willInstall = storage::RebuildLedger::oweAll;
    const std::size_t finished = finishInterruptedUnpacks(storage::PathProvider::filtersFolderURL(), options);
    if (finished > 0) logger().info("Completed %ld interrupted install(s) of filter files", static_cast<long>(finished));
    return finished;
}

std::filesystem::path RuleArchive::downloadDirectory() {
    return platform::DataRoot::extensionDirectory() / "tmp" / "cloud";
}

bool RuleArchive::isAlreadyDownloaded() { return alreadyDownloaded.load(); }

void RuleArchive::resetAlreadyDownloaded() { alreadyDownloaded.store(false); }

std::uint64_t RuleArchive::maximumUnpackedSize() { return maximumTotal.load(); }

void RuleArchive::setMaximumUnpackedSize(std::uint64_t bytes) { maximumTotal.store(bytes); }

std::uint64_t RuleArchive::maximumFileSize() { return maximumFile.load(); }

void RuleArchive::setMaximumFileSize(std::uint64_t bytes) { maximumFile.store(bytes); }

std::uint64_t RuleArchive::maximumArchiveSize() { return maximumArchive.load(); }

void RuleArchive::setMaximumArchiveSize(std::uint64_t bytes) { maximumArchive.store(bytes); }

std::uint64_t RuleArchive::maximumDownloadSize(std::optional<std::uint64_t> announcedSize) {
    const std::uint64_t absolute = maximumArchiveSize();
    if (!announcedSize || *announcedSize == 0 || *announcedSize >= absolute) return absolute;
    return std::min(absolute, *announcedSize + *announcedSize / 4 + mebibyte);
}

// MARK: - The package reader's downloader

namespace {

// Joins the requests that arrive while a download runs into that download.
class ArchiveDownloader : public storage::FilterArchiveDownloading {
public:
    void setBaseURL(std::optional<std::string> baseURL) {
        std::lock_guard lock(mutex_);
        baseURL_ = std::move(baseURL);
    }

    void downloadZippedRules(std::string identifier, std::function<void(bool downloaded)> completion) override {
        std::optional<std::string> baseURL;
        {
            std::lock_guard lock(mutex_);
            baseURL = baseURL_;
        }
        if (!baseURL) baseURL = UpdateSettings::filterServerBaseURL();
        if (!baseURL) {
            // No filter server is configured: nothing to fetch from.
            logger().info("No filter server configured; not downloading filters");
            if (completion) completion(false);
            return;
        }
        const std::string url = UpdateSettings::url(*baseURL, UpdateSettings::archivePath);
        // Answered here rather than through the main queue, which a reading
        // command may not be driving; for the same reason the download below
        // goes around RuleArchive::downloadZippedRules, whose answer for an
        // archive unpacked meanwhile would wait for the main queue.
        if (answerIfAlreadyDownloaded(url)) {
            if (completion) completion(true);
            return;
        }
        {
            std::lock_guard lock(mutex_);
            waiting_.push_back(std::move(completion));
            if (waiting_.size() > 1) return;
        }
        fetchAndUnpack(url, identifier, {}, [this](std::expected<void, Error> result) {
            std::vector<std::function<void(bool)>> completions;
            {
                std::lock_guard lock(mutex_);
                completions.swap(waiting_);
            }
            for (auto& completion : completions) {
                if (completion) completion(result.has_value());
            }
        }, std::nullopt);
    }

private:
    std::mutex mutex_;
    std::optional<std::string> baseURL_;
    std::vector<std::function<void(bool)>> waiting_;
};

}  // namespace

void installArchiveDownloader(std::optional<std::string> baseURL) {
    static const auto downloader = std::make_shared<ArchiveDownloader>();
    downloader->setBaseURL(std::move(baseURL));
    storage::FilterArchiveDownloading::setShared(downloader);
}

}  // namespace tamsel::updates
