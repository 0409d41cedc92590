#include "UpdatesFixture.h"
#include "updates/ArchivePacker.h"
#include "updates/RuleSetFiles.h"

// What of a rule archive reaches the filters folder: the unpack step with the
// rule set's own policy, on archives built here.
namespace tamsel::updates::testing {
namespace {

const std::string ads = R"({"id":"block-ads","name":"Ads","rules":[]})";
const std::string newAds = R"({"id":"block-ads","name":"Ads, new","rules":[]})";
const std::string usersConfigurable =
    R"([{"id":"whitelist","name":"Whitelist","rules":[{"id":"W1","name":"example.com","content":)"
    R"({"trigger":{"url-filter":".*","if-domain":["example.com"]},"action":{"type":"ignore-previous-rules"}}}]}])";

class RuleSetTest : public UpdatesFixture {
protected:
    fs::path filters() const { return storage::PathProvider::filtersFolderURL(); }

    fs::path archive(const std::vector<ArchiveEntry>& entries) {
        auto bytes = packArchive(entries, {RuleArchive::password});
        EXPECT_TRUE(bytes.has_value());
        const fs::path path = archives_ / ("archive-" + std::to_string(++count_) + ".zip");
        EXPECT_TRUE(platform::writeFileAtomically(path, bytes.value_or("")).has_value());
        return path;
    }

    // An installed rule set and the user's own configurable packages.
    void installed() {
        fs::create_directories(filters());
        for (const auto& [name, bytes] : std::map<std::string, std::string>{
                 {"block-ads.json", ads},
                 {"block-international.json", "[]"},
                 {"block-configurable.json", usersConfigurable},
                 {"block-custom.json", "[]"},
                 {"hosts.txt", "0.0.0.0 old.example\n"}}) {
            ASSERT_TRUE(platform::writeFileAtomically(filters() / name, bytes).has_value());
        }
    }

    TemporaryDirectory archives_;
    int count_ = 0;
};

TEST_F(RuleSetTest, InstallsOnlyTheFilesOfARuleSet) {
    installed();
    const auto result = RuleArchive::unzipDownloadedArchive(archive({
        {"block-ads.json", newAds, false},
        {"block-custom.json", R"([{"id":"X","name":"Server's own","rules":[]}])", false},
        {"junk.txt", "junk", false},
        {".block-trackers.json", "[]", false},
        {"Block-Ads.json", ads, false},
        {"lists/", "", false},
        {"lists/block-adult.json", R"({"id":"block-adult","name":"Adult","rules":[]})", false},
        {"hosts.txt", "0.0.0.0 new.example\n", false},
    }));
    ASSERT_TRUE(result.has_value()) << result.error().description;
    const auto files = installedFiles();
    EXPECT_EQ(files.at("block-ads.json"), newAds);
    EXPECT_EQ(files.at("hosts.txt"), "0.0.0.0 new.example\n");
    EXPECT_EQ(files.at("block-custom.json"), "[]");
    EXPECT_EQ(files.size(), 5u) << ::testing::PrintToString(files);
    EXPECT_TRUE(strayFiles().empty()) << ::testing::PrintToString(strayFiles());
    EXPECT_TRUE(log_.contains(
        "Skipping block-custom.json from the archive: the user's own packages never come from the server"));
    for (const char* name : {"junk.txt", ".block-trackers.json", "Block-Ads.json", "lists/", "lists/block-adult.json"}) {
        EXPECT_TRUE(log_.contains("Skipping " + std::string(name) + " from the archive: not a file of the rule set"))
            << name;
    }
}

TEST_F(RuleSetTest, AnArchiveOfNothingButJunkIsRefused) {
    installed();
    const auto before = installedFiles();
    const auto result = RuleArchive::unzipDownloadedArchive(
        archive({{"block-custom.json", "[]", false}, {"readme.txt", "hello", false}, {"data/", "", false}}));
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().code, ErrorCode::noRuleFiles) << result.error().description;
    EXPECT_EQ(installedFiles(), before);
    EXPECT_TRUE(strayFiles().empty());
}

TEST_F(RuleSetTest, TheUsersConfigurablePackagesStayAndOnlySeedAnEmptyFolder) {
    installed();
    const auto serverConfigurable = R"([{"id":"whitelist","name":"Whitelist","rules":[]}])";
    auto result = RuleArchive::unzipDownloadedArchive(
        archive({{"block-ads.json", newAds, false}, {"block-configurable.json", serverConfigurable, false}}));
    ASSERT_TRUE(result.has_value()) << result.error().description;
    EXPECT_EQ(installedFiles().at("block-configurable.json"), usersConfigurable);
    EXPECT_EQ(installedFiles().at("block-ads.json"), newAds);
    EXPECT_TRUE(log_.contains("Kept the user's block-configurable.json; the archive's copy was not installed"));

    // Nothing else to install: refused, and nothing changes.
    const auto before = installedFiles();
    result = RuleArchive::unzipDownloadedArchive(archive({{"block-configurable.json", "[]", false}}));
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().code, ErrorCode::noRuleFiles);
    EXPECT_EQ(installedFiles(), before);

