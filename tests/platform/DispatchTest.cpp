#include "platform/DispatchGroup.h"
#include "platform/DispatchQueue.h"
#include "platform/MainRunLoop.h"

#include "ConcurrencyTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tamsel::platform {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::Gate;
using testing::Overlap;
using testing::Rendezvous;
using ::testing::ElementsAre;

TEST(SerialQueue, RunsBlocksOneAtATimeInSubmissionOrder) {
    DispatchQueue queue("test.serial");
    std::vector<int> order;  // unguarded on purpose: the queue is the guard
    Overlap overlap;
    for (int i = 0; i < 200; ++i) {
        queue.async([&, i] {
            overlap.enter();
            order.push_back(i);
            std::this_thread::yield();
            overlap.leave();
        });
    }
    const auto size = queue.sync([&] { return order.size(); });
    EXPECT_EQ(size, 200u);
    EXPECT_EQ(overlap.peak.load(), 1);
    for (int i = 0; i < 200; ++i) ASSERT_EQ(order[static_cast<size_t>(i)], i);
}

TEST(SerialQueue, SyncWaitsForEarlierAsyncWorkAndRunsOnCallingThread) {
    DispatchQueue queue("test.serial");
    Gate gate;
    bool earlierDone = false;
    queue.async([&] {
        gate.wait();
        earlierDone = true;
    });
    std::thread opener([&] {
        std::this_thread::sleep_for(5ms);
        gate.open();
    });
    std::thread::id ranOn;
    queue.sync([&] { ranOn = std::this_thread::get_id(); });
    EXPECT_TRUE(earlierDone);
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    opener.join();
}

TEST(SerialQueue, SyncOnItselfEndsWithAClearMessageInsteadOfHanging) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            DispatchQueue queue("test.reentrant");
            queue.sync([&] { queue.sync([] {}); });
        },
        "test.reentrant.*would deadlock");
}

TEST(DispatchQueueSync, ReturnsValuesReferencesAndPropagatesExceptions) {
    DispatchQueue queue("test.sync", DispatchQueue::Kind::concurrent);
    EXPECT_EQ(queue.sync([] { return std::string("value"); }), "value");

    int target = 1;
    int& ref = queue.sync([&]() -> int& { return target; });
    EXPECT_EQ(&ref, &target);

    EXPECT_THROW(queue.sync([]() -> int { throw std::runtime_error("boom"); }), std::runtime_error);
    // The queue is usable after a throwing block released it.
    EXPECT_EQ(queue.sync([] { return 7; }), 7);
}

TEST(ConcurrentQueue, RunsBlocksInParallel) {
    DispatchQueue queue("test.concurrent", DispatchQueue::Kind::concurrent);
    Rendezvous meeting(2);
    DispatchGroup group;
    std::atomic<int> met{0};
    for (int i = 0; i < 2; ++i) {
        group.async(queue, [&] {
            if (meeting.arrive()) ++met;
        });
    }
    ASSERT_TRUE(group.wait(testing::kPatience));
    EXPECT_EQ(met.load(), 2);
}

TEST(ConcurrentQueue, ReadingAgainFromInsideAReadRunsAtOnce) {
    DispatchQueue queue("test.concurrent", DispatchQueue::Kind::concurrent);
    EXPECT_EQ(queue.sync([&] { return queue.sync([] { return 3; }) + 1; }), 4);
}

