#pragma once

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "updates/UpdateError.h"

// Unpacks a password-protected ZIP archive (traditional PKWARE or WinZip AES)
// into a folder, treating the archive as untrusted input:
//
//  * Every entry is unpacked first into a fresh staging folder beside the
//    target folder; files are moved into the target only after the whole
//    archive unpacked, each by an atomic rename. Should a move fail part-way,
//    the files already moved are put back as they were. A failure leaves the
//    target as it was, and the staging folder is removed on every path.
//  * Entries whose names would land outside the folder (absolute paths, "..",
//    backslashes, drive letters) and entries that are links or other special
//    files are refused before anything is written.
//  * The declared sizes must add up to at most `maximumTotalSize`, and the
//    bytes actually produced are counted too, so an archive that lies about
//    its sizes is stopped as soon as an entry outgrows its declared size.
namespace tamsel::updates {

struct UnpackOptions {
    // The archive's password; empty for an archive without encryption.
    std::string password;
    std::uint64_t maximumTotalSize = std::uint64_t{1} << 30;  // 1 GiB
    // Called for each unpacked file while it is still in the staging folder,
    // so that whatever it marks arrives together with the file.
    std::function<void(const std::filesystem::path& stagedFile)> prepareFile;
};

// Unpacks `archive` into `folder` (created when missing), replacing files of
// the same names. Returns the installed files' paths, in archive order.
// Errors: unzip (unreadable, wrong password, truncated, corrupt, empty),
// unsafeEntry, archiveTooLarge, fileSystem.
std::expected<std::vector<std::filesystem::path>, Error> unpackArchive(const std::filesystem::path& archive,
                                                                      const std::filesystem::path& folder,
                                                                      const UnpackOptions& options);

// Whether an entry of this name stays inside the folder it is unpacked into.
bool isSafeEntryName(std::string_view name);

}  // namespace tamsel::updates
