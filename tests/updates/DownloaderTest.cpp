#include "UpdatesFixture.h"
#include "updates/BackgroundDownloadManager.h"
#include "platform/HTTPClient.h"
#include "updates/UpdateError.h"
#include "updates/VersionDateFormatter.h"

namespace tamsel::updates::testing {
namespace {

using Endpoint = FilterServer::Endpoint;
using Fault = FilterServer::Fault;
using DownloadResult = Downloader::DownloadResult;

class DownloaderTest : public UpdatesFixture {
protected:
    std::string archiveURL() const { return server_->baseURL() + "/v4/data.zip"; }

    DownloadResult download(const fs::path& destination, std::vector<double>* fractions = nullptr,
                            std::uint64_t maximumSize = Downloader::defaultMaximumSize) {
        std::optional<DownloadResult> result;
        std::mutex mutex;
        Downloader::downloadUsingURLSession(
            archiveURL(), destination,
            [&](double fraction) {
                std::lock_guard lock(mutex);
                if (fractions) fractions->push_back(fraction);
            },
            [&](DownloadResult delivered) {
                std::lock_guard lock(mutex);
                result = delivered;
            },
            maximumSize);
        EXPECT_TRUE(tamsel::testing::waitUntil(
            [&] {
                timeOutHeldRequests();
                std::lock_guard lock(mutex);
                return result.has_value();
            },
            std::chrono::seconds(30)));
        std::lock_guard lock(mutex);
        return result.value_or(DownloadResult::failure(std::nullopt));
    }

    std::vector<std::string> folderNames() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(target_.path())) names.push_back(entry.path().filename());
        return names;
    }

    TemporaryDirectory target_;
};

TEST_F(DownloaderTest, ReplacesTheDestinationWithTheWholeBody) {
    const fs::path destination = target_ / "data.zip";
    ASSERT_TRUE(platform::writeFileAtomically(destination, "previous archive"));
    std::vector<double> fractions;

    const DownloadResult result = download(destination, &fractions);
    ASSERT_TRUE(result.isSuccess()) << result.error->description;
    EXPECT_EQ(platform::readFile(destination).value(), *server_->publication()->archive);
    EXPECT_EQ(folderNames(), std::vector<std::string>{"data.zip"});
    ASSERT_FALSE(fractions.empty());
    EXPECT_DOUBLE_EQ(fractions.back(), 1.0);
    EXPECT_TRUE(log_.contains("Downloading file using URLSession from " + archiveURL()));
    EXPECT_TRUE(log_.contains("Download status code: 200"));
}

TEST_F(DownloaderTest, AFailedDownloadLeavesTheDestinationAndNoTemporaryFile) {
    letStalledRequestsTimeOut_ = true;
    const fs::path destination = target_ / "data.zip";
    ASSERT_TRUE(platform::writeFileAtomically(destination, "previous archive"));
    for (Fault fault : {Fault::notFound, Fault::serverError, Fault::resetMidTransfer, Fault::noAnswer}) {
        SCOPED_TRACE(std::string(model::rawValue(fault)));
        server_->setFault(Endpoint::archive, fault);
        const DownloadResult result = download(destination);
        ASSERT_FALSE(result.isSuccess());
        ASSERT_TRUE(result.error.has_value());
        if (fault == Fault::notFound || fault == Fault::serverError) {
            EXPECT_EQ(result.error->code, ErrorCode::httpStatus);
            EXPECT_EQ(result.error->httpStatus, fault == Fault::notFound ? 404 : 500);
        } else {
            EXPECT_EQ(result.error->code, ErrorCode::transport);
        }
        EXPECT_EQ(platform::readFile(destination).value(), "previous archive");
        EXPECT_EQ(folderNames(), std::vector<std::string>{"data.zip"});
    }
}

