#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <thread>
#include <vector>

#include "model/JSONFileName.h"
#include "storage/Directory.h"
#include "storage/PathProvider.h"
#include "storage/StoreURL.h"
#include "support/TestSupport.h"

namespace tamsel::storage {
namespace {

namespace fs = std::filesystem;
using model::ExtensionType;

void makeRegularFile(const fs::path& path) {
    fs::remove_all(path);
    std::ofstream(path) << "not a folder";
}

TEST(PathProviderTest, EveryLocationLiesBelowTheGroupFolderOfTheDataRoot) {
    tamsel::testing::ScopedDataRoot root;
    const fs::path group = root.home() / "group";

    EXPECT_EQ(PathProvider::sharedContainerURL(), group);
    EXPECT_EQ(PathProvider::applicationSupportURL(), group / "Library" / "Application Support");
    EXPECT_EQ(PathProvider::cachesURL(), group / "Library" / "Caches");
    EXPECT_EQ(PathProvider::filtersFolderURL(), group / "Library/Application Support/Filters");
    EXPECT_EQ(PathProvider::safariJSONFolderURL(), group / "Library/Application Support/Safari JSON");
    EXPECT_EQ(PathProvider::downloadedArchiveURL(), group / "Library/Caches/data.zip");
    EXPECT_EQ(PathProvider::hostsFileURL(), group / "Library/Application Support/Filters/hosts.txt");
    EXPECT_EQ(PathProvider::filtersFolderURL() / model::fileName(model::JSONFileName::blockConfigurable),
              group / "Library/Application Support/Filters/block-configurable.json");
}

TEST(PathProviderTest, OnlyTheContainerIsCreatedTheWritersMakeTheRest) {
    tamsel::testing::ScopedDataRoot root;
    EXPECT_TRUE(fs::is_directory(PathProvider::sharedContainerURL()));
    EXPECT_FALSE(fs::exists(PathProvider::applicationSupportURL()));
    EXPECT_FALSE(fs::exists(PathProvider::filtersFolderURL()));
    EXPECT_FALSE(fs::exists(PathProvider::safariJSONFolderURL()));
    EXPECT_FALSE(fs::exists(PathProvider::cachesURL()));
}

TEST(PathProviderTest, SafariJSONFileOfEachExtension) {
    tamsel::testing::ScopedDataRoot root;
    const fs::path folder = root.home() / "group/Library/Application Support/Safari JSON";
    const std::vector<std::pair<ExtensionType, std::string>> expected{
        {ExtensionType::blockAds, "safari-block-ads.json"},
        {ExtensionType::blockTrackers, "safari-block-trackers.json"},
        {ExtensionType::blockAnnoyances, "safari-block-annoyances.json"},
        {ExtensionType::blockSocial, "safari-block-social.json"},
        {ExtensionType::blockComments, "safari-block-comments.json"},
        {ExtensionType::blockAdult, "safari-block-adult.json"},
        {ExtensionType::regionalRules, "safari-block-international.json"},
        {ExtensionType::customRules, "safari-custom+configurable.json"},
    };
    ASSERT_EQ(expected.size(), model::allCases<ExtensionType>().size());
    for (const auto& [type, name] : expected) {
        EXPECT_EQ(PathProvider::safariJSONFilePath(type), folder / name) << model::rawValue(type);
    }
}

TEST(PathProviderTest, FollowsTheDataRootWhenItMoves) {
    fs::path first;
    {
        tamsel::testing::ScopedDataRoot root;
        first = PathProvider::filtersFolderURL();
    }
    tamsel::testing::ScopedDataRoot root;
    EXPECT_NE(PathProvider::filtersFolderURL(), first);
    EXPECT_EQ(PathProvider::sharedContainerURL(), root.home() / "group");
}

TEST(PathProviderTest, ConcurrentFirstUseAgreesOnEveryLocation) {
    tamsel::testing::ScopedDataRoot root;
    PathProvider::resetForTesting();
    constexpr int threadCount = 8;
    std::vector<fs::path> seen(threadCount);
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&seen, i] {
            // Resets interleaved with reads: a reader must never see a
            // half-built set of locations.
            if (i % 2 == 0) PathProvider::resetForTesting();
            seen[static_cast<std::size_t>(i)] = PathProvider::hostsFileURL();
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(std::set<fs::path>(seen.begin(), seen.end()).size(), 1u);
    EXPECT_EQ(seen.front(), root.home() / "group/Library/Application Support/Filters/hosts.txt");
}

TEST(PathProviderTest, StoreURLIsAtTheContainerRoot) {
    tamsel::testing::ScopedDataRoot root;
    EXPECT_EQ(storeURL("blocked-resources-data"), root.home() / "group" / "blocked-resources-data.sqlite");
}

TEST(PathProviderTest, StandardDirectoriesAreCreatedBelowTheHome) {
    tamsel::testing::ScopedDataRoot root;
    EXPECT_EQ(Directory::url(StandardDirectory::documents), root.home() / "Documents");
    EXPECT_EQ(Directory::url(StandardDirectory::caches), root.home() / "Library" / "Caches");
    for (StandardDirectory directory : model::allCases<StandardDirectory>()) {
        EXPECT_TRUE(fs::is_directory(Directory::url(directory))) << model::rawValue(directory);
    }
}

class PathProviderDeathTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    tamsel::testing::ScopedDataRoot root;
};

TEST_F(PathProviderDeathTest, MissingContainerStopsTheProcess) {
    makeRegularFile(root.home() / "group");
    EXPECT_DEATH(PathProvider::filtersFolderURL(), "sharedContainerURL is nil");
    EXPECT_DEATH(storeURL("blocked-resources-data"), "Shared file container could not be created\\.");
}

TEST_F(PathProviderDeathTest, StandardDirectoryThatCannotBeMadeStopsTheProcess) {
    makeRegularFile(root.home() / "Documents");
    EXPECT_DEATH(Directory::url(StandardDirectory::documents), "Could not create the documents directory");
}

}  // namespace
}  // namespace tamsel::storage
