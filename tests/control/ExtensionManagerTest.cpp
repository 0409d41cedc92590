#include "control/ExtensionManager.h"

#include "FakeSafari.h"
#include "control/DataManager.h"
#include "model/JSONCoding.h"
#include "platform/Files.h"
#include "platform/LocalContentBlockerManager.h"
#include "platform/MainRunLoop.h"
#include "platform/NotificationCenter.h"
#include "settings/App.h"
#include "settings/MainApp.h"
#include "settings/NotificationNames.h"
#include "storage/PathProvider.h"
#include "storage/RebuildLedger.h"
#include "support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>

namespace tamsel::control {
namespace {

using model::ExtensionType;
using model::Package;
using model::Rule;
using storage::ReloadingResult;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;
using namespace std::chrono_literals;
namespace Names = settings::NotificationNames;

Rule blockRule(const std::string& id, const std::string& filter) {
    model::Blocker blocker;
    blocker.trigger.urlFilter = filter;
    return Rule(id, id, blocker);
}

std::vector<Package> generalPackages() {
    std::vector<Package> packages;
    for (ExtensionType type : model::allCases<ExtensionType>()) {
        if (type == ExtensionType::regionalRules || type == ExtensionType::customRules) continue;
        const std::string id(model::rawValue(type));
        packages.emplace_back(id, id, std::vector<Rule>{blockRule(id + "-1", id)});
    }
    return packages;
}

// Makes this process the toolbar extension (true) or the host application
// (false) while it lives.
class ProcessKind {
public:
    explicit ProcessKind(bool toolbarExtension)
        : wasToolbar_(settings::App::isMacButtonExtension()), wasHost_(settings::App::isMacMainApp()) {
        settings::App::setIsMacButtonExtension(toolbarExtension);
        settings::App::setIsMacMainApp(!toolbarExtension);
    }
    ~ProcessKind() {
        settings::App::setIsMacButtonExtension(wasToolbar_);
        settings::App::setIsMacMainApp(wasHost_);
    }

private:
    bool wasToolbar_;
    bool wasHost_;
};

class ExtensionManagerTest : public ::testing::Test {
protected:
    ExtensionManagerTest() {
        data.setGeneralPackages(generalPackages());
        data.setInternationalPackages({Package("de", "German", {blockRule("de-1", "regional")})});
        data.setConfigurablePackages({Package("block-url", "Block URLs", {blockRule("url-1", "blocked-url")})});
        data.setCustomPackages({Package("mine", "Mine", {blockRule("mine-1", "mine")})});
    }

    std::shared_ptr<ExtensionManager> makeManager(
        std::shared_ptr<platform::ContentBlockerManager> safariManager,
        std::function<void(ExtensionType, bool)> saveObserver = {}) {
        ExtensionManager::Configuration configuration;
        configuration.saveObserver = std::move(saveObserver);
        configuration.dataManager = &data;
        configuration.contentBlockers = std::move(safariManager);
        configuration.scheduleAfter = [this](std::chrono::steady_clock::duration delay, std::function<void()> block) {
            {
                std::lock_guard lock(mutex);
                delays.push_back(delay);
            }
            platform::DispatchQueue::global().async(std::move(block));
        };
        return ExtensionManager::create(std::move(configuration));
    }

    // Runs the main queue until `result` is set and the manager is idle.
    void settle(ExtensionManager& manager, const std::optional<ReloadingResult>& result) {
        ASSERT_TRUE(platform::MainRunLoop::runUntil([&] { return result.has_value() && manager.isIdle(); }, 20s));
        manager.waitUntilIdle(5s);
    }

    std::vector<std::chrono::steady_clock::duration> recordedDelays() {
        std::lock_guard lock(mutex);
        return delays;
    }

