// Host application presence: the lock the host holds while it runs, the
// probe every other process makes, and the termination notice.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/DataRoot.h"
#include "settings/MainApp.h"
#include "support/TestSupport.h"

namespace {

using namespace tamsel;
using namespace std::chrono_literals;
using settings::MainApp;
using tamsel::testing::runChildEntry;
using tamsel::testing::ScopedDataRoot;
using tamsel::testing::waitUntil;

void touch(const std::filesystem::path& path) { std::ofstream(path) << "x"; }

// Plays the host application: holds the lock, says so in the file named by
// the first argument, and quits once the file named by the second appears.
TAMSEL_CHILD_ENTRY(hostApplication) {
    auto presence = MainApp::HostPresence::acquire();
    if (!presence) return 2;
    touch(arguments.at(0));
    if (!waitUntil([&] { return std::filesystem::exists(arguments.at(1)); }, 30s)) return 3;
    return 0;
}

// A host application that dies without cleaning up.
TAMSEL_CHILD_ENTRY(crashingHostApplication) {
    auto presence = MainApp::HostPresence::acquire();
    if (!presence) return 2;
    std::raise(SIGKILL);
    return 4;
}

TAMSEL_CHILD_ENTRY(probeHost) { return MainApp::isRunning() ? 10 : 20; }

TEST(MainAppPresence, NotRunningWithoutAnyLockFileAndTheProbeCreatesNone) {
    ScopedDataRoot root;
    EXPECT_FALSE(MainApp::isRunning());
    EXPECT_FALSE(std::filesystem::exists(MainApp::lockFilePath()));
    EXPECT_EQ(MainApp::lockFilePath().parent_path(), platform::DataRoot::groupContainer());
}

TEST(MainAppPresence, RunningWhileThisProcessHoldsThePresence) {
    ScopedDataRoot root;
    auto presence = MainApp::HostPresence::acquire();
    ASSERT_TRUE(presence) << presence.error();
    EXPECT_TRUE(MainApp::isRunning());
    EXPECT_EQ(runChildEntry("probeHost"), 10);

    // A second host application is refused, also from the same process.
    const auto second = MainApp::HostPresence::acquire();
    ASSERT_FALSE(second);
    EXPECT_NE(second.error().find("another host application"), std::string::npos);

    presence->release();
    EXPECT_FALSE(MainApp::isRunning());
    EXPECT_EQ(runChildEntry("probeHost"), 20);
}

TEST(MainAppPresence, MovedPresenceKeepsTheLock) {
    ScopedDataRoot root;
    auto acquired = MainApp::HostPresence::acquire();
    ASSERT_TRUE(acquired);
    {
        MainApp::HostPresence moved = std::move(*acquired);
        EXPECT_FALSE(acquired->isHeld());
        EXPECT_TRUE(moved.isHeld());
        EXPECT_TRUE(MainApp::isRunning());
    }
    EXPECT_FALSE(MainApp::isRunning());
}

TEST(MainAppPresence, FalseOnceTheHostApplicationInAnotherProcessHasQuit) {
    ScopedDataRoot root;
    tamsel::testing::TemporaryDirectory signals;
    const auto ready = signals / "ready";
    const auto quit = signals / "quit";

    auto host = std::async(std::launch::async,
                           [&] { return runChildEntry("hostApplication", {ready.string(), quit.string()}); });
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(ready); }));
    EXPECT_TRUE(MainApp::isRunning());
    EXPECT_TRUE(MainApp::isRunning());  // probing does not disturb the holder
    EXPECT_FALSE(MainApp::HostPresence::acquire());

    touch(quit);
    EXPECT_EQ(host.get(), 0);
    EXPECT_FALSE(MainApp::isRunning());
    // The lock is free for the next host application.
    EXPECT_TRUE(MainApp::HostPresence::acquire());
}

TEST(MainAppPresence, ACrashedHostApplicationDoesNotLookAlive) {
    ScopedDataRoot root;
    EXPECT_EQ(runChildEntry("crashingHostApplication"), 128 + SIGKILL);
    EXPECT_TRUE(std::filesystem::exists(MainApp::lockFilePath()));
    EXPECT_FALSE(MainApp::isRunning());
}

TEST(MainAppPresence, ConcurrentProbesNeverSeeEachOtherAsTheHost) {
    ScopedDataRoot root;
    { auto presence = MainApp::HostPresence::acquire(); }  // leaves the lock file behind
    std::atomic<int> falsePositives{0};
    std::vector<std::thread> probes;
    for (int i = 0; i < 4; ++i) {
        probes.emplace_back([&] {
            for (int n = 0; n < 500; ++n) {
                if (MainApp::isRunning()) ++falsePositives;
            }
        });
    }
    for (auto& probe : probes) probe.join();
    EXPECT_EQ(falsePositives.load(), 0);
}

TEST(MainAppTerminationWatcher, FiresOnceWhenTheHostReleases) {
    ScopedDataRoot root;
    auto presence = MainApp::HostPresence::acquire();
    ASSERT_TRUE(presence);
    std::atomic<int> calls{0};
    MainApp::TerminationWatcher watcher([&] { ++calls; }, 5ms);

    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(calls.load(), 0);
    EXPECT_FALSE(watcher.hasFired());

    presence->release();
    ASSERT_TRUE(waitUntil([&] { return calls.load() > 0; }));
    EXPECT_TRUE(watcher.hasFired());
    // A host application that comes back does not make it fire again.
    auto again = MainApp::HostPresence::acquire();
    ASSERT_TRUE(again);
    again->release();
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(calls.load(), 1);
}

TEST(MainAppTerminationWatcher, FiresAtOnceWhenNoHostRuns) {
    ScopedDataRoot root;
    std::promise<void> fired;
    MainApp::TerminationWatcher watcher([&] { fired.set_value(); });
    EXPECT_EQ(fired.get_future().wait_for(10s), std::future_status::ready);
}

TEST(MainAppTerminationWatcher, DestroyedWatcherNeverCalls) {
    ScopedDataRoot root;
    auto presence = MainApp::HostPresence::acquire();
    ASSERT_TRUE(presence);
    std::atomic<int> calls{0};
    {
        MainApp::TerminationWatcher watcher([&] { ++calls; }, 1ms);
        std::this_thread::sleep_for(10ms);
    }
    presence->release();
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(calls.load(), 0);
}

TEST(MainAppTerminationWatcher, HandlerMayDestroyItsOwnWatcher) {
    ScopedDataRoot root;
    std::promise<void> done;
    std::unique_ptr<MainApp::TerminationWatcher> owned;
    std::mutex mutex;
    {
        std::lock_guard lock(mutex);
        owned = std::make_unique<MainApp::TerminationWatcher>([&] {
            std::lock_guard lock(mutex);
            owned.reset();
            done.set_value();
        });
    }
    EXPECT_EQ(done.get_future().wait_for(10s), std::future_status::ready);
    std::lock_guard lock(mutex);
    EXPECT_EQ(owned, nullptr);
}

}  // namespace
