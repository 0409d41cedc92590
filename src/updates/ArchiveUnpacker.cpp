#include "updates/ArchiveUnpacker.h"

#include "platform/Files.h"
#include "platform/Log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "updates/FolderLocks.h"

namespace tamsel::updates {
namespace {

struct ZipCloser {
    void operator()(zip_t* archive) const { zip_discard(archive); }
};
struct ZipFileCloser {
    void operator()(zip_file_t* file) const { zip_fclose(file); }
};

std::string zipErrorText(int code) {
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    std::string text = zip_error_strerror(&error);
    zip_error_fini(&error);
    return text;
}

Error unzipError(std::string description) { return Error::make(ErrorCode::unzip, std::move(description)); }

std::string errnoText(int error) { return std::generic_category().message(error); }

std::string byteCount(std::uint64_t bytes) {
    if (bytes >= (std::uint64_t{1} << 20) && bytes % (std::uint64_t{1} << 20) == 0) {
        return std::to_string(bytes >> 20) + " MiB";
    }
    return std::to_string(bytes) + " bytes";
}

Error tooLargeInAll(const UnpackOptions& options) {
    return Error::make(ErrorCode::archiveTooLarge,
                       "The archive unpacks to more than " + byteCount(options.maximumTotalSize) + " in all");
}

Error tooLargeFile(std::string_view name, const UnpackOptions& options) {
    return Error::make(ErrorCode::archiveTooLarge, "The archive's " + std::string(name) + " unpacks to more than " +
                                                       byteCount(options.maximumFileSize));
}

struct Entry {
    zip_uint64_t index = 0;
    std::string name;
    bool isDirectory = false;
    zip_uint64_t declaredSize = 0;
    EntryHandling handling = EntryHandling::replace;
};

// Refuses links and device files; only the Unix attributes say what an entry is.
std::optional<Error> checkEntryKind(zip_t* archive, const Entry& entry) {
    zip_uint8_t system = 0;
    zip_uint32_t attributes = 0;
    if (zip_file_get_external_attributes(archive, entry.index, 0, &system, &attributes) != 0) return std::nullopt;
    if (system != ZIP_OPSYS_UNIX) return std::nullopt;
    const mode_t mode = static_cast<mode_t>(attributes >> 16);
    const mode_t kind = mode & S_IFMT;
    if (kind == 0 || kind == S_IFREG || (kind == S_IFDIR && entry.isDirectory)) return std::nullopt;
    return Error::make(ErrorCode::unsafeEntry,
                       "The entry \"" + entry.name + "\" is " + (kind == S_IFLNK ? "a link" : "not a regular file"));
}

// The entries to unpack, after every entry of the archive passed the safety
// checks; skipped entries are left out and count towards no limit.
std::expected<std::vector<Entry>, Error> listEntries(zip_t* archive, const UnpackOptions& options) {
    const zip_int64_t count = zip_get_num_entries(archive, 0);
    if (count <= 0) return std::unexpected(unzipError("The archive holds no files"));
    std::vector<Entry> all;
    for (zip_uint64_t index = 0; index < static_cast<zip_uint64_t>(count); ++index) {
        zip_stat_t stat;
        zip_stat_init(&stat);
        if (zip_stat_index(archive, index, 0, &stat) != 0 || !(stat.valid & ZIP_STAT_NAME)) {
            return std::unexpected(unzipError(zip_strerror(archive)));
        }
        Entry entry{index, stat.name, false, (stat.valid & ZIP_STAT_SIZE) ? stat.size : 0};
        if (!isSafeEntryName(entry.name)) {
            return std::unexpected(
                Error::make(ErrorCode::unsafeEntry, "The entry \"" + entry.name + "\" would land outside the folder"));
        }
        entry.isDirectory = entry.name.back() == '/';
        if (auto refused = checkEntryKind(archive, entry)) return std::unexpected(std::move(*refused));
        all.push_back(std::move(entry));
    }

    std::vector<Entry> entries;
    zip_uint64_t declaredTotal = 0;
    bool anyFile = false;
    for (Entry& entry : all) {
        anyFile = anyFile || !entry.isDirectory;
        if (options.handling) entry.handling = options.handling(entry.name);
        if (entry.handling == EntryHandling::skip) continue;
        if (entry.declaredSize > options.maximumFileSize) return std::unexpected(tooLargeFile(entry.name, options));
        declaredTotal += entry.declaredSize;
        if (declaredTotal > options.maximumTotalSize) return std::unexpected(tooLargeInAll(options));
        entries.push_back(std::move(entry));
    }
    if (!anyFile) return std::unexpected(unzipError("The archive holds no files"));
    if (std::none_of(entries.begin(), entries.end(), [](const Entry& entry) { return !entry.isDirectory; })) {
        return std::unexpected(
            Error::make(ErrorCode::noRuleFiles, "The archive holds no file to install (every entry was skipped)"));
    }
    return entries;
}

class OutputFile {
public:
    explicit OutputFile(const std::filesystem::path& path)
        : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644)) {}
    ~OutputFile() {
        if (fd_ >= 0) ::close(fd_);
    }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    bool isOpen() const { return fd_ >= 0; }
    bool write(const char* bytes, size_t size) {
        while (size > 0) {
            const ssize_t written = ::write(fd_, bytes, size);
            if (written < 0) {
                if (errno == EINTR) continue;
                return false;
            }
            bytes += written;
            size -= static_cast<size_t>(written);
        }
        return true;
    }
    // The files are read by other programs as soon as they are moved into
    // place, so they must be on disk before the rename.
    bool finish() {
        const bool synced = ::fsync(fd_) == 0;
        const bool closed = ::close(fd_) == 0;
        fd_ = -1;
        return synced && closed;
    }

private:
    int fd_;
};

