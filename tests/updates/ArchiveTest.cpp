#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "platform/Files.h"
#include "support/TestSupport.h"
#include "updates/ArchivePacker.h"
#include "updates/ArchiveUnpacker.h"

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

TEST_F(ArchiveTest, DeclaredSizeRewriteRejectsWhatIsNotAnArchive) {
    std::string text = "plainly not an archive, but long enough to be searched";
    EXPECT_FALSE(overrideDeclaredSizes(text, 1).has_value());
}

}  // namespace
}  // namespace tamsel::updates
