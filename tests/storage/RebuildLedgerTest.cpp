#include "storage/RebuildLedger.h"

#include "platform/Files.h"
#include "storage/PathProvider.h"
#include "support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

namespace tamsel::storage {
namespace {

using model::ExtensionType;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class RebuildLedgerTest : public ::testing::Test {
protected:
    std::filesystem::path ledgerFile() const { return PathProvider::sharedContainerURL() / "rebuilds-owed.txt"; }

    testing::ScopedDataRoot root;
    testing::LogCapture log;
};

TEST_F(RebuildLedgerTest, DebtsAreKeptInExtensionOrderUntilSettled) {
    EXPECT_THAT(RebuildLedger::owed(), IsEmpty());
    RebuildLedger::owe({ExtensionType::customRules, ExtensionType::blockAds});
    EXPECT_THAT(RebuildLedger::owed(), ElementsAre(ExtensionType::blockAds, ExtensionType::customRules));

    const auto ticket = RebuildLedger::ticket(ExtensionType::blockAds);
    ASSERT_TRUE(ticket);
    RebuildLedger::settle(ExtensionType::blockAds, *ticket);
    EXPECT_THAT(RebuildLedger::owed(), ElementsAre(ExtensionType::customRules));
    EXPECT_FALSE(RebuildLedger::ticket(ExtensionType::blockAds));
}

TEST_F(RebuildLedgerTest, ARebuildThatStartedBeforeANewerChangeDoesNotSettleIt) {
    RebuildLedger::owe({ExtensionType::customRules});
    const auto started = RebuildLedger::ticket(ExtensionType::customRules);
    RebuildLedger::owe({ExtensionType::customRules});  // a change while the rebuild reads
    RebuildLedger::settle(ExtensionType::customRules, *started);
    EXPECT_THAT(RebuildLedger::owed(), ElementsAre(ExtensionType::customRules));

    const auto newer = RebuildLedger::ticket(ExtensionType::customRules);
    EXPECT_GT(*newer, *started);
    RebuildLedger::settle(ExtensionType::customRules, *newer);
    EXPECT_THAT(RebuildLedger::owed(), IsEmpty());
}

TEST_F(RebuildLedgerTest, ADamagedLedgerOwesEveryRebuildUntilEachIsMade) {
    for (const char* damaged : {"next x\n", "next 3\nblock-ads 7\n", "block-nothing 1\nnext 2\n", "\xff\xfe"}) {
        ASSERT_TRUE(platform::writeFileAtomically(ledgerFile(), damaged));
        EXPECT_EQ(RebuildLedger::owed().size(), model::allCases<ExtensionType>().size()) << damaged;
    }
    for (ExtensionType extension : model::allCases<ExtensionType>()) {
        RebuildLedger::settle(extension, *RebuildLedger::ticket(extension));
    }
    EXPECT_THAT(RebuildLedger::owed(), IsEmpty());
    EXPECT_TRUE(log.contains("every extension is taken to owe a rebuild"));
}

TEST_F(RebuildLedgerTest, ConcurrentDebtsAreAllKept) {
    std::vector<std::thread> threads;
    for (ExtensionType extension : model::allCases<ExtensionType>()) {
        threads.emplace_back([extension] {
            for (int i = 0; i < 20; ++i) RebuildLedger::owe({extension});
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(RebuildLedger::owed().size(), model::allCases<ExtensionType>().size());
}

}  // namespace
}  // namespace tamsel::storage
