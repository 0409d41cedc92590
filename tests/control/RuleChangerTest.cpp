// The popover's rule changes: every branch of whitelisting, unwhitelisting,
// forcing and unforcing HTTPS, the enable-package question, the whitelist
// editor's choices and the element-hiding editor's result, checked against
// the package file written, the rebuilds asked for and the lines logged.
#include "control/RuleChanger.h"

#include "model/JSONCoding.h"
#include "model/SiteRules.h"
#include "platform/DispatchQueue.h"
#include "platform/Files.h"
#include "platform/MainRunLoop.h"
#include "platform/Stores.h"
#include "storage/PackagePreferences.h"
#include "storage/PathProvider.h"
#include "support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

namespace tamsel::control {
namespace {

using model::ExtensionType;
using model::Package;
using model::Rule;
using storage::RecordingExtensionReloading;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using Change = RuleChanger::Change;
using Failure = RuleChanger::Failure;
using Request = RecordingExtensionReloading::Request;

const std::vector<ExtensionType>& everyExtension() {
    static const std::vector<ExtensionType> all(model::allCases<ExtensionType>().begin(),
                                                model::allCases<ExtensionType>().end());
    return all;
}

Rule whitelistRule(const std::string& id, std::vector<std::string> domains, std::vector<ExtensionType> in = {}) {
    return *model::makeWhitelistRule(std::move(domains), id, id, std::move(in));
}

Rule httpsRule(const std::string& id, std::vector<std::string> domains) {
    return *model::makeHttpsRule(std::move(domains), id, id);
}

std::vector<std::string> domainsOf(const Rule& rule) { return rule.blocker.trigger.domainFilter->values; }

// Answers every request with one fixed result on the main queue, as Safari's
// answers arrive.
class AnsweringReloading : public storage::ExtensionReloading {
public:
    explicit AnsweringReloading(storage::ReloadingResult answer) : answer_(std::move(answer)) {}
    void saveToJSONAndReload(ExtensionType, bool, storage::ReloadingCompletion completion) override {
        answer(completion);
    }
    void saveToJSONAndReloadAll(std::optional<ExtensionType>, storage::ReloadingCompletion completion) override {
        answer(completion);
    }
    // Runs at every request, before the answer.
    std::function<void()> onRequest;

private:
    void answer(const storage::ReloadingCompletion& completion) {
        if (onRequest) onRequest();
        if (completion) platform::DispatchQueue::main().async([completion, answer = answer_] { completion(answer); });
    }
    storage::ReloadingResult answer_;
};

class RecordingPrompt : public RuleChangePrompt {
public:
    explicit RecordingPrompt(std::optional<bool> answer) : answer_(answer) {}

    void askToEnablePackage(const EnablePackageQuestion& question, std::function<void(bool)> answer) override {
        questions.push_back(question);
        if (answer_) answer(*answer_);
    }
    void showAlert(const Alert& alert) override { alerts.push_back(alert); }
    void refresh() override { ++refreshes; }

    std::vector<EnablePackageQuestion> questions;
    std::vector<Alert> alerts;
    int refreshes = 0;

private:
    std::optional<bool> answer_;
};

class RuleChangerTest : public ::testing::Test {
protected:
    RuleChangerTest() {
        manager.setGeneralPackages({Package("block-ads", "Ads", {})});
        setConfigurable({whitelistRule("W-GITHUB", {"github.com"}, {ExtensionType::blockAds}),
                         whitelistRule("W-SHARED", {"*a.com", "b.com"})},
                        {httpsRule("H-NEVERSSL", {"neverssl.com"})});
    }

    void TearDown() override { platform::MainRunLoop::drain(); }

    void setConfigurable(std::vector<Rule> whitelist, std::vector<Rule> https) {
        manager.setConfigurablePackages({Package("whitelist", "Whitelist", std::move(whitelist)),
                                         Package("block-url", "Block URLs", {}),
                                         Package("make-https", "Make HTTPS-only", std::move(https))});
    }

    Package package(const std::string& id) const {
        for (const Package& held : manager.configurablePackages()) {
            if (held.id == id) return held;
        }
        ADD_FAILURE() << "no package " << id;
        return Package(id, id, {});
    }