std::optional<Error> extractEntry(zip_t* archive, const Entry& entry, const std::filesystem::path& target,
                                  zip_uint64_t& producedTotal, const UnpackOptions& options) {
    std::unique_ptr<zip_file_t, ZipFileCloser> file(zip_fopen_index(archive, entry.index, 0));
    if (!file) return unzipError(entry.name + ": " + zip_strerror(archive));

    OutputFile output(target);
    if (!output.isOpen()) return Error::make(ErrorCode::fileSystem, target.string() + ": " + errnoText(errno));

    std::array<char, 64 * 1024> buffer;
    zip_uint64_t produced = 0;
    for (;;) {
        const zip_int64_t read = zip_fread(file.get(), buffer.data(), buffer.size());
        if (read < 0) return unzipError(entry.name + ": " + zip_file_strerror(file.get()));
        if (read == 0) break;
        produced += static_cast<zip_uint64_t>(read);
        producedTotal += static_cast<zip_uint64_t>(read);
        if (producedTotal > options.maximumTotalSize) return tooLargeInAll(options);
        if (produced > options.maximumFileSize) return tooLargeFile(entry.name, options);
        if (produced > entry.declaredSize) {
            return unzipError(entry.name + ": the entry is larger than its declared size");
        }
        if (!output.write(buffer.data(), static_cast<size_t>(read))) {
            return Error::make(ErrorCode::fileSystem, target.string() + ": " + errnoText(errno));
        }
    }
    if (produced != entry.declaredSize) return unzipError(entry.name + ": the entry is shorter than its declared size");
    if (!output.finish()) return Error::make(ErrorCode::fileSystem, target.string() + ": " + errnoText(errno));
    return std::nullopt;
}

// Moves the staged files over the installed ones, one atomic rename each, and
// can put everything back: the file each move replaces is first kept (as a
// hard link, or failing that a copy) in the staging folder. Readers see every
// file either old or new, and a failure part-way leaves the old set.
class MoveIntoPlace {
public:
    // `staging` holds the unpacked files in "unpacked"; "replaced" receives the old ones.
    MoveIntoPlace(const std::filesystem::path& staging, std::filesystem::path folder)
        : staged_(staging / "unpacked"), kept_(staging / "replaced"), folder_(std::move(folder)) {}

