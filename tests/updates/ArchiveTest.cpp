#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "platform/Files.h"
#include "support/TestSupport.h"
#include "updates/ArchivePacker.h"
#include "updates/ArchiveUnpacker.h"
#include "updates/FolderLocks.h"

namespace tamsel::updates {
namespace {

namespace fs = std::filesystem;

const std::string password = "ZPArchiveOpenerMarker";

UnpackOptions withPassword(std::string text) {
    UnpackOptions options;
    options.password = std::move(text);
    return options;
}

std::map<std::string, std::string> folderContents(const fs::path& folder) {
    std::map<std::string, std::string> contents;
    if (!fs::exists(folder)) return contents;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (!entry.is_regular_file()) continue;
        contents[fs::relative(entry.path(), folder).string()] = platform::readFile(entry.path()).value();
    }
    return contents;
}

class ArchiveTest : public ::testing::Test {
protected:
    fs::path writeArchive(const std::vector<ArchiveEntry>& entries, PackOptions options = {password}) {
        auto bytes = packArchive(entries, options);
        EXPECT_TRUE(bytes.has_value()) << bytes.error();
        return writeBytes(bytes.value_or(""));
    }
    fs::path writeBytes(const std::string& bytes) {
        const fs::path path = directory_ / ("archive-" + std::to_string(++count_) + ".zip");
        EXPECT_TRUE(platform::writeFileAtomically(path, bytes).has_value());
        return path;
    }

    // A filters folder that already holds an installed rule set.
    fs::path installedFolder() {
        const fs::path folder = directory_ / "Application Support" / "Filters";
        fs::create_directories(folder);
        EXPECT_TRUE(platform::writeFileAtomically(folder / "block-ads.json", "old ads").has_value());
        EXPECT_TRUE(platform::writeFileAtomically(folder / "hosts.txt", "old hosts").has_value());
        return folder;
    }

    // Whatever sits next to the filters folder besides the folder itself:
    // leftovers of a staging folder would show up here.
    std::vector<std::string> strays(const fs::path& folder) {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder.parent_path())) {
            if (entry.path() != folder) names.push_back(entry.path().filename().string());
        }
        return names;
    }

    void expectRefused(const fs::path& archive, ErrorCode code, UnpackOptions options = withPassword(password)) {
        const fs::path folder = installedFolder();
        const auto before = folderContents(folder);
        auto result = unpackArchive(archive, folder, options);
        ASSERT_FALSE(result.has_value());
        EXPECT_EQ(result.error().code, code) << result.error().description;
        EXPECT_EQ(folderContents(folder), before);
        EXPECT_TRUE(strays(folder).empty());
        EXPECT_FALSE(fs::exists(directory_ / "escaped.json"));
    }

    testing::TemporaryDirectory directory_;
    int count_ = 0;
};

const std::vector<ArchiveEntry> ruleSet{
    {"block-ads.json", R"({"id":"block-ads","name":"Ads","rules":[]})", false},
    {"block-international.json", "[]", false},
    {"hosts.txt", "0.0.0.0 ads.example\n", false},
};

TEST_F(ArchiveTest, RoundTripsWithEitherEncryptionAndReplacesInstalledFiles) {
    for (auto encryption : {ArchiveEncryption::traditionalPKWARE, ArchiveEncryption::aes256, ArchiveEncryption::none}) {
        SCOPED_TRACE(static_cast<int>(encryption));
        const fs::path folder = installedFolder();
        const fs::path archive = writeArchive(ruleSet, {password, encryption});
        std::vector<fs::path> prepared;
        UnpackOptions options = withPassword(password);
        options.prepareFile = [&](const fs::path& staged) {
            // Called while the file is still staged, beside (not in) the target.
            EXPECT_NE(staged.parent_path(), folder);
            EXPECT_TRUE(fs::exists(staged));
            prepared.push_back(staged.filename());
        };
        auto installed = unpackArchive(archive, folder, options);
        ASSERT_TRUE(installed.has_value()) << installed.error().description;
        EXPECT_EQ(installed->size(), 3u);
        EXPECT_EQ(prepared.size(), 3u);
        auto contents = folderContents(folder);
        EXPECT_EQ(contents.size(), 3u);
        EXPECT_EQ(contents["block-ads.json"], ruleSet[0].bytes);
        EXPECT_EQ(contents["hosts.txt"], ruleSet[2].bytes);
        EXPECT_TRUE(strays(folder).empty());
        fs::remove_all(folder);
    }
}