TEST_F(DownloaderTest, ABodyOverTheLimitIsRefusedAndLeavesNothing) {
    const fs::path destination = target_ / "data.zip";
    ASSERT_TRUE(platform::writeFileAtomically(destination, "previous archive"));
    const std::uint64_t size = server_->publication()->archive->size();

    // The announced length is over the limit: refused before the body.
    DownloadResult result = download(destination, nullptr, size - 1);
    ASSERT_FALSE(result.isSuccess());
    EXPECT_EQ(result.error->code, ErrorCode::downloadTooLarge) << result.error->description;
    EXPECT_EQ(result.error->description,
              "The download is larger than the " + std::to_string(size - 1) + " bytes allowed for it");

    // No length announced, and no end: cut off at the limit.
    server_->setFault(Endpoint::archive, Fault::endlessArchive);
    result = download(destination, nullptr, 1 << 20);
    ASSERT_FALSE(result.isSuccess());
    EXPECT_EQ(result.error->code, ErrorCode::downloadTooLarge) << result.error->description;
    EXPECT_EQ(platform::readFile(destination).value(), "previous archive");
    EXPECT_EQ(folderNames(), std::vector<std::string>{"data.zip"});
    EXPECT_TRUE(log_.contains("Error downloading file: The download is larger than the 1048576 bytes allowed for it"));

    // Exactly at the limit is fine.
    server_->setFault(Endpoint::archive, Fault::none);
    result = download(destination, nullptr, size);
    EXPECT_TRUE(result.isSuccess()) << result.error->description;
}

// A body that keeps coming, too slowly to be a download: cut off by the
// total time-out, or by the low-speed limit over one request time-out. Real
// time, bounded by the short limits.
TEST_F(DownloaderTest, ATrickleIsCutOffByTheTotalTimeOutAndByTheLowSpeedLimit) {
    const fs::path destination = target_ / "data.zip";
    server_->setFault(Endpoint::archive, Fault::trickleArchive);
    for (const bool total : {true, false}) {
        SCOPED_TRACE(total ? "total" : "low speed");
        if (total) {
            Downloader::setTotalTimeout(std::chrono::milliseconds(1500));
        } else {
            Downloader::setTotalTimeout(std::chrono::minutes(15));
            Downloader::setRequestTimeout(std::chrono::seconds(1));
        }
        const auto start = std::chrono::steady_clock::now();
        const DownloadResult result = download(destination);
        const auto took = std::chrono::steady_clock::now() - start;
        ASSERT_FALSE(result.isSuccess());
        EXPECT_EQ(result.error->code, ErrorCode::transport);
        EXPECT_TRUE(result.error->description.starts_with("The request timed out.")) << result.error->description;
        EXPECT_LT(took, std::chrono::seconds(10));
        EXPECT_FALSE(fs::exists(destination));
        EXPECT_TRUE(folderNames().empty());
    }
}

TEST_F(DownloaderTest, AMissingDestinationFolderIsAWriteError) {
    const fs::path destination = target_ / "missing" / "data.zip";
    const DownloadResult result = download(destination);
    ASSERT_FALSE(result.isSuccess());
    EXPECT_EQ(result.error->code, ErrorCode::fileSystem);
    EXPECT_TRUE(log_.contains("Error writing file " + destination.string() + ": "));
}

TEST_F(DownloaderTest, OutsideTheHostApplicationTheURLSessionPathIsTaken) {
    std::optional<DownloadResult> result;
    std::mutex mutex;
    Downloader::download(archiveURL(), target_ / "data.zip", RuleArchive::downloadIdentifier, {},
                         [&](DownloadResult delivered) {
                             std::lock_guard lock(mutex);
                             result = delivered;
                         });
    ASSERT_TRUE(tamsel::testing::waitUntil([&] {
        std::lock_guard lock(mutex);
        return result.has_value();
    }));
    EXPECT_TRUE(result->isSuccess());
    EXPECT_TRUE(log_.contains("Not allowed to use the Background Extension API, so will use the old loading function."));
    EXPECT_FALSE(Downloader::hasDownloadInFlight());
}

// MARK: - The background-assets seam

class FakeManager : public BackgroundDownloadManager {
public:
    void setDelegate(std::shared_ptr<Downloader::DownloadManagerDelegate> delegate) override { delegate_ = delegate; }
    void performWithExclusiveControl(std::function<void(std::optional<Error>)> body) override {
        body(grantControl ? std::nullopt : std::optional(Error::make(ErrorCode::backgroundAssets, "locked")));
    }
    std::vector<Download> currentDownloads() override { return downloads; }
    std::optional<Error> startForegroundDownload(const std::string& url, const std::string& identifier) override {
        started.push_back(url + " " + identifier);
        return startError;
    }

