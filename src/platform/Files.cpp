#include "platform/Files.h"

#include "platform/DispatchQueue.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <random>
#include <memory>
#include <set>
#include <utility>
#include <string>

namespace tamsel::platform {
namespace {

constexpr const char* excludedFromBackupAttribute = "user.tamsel.excluded-from-backup";
constexpr const char* hiddenAttribute = "user.tamsel.hidden";

constexpr std::string_view temporaryMarker = ".tmp-";
constexpr std::size_t temporarySuffixLength = 6;  // mkostemp's XXXXXX

// ".<name>.tmp-XXXXXX", as writeFileAtomically names its temporary files.
bool isTemporaryName(std::string_view name) {
    if (name.size() < 2 + temporaryMarker.size() + temporarySuffixLength || name.front() != '.') return false;
    return name.substr(name.size() - temporarySuffixLength - temporaryMarker.size(), temporaryMarker.size()) ==
           temporaryMarker;
}

std::unexpected<std::error_code> lastError() { return std::unexpected(std::error_code(errno, std::generic_category())); }

// Closes on every path out, so that early returns cannot leak descriptors.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() { close(); }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    int close() {
        if (fd_ < 0) return 0;
        const int result = ::close(fd_);
        fd_ = -1;
        return result;
    }

private:
    int fd_;
};

// Files from this size up are let go of in the background when replaced.
constexpr off_t largeFileBytes = 1 << 20;

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        // A short write is retried; the retry reports why it stopped (ENOSPC, EFBIG).
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

std::expected<void, std::error_code> setFlag(const std::filesystem::path& path, const char* attribute, bool on) {
    if (on) {
        if (::setxattr(path.c_str(), attribute, "1", 1, 0) != 0) return lastError();
        return {};
    }
    if (::removexattr(path.c_str(), attribute) != 0 && errno != ENODATA) return lastError();
    return {};
}

std::expected<bool, std::error_code> hasFlag(const std::filesystem::path& path, const char* attribute) {
    if (::getxattr(path.c_str(), attribute, nullptr, 0) >= 0) return true;
    if (errno == ENODATA) return false;
    return lastError();
}

class FileErrorCategory : public std::error_category {
public:
    const char* name() const noexcept override { return "tamsel.files"; }
    std::string message(int value) const override {
        switch (static_cast<FileError>(value)) {
        case FileError::notRegularFile: return "not a regular file";
        }
        return "unknown file error";
    }
};

}  // namespace

const std::error_category& fileErrorCategory() {
    static const FileErrorCategory category;
    return category;
}

std::error_code make_error_code(FileError error) { return {static_cast<int>(error), fileErrorCategory()}; }

std::expected<void, std::error_code> checkReplaceable(const std::filesystem::path& path) {
    struct stat status{};
    if (::lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) return {};
        return lastError();
    }
    if (!S_ISREG(status.st_mode)) return std::unexpected(make_error_code(FileError::notRegularFile));
    return {};
}

std::expected<void, std::error_code> writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) {
    return writeFileAtomically(path, std::span<const std::string_view>(&bytes, 1));
}

namespace {

enum class FlushBeforeRename : bool { no, yes };

// The temporary file written, renamed over `path`, and still open.
std::expected<FileDescriptor, std::error_code> replaceAtomically(const std::filesystem::path& path,
                                                                 std::span<const std::string_view> parts,
                                                                 FlushBeforeRename flush) {
    // Something put there between this look and the rename below is still
    // replaced; the look keeps the program from doing it on its own.
    if (auto replaceable = checkReplaceable(path); !replaceable) return std::unexpected(replaceable.error());
    const std::filesystem::path directory = path.has_parent_path() ? path.parent_path() : ".";
    // Hidden and recognisable, so that a crash mid-write leaves no file that
    // a reader could mistake for the real one.
    std::string temporary =
        (directory / ("." + path.filename().string() + std::string(temporaryMarker) + "XXXXXX")).string();
    FileDescriptor fd(::mkostemp(temporary.data(), O_CLOEXEC));
    if (fd.get() < 0) return lastError();
    // Held until the rename, so that removeStaleTemporaries can tell this
    // file from one left behind by a writer that died.
    ::flock(fd.get(), LOCK_EX | LOCK_NB);

    auto fail = [&] {
        const int error = errno;
        fd.close();
        ::unlink(temporary.c_str());
        return std::unexpected(std::error_code(error, std::generic_category()));
    };

    struct stat existing{};
    const bool exists = ::stat(path.c_str(), &existing) == 0;
    const mode_t mode = exists ? (existing.st_mode & 07777) : 0644;
    if (::fchmod(fd.get(), mode) != 0) return fail();
    // Dropping a large replaced file (its cached pages, its blocks) takes
    // about as long as writing it did. Held open across the rename, the old
    // file goes when it is closed, which happens off the caller's thread.
    auto previous = std::make_shared<FileDescriptor>(
        exists && S_ISREG(existing.st_mode) && existing.st_size >= largeFileBytes
            ? ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC)
            : -1);
    for (const std::string_view part : parts) {
        if (!writeAll(fd.get(), part)) return fail();
    }
    if (flush == FlushBeforeRename::yes && ::fsync(fd.get()) != 0) return fail();
    if (::rename(temporary.c_str(), path.c_str()) != 0) return fail();
    if (previous->get() >= 0) {
        DispatchQueue::global(QualityOfService::background).async([previous = std::move(previous)] { previous->close(); });
    }
    return fd;
}

