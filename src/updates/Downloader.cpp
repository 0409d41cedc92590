#include "updates/Downloader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <system_error>

#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "settings/App.h"
#include "updates/BackgroundDownloadManager.h"
#include "platform/HTTPClient.h"
#include "updates/UpdateError.h"

namespace tamsel::updates {
namespace {

const platform::SystemLogger& logger() {
    static const platform::SystemLogger instance("Download");
    return instance;
}

std::atomic<std::chrono::milliseconds::rep> timeoutMilliseconds{60'000};
std::atomic<std::chrono::milliseconds::rep> totalTimeoutMilliseconds{15 * 60'000};

// The download the background-assets path has in flight.
struct InFlight {
    std::string identifier;
    std::optional<std::filesystem::path> destination;
    Downloader::ProgressHandler progress;
    Downloader::CompletionHandler completion;
    std::uint64_t maximumSize = Downloader::defaultMaximumSize;
};

std::mutex& inFlightMutex() {
    static std::mutex mutex;
    return mutex;
}

InFlight& inFlight() {
    static InFlight state;
    return state;
}

void clearInFlight() {
    std::lock_guard lock(inFlightMutex());
    inFlight() = InFlight{};
}

// Takes the stored completion so that a download completes once only.
Downloader::CompletionHandler takeCompletion() {
    std::lock_guard lock(inFlightMutex());
    auto completion = std::move(inFlight().completion);
    inFlight() = InFlight{};
    return completion;
}

void complete(const Downloader::CompletionHandler& completion, Downloader::DownloadResult result) {
    if (completion) completion(std::move(result));
}

std::string errnoText(int error) { return std::generic_category().message(error); }

// A temporary file beside the destination, removed unless committed.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::filesystem::path& destination) {
        std::string pattern =
            (destination.parent_path() / ("." + destination.filename().string() + ".download-XXXXXX")).string();
        fd_ = ::mkstemp(pattern.data());
        if (fd_ < 0) {
            error_ = errno;
        } else {
            path_ = pattern;
        }
    }
    ~TemporaryFile() {
        if (fd_ >= 0) ::close(fd_);
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    bool isOpen() const { return fd_ >= 0; }
    int openError() const { return error_; }

    bool write(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t written = ::write(fd_, bytes.data(), bytes.size());
            if (written < 0) {
                if (errno == EINTR) continue;
                error_ = errno;
                return false;
            }
            bytes.remove_prefix(static_cast<size_t>(written));
        }
        return true;
    }

    // Flushes and renames over `destination`; returns the errno on failure.
    int commit(const std::filesystem::path& destination) {
        if (error_ != 0) return error_;
        if (::fsync(fd_) != 0 || ::fchmod(fd_, 0644) != 0) return errno;
        const int closed = ::close(fd_);
        fd_ = -1;
        if (closed != 0) return errno;
        if (::rename(path_.c_str(), destination.c_str()) != 0) return errno;
        path_.clear();
        return 0;
    }

    int lastError() const { return error_; }

private:
    int fd_ = -1;
    int error_ = 0;
    std::string path_;
};

// Fetches into a temporary file beside the destination and renames it over
// the destination once the whole body is there. The temporary file is gone
// before this returns, so that whoever the result reaches finds no trace of
// a failed download.
Downloader::DownloadResult fetchIntoPlace(const std::string& url, const std::filesystem::path& destination,
                                          const Downloader::ProgressHandler& progressHandler,
                                          std::uint64_t maximumSize) {
    using DownloadResult = Downloader::DownloadResult;
    TemporaryFile file(destination);
    if (!file.isOpen()) {
        const std::string reason = errnoText(file.openError());
        logger().error("Error writing file %s: %s", destination.c_str(), reason.c_str());
        return DownloadResult::failure(Error::make(ErrorCode::fileSystem, reason));
    }

    HTTPRequest request{url, HTTPRequest::Method::get, Downloader::requestTimeout(), progressHandler};
    request.maximumBodySize = maximumSize;
    request.totalTimeout = Downloader::totalTimeout();
    auto response = HTTPClient::perform(request, [&file](std::string_view chunk) { return file.write(chunk); });
    if (!response) {
        Error error = updateError(std::move(response.error()));
        if (error.code == ErrorCode::fileSystem) {
            error.description = errnoText(file.lastError());
            logger().error("Error writing file %s: %s", destination.c_str(), error.description.c_str());
        } else {
            logger().error("Error downloading file: %s", error.description.c_str());
        }
        return DownloadResult::failure(std::move(error));
    }

    logger().debug("Download status code: %ld", response->status);
    if (response->status >= 400) {
        Error error{ErrorCode::httpStatus, "The server answered with status " + std::to_string(response->status),
                    response->status, std::nullopt};
        logger().error("Error downloading file: %s", error.description.c_str());
        return DownloadResult::failure(std::move(error));
    }

    if (const int failure = file.commit(destination); failure != 0) {
        const std::string reason = errnoText(failure);
        logger().error("Error writing file %s: %s", destination.c_str(), reason.c_str());
        return DownloadResult::failure(Error::make(ErrorCode::fileSystem, reason));
    }
    return DownloadResult::success();
}

void downloadUsingBackgroundAssets(const std::shared_ptr<BackgroundDownloadManager>& manager,
                                   const std::string& url) {
    manager->setDelegate(Downloader::DownloadManagerDelegate::shared());
    manager->performWithExclusiveControl([manager, url](std::optional<Error> notGranted) {
        if (notGranted) {
            logger().error("Failed to acquire lock: %s", notGranted->description.c_str());
            complete(takeCompletion(), Downloader::DownloadResult::failure(std::move(notGranted)));
            return;
        }
        std::string identifier;
        {
            std::lock_guard lock(inFlightMutex());
            identifier = inFlight().identifier;
        }
        for (const auto& download : manager->currentDownloads()) {
            if (download.identifier != identifier) continue;
            if (download.failed) {
                logger().error("Download for %s is in the failed state.", identifier.c_str());
                complete(takeCompletion(),
                         Downloader::DownloadResult::failure(Error::make(
                             ErrorCode::backgroundAssets, "The download " + identifier + " is in the failed state.")));
            }
            // A running download of the same identifier finishes through the
            // delegate, which completes the handlers just stored.
            return;
        }
        if (auto failure = manager->startForegroundDownload(url, identifier)) {
            logger().error("Failed to start download for %s: %s", url.c_str(), failure->description.c_str());
            complete(takeCompletion(), Downloader::DownloadResult::failure(std::move(failure)));
            return;
        }
        logger().info("Downloading file using BADownloadManager from %s", url.c_str());
    });
}

}  // namespace

void Downloader::download(const std::string& url, const std::filesystem::path& destination,
                          const std::string& identifier, ProgressHandler progressHandler,
                          CompletionHandler completionHandler, std::uint64_t maximumSize) {
    auto manager = BackgroundDownloadManager::shared();
    if (!settings::App::isMacMainApp() || !manager) {
        if (!settings::App::isMacMainApp()) {
            logger().info("Not allowed to use the Background Extension API, so will use the old loading function.");
        }
        clearInFlight();
        downloadUsingURLSession(url, destination, std::move(progressHandler), std::move(completionHandler),
                                maximumSize);
        return;
    }
    {
        std::lock_guard lock(inFlightMutex());
        inFlight() =
            InFlight{identifier, destination, std::move(progressHandler), std::move(completionHandler), maximumSize};
    }
    downloadUsingBackgroundAssets(manager, url);
}

void Downloader::downloadUsingURLSession(const std::string& url, const std::filesystem::path& destination,
                                         ProgressHandler progressHandler, CompletionHandler completionHandler,
                                         std::uint64_t maximumSize) {
    logger().info("Downloading file using URLSession from %s", url.c_str());
    platform::DispatchQueue::global(platform::QualityOfService::utility)
        .async([url, destination, maximumSize, progress = std::move(progressHandler),
                completion = std::move(completionHandler)] {
            complete(completion, fetchIntoPlace(url, destination, progress, maximumSize));
        });
}

std::chrono::milliseconds Downloader::requestTimeout() {
    return std::chrono::milliseconds(timeoutMilliseconds.load());
}

void Downloader::setRequestTimeout(std::chrono::milliseconds timeout) { timeoutMilliseconds.store(timeout.count()); }

std::chrono::milliseconds Downloader::totalTimeout() {
    return std::chrono::milliseconds(totalTimeoutMilliseconds.load());
}

void Downloader::setTotalTimeout(std::chrono::milliseconds timeout) {
    totalTimeoutMilliseconds.store(timeout.count());
}

bool Downloader::hasDownloadInFlight() {
    std::lock_guard lock(inFlightMutex());
    return static_cast<bool>(inFlight().completion);
}

// MARK: - Background download manager callbacks

std::shared_ptr<Downloader::DownloadManagerDelegate> Downloader::DownloadManagerDelegate::shared() {
    static const auto instance = std::make_shared<DownloadManagerDelegate>();
    return instance;
}

void Downloader::DownloadManagerDelegate::didBegin(const std::string& identifier) {
    logger().debug("Download %s began", identifier.c_str());
}

void Downloader::DownloadManagerDelegate::didPause(const std::string& identifier) {
    logger().debug("Download %s paused", identifier.c_str());
}

void Downloader::DownloadManagerDelegate::didWriteBytes(const std::string&, std::int64_t totalBytesWritten,
                                                        std::int64_t totalBytesExpected) {
    ProgressHandler progress;
    {
        std::lock_guard lock(inFlightMutex());
        progress = inFlight().progress;
    }
    if (progress && totalBytesExpected > 0) {
        progress(static_cast<double>(totalBytesWritten) / static_cast<double>(totalBytesExpected));
    }
}

void Downloader::DownloadManagerDelegate::didFinish(const std::string& identifier, const std::filesystem::path& file) {
    std::optional<std::filesystem::path> destination;
    std::uint64_t maximumSize = defaultMaximumSize;
    {
        std::lock_guard lock(inFlightMutex());
        if (identifier != inFlight().identifier) {
            logger().info("Unknown download: %s", identifier.c_str());
            return;
        }
        destination = inFlight().destination;
        maximumSize = inFlight().maximumSize;
    }
    if (!destination) {
        logger().error("localUrl is nil");
        return;
    }
    std::error_code failure;
    if (const auto size = std::filesystem::file_size(file, failure); !failure && size > maximumSize) {
        const std::string reason =
            "The download is larger than the " + std::to_string(maximumSize) + " bytes allowed for it";
        logger().error("Download failed: %s", reason.c_str());
        std::filesystem::remove(file, failure);
        complete(takeCompletion(), DownloadResult::failure(Error::make(ErrorCode::downloadTooLarge, reason)));
        return;
    }
    failure.clear();
    std::filesystem::create_directories(destination->parent_path(), failure);
    if (!failure) std::filesystem::rename(file, *destination, failure);
    if (failure) {
        logger().error("Failed to move downloaded file: %s", failure.message().c_str());
        complete(takeCompletion(),
                 DownloadResult::failure(Error::make(ErrorCode::fileSystem, failure.message())));
        return;
    }
    complete(takeCompletion(), DownloadResult::success());
}

void Downloader::DownloadManagerDelegate::didFail(const std::string& identifier, bool isURLDownload,
                                                  const Error& error) {
    {
        std::lock_guard lock(inFlightMutex());
        if (identifier != inFlight().identifier) {
            logger().info("Unknown download: %s", identifier.c_str());
            return;
        }
    }
    if (!isURLDownload) {
        logger().error("Download of unsupported type failed: %s. %s", identifier.c_str(), error.description.c_str());
        return;
    }
    logger().error("Download failed: %s", error.description.c_str());
    complete(takeCompletion(), DownloadResult::failure(error));
}

// MARK: - BackgroundDownloadManager

namespace {
std::mutex& managerMutex() {
    static std::mutex mutex;
    return mutex;
}
std::shared_ptr<BackgroundDownloadManager>& installedManager() {
    static std::shared_ptr<BackgroundDownloadManager> manager;
    return manager;
}
}  // namespace

std::shared_ptr<BackgroundDownloadManager> BackgroundDownloadManager::shared() {
    std::lock_guard lock(managerMutex());
    return installedManager();
}

void BackgroundDownloadManager::setShared(std::shared_ptr<BackgroundDownloadManager> manager) {
    std::lock_guard lock(managerMutex());
    installedManager() = std::move(manager);
}

}  // namespace tamsel::updates
