#include <fmt/format.h>
#include <gtest/gtest.h>
#include <xxhash.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "PersistentStoreTestSupport.h"
#include "platform/Files.h"
#include "storage/PackageSummary.h"

namespace tamsel::storage::testing {
namespace {

using model::JSONFileName;
using model::Package;

using PackageSummaryTest = StorageTest;

std::vector<std::string> idsOf(const PackageOutline& outline) {
    const auto views = outline.ruleIDs();
    return {views.begin(), views.end()};
}

// Replaces a package file as the program does: a new file renamed over the old.
void replaceFile(JSONFileName file, std::string_view bytes) {
    std::filesystem::create_directories(filterFile(file).parent_path());
    ASSERT_TRUE(platform::writeFileAtomically(filterFile(file), bytes));
}

TEST_F(PackageSummaryTest, OutlinesMatchTheFileAndComeFromTheSummaryNextTime) {
    Package ads = makePackage("block-ads", "Ads", 3);
    ads.rules.push_back(ads.rules.front());  // one identifier named twice
    replaceFile(JSONFileName::blockAds, model::encodePackage(ads));
    const std::vector<Package> regional{makePackage("ru", "Russian", 2), makePackage("de", "German", 0)};
    replaceFile(JSONFileName::blockInternational, model::encodePackages(regional));

    const auto first = PackageSummary::outlines(JSONFileName::blockAds);
    ASSERT_TRUE(first.has_value());
    ASSERT_EQ(first->size(), 1u);
    EXPECT_EQ(first->front().id, "block-ads");
    EXPECT_EQ(first->front().name, "Ads");
    EXPECT_EQ(first->front().ruleCount, 4u);
    EXPECT_EQ(idsOf(first->front()), (std::vector<std::string>{"block-ads-rule-0", "block-ads-rule-0",
                                                               "block-ads-rule-1", "block-ads-rule-2"}));
    ASSERT_TRUE(std::filesystem::exists(PackageSummary::summaryPath(JSONFileName::blockAds)));

    // A rule disabled by identifier counts once per rule that carries it;
    // entries that say "enabled" and identifiers of no rule count nothing.
    EXPECT_EQ(first->front().disabledCount({{"block-ads-rule-0", true},
                                            {"block-ads-rule-1", false},
                                            {"no-such-rule", true}}),
              2u);

    const auto lists = PackageSummary::outlines(JSONFileName::blockInternational);
    ASSERT_TRUE(lists.has_value());
    ASSERT_EQ(lists->size(), 2u);
    EXPECT_EQ(lists->at(0).id, "ru");
    EXPECT_EQ(lists->at(0).ruleCount, 2u);
    EXPECT_EQ(lists->at(1).id, "de");
    EXPECT_EQ(lists->at(1).ruleCount, 0u);
    EXPECT_TRUE(idsOf(lists->at(1)).empty());

    // Read again from the summary alone: the package file's bytes no longer
    // matter while its version stands (same size, same inode, same time).
    const auto stampBefore = platform::fileStamp(filterFile(JSONFileName::blockAds));
    const auto summaryBytes = readRaw(PackageSummary::summaryPath(JSONFileName::blockAds));
    const auto again = PackageSummary::outlines(JSONFileName::blockAds);
    ASSERT_TRUE(again.has_value());
    EXPECT_EQ(idsOf(again->front()), idsOf(first->front()));
    EXPECT_EQ(platform::fileStamp(filterFile(JSONFileName::blockAds)), stampBefore);
    EXPECT_EQ(readRaw(PackageSummary::summaryPath(JSONFileName::blockAds)), summaryBytes);
}

TEST_F(PackageSummaryTest, ReplacedPackageFileMakesTheSummaryStale) {
    replaceFile(JSONFileName::blockAds, model::encodePackage(makePackage("block-ads", "Ads", 3)));
    const auto before = PackageSummary::outlines(JSONFileName::blockAds);
    ASSERT_TRUE(before.has_value() && before->size() == 1);
    ASSERT_EQ(before->front().ruleCount, 3u);

    replaceFile(JSONFileName::blockAds, model::encodePackage(makePackage("block-ads", "Ads updated", 5)));
    const auto outlines = PackageSummary::outlines(JSONFileName::blockAds);
    ASSERT_TRUE(outlines.has_value());
    EXPECT_EQ(outlines->front().name, "Ads updated");
    EXPECT_EQ(outlines->front().ruleCount, 5u);
    // And the summary now names the new version.
    const auto stamp = platform::fileStamp(filterFile(JSONFileName::blockAds));
    const auto bytes = std::make_shared<const std::string>(readRaw(PackageSummary::summaryPath(JSONFileName::blockAds)));
    ASSERT_TRUE(PackageSummary::decode(bytes, stamp).has_value());
}

TEST_F(PackageSummaryTest, DamagedOrForeignSummariesAreRebuilt) {
    replaceFile(JSONFileName::blockSocial, model::encodePackage(makePackage("block-social", "Social", 4)));
    const auto path = PackageSummary::summaryPath(JSONFileName::blockSocial);
    ASSERT_TRUE(PackageSummary::outlines(JSONFileName::blockSocial).has_value());
    const std::string good = readRaw(path);

    std::string flipped = good;
    flipped[flipped.size() / 2] ^= 0x01;
    const std::vector<std::string> damaged{"", "garbage", good.substr(0, good.size() - 5), flipped,
                                           good + "trailing", std::string(good.size(), '\0')};
    for (const std::string& bytes : damaged) {
        writeRaw(path, bytes);
        const auto outlines = PackageSummary::outlines(JSONFileName::blockSocial);
        ASSERT_TRUE(outlines.has_value());
        ASSERT_EQ(outlines->size(), 1u);
        EXPECT_EQ(outlines->front().ruleCount, 4u);
        EXPECT_EQ(idsOf(outlines->front()).size(), 4u);
        EXPECT_EQ(readRaw(path), good) << "not rewritten after " << bytes.size() << " damaged bytes";
    }

    // A well-formed summary of another version of the file is not taken.
    const auto stamp = platform::fileStamp(filterFile(JSONFileName::blockSocial));
    platform::FileStamp other = stamp;
    other.size += 1;
    EXPECT_FALSE(PackageSummary::decode(std::make_shared<const std::string>(good), other).has_value());
    // Nor one whose counts do not add up, even under a checksum that holds.
    const std::string forged = PackageSummary::encode(stamp, {{"block-social", "Social", {"b", "a"}}});
    ASSERT_TRUE(PackageSummary::decode(std::make_shared<const std::string>(forged), stamp).has_value());
    std::string body = forged.substr(0, forged.size() - 17);
    body.replace(body.find("Social2\n"), 8, "Social3\n");
    const std::string resealed = body + fmt::format("{:016x}\n", XXH3_64bits(body.data(), body.size()));
    EXPECT_FALSE(PackageSummary::decode(std::make_shared<const std::string>(resealed), stamp).has_value());
}

TEST_F(PackageSummaryTest, UndecodableFileHasNoPackagesAndMissingFileNoOutline) {
    EXPECT_FALSE(PackageSummary::outlines(JSONFileName::blockComments).has_value());
    EXPECT_FALSE(std::filesystem::exists(PackageSummary::summaryPath(JSONFileName::blockComments)));

    replaceFile(JSONFileName::blockComments, "{\"id\": \"block-comments\", \"rules\": [");
    const auto outlines = PackageSummary::outlines(JSONFileName::blockComments);
    ASSERT_TRUE(outlines.has_value());
    EXPECT_TRUE(outlines->empty());
    // A general file must be one package object, as the package store reads it.
    replaceFile(JSONFileName::blockComments, model::encodePackages({makePackage("block-comments", "C", 1)}));
    EXPECT_TRUE(PackageSummary::outlines(JSONFileName::blockComments)->empty());
}

// Several programs sharing the data root may find the summary missing at
// once: each writes it whole, and every reader gets the right outline.
TEST_F(PackageSummaryTest, ConcurrentReadersAllGetTheOutline) {
    replaceFile(JSONFileName::blockTrackers, model::encodePackage(makePackage("block-trackers", "Trackers", 50)));
    std::atomic<int> right = 0;
    std::vector<std::thread> readers;
    for (int i = 0; i < 4; ++i) {
        readers.emplace_back([&] {
            for (int round = 0; round < 5; ++round) {
                if (round % 2 == 0) std::filesystem::remove(PackageSummary::summaryPath(JSONFileName::blockTrackers));
                const auto outlines = PackageSummary::outlines(JSONFileName::blockTrackers);
                if (outlines && outlines->size() == 1 && outlines->front().ruleCount == 50 &&
                    outlines->front().ruleIDs().size() == 50) {
                    ++right;
                }
            }
        });
    }
    for (auto& reader : readers) reader.join();
    EXPECT_EQ(right.load(), 20);
}

}  // namespace
}  // namespace tamsel::storage::testing
