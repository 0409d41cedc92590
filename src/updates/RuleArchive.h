#pragma once

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "updates/UpdateError.h"

// The rule archive's half of the package-file layer: fetching the archive
// from the filter server and unpacking it into the filters folder. It belongs
// with storage::PersistentStore in meaning, but lives here because storage
// links neither libcurl nor libzip; storage reaches it through the
// storage::FilterArchiveDownloading seam, which installArchiveDownloader()
// fills.
//
// Log lines go to the "Download" category.
namespace tamsel::updates {

class RuleArchive {
public:
    RuleArchive() = delete;

    // The download identifier of the rule archive.
    static inline const std::string downloadIdentifier = "Background-Download-Filters";
    // Built into every copy of the program; the server encrypts with it.
    static inline const std::string password = "ZPArchiveOpenerMarker";

    using ProgressHandler = std::function<void(double)>;
    using Completion = std::function<void(std::expected<void, Error>)>;

    // Downloads the archive at `url` and unpacks it into the filters folder.
    //  * When this process already did so: logs "Already downloaded filters
    //    from %s" and completes with success on the main queue, fetching
    //    nothing.
    //  * Else the archive goes to downloadDirectory()/<last path component of
    //    the URL>, through Downloader::download; progress is forwarded. After
    //    the unpack the archive is deleted, whatever the outcome.
    // Completes once, on the download's thread, with success or the error of
    // the step that failed; a failure clears the already-downloaded flag.
    static void downloadZippedRules(const std::string& url, const std::string& identifier,
                                    ProgressHandler progressHandler, Completion completionHandler);

    // Whether the background-assets side left an archive at
    // PathProvider::downloadedArchiveURL().
    static bool isDownloadedFiltersZipArchiveExistLocally();

    // Installs the archive the background-assets side left: unpacks it and on
    // success records "downloadedFiltersDate", as a version text, under
    // "localVersion" (logging "Will use filters from Background Extension:
    // version \"%s\""); on failure logs "Failed to unzip data.zip from
    // Background Extension: %@". Either way the archive is deleted and
    // "downloadedFiltersDate" cleared. For the host side's start-up; the
    // toolbar extension never calls it.
    static std::expected<void, Error> unzipArchiveAndCopyDownloadedFilters();

    // The unpack step shared by both: logs "Unzipping downloaded ZIP file",
    // unpacks `archive` with the archive password into the filters folder
    // (all or nothing, see ArchiveUnpacker.h), marks the files excluded from
    // backup and hidden, and logs "Did unzip and copy filter files to %s".
    // A failure logs "Error unzipping file: %s".
    static std::expected<void, Error> unzipDownloadedArchive(const std::filesystem::path& archive);

    // This process's temporary folder for downloads: "tmp/cloud" in the
    // process's own folder of the data root, so that processes (and tests)
    // with different data roots never share a download.
    static std::filesystem::path downloadDirectory();

    // The process-wide already-downloaded flag.
    static bool isAlreadyDownloaded();
    static void resetAlreadyDownloaded();

    // The most an archive may unpack to: 1 GiB unless tests lower it.
    static std::uint64_t maximumUnpackedSize();
    static void setMaximumUnpackedSize(std::uint64_t bytes);
};

// Makes storage::FilterArchiveDownloading::shared() download for real, from
// `baseURL`, or with none from UpdateSettings::filterServerBaseURL() at each
// request; with no address at all it answers "nothing downloaded" at once,
// without touching the network. Concurrent requests (the general package files are read side by
// side) share one download, and once this process has unpacked an archive
// they are answered at once, on the calling thread. Idempotent; the host
// calls it at start-up.
void installArchiveDownloader(std::optional<std::string> baseURL = std::nullopt);

}  // namespace tamsel::updates