TEST_F(ArchiveTest, CreatesTheFolderAndKeepsSubfoldersInside) {
    const fs::path folder = directory_ / "fresh" / "Filters";
    auto installed = unpackArchive(writeArchive({{"lists/", "", false}, {"lists/a.json", "[1]", false}}), folder,
                                   withPassword(password));
    ASSERT_TRUE(installed.has_value()) << installed.error().description;
    EXPECT_EQ(folderContents(folder), (std::map<std::string, std::string>{{"lists/a.json", "[1]"}}));
}

TEST_F(ArchiveTest, AMoveThatFailsPartWayPutsBackWhatWasMoved) {
    const fs::path folder = installedFolder();
    // A folder where the archive has a file: that file cannot be moved into
    // place, after a new file and a replacement already were.
    fs::create_directories(folder / "block-international.json");
    ASSERT_TRUE(platform::writeFileAtomically(folder / "block-international.json" / "keep", "x").has_value());
    const auto before = folderContents(folder);

    auto result = unpackArchive(writeArchive({{"brand-new.json", "[]", false},
                                              {"block-ads.json", "new ads", false},
                                              {"block-international.json", "[]", false},
                                              {"hosts.txt", "new hosts", false}}),
                                folder, withPassword(password));
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().code, ErrorCode::fileSystem) << result.error().description;
    EXPECT_EQ(folderContents(folder), before);
    EXPECT_TRUE(strays(folder).empty());
}

TEST_F(ArchiveTest, RefusesWrongPasswordTruncatedAndCorruptArchives) {
    expectRefused(writeArchive(ruleSet, {"SomethingElseEntirely"}), ErrorCode::unzip);
    // An encrypted archive opened without any password.
    expectRefused(writeArchive(ruleSet), ErrorCode::unzip, withPassword(""));

    const std::string whole = packArchive(ruleSet, {password}).value();
    expectRefused(writeBytes(whole.substr(0, whole.size() / 2)), ErrorCode::unzip);
    expectRefused(writeBytes(whole.substr(0, whole.size() - 10)), ErrorCode::unzip);
    expectRefused(writeBytes("this is not a zip archive at all"), ErrorCode::unzip);
    expectRefused(writeBytes(""), ErrorCode::unzip);

    // Damage the first entry's encrypted data: decryption or the checksum fails.
    std::string damaged = whole;
    for (size_t i = 60; i < 90; ++i) damaged[i] = static_cast<char>(damaged[i] ^ 0x5a);
    expectRefused(writeBytes(damaged), ErrorCode::unzip);
}

TEST_F(ArchiveTest, RefusesAnArchiveWithoutFiles) {
    expectRefused(writeArchive({{"only-a-folder/", "", false}}), ErrorCode::unzip);
}

TEST_F(ArchiveTest, RefusesEntriesThatWouldLeaveTheFolderBeforeWritingAnything) {
    for (const char* name : {"../escaped.json", "/tmp/escaped.json", "lists/../../escaped.json", "..\\escaped.json",
                             "C:escaped.json", "./block-ads.json", "lists//a.json"}) {
        SCOPED_TRACE(name);
        // The hostile entry comes last, after entries that would be fine.
        auto entries = ruleSet;
        entries.push_back({name, "[]", false});
        expectRefused(writeArchive(entries), ErrorCode::unsafeEntry);
    }
}

TEST_F(ArchiveTest, RefusesLinkEntries) {
    auto entries = ruleSet;
    entries.push_back({"linked.json", "/etc/passwd", true});
    expectRefused(writeArchive(entries), ErrorCode::unsafeEntry);
}

