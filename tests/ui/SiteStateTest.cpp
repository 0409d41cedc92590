// What the popover shows for a site: each way the whitelist and forced HTTPS
// can stand, read from the data manager's packages and the stored switches.
#include "ui/SiteState.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "control/DataManager.h"
#include "model/SiteRules.h"
#include "platform/MainRunLoop.h"
#include "platform/Stores.h"
#include "storage/BlockerPreferenceManager.h"
#include "storage/DisabledStateMaps.h"
#include "support/TestSupport.h"

namespace tamsel::ui {
namespace {

using model::ExtensionType;
using model::Package;
using model::Rule;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Whitelisting = SiteState::Whitelisting;
using Https = SiteState::Https;

class SiteStateTest : public ::testing::Test {
protected:
    SiteStateTest() {
        // The rule chooses its extensions out of order; the popover lists them in order.
        const Rule partial = *model::makeWhitelistRule({"github.com"}, "W-GITHUB", "github.com",
                                                       {ExtensionType::blockSocial, ExtensionType::blockAds});
        const Rule everywhere = *model::makeWhitelistRule({"*wikipedia.org"}, "W-WIKI", "wikipedia.org", {});
        const Rule https = *model::makeHttpsRule({"neverssl.com"}, "H-NEVERSSL", "neverssl.com");
        manager.setConfigurablePackages({Package("whitelist", "Whitelist", {partial, everywhere}),
                                         Package("make-https", "Make HTTPS-only", {https})});
    }
    ~SiteStateTest() override { platform::MainRunLoop::drain(); }

    void disablePackage(const std::string& id) {
        platform::UbiquitousStore::shared()->set(platform::Value(storage::encode(storage::DisabledPackages{{id, true}})),
                                                 storage::BlockerPreferenceManager::disabledPackageIDsKey);
    }
    void disableRule(const std::string& packageID, const std::string& ruleID) {
        platform::UbiquitousStore::shared()->set(
            platform::Value(storage::encode(storage::DisabledRules{{packageID, {{ruleID, true}}}})),
            storage::BlockerPreferenceManager::disabledRuleIDsKey);
    }

    tamsel::testing::ScopedDataRoot root;
    control::DataManager manager;
};

TEST_F(SiteStateTest, WhitelistedFullyPartiallyOrNot) {
    const SiteState wiki = SiteState::read(manager, "en.wikipedia.org");
    EXPECT_EQ(wiki.whitelisting(), Whitelisting::fully);
    EXPECT_EQ(wiki.whitelistedIn().size(), model::allCases<ExtensionType>().size());
    EXPECT_EQ(wiki.whitelistRule->id, "W-WIKI");

    const SiteState github = SiteState::read(manager, "github.com");
    EXPECT_EQ(github.whitelisting(), Whitelisting::partially);
    EXPECT_THAT(github.whitelistedIn(), ElementsAre(ExtensionType::blockAds, ExtensionType::blockSocial));

    const SiteState other = SiteState::read(manager, "example.com");
    EXPECT_EQ(other.whitelisting(), Whitelisting::no);
    EXPECT_FALSE(other.whitelistRule);
    EXPECT_THAT(other.whitelistedIn(), IsEmpty());
    EXPECT_EQ(other.https(), Https::no);
    EXPECT_FALSE(other.paused);
}

TEST_F(SiteStateTest, ASwitchedOffRuleOrPackageWhitelistsNothing) {
    disableRule("whitelist", "W-GITHUB");
    const SiteState ruleOff = SiteState::read(manager, "github.com");
    EXPECT_EQ(ruleOff.whitelisting(), Whitelisting::ruleOff);
    EXPECT_THAT(ruleOff.whitelistedIn(), IsEmpty());
    EXPECT_EQ(SiteState::read(manager, "wikipedia.org").whitelisting(), Whitelisting::fully);

    disablePackage("whitelist");
    const SiteState packageOff = SiteState::read(manager, "wikipedia.org");
    EXPECT_EQ(packageOff.whitelisting(), Whitelisting::packageOff);
    EXPECT_FALSE(packageOff.whitelistPackageEnabled);
    EXPECT_THAT(packageOff.whitelistedIn(), IsEmpty());
}

TEST_F(SiteStateTest, ForcedHttpsNeedsItsPackageOn) {
    const SiteState forced = SiteState::read(manager, "neverssl.com");
    EXPECT_EQ(forced.https(), Https::forced);
    EXPECT_EQ(forced.httpsRule->id, "H-NEVERSSL");

    disablePackage("make-https");
    const SiteState off = SiteState::read(manager, "neverssl.com");
    EXPECT_EQ(off.https(), Https::packageOff);
    EXPECT_FALSE(off.makeHttpsPackageEnabled);
}

}  // namespace
}  // namespace tamsel::ui
