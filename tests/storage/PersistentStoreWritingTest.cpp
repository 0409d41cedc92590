#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "PersistentStoreTestSupport.h"
#include "platform/Files.h"

namespace tamsel::storage::testing {
namespace {

using model::ExtensionType;
using model::JSONFileName;
using model::Package;
using platform::LogLevel;
using WritingToFileError = PersistentStore::WritingToFileError;
using Result = PersistentStore::SafariJSONModificationResult;

// Makes a folder refuse new entries for as long as it lives. Tests run as
// root, which ignores permission bits, so for root the folder is made
// immutable (what `chattr +i` does); for anyone else taking away the write
// permission is enough.
class ReadOnlyFolder {
public:
    explicit ReadOnlyFolder(fs::path path) : path_(std::move(path)) {
        if (::geteuid() != 0) {
            fs::permissions(path_, fs::perms::owner_write, fs::perm_options::remove);
            active_ = true;
        } else {
            active_ = setImmutable(true);
        }
    }
    ~ReadOnlyFolder() {
        if (!active_) return;
        if (::geteuid() != 0) {
            fs::permissions(path_, fs::perms::owner_write, fs::perm_options::add);
        } else {
            setImmutable(false);
        }
    }
    bool active() const { return active_; }

private:
    bool setImmutable(bool on) const {
        int fd = ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) return false;
        int flags = 0;
        bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
        if (done) {
            flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
            done = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
        }
        ::close(fd);
        return done;
    }

    fs::path path_;
    bool active_ = false;
};

// Caps the size of any file this process writes for as long as it lives, so
// that a write stops half-way the way it does on a full disk. Unlike
// permission bits, the limit holds for root too (the tests run as root).
// Writing past it fails with EFBIG; the signal the kernel would also send is
// ignored meanwhile.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        previousHandler_ = std::signal(SIGXFSZ, SIG_IGN);
        active_ = ::getrlimit(RLIMIT_FSIZE, &previous_) == 0;
        if (active_) {
            rlimit limited = previous_;
            limited.rlim_cur = bytes;
            active_ = ::setrlimit(RLIMIT_FSIZE, &limited) == 0;
        }
    }
    ~FileSizeLimit() {
        if (active_) ::setrlimit(RLIMIT_FSIZE, &previous_);
        std::signal(SIGXFSZ, previousHandler_);
    }
    bool active() const { return active_; }

private:
    rlimit previous_{};
    bool active_ = false;
    void (*previousHandler_)(int) = SIG_DFL;
};