TEST_F(ArchiveTest, EntryNameRules) {
    EXPECT_TRUE(isSafeEntryName("block-ads.json"));
    EXPECT_TRUE(isSafeEntryName("lists/a.json"));
    EXPECT_TRUE(isSafeEntryName("lists/"));
    EXPECT_TRUE(isSafeEntryName("..hidden-but-inside"));
    EXPECT_FALSE(isSafeEntryName(""));
    EXPECT_FALSE(isSafeEntryName(".."));
    EXPECT_FALSE(isSafeEntryName("a/.."));
    EXPECT_FALSE(isSafeEntryName("/"));
    EXPECT_FALSE(isSafeEntryName("a\\b"));
}

TEST_F(ArchiveTest, RefusesArchivesDeclaringMoreThanTheLimitWithoutUnpackingThem) {
    // Each entry claims 2 GiB; nothing may be written before the refusal.
    std::string bytes = packArchive({{"padding.bin", std::string(1 << 20, '\0'), false}}, {password}).value();
    ASSERT_TRUE(overrideDeclaredSizes(bytes, 0x80000000u).has_value());
    expectRefused(writeBytes(bytes), ErrorCode::archiveTooLarge);

    // A limit below the honest total refuses too.
    UnpackOptions small = withPassword(password);
    small.maximumTotalSize = 512 * 1024;
    expectRefused(writeArchive({{"a.bin", std::string(300 * 1024, 'a'), false},
                                {"b.bin", std::string(300 * 1024, 'b'), false}}),
                  ErrorCode::archiveTooLarge, small);
}

TEST_F(ArchiveTest, StopsAnEntryThatOutgrowsTheSizeItDeclares) {
    // Two megabytes of zeros that claim to be a hundred bytes: the declared
    // total passes every check, the produced bytes must not.
    std::string bytes = packArchive({{"bomb.bin", std::string(2 << 20, '\0'), false}}, {password}).value();
    ASSERT_TRUE(overrideDeclaredSizes(bytes, 100).has_value());
    expectRefused(writeBytes(bytes), ErrorCode::unzip);
}

TEST_F(ArchiveTest, RefusesAFileOverThePerFileLimitEvenWithinTheTotal) {
    UnpackOptions options = withPassword(password);
    options.maximumFileSize = 256 * 1024;
    // Honest sizes: a highly compressible file of 300 KiB packs to a few
    // hundred bytes, and is refused before a byte of it is written.
    expectRefused(writeArchive({{"block-ads.json", "[]", false}, {"bomb.json", "[]", false, 300 * 1024}}),
                  ErrorCode::archiveTooLarge, options);
    // Exactly at the limit is fine.
    const fs::path folder = directory_ / "at-limit" / "Filters";
    auto installed =
        unpackArchive(writeArchive({{"full.json", "", false, 256 * 1024}}), folder, options);
    ASSERT_TRUE(installed.has_value()) << installed.error().description;
    EXPECT_EQ(fs::file_size(folder / "full.json"), 256u * 1024u);
}

TEST_F(ArchiveTest, HandlingSkipsFillsGapsAndReplaces) {
    const fs::path folder = installedFolder();
    ASSERT_TRUE(platform::writeFileAtomically(folder / "mine.json", "the user's").has_value());
    std::vector<std::string> kept;
    UnpackOptions options = withPassword(password);
    options.handling = [](std::string_view name) {
        if (name.starts_with("mine") || name.starts_with("seed")) return EntryHandling::installIfAbsent;
        if (name.starts_with("junk") || name.find('/') != std::string_view::npos) return EntryHandling::skip;
        return EntryHandling::replace;
    };
    options.kept = [&](std::string_view name) { kept.emplace_back(name); };
    options.maximumTotalSize = 64 * 1024;

    auto installed = unpackArchive(writeArchive({{"block-ads.json", "new ads", false},
                                                 {"mine.json", "the server's", false},
                                                 {"seed.json", "seeded", false},
                                                 {"junk.bin", "x", false, 128 * 1024},  // skipped: counts for no limit
                                                 {"lists/", "", false},
                                                 {"lists/a.json", "[]", false}}),
                                   folder, options);
    ASSERT_TRUE(installed.has_value()) << installed.error().description;
    EXPECT_EQ(*installed, (std::vector<fs::path>{folder / "block-ads.json", folder / "seed.json"}));
    EXPECT_EQ(kept, std::vector<std::string>{"mine.json"});
    EXPECT_EQ(folderContents(folder), (std::map<std::string, std::string>{{"block-ads.json", "new ads"},
                                                                          {"hosts.txt", "old hosts"},
                                                                          {"mine.json", "the user's"},
                                                                          {"seed.json", "seeded"}}));
    EXPECT_TRUE(strays(folder).empty());
}