TEST(ConcurrentQueue, BarrierWaitsForEarlierBlocksRunsAloneAndHoldsBackLaterOnes) {
    DispatchQueue queue("test.barrier", DispatchQueue::Kind::concurrent);
    constexpr int kEach = 8;
    Gate release;
    DispatchGroup group;
    Overlap overlap;
    std::atomic<int> earlierFinished{0};
    std::atomic<bool> barrierRan{false};
    std::atomic<bool> barrierSawAllEarlier{false};
    std::atomic<int> laterBeforeBarrier{0};
    std::atomic<int> peakDuringBarrier{-1};

    for (int i = 0; i < kEach; ++i) {
        group.async(queue, [&] {
            overlap.enter();
            release.wait();
            ++earlierFinished;
            overlap.leave();
        });
    }
    group.enter();
    queue.asyncBarrier([&] {
        overlap.enter();
        barrierSawAllEarlier = earlierFinished.load() == kEach;
        std::this_thread::sleep_for(2ms);
        peakDuringBarrier = overlap.active.load();
        barrierRan = true;
        overlap.leave();
        group.leave();
    });
    for (int i = 0; i < kEach; ++i) {
        group.async(queue, [&] {
            if (!barrierRan) ++laterBeforeBarrier;
        });
    }
    // The earlier blocks are all running (they share the queue) while the
    // barrier and the later ones wait.
    EXPECT_TRUE(eventually([&] { return overlap.active.load() == kEach; }));
    EXPECT_FALSE(barrierRan);
    release.open();

    ASSERT_TRUE(group.wait(testing::kPatience));
    EXPECT_TRUE(barrierSawAllEarlier);
    EXPECT_EQ(peakDuringBarrier.load(), 1);
    EXPECT_EQ(laterBeforeBarrier.load(), 0);
}

TEST(GlobalQueue, TreatsBarriersAsPlainBlocks) {
    auto& queue = DispatchQueue::global(QualityOfService::utility);
    EXPECT_EQ(&queue, &DispatchQueue::global(QualityOfService::utility));
    EXPECT_EQ(queue.kind(), DispatchQueue::Kind::concurrent);
    Rendezvous meeting(2);
    DispatchGroup group;
    std::atomic<int> met{0};
    group.enter();
    queue.async([&] {
        if (meeting.arrive()) ++met;
        group.leave();
    });
    group.enter();
    queue.asyncBarrier([&] {
        if (meeting.arrive()) ++met;
        group.leave();
    });
    ASSERT_TRUE(group.wait(testing::kPatience));
    EXPECT_EQ(met.load(), 2);
}

TEST(AsyncAfter, SubmitsBlocksInDeadlineOrder) {
    DispatchQueue queue("test.after");
    std::mutex mutex;
    std::vector<std::string> order;
    DispatchGroup group;
    auto record = [&](std::string name) {
        return [&, name] {
            std::lock_guard lock(mutex);
            order.push_back(name);
            group.leave();
        };
    };
    group.enter();
    queue.asyncAfter(250ms, record("late"));
    group.enter();
    queue.asyncAfter(0ms, record("first"));
    group.enter();
    queue.asyncAfter(0ms, record("second"));
    ASSERT_TRUE(group.wait(testing::kPatience));
    EXPECT_THAT(order, ElementsAre("first", "second", "late"));
}

TEST(AsyncAfter, DropsBlocksOfAQueueDestroyedBeforeTheDeadline) {
    std::atomic<bool> ran{false};
    {
        DispatchQueue doomed("test.doomed");
        doomed.asyncAfter(10ms, [&] { ran = true; });
    }
    // The timer hands blocks over in deadline order: once the later one has
    // run, the earlier one has been handed over, or dropped.
    DispatchQueue witness("test.witness");
    Gate later;
    witness.asyncAfter(30ms, [&] { later.open(); });
    ASSERT_TRUE(later.wait());
    EXPECT_FALSE(ran);
}

TEST(DispatchQueueLifetime, DestructorFinishesWorkSubmittedBeforeIt) {
    int count = 0;  // plain int: the destructor must order these writes before the read
    {
        DispatchQueue queue("test.lifetime");
        for (int i = 0; i < 50; ++i) {
            queue.async([&] {
                std::this_thread::yield();
                ++count;
            });
        }
    }
    EXPECT_EQ(count, 50);
}