    // The configurable packages as the file on disk holds them.
    std::optional<std::vector<Package>> configurableFile() const {
        const auto text = platform::readFile(storage::PathProvider::filtersFolderURL() / "block-configurable.json");
        if (!text) return std::nullopt;
        return model::decodePackages(*text).value_or(std::vector<Package>{});
    }

    // Runs one change and waits for its completion on the main queue.
    RuleChanger::Result run(const std::function<void(RuleChanger::Completion)>& change) {
        std::optional<RuleChanger::Result> result;
        change([&result](RuleChanger::Result outcome) {
            EXPECT_TRUE(platform::DispatchQueue::isMainThread());
            EXPECT_FALSE(result.has_value()) << "completed twice";
            result = std::move(outcome);
        });
        EXPECT_TRUE(platform::MainRunLoop::runUntil([&] { return result.has_value(); }, std::chrono::seconds(10)));
        platform::MainRunLoop::drain();
        return result.value_or(std::unexpected(RuleChanger::Error(Failure::packageMissing)));
    }

    RuleChanger::Result whitelist(const std::string& host, std::vector<ExtensionType> in = {}) {
        return run([&](auto done) { changer.whitelist(host, in, done); });
    }

    void disableRule(const std::string& packageID, const std::string& ruleID) {
        platform::UbiquitousStore::shared()->set(
            platform::Value(storage::encode(storage::DisabledRules{{packageID, {{ruleID, true}}}})), "DisabledRuleIDs");
    }

    // The rule changer's console lines written since the last call. The
    // stores and the coders below it write trace lines of their own.
    std::vector<std::string> newLines() {
        static constexpr std::string_view changerLines[] = {
            "Creating whitelist rule", "Error creating", "Updated partial", "Enabled existing", "More than one",
            "Unwhitelisting domain", "Nothing changed", "Couldn't find", "Whitelist package", "Make HTTPS package",
            "Error unwhitelisting", "Error unforcing", "User chose", "Current domain", "Added or removed",
            "Error in saving"};
        const auto all = log.lines();
        std::vector<std::string> fresh;
        for (auto line = all.begin() + static_cast<std::ptrdiff_t>(seen_); line != all.end(); ++line) {
            if (std::any_of(std::begin(changerLines), std::end(changerLines),
                            [&](std::string_view prefix) { return line->starts_with(prefix); })) {
                fresh.push_back(*line);
            }
        }
        seen_ = all.size();
        return fresh;
    }

    bool createdRuleFlag() const {
        return platform::SharedDefaults::shared()->boolValue("ActionExtensionCreatedRuleKey");
    }

