#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fcntl.h>
#include <fstream>
#include <thread>

#include "platform/Files.h"
#include "support/TestSupport.h"

namespace tamsel::platform {
namespace {

using tamsel::testing::runChildProcess;
using tamsel::testing::TemporaryDirectory;

std::vector<std::string> namesIn(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

mode_t modeOf(const std::filesystem::path& path) {
    struct stat status{};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

class FilesTest : public ::testing::Test {
protected:
    void writeOld() {
        ASSERT_TRUE(writeFileAtomically(target, "old content"));
        ASSERT_EQ(*readFile(target), "old content");
    }
    void expectOldFileAlone() {
        EXPECT_EQ(*readFile(target), "old content");
        EXPECT_EQ(namesIn(target.parent_path()), std::vector<std::string>{"block-ads.json"});
    }

    TemporaryDirectory directory;
    std::filesystem::path target = directory / "shared" / "block-ads.json";

    void SetUp() override { std::filesystem::create_directories(target.parent_path()); }
};

TEST_F(FilesTest, ReplacesTheFileAndLeavesNothingElse) {
    writeOld();
    const std::string large(3 * 1024 * 1024 + 17, 'z');
    ASSERT_TRUE(writeFileAtomically(target, large));
    EXPECT_EQ(*readFile(target), large);
    ASSERT_TRUE(writeFileAtomically(target, ""));
    EXPECT_EQ(*readFile(target), "");
    EXPECT_EQ(namesIn(target.parent_path()), std::vector<std::string>{"block-ads.json"});
}

TEST_F(FilesTest, PartsMakeOneFileAndALargeReplacedFileStaysWholeForWhoeverHasItOpen) {
    const std::string old(2 * 1024 * 1024, 'o');
    ASSERT_TRUE(writeFileAtomically(target, old));
    std::ifstream reader(target, std::ios::binary);
    const std::string body(2 * 1024 * 1024 + 3, 'n');
    const std::vector<std::string_view> parts{"[", body, ",", "", "tail", "]"};
    ASSERT_TRUE(writeFileAtomically(target, parts));
    EXPECT_EQ(*readFile(target), "[" + body + ",tail]");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(reader), {}), old);
    EXPECT_EQ(namesIn(target.parent_path()), std::vector<std::string>{"block-ads.json"});
}

TEST_F(FilesTest, NewFilesAreReadableByOthersAndExistingPermissionsStay) {
    ASSERT_TRUE(writeFileAtomically(target, "a"));
    EXPECT_EQ(modeOf(target), 0644u);
    ASSERT_EQ(::chmod(target.c_str(), 0600), 0);
    ASSERT_TRUE(writeFileAtomically(target, "b"));
    EXPECT_EQ(modeOf(target), 0600u);
}

TEST_F(FilesTest, MissingFolderIsReportedAndNothingIsCreated) {
    const auto result = writeFileAtomically(directory / "missing" / "file.json", "x");
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(), std::errc::no_such_file_or_directory);
    EXPECT_FALSE(std::filesystem::exists(directory / "missing"));
}

TEST_F(FilesTest, RefusedPermissionLeavesTheOldFileWhole) {
    writeOld();
    ASSERT_EQ(::chmod(target.parent_path().c_str(), 0555), 0);
    ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);
    // Root ignores folder permissions, so the write is tried as nobody.
    const int code = runChildProcess([&] {
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) return 100;
        const auto result = writeFileAtomically(target, "new content");
        if (result) return 101;
        return result.error() == std::errc::permission_denied ? 0 : 102;
    });
    EXPECT_EQ(code, 0);
    expectOldFileAlone();
}

TEST_F(FilesTest, ShortWriteFromAFullDiskLeavesTheOldFileWhole) {
    writeOld();
    // A file-size limit makes write() stop part-way, as a full disk does.
    const int code = runChildProcess([&] {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return 100;
        const auto result = writeFileAtomically(target, std::string(64 * 1024, 'n'));
        if (result) return 101;
        return result.error() == std::errc::file_too_large ? 0 : 102;
    });
    EXPECT_EQ(code, 0);
    expectOldFileAlone();
}

TEST_F(FilesTest, OnlyARegularFileIsReplaced) {
    writeOld();
    const auto folder = target.parent_path();
    const auto fifo = folder / "fifo";
    const auto link = folder / "link";
    const auto dangling = folder / "dangling";
    const auto subfolder = folder / "folder";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
    std::filesystem::create_symlink(target, link);
    std::filesystem::create_symlink(folder / "nowhere", dangling);
    std::filesystem::create_directory(subfolder);

    for (const auto& path : {fifo, link, dangling, subfolder}) {
        EXPECT_EQ(checkReplaceable(path).error(), FileError::notRegularFile) << path;
        const auto written = writeFileAtomically(path, "new content");
        ASSERT_FALSE(written) << path;
        EXPECT_EQ(written.error(), FileError::notRegularFile) << path;
        EXPECT_EQ(written.error().message(), "not a regular file");
    }
    EXPECT_TRUE(std::filesystem::is_fifo(std::filesystem::symlink_status(fifo)));
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_TRUE(std::filesystem::is_symlink(dangling));
    EXPECT_FALSE(std::filesystem::exists(folder / "nowhere")) << "nothing was made where the link points";
    EXPECT_TRUE(std::filesystem::is_empty(subfolder));
    EXPECT_EQ(*readFile(target), "old content") << "nor was the file behind the link written";
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{"block-ads.json", "dangling", "fifo", "folder", "link"}))
        << "no temporary file is left";

    EXPECT_TRUE(checkReplaceable(target));
    EXPECT_TRUE(checkReplaceable(folder / "absent"));
    EXPECT_EQ(checkReplaceable(target / "below").error(), std::errc::not_a_directory);
}