TEST(DispatchQueueLifetime, QueueReleasedByItsOwnBlockDoesNotDeadlock) {
    Gate done;
    auto queue = std::make_shared<DispatchQueue>("test.self-owned");
    std::weak_ptr<DispatchQueue> weak = queue;
    queue->async([queue, &done]() mutable {
        queue.reset();  // the capture may hold the last reference
        done.open();
    });
    queue.reset();
    ASSERT_TRUE(done.wait());
    EXPECT_TRUE(eventually([&] { return weak.expired(); }));
}

TEST(DispatchQueueLifetime, HandleDropsWorkAfterTheQueueIsGone) {
    DispatchQueue::Handle handle;
    {
        DispatchQueue queue("test.handle");
        handle = queue.handle();
        Gate ran;
        handle.async([&] { ran.open(); });
        EXPECT_TRUE(ran.wait());
    }
    bool ranLate = false;
    handle.async([&] { ranLate = true; });
    EXPECT_FALSE(ranLate);
}

TEST(DispatchQueue, DeepSyncChainsAcrossQueuesDoNotStarveThePool) {
    // Every block waits for a block of the next queue: needs as many workers
    // as there are links.
    constexpr int kLinks = 24;
    std::vector<std::unique_ptr<DispatchQueue>> queues;
    for (int i = 0; i < kLinks; ++i) queues.push_back(std::make_unique<DispatchQueue>("test.chain"));
    std::function<void(int)> link = [&](int i) {
        if (i == kLinks) return;
        DispatchGroup inner;
        inner.async(*queues[static_cast<size_t>(i)], [&, i] { link(i + 1); });
        inner.wait();
    };
    DispatchGroup outer;
    outer.async(DispatchQueue::global(), [&] { link(0); });
    EXPECT_TRUE(outer.wait(testing::kPatience));
}

class MainQueueTest : public ::testing::Test {
protected:
    void SetUp() override { MainRunLoop::drain(); }
    void TearDown() override { MainRunLoop::drain(); }
};

TEST_F(MainQueueTest, DrainRunsPostedBlocksAndTheBlocksTheyPost) {
    std::vector<int> order;
    DispatchQueue::main().async([&] {
        order.push_back(1);
        DispatchQueue::main().async([&] { order.push_back(3); });
    });
    std::thread poster([&] { DispatchQueue::main().async([&] { order.push_back(2); }); });
    poster.join();
    EXPECT_EQ(MainRunLoop::drain(), 3u);
    EXPECT_THAT(order, ElementsAre(1, 2, 3));
    EXPECT_EQ(MainRunLoop::drain(), 0u);
}

TEST_F(MainQueueTest, BlocksRunOnTheDrivingThreadWhichIsTheMainThread) {
    std::atomic<bool> workerIsMain{true};
    std::thread worker([&] { workerIsMain = DispatchQueue::isMainThread(); });
    worker.join();
    EXPECT_FALSE(workerIsMain);

    std::thread::id ranOn;
    bool mainInBlock = false;
    DispatchQueue::main().async([&] {
        ranOn = std::this_thread::get_id();
        mainInBlock = DispatchQueue::isMainThread();
    });
    MainRunLoop::drain();
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_TRUE(mainInBlock);
}

TEST_F(MainQueueTest, RunUntilWaitsForBlocksPostedByOtherThreads) {
    std::atomic<int> delivered{0};
    std::thread worker([&] {
        for (int i = 0; i < 5; ++i) {
            std::this_thread::sleep_for(1ms);
            DispatchQueue::main().async([&] { ++delivered; });
        }
    });
    EXPECT_TRUE(MainRunLoop::runUntil([&] { return delivered == 5; }, testing::kPatience));
    worker.join();
}

TEST_F(MainQueueTest, RunUntilGivesUpAfterTheTimeout) {
    EXPECT_FALSE(MainRunLoop::runUntil([] { return false; }, 20ms));
}

