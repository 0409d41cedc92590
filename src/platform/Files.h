#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

// File operations whose results other programs read.
namespace tamsel::platform {

// Errors of our own, beside the errno values of the generic category.
enum class FileError {
    notRegularFile = 1,  // "not a regular file"
};
const std::error_category& fileErrorCategory();
std::error_code make_error_code(FileError error);

// Whether writeFileAtomically may replace `path`: it must be absent or a
// regular file. Anything else that is there (a symbolic link, a FIFO, a
// device node, a socket, a folder) is refused with FileError::notRegularFile,
// for replacing it by a regular file would destroy what it stands for. The
// path itself is looked at (lstat), not what a link points to. Other errors
// of the look (no permission, a file where a folder should be) come back as
// their errno.
std::expected<void, std::error_code> checkReplaceable(const std::filesystem::path& path);

// Replaces `path` with `bytes` so that a reader sees either the old file whole
// or the new one whole: the bytes go to a temporary file in the same folder,
// are flushed to disk, and the temporary file is renamed over `path`. An
// existing file's permissions are kept; a new file gets rw-r--r--.
// A `path` that checkReplaceable refuses is left alone and its error comes
// back. On other failures (no space, no permission, a missing folder, …) the
// temporary file is removed, the old file is untouched, and the errno comes
// back as a std::error_code in the generic category.
std::expected<void, std::error_code> writeFileAtomically(const std::filesystem::path& path,
                                                         std::string_view bytes);
// The same for a file made of `parts`, written one after the other, so that
// a large file assembled from pieces kept elsewhere needs no copy in one.
std::expected<void, std::error_code> writeFileAtomically(const std::filesystem::path& path,
                                                         std::span<const std::string_view> parts);

// A file put in place by writeFileAtomicallyUnflushed: every reader sees it
// whole under its name, but its bytes and its name may still be in memory
// only. Holds the file open until flushFiles (or its destruction).
class UnflushedFile {
public:
    UnflushedFile(int descriptor, std::filesystem::path path);
    ~UnflushedFile();
    UnflushedFile(UnflushedFile&& other) noexcept;
    UnflushedFile& operator=(UnflushedFile&& other) noexcept;
    UnflushedFile(const UnflushedFile&) = delete;
    UnflushedFile& operator=(const UnflushedFile&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    friend std::error_code flushFiles(std::span<UnflushedFile> files);
    int descriptor_ = -1;
    std::filesystem::path path_;
};

// writeFileAtomically without waiting for the disk: the same whole-file
// replacement, readers never see half a file, but after a power loss the
// name may hold the old file, or nothing readable, until flushFiles returned.
// For files that can be made again from what is durable (the caller keeps a
// record of what it still owes until the flush), where waiting for the disk
// would hold up everyone who waits for the file.
std::expected<UnflushedFile, std::error_code> writeFileAtomicallyUnflushed(const std::filesystem::path& path,
                                                                           std::span<const std::string_view> parts);

// Puts the files' bytes on disk, then their names: each folder they were
// renamed into is flushed once. Returns the first error; the files are
// released either way.
std::error_code flushFiles(std::span<UnflushedFile> files);

// Removes the temporary files that writeFileAtomically left in `folder` when
// its process died mid-write: those no live writer holds locked, at least
// `minimumAge` old. Returns how many it removed; a folder that cannot be
// read has none.
std::size_t removeStaleTemporaries(const std::filesystem::path& folder,
                                   std::chrono::seconds minimumAge = std::chrono::seconds(2));

// What identifies one version of a file. Files replaced by
// writeFileAtomically are new files, but a file system may hand a new file
// the inode of one just removed, within one tick of its clock: where that
// matters (small files that several programs rewrite in quick succession),
// ask for the content's hash too. Two stamps of a missing file are equal.
struct FileStamp {
    bool exists = false;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t modifiedNanoseconds = 0;
    std::int64_t size = 0;
    std::size_t contentHash = 0;  // 0 unless asked for

    bool operator==(const FileStamp&) const = default;
};
enum class StampContent { ignored, hashed };
FileStamp fileStamp(const std::filesystem::path& path, StampContent content = StampContent::ignored);

// The whole file.
std::expected<std::string, std::error_code> readFile(const std::filesystem::path& path);

// A file read whole and kept open, so that what was read and what is named
// later are one and the same file, even if its path is replaced meanwhile.
class FileSnapshot {
public:
    static std::expected<FileSnapshot, std::error_code> take(const std::filesystem::path& path);
    ~FileSnapshot();
    FileSnapshot(FileSnapshot&& other) noexcept;
    FileSnapshot& operator=(FileSnapshot&&) = delete;
    FileSnapshot(const FileSnapshot&) = delete;
    FileSnapshot& operator=(const FileSnapshot&) = delete;

    const std::string& bytes() const { return bytes_; }

    // Gives the file that was read the name `path` as well (a hard link),
    // replacing what is there as writeFileAtomically does, and puts the name
    // on disk: no byte is written, the file's own flush covers its bytes.
    // Fails (EXDEV and the like) where the file system cannot link; the
    // caller then writes a copy.
    std::expected<void, std::error_code> linkAs(const std::filesystem::path& path) const;

private:
    FileSnapshot(int descriptor, std::string bytes) : descriptor_(descriptor), bytes_(std::move(bytes)) {}
    int descriptor_ = -1;
    std::string bytes_;
};

// "Excluded from backup" and "hidden" are kept as extended attributes in the
// user namespace ("user.tamsel.excluded-from-backup", "user.tamsel.hidden").
// File systems without user attributes refuse with ENOTSUP; callers log that
// and carry on, since neither flag changes what the program does.
std::expected<void, std::error_code> setExcludedFromBackup(const std::filesystem::path& path, bool excluded);
std::expected<void, std::error_code> setHidden(const std::filesystem::path& path, bool hidden);
std::expected<bool, std::error_code> isExcludedFromBackup(const std::filesystem::path& path);
std::expected<bool, std::error_code> isHidden(const std::filesystem::path& path);

}  // namespace tamsel::platform

template <>
struct std::is_error_code_enum<tamsel::platform::FileError> : std::true_type {};