    tamsel::testing::ScopedDataRoot root;
    tamsel::testing::LogCapture log;
    ProcessKind kind{true};
    DataManager data;
    std::shared_ptr<tamsel::testing::FakeSafari> safari = std::make_shared<tamsel::testing::FakeSafari>();
    std::mutex mutex;
    std::vector<std::chrono::steady_clock::duration> delays;
};

std::string id(ExtensionType type) { return ExtensionManager::extensionID(type); }

TEST_F(ExtensionManagerTest, IdentifiersMapBothWays) {
    for (ExtensionType type : model::allCases<ExtensionType>()) {
        EXPECT_EQ(ExtensionManager::extensionType(ExtensionManager::extensionID(type)), type);
    }
    EXPECT_EQ(ExtensionManager::extensionID(ExtensionType::regionalRules).substr(
                  ExtensionManager::extensionID(ExtensionType::regionalRules).rfind('.')),
              ".MacBlockInternationalExtension");
    EXPECT_FALSE(ExtensionManager::extensionType("com.example.Other"));
}

TEST_F(ExtensionManagerTest, RandomFailuresAreRetriedTenTimesThreeSecondsApartThenFail) {
    auto manager = makeManager(safari);
    safari->failNext(id(ExtensionType::blockAds), 3, 11);
    std::optional<ReloadingResult> result;
    manager->saveToJSONAndReload(ExtensionType::blockAds, false, [&](ReloadingResult r) { result = r; });
    settle(*manager, result);

    ASSERT_FALSE(*result);
    ASSERT_TRUE(result->error().safariError());
    EXPECT_EQ(result->error().safariError()->code, 3);
    EXPECT_EQ(safari->reloadCount(id(ExtensionType::blockAds)), 11);
    EXPECT_EQ(recordedDelays(), std::vector<std::chrono::steady_clock::duration>(10, 3000ms));
    EXPECT_TRUE(log.contains("Trying to reload \"" + model::localizedName(ExtensionType::blockAds) +
                             "\" again: attempts 10/10"));
    EXPECT_FALSE(log.contains("attempts 11/10"));
    EXPECT_TRUE(log.contains("❌ Error reloading \"" + model::localizedName(ExtensionType::blockAds) +
                             "\" Safari JSON: Failure 3"));
}

TEST_F(ExtensionManagerTest, ARandomFailureThatClearsUpEndsInSuccess) {
    auto manager = makeManager(safari);
    safari->failNext(id(ExtensionType::blockAds), 4097, 2);
    std::optional<ReloadingResult> result;
    manager->saveToJSONAndReload(ExtensionType::blockAds, false, [&](ReloadingResult r) { result = r; });
    settle(*manager, result);
    EXPECT_TRUE(*result);
    EXPECT_EQ(safari->reloadCount(id(ExtensionType::blockAds)), 3);
    EXPECT_EQ(recordedDelays().size(), 2u);
    EXPECT_TRUE(log.contains("⚠️ Couldn't reload \"" + model::localizedName(ExtensionType::blockAds) +
                             "\" - Safari randomly returned error: Failure 4097 (4097)"));
}

TEST_F(ExtensionManagerTest, OtherErrorsEndAtOnce) {
    auto manager = makeManager(safari);
    safari->failNext(id(ExtensionType::blockAds), 2, 1);
    std::optional<ReloadingResult> result;
    manager->saveToJSONAndReload(ExtensionType::blockAds, false, [&](ReloadingResult r) { result = r; });
    settle(*manager, result);
    ASSERT_FALSE(*result);
    EXPECT_EQ(safari->reloadCount(id(ExtensionType::blockAds)), 1);
    EXPECT_TRUE(recordedDelays().empty());
}

TEST_F(ExtensionManagerTest, TheToolbarExtensionMayNotWriteWhileTheHostApplicationRuns) {
    auto host = settings::MainApp::HostPresence::acquire();
    ASSERT_TRUE(host) << host.error();
    auto manager = makeManager(safari);
    std::optional<ReloadingResult> one;
    std::optional<ReloadingResult> all;
    manager->saveToJSONAndReload(ExtensionType::blockAds, false, [&](ReloadingResult r) { one = r; });
    manager->saveToJSONAndReloadAll(std::nullopt, [&](ReloadingResult r) { all = r; });
    settle(*manager, all);
    EXPECT_TRUE(one.has_value());
    EXPECT_TRUE(log.contains("Ignoring saveToJSONAndReload, because Main app is running and this is not Main app."));
    EXPECT_TRUE(log.contains("Ignoring saveToJSONAndReloadAll, because Main app is running and this is not Main app."));
    EXPECT_TRUE(safari->reloads().empty());
    EXPECT_FALSE(std::filesystem::exists(storage::PathProvider::safariJSONFilePath(ExtensionType::blockAds)));

    // The host application itself always writes.
    settings::App::setIsMacMainApp(true);
    EXPECT_TRUE(ExtensionManager::mayWrite());
    settings::App::setIsMacMainApp(false);
    host->release();
    EXPECT_TRUE(ExtensionManager::mayWrite());
}

TEST_F(ExtensionManagerTest, OutsideTheToolbarExtensionADisabledExtensionIsNotWritten) {
    ProcessKind hostApplication(false);
    auto manager = makeManager(safari);
    safari->setState(id(ExtensionType::blockSocial), false);
    std::vector<platform::Notification> found;
    auto token = platform::NotificationCenter::defaultCenter().addObserver(
        Names::foundDisabledExtension, nullptr, [&](const platform::Notification& n) { found.push_back(n); });
    std::optional<ReloadingResult> result;
    manager->saveToJSONAndReload(ExtensionType::blockSocial, false, [&](ReloadingResult r) { result = r; });
    settle(*manager, result);
    ASSERT_FALSE(*result);
    EXPECT_TRUE(result->error().isDisabledInSettings());
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(std::any_cast<ExtensionType>(found[0].object), ExtensionType::blockSocial);
    EXPECT_FALSE(std::filesystem::exists(storage::PathProvider::safariJSONFilePath(ExtensionType::blockSocial)));
    EXPECT_TRUE(log.contains("Error reloading extension block-social: disabled in Settings"));

    // The toolbar extension saves regardless of what Safari reports.
    ProcessKind toolbar(true);
    result.reset();
    manager->saveToJSONAndReload(ExtensionType::blockSocial, false, [&](ReloadingResult r) { result = r; });
    settle(*manager, result);
    EXPECT_TRUE(*result);
    EXPECT_TRUE(std::filesystem::exists(storage::PathProvider::safariJSONFilePath(ExtensionType::blockSocial)));
}

TEST_F(ExtensionManagerTest, AWhitelistChangeInTheCustomExtensionRebuildsEveryEnabledExtension) {
    auto manager = makeManager(safari);
    std::optional<ReloadingResult> result;
    manager->saveToJSONAndReload(ExtensionType::blockAds, true, [&](ReloadingResult r) { result = r; });
    settle(*manager, result);
    EXPECT_THAT(safari->reloads(), ElementsAre(id(ExtensionType::blockAds)));

    result.reset();
    manager->saveToJSONAndReload(ExtensionType::customRules, true, [&](ReloadingResult r) { result = r; });
    settle(*manager, result);
    EXPECT_TRUE(*result);
    EXPECT_EQ(safari->reloads().size(), 9u);
    for (ExtensionType type : model::allCases<ExtensionType>()) EXPECT_GE(safari->reloadCount(id(type)), 1) << id(type);
}

TEST_F(ExtensionManagerTest, SavingAllSkipsTheExcludedAndTheDisabledAndReportsProgress) {
    ProcessKind hostApplication(false);
    auto manager = makeManager(safari);
    safari->setState(id(ExtensionType::blockAdult), false);
    safari->setState(id(ExtensionType::blockComments), std::nullopt);
    std::vector<double> progress;
    std::optional<double> willProgress;
    auto did = platform::NotificationCenter::defaultCenter().addObserver(
        Names::didReloadExtension, nullptr, [&](const platform::Notification& n) {
            if (const double* p = n.userInfoValue<double>("progress")) progress.push_back(*p);
        });
    auto will = platform::NotificationCenter::defaultCenter().addObserver(
        Names::willReloadExtension, nullptr, [&](const platform::Notification& n) {
            if (const double* p = n.userInfoValue<double>("progress")) willProgress = *p;
        });
    std::optional<ReloadingResult> result;
    manager->saveToJSONAndReloadAll(ExtensionType::blockAds, [&](ReloadingResult r) { result = r; });
    settle(*manager, result);
    platform::MainRunLoop::drain();

    EXPECT_TRUE(*result);
    EXPECT_EQ(safari->reloadCount(id(ExtensionType::blockAds)), 0);
    EXPECT_EQ(safari->reloadCount(id(ExtensionType::blockAdult)), 0);
    EXPECT_EQ(safari->reloadCount(id(ExtensionType::blockComments)), 0);
    EXPECT_EQ(safari->reloads().size(), 5u);
    EXPECT_EQ(willProgress, 0.0);
    ASSERT_EQ(progress.size(), 5u);
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_DOUBLE_EQ(progress.back(), 1.0);
    EXPECT_EQ(manager->numberOfReloadingExtensions(), 0);
    EXPECT_TRUE(log.contains("Saving JSON and reloading ALL Safari extensions, except " +
                             model::localizedName(ExtensionType::blockAds) + "."));
    EXPECT_TRUE(log.contains("Canceled all prior reload operations to make it faster"));
    EXPECT_TRUE(log.contains("Can't check '" + id(ExtensionType::blockComments) + "' extension state: "));
}

TEST_F(ExtensionManagerTest, WithNoEnabledExtensionOnlyTheToolbarExtensionSavesAll) {
    for (ExtensionType type : model::allCases<ExtensionType>()) safari->setState(id(type), false);
    {
        ProcessKind hostApplication(false);
        auto manager = makeManager(safari);
        manager->saveToJSONAndReloadAll(std::nullopt, {});
        manager->waitUntilIdle(10s);
        EXPECT_TRUE(log.contains("No enabled extensions found"));
        EXPECT_TRUE(safari->reloads().empty());
    }
    auto manager = makeManager(safari);
    std::optional<ReloadingResult> result;
    manager->saveToJSONAndReloadAll(ExtensionType::blockAds, [&](ReloadingResult r) { result = r; });
    settle(*manager, result);
    // The replacement list is all eight: the exclusion does not apply to it.
    EXPECT_EQ(safari->reloads().size(), 8u);
}

TEST_F(ExtensionManagerTest, ABurstOfSaveAllRequestsEndsWithEveryCompletionCalled) {
    auto manager = makeManager(safari);
    std::vector<ReloadingResult> results;
    for (int i = 0; i < 5; ++i) manager->saveToJSONAndReloadAll(std::nullopt, [&](ReloadingResult r) { results.push_back(r); });
    ASSERT_TRUE(platform::MainRunLoop::runUntil([&] { return results.size() == 5 && manager->isIdle(); }, 20s));
    for (const auto& result : results) EXPECT_TRUE(result);
    EXPECT_EQ(manager->numberOfReloadingExtensions(), 0);
    for (ExtensionType type : model::allCases<ExtensionType>()) {
        EXPECT_TRUE(std::filesystem::exists(storage::PathProvider::safariJSONFilePath(type))) << id(type);
    }
}

TEST_F(ExtensionManagerTest, AtMostTwoSavesAndFourReloadsRunAtOnce) {
    // Each save and each of Safari's answers takes long enough for the
    // queues to start everything they are allowed to meanwhile.
    std::mutex saving;
    int savesRunning = 0;
    int mostSavesRunning = 0;
    auto manager = makeManager(safari, [&](ExtensionType, bool started) {
        {
            std::lock_guard lock(saving);
            savesRunning += started ? 1 : -1;
            mostSavesRunning = std::max(mostSavesRunning, savesRunning);
        }
        if (started) std::this_thread::sleep_for(60ms);
    });
    safari->setAnswerDelay(150ms);

    std::optional<ReloadingResult> result;
    manager->saveToJSONAndReloadAll(std::nullopt, [&](ReloadingResult r) { result = r; });
    settle(*manager, result);
    EXPECT_TRUE(*result);
    EXPECT_EQ(safari->reloads().size(), 8u);
    {
        std::lock_guard lock(saving);
        EXPECT_EQ(savesRunning, 0);
        EXPECT_EQ(mostSavesRunning, 2);
    }
    EXPECT_LE(safari->mostReloadsInFlight(), 4);
    // Eight saves two at a time hand reloads over faster than Safari answers
    // them, so the reload queue does fill up.
    EXPECT_GE(safari->mostReloadsInFlight(), 3);

    // Reloading without saving goes through the same reload queue.
    result.reset();
    manager->reloadAllWithoutSaving([&](ReloadingResult r) { result = r; });
    settle(*manager, result);
    EXPECT_EQ(safari->reloads().size(), 16u);
    EXPECT_EQ(safari->mostReloadsInFlight(), 4);
}

TEST_F(ExtensionManagerTest, AFileSafariRefusesEndsInItsCompilerMessage) {
    auto local = platform::LocalContentBlockerManager::open([](const std::string& identifier)
                                                                -> std::optional<std::filesystem::path> {
        const auto type = ExtensionManager::extensionType(identifier);
        if (!type) return std::nullopt;
        return storage::PathProvider::safariJSONFilePath(*type);
    });
    auto manager = makeManager(local);
    data.setCustomPackages({Package("mine", "Mine", {blockRule("bad", "a{0,2}")})});
    std::optional<ReloadingResult> result;
    manager->saveToJSONAndReloadAll(std::nullopt, [&](ReloadingResult r) { result = r; });
    settle(*manager, result);
    ASSERT_FALSE(*result);
    const auto* error = result->error().safariError();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, "WKErrorDomain");
    EXPECT_EQ(error->code, 6);
    EXPECT_EQ(error->description, "Rule list compilation failed: Invalid or unsupported regular expression.");
    EXPECT_TRUE(log.contains("❌ Error reloading \"" + model::localizedName(ExtensionType::customRules) +
                             "\" Safari JSON: Rule list compilation failed: "));
    // The other seven compiled.
    for (ExtensionType type : model::allCases<ExtensionType>()) {
        const auto last = local->lastReload(id(type));
        ASSERT_TRUE(last) << id(type);
        EXPECT_EQ(last->error.has_value(), type == ExtensionType::customRules) << id(type);
    }
}

TEST_F(ExtensionManagerTest, StatusCacheFollowsSafariAndAnnouncesTheRefresh) {
    auto manager = makeManager(safari);
    EXPECT_FALSE(manager->cachedStatus(ExtensionType::blockAds));
    safari->setState(id(ExtensionType::blockAds), false);
    bool refreshed = false;
    auto token = platform::NotificationCenter::defaultCenter().addObserver(
        Names::didUpdateExtensionStatusCache, nullptr, [&](const platform::Notification&) { refreshed = true; });
    manager->updateExtensionStatusCache();
    ASSERT_TRUE(platform::MainRunLoop::runUntil([&] { return refreshed; }, 10s));
    EXPECT_EQ(manager->cachedStatus(ExtensionType::blockAds), false);
    EXPECT_EQ(manager->cachedStatus(ExtensionType::blockTrackers), true);

    // The user turns it on: the next refresh notices, and rebuilds it.
    safari->setState(id(ExtensionType::blockAds), true);
    refreshed = false;
    manager->updateExtensionStatusCache();
    ASSERT_TRUE(platform::MainRunLoop::runUntil([&] { return refreshed; }, 10s));
    manager->waitUntilIdle(10s);
    EXPECT_EQ(manager->cachedStatus(ExtensionType::blockAds), true);
    EXPECT_TRUE(log.contains(model::localizedName(ExtensionType::blockAds) +
                             " extension was disabled in Safari settings. User has just turned it on. Reloading it now..."));
    EXPECT_EQ(safari->reloadCount(id(ExtensionType::blockAds)), 1);
}

TEST_F(ExtensionManagerTest, ReloadingAllWithNothingEnabledStillCompletes) {
    ProcessKind hostApplication(false);
    for (ExtensionType type : model::allCases<ExtensionType>()) safari->setState(id(type), false);
    auto manager = makeManager(safari);
    std::optional<ReloadingResult> result;
    manager->reloadAllWithoutSaving([&](ReloadingResult r) { result = r; });
    settle(*manager, result);
    EXPECT_TRUE(*result);
    EXPECT_TRUE(safari->reloads().empty());
}

TEST_F(ExtensionManagerTest, ReloadingWithoutSavingLeavesTheFilesAlone) {
    auto manager = makeManager(safari);
    std::optional<ReloadingResult> result;
    manager->reloadAllWithoutSaving([&](ReloadingResult r) { result = r; });
    settle(*manager, result);
    EXPECT_TRUE(*result);
    EXPECT_EQ(safari->reloads().size(), 8u);
    EXPECT_FALSE(std::filesystem::exists(storage::PathProvider::safariJSONFilePath(ExtensionType::blockAds)));
    EXPECT_FALSE(log.contains("START saving JSON"));
}

// --- Rebuilds owed by earlier runs ----------------------------------------------------------

TEST_F(ExtensionManagerTest, OwedRebuildsAreMadeAndSettledOnlyWhenSafariReloaded) {
    using storage::RebuildLedger;
    RebuildLedger::owe({ExtensionType::blockAds, ExtensionType::blockSocial});
    safari->failNext(id(ExtensionType::blockSocial), 6, 1);
    auto manager = makeManager(safari);

    manager->repairOwedRebuilds();
    ASSERT_TRUE(manager->waitUntilIdle(20s));

    EXPECT_TRUE(std::filesystem::exists(storage::PathProvider::safariJSONFilePath(ExtensionType::blockAds)));
    EXPECT_EQ(safari->reloadCount(id(ExtensionType::blockAds)), 1);
    EXPECT_THAT(RebuildLedger::owed(), ElementsAre(ExtensionType::blockSocial))
        << "a reload that failed for good still owes its rebuild";

    manager->repairOwedRebuilds();
    ASSERT_TRUE(manager->waitUntilIdle(20s));
    EXPECT_TRUE(RebuildLedger::owed().empty());
}

TEST_F(ExtensionManagerTest, EverySaveRequestAlsoPaysTheDebtsOfOtherExtensions) {
    storage::RebuildLedger::owe({ExtensionType::blockComments});
    auto manager = makeManager(safari);
    std::optional<ReloadingResult> result;
    manager->saveToJSONAndReload(ExtensionType::customRules, false,
                                 [&result](ReloadingResult outcome) { result = outcome; });
    settle(*manager, result);
    EXPECT_EQ(safari->reloadCount(id(ExtensionType::blockComments)), 1);
    EXPECT_TRUE(storage::RebuildLedger::owed().empty());
}

TEST_F(ExtensionManagerTest, NoDebtIsPaidWhileTheHostApplicationWrites) {
    storage::RebuildLedger::owe({ExtensionType::blockAds});
    auto host = settings::MainApp::HostPresence::acquire();
    ASSERT_TRUE(host) << host.error();
    auto manager = makeManager(safari);
    manager->repairOwedRebuilds();
    ASSERT_TRUE(manager->waitUntilIdle(5s));
    EXPECT_TRUE(safari->reloads().empty());
    EXPECT_THAT(storage::RebuildLedger::owed(), ElementsAre(ExtensionType::blockAds));
}

}  // namespace
}  // namespace tamsel::control
