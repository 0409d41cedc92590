#include "storage/SafariJSONBuilder.h"

#include "model/JSONCoding.h"
#include "storage/PersistentStore.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace tamsel::storage {
namespace {

model::Blocker blocker(const std::string& filter) {
    model::Blocker entry;
    entry.trigger.urlFilter = filter;
    return entry;
}

std::string joined(const std::vector<std::string_view>& pieces) {
    std::string text;
    for (std::string_view piece : pieces) text += piece;
    return text;
}

std::shared_ptr<const EncodedEntries> run(const std::vector<std::string>& filters) {
    auto entries = std::make_shared<EncodedEntries>();
    for (const std::string& filter : filters) entries->add(blocker(filter));
    entries->shrinkToFit();
    return entries;
}

TEST(SafariJSONBuilderTest, KeptRunsAmongSingleEntriesGiveTheBytesOfAddingEachEntry) {
    SafariJSONBuilder oneByOne;
    for (const char* filter : {"a", "b", "c", "d", "e", "f"}) oneByOne.add(blocker(filter));
    const std::string expected = joined(oneByOne.finish());

    SafariJSONBuilder mixed(1024);
    mixed.add(run({}));  // a package with nothing enabled adds nothing, not even a comma
    mixed.add(blocker("a"));
    mixed.add(run({"b", "c"}));
    mixed.add(run({}));
    mixed.add(run({"d"}));
    mixed.add(blocker("e"));
    mixed.add(blocker("f"));
    EXPECT_EQ(mixed.count(), 6u);
    EXPECT_EQ(joined(mixed.finish()), expected);
    EXPECT_EQ(model::decodeBlockerArray(expected)->size(), 6u);
}

TEST(SafariJSONBuilderTest, OnlyEmptyRunsGiveThePlaceholderOnceHoweverOftenFinished) {
    SafariJSONBuilder file;
    file.add(run({}));
    const std::string first = joined(file.finish());
    EXPECT_EQ(joined(file.finish()), first);
    EXPECT_EQ(file.count(), 0u);
    const auto entries = model::decodeBlockerArray(first);
    ASSERT_TRUE(entries.has_value());
    EXPECT_EQ(*entries, std::vector{PersistentStore::placeholderBlocker()});
}

}  // namespace
}  // namespace tamsel::storage
