#pragma once

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "updates/UpdateError.h"

// Unpacks a password-protected ZIP archive (traditional PKWARE or WinZip AES)
// into a folder, treating the archive as untrusted input:
//
//  * Every entry is unpacked first into a fresh staging folder beside the
//    target folder, and every unpacked file must pass the caller's check;
//    files are moved into the target only after that, each by an atomic
//    rename. Should a move fail part-way, the files already moved are put
//    back as they were. A failure leaves the target as it was, and the
//    staging folder is removed on every path.
//  * The staging folder is locked while the unpack runs (FolderLocks.h);
//    each unpack first removes the staging folders of unpacks that were
//    killed, which no live process holds.
//  * Entries whose names would land outside the folder (absolute paths, "..",
//    backslashes, drive letters) and entries that are links or other special
//    files are refused before anything is written. The caller decides which
//    of the other entries are unpacked at all, and whether a file replaces
//    one of the same name or only fills a gap.
//  * Each file may declare at most `maximumFileSize` bytes and all together
//    at most `maximumTotalSize`, and the bytes actually produced are counted
//    too, so an archive that lies about its sizes is stopped as soon as an
//    entry outgrows its declared size: nothing larger than the limits is ever
//    written to disk.
namespace tamsel::updates {

enum class EntryHandling {
    // Unpacked, and installed over a file of the same name.
    replace,
    // Unpacked and checked like the others, but installed only where the
    // folder has no file of that name; an existing one stays as it is.
    installIfAbsent,
    // Neither unpacked nor installed.
    skip,
};

struct UnpackOptions {
    // The archive's password; empty for an archive without encryption.
    std::string password;
    std::uint64_t maximumFileSize = std::uint64_t{64} << 20;    // 64 MiB
    std::uint64_t maximumTotalSize = std::uint64_t{256} << 20;  // 256 MiB
    // How an entry is handled, by its name in the archive ("lists/" for a
    // folder). Empty: every entry replaces. Only consulted for entries that
    // are safe to unpack.
    std::function<EntryHandling(std::string_view name)> handling;
    // Called for each unpacked file while it is still in the staging folder,
    // after every file was unpacked and before any is moved; an error refuses
    // the whole archive.
    std::function<std::optional<Error>(std::string_view name, const std::filesystem::path& stagedFile)> checkFile;
    // Called for each unpacked file while it is still in the staging folder,
    // so that whatever it marks arrives together with the file.
    std::function<void(const std::filesystem::path& stagedFile)> prepareFile;
    // Called for each installIfAbsent file that stayed out because the
    // folder has one of its name.
    std::function<void(std::string_view name)> kept;
    // Called once every file was checked, right before the first one moves
    // into the folder (also before an interrupted install is completed).
    std::function<void()> willInstall;
};

// Unpacks `archive` into `folder` (created when missing), replacing files of
// the same names as `handling` says. Returns the installed files' paths, in
// archive order (files kept by installIfAbsent are not among them).
// Errors: unzip (unreadable, wrong password, truncated, corrupt, no files),
// unsafeEntry, archiveTooLarge, noRuleFiles (every file skipped, or kept by
// installIfAbsent: nothing would change), fileSystem, and whatever
// `checkFile` returns.
std::expected<std::vector<std::filesystem::path>, Error> unpackArchive(const std::filesystem::path& archive,
                                                                      const std::filesystem::path& folder,
                                                                      const UnpackOptions& options);

// Completes the installs into `folder` that a killed process left half done:
// once an unpack has checked every file it writes down what it is about to
// move, and a process that dies after that point has its remaining files
// moved in here, so the folder ends up with the whole new set (never a mix
// of old and new). Abandoned staging folders are removed. Runs at the start
// of every unpack; a program that writes the folder calls it when it starts.
// Returns how many installs it completed.
std::size_t finishInterruptedUnpacks(const std::filesystem::path& folder, const UnpackOptions& options);

// Whether an entry of this name stays inside the folder it is unpacked into.
bool isSafeEntryName(std::string_view name);

// The name prefix of `folder`'s staging folders: ".<name>.unpacking-".
std::string stagingFolderPrefix(const std::filesystem::path& folder);

}  // namespace tamsel::updates
