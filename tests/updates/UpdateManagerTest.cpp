#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "UpdatesFixture.h"
#include "storage/FilterArchiveDownloading.h"
#include "updates/VersionDateFormatter.h"

namespace tamsel::updates::testing {
namespace {

using Kind = UpdateResult::Kind;
using Endpoint = FilterServer::Endpoint;
using Fault = FilterServer::Fault;

const std::string available = "New Rules Update Available From Cloud";
const std::string started = "Start Updating Rules From Cloud";
const std::string succeeded = "Successfuly Updated Rules From Cloud";
const std::string failed = "Failed Updating Rules From Cloud";

platform::Date dayOf(int day) {
    using namespace std::chrono;
    return platform::Date(sys_days(year(2024) / March / std::chrono::day(static_cast<unsigned>(day))) + hours(9));
}

std::string versionOf(platform::Date date) { return VersionDateFormatter().string(date); }

class UpdateManagerTest : public UpdatesFixture {
protected:
    // Installs the published rule set as `date`, and then changes what is
    // published, so that a later partial install would show.
    void installFirstVersion(platform::Date date) {
        server_->setPublicationDate(date);
        auto manager = makeManager();
        ASSERT_EQ(check(*manager).kind, Kind::success);
        ASSERT_EQ(localVersion(), versionOf(date));
        publish("block-ads.json", R"({"id":"block-ads","name":"Ads v2","rules":[]})");
        publish("block-brand-new.json", "[]");
        RuleArchive::resetAlreadyDownloaded();
        reloading_->clear();
        clearNotifications();
    }
};

TEST_F(UpdateManagerTest, InstallsANewVersionRecordsItAndReloadsAllButCustom) {
    const auto date = dayOf(5);
    server_->setPublicationDate(date);
    auto manager = makeManager();
    std::vector<double> fractions;
    std::mutex fractionsMutex;

    const UpdateResult result = check(*manager, true, [&](double fraction) {
        std::lock_guard lock(fractionsMutex);
        fractions.push_back(fraction);
    });

    ASSERT_EQ(result.kind, Kind::success) << result.description();
    EXPECT_EQ(localVersion(), "Tue, 05 Mar 2024 09:00:00 GMT");
    EXPECT_EQ(manager->cachedCloudVersion(), localVersion());
    EXPECT_FALSE(manager->isCurrentlyUpdating());
    EXPECT_EQ(UpdateManager::localVersionDate(), date);

    const auto files = installedFiles();
    EXPECT_EQ(files.at("block-ads.json"), platform::readFile(published_ / "block-ads.json").value());
    EXPECT_EQ(files.at("hosts.txt"), platform::readFile(published_ / "hosts.txt").value());
    EXPECT_FALSE(files.contains("block-custom.json"));
    EXPECT_EQ(files.size(), 9u);
    for (const char* name : {"block-ads.json", "hosts.txt"}) {
        const fs::path path = storage::PathProvider::filtersFolderURL() / name;
        // Where the file system keeps user attributes, both marks are set.
        if (auto excluded = platform::isExcludedFromBackup(path)) {
            EXPECT_TRUE(*excluded) << name;
        }
        if (auto hidden = platform::isHidden(path)) {
            EXPECT_TRUE(*hidden) << name;
        }
    }
    EXPECT_TRUE(strayFiles().empty()) << ::testing::PrintToString(strayFiles());

    ASSERT_EQ(reloading_->requests().size(), 1u);
    EXPECT_EQ(reloading_->requests()[0].kind, storage::RecordingExtensionReloading::Request::Kind::all);
    EXPECT_EQ(reloading_->requests()[0].except, model::ExtensionType::customRules);

    EXPECT_EQ(notifications(), (std::vector<std::string>{available, started, succeeded}));
    EXPECT_FALSE(fractions.empty());
    EXPECT_TRUE(std::is_sorted(fractions.begin(), fractions.end()));
    EXPECT_DOUBLE_EQ(fractions.back(), 1.0);

    EXPECT_TRUE(log_.contains("Checking for updates in the cloud"));
    EXPECT_TRUE(log_.contains("Cloud update is available: Tue, 05 Mar 2024 09:00:00 GMT. Local version: nil"));
    EXPECT_TRUE(log_.contains("Updating \"nil\" → \"Tue, 05 Mar 2024 09:00:00 GMT\""));
    EXPECT_TRUE(log_.contains("Not allowed to use the Background Extension API, so will use the old loading function."));
    EXPECT_TRUE(log_.contains("Downloading file using URLSession from " + server_->baseURL() + "/v4/data.zip"));
    EXPECT_TRUE(log_.contains("Unzipping downloaded ZIP file"));
    EXPECT_TRUE(log_.contains("Did unzip and copy filter files to " + storage::PathProvider::filtersFolderURL().string()));
    EXPECT_TRUE(log_.contains("Successfuly updated rules to version \"Tue, 05 Mar 2024 09:00:00 GMT\""));
}

TEST_F(UpdateManagerTest, SameVersionGivesNoNewUpdatesWithoutDownloading) {
    installFirstVersion(dayOf(5));
    auto manager = makeManager();
    const auto archiveRequests = server_->requestCount(Endpoint::archive);

    EXPECT_EQ(check(*manager).kind, Kind::noNewUpdates);
    EXPECT_EQ(server_->requestCount(Endpoint::archive), archiveRequests);
    EXPECT_TRUE(notifications().empty());
    EXPECT_TRUE(reloading_->requests().empty());
    EXPECT_FALSE(manager->isCurrentlyUpdating());
    EXPECT_TRUE(log_.contains("No new cloud updates available"));
}

TEST_F(UpdateManagerTest, AnOlderServerVersionCountsAsNew) {
    installFirstVersion(dayOf(20));
    server_->setPublicationDate(dayOf(1));
    auto manager = makeManager();

    EXPECT_EQ(check(*manager).kind, Kind::success);
    EXPECT_EQ(localVersion(), versionOf(dayOf(1)));
    EXPECT_EQ(installedFiles().at("block-ads.json"), R"({"id":"block-ads","name":"Ads v2","rules":[]})");
    // Not a file of the rule set.
    EXPECT_FALSE(installedFiles().contains("block-brand-new.json"));
    EXPECT_TRUE(log_.contains("Skipping block-brand-new.json from the archive: not a file of the rule set"));
}

TEST_F(UpdateManagerTest, ManifestDatesCenturiesApartAreDifferentVersions) {
    using namespace std::chrono;
    installFirstVersion(platform::Date(sys_days(year(1900) / January / 1)));
    for (const auto date : {platform::Date(sys_days(year(2100) / January / 1)),
                            platform::Date(sys_days(year(9999) / December / 31) + hours(23))}) {
        server_->setPublicationDate(date);
        auto manager = makeManager();
        EXPECT_EQ(check(*manager).kind, Kind::success) << versionOf(date);
        EXPECT_EQ(localVersion(), versionOf(date));
    }
    EXPECT_EQ(localVersion(), "Fri, 31 Dec 9999 23:00:00 GMT");
}

TEST_F(UpdateManagerTest, WithoutReloadTheVersionIsRecordedAndNothingReloads) {
    server_->setPublicationDate(dayOf(7));
    auto manager = makeManager();

    EXPECT_EQ(check(*manager, /*shouldReload=*/false).kind, Kind::success);
    EXPECT_TRUE(reloading_->requests().empty());
    EXPECT_EQ(localVersion(), versionOf(dayOf(7)));
    EXPECT_EQ(notifications(), (std::vector<std::string>{available, started, succeeded}));
}

TEST_F(UpdateManagerTest, AFailedReloadLeavesTheVersionUnrecorded) {
    class FailingReloading : public storage::ExtensionReloading {
    public:
        void saveToJSONAndReload(model::ExtensionType, bool, storage::ReloadingCompletion) override {}
        void saveToJSONAndReloadAll(std::optional<model::ExtensionType>, storage::ReloadingCompletion done) override {
            platform::DispatchQueue::main().async([done] {
                done(std::unexpected(storage::ReloadingError::safariReturnedError("WKErrorDomain", 3, "busy")));
            });
        }
    };
    server_->setPublicationDate(dayOf(8));
    auto manager = UpdateManager::make({server_->baseURL(), false, std::make_shared<FailingReloading>()});

    const UpdateResult result = check(*manager);
    ASSERT_EQ(result.kind, Kind::error);
    EXPECT_EQ(result.error->code, ErrorCode::reload);
    EXPECT_EQ(result.error->reloadingError->safariError()->code, 3);
    EXPECT_FALSE(localVersion().has_value());
    EXPECT_EQ(notifications(), (std::vector<std::string>{available, started, failed}));
    EXPECT_TRUE(log_.contains("Error updating rules: busy"));
    EXPECT_FALSE(manager->isCurrentlyUpdating());
}

TEST_F(UpdateManagerTest, ASecondCheckWhileOneRunsGivesCurrentlyUpdatingAndChangesNothing) {
    server_->setPublicationDate(dayOf(9));
    server_->setFault(Endpoint::archive, Fault::noAnswer);
    auto manager = makeManager();

    std::optional<UpdateResult> first;
    manager->checkForUpdates(true, {}, [&](UpdateResult result) { first = result; });
    ASSERT_TRUE(tamsel::testing::waitUntil([&] { return server_->requestCount(Endpoint::archive) == 1; }));
    EXPECT_TRUE(manager->isCurrentlyUpdating());

    const UpdateResult second = check(*manager);
    EXPECT_EQ(second.kind, Kind::currentlyUpdating);
    EXPECT_TRUE(log_.contains("Already currently updating from cloud"));
    EXPECT_FALSE(first.has_value());
    EXPECT_TRUE(manager->isCurrentlyUpdating());
    EXPECT_EQ(server_->requestCount(Endpoint::metadata), 1u);

    server_->releaseHangingRequests();
    ASSERT_TRUE(platform::MainRunLoop::runUntil([&] { return first.has_value(); }, 30s));
    EXPECT_EQ(first->kind, Kind::error);
    EXPECT_FALSE(manager->isCurrentlyUpdating());
    EXPECT_FALSE(localVersion().has_value());
}

TEST_F(UpdateManagerTest, ChecksStartedFromManyThreadsAtOnceRunOneAtATime) {
    server_->setPublicationDate(dayOf(10));
    auto manager = makeManager();
    constexpr int checks = 8;
    std::atomic<int> delivered{0}, successes{0}, refused{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < checks; ++i) {
        threads.emplace_back([&] {
            manager->checkForUpdates(false, {}, [&](UpdateResult result) {
                if (result.kind == Kind::success) ++successes;
                if (result.kind == Kind::currentlyUpdating) ++refused;
                ++delivered;
            });
        });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(platform::MainRunLoop::runUntil([&] { return delivered == checks; }, 30s));
    EXPECT_EQ(successes, 1);
    EXPECT_EQ(refused, checks - 1);
    EXPECT_EQ(server_->requestCount(Endpoint::metadata), 1u);
    EXPECT_FALSE(manager->isCurrentlyUpdating());
}

TEST_F(UpdateManagerTest, ASecondInstallInTheSameProcessDownloadsNothing) {
    server_->setPublicationDate(dayOf(11));
    auto manager = makeManager();
    ASSERT_EQ(check(*manager).kind, Kind::success);

    server_->setPublicationDate(dayOf(12));
    EXPECT_EQ(check(*manager).kind, Kind::success);
    EXPECT_EQ(server_->requestCount(Endpoint::archive), 1u);
    EXPECT_EQ(localVersion(), versionOf(dayOf(12)));
    EXPECT_TRUE(log_.contains("Already downloaded filters from " + server_->baseURL() + "/v4/data.zip"));
}

TEST_F(UpdateManagerTest, TheLegacyCheckUsesTheArchiveLastModifiedHeader) {
    server_->setPublicationDate(dayOf(13));
    auto manager = makeManager(/*legacy=*/true);

    ASSERT_EQ(check(*manager).kind, Kind::success);
    EXPECT_EQ(localVersion(), "Wed, 13 Mar 2024 09:00:00 GMT");
    EXPECT_EQ(server_->requestCount(Endpoint::metadata), 0u);
    RuleArchive::resetAlreadyDownloaded();
    EXPECT_EQ(check(*manager).kind, Kind::noNewUpdates);
}

TEST_F(UpdateManagerTest, TheCheckPathAndServerComeFromSharedDefaults) {
    server_->setPublicationDate(dayOf(14));
    auto defaults = platform::SharedDefaults::shared();
    defaults->set(platform::Value(server_->baseURL() + "/"), "FilterServerBaseURL");
    defaults->set(platform::Value(true), "UseLegacyUpdateCheck");
    auto manager = UpdateManager::make({std::nullopt, std::nullopt, reloading_});

    ASSERT_EQ(check(*manager).kind, Kind::success);
    EXPECT_EQ(server_->requestCount(Endpoint::metadata), 0u);
    EXPECT_EQ(localVersion(), versionOf(dayOf(14)));
}

TEST_F(UpdateManagerTest, ACheckOutlivingItsManagerStillCompletes) {
    server_->setPublicationDate(dayOf(15));
    server_->setFault(Endpoint::metadata, Fault::noAnswer);
    auto manager = makeManager();
    std::optional<UpdateResult> result;
    manager->checkForUpdates(true, {}, [&](UpdateResult delivered) { result = delivered; });
    ASSERT_TRUE(tamsel::testing::waitUntil([&] { return server_->requestCount(Endpoint::metadata) == 1; }));
    manager.reset();
    server_->setFault(Endpoint::metadata, Fault::none);
    server_->releaseHangingRequests();
    ASSERT_TRUE(platform::MainRunLoop::runUntil([&] { return result.has_value(); }, 30s));
    EXPECT_EQ(result->kind, Kind::error);
    EXPECT_FALSE(localVersion().has_value());
}

// MARK: - Faults: each ends in an error, with the installed files, the
// recorded version and the folders as they were.

struct FaultCase {
    const char* name;
    Endpoint endpoint;
    Fault fault;
    bool legacy;
    ErrorCode code;
    const char* line;
    bool reachesInstall;  // the install began, so its failure is announced
};

void PrintTo(const FaultCase& faultCase, std::ostream* out) { *out << faultCase.name; }

class UpdateFaultTest : public UpdateManagerTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(UpdateFaultTest, EndsInAnErrorAndLeavesTheInstalledRulesAlone) {
    const FaultCase& faultCase = GetParam();
    installFirstVersion(dayOf(1));
    const auto filesBefore = installedFiles();

    server_->setPublicationDate(dayOf(2));
    server_->setFault(faultCase.endpoint, faultCase.fault);
    auto manager = makeManager(faultCase.legacy);
    letStalledRequestsTimeOut_ = true;
    const UpdateResult result = check(*manager);

    ASSERT_EQ(result.kind, Kind::error);
    EXPECT_EQ(result.error->code, faultCase.code) << result.error->description;
    EXPECT_TRUE(log_.contains(faultCase.line)) << ::testing::PrintToString(log_.messages());
    EXPECT_EQ(installedFiles(), filesBefore);
    EXPECT_EQ(localVersion(), versionOf(dayOf(1)));
    EXPECT_TRUE(strayFiles().empty()) << ::testing::PrintToString(strayFiles());
    EXPECT_FALSE(manager->isCurrentlyUpdating());
    EXPECT_FALSE(RuleArchive::isAlreadyDownloaded());
    EXPECT_TRUE(reloading_->requests().empty());
    if (faultCase.reachesInstall) {
        EXPECT_EQ(notifications(), (std::vector<std::string>{available, started, failed}));
        EXPECT_TRUE(log_.contains("Error updating rules: "));
    } else {
        EXPECT_TRUE(notifications().empty());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, UpdateFaultTest,
    ::testing::Values(
        FaultCase{"zipSlip", Endpoint::archive, Fault::zipSlipArchive, false, ErrorCode::unsafeEntry,
                  "Error unzipping file: ", true},
        FaultCase{"link", Endpoint::archive, Fault::symbolicLinkArchive, false, ErrorCode::unsafeEntry,
                  "Error unzipping file: ", true},
        FaultCase{"wrongPassword", Endpoint::archive, Fault::wrongPasswordArchive, false, ErrorCode::unzip,
                  "Error unzipping file: ", true},
        FaultCase{"truncated", Endpoint::archive, Fault::truncatedArchive, false, ErrorCode::unzip,
                  "Error unzipping file: ", true},
        FaultCase{"oversized", Endpoint::archive, Fault::oversizedArchive, false, ErrorCode::archiveTooLarge,
                  "Error unzipping file: ", true},
        FaultCase{"zipBomb", Endpoint::archive, Fault::zipBombArchive, false, ErrorCode::archiveTooLarge,
                  "Error unzipping file: The archive's block-ads.json unpacks to more than 64 MiB", true},
        // The manifest announced a small archive: the body is cut off just
        // past it.
        FaultCase{"endless", Endpoint::archive, Fault::endlessArchive, false, ErrorCode::downloadTooLarge,
                  "Error downloading file: The download is larger than the ", true},
        FaultCase{"archiveReset", Endpoint::archive, Fault::resetMidTransfer, false, ErrorCode::transport,
                  "Error downloading file: ", true},
        FaultCase{"archive404", Endpoint::archive, Fault::notFound, false, ErrorCode::httpStatus,
                  "Download status code: 404", true},
        FaultCase{"archive500", Endpoint::archive, Fault::serverError, false, ErrorCode::httpStatus,
                  "Error downloading file: The server answered with status 500", true},
        FaultCase{"archiveNoAnswer", Endpoint::archive, Fault::noAnswer, false, ErrorCode::transport,
                  "Error downloading file: The request timed out.", true},
        FaultCase{"manifestNotAPropertyList", Endpoint::metadata, Fault::notAPropertyList, false,
                  ErrorCode::manifestParsing, "Metadata manifest parsing failed. Error: ", false},
        FaultCase{"manifestReset", Endpoint::metadata, Fault::resetMidTransfer, false, ErrorCode::transport,
                  "Metadata download failed. Response: HTTP 200", false},
        FaultCase{"manifest404", Endpoint::metadata, Fault::notFound, false, ErrorCode::httpStatus,
                  "Metadata download failed. Response: HTTP 404", false},
        FaultCase{"manifest500", Endpoint::metadata, Fault::serverError, false, ErrorCode::httpStatus,
                  "Metadata download failed. Response: HTTP 500", false},
        FaultCase{"manifestNoAnswer", Endpoint::metadata, Fault::noAnswer, false, ErrorCode::transport,
                  "Metadata download failed. Response: nil, error: The request timed out.", false},
        FaultCase{"headNoAnswer", Endpoint::archive, Fault::noAnswer, true, ErrorCode::headerFieldsNotFound,
                  "Header fields were not found in cloud file", false},
        FaultCase{"headNoLastModified", Endpoint::archive, Fault::noLastModified, true,
                  ErrorCode::cloudVersionNotFound, "Cloud file version was not found", false},
        FaultCase{"head404", Endpoint::archive, Fault::notFound, true, ErrorCode::cloudVersionNotFound,
                  "Cloud file version was not found", false}),
    [](const ::testing::TestParamInfo<FaultCase>& info) { return std::string(info.param.name); });

// MARK: - What the archive holds

class ArchiveContentsTest : public UpdateManagerTest {
protected:
    // Publishes exactly `files` from now on.
    void publishOnly(const std::map<std::string, std::string>& files) {
        for (const auto& entry : fs::directory_iterator(published_.path())) fs::remove(entry.path());
        for (const auto& [name, bytes] : files) publish(name, bytes);
    }

    void expectRefusedKeepingEverything(ErrorCode code, const std::string& line) {
        const auto filesBefore = installedFiles();
        server_->setPublicationDate(dayOf(2));
        auto manager = makeManager();
        const UpdateResult result = check(*manager);
        ASSERT_EQ(result.kind, Kind::error);
        EXPECT_EQ(result.error->code, code) << result.error->description;
        EXPECT_TRUE(log_.contains(line)) << ::testing::PrintToString(log_.messages());
        EXPECT_EQ(installedFiles(), filesBefore);
        EXPECT_EQ(localVersion(), versionOf(dayOf(1)));
        EXPECT_TRUE(strayFiles().empty()) << ::testing::PrintToString(strayFiles());
        EXPECT_TRUE(reloading_->requests().empty());
        EXPECT_EQ(notifications(), (std::vector<std::string>{available, started, failed}));
        EXPECT_FALSE(RuleArchive::isAlreadyDownloaded());
    }

    const std::string usersConfigurable_ =
        R"([{"id":"whitelist","name":"Whitelist","rules":[{"id":"W1","name":"example.com","content":)"
        R"({"trigger":{"url-filter":".*","if-domain":["example.com"]},"action":{"type":"ignore-previous-rules"}}}]}])";
};

TEST_F(ArchiveContentsTest, AnArchiveOfTheUsersPackagesAloneChangesNothingAndKeepsTheVersion) {
    installFirstVersion(dayOf(1));
    ASSERT_TRUE(platform::writeFileAtomically(storage::PathProvider::filtersFolderURL() / "block-configurable.json",
                                              usersConfigurable_));
    publishOnly({{"block-configurable.json", "[]"}, {"block-custom.json", "[]"}});
    expectRefusedKeepingEverything(ErrorCode::noRuleFiles, "Kept the user's block-configurable.json");
    EXPECT_EQ(installedFiles().at("block-configurable.json"), usersConfigurable_);
    EXPECT_FALSE(installedFiles().contains("block-custom.json"));
}

TEST_F(ArchiveContentsTest, ANewRuleSetKeepsTheUsersConfigurablePackages) {
    installFirstVersion(dayOf(1));
    ASSERT_TRUE(platform::writeFileAtomically(storage::PathProvider::filtersFolderURL() / "block-configurable.json",
                                              usersConfigurable_));
    publish("block-configurable.json", "[]");
    server_->setPublicationDate(dayOf(2));
    auto manager = makeManager();

    ASSERT_EQ(check(*manager).kind, Kind::success);
    EXPECT_EQ(localVersion(), versionOf(dayOf(2)));
    EXPECT_EQ(installedFiles().at("block-configurable.json"), usersConfigurable_);
    EXPECT_EQ(installedFiles().at("block-ads.json"), R"({"id":"block-ads","name":"Ads v2","rules":[]})");
}

TEST_F(ArchiveContentsTest, APackageFileThatDoesNotDecodeRefusesTheUpdate) {
    installFirstVersion(dayOf(1));
    publish("block-ads.json", "<html><body>502 Bad Gateway</body></html>");
    expectRefusedKeepingEverything(ErrorCode::invalidPackageFile,
                                   "Error updating rules: The archive's block-ads.json is not a valid package file: ");

    // Once the server mends it, the update goes through.
    publish("block-ads.json", R"({"id":"block-ads","name":"Ads v3","rules":[]})");
    auto manager = makeManager();
    ASSERT_EQ(check(*manager).kind, Kind::success);
    EXPECT_EQ(localVersion(), versionOf(dayOf(2)));
    EXPECT_EQ(installedFiles().at("block-ads.json"), R"({"id":"block-ads","name":"Ads v3","rules":[]})");
}

TEST_F(ArchiveContentsTest, WithoutAnnouncedSizeTheAbsoluteLimitStopsAnEndlessBody) {
    installFirstVersion(dayOf(1));
    RuleArchive::setMaximumArchiveSize(2 << 20);
    server_->setFault(Endpoint::archive, Fault::endlessArchive);
    const auto filesBefore = installedFiles();
    server_->setPublicationDate(dayOf(2));
    // The legacy check reads no manifest, and an endless body announces no length.
    auto manager = makeManager(/*legacy=*/true);
    const UpdateResult result = check(*manager);
    ASSERT_EQ(result.kind, Kind::error);
    EXPECT_EQ(result.error->code, ErrorCode::downloadTooLarge) << result.error->description;
    EXPECT_EQ(result.error->description, "The download is larger than the 2097152 bytes allowed for it");
    EXPECT_EQ(installedFiles(), filesBefore);
    EXPECT_EQ(localVersion(), versionOf(dayOf(1)));
    EXPECT_TRUE(strayFiles().empty()) << ::testing::PrintToString(strayFiles());
}

TEST_F(ArchiveContentsTest, AnUpdateRemovesWhatKilledRunsLeftBehind) {
    // A killed download's partial file and archive, and a killed unpack's
    // staging folder.
    const fs::path downloads = RuleArchive::downloadDirectory();
    fs::create_directories(downloads);
    ASSERT_TRUE(platform::writeFileAtomically(downloads / ".data.zip.download-Xy12ab", std::string(4096, 'z')));
    ASSERT_TRUE(platform::writeFileAtomically(downloads / "data.zip", "an old archive"));
    const fs::path staging = storage::PathProvider::applicationSupportURL() / ".Filters.unpacking-Q1w2e3";
    fs::create_directories(staging / "unpacked");
    ASSERT_TRUE(platform::writeFileAtomically(staging / "unpacked" / "block-ads.json", "half a file"));
    ASSERT_EQ(strayFiles().size(), 3u);

    server_->setPublicationDate(dayOf(3));
    auto manager = makeManager();
    ASSERT_EQ(check(*manager).kind, Kind::success);
    EXPECT_TRUE(strayFiles().empty()) << ::testing::PrintToString(strayFiles());
    EXPECT_TRUE(log_.contains("Removed 2 leftovers of earlier downloads from " + downloads.string()));
}

// A loopback port that refuses connections while the object lives: bound,
// so that no other process can take it, and never listening.
class RefusingPort {
public:
    RefusingPort() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            return;
        }
        port_ = ntohs(address.sin_port);
    }
    ~RefusingPort() {
        if (fd_ >= 0) ::close(fd_);
    }
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;

    std::uint16_t port() const { return port_; }

private:
    int fd_;
    std::uint16_t port_ = 0;
};

TEST_F(UpdateManagerTest, ARefusedConnectionEndsTheCheckWithAnError) {
    const RefusingPort refusing;
    ASSERT_NE(refusing.port(), 0);
    for (const bool legacy : {false, true}) {
        SCOPED_TRACE(legacy ? "legacy" : "manifest");
        auto manager =
            UpdateManager::make({"http://127.0.0.1:" + std::to_string(refusing.port()), legacy, reloading_});
        const UpdateResult result = check(*manager);
        ASSERT_EQ(result.kind, Kind::error);
        EXPECT_EQ(result.error->code, legacy ? ErrorCode::headerFieldsNotFound : ErrorCode::transport);
        EXPECT_FALSE(manager->isCurrentlyUpdating());
    }
    EXPECT_TRUE(log_.contains("Metadata download failed. Response: nil, error: "));
    EXPECT_TRUE(log_.contains("Header fields were not found in cloud file"));
    EXPECT_TRUE(notifications().empty());
}

// A stopped server must really stop, however soon after its start.
TEST(FilterServerTest, StopsRightAfterStarting) {
    tamsel::testing::TemporaryDirectory root;
    ASSERT_TRUE(platform::writeFileAtomically(root / "block-ads.json", "{}").has_value());
    for (int i = 0; i < 20; ++i) {
        FilterServer server({root.path()});
        ASSERT_TRUE(server.start().has_value());
        server.stop();
    }
}

// MARK: - The background-assets side's archive and the package reader's seam

TEST_F(UpdateManagerTest, InstallsTheArchiveTheBackgroundSideLeft) {
    const auto archive = server_->publication();
    ASSERT_TRUE(archive.has_value()) << archive.error();
    fs::create_directories(storage::PathProvider::cachesURL());
    ASSERT_TRUE(platform::writeFileAtomically(storage::PathProvider::downloadedArchiveURL(), *archive->archive));
    ASSERT_TRUE(RuleArchive::isDownloadedFiltersZipArchiveExistLocally());
    UpdateManager::setDownloadedFiltersDate(dayOf(16));

    ASSERT_TRUE(RuleArchive::unzipArchiveAndCopyDownloadedFilters().has_value());
    EXPECT_EQ(localVersion(), versionOf(dayOf(16)));
    EXPECT_TRUE(installedFiles().contains("block-ads.json"));
    EXPECT_FALSE(RuleArchive::isDownloadedFiltersZipArchiveExistLocally());
    EXPECT_FALSE(UpdateManager::downloadedFiltersDate().has_value());
    EXPECT_TRUE(log_.contains("Will use filters from Background Extension: version \"Sat, 16 Mar 2024 09:00:00 GMT\""));
}

TEST_F(UpdateManagerTest, ABadArchiveFromTheBackgroundSideIsDeletedAndChangesNothing) {
    fs::create_directories(storage::PathProvider::cachesURL());
    ASSERT_TRUE(platform::writeFileAtomically(storage::PathProvider::downloadedArchiveURL(), "not a zip"));
    platform::SharedDefaults::shared()->set(platform::Value("Fri, 01 Mar 2024 09:00:00 GMT"), "localVersion");
    UpdateManager::setDownloadedFiltersDate(dayOf(16));

    EXPECT_FALSE(RuleArchive::unzipArchiveAndCopyDownloadedFilters().has_value());
    EXPECT_EQ(localVersion(), "Fri, 01 Mar 2024 09:00:00 GMT");
    EXPECT_FALSE(RuleArchive::isDownloadedFiltersZipArchiveExistLocally());
    EXPECT_FALSE(UpdateManager::downloadedFiltersDate().has_value());
    EXPECT_TRUE(log_.contains("Failed to unzip data.zip from Background Extension: "));
}

TEST_F(UpdateManagerTest, ThePackageReadersRequestsShareOneDownload) {
    platform::SharedDefaults::shared()->set(platform::Value(server_->baseURL()), "FilterServerBaseURL");
    server_->setFault(Endpoint::archive, Fault::noAnswer);
    installArchiveDownloader();
    struct Uninstall {
        ~Uninstall() { storage::FilterArchiveDownloading::setShared(nullptr); }
    } uninstall;
    auto downloading = storage::FilterArchiveDownloading::shared();

    constexpr int readers = 6;
    std::atomic<int> downloaded{0}, answered{0};
    for (int i = 0; i < readers; ++i) {
        downloading->downloadZippedRules(RuleArchive::downloadIdentifier, [&](bool ok) {
            if (ok) ++downloaded;
            ++answered;
        });
    }
    ASSERT_TRUE(tamsel::testing::waitUntil([&] { return server_->requestCount(Endpoint::archive) == 1; }));
    server_->setFault(Endpoint::archive, Fault::none);
    server_->releaseHangingRequests();
    ASSERT_TRUE(tamsel::testing::waitUntil([&] { return answered == readers; }));
    EXPECT_EQ(downloaded, 0);  // the held request was answered with 503

    // The next request downloads; once that has been unpacked, later
    // requests are answered at once, without a request to the server.
    std::atomic<int> next{-1};
    downloading->downloadZippedRules(RuleArchive::downloadIdentifier, [&](bool ok) { next = ok ? 1 : 0; });
    ASSERT_TRUE(tamsel::testing::waitUntil([&] { return next != -1; }));
    EXPECT_EQ(next, 1);
    EXPECT_TRUE(installedFiles().contains("block-trackers.json"));
    next = -1;
    downloading->downloadZippedRules(RuleArchive::downloadIdentifier, [&](bool ok) { next = ok ? 1 : 0; });
    EXPECT_EQ(next, 1);
    EXPECT_EQ(server_->requestCount(Endpoint::archive), 2u);
    EXPECT_TRUE(log_.contains("Already downloaded filters from "));
}

}  // namespace
}  // namespace tamsel::updates::testing
