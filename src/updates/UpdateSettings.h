#pragma once

#include <optional>
#include <string>
#include <string_view>

// Where the rule updates come from and how they are checked, and the stored
// keys of the update code. All in the shared (app-group) defaults, so that
// the host application, the agent and this extension agree.
//
//  * The filter server's base address is a text under "FilterServerBaseURL".
//    There is no default: with none set, nothing is fetched (a missing
//    filter file stays missing, and an update check fails at once saying
//    so). The paths below it are "/v4/metadata" and "/v4/data.zip".
//  * The version is read from the manifest, unless "UseLegacyUpdateCheck"
//    is true: then it is the archive's "Last-Modified" header, as on systems
//    older than 13.3. Linux has no system version to decide by, so the
//    choice is this setting (off by default).
namespace tamsel::updates {

struct UpdateSettings {
    static inline const std::string filterServerBaseURLKey = "FilterServerBaseURL";
    static inline const std::string useLegacyUpdateCheckKey = "UseLegacyUpdateCheck";
    // The version of the installed archive; absent before the first install.
    static inline const std::string localVersionKey = "localVersion";
    // When the background-assets side last unpacked filter files.
    static inline const std::string downloadedFiltersDateKey = "downloadedFiltersDate";

    static inline const std::string metadataPath = "/v4/metadata";
    static inline const std::string archivePath = "/v4/data.zip";

    // The stored address; none when no (or an empty) text is stored.
    static std::optional<std::string> filterServerBaseURL();
    static bool useLegacyUpdateCheck();

    // `base` with `path` appended, without doubling the slash.
    static std::string url(std::string_view base, std::string_view path);
};

}  // namespace tamsel::updates
