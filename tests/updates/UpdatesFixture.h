#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Files.h"
#include "platform/MainRunLoop.h"
#include "platform/NotificationCenter.h"
#include "platform/Stores.h"
#include "settings/App.h"
#include "storage/PathProvider.h"
#include "support/TestSupport.h"
#include "updates/Downloader.h"
#include "updates/FilterServer.h"
#include "platform/HTTPClient.h"
#include "updates/UpdateError.h"
#include "updates/RuleArchive.h"
#include "updates/UpdateManager.h"

// A fresh data root, a loopback filter server publishing a small rule set,
// and helpers to run update checks and look at what they left behind.
namespace tamsel::updates::testing {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using tamsel::testing::LogCapture;
using tamsel::testing::ScopedDataRoot;
using tamsel::testing::TemporaryDirectory;

// The time the requests' stall timers read while a test runs: it stands
// still unless the test moves it, so no request times out by accident of
// scheduling. Static, because a transfer thread may read it after its test.
inline std::atomic<std::chrono::steady_clock::rep> stallTimerNow{0};

class UpdatesFixture : public ::testing::Test {
protected:
    void SetUp() override {
        RuleArchive::resetAlreadyDownloaded();
        settings::App::setIsMacMainApp(false);
        HTTPClient::setTimeSource([] {
            return std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(stallTimerNow.load()));
        });
        const fs::path packages = fs::path(TAMSEL_SOURCE_DIR) / "resources" / "packages";
        for (const auto& entry : fs::directory_iterator(packages)) {
            // The user's own rules never come from the server.
            if (entry.path().filename() == "block-custom.json") continue;
            fs::copy_file(entry.path(), published_ / entry.path().filename());
        }
        publish("hosts.txt", "0.0.0.0 ads.example\n0.0.0.0 tracker.example\n");
        server_ = std::make_unique<FilterServer>(FilterServer::Options{published_.path()});
        auto started = server_->start();
        ASSERT_TRUE(started.has_value()) << started.error();
        notificationToken_ = platform::NotificationCenter::defaultCenter().addObserver(
            "", nullptr, [this](const platform::Notification& notification) {
                if (!notification.name.ends_with("Rules From Cloud") &&
                    !notification.name.starts_with("New Rules Update")) {
                    return;
                }
                std::lock_guard lock(mutex_);
                notifications_.push_back(notification.name);
            });
    }

    void TearDown() override {
        notificationToken_.remove();
        server_->stop();
        // Leave nothing queued for the next test.
        platform::MainRunLoop::drain();
        RuleArchive::resetAlreadyDownloaded();
        RuleArchive::setMaximumUnpackedSize(std::uint64_t{256} << 20);
        RuleArchive::setMaximumFileSize(std::uint64_t{64} << 20);
        RuleArchive::setMaximumArchiveSize(std::uint64_t{256} << 20);
        Downloader::setRequestTimeout(std::chrono::seconds(60));
        Downloader::setTotalTimeout(std::chrono::minutes(15));
        HTTPClient::setTimeSource({});
    }

    // While the server holds a request (Fault::noAnswer), moves the stall
    // timers' time past the request time-out, so that the waiting request
    // gives up; requests that are not held are unaffected. Called while
    // waiting for a result when letStalledRequestsTimeOut_ is set.
    void timeOutHeldRequests() {
        if (!letStalledRequestsTimeOut_ || server_->heldRequestCount() == 0) return;
        const auto step = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            Downloader::requestTimeout() + std::chrono::seconds(1));
        stallTimerNow += step.count();
    }

    void publish(const std::string& name, const std::string& bytes) {
        ASSERT_TRUE(platform::writeFileAtomically(published_ / name, bytes).has_value());
    }

    std::shared_ptr<UpdateManager> makeManager(std::optional<bool> legacy = false) {
        return UpdateManager::make({server_->baseURL(), legacy, reloading_});
    }

    // Runs one check to its end, driving the main queue meanwhile.
    UpdateResult check(UpdateManager& manager, bool shouldReload = true,
                       std::function<void(double)> progress = {}) {
        std::optional<UpdateResult> result;
        manager.checkForUpdates(shouldReload, std::move(progress), [&](UpdateResult delivered) {
            EXPECT_TRUE(platform::MainRunLoop::isMainThread());
            result = std::move(delivered);
        });
        EXPECT_TRUE(platform::MainRunLoop::runUntil(
            [&] {
                timeOutHeldRequests();
                return result.has_value();
            },
            30s));
        return result.value_or(UpdateResult::failure(Error::make(ErrorCode::transport, "no result")));
    }

    std::optional<std::string> localVersion() const {
        return platform::SharedDefaults::shared()->string("localVersion");
    }

    static std::map<std::string, std::string> installedFiles() {
        std::map<std::string, std::string> files;
        const fs::path folder = storage::PathProvider::filtersFolderURL();
        if (!fs::exists(folder)) return files;
        for (const auto& entry : fs::directory_iterator(folder)) {
            files[entry.path().filename().string()] = platform::readFile(entry.path()).value_or("<unreadable>");
        }
        return files;
    }

    // Files the update code may have left behind: staging folders, partial
    // downloads, downloaded archives, anything that escaped the folder.
    static std::vector<std::string> strayFiles() {
        std::vector<std::string> strays;
        const fs::path support = storage::PathProvider::applicationSupportURL();
        if (fs::exists(support)) {
            for (const auto& entry : fs::directory_iterator(support)) {
                const std::string name = entry.path().filename().string();
                if (name != "Filters" && name != "Safari JSON") strays.push_back(entry.path().string());
            }
        }
        const fs::path downloads = RuleArchive::downloadDirectory();
        if (fs::exists(downloads)) {
            for (const auto& entry : fs::recursive_directory_iterator(downloads)) strays.push_back(entry.path().string());
        }
        return strays;
    }

    std::vector<std::string> notifications() {
        std::lock_guard lock(mutex_);
        return notifications_;
    }
    void clearNotifications() {
        std::lock_guard lock(mutex_);
        notifications_.clear();
    }

    ScopedDataRoot root_;
    TemporaryDirectory published_;
    LogCapture log_;
    std::unique_ptr<FilterServer> server_;
    bool letStalledRequestsTimeOut_ = false;
    std::shared_ptr<storage::RecordingExtensionReloading> reloading_ =
        std::make_shared<storage::RecordingExtensionReloading>();

private:
    std::mutex mutex_;
    std::vector<std::string> notifications_;
    platform::ObserverToken notificationToken_;
};

}  // namespace tamsel::updates::testing
