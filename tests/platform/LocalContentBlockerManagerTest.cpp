#include "platform/LocalContentBlockerManager.h"

#include <gtest/gtest.h>

#include <future>

#include "platform/Files.h"
#include "support/TestSupport.h"

using namespace tamsel::platform;
using tamsel::testing::ScopedDataRoot;

namespace {

const std::string adsID = "app.example.ads";

class LocalContentBlockerManagerTest : public ::testing::Test {
protected:
    std::shared_ptr<LocalContentBlockerManager> makeManager() {
        return LocalContentBlockerManager::open([this](const std::string& identifier)
                                                    -> std::optional<std::filesystem::path> {
            if (identifier == adsID) return file;
            return std::nullopt;
        });
    }

    std::optional<PlatformError> reload(LocalContentBlockerManager& manager, const std::string& id = adsID) {
        std::promise<std::optional<PlatformError>> answer;
        manager.reloadContentBlocker(id, [&](std::optional<PlatformError> error) { answer.set_value(error); });
        return answer.get_future().get();
    }

    void writeList(std::string_view json) { ASSERT_TRUE(writeFileAtomically(file, json)); }

    ScopedDataRoot root;
    std::filesystem::path file = root.home() / "safari-block-ads.json";
};

constexpr std::string_view goodList =
    R"([{"trigger":{"url-filter":"ads"},"action":{"type":"block"}},)"
    R"({"trigger":{"url-filter":".*","if-domain":["example.com"]},"action":{"type":"ignore-previous-rules"}}])";

}  // namespace

TEST_F(LocalContentBlockerManagerTest, AcceptedListIsRecordedWithItsEntryCount) {
    writeList(goodList);
    auto manager = makeManager();
    EXPECT_EQ(reload(*manager), std::nullopt);
    auto record = manager->lastReload(adsID);
    ASSERT_TRUE(record);
    EXPECT_FALSE(record->error);
    EXPECT_EQ(record->entryCount, 2u);
}

TEST_F(LocalContentBlockerManagerTest, RefusedListAnswersWithWebKitsCompileError) {
    writeList(R"([{"trigger":{"url-filter":"a|b"},"action":{"type":"block"}}])");
    auto manager = makeManager();
    auto error = reload(*manager);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, "WKErrorDomain");
    EXPECT_EQ(error->code, 6);
    EXPECT_EQ(error->preferredText(), "Rule list compilation failed: Invalid or unsupported regular expression.");
    ASSERT_TRUE(manager->lastReload(adsID)->error);
}

TEST_F(LocalContentBlockerManagerTest, MissingFileAndUnknownIdentifierFail) {
    auto manager = makeManager();
    auto missing = reload(*manager);
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->domain, "WKErrorDomain");
    auto unknown = reload(*manager, "app.example.nothing");
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->domain, "SFErrorDomain");
}

TEST_F(LocalContentBlockerManagerTest, InjectedFailuresAreConsumedOneReloadAtATime) {
    writeList(goodList);
    auto manager = makeManager();
    manager->failNext(adsID, 3, 2);
    manager->failNext("other", 4097, 1);
    // A second manager over the same folder stands for another `tamsel` run.
    auto other = makeManager();
    EXPECT_EQ(other->pendingFailures(adsID), 2);

    auto first = reload(*manager);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->domain, "SFErrorDomain");
    EXPECT_EQ(first->code, 3);
    auto second = reload(*other);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->code, 3);
    EXPECT_EQ(reload(*manager), std::nullopt);
    EXPECT_EQ(manager->pendingFailures(adsID), 0);

    EXPECT_EQ(LocalContentBlockerManager::transientError(4097).domain, "NSCocoaErrorDomain");
}