    bool grantControl = true;
    std::vector<Download> downloads;
    std::optional<Error> startError;
    std::vector<std::string> started;
    std::shared_ptr<Downloader::DownloadManagerDelegate> delegate_;
};

class BackgroundAssetsTest : public DownloaderTest {
protected:
    void SetUp() override {
        DownloaderTest::SetUp();
        settings::App::setIsMacMainApp(true);
        BackgroundDownloadManager::setShared(manager_);
    }
    void TearDown() override {
        BackgroundDownloadManager::setShared(nullptr);
        settings::App::setIsMacMainApp(false);
        DownloaderTest::TearDown();
    }

    void start() {
        Downloader::download(archiveURL(), target_ / "data.zip", "Background-Download-Filters",
                             [this](double fraction) { fractions_.push_back(fraction); },
                             [this](DownloadResult result) { results_.push_back(result); });
    }

    std::shared_ptr<FakeManager> manager_ = std::make_shared<FakeManager>();
    std::vector<double> fractions_;
    std::vector<DownloadResult> results_;
};

TEST_F(BackgroundAssetsTest, AStartedDownloadFinishesThroughTheDelegate) {
    start();
    ASSERT_EQ(manager_->started, std::vector<std::string>{archiveURL() + " Background-Download-Filters"});
    EXPECT_TRUE(log_.contains("Downloading file using BADownloadManager from " + archiveURL()));
    ASSERT_TRUE(manager_->delegate_);
    EXPECT_TRUE(results_.empty());

    manager_->delegate_->didWriteBytes("Background-Download-Filters", 50, 200);
    EXPECT_EQ(fractions_, std::vector<double>{0.25});

    // Another download's file is not ours to move.
    const fs::path stranger = target_ / "stranger.zip";
    ASSERT_TRUE(platform::writeFileAtomically(stranger, "other"));
    manager_->delegate_->didFinish("Someone-Else", stranger);
    EXPECT_TRUE(log_.contains("Unknown download: Someone-Else"));
    EXPECT_TRUE(fs::exists(stranger));
    EXPECT_TRUE(results_.empty());
    EXPECT_TRUE(Downloader::hasDownloadInFlight());

    const fs::path received = target_ / "received.zip";
    ASSERT_TRUE(platform::writeFileAtomically(received, "archive bytes"));
    manager_->delegate_->didFinish("Background-Download-Filters", received);
    ASSERT_EQ(results_.size(), 1u);
    EXPECT_TRUE(results_[0].isSuccess());
    EXPECT_EQ(platform::readFile(target_ / "data.zip").value(), "archive bytes");
    EXPECT_FALSE(Downloader::hasDownloadInFlight());
}

TEST_F(BackgroundAssetsTest, RefusalsAndFailuresComplete) {
    manager_->grantControl = false;
    start();
    ASSERT_EQ(results_.size(), 1u);
    EXPECT_FALSE(results_[0].isSuccess());
    EXPECT_TRUE(log_.contains("Failed to acquire lock: locked"));

    manager_->grantControl = true;
    manager_->downloads = {{"Background-Download-Filters", true}};
    start();
    ASSERT_EQ(results_.size(), 2u);
    EXPECT_TRUE(log_.contains("Download for Background-Download-Filters is in the failed state."));
    EXPECT_TRUE(manager_->started.empty());

    manager_->downloads.clear();
    manager_->startError = Error::make(ErrorCode::backgroundAssets, "quota");
    start();
    ASSERT_EQ(results_.size(), 3u);
    EXPECT_TRUE(log_.contains("Failed to start download for " + archiveURL() + ": quota"));

    manager_->startError.reset();
    start();
    manager_->delegate_->didFail("Background-Download-Filters", false, Error::make(ErrorCode::backgroundAssets, "x"));
    EXPECT_TRUE(log_.contains("Download of unsupported type failed: Background-Download-Filters. x"));
    EXPECT_EQ(results_.size(), 3u);
    manager_->delegate_->didFail("Background-Download-Filters", true, Error::make(ErrorCode::backgroundAssets, "gone"));
    ASSERT_EQ(results_.size(), 4u);
    EXPECT_EQ(results_[3].error->description, "gone");
    EXPECT_TRUE(log_.contains("Download failed: gone"));
}

