// A process killed in the middle of a push: the server holds the whole batch
// or none of it, the changes still wait on disk, and the next process ends
// with everything on the server and nothing waiting.
#include <csignal>
#include <thread>
#include <unistd.h>

#include "sync/SyncFixture.h"

namespace tamsel::sync::testing {
namespace {

using ::testing::AnyOf;
using ::testing::SizeIs;

// Pushes the data root's custom packages, then dies while the push is held
// by the server. Arguments: the server's address and the user's token.
TAMSEL_CHILD_ENTRY(pushThenDie) {
    const std::string url = arguments.at(0);
    const std::string token = arguments.at(1);
    platform::CKTransport::Configuration transport;
    transport.containerIdentifier = std::string("iCloud.") + build::baseIdentifier;
    transport.account = [url, token] { return std::optional(platform::CloudAccount{url, "A", token}); };
    transport.deviceID = "device-A";
    SyncManager::Configuration configuration;
    configuration.container = platform::CKContainer::make(std::move(transport));
    configuration.standardDefaults = platform::Defaults::standard();
    configuration.sharedDefaults = platform::SharedDefaults::shared();
    configuration.ubiquitousStore = platform::UserDefaults::open(platform::DataRoot::cloudDirectory(), "ubiquitous");
    configuration.reloading = std::make_shared<storage::RecordingExtensionReloading>();
    configuration.observeNotifications = false;
    auto manager = SyncManager::create(std::move(configuration));
    control::DataManager::shared().refreshUserPackagesFromDisk();
    manager->update(control::DataManager::shared().customPackages());
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    ::kill(::getpid(), SIGKILL);
    return 1;
}

class InterruptedSyncTest : public SyncTest {
protected:
    tamsel::testing::LogCapture log_;
};

TEST_F(InterruptedSyncTest, AKilledPushLeavesNoHalfBatchAndTheNextProcessFinishesIt) {
    auto a = makeMachine("A", aliceToken_);
    givePackages(*a, {model::Package("mine", "Mine", {hideRule("R1", "Banner", ".banner"), blockRule("R2", "ads"),
                                                       blockRule("R3", "more-ads")})});
    cloud::FaultRule slow;
    slow.endpoint = "records/modify";
    slow.delay = std::chrono::milliseconds(1500);
    server_->faults().add(slow);

    use(*a);
    EXPECT_EQ(tamsel::testing::runChildEntry("pushThenDie", {server_->baseURL(), aliceToken_}), 128 + SIGKILL);
    // The server serves the held request after the delay, whoever waits for it.
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_THAT(serverRecords(aliceToken_), AnyOf(SizeIs(0), SizeIs(4)));
    EXPECT_EQ(a->sync->localChanges().changes().count(), 4u);  // never confirmed

    startSync(*a);
    EXPECT_TRUE(a->sync->localChanges().changes().empty());
    EXPECT_THAT(serverRecords(aliceToken_), SizeIs(4));
}

}  // namespace
}  // namespace tamsel::sync::testing
