#include "platform/OperationQueue.h"

#include "platform/DispatchQueue.h"

#include "ConcurrencyTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace tamsel::platform {
namespace {

using testing::eventually;
using testing::Gate;
using testing::Rendezvous;
using ::testing::ElementsAre;

// Appends names to a list from any thread.
class Journal {
public:
    void add(std::string entry) {
        std::lock_guard lock(mutex_);
        entries_.push_back(std::move(entry));
    }
    std::vector<std::string> entries() {
        std::lock_guard lock(mutex_);
        return entries_;
    }

private:
    std::mutex mutex_;
    std::vector<std::string> entries_;
};

// An operation that starts its work elsewhere and is finished from outside.
class AsyncOperation : public Operation {
public:
    bool isAsynchronous() const override { return true; }
    void main() override { started.open(); }
    void complete() { finish(); }
    Gate started;
};

TEST(OperationQueue, NeverRunsMoreThanTheMaximumAtOnce) {
    OperationQueue queue("test.limited");
    queue.setMaxConcurrentOperationCount(2);
    testing::Overlap overlap;
    for (int i = 0; i < 16; ++i) {
        queue.addOperation([&] {
            overlap.enter();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            overlap.leave();
        });
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_LE(overlap.peak.load(), 2);
    EXPECT_EQ(queue.operationCount(), 0u);
}

TEST(OperationQueue, RunsUpToTheMaximumInParallel) {
    OperationQueue queue("test.parallel");
    queue.setMaxConcurrentOperationCount(2);
    Rendezvous meeting(2);
    std::atomic<int> met{0};
    for (int i = 0; i < 2; ++i) {
        queue.addOperation([&] {
            if (meeting.arrive()) ++met;
        });
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(met.load(), 2);
}

TEST(OperationQueue, StartsReadyOperationsInTheOrderAdded) {
    OperationQueue queue("test.fifo");
    queue.setMaxConcurrentOperationCount(1);
    Journal journal;
    for (int i = 0; i < 20; ++i) queue.addOperation([&, i] { journal.add(std::to_string(i)); });
    queue.waitUntilAllOperationsAreFinished();
    const auto entries = journal.entries();
    ASSERT_EQ(entries.size(), 20u);
    for (int i = 0; i < 20; ++i) EXPECT_EQ(entries[static_cast<size_t>(i)], std::to_string(i));
}

TEST(OperationQueue, ZeroMaximumHoldsOperationsBackUntilRaised) {
    OperationQueue queue("test.held");
    queue.setMaxConcurrentOperationCount(0);
    std::atomic<bool> ran{false};
    auto operation = BlockOperation::make([&] { ran = true; });
    queue.addOperation(operation);
    EXPECT_EQ(queue.operationCount(), 1u);
    EXPECT_FALSE(operation->isExecuting());
    queue.setMaxConcurrentOperationCount(1);
    operation->waitUntilFinished();
    EXPECT_TRUE(ran);
}

TEST(OperationQueue, CancelledBeforeStartNeverRunsMainButStillFinishes) {
    OperationQueue queue("test.cancel");
    queue.setMaxConcurrentOperationCount(1);
    Gate release;
    Journal journal;
    auto running = BlockOperation::make([&] {
        journal.add("running");
        release.wait();
    });
    running->setCompletionBlock([&] { journal.add("running done"); });
    queue.addOperation(running);
    std::vector<std::shared_ptr<Operation>> waiting;
    for (int i = 0; i < 5; ++i) {
        auto operation = BlockOperation::make([&] { journal.add("waiting ran"); });
        operation->setCompletionBlock([&] { journal.add("waiting done"); });
        waiting.push_back(operation);
        queue.addOperation(operation);
    }
    ASSERT_TRUE(eventually([&] { return running->isExecuting(); }));
    EXPECT_EQ(queue.operations().size(), 6u);

    queue.cancelAllOperations();
    // Dropped at once, without waiting for the running one's slot.
    for (auto& operation : waiting) {
        operation->waitUntilFinished();
        EXPECT_TRUE(operation->isCancelled());
        EXPECT_TRUE(operation->isFinished());
    }
    EXPECT_TRUE(running->isCancelled());
    EXPECT_FALSE(running->isFinished());
    release.open();
    queue.waitUntilAllOperationsAreFinished();

    const auto entries = journal.entries();
    EXPECT_EQ(std::count(entries.begin(), entries.end(), "waiting ran"), 0);
    EXPECT_EQ(std::count(entries.begin(), entries.end(), "waiting done"), 5);
    EXPECT_EQ(std::count(entries.begin(), entries.end(), "running done"), 1);
}

TEST(OperationQueue, DependantsWaitForTheirDependenciesAcrossQueues) {
    OperationQueue first("test.first");
    OperationQueue second("test.second");
    Journal journal;
    Gate release;
    auto a = BlockOperation::make([&] {
        release.wait();
        journal.add("a");
    });
    auto b = BlockOperation::make([&] { journal.add("b"); });
    auto c = BlockOperation::make([&] { journal.add("c"); });
    c->addDependency(b);
    b->addDependency(a);
    // Added in reverse: the dependencies, not the order, decide.
    second.addOperation(c);
    second.addOperation(b);
    first.addOperation(a);
    EXPECT_TRUE(b->dependencies() == std::vector<std::shared_ptr<Operation>>{a});
    EXPECT_FALSE(b->isReady());
    release.open();
    c->waitUntilFinished();
    EXPECT_THAT(journal.entries(), ElementsAre("a", "b", "c"));
}

TEST(OperationQueue, DependantRunsAfterACancelledDependency) {
    OperationQueue queue("test.cancelled-dependency");
    queue.setMaxConcurrentOperationCount(0);
    auto dependency = BlockOperation::make([] {});
    std::atomic<bool> ran{false};
    auto dependant = BlockOperation::make([&] { ran = true; });
    dependant->addDependency(dependency);
    queue.addOperation(dependency);
    queue.addOperation(dependant);
    dependency->cancel();
    dependency->waitUntilFinished();
    queue.setMaxConcurrentOperationCount(1);
    dependant->waitUntilFinished();
    EXPECT_TRUE(ran);
    EXPECT_FALSE(dependant->isCancelled());
}

TEST(OperationQueue, DependencyAddedAfterItFinishedDoesNotHoldBack) {
    auto done = BlockOperation::make([] {});
    done->start();
    ASSERT_TRUE(done->isFinished());
    OperationQueue queue("test.late-dependency");
    auto operation = BlockOperation::make([] {});
    operation->addDependency(done);
    queue.addOperation(operation);
    operation->waitUntilFinished();
    EXPECT_TRUE(operation->isFinished());
}

TEST(OperationQueue, AsynchronousOperationKeepsItsSlotUntilItFinishes) {
    OperationQueue queue("test.async");
    queue.setMaxConcurrentOperationCount(1);
    auto async = std::make_shared<AsyncOperation>();
    std::atomic<bool> nextRan{false};
    queue.addOperation(async);
    queue.addOperation([&] { nextRan = true; });
    ASSERT_TRUE(async->started.wait());
    // main() has returned, but the operation is still executing.
    EXPECT_TRUE(eventually([&] { return async->isExecuting(); }));
    EXPECT_FALSE(async->isFinished());
    EXPECT_EQ(queue.operationCount(), 2u);
    EXPECT_FALSE(nextRan);

    std::thread finisher([&] { async->complete(); });
    finisher.join();
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(async->isFinished());
    EXPECT_FALSE(async->isExecuting());
    EXPECT_TRUE(nextRan);
}

TEST(OperationQueue, AsynchronousOperationFinishedFromItsCallbackAlone) {
    // Only the callback holds the operation once the queue lets go of it.
    OperationQueue queue("test.async-callback");
    DispatchQueue worker("test.async-worker");
    std::atomic<bool> completed{false};
    {
        auto operation = std::make_shared<AsyncOperation>();
        operation->setCompletionBlock([&] { completed = true; });
        queue.addOperation(operation);
        ASSERT_TRUE(operation->started.wait());
        worker.async([operation] { operation->complete(); });
    }
    queue.waitUntilAllOperationsAreFinished();
    worker.sync([] {});
    EXPECT_TRUE(completed);
}

TEST(Operation, CompletionBlockRunsBeforeWaitersAreReleased) {
    OperationQueue queue("test.completion");
    std::atomic<bool> completion{false};
    auto operation = BlockOperation::make([] {});
    operation->setName("named");
    operation->setCompletionBlock([&] { completion = true; });
    queue.addOperation(operation);
    operation->waitUntilFinished();
    EXPECT_TRUE(completion);
    EXPECT_EQ(operation->name(), "named");
}

TEST(Operation, StartedByHandWhenCancelledSkipsMain) {
    bool ran = false;
    auto operation = BlockOperation::make([&] { ran = true; });
    operation->cancel();
    operation->start();
    EXPECT_FALSE(ran);
    EXPECT_TRUE(operation->isFinished());
}

TEST(OperationQueue, DestroyingTheQueueCancelsWaitingOperationsAndWaitsForRunningOnes) {
    Gate release;
    std::atomic<bool> runningFinished{false};
    std::atomic<bool> waitingRan{false};
    auto waiting = BlockOperation::make([&] { waitingRan = true; });
    std::thread releaser;
    {
        OperationQueue queue("test.destroy");
        queue.setMaxConcurrentOperationCount(1);
        auto running = BlockOperation::make([&] {
            release.wait();
            runningFinished = true;
        });
        queue.addOperation(running);
        queue.addOperation(waiting);
        ASSERT_TRUE(eventually([&] { return running->isExecuting(); }));
        releaser = std::thread([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            release.open();
        });
    }
    releaser.join();
    EXPECT_TRUE(runningFinished);
    EXPECT_TRUE(waiting->isFinished());
    EXPECT_FALSE(waitingRan);
}

TEST(OperationQueue, AddingAnOperationTwiceIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            OperationQueue queue("test.twice");
            queue.setMaxConcurrentOperationCount(0);
            auto operation = BlockOperation::make([] {});
            operation->setName("twice");
            queue.addOperation(operation);
            queue.addOperation(operation);
        },
        "\"twice\" was already added");
}

}  // namespace
}  // namespace tamsel::platform
