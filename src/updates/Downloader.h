#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "updates/UpdateError.h"

// Moves the bytes of one download to a file. Two paths:
//
//  * the URL-session path (libcurl), which every process but the host
//    application takes, the toolbar extension always;
//  * the background-assets path, which only the host application takes and
//    only when the system has a background download manager (a seam:
//    BackgroundDownloadManager::setShared). Linux has none, so in practice
//    the host falls back to the URL-session path as well.
//
// Downloader has no instances. Its static state describes the one download
// that the background-assets path has in flight (identifier, destination,
// handlers); a second download replaces the first's handlers.
namespace tamsel::updates {

class Downloader {
public:
    struct DownloadResult {
        enum class Kind { error, success };

        Kind kind = Kind::success;
        // Set for `error`, when the failure has a description.
        std::optional<Error> error;

        static DownloadResult success() { return {Kind::success, std::nullopt}; }
        static DownloadResult failure(std::optional<Error> error) { return {Kind::error, std::move(error)}; }
        bool isSuccess() const { return kind == Kind::success; }

        friend bool operator==(const DownloadResult&, const DownloadResult&) = default;
    };

    // The fraction done, 0.0 to 1.0; called on the download's thread.
    using ProgressHandler = std::function<void(double)>;
    // Called once, on the download's thread (or the delegate's).
    using CompletionHandler = std::function<void(DownloadResult)>;

    // What a download may be at most when the caller says nothing: no rule
    // archive comes near it (see RuleArchive::maximumArchiveSize).
    static constexpr std::uint64_t defaultMaximumSize = std::uint64_t{256} << 20;

    // Fetches `url` into `destination` by the path described above, at most
    // `maximumSize` bytes (a larger download fails with downloadTooLarge and
    // leaves nothing). Outside the host application it logs "Not allowed to
    // use the Background Extension API, so will use the old loading
    // function.", forgets any download in flight and takes the URL-session
    // path.
    static void download(const std::string& url, const std::filesystem::path& destination,
                         const std::string& identifier, ProgressHandler progressHandler,
                         CompletionHandler completionHandler, std::uint64_t maximumSize = defaultMaximumSize);

    // The URL-session path by itself, on a background queue. The body goes to
    // a temporary file beside `destination`, which replaces `destination`
    // only once the whole body has arrived with a status below 400, within
    // `maximumSize` bytes and totalTimeout(); on every failure the temporary
    // file is removed and `destination` is untouched.
    static void downloadUsingURLSession(const std::string& url, const std::filesystem::path& destination,
                                        ProgressHandler progressHandler, CompletionHandler completionHandler,
                                        std::uint64_t maximumSize = defaultMaximumSize);

    // The request time-out of every request the update code sends: how long
    // connecting, or a pause in the transfer, may last. 60 seconds; tests
    // shorten it.
    static std::chrono::milliseconds requestTimeout();
    static void setRequestTimeout(std::chrono::milliseconds timeout);

    // How long a whole download may take, however steadily it moves: 15
    // minutes, which a 256 MiB archive needs only below about 2.4 Mbit/s (a
    // real archive is a small fraction of that). Tests shorten it.
    static std::chrono::milliseconds totalTimeout();
    static void setTotalTimeout(std::chrono::milliseconds timeout);

    // Receives the background download manager's callbacks and finishes the
    // stored download. One shared instance; the manager holds it.
    class DownloadManagerDelegate {
    public:
        static std::shared_ptr<DownloadManagerDelegate> shared();

        void didBegin(const std::string& identifier);
        void didPause(const std::string& identifier);
        void didWriteBytes(const std::string& identifier, std::int64_t totalBytesWritten,
                           std::int64_t totalBytesExpected);
        // `file` is the manager's copy; it is moved over the stored destination
        // unless it is larger than the download may be.
        void didFinish(const std::string& identifier, const std::filesystem::path& file);
        // `isURLDownload` false: a download kind this program never starts.
        void didFail(const std::string& identifier, bool isURLDownload, const Error& error);
    };

    // Whether a background-assets download is stored (tests).
    static bool hasDownloadInFlight();
};

}  // namespace tamsel::updates