std::filesystem::path folderOf(const std::filesystem::path& file) {
    return file.has_parent_path() ? file.parent_path() : ".";
}

void flushFolder(const std::filesystem::path& directory) {
    FileDescriptor directoryFd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directoryFd.get() >= 0) ::fsync(directoryFd.get());
}

}  // namespace

std::expected<void, std::error_code> writeFileAtomically(const std::filesystem::path& path,
                                                         std::span<const std::string_view> parts) {
    auto written = replaceAtomically(path, parts, FlushBeforeRename::yes);
    if (!written) return std::unexpected(written.error());
    // A close that fails after a successful fsync loses nothing.
    written->close();
    // Make the rename itself durable; the data is safe either way.
    flushFolder(folderOf(path));
    return {};
}

UnflushedFile::UnflushedFile(int descriptor, std::filesystem::path path)
    : descriptor_(descriptor), path_(std::move(path)) {}

UnflushedFile::~UnflushedFile() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

UnflushedFile::UnflushedFile(UnflushedFile&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)), path_(std::move(other.path_)) {}

UnflushedFile& UnflushedFile::operator=(UnflushedFile&& other) noexcept {
    if (this != &other) {
        if (descriptor_ >= 0) ::close(descriptor_);
        descriptor_ = std::exchange(other.descriptor_, -1);
        path_ = std::move(other.path_);
    }
    return *this;
}

std::expected<UnflushedFile, std::error_code> writeFileAtomicallyUnflushed(const std::filesystem::path& path,
                                                                           std::span<const std::string_view> parts) {
    auto written = replaceAtomically(path, parts, FlushBeforeRename::no);
    if (!written) return std::unexpected(written.error());
    const int descriptor = written->release();
    return UnflushedFile(descriptor, path);
}

std::error_code flushFiles(std::span<UnflushedFile> files) {
    std::error_code first;
    std::set<std::filesystem::path> folders;
    for (UnflushedFile& file : files) {
        if (file.descriptor_ < 0) continue;
        if (::fsync(file.descriptor_) != 0 && !first) first = std::error_code(errno, std::generic_category());
        ::close(std::exchange(file.descriptor_, -1));
        folders.insert(folderOf(file.path_));
    }
    // The names only once every file's bytes are down.
    for (const auto& folder : folders) flushFolder(folder);
    return first;
}

std::size_t removeStaleTemporaries(const std::filesystem::path& folder, std::chrono::seconds minimumAge) {
    std::error_code failure;
    std::filesystem::directory_iterator entries(folder, failure);
    if (failure) return 0;
    const auto now = std::filesystem::file_time_type::clock::now();
    std::size_t removed = 0;
    for (const auto& entry : entries) {
        if (!isTemporaryName(entry.path().filename().native())) continue;
        FileDescriptor fd(::open(entry.path().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (fd.get() < 0) continue;
        struct stat status{};
        if (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
        // A writer holds its temporary file locked until the rename.
        if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) continue;
        std::error_code timeFailure;
        const auto modified = std::filesystem::last_write_time(entry.path(), timeFailure);
        // A file this young may belong to a writer between creating and locking it.
        if (timeFailure || now - modified < minimumAge) continue;
        if (::unlink(entry.path().c_str()) == 0) ++removed;
    }
    return removed;
}

FileStamp fileStamp(const std::filesystem::path& path, StampContent content) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status{};
    if (fd.get() < 0 || ::fstat(fd.get(), &status) != 0) return {};
    FileStamp stamp{true,
                    static_cast<std::uint64_t>(status.st_dev),
                    static_cast<std::uint64_t>(status.st_ino),
                    static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec,
                    static_cast<std::int64_t>(status.st_size),
                    0};
    if (content == StampContent::hashed && S_ISREG(status.st_mode)) {
        std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
        std::size_t filled = 0;
        while (filled < bytes.size()) {
            const ssize_t count = ::read(fd.get(), bytes.data() + filled, bytes.size() - filled);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) break;
            filled += static_cast<std::size_t>(count);
        }
        bytes.resize(filled);
        stamp.contentHash = std::hash<std::string_view>{}(bytes) | 1;
    }
    return stamp;
}