    testing::ScopedDataRoot root;
    testing::LogCapture log;
    std::shared_ptr<RecordingExtensionReloading> reloads = std::make_shared<RecordingExtensionReloading>();
    std::shared_ptr<RecordingRuleChangeReporting> reports = std::make_shared<RecordingRuleChangeReporting>();
    DataManager manager{{reloads, reports}};
    RuleChanger changer{manager};

private:
    std::size_t seen_ = 0;
};

// --- Whitelisting ------------------------------------------------------------------------------------

TEST_F(RuleChangerTest, WhitelistingANewSiteCreatesItsRuleAndRebuildsEveryExtension) {
    const auto result = whitelist("WWW.Example.COM", {ExtensionType::blockAds, ExtensionType::blockTrackers});
    EXPECT_EQ(result, Change::created);
    EXPECT_THAT(newLines(), ElementsAre("Creating whitelist rule for: www.example.com"));

    const Package stored = package("whitelist");
    ASSERT_EQ(stored.rules.size(), 3u);
    const Rule& created = stored.rules.back();
    EXPECT_THAT(domainsOf(created), ElementsAre("www.example.com"));
    EXPECT_EQ(created.name, "www.example.com");
    EXPECT_THAT(created.partialWhitelist, ElementsAre(ExtensionType::blockAds, ExtensionType::blockTrackers));
    EXPECT_EQ(created.blocker.action.type, model::ActionType::ignorePreviousRules);

    const auto file = configurableFile();
    ASSERT_TRUE(file.has_value());
    EXPECT_EQ(file->front(), stored);
    EXPECT_THAT(reloads->requests(), ElementsAre(Request{Request::Kind::one, ExtensionType::customRules, true, {}}));
    EXPECT_THAT(reloads->extensionsToRebuild(), ElementsAreArray(everyExtension()));
    EXPECT_THAT(reports->reports(), ElementsAre(RecordingRuleChangeReporting::Report{
                                        RecordingRuleChangeReporting::Report::Kind::added, created.id, "whitelist"}));
    EXPECT_TRUE(createdRuleFlag());
}

TEST_F(RuleChangerTest, WhitelistingReturnsTheRuleItMade) {
    std::optional<RuleChanger::Result> result;
    const auto rule = changer.whitelist("example.org", {}, [&result](auto outcome) { result = outcome; });
    ASSERT_TRUE(rule.has_value());
    ASSERT_TRUE(platform::MainRunLoop::runUntil([&] { return result.has_value(); }, std::chrono::seconds(10)));
    EXPECT_EQ(package("whitelist").rules.back(), *rule);
}

TEST_F(RuleChangerTest, TheSitesOwnEnabledRuleWithTheSameListChangesNothing) {
    const auto before = manager.configurablePackages();
    EXPECT_EQ(whitelist("github.com", {ExtensionType::blockAds}), Change::unchanged);
    EXPECT_THAT(newLines(), IsEmpty());
    EXPECT_EQ(manager.configurablePackages(), before);
    EXPECT_FALSE(configurableFile().has_value()) << "nothing was written";
    EXPECT_THAT(reloads->requests(), IsEmpty());
    EXPECT_FALSE(createdRuleFlag());
}

TEST_F(RuleChangerTest, TheSitesOwnRuleGetsTheNewExtensionList) {
    const auto result = whitelist("github.com", {ExtensionType::blockSocial, ExtensionType::blockAds});
    EXPECT_EQ(result, Change::updated);
    EXPECT_THAT(newLines(), ElementsAre("Updated partial array in existing whitelist rule"));
    const Package stored = package("whitelist");
    ASSERT_EQ(stored.rules.size(), 2u);
    EXPECT_EQ(stored.rules[0].id, "W-GITHUB");
    EXPECT_THAT(stored.rules[0].partialWhitelist, ElementsAre(ExtensionType::blockSocial, ExtensionType::blockAds));
    EXPECT_THAT(reloads->extensionsToRebuild(), ElementsAreArray(everyExtension()));
    EXPECT_FALSE(createdRuleFlag()) << "no rule was created";

    newLines();
    EXPECT_EQ(whitelist("github.com", {ExtensionType::blockAds, ExtensionType::blockSocial}), Change::unchanged)
        << "the order of the categories does not matter";
    EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(RuleChangerTest, TheSitesOwnDisabledRuleIsSwitchedBackOnWithoutARebuild) {
    disableRule("whitelist", "W-GITHUB");
    const auto result = whitelist("github.com", {ExtensionType::blockAds});
    EXPECT_EQ(result, Change::enabled);
    EXPECT_THAT(newLines(), ElementsAre("Enabled existing whitelist rule"));
    EXPECT_FALSE(storage::isDisabled(package("whitelist").rules[0], package("whitelist")));
    EXPECT_THAT(reloads->requests(), IsEmpty());
    EXPECT_FALSE(configurableFile().has_value());
}

TEST_F(RuleChangerTest, ADisabledRuleWithANewListIsOnBeforeTheRebuildReadsIt) {
    disableRule("whitelist", "W-GITHUB");
    auto answering = std::make_shared<AnsweringReloading>(storage::ReloadingResult{});
    std::optional<bool> disabledAtRebuild;
    answering->onRequest = [&] {
        disabledAtRebuild = storage::isDisabled(package("whitelist").rules[0], package("whitelist"));
    };
    DataManager answeringManager{{answering, reports}};
    answeringManager.setConfigurablePackages(manager.configurablePackages());
    RuleChanger answeringChanger(answeringManager);

    const auto result = run([&](auto done) { answeringChanger.whitelist("github.com", {}, done); });
    EXPECT_EQ(result, Change::updated);
    EXPECT_THAT(newLines(),
                ElementsAre("Updated partial array in existing whitelist rule", "Enabled existing whitelist rule"));
    EXPECT_EQ(disabledAtRebuild, false);
}

TEST_F(RuleChangerTest, ASharedRuleKeepsItsOtherDomainsAndTheSiteGetsItsOwnRule) {
    const auto result = whitelist("a.com", {ExtensionType::blockAds});
    EXPECT_EQ(result, Change::created);

    const auto lines = newLines();
    ASSERT_EQ(lines.size(), 3u) << ::testing::PrintToString(lines);
    EXPECT_EQ(lines[0], "More than one domain in this whitelist rule (can't modify it)");
    EXPECT_TRUE(lines[1].starts_with("Unwhitelisting domain - a.com in rule {\"id\":\"W-SHARED\"")) << lines[1];
    EXPECT_EQ(lines[2], "Creating whitelist rule for: a.com");

    const Package stored = package("whitelist");
    ASSERT_EQ(stored.rules.size(), 3u);
    EXPECT_EQ(stored.rules[1].id, "W-SHARED");
    EXPECT_EQ(stored.rules[1].name, "W-SHARED");
    EXPECT_THAT(domainsOf(stored.rules[1]), ElementsAre("b.com"));
    EXPECT_THAT(domainsOf(stored.rules[2]), ElementsAre("a.com"));
    EXPECT_THAT(stored.rules[2].partialWhitelist, ElementsAre(ExtensionType::blockAds));
    // Both saves reached the file: the second save must not undo the first.
    ASSERT_TRUE(configurableFile().has_value());
    EXPECT_EQ(configurableFile()->front(), stored);
    EXPECT_EQ(reports->reports().size(), 2u);
}

TEST_F(RuleChangerTest, ASharedRuleThatAlreadySaysSoIsLeftAlone) {
    EXPECT_EQ(whitelist("a.com"), Change::unchanged);
    EXPECT_THAT(newLines(), ElementsAre("Nothing changed in this whitelist rule, no updates needed"));
    EXPECT_THAT(reloads->requests(), IsEmpty());
}

TEST_F(RuleChangerTest, ADisabledSharedRuleWithTheSameListIsSplitToo) {
    disableRule("whitelist", "W-SHARED");
    EXPECT_EQ(whitelist("b.com"), Change::created);
    const Package stored = package("whitelist");
    EXPECT_THAT(domainsOf(stored.rules[1]), ElementsAre("*a.com"));
    EXPECT_TRUE(storage::isDisabled(stored.rules[1], stored)) << "the old rule keeps its state";
    EXPECT_FALSE(storage::isDisabled(stored.rules[2], stored));
}

TEST_F(RuleChangerTest, AHostCoveredButNotNamedGetsARuleOfItsOwn) {
    // "*a.com" covers www.a.com, but the whitelist looks for the domain itself.
    EXPECT_EQ(whitelist("www.a.com", {ExtensionType::blockAds}), Change::created);
    EXPECT_EQ(package("whitelist").rules.size(), 3u);
}

TEST_F(RuleChangerTest, InvalidHostsAreRefusedAndNothingIsWritten) {
    const std::vector<std::string> hosts{"",           "intranet",      "*.example.com", "example.com/path",
                                         "exa\u2026.com", "192.168.1.1",   "[::1]",         "\u2603.net",
                                         "-example.com", "a\nb.com",      "exa mple.com",  "exa\tmple.com",
                                         "a..b.com",     std::string(64, 'a') + ".com"};
    for (const std::string& host : hosts) {
        EXPECT_EQ(whitelist(host), std::unexpected(RuleChanger::Error(Failure::ruleNotBuilt))) << host;
        EXPECT_THAT(newLines(), ElementsAre("Error creating whitelist rule for: " + host)) << host;
        EXPECT_EQ(run([&](auto done) { changer.makeHttps(host, done); }),
                  std::unexpected(RuleChanger::Error(Failure::ruleNotBuilt)))
            << host;
        EXPECT_THAT(newLines(), ElementsAre("Error creating make https rule for: " + host)) << host;
    }
    EXPECT_FALSE(configurableFile().has_value());
    EXPECT_THAT(reloads->requests(), IsEmpty());
    EXPECT_FALSE(createdRuleFlag());
}

TEST_F(RuleChangerTest, InternationalHostsAreStoredAsPunycode) {
    EXPECT_EQ(whitelist("Bücher.de"), Change::created);
    EXPECT_THAT(domainsOf(package("whitelist").rules.back()), ElementsAre("xn--bcher-kva.de"));
    EXPECT_TRUE(changer.whitelistRule("bücher.de").has_value());
    EXPECT_TRUE(changer.whitelistRule("xn--bcher-kva.de").has_value());
}

TEST_F(RuleChangerTest, WithoutTheWhitelistPackageNothingHappens) {
    manager.setConfigurablePackages({Package("make-https", "Make HTTPS", {})});
    EXPECT_EQ(whitelist("example.com"), std::unexpected(RuleChanger::Error(Failure::packageMissing)));
    EXPECT_THAT(newLines(), ElementsAre("Couldn't find the package for id whitelist", "Whitelist package doesn't exist"));
    EXPECT_THAT(reloads->requests(), IsEmpty());
}

// --- Unwhitelisting ------------------------------------------------------------------------------------

TEST_F(RuleChangerTest, UnwhitelistingTheLastDomainDeletesTheRule) {
    const Rule github = package("whitelist").rules[0];
    EXPECT_EQ(run([&](auto done) { changer.unwhitelist("github.com", github, done); }), Change::deleted);
    EXPECT_THAT(newLines(), ElementsAre("Unwhitelisting domain - github.com in rule " + model::encodeRule(github)));
    const Package stored = package("whitelist");
    ASSERT_EQ(stored.rules.size(), 1u);
    EXPECT_EQ(stored.rules[0].id, "W-SHARED");
    EXPECT_EQ(configurableFile()->front(), stored);
    EXPECT_THAT(reloads->extensionsToRebuild(), ElementsAreArray(everyExtension()));
    EXPECT_THAT(reports->reports(), ElementsAre(RecordingRuleChangeReporting::Report{
                                        RecordingRuleChangeReporting::Report::Kind::deleted, "W-GITHUB", "whitelist"}));
}

TEST_F(RuleChangerTest, UnwhitelistingOneOfSeveralDomainsRewritesTheRule) {
    setConfigurable({whitelistRule("W", {"a.com", "*b.com", "c.com"}, {ExtensionType::blockAdult})}, {});
    // "*b.com" covers www.b.com, so it goes.
    EXPECT_EQ(run([&](auto done) { changer.unwhitelist("www.b.com", package("whitelist").rules[0], done); }),
              Change::updated);
    const Rule rule = package("whitelist").rules[0];
    EXPECT_EQ(rule.id, "W");
    EXPECT_EQ(rule.name, "W");
    EXPECT_THAT(domainsOf(rule), ElementsAre("a.com", "c.com"));
    EXPECT_THAT(rule.partialWhitelist, ElementsAre(ExtensionType::blockAdult));
}

TEST_F(RuleChangerTest, UnwhitelistingADomainTheRuleDoesNotHoldSavesNothing) {
    const Rule github = package("whitelist").rules[0];
    EXPECT_EQ(run([&](auto done) { changer.unwhitelist("gitlab.com", github, done); }),
              std::unexpected(RuleChanger::Error(Failure::domainNotFound)));
    EXPECT_EQ(run([&](auto done) { changer.unwhitelist("github.com", whitelistRule("GONE", {"github.com"}), done); }),
              std::unexpected(RuleChanger::Error(Failure::domainNotFound)))
        << "a rule the package no longer holds";
    EXPECT_THAT(reloads->requests(), IsEmpty());
}

TEST_F(RuleChangerTest, AFailedRebuildIsLoggedAndReportedButTheChangeIsKept) {
    const auto failure = storage::ReloadingError::safariReturnedError("WKErrorDomain", 6, "Rule list compilation failed");
    auto failing = std::make_shared<AnsweringReloading>(std::unexpected(failure));
    DataManager failingManager{{failing, reports}};
    failingManager.setConfigurablePackages(manager.configurablePackages());
    RuleChanger failingChanger(failingManager);

    const Rule github = package("whitelist").rules[0];
    const auto result = run([&](auto done) { failingChanger.unwhitelist("github.com", github, done); });
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(RuleChanger::description(result.error()), "Rule list compilation failed");
    EXPECT_TRUE(log.contains("Error unwhitelisting domain: Rule list compilation failed"));
    EXPECT_EQ(failingManager.configurablePackages()[0].rules.size(), 1u);
}

// --- Make HTTPS -------------------------------------------------------------------------------------------

TEST_F(RuleChangerTest, ForcingHTTPSRebuildsOnlyTheCustomExtension) {
    EXPECT_FALSE(changer.isDomainForcedHttps("example.com"));
    EXPECT_EQ(run([&](auto done) { changer.makeHttps("Example.com", done); }), Change::created);
    const Rule created = package("make-https").rules.back();
    EXPECT_THAT(domainsOf(created), ElementsAre("example.com"));
    EXPECT_EQ(created.blocker.action.type, model::ActionType::makeHttps);
    EXPECT_TRUE(changer.isDomainForcedHttps("example.com"));
    EXPECT_THAT(reloads->requests(), ElementsAre(Request{Request::Kind::one, ExtensionType::customRules, false, {}}));
    EXPECT_THAT(reloads->extensionsToRebuild(), ElementsAre(ExtensionType::customRules));
    EXPECT_TRUE(createdRuleFlag());

    EXPECT_EQ(run([&](auto done) { changer.makeHttps("example.com", done); }), Change::unchanged);
    EXPECT_EQ(package("make-https").rules.size(), 2u) << "no second rule for the same site";
}

TEST_F(RuleChangerTest, AWhitelistChangeRebuildsEverythingAMakeHTTPSChangeOnlyTheCustomExtension) {
    EXPECT_EQ(whitelist("one.example"), Change::created);
    EXPECT_THAT(reloads->extensionsToRebuild(), ElementsAreArray(everyExtension()));
    reloads->clear();
    EXPECT_EQ(run([&](auto done) { changer.makeHttps("two.example", done); }), Change::created);
    EXPECT_THAT(reloads->extensionsToRebuild(), ElementsAre(ExtensionType::customRules));
}

TEST_F(RuleChangerTest, ForcedHTTPSFollowsWildcardsAndDisabledRules) {
    setConfigurable({}, {httpsRule("H1", {"*example.com"}), httpsRule("H2", {"other.org"})});
    EXPECT_TRUE(changer.isDomainForcedHttps("www.example.com"));
    EXPECT_TRUE(changer.isDomainForcedHttps("example.com"));
    EXPECT_FALSE(changer.isDomainForcedHttps("www.other.org"));
    EXPECT_EQ(changer.makeHttpsRule("shop.example.com")->id, "H1");
    disableRule("make-https", "H1");
    EXPECT_FALSE(changer.isDomainForcedHttps("www.example.com"));
    EXPECT_TRUE(changer.makeHttpsRule("www.example.com").has_value()) << "the rule is still there";
}

TEST_F(RuleChangerTest, WithoutTheMakeHTTPSPackageNothingHappens) {
    manager.setConfigurablePackages({Package("whitelist", "Whitelist", {})});
    const auto missing = std::unexpected(RuleChanger::Error(Failure::packageMissing));
    EXPECT_EQ(run([&](auto done) { changer.makeHttps("example.com", done); }), missing);
    EXPECT_EQ(run([&](auto done) { changer.unforceHttps("example.com", done); }), missing);
    EXPECT_FALSE(changer.isDomainForcedHttps("example.com"));
    EXPECT_THAT(newLines(), ElementsAre("Couldn't find the package for id make-https", "Make HTTPS package doesn't exist",
                                         "Couldn't find the package for id make-https", "Make HTTPS package doesn't exist",
                                         "Couldn't find the package for id make-https",
                                         "Couldn't find the Make HTTPS package"));
}

TEST_F(RuleChangerTest, UnforcingRemovesTheDomainOrTheWholeRule) {
    setConfigurable({}, {httpsRule("H1", {"a.org", "b.org"}), httpsRule("H2", {"c.org"})});
    EXPECT_EQ(run([&](auto done) { changer.unforceHttps("a.org", done); }), Change::updated);
    EXPECT_THAT(domainsOf(package("make-https").rules[0]), ElementsAre("b.org"));
    EXPECT_EQ(package("make-https").rules[0].id, "H1");
    EXPECT_EQ(run([&](auto done) { changer.unforceHttps("C.org", done); }), Change::deleted);
    EXPECT_EQ(package("make-https").rules.size(), 1u);
    EXPECT_EQ(run([&](auto done) { changer.unforceHttps("d.org", done); }),
              std::unexpected(RuleChanger::Error(Failure::domainNotFound)));
    EXPECT_THAT(reloads->extensionsToRebuild(), ElementsAre(ExtensionType::customRules));
}

TEST_F(RuleChangerTest, AFailedUnforceIsLogged) {
    auto failing = std::make_shared<AnsweringReloading>(std::unexpected(storage::ReloadingError::disabledInSettings()));
    DataManager failingManager{{failing, reports}};
    failingManager.setConfigurablePackages(manager.configurablePackages());
    RuleChanger failingChanger(failingManager);
    const auto result = run([&](auto done) { failingChanger.unforceHttps("neverssl.com", done); });
    EXPECT_FALSE(result.has_value());
    EXPECT_TRUE(log.contains("Error unforcing HTTPS domain: disabled in Settings"));
}

// --- Switching the package on first ------------------------------------------------------------------------

TEST_F(RuleChangerTest, ConfirmingSwitchesThePackageOnBeforeTheChangeRuns) {
    disableRule("whitelist", "W-SHARED");
    manager.preferenceManager()->saveDisabledPreferenceWithoutReload(package("whitelist"));
    auto prompt = std::make_shared<RecordingPrompt>(true);
    std::optional<bool> disabledWhenRun;
    changer.performEnablingPackage(model::ConfigurableType::whitelist, prompt,
                                   [&] { disabledWhenRun = storage::isDisabled(package("whitelist")); });

    EXPECT_EQ(disabledWhenRun, false);
    EXPECT_THAT(newLines(), ElementsAre("User chose to automatically enable package"));
    ASSERT_EQ(prompt->questions.size(), 1u);
    EXPECT_EQ(prompt->questions[0], (RuleChangePrompt::EnablePackageQuestion{
                                        "Turn On \"Whitelist\"?",
                                        "This list is turned off and 1 of its rules are disabled. Turn the list on "
                                        "so that your change takes effect.",
                                        "Later", "Turn On"}));
    EXPECT_THAT(reloads->requests(), IsEmpty()) << "switching on does not rebuild; the change does";
}

TEST_F(RuleChangerTest, LaterLeavesThePackageOffAndDropsTheChange) {
    manager.preferenceManager()->saveDisabledPreferenceWithoutReload(package("make-https"));
    auto prompt = std::make_shared<RecordingPrompt>(false);
    bool ran = false;
    changer.performEnablingPackage(model::ConfigurableType::makeHttps, prompt, [&] { ran = true; });
    EXPECT_FALSE(ran);
    EXPECT_EQ(prompt->questions.size(), 1u);
    EXPECT_TRUE(storage::isDisabled(package("make-https")));
}

TEST_F(RuleChangerTest, AnEnabledPackageIsNotAskedFor) {
    auto prompt = std::make_shared<RecordingPrompt>(false);
    bool ran = false;
    changer.performEnablingPackage(model::ConfigurableType::whitelist, prompt, [&] { ran = true; });
    EXPECT_TRUE(ran);
    EXPECT_THAT(prompt->questions, IsEmpty());
}

TEST_F(RuleChangerTest, WithNobodyToAskOnlyADebugLineIsWritten) {
    platform::setDebugLogsEnabled(true);
    bool ran = false;
    changer.askToEnablePackage(package("whitelist"), nullptr, [&] { ran = true; });
    platform::setDebugLogsEnabled(false);
    EXPECT_FALSE(ran);
    EXPECT_TRUE(log.contains("Error: can't present user choice alert: presentedVC is nil"));
    EXPECT_THAT(newLines(), IsEmpty());
}

// --- The whitelist editor ------------------------------------------------------------------------------------

TEST_F(RuleChangerTest, TheEditorsSwitchesBecomeRules) {
    using Choice = RuleChanger::WhitelistChoice;
    const auto apply = [&](const std::string& host, Choice choice) {
        return run([&](auto done) { changer.applyWhitelistChoice(host, choice, done); });
    };
    EXPECT_EQ(apply("site.example", {true, false, {ExtensionType::blockAds}}), Change::created);
    EXPECT_THAT(package("whitelist").rules.back().partialWhitelist, IsEmpty())
        << "turned off everywhere ignores the remembered categories";
    EXPECT_EQ(apply("site.example", {true, true, {ExtensionType::blockComments}}), Change::updated);
    EXPECT_THAT(package("whitelist").rules.back().partialWhitelist, ElementsAre(ExtensionType::blockComments));
    EXPECT_EQ(apply("site.example", {false, true, {ExtensionType::blockComments}}), Change::deleted);
    EXPECT_EQ(package("whitelist").rules.size(), 2u);
    EXPECT_EQ(apply("site.example", {false, false, {}}), Change::unchanged);
}

TEST_F(RuleChangerTest, CategoriesOnlyWithNoCategoryChosenWhitelistsNothing) {
    using Choice = RuleChanger::WhitelistChoice;
    EXPECT_EQ(run([&](auto done) { changer.applyWhitelistChoice("github.com", Choice{true, true, {}}, done); }),
              Change::deleted);
    EXPECT_FALSE(changer.whitelistRule("github.com").has_value());
    EXPECT_EQ(run([&](auto done) { changer.applyWhitelistChoice("new.example", Choice{true, true, {}}, done); }),
              Change::unchanged);
    EXPECT_FALSE(changer.whitelistRule("new.example").has_value()) << "no rule meaning 'all' was made";
}

TEST_F(RuleChangerTest, ChangesMayComeFromAnotherThread) {
    std::atomic<bool> completed = false;
    std::atomic<bool> onMain = false;
    std::thread worker([&] {
        changer.whitelist("worker.example", {}, [&](RuleChanger::Result) {
            onMain = platform::DispatchQueue::isMainThread();
            completed = true;
        });
    });
    worker.join();
    ASSERT_TRUE(platform::MainRunLoop::runUntil([&] { return completed.load(); }, std::chrono::seconds(10)));
    EXPECT_TRUE(onMain);
}

// --- The element-hiding editor -------------------------------------------------------------------------------

TEST_F(RuleChangerTest, VisualEditorChangesAreAppliedAndAnnounced) {
    auto prompt = std::make_shared<RecordingPrompt>(std::nullopt);
    EXPECT_EQ(run([&](auto done) { changer.visualEditorDidChange("nothing.example", false, prompt, done); }),
              Change::unchanged);
    EXPECT_THAT(newLines(), ElementsAre("Current domain was not and is not whitelisted now (no action performed)."));

    newLines();
    EXPECT_EQ(run([&](auto done) { changer.visualEditorDidChange("news.example", true, prompt, done); }),
              Change::created);
    EXPECT_THAT(newLines(), ElementsAre("Creating whitelist rule for: news.example",
                                         "Added or removed news.example from Whitelist"));
    EXPECT_EQ(prompt->refreshes, 1);

    EXPECT_EQ(run([&](auto done) { changer.visualEditorDidChange("news.example", false, prompt, done); }),
              Change::deleted);
    EXPECT_FALSE(changer.whitelistRule("news.example").has_value());
    EXPECT_EQ(prompt->refreshes, 2);
    EXPECT_THAT(prompt->alerts, IsEmpty());
}

TEST_F(RuleChangerTest, VisualEditorShowsInvalidDomainsAndFailures) {
    auto prompt = std::make_shared<RecordingPrompt>(std::nullopt);
    EXPECT_EQ(run([&](auto done) { changer.visualEditorDidChange("10.0.0.1", true, prompt, done); }),
              std::unexpected(RuleChanger::Error(Failure::ruleNotBuilt)));
    ASSERT_EQ(prompt->alerts.size(), 1u);
    EXPECT_EQ(prompt->alerts[0].title, "Invalid Domain");
    EXPECT_THAT(reloads->requests(), IsEmpty());

    auto failing = std::make_shared<AnsweringReloading>(
        std::unexpected(storage::ReloadingError::safariReturnedError("SFErrorDomain", 3, "Safari is busy")));
    DataManager failingManager{{failing, reports}};
    failingManager.setConfigurablePackages(manager.configurablePackages());
    RuleChanger failingChanger(failingManager);
    const auto result = run([&](auto done) { failingChanger.visualEditorDidChange("busy.example", true, prompt, done); });
    EXPECT_FALSE(result.has_value());
    EXPECT_TRUE(log.contains("Error in saving and/or reloading: Safari is busy"));
    ASSERT_EQ(prompt->alerts.size(), 2u);
    EXPECT_EQ(prompt->alerts[1], (RuleChangePrompt::Alert{"Something Went Wrong", "Safari is busy"}));
    EXPECT_EQ(prompt->refreshes, 0);
}

}  // namespace
}  // namespace tamsel::control
