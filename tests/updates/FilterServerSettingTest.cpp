// The filter server's address is a setting with no default: with none stored,
// neither an update check nor the package reader's downloader asks anything
// of the network; with one stored, both go to it.
#include "UpdatesFixture.h"

#include "storage/FilterArchiveDownloading.h"
#include "updates/UpdateSettings.h"

namespace tamsel::updates::testing {
namespace {

using Endpoint = FilterServer::Endpoint;

class FilterServerSettingTest : public UpdatesFixture {
protected:
    void TearDown() override {
        storage::FilterArchiveDownloading::setShared(nullptr);
        UpdatesFixture::TearDown();
    }
};

TEST_F(FilterServerSettingTest, NoAddressIsStoredUntilOneIsAndAnEmptyTextIsNone) {
    EXPECT_FALSE(UpdateSettings::filterServerBaseURL());
    platform::SharedDefaults::shared()->set(platform::Value(std::string()), UpdateSettings::filterServerBaseURLKey);
    EXPECT_FALSE(UpdateSettings::filterServerBaseURL());
    platform::SharedDefaults::shared()->set(platform::Value(server_->baseURL()), UpdateSettings::filterServerBaseURLKey);
    EXPECT_EQ(UpdateSettings::filterServerBaseURL(), server_->baseURL());
}

TEST_F(FilterServerSettingTest, WithNoAddressACheckFailsAtOnceAndAsksNothing) {
    auto manager = UpdateManager::make({std::nullopt, std::nullopt, nullptr});
    const UpdateResult result = check(*manager, false);
    ASSERT_EQ(result.kind, UpdateResult::Kind::error);
    EXPECT_EQ(result.error->code, ErrorCode::noFilterServer);
    EXPECT_FALSE(manager->isCurrentlyUpdating());
    EXPECT_EQ(server_->requestCount(Endpoint::metadata), 0u);
    EXPECT_EQ(server_->requestCount(Endpoint::archive), 0u);

    // Once an address is stored, the same manager goes to it.
    platform::SharedDefaults::shared()->set(platform::Value(server_->baseURL()), UpdateSettings::filterServerBaseURLKey);
    EXPECT_EQ(check(*manager, false).kind, UpdateResult::Kind::success);
    EXPECT_EQ(server_->requestCount(Endpoint::metadata), 1u);
}

TEST_F(FilterServerSettingTest, WithNoAddressTheReadersDownloaderAnswersNothingAtOnce) {
    installArchiveDownloader();
    std::optional<bool> downloaded;
    storage::FilterArchiveDownloading::shared()->downloadZippedRules(RuleArchive::downloadIdentifier,
                                                                     [&](bool ok) { downloaded = ok; });
    // Answered on the calling thread, before any request could have been made.
    EXPECT_EQ(downloaded, false);
    EXPECT_EQ(server_->requestCount(Endpoint::archive), 0u);
    EXPECT_TRUE(log_.contains("No filter server configured; not downloading filters"));
}

}  // namespace
}  // namespace tamsel::updates::testing