    // A file of the earlier layout, not yet moved in, is the user's too.
    fs::rename(filters() / "block-configurable.json",
               storage::PathProvider::sharedContainerURL() / "block-configurable.json");
    result = RuleArchive::unzipDownloadedArchive(
        archive({{"block-ads.json", ads, false}, {"block-configurable.json", serverConfigurable, false}}));
    ASSERT_TRUE(result.has_value()) << result.error().description;
    EXPECT_FALSE(installedFiles().contains("block-configurable.json"));
    EXPECT_TRUE(log_.contains("Kept the user's block-configurable.json at the old location"));

    // A folder without one receives the server's.
    fs::remove(storage::PathProvider::sharedContainerURL() / "block-configurable.json");
    result = RuleArchive::unzipDownloadedArchive(archive({{"block-configurable.json", serverConfigurable, false}}));
    ASSERT_TRUE(result.has_value()) << result.error().description;
    EXPECT_EQ(installedFiles().at("block-configurable.json"), serverConfigurable);
    EXPECT_TRUE(strayFiles().empty());
}

// MARK: - Files that do not decode

struct BrokenFile {
    const char* name;
    const char* file;
    std::string bytes;
};

void PrintTo(const BrokenFile& broken, std::ostream* out) { *out << broken.name; }

class BrokenRuleSetTest : public RuleSetTest, public ::testing::WithParamInterface<BrokenFile> {};

TEST_P(BrokenRuleSetTest, RefusesTheWholeArchiveAndInstallsNothing) {
    installed();
    const auto before = installedFiles();
    const BrokenFile& broken = GetParam();
    // Good files first, so that a partial install would show.
    const auto result = RuleArchive::unzipDownloadedArchive(
        archive({{"block-ads.json", newAds, false},
                 {"block-trackers.json", R"({"id":"block-trackers","name":"T","rules":[]})", false},
                 {"hosts.txt", "0.0.0.0 new.example\n", false},
                 {broken.file, broken.bytes, false}}));
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().code, ErrorCode::invalidPackageFile) << result.error().description;
    EXPECT_NE(result.error().description.find(std::string("The archive's ") + broken.file), std::string::npos)
        << result.error().description;
    EXPECT_EQ(result.error().description.find('\n'), std::string::npos);
    EXPECT_EQ(installedFiles(), before);
    EXPECT_TRUE(strayFiles().empty()) << ::testing::PrintToString(strayFiles());
    EXPECT_TRUE(log_.contains("Error unzipping file: The archive's " + std::string(broken.file)));
}

INSTANTIATE_TEST_SUITE_P(
    Files, BrokenRuleSetTest,
    ::testing::Values(
        BrokenFile{"notJSON", "block-adult.json", "<html>Service Unavailable</html>"},
        BrokenFile{"empty", "block-social.json", ""},
        BrokenFile{"cutShort", "block-comments.json", R"({"id":"block-comments","name":"C","rules":[)"},
        BrokenFile{"arrayForAGeneralFile", "block-annoyances.json",
                   R"([{"id":"block-annoyances","name":"A","rules":[]}])"},
        BrokenFile{"anotherFilesPackage", "block-adult.json", R"({"id":"block-ads","name":"Ads","rules":[]})"},
        BrokenFile{"ruleWithoutURLFilter", "block-social.json",
                   R"({"id":"block-social","name":"S","rules":[{"id":"r","name":"r","content":)"
                   R"({"trigger":{},"action":{"type":"block"}}}]})"},
        BrokenFile{"objectForAList", "block-international.json", R"({"id":"block-german","name":"G","rules":[]})"},
        // Refused although the user's own file would have been kept.
        BrokenFile{"brokenConfigurable", "block-configurable.json", "[{]"},
        BrokenFile{"binaryHostList", "hosts.txt", std::string("0.0.0.0 a.example\n\0\xff\xfe", 21)}),
    [](const ::testing::TestParamInfo<BrokenFile>& info) { return std::string(info.param.name); });

TEST(RuleSetFilesTest, HandlingByName) {
    using enum EntryHandling;
    ScopedDataRoot root;
    LogCapture log;
    for (const char* name : {"block-ads.json", "block-adult.json", "block-annoyances.json", "block-social.json",
                             "block-comments.json", "block-trackers.json", "block-international.json", "hosts.txt"}) {
        EXPECT_EQ(RuleSetFiles::handling(name), replace) << name;
    }
    EXPECT_EQ(RuleSetFiles::handling("block-configurable.json"), installIfAbsent);
    for (const char* name : {"block-custom.json", "block-ads", "block-ads.json.bak", "hosts.txt/", "Filters/",
                             "safari-block-ads.json", "block-regional.json"}) {
        EXPECT_EQ(RuleSetFiles::handling(name), skip) << name;
    }
}

}  // namespace
}  // namespace tamsel::updates::testing