TEST_F(FilesTest, ReadersNeverSeeAHalfWrittenFile) {
    const std::string first(256 * 1024, 'a');
    const std::string second(128 * 1024, 'b');
    ASSERT_TRUE(writeFileAtomically(target, first));
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::atomic<int> reads{0};
    std::thread reader([&] {
        while (!stop) {
            auto content = readFile(target);
            if (!content || (*content != first && *content != second)) ++torn;
            ++reads;
        }
    });
    for (int i = 0; i < 40; ++i) ASSERT_TRUE(writeFileAtomically(target, i % 2 ? first : second));
    while (reads < 10) std::this_thread::yield();
    stop = true;
    reader.join();
    EXPECT_EQ(torn, 0);
}

std::size_t openDescriptors() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                                  std::filesystem::directory_iterator()));
}

TEST_F(FilesTest, AnUnflushedWriteIsWholeAtOnceAndTheFlushLetsGoOfIt) {
    writeOld();
    const std::size_t before = openDescriptors();
    const std::string_view parts[] = {"new ", "content"};
    auto written = writeFileAtomicallyUnflushed(target, parts);
    ASSERT_TRUE(written);
    EXPECT_EQ(written->path(), target);
    EXPECT_EQ(*readFile(target), "new content");
    EXPECT_EQ(namesIn(target.parent_path()), std::vector<std::string>{"block-ads.json"});

    auto other = writeFileAtomicallyUnflushed(directory / "shared" / "block-trackers.json", parts);
    ASSERT_TRUE(other);
    std::vector<UnflushedFile> files;
    files.push_back(std::move(*written));
    files.push_back(std::move(*other));
    EXPECT_FALSE(flushFiles(files));
    EXPECT_EQ(openDescriptors(), before) << "every file is closed once it is down";
    EXPECT_FALSE(flushFiles(files)) << "flushing twice is harmless";

    // What the flushed write refuses, this one refuses too.
    const auto link = target.parent_path() / "link";
    std::filesystem::create_symlink(target, link);
    const auto refused = writeFileAtomicallyUnflushed(link, parts);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error(), FileError::notRegularFile);
}

TEST_F(FilesTest, AFailedFlushIsReportedAndTheOtherFilesAreStillFlushed) {
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    ::close(pipe[1]);
    const std::string_view parts[] = {"new content"};
    auto written = writeFileAtomicallyUnflushed(target, parts);
    ASSERT_TRUE(written);
    std::vector<UnflushedFile> files;
    files.emplace_back(pipe[0], target);
    files.push_back(std::move(*written));
    const std::size_t before = openDescriptors();
    EXPECT_EQ(flushFiles(files), std::errc::invalid_argument);
    EXPECT_EQ(openDescriptors(), before - 2);
}

ino_t inodeOf(const std::filesystem::path& path) {
    struct stat status{};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_ino;
}

TEST_F(FilesTest, ASnapshotNamesTheVeryFileItReadOrNothing) {
    writeOld();
    auto snapshot = FileSnapshot::take(target);
    ASSERT_TRUE(snapshot);
    EXPECT_EQ(snapshot->bytes(), "old content");

    const auto kept = directory / "kept" / "list.json";
    std::filesystem::create_directories(kept.parent_path());
    ASSERT_TRUE(writeFileAtomically(kept, "what was kept before"));
    ASSERT_TRUE(snapshot->linkAs(kept));
    EXPECT_EQ(inodeOf(kept), inodeOf(target)) << "another name, not a copy";
    ASSERT_TRUE(snapshot->linkAs(kept)) << "naming it again changes nothing";
    EXPECT_EQ(namesIn(kept.parent_path()), std::vector<std::string>{"list.json"}) << "no temporary name is left";

    // Once its path holds another file, the one that was read has no name
    // left to link from: the caller writes a copy instead.
    ASSERT_TRUE(writeFileAtomically(kept, "what was kept before"));
    const auto gone = FileSnapshot::take(target);
    ASSERT_TRUE(gone);
    ASSERT_TRUE(writeFileAtomically(target, "newest content"));
    EXPECT_FALSE(gone->linkAs(kept));
    EXPECT_EQ(*readFile(kept), "what was kept before");
    EXPECT_EQ(namesIn(kept.parent_path()), std::vector<std::string>{"list.json"});

    // What the writes refuse to replace, the link refuses too.
    const auto link = kept.parent_path() / "link";
    std::filesystem::create_symlink(kept, link);
    const auto refused = snapshot->linkAs(link);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error(), FileError::notRegularFile);
    EXPECT_EQ(FileSnapshot::take(directory / "absent").error(), std::errc::no_such_file_or_directory);
}

