#pragma once

// Helpers for the package-file and Safari JSON tests: a fresh data root per
// test, packages with real-looking rules, raw file writes, and a way to wait
// for the asynchronous reads.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "model/JSONCoding.h"
#include "model/Package.h"
#include "platform/Log.h"
#include "storage/FilterArchiveDownloading.h"
#include "storage/PathProvider.h"
#include "storage/PersistentStore.h"
#include "support/TestSupport.h"

namespace tamsel::storage::testing {

namespace fs = std::filesystem;

inline model::Blocker blockBlocker(const std::string& urlFilter) {
    model::Blocker blocker;
    blocker.trigger.urlFilter = urlFilter;
    blocker.trigger.caseSensitive = true;
    blocker.action.type = model::ActionType::block;
    return blocker;
}

inline model::Package makePackage(const std::string& id, const std::string& name, int ruleCount = 2) {
    std::vector<model::Rule> rules;
    for (int i = 0; i < ruleCount; ++i) {
        rules.emplace_back(id + "-rule-" + std::to_string(i), "Rule " + std::to_string(i),
                           blockBlocker("^https?://ads" + std::to_string(i) + "\\.example\\.com/"));
    }
    return model::Package(id, name, std::move(rules));
}

inline void writeRaw(const fs::path& path, std::string_view bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(out.good()) << path;
}

inline std::string readRaw(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline fs::path filterFile(model::JSONFileName file) {
    return PathProvider::filtersFolderURL() / model::fileName(file);
}

// Calls an asynchronous read and waits (generously) for its one answer.
inline std::vector<model::Package> await(
    const std::function<void(PersistentStore::PackagesCompletion)>& read) {
    auto promise = std::make_shared<std::promise<std::vector<model::Package>>>();
    auto future = promise->get_future();
    read([promise](std::vector<model::Package> packages) { promise->set_value(std::move(packages)); });
    if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
        ADD_FAILURE() << "the read never completed";
        return {};
    }
    return future.get();
}

inline std::vector<std::string> ids(const std::vector<model::Package>& packages) {
    std::vector<std::string> result;
    for (const auto& package : packages) result.push_back(package.id);
    return result;
}

// Records each download request. By default it completes at once, after
// running `onDownload` (which may drop files into place); with `hold` set it
// keeps the completions for the test to call.
class FakeDownloader : public FilterArchiveDownloading {
public:
    std::function<void()> onDownload;
    bool hold = false;

    void downloadZippedRules(std::string identifier, std::function<void(bool)> completion) override {
        {
            std::lock_guard lock(mutex_);
            identifiers_.push_back(identifier);
            if (hold) {
                held_.push_back(std::move(completion));
                return;
            }
        }
        if (onDownload) onDownload();
        completion(true);
    }

    std::vector<std::string> identifiers() const {
        std::lock_guard lock(mutex_);
        return identifiers_;
    }
    std::size_t requestCount() const { return identifiers().size(); }
    std::vector<std::function<void(bool)>> takeHeld() {
        std::lock_guard lock(mutex_);
        return std::move(held_);
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> identifiers_;
    std::vector<std::function<void(bool)>> held_;
};

// A fresh data root, a log capture, and a fake downloader installed for the
// duration of each test.
class StorageTest : public ::testing::Test {
protected:
    void SetUp() override { FilterArchiveDownloading::setShared(downloader); }
    void TearDown() override { FilterArchiveDownloading::setShared(nullptr); }

    // Whether a system-log line at `level` says exactly `message`.
    bool logged(platform::LogLevel level, const std::string& message) const {
        for (const auto& record : log.records()) {
            if (record.outlet == platform::LogRecord::Outlet::system && record.level == level &&
                record.message == message) {
                return true;
            }
        }
        return false;
    }

    tamsel::testing::ScopedDataRoot root;
    tamsel::testing::LogCapture log;
    std::shared_ptr<FakeDownloader> downloader = std::make_shared<FakeDownloader>();
};

}  // namespace tamsel::storage::testing
