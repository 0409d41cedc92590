#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>

#include "PersistentStoreTestSupport.h"

namespace tamsel::storage::testing {
namespace {

using model::JSONFileName;
using model::Package;
using model::PackageCategory;
using platform::LogLevel;

const std::vector<std::string> generalOrder{"block-ads",    "block-trackers", "block-annoyances",
                                            "block-social", "block-comments", "block-adult"};

// The six general files, each holding one package named after its file.
std::vector<Package> writeGeneralFiles() {
    std::vector<Package> packages;
    for (const std::string& id : generalOrder) {
        packages.push_back(makePackage(id, "List " + id, 3));
        writeRaw(filterFile(*model::fromRawValue<JSONFileName>(id)), model::encodePackage(packages.back()));
    }
    return packages;
}

std::vector<Package> readGeneral() { return await(PersistentStore::readGeneralPackages); }

void expectPlaceholder(const Package& package, const std::string& id) {
    EXPECT_EQ(package.id, id);
    EXPECT_EQ(package.name, "some-name");
    EXPECT_TRUE(package.rules.empty());
}

// --- General packages ---------------------------------------------------------------

using GeneralPackagesTest = StorageTest;

TEST_F(GeneralPackagesTest, AllSixInTheirOrder) {
    const auto written = writeGeneralFiles();
    const auto packages = readGeneral();
    EXPECT_EQ(packages, written);
    EXPECT_TRUE(logged(LogLevel::info, "Did read 6 General packages"));
    EXPECT_EQ(downloader->requestCount(), 0u);
}

TEST_F(GeneralPackagesTest, OrderHoldsWhateverOrderTheReadsFinishIn) {
    // Every file is missing at first, so each read stops at the download; the
    // test then puts the files in place and lets the reads go on in an order
    // of its choosing, on threads of its own.
    downloader->hold = true;
    std::mt19937 random(20240611);
    for (int round = 0; round < 4; ++round) {
        SCOPED_TRACE(round);
        fs::remove_all(PathProvider::filtersFolderURL());
        std::vector<Package> packages;
        std::promise<std::vector<Package>> result;
        PersistentStore::readGeneralPackages([&result](auto read) { result.set_value(std::move(read)); });
        ASSERT_TRUE(tamsel::testing::waitUntil([&] { return downloader->requestCount() == 6u * (round + 1); }));

        const auto written = writeGeneralFiles();
        auto held = downloader->takeHeld();
        ASSERT_EQ(held.size(), 6u);
        if (round == 0) {
            std::reverse(held.begin(), held.end());
        } else {
            std::shuffle(held.begin(), held.end(), random);
        }
        for (auto& completion : held) std::thread([completion] { completion(true); }).join();

        auto future = result.get_future();
        ASSERT_EQ(future.wait_for(std::chrono::seconds(30)), std::future_status::ready);
        EXPECT_EQ(future.get(), written);
    }
    for (const auto& identifier : downloader->identifiers()) EXPECT_EQ(identifier, "Background-Download-Filters");
}

TEST_F(GeneralPackagesTest, BigAndSmallFilesStillComeOutInOrder) {
    auto written = writeGeneralFiles();
    written.front() = makePackage("block-ads", "Big list", 5000);
    writeRaw(filterFile(JSONFileName::blockAds), model::encodePackage(written.front()));
    EXPECT_EQ(readGeneral(), written);
}

TEST_F(GeneralPackagesTest, MissingFileLeavesItsPlaceholder) {
    const auto written = writeGeneralFiles();
    fs::remove(filterFile(JSONFileName::blockComments));

    const auto packages = readGeneral();
    ASSERT_EQ(ids(packages), generalOrder);
    expectPlaceholder(packages[4], "block-comments");
    for (std::size_t i : {0u, 1u, 2u, 3u, 5u}) EXPECT_EQ(packages[i], written[i]);
    EXPECT_TRUE(logged(LogLevel::error, "block-comments doesn't exist on disk."));
    EXPECT_TRUE(logged(LogLevel::info, "Did read 6 General packages"));
    // One download was tried for the missing file, and only one.
    EXPECT_EQ(downloader->requestCount(), 1u);
}

TEST_F(GeneralPackagesTest, NothingOnDiskGivesSixPlaceholders) {
    const auto packages = readGeneral();
    ASSERT_EQ(ids(packages), generalOrder);
    for (std::size_t i = 0; i < packages.size(); ++i) expectPlaceholder(packages[i], generalOrder[i]);
    EXPECT_EQ(downloader->requestCount(), 6u);
}

TEST_F(GeneralPackagesTest, UnusableFilesCountAsMissingAndAreNamed) {
    auto written = writeGeneralFiles();
    const std::string valid = model::encodePackage(written[1]);
    writeRaw(filterFile(JSONFileName::blockAds), "");                                      // zero bytes
    writeRaw(filterFile(JSONFileName::blockTrackers), valid.substr(0, valid.size() / 2));  // truncated
    writeRaw(filterFile(JSONFileName::blockAnnoyances), "[" + valid + "]");                // a list, not one
    writeRaw(filterFile(JSONFileName::blockSocial),                                        // a foreign id
             model::encodePackage(makePackage("block-elsewhere", "Stray")));

    const auto packages = readGeneral();
    ASSERT_EQ(ids(packages), generalOrder);
    for (std::size_t i = 0; i < 4; ++i) {
        expectPlaceholder(packages[i], generalOrder[i]);
        EXPECT_TRUE(logged(LogLevel::error, generalOrder[i] + " doesn't exist on disk.")) << generalOrder[i];
    }
    EXPECT_EQ(packages[4], written[4]);
    EXPECT_EQ(packages[5], written[5]);
    EXPECT_TRUE(logged(LogLevel::error, "Package file block-ads is empty"));
    EXPECT_TRUE(log.contains("Failed to decode package file block-trackers. Error: "));
    // A present but unusable file is not a reason to download.
    EXPECT_EQ(downloader->requestCount(), 0u);
}

TEST_F(GeneralPackagesTest, ManyReadsAtOnceEachGetSix) {
    const auto written = writeGeneralFiles();
    constexpr int readerCount = 6;
    std::vector<std::vector<Package>> results(readerCount);
    std::vector<std::thread> readers;
    for (int i = 0; i < readerCount; ++i) {
        readers.emplace_back([&results, i] { results[static_cast<std::size_t>(i)] = readGeneral(); });
    }
    for (auto& reader : readers) reader.join();
    for (const auto& result : results) EXPECT_EQ(result, written);
}

// --- Old location -----------------------------------------------------------------

using OldLocationTest = StorageTest;

TEST_F(OldLocationTest, FileIsMovedIntoTheFiltersFolderAndRead) {
    const auto written = writeGeneralFiles();
    const fs::path oldPath = PathProvider::sharedContainerURL() / "block-ads.json";
    fs::rename(filterFile(JSONFileName::blockAds), oldPath);

    EXPECT_EQ(readGeneral(), written);
    EXPECT_FALSE(fs::exists(oldPath));
    EXPECT_EQ(model::decodePackage(readRaw(filterFile(JSONFileName::blockAds))), written[0]);
    EXPECT_TRUE(logged(LogLevel::info, "Will copy file block-ads from old location to new location..."));
    EXPECT_TRUE(logged(LogLevel::info, "Removed file at old path '" + oldPath.string() + "'"));
    EXPECT_EQ(downloader->requestCount(), 0u);
}

TEST_F(OldLocationTest, NewFileWinsAndTheOldOneIsLeftAlone) {
    const auto written = writeGeneralFiles();
    const fs::path oldPath = PathProvider::sharedContainerURL() / "block-ads.json";
    writeRaw(oldPath, model::encodePackage(makePackage("block-ads", "Stale")));

    EXPECT_EQ(readGeneral(), written);
    EXPECT_TRUE(fs::exists(oldPath));
    EXPECT_FALSE(log.contains("Will copy file"));
}

TEST_F(OldLocationTest, FailedCopyKeepsTheOldFileAndDoesNotDownload) {
    const std::vector<Package> regional{makePackage("block-german", "German")};
    const fs::path oldPath = PathProvider::sharedContainerURL() / "block-international.json";
    writeRaw(oldPath, model::encodePackages(regional));
    // "Filters" is a regular file, so nothing can be created in it.
    writeRaw(PathProvider::filtersFolderURL(), "in the way");

    EXPECT_TRUE(await(PersistentStore::readInternationalPackages).empty());
    EXPECT_TRUE(fs::exists(oldPath));
    EXPECT_TRUE(log.contains("Failed to copy file block-international from old location '" + oldPath.string() +
                             "' to new location '" + filterFile(JSONFileName::blockInternational).string() +
                             "'. Error: "));
    EXPECT_EQ(downloader->requestCount(), 0u);

    // Once the folder can be made, the next read finishes the move.
    fs::remove(PathProvider::filtersFolderURL());
    EXPECT_EQ(await(PersistentStore::readInternationalPackages), regional);
    EXPECT_FALSE(fs::exists(oldPath));
}

// --- List files and downloads ---------------------------------------------------------

using ListFilesTest = StorageTest;

TEST_F(ListFilesTest, MissingInternationalFileIsDownloadedThenRead) {
    const std::vector<Package> regional{makePackage("block-german", "German"), makePackage("block-polish", "Polish")};
    downloader->onDownload = [&] { writeRaw(filterFile(JSONFileName::blockInternational), model::encodePackages(regional)); };

    EXPECT_EQ(await(PersistentStore::readInternationalPackages), regional);
    EXPECT_EQ(downloader->identifiers(), std::vector<std::string>{"Background-Download-Filters"});
}

TEST_F(ListFilesTest, DownloadThatBringsNothingIsTriedOnlyOnce) {
    EXPECT_TRUE(await(PersistentStore::readInternationalPackages).empty());
    EXPECT_EQ(downloader->requestCount(), 1u);
}

TEST_F(ListFilesTest, DefaultDownloaderAnswersAtOnce) {
    FilterArchiveDownloading::setShared(nullptr);
    EXPECT_TRUE(await(PersistentStore::readInternationalPackages).empty());
    EXPECT_TRUE(await(PersistentStore::readGeneralPackages).size() == 6);
}

TEST_F(ListFilesTest, UserFilesAreNeverDownloaded) {
    EXPECT_TRUE(await(PersistentStore::readCustomPackages).empty());
    EXPECT_EQ(await(PersistentStore::readConfigurablePackages).size(), 5u);
    EXPECT_EQ(downloader->requestCount(), 0u);
}

TEST_F(ListFilesTest, CustomPackagesRoundTripInFileOrder) {
    const std::vector<Package> custom{makePackage("my-list-b", "B"), makePackage("my-list-a", "A", 0)};
    writeRaw(filterFile(JSONFileName::blockCustom), model::encodePackages(custom));
    EXPECT_EQ(await(PersistentStore::readCustomPackages), custom);
}

TEST_F(ListFilesTest, UnreadableFileGivesNothingAndLogsTheError) {
    fs::create_directories(filterFile(JSONFileName::blockCustom));  // a folder where the file should be
    EXPECT_TRUE(await(PersistentStore::readCustomPackages).empty());
    EXPECT_TRUE(log.contains("block-custom.json' couldn't be read: Is a directory"));
}

TEST_F(ListFilesTest, UndecodableListGivesNothing) {
    writeRaw(filterFile(JSONFileName::blockCustom), R"([{"id":"x","name":"X"}])");  // no "rules"
    EXPECT_TRUE(await(PersistentStore::readCustomPackages).empty());
    EXPECT_TRUE(log.contains("Failed to decode package file block-custom. Error: "));
}

TEST_F(ListFilesTest, UnusableListFilesGiveNoPackagesAndAreNamed) {
    const std::string valid = model::encodePackages({makePackage("block-german", "German", 3)});
    struct Case {
        const char* what;
        std::string bytes;
        std::string logged;  // %s: the file's name

        std::string line(const std::string& file) const {
            std::string text = logged;
            return text.replace(text.find("%s"), 2, file);
        }
    };
    const std::vector<Case> cases{
        {"zero bytes", "", "Package file %s is empty"},
        {"truncated", valid.substr(0, valid.size() - 7), "Failed to decode package file %s. Error: "},
        {"one package, not a list", model::encodePackage(makePackage("block-german", "German")),
         "Failed to decode package file %s. Error: "},
        {"not UTF-8", "[{\"id\":\"block-german\",\"name\":\"\xC3\x28\",\"rules\":[]}]",
         "Failed to decode package file %s. Error: "},
        {"not JSON", "\x89PNG\r\n\x1A\n", "Failed to decode package file %s. Error: "},
    };
    // Lines of this case only: the capture keeps those of the earlier ones.
    const auto occurrences = [this](const std::string& text) {
        const auto messages = log.messages();
        return std::count_if(messages.begin(), messages.end(),
                             [&](const std::string& message) { return message.find(text) != std::string::npos; });
    };
    for (const Case& fault : cases) {
        SCOPED_TRACE(fault.what);
        const std::vector<std::string> files{"block-international", "block-custom", "block-configurable"};
        std::vector<long> seen;
        for (const auto& file : files) seen.push_back(occurrences(fault.line(file)));
        writeRaw(filterFile(JSONFileName::blockInternational), fault.bytes);
        writeRaw(filterFile(JSONFileName::blockCustom), fault.bytes);
        writeRaw(filterFile(JSONFileName::blockConfigurable), fault.bytes);

        EXPECT_TRUE(await(PersistentStore::readInternationalPackages).empty());
        EXPECT_TRUE(await(PersistentStore::readCustomPackages).empty());
        // The configurable packages fall back to their empty defaults.
        const auto configurable = await(PersistentStore::readConfigurablePackages);
        EXPECT_EQ(ids(configurable), (std::vector<std::string>{"whitelist", "block-url", "block-cookies",
                                                               "hide-elements", "make-https"}));
        for (const auto& package : configurable) EXPECT_TRUE(package.rules.empty()) << package.id;
        // Each file is named once, with what is wrong with it.
        for (std::size_t i = 0; i < files.size(); ++i) {
            EXPECT_EQ(occurrences(fault.line(files[i])), seen[i] + 1) << files[i];
        }
    }
    // The file is there, only broken: fetching the rule set again would not mend it.
    EXPECT_EQ(downloader->requestCount(), 0u);
}

// --- Configurable packages ----------------------------------------------------------

using ConfigurablePackagesTest = StorageTest;

const std::vector<std::string> configurableOrder{"whitelist", "block-url", "block-cookies", "hide-elements",
                                                 "make-https"};

TEST_F(ConfigurablePackagesTest, DefaultsWhenTheFileIsMissing) {
    const auto packages = await(PersistentStore::readConfigurablePackages);
    ASSERT_EQ(ids(packages), configurableOrder);
    const std::vector<std::string> names{"Whitelist", "Block URLs", "Block Cookies", "Hide Page Elements",
                                         "Make HTTPS-only"};
    for (std::size_t i = 0; i < packages.size(); ++i) {
        EXPECT_EQ(packages[i].name, names[i]);
        EXPECT_TRUE(packages[i].rules.empty());
    }
}

TEST_F(ConfigurablePackagesTest, FilePackagesTakeTheirPlacesAndStrangersAreDropped) {
    const Package makeHttps = makePackage("make-https", "My HTTPS", 4);
    const Package whitelist = makePackage("whitelist", "My whitelist", 1);
    writeRaw(filterFile(JSONFileName::blockConfigurable),
             model::encodePackages({makeHttps, makePackage("not-configurable", "Stranger"), whitelist}));

    const auto packages = await(PersistentStore::readConfigurablePackages);
    ASSERT_EQ(ids(packages), configurableOrder);
    EXPECT_EQ(packages[0], whitelist);
    EXPECT_EQ(packages[4], makeHttps);
    EXPECT_EQ(packages[1].name, "Block URLs");
    EXPECT_TRUE(packages[1].rules.empty());
}

// --- One general file ---------------------------------------------------------------

using ReadPackagesTest = StorageTest;

TEST_F(ReadPackagesTest, OneGeneralFile) {
    const auto written = writeGeneralFiles();
    const auto read = await([](auto completion) {
        PersistentStore::readPackages(PackageCategory::general, JSONFileName::blockTrackers, std::move(completion));
    });
    EXPECT_EQ(read, std::vector<Package>{written[1]});

    fs::remove(filterFile(JSONFileName::blockAdult));
    EXPECT_TRUE(await([](auto completion) {
                    PersistentStore::readPackages(PackageCategory::general, JSONFileName::blockAdult,
                                                  std::move(completion));
                }).empty());
    EXPECT_EQ(downloader->requestCount(), 1u);
}

using ReadPackagesDeathTest = StorageTest;

TEST_F(ReadPackagesDeathTest, OtherCategoriesStopTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (PackageCategory category : {PackageCategory::international, PackageCategory::custom}) {
        EXPECT_DEATH(PersistentStore::readPackages(category, JSONFileName::blockInternational, {}),
                     "Can use this method only for General category");
    }
}

}  // namespace
}  // namespace tamsel::storage::testing
