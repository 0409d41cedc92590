#pragma once

#include <cstddef>
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
    //    the URL>, through Downloader::download; progress is forwarded. The
    //    download may be at most maximumDownloadSize(announcedSize) bytes.
    //    After the unpack the archive is deleted, whatever the outcome.
    //    Whatever killed downloads left in downloadDirectory() is removed
    //    first, unless another process is downloading there right now.
    // Completes once, on the download's thread, with success or the error of
    // the step that failed; a failure clears the already-downloaded flag.
    static void downloadZippedRules(const std::string& url, const std::string& identifier,
                                    ProgressHandler progressHandler, Completion completionHandler,
                                    std::optional<std::uint64_t> announcedSize = std::nullopt);

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
    // (all or nothing, see ArchiveUnpacker.h) as RuleSetFiles.h says: only
    // the files of a rule set, every package file decoding, the user's
    // configurable packages kept. Marks the files excluded from backup and
    // hidden, and logs "Did unzip and copy filter files to %s". A failure
    // logs "Error unzipping file: %s" and installs nothing.
    static std::expected<void, Error> unzipDownloadedArchive(const std::filesystem::path& archive);

    // This process's temporary folder for downloads: "tmp/cloud" in the
    // process's own folder of the data root, so that processes (and tests)
    // with different data roots never share a download.
    static std::filesystem::path downloadDirectory();

    // Completes an install into the filters folder that a killed process
    // left half done (see finishInterruptedUnpacks), so that the folder holds
    // one whole rule set; owes every extension's rebuild when it does.
    // Returns how many it completed.
    static std::size_t finishInterruptedInstall();

    // The process-wide already-downloaded flag.
    static bool isAlreadyDownloaded();
    static void resetAlreadyDownloaded();

    // Limits on what an archive may unpack to and download as. A real rule
    // set is about 82 MB of package files in all, its largest general file
    // about 15 MB, and it packs to a fraction of that. The limits leave ample
    // room for growth (four times over) while keeping a hostile archive from
    // filling the disk or making every later read of the filters folder slow:
    //  * one file: 64 MiB;
    //  * all files together: 256 MiB;
    //  * the archive itself: 256 MiB at most (it cannot usefully be larger
    //    than what it unpacks to), and where the server announced the size
    //    (the manifest's "size", or the HEAD reply's "Content-Length") that
    //    size plus a quarter plus 1 MiB, for a publication that changed
    //    between the two requests.
    // Tests lower them; the setters take effect for the next unpack or download.
    static std::uint64_t maximumUnpackedSize();
    static void setMaximumUnpackedSize(std::uint64_t bytes);
    static std::uint64_t maximumFileSize();
    static void setMaximumFileSize(std::uint64_t bytes);
    static std::uint64_t maximumArchiveSize();
    static void setMaximumArchiveSize(std::uint64_t bytes);
    static std::uint64_t maximumDownloadSize(std::optional<std::uint64_t> announcedSize);
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
