#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "updates/Downloader.h"
#include "updates/UpdateError.h"

// The seam for the system's background-assets download manager, which the
// host application may use to fetch the rule archive while it is not
// running. This system has no such service: no manager is installed unless a
// test installs one, and without one every download takes the URL-session
// path.
namespace tamsel::updates {

class BackgroundDownloadManager {
public:
    struct Download {
        std::string identifier;
        bool failed = false;
    };

    virtual ~BackgroundDownloadManager() = default;

    // Receives the callbacks of every download the manager runs.
    virtual void setDelegate(std::shared_ptr<Downloader::DownloadManagerDelegate> delegate) = 0;

    // Runs `body` while holding the app group's exclusive control of the
    // downloads; `body` receives the error when control was not granted.
    virtual void performWithExclusiveControl(std::function<void(std::optional<Error> notGranted)> body) = 0;

    // Only valid inside performWithExclusiveControl.
    virtual std::vector<Download> currentDownloads() = 0;
    virtual std::optional<Error> startForegroundDownload(const std::string& url, const std::string& identifier) = 0;

    // The installed manager; null when the system has none.
    static std::shared_ptr<BackgroundDownloadManager> shared();
    static void setShared(std::shared_ptr<BackgroundDownloadManager> manager);
};

}  // namespace tamsel::updates