TEST_F(BackgroundAssetsTest, WithoutAManagerTheHostFallsBackToTheURLSession) {
    BackgroundDownloadManager::setShared(nullptr);
    std::atomic<bool> done{false};
    Downloader::download(archiveURL(), target_ / "data.zip", "Background-Download-Filters", {},
                         [&](DownloadResult result) {
                             EXPECT_TRUE(result.isSuccess());
                             done = true;
                         });
    ASSERT_TRUE(tamsel::testing::waitUntil([&] { return done.load(); }));
    EXPECT_FALSE(log_.contains("Not allowed to use the Background Extension API"));
    EXPECT_TRUE(log_.contains("Downloading file using URLSession from "));
}

TEST_F(BackgroundAssetsTest, AFinishedFileOverTheLimitIsNotMoved) {
    Downloader::download(archiveURL(), target_ / "data.zip", "Background-Download-Filters", {},
                         [this](DownloadResult result) { results_.push_back(result); }, 8);
    const fs::path received = target_ / "received.zip";
    ASSERT_TRUE(platform::writeFileAtomically(received, "nine bytes"));
    manager_->delegate_->didFinish("Background-Download-Filters", received);
    ASSERT_EQ(results_.size(), 1u);
    EXPECT_EQ(results_[0].error->code, ErrorCode::downloadTooLarge);
    EXPECT_FALSE(fs::exists(target_ / "data.zip"));
    EXPECT_FALSE(fs::exists(received));
}

// MARK: - The filter server itself

TEST_F(DownloaderTest, TheServerRepacksWhenItsFilesChange) {
    auto first = server_->publication();
    ASSERT_TRUE(first.has_value()) << first.error();
    auto fetched = HTTPClient::fetch({server_->baseURL() + "/v4/metadata", HTTPRequest::Method::get, std::chrono::seconds(10), {}});
    ASSERT_TRUE(fetched.has_value());
    auto manifest = MetadataManifest::decode(fetched->second);
    ASSERT_TRUE(manifest.has_value()) << manifest.error();
    EXPECT_EQ(*manifest, first->manifest);
    EXPECT_EQ(manifest->size, static_cast<std::int64_t>(first->archive->size()));

    publish("block-ads.json", R"({"id":"block-ads","name":"Changed","rules":[]})");
    const auto later = fs::file_time_type::clock::now() + std::chrono::hours(1);
    fs::last_write_time(published_ / "block-ads.json", later);
    auto second = server_->publication();
    ASSERT_TRUE(second.has_value());
    EXPECT_NE(second->manifest.id, first->manifest.id);
    EXPECT_GT(second->manifest.date, first->manifest.date);
    EXPECT_NE(*second->archive, *first->archive);
}

TEST_F(DownloaderTest, TheArchiveAnswersHEADWithItsDateAndLength) {
    server_->setPublicationDate(VersionDateFormatter().date("Tue, 05 Mar 2024 12:34:56 GMT"));
    std::string body;
    auto response = HTTPClient::perform({server_->baseURL() + "/v4/data.zip", HTTPRequest::Method::head, std::chrono::seconds(10), {}},
                                        [&](std::string_view chunk) {
                                            body.append(chunk);
                                            return true;
                                        });
    ASSERT_TRUE(response.has_value()) << response.error().description;
    EXPECT_EQ(response->status, 200);
    EXPECT_EQ(response->header("last-modified"), "Tue, 05 Mar 2024 12:34:56 GMT");
    EXPECT_EQ(response->header("Content-Length"), std::to_string(server_->publication()->archive->size()));
    EXPECT_TRUE(body.empty());
}

}  // namespace
}  // namespace tamsel::updates::testing