TEST_F(ArchiveTest, NothingToInstallIsAnErrorThatChangesNothing) {
    UnpackOptions options = withPassword(password);
    options.handling = [](std::string_view name) {
        return name == "mine.json" ? EntryHandling::installIfAbsent : EntryHandling::skip;
    };
    // Every entry skipped.
    expectRefused(writeArchive({{"junk.json", "[]", false}}), ErrorCode::noRuleFiles, options);
    // The only file to install is one the folder keeps.
    const fs::path folder = installedFolder();
    ASSERT_TRUE(platform::writeFileAtomically(folder / "mine.json", "the user's").has_value());
    auto result = unpackArchive(writeArchive({{"mine.json", "[]", false}, {"junk.json", "[]", false}}), folder,
                                options);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().code, ErrorCode::noRuleFiles);
    EXPECT_NE(result.error().description.find("mine.json"), std::string::npos) << result.error().description;
    EXPECT_EQ(platform::readFile(folder / "mine.json").value(), "the user's");
    EXPECT_TRUE(strays(folder).empty());
}

TEST_F(ArchiveTest, AFileThatFailsTheCheckRefusesTheWholeArchiveBeforeAnythingMoves) {
    UnpackOptions options = withPassword(password);
    std::vector<std::string> checked;
    bool prepared = false;
    options.checkFile = [&](std::string_view name, const fs::path& staged) -> std::optional<Error> {
        checked.emplace_back(name);
        EXPECT_TRUE(fs::exists(staged));
        if (platform::readFile(staged).value() == "broken") return Error::make(ErrorCode::invalidPackageFile, "no");
        return std::nullopt;
    };
    options.prepareFile = [&](const fs::path&) { prepared = true; };
    // The broken file comes last, after files that would replace installed ones.
    expectRefused(writeArchive({{"block-ads.json", "new ads", false},
                                {"hosts.txt", "new hosts", false},
                                {"block-trackers.json", "broken", false}}),
                  ErrorCode::invalidPackageFile, options);
    EXPECT_EQ(checked, (std::vector<std::string>{"block-ads.json", "hosts.txt", "block-trackers.json"}));
    EXPECT_FALSE(prepared);
}

TEST_F(ArchiveTest, AnUnpackRemovesTheStagingFoldersOfKilledUnpacksOnly) {
    const fs::path folder = installedFolder();
    const fs::path parent = folder.parent_path();
    const std::string prefix = stagingFolderPrefix(folder);
    EXPECT_EQ(prefix, ".Filters.unpacking-");

    // A killed unpack: its folder stays, its lock went with the process.
    const fs::path abandoned = parent / (prefix + "abc123");
    fs::create_directories(abandoned / "unpacked");
    ASSERT_TRUE(platform::writeFileAtomically(abandoned / "unpacked" / "block-ads.json", "half").has_value());
    {
        const int fd = ::open(abandoned.c_str(), O_RDONLY | O_DIRECTORY);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::flock(fd, LOCK_EX), 0);
        ::close(fd);
    }
    // A stray file of the same prefix holds no lock either.
    ASSERT_TRUE(platform::writeFileAtomically(parent / (prefix + "file"), "x").has_value());
    // A running unpack (another thread, or another process) holds its lock.
    auto running = LockedFolder::create(parent, prefix);
    ASSERT_TRUE(running.has_value()) << running.error().message();
    // Other folders beside the filters folder are none of its business.
    fs::create_directories(parent / ".Other.unpacking-xyz");

    auto installed = unpackArchive(writeArchive(ruleSet), folder, withPassword(password));
    ASSERT_TRUE(installed.has_value()) << installed.error().description;
    EXPECT_FALSE(fs::exists(abandoned));
    EXPECT_FALSE(fs::exists(parent / (prefix + "file")));
    EXPECT_TRUE(fs::exists(running->path()));
    EXPECT_TRUE(fs::exists(parent / ".Other.unpacking-xyz"));

    // A refused unpack sweeps too.
    const fs::path later = running->path();
    { auto gone = std::move(*running); }
    EXPECT_FALSE(fs::exists(later));
    fs::create_directories(abandoned);
    EXPECT_FALSE(unpackArchive(writeBytes("not an archive"), folder, withPassword(password)).has_value());
    EXPECT_FALSE(fs::exists(abandoned));
}

