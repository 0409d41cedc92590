#include "storage/RebuildSettler.h"

#include "platform/Files.h"
#include "storage/PathProvider.h"
#include "support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tamsel::storage {
namespace {

using model::ExtensionType;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class RebuildSettlerTest : public ::testing::Test {
protected:
    platform::UnflushedFile written(ExtensionType extension, std::string_view text) {
        const auto path = PathProvider::safariJSONFilePath(extension);
        std::filesystem::create_directories(path.parent_path());
        const std::string_view parts[] = {text};
        auto file = platform::writeFileAtomicallyUnflushed(path, parts);
        EXPECT_TRUE(file);
        return std::move(*file);
    }

    testing::ScopedDataRoot root;
    testing::LogCapture log;
};

TEST_F(RebuildSettlerTest, SettlesEachDebtOnceItsFileIsDownAndOnlyWithItsOwnTicket) {
    RebuildLedger::owe({ExtensionType::blockAds, ExtensionType::customRules});
    const auto adsTicket = RebuildLedger::ticket(ExtensionType::blockAds);
    const auto customStarted = RebuildLedger::ticket(ExtensionType::customRules);
    RebuildLedger::owe({ExtensionType::customRules});  // changed again while its rebuild ran

    RebuildSettler settler;
    settler.settleWhenFlushed(written(ExtensionType::blockAds, "[ads]"), ExtensionType::blockAds, adsTicket);
    settler.settleWhenFlushed(written(ExtensionType::customRules, "[custom]"), ExtensionType::customRules,
                              customStarted);
    // A file rebuilt without a debt (nothing changed since) is flushed all the same.
    settler.settleWhenFlushed(written(ExtensionType::blockTrackers, "[trackers]"), ExtensionType::blockTrackers,
                              std::nullopt);
    settler.waitUntilIdle();

    EXPECT_TRUE(settler.isIdle());
    EXPECT_THAT(RebuildLedger::owed(), ElementsAre(ExtensionType::customRules));
    EXPECT_EQ(*platform::readFile(PathProvider::safariJSONFilePath(ExtensionType::blockAds)), "[ads]");
}

TEST_F(RebuildSettlerTest, AFileThatCannotBeFlushedLeavesTheDebtsOfItsBatch) {
    RebuildLedger::owe({ExtensionType::blockAds});
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    ::close(pipe[1]);
    RebuildSettler settler;
    // fsync refuses a pipe, as it would a file whose bytes the disk lost.
    settler.settleWhenFlushed(platform::UnflushedFile(pipe[0], PathProvider::safariJSONFilePath(ExtensionType::blockAds)),
                              ExtensionType::blockAds, RebuildLedger::ticket(ExtensionType::blockAds));
    settler.waitUntilIdle();
    EXPECT_THAT(RebuildLedger::owed(), ElementsAre(ExtensionType::blockAds));
    EXPECT_TRUE(log.contains("Can't put Safari JSON files on disk"));
}

TEST_F(RebuildSettlerTest, FilesHandedOverFromManyThreadsAreAllSettledAndDestructionWaitsForThem) {
    RebuildLedger::oweAll();
    {
        RebuildSettler settler;
        std::vector<std::thread> threads;
        for (ExtensionType extension : model::allCases<ExtensionType>()) {
            threads.emplace_back([&, extension] {
                settler.settleWhenFlushed(written(extension, "[" + std::string(model::rawValue(extension)) + "]"),
                                          extension, RebuildLedger::ticket(extension));
            });
        }
        for (auto& thread : threads) thread.join();
    }
    EXPECT_THAT(RebuildLedger::owed(), IsEmpty());
}

}  // namespace
}  // namespace tamsel::storage
