#include "platform/NotificationCenter.h"

#include "platform/DispatchQueue.h"
#include "platform/MainRunLoop.h"

#include "ConcurrencyTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace tamsel::platform {
namespace {

using testing::eventually;
using testing::Gate;
using ::testing::ElementsAre;

TEST(NotificationCenter, SynchronousObserversGetMatchingNotificationsInOrderOnThePostingThread) {
    NotificationCenter center;
    std::vector<std::string> seen;
    std::thread::id deliveredOn;
    auto first = center.addObserver("didReloadExtension", nullptr, [&](const Notification& note) {
        deliveredOn = std::this_thread::get_id();
        const auto* type = note.userInfoValue<std::string>("extensionType");
        const auto* object = std::any_cast<int>(&note.object);
        seen.push_back("first:" + (type ? *type : "?") + ":" + std::to_string(object ? *object : -1));
    });
    auto second = center.addObserver("didReloadExtension", nullptr,
                                      [&](const Notification&) { seen.push_back("second"); });
    auto everything = center.addObserver("", nullptr,
                                         [&](const Notification& note) { seen.push_back("all:" + note.name); });
    auto other = center.addObserver("willReloadExtension", nullptr, [&](const Notification&) { seen.push_back("other"); });

    center.post("didReloadExtension", 7, UserInfo{{"extensionType", std::string("block-ads")}});
    EXPECT_THAT(seen, ElementsAre("first:block-ads:7", "second", "all:didReloadExtension"));
    EXPECT_EQ(deliveredOn, std::this_thread::get_id());
}

TEST(NotificationCenter, MissingOrMistypedUserInfoIsAbsent) {
    Notification note{"n", {}, UserInfo{{"progress", 0.5}}};
    EXPECT_EQ(note.userInfoValue<int>("progress"), nullptr);
    EXPECT_EQ(note.userInfoValue<double>("missing"), nullptr);
    ASSERT_NE(note.userInfoValue<double>("progress"), nullptr);
    EXPECT_EQ(*note.userInfoValue<double>("progress"), 0.5);
}

TEST(NotificationCenter, QueuedObserversGetEachNotificationOnTheirQueue) {
    NotificationCenter center;
    DispatchQueue queue("test.observer");
    std::vector<int> received;  // touched only on `queue`
    std::atomic<bool> onPostingThread{false};
    const auto poster = std::this_thread::get_id();
    auto token = center.addObserver("tick", &queue, [&](const Notification& note) {
        if (std::this_thread::get_id() == poster) onPostingThread = true;
        received.push_back(std::any_cast<int>(note.object));
    });
    for (int i = 0; i < 10; ++i) center.post("tick", i);
    const auto result = queue.sync([&] { return received; });
    EXPECT_THAT(result, ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9));
    EXPECT_FALSE(onPostingThread);
}

TEST(NotificationCenter, MainQueueObserversRunWhenTheMainQueueIsDriven) {
    MainRunLoop::drain();
    NotificationCenter center;
    int count = 0;
    auto token = center.addObserver("didUpdateExtensionStatusCache", &DispatchQueue::main(),
                                    [&](const Notification&) { ++count; });
    std::thread poster([&] { center.post("didUpdateExtensionStatusCache"); });
    poster.join();
    EXPECT_EQ(count, 0);
    EXPECT_TRUE(MainRunLoop::runUntil([&] { return count == 1; }, testing::kPatience));
}

TEST(ObserverToken, DestroyingReassigningOrRemovingStopsDelivery) {
    NotificationCenter center;
    int a = 0, b = 0, c = 0;
    {
        auto token = center.addObserver("n", nullptr, [&](const Notification&) { ++a; });
        center.post("n");
    }
    center.post("n");
    EXPECT_EQ(a, 1);

    ObserverToken token = center.addObserver("n", nullptr, [&](const Notification&) { ++b; });
    ObserverToken moved = std::move(token);
    EXPECT_FALSE(token.isActive());
    center.post("n");
    moved = center.addObserver("n", nullptr, [&](const Notification&) { ++c; });
    center.post("n");
    EXPECT_EQ(b, 1);
    EXPECT_EQ(c, 1);

    center.removeObserver(moved);
    center.post("n");
    EXPECT_EQ(c, 1);
}