TEST_F(ArchiveTest, AnInstallKilledWhileMovingIsCompletedAndOneKilledBeforeIsDropped) {
    const fs::path folder = installedFolder();
    const std::string prefix = stagingFolderPrefix(folder);
    // Killed after block-ads moved in but before hosts.txt and the new list did.
    const fs::path moving = folder.parent_path() / (prefix + "moving");
    fs::create_directories(moving / "unpacked");
    ASSERT_TRUE(platform::writeFileAtomically(folder / "block-ads.json", "new ads").has_value());
    ASSERT_TRUE(platform::writeFileAtomically(moving / "unpacked" / "hosts.txt", "new hosts").has_value());
    ASSERT_TRUE(platform::writeFileAtomically(moving / "unpacked" / "block-configurable.json", "seed").has_value());
    ASSERT_TRUE(platform::writeFileAtomically(
        moving / "moving", "replace block-ads.json\nreplace hosts.txt\nifabsent block-configurable.json\n"));
    // Killed while still checking: nothing of it may arrive.
    const fs::path checking = folder.parent_path() / (prefix + "checking");
    fs::create_directories(checking / "unpacked");
    ASSERT_TRUE(platform::writeFileAtomically(checking / "unpacked" / "block-social.json", "unchecked").has_value());

    int announced = 0;
    UnpackOptions options;
    options.willInstall = [&announced] { ++announced; };
    EXPECT_EQ(finishInterruptedUnpacks(folder, options), 1u);
    EXPECT_EQ(announced, 1);
    EXPECT_EQ(*platform::readFile(folder / "block-ads.json"), "new ads");
    EXPECT_EQ(*platform::readFile(folder / "hosts.txt"), "new hosts");
    EXPECT_EQ(*platform::readFile(folder / "block-configurable.json"), "seed");
    EXPECT_FALSE(fs::exists(folder / "block-social.json"));
    EXPECT_TRUE(strays(folder).empty());

    EXPECT_EQ(finishInterruptedUnpacks(folder, options), 0u) << "nothing left to complete";
}

TEST(FolderLocksTest, ASharedFolderIsEmptiedOnlyByItsOnlyUser) {
    testing::TemporaryDirectory directory;
    const fs::path folder = directory / "tmp" / "cloud";
    std::size_t removed = 99;
    {
        auto first = SharedFolderUse::begin(folder, &removed);
        ASSERT_TRUE(first.has_value()) << first.error().message();
        EXPECT_EQ(removed, 0u);
        EXPECT_TRUE(fs::is_directory(folder));
        // A second user while the first works: the first's files stay.
        ASSERT_TRUE(platform::writeFileAtomically(folder / ".data.zip.download-a1b2c3", "partial").has_value());
        auto second = SharedFolderUse::begin(folder, &removed);
        ASSERT_TRUE(second.has_value());
        EXPECT_EQ(removed, 0u);
        EXPECT_TRUE(fs::exists(folder / ".data.zip.download-a1b2c3"));
    }
    // Both gone, as a killed process would be: the next user finds leftovers.
    fs::create_directories(folder / "sub");
    ASSERT_TRUE(platform::writeFileAtomically(folder / "data.zip", "archive").has_value());
    auto next = SharedFolderUse::begin(folder, &removed);
    ASSERT_TRUE(next.has_value());
    EXPECT_EQ(removed, 3u);
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(ArchiveTest, DeclaredSizeRewriteRejectsWhatIsNotAnArchive) {
    std::string text = "plainly not an archive, but long enough to be searched";
    EXPECT_FALSE(overrideDeclaredSizes(text, 1).has_value());
}

}  // namespace
}  // namespace tamsel::updates