TEST_F(MainQueueTest, AsyncAfterOnMainWakesTheDriver) {
    bool fired = false;
    DispatchQueue::main().asyncAfter(5ms, [&] { fired = true; });
    EXPECT_TRUE(MainRunLoop::runUntil([&] { return fired; }, testing::kPatience));
}

TEST_F(MainQueueTest, SyncFromAWorkerWaitsForTheDriverAndFromMainRunsInline) {
    std::atomic<bool> done{false};
    int answer = 0;
    bool ranOnMain = false;
    std::thread worker([&] {
        answer = DispatchQueue::main().sync([&] {
            ranOnMain = DispatchQueue::isMainThread();
            return 42;
        });
        done = true;
    });
    EXPECT_TRUE(MainRunLoop::runUntil([&] { return done.load(); }, testing::kPatience));
    worker.join();
    EXPECT_EQ(answer, 42);
    EXPECT_TRUE(ranOnMain);

    // On the main thread nothing drives the loop for us: the block runs inline.
    EXPECT_EQ(DispatchQueue::main().sync([] { return 5; }), 5);
}

TEST_F(MainQueueTest, RunServesUntilStopped) {
    std::atomic<bool> driverIsMain{false};
    Gate served;
    std::thread driver([] { MainRunLoop::run(); });
    DispatchQueue::main().async([&] {
        driverIsMain = DispatchQueue::isMainThread();
        served.open();
    });
    ASSERT_TRUE(served.wait());
    EXPECT_TRUE(driverIsMain);
    // While another thread drives, this one is not the main thread.
    EXPECT_FALSE(DispatchQueue::isMainThread());
    DispatchQueue::main().async([] { MainRunLoop::stop(); });
    driver.join();
    EXPECT_TRUE(DispatchQueue::isMainThread());
}

TEST(DispatchGroup, NotifyFiresOnceWhenTheLastMemberLeaves) {
    DispatchQueue queue("test.group");
    DispatchGroup group;
    std::atomic<int> notified{0};
    Gate fired;
    group.enter();
    group.enter();
    group.notify(queue, [&] {
        ++notified;
        fired.open();
    });
    group.leave();
    EXPECT_FALSE(group.wait(1ms));
    group.leave();
    ASSERT_TRUE(fired.wait());
    group.enter();
    group.leave();
    queue.sync([] {});
    EXPECT_EQ(notified.load(), 1);
}

TEST(DispatchGroup, NotifyOnAnEmptyGroupIsQueuedAtOnce) {
    DispatchQueue queue("test.group");
    DispatchGroup group;
    Gate fired;
    group.notify(queue, [&] { fired.open(); });
    EXPECT_TRUE(fired.wait());
    EXPECT_TRUE(group.wait(0ms));
}

TEST(DispatchGroup, WaitSeesEveryAsyncBlockAcrossQueues) {
    DispatchQueue serial("test.group.serial");
    DispatchQueue concurrent("test.group.concurrent", DispatchQueue::Kind::concurrent);
    DispatchGroup group;
    std::atomic<int> count{0};
    for (int i = 0; i < 100; ++i) group.async(i % 2 ? serial : concurrent, [&] { ++count; });
    group.wait();
    EXPECT_EQ(count.load(), 100);
}

TEST(DispatchGroup, NotifyOnMainNeedsTheDriver) {
    MainRunLoop::drain();
    DispatchGroup group;
    bool notified = false;
    group.async(DispatchQueue::global(), [] {});
    group.notify(DispatchQueue::main(), [&] { notified = true; });
    EXPECT_TRUE(MainRunLoop::runUntil([&] { return notified; }, testing::kPatience));
}

TEST(DispatchGroup, LeavingMoreOftenThanEnteringIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            DispatchGroup group;
            group.enter();
            group.leave();
            group.leave();
        },
        "leave\\(\\) called more often than enter\\(\\)");
}

}  // namespace
}  // namespace tamsel::platform
