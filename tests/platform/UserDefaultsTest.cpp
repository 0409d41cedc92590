#include <gtest/gtest.h>
#include <SQLiteCpp/SQLiteCpp.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "platform/UserDefaults.h"
#include "support/TestSupport.h"

namespace tamsel::platform {
namespace {

using tamsel::testing::LogCapture;
using tamsel::testing::runChildEntry;
using tamsel::testing::TemporaryDirectory;
using tamsel::testing::waitUntil;

// What observers were told, readable from the test thread.
template <class T>
class Recorder {
public:
    void add(T item) {
        std::lock_guard lock(mutex_);
        items_.push_back(std::move(item));
    }
    std::vector<T> items() const {
        std::lock_guard lock(mutex_);
        return items_;
    }
    std::size_t size() const { return items().size(); }

private:
    mutable std::mutex mutex_;
    std::vector<T> items_;
};

struct Batch {
    std::vector<std::string> keys;
    bool external;
};

class UserDefaultsTest : public ::testing::Test {
protected:
    std::shared_ptr<UserDefaults> open(const std::string& suite = "suite") {
        auto defaults = UserDefaults::open(directory.path(), suite);
        EXPECT_NE(defaults, nullptr);
        return defaults;
    }

    TemporaryDirectory directory;
};

const Date someDate = Date(std::chrono::microseconds(1'700'000'000'123'456));

TEST_F(UserDefaultsTest, KeepsValuesWithTheirExactTypeAcrossReopening) {
    const Dictionary stored{
        {"bool", true},
        {"integer", 1},
        {"double", 1.0},
        {"string", "text"},
        {"date", someDate},
        {"data", Data{0, 1, 255}},
        {"array", Array{1, "two", Array{false}}},
        {"dictionary", Dictionary{{"type", "whitelist"}, {"enabled", false}}},
    };
    {
        auto defaults = open();
        for (const auto& [key, value] : stored) defaults->set(value, key);
    }
    auto reopened = open();
    EXPECT_EQ(reopened->dictionaryRepresentation(), stored);
    EXPECT_TRUE(reopened->boolValue("bool"));
    EXPECT_FALSE(reopened->integer("bool"));
    EXPECT_EQ(reopened->integer("integer"), 1);
    EXPECT_FALSE(reopened->boolValue("integer"));
    EXPECT_EQ(reopened->date("date"), someDate);
    EXPECT_EQ(reopened->dictionary("dictionary"), stored.at("dictionary").asDictionary());
    EXPECT_FALSE(reopened->dictionary("array"));
    EXPECT_EQ(reopened->path(), directory.path() / "suite.sqlite");
}

TEST_F(UserDefaultsTest, SuitesAreSeparateAndRemovalForgetsTheKey) {
    auto first = open("first");
    auto second = open("second");
    first->set("a", "key");
    EXPECT_FALSE(second->value("key"));
    first->removeObject("key");
    EXPECT_FALSE(first->value("key"));
    EXPECT_TRUE(first->dictionaryRepresentation().empty());
    first->set(Value(2), "key");
    EXPECT_EQ(first->integer("key"), 2);
}

TEST_F(UserDefaultsTest, OpeningFailsWhereNoDatabaseCanBe) {
    LogCapture log;
    std::ofstream(directory / "file") << "not a folder";
    EXPECT_EQ(UserDefaults::open(directory / "file", "suite"), nullptr);
    std::ofstream(directory / "garbage.sqlite") << std::string(8192, 'x');
    EXPECT_EQ(UserDefaults::open(directory.path(), "garbage"), nullptr);
    EXPECT_TRUE(log.contains("Could not open the defaults suite \"garbage\""));
}

TEST_F(UserDefaultsTest, UnreadableStoredValueReadsAsMissing) {
    auto defaults = open();
    defaults->set(true, "good");
    {
        SQLite::Database raw((directory / "suite.sqlite").string(), SQLite::OPEN_READWRITE);
        raw.exec("INSERT INTO entries(key, value, version) VALUES('bad', x'7a7a', 1000)");
    }
    LogCapture log;
    EXPECT_FALSE(defaults->value("bad"));
    EXPECT_EQ(defaults->dictionaryRepresentation().size(), 1u);
    EXPECT_TRUE(log.contains("unreadable value stored for key \"bad\""));
}

TEST_F(UserDefaultsTest, ValuesNestedBeyondTheLimitAreNeitherWrittenNorRead) {
    auto defaults = open();
    Value deepest = Array{};
    for (int level = 1; level < Value::maximumDepth; ++level) deepest = Array{deepest};
    defaults->set(deepest, "deepest");
    EXPECT_EQ(defaults->value("deepest"), deepest);

    LogCapture log;
    defaults->set(Array{deepest}, "deeper");
    EXPECT_EQ(defaults->storedValue("deeper"), std::nullopt) << "nothing was stored";
    EXPECT_TRUE(log.contains("Could not write key \"deeper\" of suite \"suite\": the value is nested deeper than 256"));

    // Another program's bytes: a hundred thousand arrays, one in the other.
    std::string bytes;
    for (int level = 0; level < 100'000; ++level) bytes += std::string("a\1\0\0\0\0\0\0\0", 9);
    bytes += "b\1";
    {
        SQLite::Database raw((directory / "suite.sqlite").string(), SQLite::OPEN_READWRITE);
        SQLite::Statement insert(raw, "INSERT INTO entries(key, value, version) VALUES('foreign', ?, 1000)");
        insert.bind(1, bytes.data(), static_cast<int>(bytes.size()));
        insert.exec();
    }
    EXPECT_EQ(defaults->value("foreign"), std::nullopt);
    const auto stored = defaults->storedValue("foreign");
    ASSERT_FALSE(stored);
    EXPECT_EQ(stored.error(), "nested deeper than 256 levels");
    EXPECT_EQ(defaults->dictionaryRepresentation().size(), 1u);
    EXPECT_TRUE(log.contains("unreadable value stored for key \"foreign\": nested deeper than 256 levels"));
}

TEST_F(UserDefaultsTest, InMemorySuiteWorksAndObserves) {
    auto defaults = UserDefaults::inMemory("memory");
    Recorder<std::optional<Value>> seen;
    auto token = defaults->observe("k", [&](const std::optional<Value>& value) { seen.add(value); });
    defaults->set(3, "k");
    defaults->deliverPendingChanges();
    EXPECT_EQ(seen.items(), (std::vector<std::optional<Value>>{Value(3)}));
    EXPECT_TRUE(defaults->path().empty());
}

// --- observation within one process ------------------------------------------

TEST_F(UserDefaultsTest, ObserverHearsEverySetAndRemovalOfItsKeyInOrder) {
    auto defaults = open();
    Recorder<std::optional<Value>> seen;
    auto token = defaults->observe("signal", [&](const std::optional<Value>& value) { seen.add(value); });
    defaults->set(true, "signal");
    defaults->set(true, "signal");  // a repeated signal is heard again
    defaults->set("other", "unrelated");
    defaults->removeObject("signal");
    defaults->removeObject("signal");  // nothing left to remove: nothing to hear
    defaults->set(Dictionary{{"domain", "example.com"}}, "signal");
    defaults->deliverPendingChanges();
    EXPECT_EQ(seen.items(), (std::vector<std::optional<Value>>{Value(true), Value(true), std::nullopt,
                                                               Value(Dictionary{{"domain", "example.com"}})}));
}

TEST_F(UserDefaultsTest, AnotherConnectionsWritesAreHeardAsExternal) {
    auto writer = open();
    auto reader = open();
    Recorder<std::optional<Value>> values;
    Recorder<Batch> readerBatches;
    Recorder<Batch> writerBatches;
    auto valueToken = reader->observe("k", [&](const std::optional<Value>& value) { values.add(value); });
    auto readerToken = reader->observeAll(
        [&](const std::vector<std::string>& keys, bool external) { readerBatches.add({keys, external}); });
    auto writerToken = writer->observeAll(
        [&](const std::vector<std::string>& keys, bool external) { writerBatches.add({keys, external}); });

    writer->set(7, "k");
    ASSERT_TRUE(waitUntil([&] { return values.size() == 1; }));
    EXPECT_EQ(values.items()[0], Value(7));
    writer->removeObject("k");
    ASSERT_TRUE(waitUntil([&] { return values.size() == 2; }));
    EXPECT_EQ(values.items()[1], std::nullopt);

    writer->deliverPendingChanges();
    reader->deliverPendingChanges();
    for (const auto& batch : readerBatches.items()) EXPECT_TRUE(batch.external);
    ASSERT_EQ(writerBatches.size(), 2u);
    for (const auto& batch : writerBatches.items()) EXPECT_FALSE(batch.external);
    // The reader's own write in between is told as its own, not as external.
    reader->set(1, "mine");
    reader->deliverPendingChanges();
    ASSERT_FALSE(readerBatches.items().empty());
    EXPECT_FALSE(readerBatches.items().back().external);
    EXPECT_EQ(readerBatches.items().back().keys, std::vector<std::string>{"mine"});
}

TEST_F(UserDefaultsTest, OwnWriteAfterUnseenExternalWritesIsNotToldTwice) {
    auto other = open();
    auto defaults = open();
    Recorder<Batch> batches;
    auto token = defaults->observeAll(
        [&](const std::vector<std::string>& keys, bool external) { batches.add({keys, external}); });
    // The other connection writes, and this one writes before its watcher looks.
    other->set(1, "theirs");
    defaults->set(2, "mine");
    ASSERT_TRUE(waitUntil([&] {
        std::size_t keys = 0;
        for (const auto& batch : batches.items()) keys += batch.keys.size();
        return keys >= 2;
    }));
    defaults->deliverPendingChanges();
    std::vector<std::pair<std::string, bool>> told;
    for (const auto& batch : batches.items()) {
        for (const auto& key : batch.keys) told.emplace_back(key, batch.external);
    }
    EXPECT_EQ(told, (std::vector<std::pair<std::string, bool>>{{"theirs", true}, {"mine", false}}));
}

TEST_F(UserDefaultsTest, ObserversHearOnlyChangesMadeAfterTheyStarted) {
    auto other = open();
    other->set(1, "before");
    auto defaults = open();
    other->set(2, "before");
    Recorder<Batch> batches;
    auto token = defaults->observeAll(
        [&](const std::vector<std::string>& keys, bool external) { batches.add({keys, external}); });
    other->set(3, "after");
    ASSERT_TRUE(waitUntil([&] { return batches.size() == 1; }));
    defaults->deliverPendingChanges();
    ASSERT_EQ(batches.size(), 1u);
    EXPECT_EQ(batches.items()[0].keys, std::vector<std::string>{"after"});
}

TEST_F(UserDefaultsTest, DroppedTokenIsNeverCalledAgainAndWaitsForARunningCall) {
    auto defaults = open();
    std::atomic<bool> entered{false};
    std::atomic<bool> release{false};
    std::atomic<bool> finished{false};
    std::atomic<int> calls{0};
    auto token = defaults->observe("k", [&](const std::optional<Value>&) {
        ++calls;
        entered = true;
        while (!release) std::this_thread::yield();
        finished = true;
    });
    defaults->set(1, "k");
    ASSERT_TRUE(waitUntil([&] { return entered.load(); }));
    std::thread releaser([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        release = true;
    });
    token.reset();
    EXPECT_TRUE(finished) << "reset returned while the handler was still running";
    releaser.join();
    defaults->set(2, "k");
    defaults->deliverPendingChanges();
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(token.isActive());
}

TEST_F(UserDefaultsTest, HandlersMayRemoveThemselvesWriteAndFlush) {
    auto defaults = open();
    ObservationToken selfRemoving;
    std::atomic<int> selfRemovingCalls{0};
    selfRemoving = defaults->observe("k", [&](const std::optional<Value>&) {
        ++selfRemovingCalls;
        selfRemoving.reset();
    });
    Recorder<std::optional<Value>> echoes;
    auto echo = defaults->observe("k", [&](const std::optional<Value>& value) {
        defaults->deliverPendingChanges();  // must not wait for itself
        if (value && value->asInteger() < 3) defaults->set(*value->asInteger() + 1, "k");
        echoes.add(value);
    });
    defaults->set(1, "k");
    ASSERT_TRUE(waitUntil([&] { return echoes.size() == 3; }));
    defaults->deliverPendingChanges();
    EXPECT_EQ(echoes.items(), (std::vector<std::optional<Value>>{Value(1), Value(2), Value(3)}));
    EXPECT_EQ(selfRemovingCalls, 1);
}

TEST_F(UserDefaultsTest, TokensMayOutliveTheirStore) {
    auto defaults = open();
    auto token = defaults->observe("k", [](const std::optional<Value>&) {});
    defaults.reset();
    token.reset();  // must neither crash nor hang
    SUCCEED();
}

TEST_F(UserDefaultsTest, HandlerMayDropTheLastReferenceToItsStore) {
    auto defaults = open();
    std::atomic<bool> done{false};
    ObservationToken token;
    token = defaults->observe("k", [&](const std::optional<Value>&) {
        token.reset();
        defaults.reset();
        done = true;
    });
    auto writer = defaults;
    writer->set(1, "k");
    writer.reset();
    ASSERT_TRUE(waitUntil([&] { return done.load(); }));
}

TEST_F(UserDefaultsTest, ThreadsWritingAtOnceLoseNothing) {
    auto defaults = open();
    Recorder<std::string> told;
    auto token = defaults->observeAll([&](const std::vector<std::string>& keys, bool) {
        for (const auto& key : keys) told.add(key);
    });
    constexpr int perThread = 100;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                defaults->set(i, "thread" + std::to_string(t) + "-" + std::to_string(i));
                (void)defaults->value("thread0-0");
            }
        });
    }
    for (auto& thread : threads) thread.join();
    defaults->deliverPendingChanges();
    EXPECT_EQ(defaults->dictionaryRepresentation().size(), 3u * perThread);
    EXPECT_EQ(told.size(), 3u * perThread);
}

// --- observation across processes --------------------------------------------

// arguments: directory, suite, then key/JSON-value pairs; "-" as value removes.
TAMSEL_CHILD_ENTRY(writeDefaults) {
    auto defaults = UserDefaults::open(arguments.at(0), arguments.at(1));
    if (!defaults) return 2;
    for (std::size_t i = 2; i + 1 < arguments.size(); i += 2) {
        if (arguments[i + 1] == "-") {
            defaults->removeObject(arguments[i]);
            continue;
        }
        auto value = Value::fromJSON(arguments[i + 1]);
        if (!value) return 3;
        defaults->set(*value, arguments[i]);
    }
    return 0;
}

// arguments: directory, suite, prefix, count.
TAMSEL_CHILD_ENTRY(writeManyDefaults) {
    auto defaults = UserDefaults::open(arguments.at(0), arguments.at(1));
    if (!defaults) return 2;
    const int count = std::stoi(arguments.at(3));
    for (int i = 0; i < count; ++i) defaults->set(i, arguments.at(2) + std::to_string(i));
    return 0;
}

TEST_F(UserDefaultsTest, ObserverHearsWritesOfAnotherProcess) {
    auto defaults = open();
    defaults->set(1, "gone");
    Recorder<std::optional<Value>> signal;
    Recorder<std::optional<Value>> gone;
    Recorder<Batch> batches;
    auto signalToken = defaults->observe("signal", [&](const std::optional<Value>& value) { signal.add(value); });
    auto goneToken = defaults->observe("gone", [&](const std::optional<Value>& value) { gone.add(value); });
    auto allToken = defaults->observeAll(
        [&](const std::vector<std::string>& keys, bool external) { batches.add({keys, external}); });

    const std::string payload = R"({"type":"whitelist","domain":"example.com","enabled":true})";
    ASSERT_EQ(runChildEntry("writeDefaults", {directory.path().string(), "suite", "signal", payload, "gone", "-"}), 0);

    ASSERT_TRUE(waitUntil([&] { return signal.size() == 1 && gone.size() == 1; }));
    EXPECT_EQ(signal.items()[0], *Value::fromJSON(payload));
    EXPECT_EQ(gone.items()[0], std::nullopt);
    EXPECT_EQ(defaults->dictionary("signal"), Value::fromJSON(payload)->asDictionary());
    defaults->deliverPendingChanges();
    std::vector<std::string> keys;
    for (const auto& batch : batches.items()) {
        EXPECT_TRUE(batch.external);
        keys.insert(keys.end(), batch.keys.begin(), batch.keys.end());
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"signal", "gone"}));
}

TEST_F(UserDefaultsTest, TwoProcessesWritingAtOnceLoseNothing) {
    auto defaults = open();
    LogCapture log;
    constexpr int count = 150;
    std::thread child([&] {
        EXPECT_EQ(runChildEntry("writeManyDefaults",
                                {directory.path().string(), "suite", "child", std::to_string(count)}),
                  0);
    });
    for (int i = 0; i < count; ++i) defaults->set(i, "parent" + std::to_string(i));
    child.join();
    const Dictionary all = defaults->dictionaryRepresentation();
    EXPECT_EQ(all.size(), 2u * count);
    EXPECT_EQ(all.at("child149"), Value(149));
    EXPECT_FALSE(log.contains("Could not write"));
}

}  // namespace
}  // namespace tamsel::platform