    // Moves one file over whatever has its name. Returns whether it moved.
    std::expected<bool, Error> file(const std::filesystem::path& relative, EntryHandling handling) {
        const std::filesystem::path target = folder_ / relative;
        std::error_code failure;
        std::filesystem::create_directories(target.parent_path(), failure);
        if (failure) return std::unexpected(Error::make(ErrorCode::fileSystem, target.string() + ": " + failure.message()));
        if (handling == EntryHandling::installIfAbsent) return fillGap(relative);
        Moved moved{target, std::nullopt};
        std::filesystem::file_status status;
        if (!failure) {
            status = std::filesystem::symlink_status(target, failure);
            if (status.type() == std::filesystem::file_type::not_found) failure.clear();
        }
        if (!failure && std::filesystem::exists(status)) {
            const std::filesystem::path kept = kept_ / relative;
            std::filesystem::create_directories(kept.parent_path(), failure);
            if (!failure) std::filesystem::create_hard_link(target, kept, failure);
            if (failure) {
                failure.clear();
                std::filesystem::copy_file(target, kept, failure);
            }
            if (!failure) moved.kept = kept;
        }
        if (!failure) std::filesystem::rename(staged_ / relative, target, failure);
        if (failure) return std::unexpected(Error::make(ErrorCode::fileSystem, target.string() + ": " + failure.message()));
        moves_.push_back(std::move(moved));
        return true;
    }

    // Best effort: a file that cannot be put back is left as it is.
    void rollBack() {
        for (auto it = moves_.rbegin(); it != moves_.rend(); ++it) {
            std::error_code ignored;
            if (it->kept) {
                std::filesystem::rename(*it->kept, it->target, ignored);
            } else {
                std::filesystem::remove(it->target, ignored);
            }
        }
        moves_.clear();
    }

private:
    // Moves the file only where none of its name exists, in one step, so that
    // a file another program writes meanwhile is never replaced.
    std::expected<bool, Error> fillGap(const std::filesystem::path& relative) {
        const std::filesystem::path from = staged_ / relative, target = folder_ / relative;
        int result = ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE);
        if (result != 0 && (errno == EINVAL || errno == ENOSYS)) {
            // A file system without the flag: a hard link fails alike when the
            // name exists.
            result = ::link(from.c_str(), target.c_str());
        }
        if (result != 0) {
            if (errno == EEXIST) return false;
            return std::unexpected(Error::make(ErrorCode::fileSystem, target.string() + ": " + errnoText(errno)));
        }
        moves_.push_back(Moved{target, std::nullopt});
        return true;
    }

    struct Moved {
        std::filesystem::path target;
        std::optional<std::filesystem::path> kept;  // the file it replaced
    };

    std::filesystem::path staged_;
    std::filesystem::path kept_;
    std::filesystem::path folder_;
    std::vector<Moved> moves_;
};

}  // namespace

bool isSafeEntryName(std::string_view name) {
    if (name.empty() || name.front() == '/' || name.find('\\') != std::string_view::npos ||
        name.find('\0') != std::string_view::npos) {
        return false;
    }
    // "C:foo" is a drive-relative path to a Windows unzipper.
    if (name.size() >= 2 && name[1] == ':') return false;
    if (name.back() == '/') name.remove_suffix(1);
    while (true) {
        const auto slash = name.find('/');
        const std::string_view component = name.substr(0, slash);
        if (component.empty() || component == "." || component == "..") return false;
        if (slash == std::string_view::npos) return true;
        name.remove_prefix(slash + 1);
    }
}

std::string stagingFolderPrefix(const std::filesystem::path& folder) {
    return "." + folder.filename().string() + ".unpacking-";
}

namespace {

// In a staging folder: the list of the files about to move, one a line,
// "replace <path>" or "ifabsent <path>". Written once the files are checked;
// from then on the install is completed even by another process.
constexpr char moveListName[] = "moving";
constexpr std::string_view replaceWord = "replace ";
constexpr std::string_view ifAbsentWord = "ifabsent ";

const platform::SystemLogger& logger() {
    static const platform::SystemLogger instance("Download");
    return instance;
}

}  // namespace

std::size_t finishInterruptedUnpacks(const std::filesystem::path& folder, const UnpackOptions& options) {
    std::size_t finished = 0;
    removeAbandonedFolders(folder.parent_path(), stagingFolderPrefix(folder), [&](const std::filesystem::path& staging) {
        auto list = platform::readFile(staging / moveListName);
        if (!list) return;
        if (options.willInstall) options.willInstall();
        MoveIntoPlace move(staging, folder);
        std::string_view text = *list;
        while (!text.empty()) {
            const auto newline = text.find('\n');
            std::string_view line = text.substr(0, newline);
            text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
            const bool ifAbsent = line.starts_with(ifAbsentWord);
            if (!ifAbsent && !line.starts_with(replaceWord)) continue;
            line.remove_prefix(ifAbsent ? ifAbsentWord.size() : replaceWord.size());
            const std::filesystem::path relative(line);
            // Moved before the process died: nothing left to do for it.
            if (!isSafeEntryName(line) || !std::filesystem::exists(staging / "unpacked" / relative)) continue;
            if (!move.file(relative, ifAbsent ? EntryHandling::installIfAbsent : EntryHandling::replace)) {
                logger().error("Can't complete the interrupted install of %s", relative.c_str());
            }
        }
        ++finished;
    });
    return finished;
}

