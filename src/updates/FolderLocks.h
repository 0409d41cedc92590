#pragma once

#include <cstddef>
#include <expected>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>

// Working folders of the update code that tell a live user from the leftovers
// of a process that was killed: every user holds an advisory lock (flock) on
// the folder itself for as long as it works in it. The kernel drops the lock
// when the process dies, however it dies, so a folder whose lock can be taken
// has no live user and may be removed. Unlike a process identifier written
// into the name, a lock cannot be mistaken for another process that happens
// to get the same identifier later.
namespace tamsel::updates {

// A fresh folder `<parent>/<prefix>XXXXXX`, locked exclusively while the
// object lives; the destructor removes it with everything inside and only
// then lets the lock go.
class LockedFolder {
public:
    static std::expected<LockedFolder, std::error_code> create(const std::filesystem::path& parent,
                                                               std::string_view prefix);

    LockedFolder(LockedFolder&& other) noexcept;
    LockedFolder& operator=(LockedFolder&&) = delete;
    ~LockedFolder();

    const std::filesystem::path& path() const { return path_; }

private:
    LockedFolder(std::filesystem::path path, int fd) : path_(std::move(path)), fd_(fd) {}

    std::filesystem::path path_;
    int fd_ = -1;
};

// Removes every entry of `parent` whose name begins with `prefix` and that no
// live process holds: folders whose lock can be taken, and anything that is
// not a folder (it can hold no lock). `salvage`, when given, sees each
// abandoned folder first, while this process holds its lock. Returns how
// many it removed.
std::size_t removeAbandonedFolders(const std::filesystem::path& parent, std::string_view prefix,
                                   const std::function<void(const std::filesystem::path&)>& salvage = {});

// Use of a folder that several processes share (the download folder): each
// user holds a shared lock on it while working there. A user that finds no
// other user (the exclusive lock is free) first empties the folder, since
// whatever lies there was left by a process that died mid-download.
class SharedFolderUse {
public:
    // Creates the folder when missing. `removed` receives how many leftovers
    // were removed.
    static std::expected<SharedFolderUse, std::error_code> begin(const std::filesystem::path& folder,
                                                                 std::size_t* removed = nullptr);

    SharedFolderUse(SharedFolderUse&& other) noexcept;
    SharedFolderUse& operator=(SharedFolderUse&&) = delete;
    ~SharedFolderUse();

private:
    explicit SharedFolderUse(int fd) : fd_(fd) {}
    int fd_ = -1;
};

}  // namespace tamsel::updates