namespace {

std::expected<std::string, std::error_code> readOpenFile(int fd) {
    struct stat status{};
    if (::fstat(fd, &status) != 0) return lastError();
    if (S_ISDIR(status.st_mode)) return std::unexpected(std::make_error_code(std::errc::is_a_directory));
    std::string content;
    content.reserve(static_cast<std::size_t>(status.st_size));
    char buffer[65536];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0) {
            if (errno == EINTR) continue;
            return lastError();
        }
        if (count == 0) break;
        content.append(buffer, static_cast<std::size_t>(count));
    }
    return content;
}

}  // namespace

std::expected<std::string, std::error_code> readFile(const std::filesystem::path& path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) return lastError();
    return readOpenFile(fd.get());
}

std::expected<FileSnapshot, std::error_code> FileSnapshot::take(const std::filesystem::path& path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) return lastError();
    auto bytes = readOpenFile(fd.get());
    if (!bytes) return std::unexpected(bytes.error());
    return FileSnapshot(fd.release(), std::move(*bytes));
}

FileSnapshot::~FileSnapshot() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

FileSnapshot::FileSnapshot(FileSnapshot&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)), bytes_(std::move(other.bytes_)) {}

std::expected<void, std::error_code> FileSnapshot::linkAs(const std::filesystem::path& path) const {
    if (auto replaceable = checkReplaceable(path); !replaceable) return replaceable;
    const std::filesystem::path directory = folderOf(path);
    // Already its name (rename would then leave the temporary name behind).
    struct stat file{};
    struct stat there{};
    if (::fstat(descriptor_, &file) != 0) return lastError();
    if (::stat(path.c_str(), &there) == 0 && there.st_dev == file.st_dev && there.st_ino == file.st_ino) return {};
    // The open file by its descriptor's name: the very file that was read.
    const std::string source = "/proc/self/fd/" + std::to_string(descriptor_);
    // A temporary name as writeFileAtomically's, tried until one is free
    // (a link cannot be made under a fresh random name the way mkostemp
    // makes a file).
    static thread_local std::mt19937 random(std::random_device{}());
    std::filesystem::path temporary;
    for (int attempt = 0;; ++attempt) {
        char suffix[7];
        std::snprintf(suffix, sizeof suffix, "%06u", static_cast<unsigned>(random() % 1000000u));
        temporary = directory / ("." + path.filename().string() + std::string(temporaryMarker) + suffix);
        if (::linkat(AT_FDCWD, source.c_str(), AT_FDCWD, temporary.c_str(), AT_SYMLINK_FOLLOW) == 0) break;
        if (errno != EEXIST || attempt == 100) return lastError();
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        return std::unexpected(std::error_code(error, std::generic_category()));
    }
    // Renaming over another name of the same file (another program linked
    // this file there meanwhile) leaves both names: the temporary one goes.
    struct stat left{};
    if (::stat(temporary.c_str(), &left) == 0 && left.st_dev == file.st_dev && left.st_ino == file.st_ino) {
        ::unlink(temporary.c_str());
    }
    flushFolder(directory);
    return {};
}

std::expected<void, std::error_code> setExcludedFromBackup(const std::filesystem::path& path, bool excluded) {
    return setFlag(path, excludedFromBackupAttribute, excluded);
}

std::expected<void, std::error_code> setHidden(const std::filesystem::path& path, bool hidden) {
    return setFlag(path, hiddenAttribute, hidden);
}

std::expected<bool, std::error_code> isExcludedFromBackup(const std::filesystem::path& path) {
    return hasFlag(path, excludedFromBackupAttribute);
}

std::expected<bool, std::error_code> isHidden(const std::filesystem::path& path) {
    return hasFlag(path, hiddenAttribute);
}

}  // namespace tamsel::platform