std::expected<std::vector<std::filesystem::path>, Error> unpackArchive(const std::filesystem::path& archivePath,
                                                                      const std::filesystem::path& folder,
                                                                      const UnpackOptions& options) {
    const std::filesystem::path parent = folder.parent_path();
    const std::string prefix = stagingFolderPrefix(folder);
    // Unpacks that were killed left their staging folders, up to a rule set
    // in size each; no live process holds them. One that had begun to move
    // its files in is completed first.
    finishInterruptedUnpacks(folder, options);

    int openError = 0;
    std::unique_ptr<zip_t, ZipCloser> archive(zip_open(archivePath.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &openError));
    if (!archive) return std::unexpected(unzipError(zipErrorText(openError)));
    if (!options.password.empty() && zip_set_default_password(archive.get(), options.password.c_str()) != 0) {
        return std::unexpected(unzipError(zip_strerror(archive.get())));
    }

    auto entries = listEntries(archive.get(), options);
    if (!entries) return std::unexpected(std::move(entries.error()));

    std::error_code failure;
    std::filesystem::create_directories(parent, failure);
    if (failure) return std::unexpected(Error::make(ErrorCode::fileSystem, failure.message()));
    auto staging = LockedFolder::create(parent, prefix);
    if (!staging) return std::unexpected(Error::make(ErrorCode::fileSystem, staging.error().message()));

    struct Staged {
        std::filesystem::path relative;
        std::string name;
        EntryHandling handling;
    };
    const std::filesystem::path unpacked = staging->path() / "unpacked";
    std::vector<Staged> files;
    zip_uint64_t producedTotal = 0;
    for (const Entry& entry : *entries) {
        const std::filesystem::path relative(entry.name);
        const std::filesystem::path target = unpacked / relative;
        std::filesystem::create_directories(entry.isDirectory ? target : target.parent_path(), failure);
        if (failure) return std::unexpected(Error::make(ErrorCode::fileSystem, failure.message()));
        if (entry.isDirectory) continue;
        if (auto error = extractEntry(archive.get(), entry, target, producedTotal, options)) {
            return std::unexpected(std::move(*error));
        }
        files.push_back({relative, entry.name, entry.handling});
    }

    if (options.checkFile) {
        for (const auto& file : files) {
            if (auto refused = options.checkFile(file.name, unpacked / file.relative)) {
                return std::unexpected(std::move(*refused));
            }
        }
    }
    if (options.prepareFile) {
        for (const auto& file : files) options.prepareFile(unpacked / file.relative);
    }
    if (options.willInstall) options.willInstall();
    std::string moveList;
    for (const auto& file : files) {
        moveList.append(file.handling == EntryHandling::installIfAbsent ? ifAbsentWord : replaceWord)
            .append(file.relative.string())
            .append("\n");
    }
    if (auto written = platform::writeFileAtomically(staging->path() / moveListName, moveList); !written) {
        return std::unexpected(Error::make(ErrorCode::fileSystem, written.error().message()));
    }
    MoveIntoPlace move(staging->path(), folder);
    std::vector<std::filesystem::path> installed;
    std::vector<std::string> kept;
    for (const auto& file : files) {
        auto moved = move.file(file.relative, file.handling);
        if (!moved) {
            move.rollBack();
            return std::unexpected(std::move(moved.error()));
        }
        if (*moved) {
            installed.push_back(folder / file.relative);
        } else {
            kept.push_back(file.name);
            if (options.kept) options.kept(file.name);
        }
    }
    if (installed.empty()) {
        std::string names;
        for (const auto& name : kept) names += (names.empty() ? "" : ", ") + name;
        return std::unexpected(Error::make(ErrorCode::noRuleFiles,
                                           "The archive holds no file to install (the folder keeps its own " + names +
                                               ")"));
    }
    return installed;
}

}  // namespace tamsel::updates
