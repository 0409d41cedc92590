#include "platform/Synchronized.h"

#include "ConcurrencyTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace tamsel::platform {
namespace {

using testing::Rendezvous;

TEST(Synchronized, QueueLabelEndsInSynchronized) {
    Synchronized<int> value("app.tamsel.history-store-lock");
    EXPECT_EQ(value.label(), "app.tamsel.history-store-lock.synchronized");
}

TEST(Synchronized, ReadAfterWriteFromTheSameThreadSeesTheWrite) {
    Synchronized<std::map<std::string, int>> counts("test.counts");
    for (int i = 0; i < 500; ++i) {
        counts.write([i](auto& map) { map["key"] = i; });
        ASSERT_EQ(counts.read([](const auto& map) { return map.at("key"); }), i);
    }
    EXPECT_EQ(counts.value().size(), 1u);
}

TEST(Synchronized, ConcurrentWritersLoseNoUpdate) {
    Synchronized<std::map<int, int>> counts("test.writers");
    constexpr int kThreads = 8;
    constexpr int kWrites = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kWrites; ++i) {
                counts.write([t](auto& map) { ++map[t]; });
                // Interleaved reads must never see a half-done write.
                const int total = counts.read([](const auto& map) {
                    int sum = 0;
                    for (const auto& [key, value] : map) sum += value;
                    return sum;
                });
                ASSERT_GE(total, i + 1);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    const auto result = counts.value();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(result.at(t), kWrites);
}

TEST(Synchronized, ReadsRunInParallel) {
    Synchronized<int> value("test.readers", 0);
    Rendezvous bothReading(2);
    std::atomic<int> met{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r) {
        readers.emplace_back([&] {
            value.read([&](const int&) {
                if (bothReading.arrive()) ++met;
                return 0;
            });
        });
    }
    for (auto& reader : readers) reader.join();
    EXPECT_EQ(met.load(), 2);
}

TEST(Synchronized, WritesRunAloneWhileReadersKeepReading) {
    Synchronized<int> value("test.exclusive", 0);
    std::atomic<int> readersInside{0};
    std::atomic<int> writesThatSawReaders{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back([&] {
            while (!stop) {
                value.read([&](const int& v) {
                    ++readersInside;
                    std::this_thread::yield();
                    --readersInside;
                    return v;
                });
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        value.write([&](int& v) {
            if (readersInside.load() != 0) ++writesThatSawReaders;
            std::this_thread::yield();
            if (readersInside.load() != 0) ++writesThatSawReaders;
            ++v;
        });
    }
    EXPECT_EQ(value.value(), 100);
    stop = true;
    for (auto& reader : readers) reader.join();
    EXPECT_EQ(writesThatSawReaders.load(), 0);
}

TEST(Synchronized, DestructionWaitsForPendingWrites) {
    std::atomic<int> applied{0};
    {
        Synchronized<std::vector<int>> list("test.pending");
        for (int i = 0; i < 100; ++i) {
            list.write([&, i](auto& v) {
                v.push_back(i);
                ++applied;
            });
        }
    }
    EXPECT_EQ(applied.load(), 100);
}

}  // namespace
}  // namespace tamsel::platform