TEST_F(FilesTest, ASnapshotCannotBeNamedOnAnotherFileSystem) {
    struct stat here{};
    struct stat shared{};
    if (::stat(target.parent_path().c_str(), &here) != 0 || ::stat("/dev/shm", &shared) != 0 ||
        here.st_dev == shared.st_dev) {
        GTEST_SKIP() << "no second file system at hand";
    }
    writeOld();
    auto snapshot = FileSnapshot::take(target);
    ASSERT_TRUE(snapshot);
    std::string pattern = "/dev/shm/tamsel-files-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    const std::filesystem::path elsewhere = pattern;
    const auto result = snapshot->linkAs(elsewhere / "list.json");
    const bool empty = std::filesystem::is_empty(elsewhere);
    std::filesystem::remove_all(elsewhere);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(), std::errc::cross_device_link);
    EXPECT_TRUE(empty);
}

TEST_F(FilesTest, ReadFileReportsWhatIsWrong) {
    EXPECT_EQ(readFile(directory / "absent").error(), std::errc::no_such_file_or_directory);
    EXPECT_EQ(readFile(directory.path()).error(), std::errc::is_a_directory);
}

TEST_F(FilesTest, BackupAndHiddenFlagsAreExtendedAttributes) {
    writeOld();
    auto set = setExcludedFromBackup(target, true);
    if (!set && set.error() == std::errc::operation_not_supported) {
        GTEST_SKIP() << "this file system keeps no user attributes";
    }
    ASSERT_TRUE(set) << set.error().message();
    EXPECT_EQ(isExcludedFromBackup(target), true);
    EXPECT_EQ(isHidden(target), false);
    ASSERT_TRUE(setHidden(target, true));
    EXPECT_EQ(isHidden(target), true);
    ASSERT_TRUE(setExcludedFromBackup(target, false));
    ASSERT_TRUE(setExcludedFromBackup(target, false));  // clearing twice is fine
    EXPECT_EQ(isExcludedFromBackup(target), false);
    // A replaced file is a new file: flags are set again by whoever needs them.
    ASSERT_TRUE(writeFileAtomically(target, "new"));
    EXPECT_EQ(isHidden(target), false);

    const auto missing = setHidden(directory / "absent", true);
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error(), std::errc::no_such_file_or_directory);
    EXPECT_FALSE(isHidden(directory / "absent"));
}

// --- What killed writers leave behind -------------------------------------------------------

TEST_F(FilesTest, StaleTemporariesAreRemovedButNotLiveOnesNorOtherFiles) {
    writeOld();
    const auto folder = target.parent_path();
    const auto old = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
    const auto place = [&](const std::string& name, bool aged) {
        ASSERT_TRUE(writeFileAtomically(folder / ("placed-" + name), "partial"));
        std::filesystem::rename(folder / ("placed-" + name), folder / name);
        if (aged) std::filesystem::last_write_time(folder / name, old);
    };
    place(".block-ads.json.tmp-dead01", true);
    place(".block-ads.json.tmp-young1", false);
    place(".block-ads.json.tmp-held01", true);
    place("notes.tmp-abcdef", true);  // not one of ours: no leading dot
    const int held = ::open((folder / ".block-ads.json.tmp-held01").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(held, 0);
    ASSERT_EQ(::flock(held, LOCK_EX), 0) << "a writer still busy with its file";

    EXPECT_EQ(removeStaleTemporaries(folder), 1u);
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{".block-ads.json.tmp-held01", ".block-ads.json.tmp-young1",
                                                         "block-ads.json", "notes.tmp-abcdef"}));
    ::close(held);
    EXPECT_EQ(removeStaleTemporaries(folder), 1u) << "released: the writer is gone";
    EXPECT_EQ(removeStaleTemporaries(directory / "missing"), 0u);
}

TEST_F(FilesTest, TheStampOfAFileChangesWithEveryReplacement) {
    EXPECT_EQ(fileStamp(target), FileStamp{}) << "a missing file";
    writeOld();
    const FileStamp first = fileStamp(target);
    EXPECT_TRUE(first.exists);
    EXPECT_EQ(fileStamp(target), first);
    ASSERT_TRUE(writeFileAtomically(target, "old content"));
    EXPECT_NE(fileStamp(target), first) << "same bytes, but another file";

    // A file system may give a new file of the same size the inode and the
    // time of the one it replaces; then only what it holds tells them apart.
    const FileStamp hashed = fileStamp(target, StampContent::hashed);
    EXPECT_NE(hashed.contentHash, 0u);
    EXPECT_EQ(fileStamp(target, StampContent::hashed), hashed) << "stable";
    std::ofstream(target, std::ios::in | std::ios::out) << "new";
    EXPECT_NE(fileStamp(target, StampContent::hashed).contentHash, hashed.contentHash);
}

}  // namespace
}  // namespace tamsel::platform