std::vector<fs::path> folderContents(const fs::path& folder) {
    std::vector<fs::path> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

Result prepend(const model::Blocker& blocker) {
    std::optional<Result> result;
    PersistentStore::prependToSafariJSONFile(blocker, [&result](Result r) { result = std::move(r); });
    EXPECT_TRUE(result.has_value()) << "prepend completes on the caller's thread";
    return result.value_or(Result::otherError("no answer"));
}

fs::path customSafariJSON() { return PathProvider::safariJSONFilePath(ExtensionType::customRules); }

// --- Package files ------------------------------------------------------------------

using PackageWritingTest = StorageTest;

TEST_F(PackageWritingTest, GeneralPackageIsWrittenAndReadBack) {
    const Package package = makePackage("block-social", "Social list", 5);
    ASSERT_TRUE(PersistentStore::write(package, JSONFileName::blockSocial));

    const fs::path path = filterFile(JSONFileName::blockSocial);
    EXPECT_TRUE(logged(LogLevel::info, "Wrote Social list package to " + path.string()));
    const auto read = await([](auto completion) {
        PersistentStore::readPackages(model::PackageCategory::general, JSONFileName::blockSocial,
                                      std::move(completion));
    });
    EXPECT_EQ(read, std::vector<Package>{package});
}

TEST_F(PackageWritingTest, ListIsWrittenAndReplacesTheOldFile) {
    ASSERT_TRUE(PersistentStore::write(std::vector<Package>{makePackage("old", "Old")}, JSONFileName::blockCustom));
    const std::vector<Package> custom{makePackage("mine", "Mine"), makePackage("yours", "Yours", 0)};
    ASSERT_TRUE(PersistentStore::write(custom, JSONFileName::blockCustom));

    EXPECT_TRUE(logged(LogLevel::info, "Wrote 2 packages to " + filterFile(JSONFileName::blockCustom).string()));
    EXPECT_EQ(await(PersistentStore::readCustomPackages), custom);
    // No temporary file is left beside the package file.
    EXPECT_EQ(std::distance(fs::directory_iterator(PathProvider::filtersFolderURL()), fs::directory_iterator()), 1);
}

TEST_F(PackageWritingTest, ReadOnlyFiltersFolderFailsAndKeepsTheOldFileWhole) {
    const std::vector<Package> before{makePackage("mine", "Mine", 50)};
    ASSERT_TRUE(PersistentStore::write(before, JSONFileName::blockCustom));
    const fs::path path = filterFile(JSONFileName::blockCustom);
    const std::string bytesBefore = readRaw(path);

    ReadOnlyFolder readOnly(PathProvider::filtersFolderURL());
    if (!readOnly.active()) GTEST_SKIP() << "this file system cannot make a folder immutable";

    auto written = PersistentStore::write(std::vector<Package>{makePackage("new", "New")}, JSONFileName::blockCustom);
    ASSERT_FALSE(written);
    EXPECT_EQ(written.error(), WritingToFileError::failedCreateFile(path));
    EXPECT_TRUE(logged(LogLevel::error, "Failed write to the file at " + path.string()));
    EXPECT_EQ(readRaw(path), bytesBefore);

    auto single = PersistentStore::write(makePackage("block-ads", "Ads"), JSONFileName::blockAds);
    ASSERT_FALSE(single);
    EXPECT_EQ(single.error().kind, WritingToFileError::Kind::failedCreateFile);
    EXPECT_FALSE(fs::exists(filterFile(JSONFileName::blockAds)));
}

TEST_F(PackageWritingTest, WritesThatStopHalfwayKeepTheOldFilesWhole) {
    // Small files first; then every file grows past the size limit, so each
    // write fails after it has written part of its bytes. A writer that
    // replaced the file in place would leave it cut off.
    const fs::path listPath = filterFile(JSONFileName::blockCustom);
    const fs::path generalPath = filterFile(JSONFileName::blockAds);
    const fs::path safariPath = PathProvider::safariJSONFilePath(ExtensionType::blockAds);
    ASSERT_TRUE(PersistentStore::write(std::vector<Package>{makePackage("mine", "Mine", 2)}, JSONFileName::blockCustom));
    ASSERT_TRUE(PersistentStore::write(makePackage("block-ads", "Ads", 2), JSONFileName::blockAds));
    ASSERT_TRUE(PersistentStore::write(std::vector{blockBlocker("^https?://a\\.example/")}, ExtensionType::blockAds));
    const std::string listBefore = readRaw(listPath);
    const std::string generalBefore = readRaw(generalPath);
    const std::string safariBefore = readRaw(safariPath);
    const auto filtersBefore = folderContents(PathProvider::filtersFolderURL());

    const Package big = makePackage("block-ads", "Ads", 2'000);
    std::vector<model::Blocker> bigBlockers;
    for (const auto& rule : big.rules) bigBlockers.push_back(rule.blocker);
    PersistentStore::WriteResult list, general, safari;
    {
        FileSizeLimit limit(16 * 1024);
        ASSERT_TRUE(limit.active());
        list = PersistentStore::write(std::vector<Package>{big}, JSONFileName::blockCustom);
        general = PersistentStore::write(big, JSONFileName::blockAds);
        safari = PersistentStore::write(bigBlockers, ExtensionType::blockAds);
    }

    ASSERT_FALSE(list);
    EXPECT_EQ(list.error(), WritingToFileError::failedCreateFile(listPath));
    ASSERT_FALSE(general);
    EXPECT_EQ(general.error(), WritingToFileError::failedCreateFile(generalPath));
    ASSERT_FALSE(safari);
    EXPECT_EQ(safari.error(), WritingToFileError::failedCreateFile(safariPath));
    EXPECT_TRUE(logged(LogLevel::error, "Failed write to the file at " + listPath.string()));
    EXPECT_TRUE(logged(LogLevel::error, "Could not write 2000 blockers to Safari JSON file in shared container: " +
                                            safariPath.string()));

    EXPECT_EQ(readRaw(listPath), listBefore);
    EXPECT_EQ(readRaw(generalPath), generalBefore);
    EXPECT_EQ(readRaw(safariPath), safariBefore);
    // No half-written temporary file is left for a reader to stumble on.
    EXPECT_EQ(folderContents(PathProvider::filtersFolderURL()), filtersBefore);
    EXPECT_EQ(folderContents(PathProvider::safariJSONFolderURL()), std::vector<fs::path>{safariPath.filename()});
}

TEST_F(PackageWritingTest, FolderStandingWherePackageFileShouldBeIsLeftAlone) {
    // A file name taken by a folder cannot be replaced, not even by root.
    const fs::path path = filterFile(JSONFileName::blockConfigurable);
    fs::create_directories(path);
    writeRaw(path / "keep.txt", "kept");

    auto written = PersistentStore::write(std::vector<Package>{makePackage("whitelist", "Whitelist")},
                                          JSONFileName::blockConfigurable);
    ASSERT_FALSE(written);
    EXPECT_EQ(written.error(), WritingToFileError::failedCreateFile(path));
    EXPECT_TRUE(fs::is_directory(path));
    EXPECT_EQ(readRaw(path / "keep.txt"), "kept");
    EXPECT_EQ(folderContents(PathProvider::filtersFolderURL()), std::vector<fs::path>{path.filename()});
}

TEST_F(PackageWritingTest, SharingWithoutAPathWritesNothing) {
    auto written = PersistentStore::writeForSharing(makePackage("mine", "Mine"), std::nullopt);
    ASSERT_FALSE(written);
    EXPECT_EQ(written.error(), WritingToFileError::noPath());
    EXPECT_TRUE(logged(LogLevel::error, "Can't write packages for sharing, path is nil"));
    EXPECT_FALSE(fs::exists(PersistentStore::sharedPackagesPath()));
}

TEST_F(PackageWritingTest, SharingWritesAOnePackageList) {
    const fs::path path = PersistentStore::sharedPackagesPath();
    EXPECT_EQ(path, root.home() / "Documents" / "Rules.tmsl");

    const Package package = makePackage("mine", "Mine", 3);
    ASSERT_TRUE(PersistentStore::writeForSharing(package, path));
    EXPECT_EQ(model::decodePackages(readRaw(path)), std::vector<Package>{package});
    EXPECT_TRUE(logged(LogLevel::info, "Wrote 1 packages to " + path.string()));
}

TEST_F(PackageWritingTest, SharingIntoAMissingFolderFails) {
    const fs::path path = root.home() / "nowhere" / "Rules.tmsl";
    auto written = PersistentStore::writeForSharing(makePackage("mine", "Mine"), path);
    ASSERT_FALSE(written);
    EXPECT_EQ(written.error(), WritingToFileError::failedCreateFile(path));
    EXPECT_EQ(written.error().description(), "Could not create the file at " + path.string());
}

// --- Safari JSON files ------------------------------------------------------------------

using SafariJSONWritingTest = StorageTest;

TEST_F(SafariJSONWritingTest, EntriesAreWrittenHiddenAndExcludedFromBackup) {
    const std::vector<model::Blocker> blockers{blockBlocker("^https?://a\\.example/"), blockBlocker("tracker\\.js")};
    ASSERT_TRUE(PersistentStore::write(blockers, ExtensionType::blockAds));

    const fs::path path = PathProvider::safariJSONFilePath(ExtensionType::blockAds);
    EXPECT_EQ(model::decodeBlockerArray(readRaw(path)), blockers);
    EXPECT_TRUE(logged(LogLevel::info, "Wrote 2 blockers to: " + path.string()));
    EXPECT_EQ(platform::isExcludedFromBackup(path), true);
    EXPECT_EQ(platform::isHidden(path), true);
}

TEST_F(SafariJSONWritingTest, NoEntriesGiveThePlaceholderNeverAnEmptyList) {
    const model::Blocker placeholder = PersistentStore::placeholderBlocker();
    EXPECT_EQ(placeholder.trigger.urlFilter, ".*");
    EXPECT_TRUE(placeholder.trigger.caseSensitive);
    EXPECT_FALSE(placeholder.trigger.resourceTypes || placeholder.trigger.loadType || placeholder.trigger.domainFilter);
    EXPECT_EQ(placeholder.action.type, model::ActionType::hide);
    EXPECT_EQ(placeholder.action.selector, "#s0a0l0a0v0a0t");

    for (const auto& blockers : {std::optional<std::vector<model::Blocker>>{},
                                 std::optional<std::vector<model::Blocker>>{std::vector<model::Blocker>{}}}) {
        // A full file first, so that the placeholder visibly replaces it.
        ASSERT_TRUE(PersistentStore::write(std::vector{blockBlocker("x")}, ExtensionType::customRules));
        ASSERT_TRUE(PersistentStore::write(blockers, ExtensionType::customRules));

        const std::string text = readRaw(customSafariJSON());
        EXPECT_NE(text, "[]");
        EXPECT_EQ(model::decodeBlockerArray(text), std::vector{placeholder});
        EXPECT_TRUE(
            logged(LogLevel::info, "Removed blockers from Safari JSON file in shared container: " +
                                       customSafariJSON().string()));
        EXPECT_EQ(platform::isHidden(customSafariJSON()), true);
    }
}

TEST_F(SafariJSONWritingTest, FolderThatCannotBeMadeFailsTheWrite) {
    writeRaw(PathProvider::safariJSONFolderURL(), "in the way");
    const fs::path path = PathProvider::safariJSONFilePath(ExtensionType::regionalRules);

    auto full = PersistentStore::write(std::vector{blockBlocker("x")}, ExtensionType::regionalRules);
    ASSERT_FALSE(full);
    EXPECT_EQ(full.error(), WritingToFileError::failedCreateFile(path));
    EXPECT_TRUE(logged(LogLevel::error,
                       "Could not write 1 blockers to Safari JSON file in shared container: " + path.string()));

    auto empty = PersistentStore::write(std::nullopt, ExtensionType::regionalRules);
    ASSERT_FALSE(empty);
    EXPECT_TRUE(logged(LogLevel::error,
                       "Could not remove blockers from Safari JSON file in shared container: " + path.string()));
}

// --- Prepending ------------------------------------------------------------------------

using PrependTest = StorageTest;

TEST_F(PrependTest, NewEntryComesFirstAndTheRestStaysUnchanged) {
    const std::vector<model::Blocker> old{blockBlocker("first"), blockBlocker("second")};
    ASSERT_TRUE(PersistentStore::write(old, ExtensionType::customRules));
    const std::string oldText = readRaw(customSafariJSON());

    const model::Blocker added = blockBlocker("^https?://new\\.example/");
    EXPECT_EQ(prepend(added), Result::success());

    const std::string text = readRaw(customSafariJSON());
    EXPECT_EQ(text, "[" + model::encodeBlocker(added) + "," + oldText.substr(1));
    EXPECT_EQ(model::decodeBlockerArray(text), (std::vector{added, old[0], old[1]}));
    EXPECT_TRUE(logged(LogLevel::info, "Prepended new blocker to Safari JSON file: " + customSafariJSON().string()));
    EXPECT_EQ(platform::isExcludedFromBackup(customSafariJSON()), true);
}

TEST_F(PrependTest, ZeroByteFileIsLeftAlone) {
    writeRaw(customSafariJSON(), "");
    EXPECT_EQ(prepend(blockBlocker("x")), Result::emptyFile());
    EXPECT_EQ(fs::file_size(customSafariJSON()), 0u);
}

TEST_F(PrependTest, MissingFileIsAnError) {
    const Result result = prepend(blockBlocker("x"));
    EXPECT_EQ(result.kind, Result::Kind::otherError);
    EXPECT_NE(result.text.find("No such file or directory"), std::string::npos) << result.text;
    EXPECT_TRUE(logged(LogLevel::error, result.text));
    EXPECT_FALSE(fs::exists(customSafariJSON()));
}

TEST_F(PrependTest, TextThatIsNotUTF8IsAnError) {
    writeRaw(customSafariJSON(), "[{\"trigger\":\"\xff\xfe\"}]");
    const std::string before = readRaw(customSafariJSON());
    EXPECT_EQ(prepend(blockBlocker("x")), Result::otherError("Error creating JSON string from Safari JSON file"));
    EXPECT_EQ(readRaw(customSafariJSON()), before);
}

TEST_F(PrependTest, WithoutACompletionTheFileIsStillChanged) {
    ASSERT_TRUE(PersistentStore::write(std::nullopt, ExtensionType::customRules));
    PersistentStore::prependToSafariJSONFile(blockBlocker("x"), {});
    EXPECT_EQ(model::decodeBlockerArray(readRaw(customSafariJSON())),
              (std::vector{blockBlocker("x"), PersistentStore::placeholderBlocker()}));
}

// --- Filter file checks ------------------------------------------------------------------

using FilterFileCheckTest = StorageTest;

TEST_F(FilterFileCheckTest, EveryRuleSetFileMustBeThere) {
    EXPECT_FALSE(PersistentStore::isAllFilterFilesExistLocally());
    EXPECT_TRUE(logged(LogLevel::info, "Filter files don't exist locally: block-ads.json is not found"));

    for (JSONFileName file : model::allCases<JSONFileName>()) {
        if (file != JSONFileName::blockCustom) writeRaw(filterFile(file), "[]");
    }
    // The user's own file is not part of the rule set.
    EXPECT_TRUE(PersistentStore::isAllFilterFilesExistLocally());

    fs::remove(filterFile(JSONFileName::blockConfigurable));
    EXPECT_FALSE(PersistentStore::isAllFilterFilesExistLocally());
    EXPECT_TRUE(logged(LogLevel::info, "Filter files don't exist locally: block-configurable.json is not found"));
}

TEST_F(FilterFileCheckTest, FirewallHostsFile) {
    EXPECT_FALSE(PersistentStore::isFirewallFilterFilesExistLocally());
    EXPECT_TRUE(logged(LogLevel::info, "Firewall filter files don't exist locally: hosts.txt is not found"));
    writeRaw(PathProvider::hostsFileURL(), "0.0.0.0 ads.example\n");
    EXPECT_TRUE(PersistentStore::isFirewallFilterFilesExistLocally());
}

}  // namespace
}  // namespace tamsel::storage::testing
