#include "updates/FolderLocks.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

namespace tamsel::updates {
namespace {

std::error_code lastError() { return {errno, std::generic_category()}; }

int openFolder(const std::filesystem::path& path) {
    return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

bool lock(int fd, int operation) {
    while (::flock(fd, operation) != 0) {
        if (errno != EINTR) return false;
    }
    return true;
}

// Whether `path` still names the folder open as `fd`: a folder removed (and
// perhaps made anew) between opening and locking is not the one locked.
bool stillNamed(const std::filesystem::path& path, int fd) {
    struct stat named {}, open {};
    if (::lstat(path.c_str(), &named) != 0 || ::fstat(fd, &open) != 0) return false;
    return named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

}  // namespace

std::expected<LockedFolder, std::error_code> LockedFolder::create(const std::filesystem::path& parent,
                                                                 std::string_view prefix) {
    // Between mkdtemp and flock another process may find the folder unlocked
    // and remove it as abandoned; then the folder is made again.
    for (int attempt = 0; attempt < 8; ++attempt) {
        std::string pattern = (parent / (std::string(prefix) + "XXXXXX")).string();
        if (::mkdtemp(pattern.data()) == nullptr) return std::unexpected(lastError());
        const int fd = openFolder(pattern);
        if (fd < 0) {
            if (errno == ENOENT) continue;
            const auto error = lastError();
            std::error_code ignored;
            std::filesystem::remove_all(pattern, ignored);
            return std::unexpected(error);
        }
        // Blocks only while a sweeper removes the folder it just found.
        if (lock(fd, LOCK_EX) && stillNamed(pattern, fd)) return LockedFolder(std::move(pattern), fd);
        ::close(fd);
    }
    return std::unexpected(std::make_error_code(std::errc::resource_unavailable_try_again));
}

LockedFolder::LockedFolder(LockedFolder&& other) noexcept
    : path_(std::exchange(other.path_, {})), fd_(std::exchange(other.fd_, -1)) {}

LockedFolder::~LockedFolder() {
    if (!path_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    if (fd_ >= 0) ::close(fd_);
}

std::size_t removeAbandonedFolders(const std::filesystem::path& parent, std::string_view prefix,
                                   const std::function<void(const std::filesystem::path&)>& salvage) {
    std::vector<std::filesystem::path> candidates;
    std::error_code failure;
    for (std::filesystem::directory_iterator it(parent, failure), end; !failure && it != end; it.increment(failure)) {
        if (it->path().filename().string().starts_with(prefix)) candidates.push_back(it->path());
    }
    std::size_t removed = 0;
    for (const auto& candidate : candidates) {
        std::error_code ignored;
        const int fd = openFolder(candidate);
        if (fd < 0) {
            // Not a folder (or a link to one): nothing of ours, nobody's lock.
            if ((errno == ENOTDIR || errno == ELOOP) && std::filesystem::remove(candidate, ignored)) ++removed;
            continue;
        }
        if (lock(fd, LOCK_EX | LOCK_NB) && stillNamed(candidate, fd)) {
            if (salvage) salvage(candidate);
            if (std::filesystem::remove_all(candidate, ignored) > 0) ++removed;
        }
        ::close(fd);
    }
    return removed;
}

std::expected<SharedFolderUse, std::error_code> SharedFolderUse::begin(const std::filesystem::path& folder,
                                                                     std::size_t* removed) {
    if (removed) *removed = 0;
    std::error_code failure;
    std::filesystem::create_directories(folder, failure);
    if (failure) return std::unexpected(failure);
    const int fd = openFolder(folder);
    if (fd < 0) return std::unexpected(lastError());
    if (lock(fd, LOCK_EX | LOCK_NB)) {
        std::vector<std::filesystem::path> leftovers;
        for (std::filesystem::directory_iterator it(folder, failure), end; !failure && it != end;
             it.increment(failure)) {
            leftovers.push_back(it->path());
        }
        for (const auto& leftover : leftovers) {
            std::error_code ignored;
            if (std::filesystem::remove_all(leftover, ignored) > 0 && removed) ++*removed;
        }
    }
    // From exclusive to shared, or shared beside the other users; waits only
    // while another user empties the folder.
    if (!lock(fd, LOCK_SH)) {
        const auto error = lastError();
        ::close(fd);
        return std::unexpected(error);
    }
    return SharedFolderUse(fd);
}

SharedFolderUse::SharedFolderUse(SharedFolderUse&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

SharedFolderUse::~SharedFolderUse() {
    if (fd_ >= 0) ::close(fd_);
}

}  // namespace tamsel::updates