TEST(ObserverToken, ReleasedObserverStaysRegistered) {
    NotificationCenter center;
    int count = 0;
    {
        auto token = center.addObserver("n", nullptr, [&](const Notification&) { ++count; });
        token.release();
        EXPECT_FALSE(token.isActive());
    }
    center.post("n");
    EXPECT_EQ(count, 1);
}

TEST(ObserverToken, MayOutliveItsCentre) {
    ObserverToken token;
    {
        NotificationCenter center;
        token = center.addObserver("n", nullptr, [](const Notification&) {});
    }
    token.remove();
    EXPECT_FALSE(token.isActive());
}

TEST(NotificationCenter, HandlersMayRemoveThemselvesAndPostWithoutDeadlock) {
    NotificationCenter center;
    int selfRemoving = 0;
    int nested = 0;
    std::optional<ObserverToken> token;
    token = center.addObserver("once", nullptr, [&](const Notification&) {
        ++selfRemoving;
        token.reset();  // destroys the token from inside its own handler
        center.post("nested");
    });
    auto nestedToken = center.addObserver("nested", nullptr, [&](const Notification&) { ++nested; });
    center.post("once");
    center.post("once");
    EXPECT_EQ(selfRemoving, 1);
    EXPECT_EQ(nested, 1);
}

TEST(NotificationCenter, QueuedDeliveryAfterRemovalIsSkipped) {
    NotificationCenter center;
    DispatchQueue queue("test.removal");
    Gate blocked;
    queue.async([&] { blocked.wait(); });
    std::atomic<int> delivered{0};
    auto token = center.addObserver("n", &queue, [&](const Notification&) { ++delivered; });
    center.post("n");  // queued behind the blocked block
    token.remove();
    blocked.open();
    queue.sync([] {});
    EXPECT_EQ(delivered.load(), 0);
}

TEST(NotificationCenter, RemovalWaitsForAHandlerRunningOnAnotherThread) {
    NotificationCenter center;
    DispatchQueue queue("test.in-flight");
    Gate entered;
    Gate proceed;
    std::atomic<bool> handlerReturned{false};
    auto token = center.addObserver("n", &queue, [&](const Notification&) {
        entered.open();
        proceed.wait();
        handlerReturned = true;
    });
    center.post("n");
    ASSERT_TRUE(entered.wait());
    std::thread opener([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        proceed.open();
    });
    token.remove();
    EXPECT_TRUE(handlerReturned);
    opener.join();
}

TEST(NotificationCenter, ConcurrentPostsAndRegistrationsAreSafe) {
    NotificationCenter center;
    DispatchQueue queue("test.stress", DispatchQueue::Kind::concurrent);
    std::atomic<int> delivered{0};
    std::atomic<int> steady{0};
    std::atomic<bool> stop{false};
    auto steadyToken = center.addObserver("n", nullptr, [&](const Notification&) { ++steady; });
    std::vector<std::thread> posters;
    for (int p = 0; p < 3; ++p) {
        posters.emplace_back([&] {
            while (!stop) center.post("n");
        });
    }
    ASSERT_TRUE(eventually([&] { return steady.load() > 0; }));
    for (int i = 0; i < 200; ++i) {
        auto token = center.addObserver("n", i % 2 ? &queue : nullptr, [&](const Notification&) { ++delivered; });
        std::this_thread::yield();
    }
    steadyToken.remove();
    // Nothing is registered any more: no call may start from here on, not even
    // one that was queued before its observer went away.
    const int afterRemoval = delivered.load();
    const int steadyAfterRemoval = steady.load();
    stop = true;
    for (auto& poster : posters) poster.join();
    center.post("n");
    queue.sync([] {});
    EXPECT_EQ(delivered.load(), afterRemoval);
    EXPECT_EQ(steady.load(), steadyAfterRemoval);
}

TEST(NotificationCenter, DefaultCentreIsOneInstance) {
    EXPECT_EQ(&NotificationCenter::defaultCenter(), &NotificationCenter::defaultCenter());
    int count = 0;
    auto token = NotificationCenter::defaultCenter().addObserver("test.default", nullptr,
                                                                 [&](const Notification&) { ++count; });
    NotificationCenter::defaultCenter().post("test.default");
    EXPECT_EQ(count, 1);
}

}  // namespace
}  // namespace tamsel::platform