TEST_F(LocalContentBlockerManagerTest, EnabledStateIsPersistedAndDefaultsToEnabled) {
    auto manager = makeManager();
    EXPECT_TRUE(manager->isEnabled(adsID));
    manager->setEnabled(adsID, false);
    auto other = makeManager();
    std::promise<std::optional<ContentBlockerState>> answer;
    other->getStateOfContentBlocker(adsID, [&](auto state, auto) { answer.set_value(state); });
    auto state = answer.get_future().get();
    ASSERT_TRUE(state);
    EXPECT_FALSE(state->isEnabled);

    std::promise<std::optional<PlatformError>> unknown;
    other->getStateOfContentBlocker("nope", [&](auto, auto error) { unknown.set_value(error); });
    EXPECT_TRUE(unknown.get_future().get());
}

namespace {

bool blocksAds(LocalContentBlockerManager& manager, const std::string& page = "https://news.example/") {
    auto matcher = manager.matcher(adsID);
    if (!matcher) return false;
    auto load = PreparedLoad::prepare({"https://cdn.example/ads.js", page, LoadResourceType::script});
    return load && matcher->evaluate(*load).blocked;
}

}  // namespace

TEST_F(LocalContentBlockerManagerTest, EachSuccessfulReloadBuildsTheMatcherThatLoadsMeet) {
    auto manager = makeManager();
    EXPECT_EQ(manager->matcher(adsID), nullptr);  // never reloaded: nothing blocks
    writeList(goodList);
    ASSERT_EQ(reload(*manager), std::nullopt);
    EXPECT_TRUE(blocksAds(*manager));
    EXPECT_FALSE(blocksAds(*manager, "https://example.com/"));
    // The list is kept as another name of the file it was compiled from.
    EXPECT_TRUE(std::filesystem::equivalent(manager->compiledListsFolder() / (adsID + ".json"), file));

    // Another process sees what this one compiled, not what the file holds since.
    writeList(R"([{"trigger":{"url-filter":"nothing"},"action":{"type":"block"}}])");
    EXPECT_TRUE(blocksAds(*makeManager()));

    // A refused reload leaves the last compiled list in place.
    writeList(R"([{"trigger":{"url-filter":"a|b"},"action":{"type":"block"}}])");
    ASSERT_TRUE(reload(*manager));
    EXPECT_TRUE(blocksAds(*manager));
}

TEST_F(LocalContentBlockerManagerTest, OnlyAChangedWhitelistTailReusesTheCompiledBody) {
    auto manager = makeManager();
    writeList(goodList);
    ASSERT_EQ(reload(*manager), std::nullopt);
    writeList(R"([{"trigger":{"url-filter":"ads"},"action":{"type":"block"}},)"
              R"({"trigger":{"url-filter":".*","if-domain":["news.example"]},"action":{"type":"ignore-previous-rules"}}])");
    ASSERT_EQ(reload(*manager), std::nullopt);
    EXPECT_TRUE(manager->matcher(adsID)->reusedBody());
    EXPECT_FALSE(blocksAds(*manager));
    EXPECT_TRUE(blocksAds(*manager, "https://example.com/"));
}

TEST_F(LocalContentBlockerManagerTest, WhilePausedAReloadServesAnEmptyListUntilTheNextReload) {
    bool paused = false;
    auto manager = makeManager();
    manager->setServesEmptyList([&paused] { return paused; });
    writeList(goodList);
    ASSERT_EQ(reload(*manager), std::nullopt);
    paused = true;
    EXPECT_TRUE(blocksAds(*manager));  // the pause takes effect with the next reload
    ASSERT_EQ(reload(*manager), std::nullopt);
    EXPECT_FALSE(blocksAds(*manager));
    EXPECT_EQ(*readFile(manager->compiledListsFolder() / (adsID + ".json")), "[]");
    EXPECT_EQ(*readFile(file), goodList) << "the rule file itself is left alone";
    paused = false;
    EXPECT_FALSE(blocksAds(*manager));
    ASSERT_EQ(reload(*manager), std::nullopt);
    EXPECT_TRUE(blocksAds(*manager));
}
