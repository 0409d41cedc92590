// A rebuild that takes unchanged packages' encoded entries from the body
// cache must write exactly the file that encoding everything afresh writes,
// whatever changed in between: rules, switches, whole packages, files on disk.
#include "control/DataManager.h"
#include "control/EncodedBodyCache.h"
#include "control/RuleChanger.h"
#include "control/SaveReloadOperation.h"
#include "model/JSONFileName.h"
#include "platform/Files.h"
#include "platform/MainRunLoop.h"
#include "storage/BlockerPreferenceManager.h"
#include "storage/DisabledStateMaps.h"
#include "storage/ExtensionReloading.h"
#include "storage/PathProvider.h"
#include "storage/PersistentStore.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <fmt/format.h>

#include <map>
#include <random>
#include <string>
#include <vector>

namespace tamsel::control {
namespace {

using model::ActionType;
using model::ExtensionType;
using model::JSONFileName;
using model::Package;
using model::Rule;

Rule blockRule(const std::string& id) {
    model::Blocker blocker;
    blocker.trigger.urlFilter = "^https?://" + id + "\\.example/";
    blocker.trigger.resourceTypes = std::vector{model::ResourceType::script};
    return Rule(id, id, blocker);
}

Rule hideRule(const std::string& id, const std::string& host) {
    model::Blocker blocker;
    blocker.trigger.urlFilter = ".*";
    blocker.trigger.domainFilter = model::DomainFilter{model::DomainFilterType::ifDomain, {host}};
    blocker.action.type = ActionType::hide;
    blocker.action.selector = "#" + id;
    return Rule(id, id, blocker);
}

Rule whitelistRule(const std::string& id, std::vector<ExtensionType> partial) {
    model::Blocker blocker;
    blocker.trigger.urlFilter = ".*";
    blocker.trigger.domainFilter = model::DomainFilter{model::DomainFilterType::ifDomain, {id + ".example"}};
    blocker.action.type = ActionType::ignorePreviousRules;
    Rule rule(id, id, blocker);
    rule.partialWhitelist = std::move(partial);
    return rule;
}

// Rules of a package: mostly blocking, with now and then a whitelisting one
// (which a general package's own extension takes out of its place).
std::vector<Rule> someRules(const std::string& prefix, int count, std::mt19937& random) {
    std::vector<Rule> rules;
    for (int i = 0; i < count; ++i) {
        const std::string id = fmt::format("{}-{}", prefix, i);
        if (random() % 7 == 0) {
            rules.push_back(whitelistRule(id, random() % 2 ? std::vector<ExtensionType>{}
                                                           : std::vector{ExtensionType::blockAds}));
        } else {
            rules.push_back(blockRule(id));
        }
    }
    return rules;
}

constexpr std::array generalFiles{JSONFileName::blockAds,      JSONFileName::blockTrackers,
                                  JSONFileName::blockAnnoyances, JSONFileName::blockSocial,
                                  JSONFileName::blockComments, JSONFileName::blockAdult};

class IncrementalRebuildTest : public ::testing::Test {
protected:
    IncrementalRebuildTest() : data(DataManager::Collaborators{reloading, nullptr}), changer(data) {}

    void TearDown() override { platform::MainRunLoop::drain(); }

    // Every extension's file, rebuilt with or without the kept bodies; the
    // eight files' bytes, by extension.
    std::map<ExtensionType, std::string> rebuildAll(const std::shared_ptr<EncodedBodyCache>& bodies) {
        std::map<ExtensionType, std::string> files;
        for (ExtensionType type : model::allCases<ExtensionType>()) {
            std::filesystem::remove(storage::PathProvider::safariJSONFilePath(type));
            auto operation = std::make_shared<SaveReloadOperation>(
                type, false, storage::ReloadingCompletion{}, data,
                [](ExtensionType, storage::ReloadingCompletion) {}, bodies);
            operation->start();
            files[type] = platform::readFile(storage::PathProvider::safariJSONFilePath(type)).value_or("(no file)");
        }
        return files;
    }

    void writeGeneralFile(JSONFileName file, std::mt19937& random) {
        const std::string id(model::rawValue(file));
        generalRulePrefix[id] = fmt::format("{}-v{}", id, random() % 1000);
        ASSERT_TRUE(storage::PersistentStore::write(Package(id, id, someRules(generalRulePrefix[id], 30, random)), file));
    }

    void toggleRule(const std::string& packageID, const std::string& ruleID) {
        const auto store = storage::BlockerPreferenceManager::chosenStore();
        storage::DisabledRules rules = data.preferenceManager()->disabledRules();
        bool& off = rules[packageID][ruleID];
        off = !off;
        store->set(platform::Value(storage::encode(rules)), storage::BlockerPreferenceManager::disabledRuleIDsKey);
    }

    void togglePackage(const std::string& packageID) {
        const auto preferences = data.preferenceManager();
        const auto disabled = preferences->disabledPackages();
        const auto found = disabled.find(packageID);
        const Package header(packageID, packageID, {});
        if (found != disabled.end() && found->second) {
            preferences->saveEnabledPreferenceWithoutReload(header);
        } else {
            preferences->saveDisabledPreferenceWithoutReload(header);
        }
    }

    // A package identifier and one of its rules, picked among every package
    // the files are built from.
    std::pair<std::string, std::string> someRuleOf(std::mt19937& random) {
        std::vector<std::pair<std::string, std::string>> choices;
        const auto collect = [&](const std::vector<Package>& packages) {
            for (const Package& package : packages) {
                for (const Rule& rule : package.rules) choices.emplace_back(package.id, rule.id);
            }
        };
        collect(data.internationalPackages());
        collect(data.configurablePackages());
        collect(data.customPackages());
        // The general files are not held; their rules are numbered.
        for (const auto& [id, prefix] : generalRulePrefix) {
            for (int i = 0; i < 30; ++i) choices.emplace_back(id, fmt::format("{}-{}", prefix, i));
        }
        return choices[random() % choices.size()];
    }

    testing::ScopedDataRoot root;
    testing::LogCapture log;
    std::shared_ptr<storage::RecordingExtensionReloading> reloading =
        std::make_shared<storage::RecordingExtensionReloading>();
    DataManager data;
    RuleChanger changer;
    // What the rule identifiers of each general file begin with.
    std::map<std::string, std::string> generalRulePrefix;
};

TEST_F(IncrementalRebuildTest, AfterManyRandomChangesTheKeptBodiesGiveTheFullRebuildsFiles) {
    std::mt19937 random(18);
    for (JSONFileName file : generalFiles) writeGeneralFile(file, random);
    ASSERT_TRUE(storage::PersistentStore::write(
        std::vector{Package("block-german", "German", someRules("de", 25, random)),
                    Package("block-french", "French", someRules("fr", 25, random)),
                    Package("block-polish", "Polish", someRules("pl", 25, random))},
        JSONFileName::blockInternational));
    ASSERT_TRUE(storage::PersistentStore::write(
        std::vector{Package("whitelist", "Whitelist", {whitelistRule("first", {})}),
                    Package("block-url", "Block URLs", someRules("url", 5, random)),
                    Package("hide-elements", "Hide Page Elements", {hideRule("banner", "news.example")}),
                    Package("make-https", "Make HTTPS-only", {})},
        JSONFileName::blockConfigurable));
    ASSERT_TRUE(storage::PersistentStore::write(std::vector{Package("mine", "Mine", someRules("mine", 10, random))},
                                                JSONFileName::blockCustom));

    const auto bodies = std::make_shared<EncodedBodyCache>();
    ASSERT_EQ(rebuildAll(bodies), rebuildAll(nullptr));

    const auto types = model::allCases<ExtensionType>();
    std::vector<std::string> whitelisted;
    int imported = 0;
    std::string changes;  // since the last check
    for (int change = 0; change < 200; ++change) {
        const auto kind = random() % 9;
        std::string what;
        if (kind == 0 || (kind == 1 && whitelisted.empty())) {
            const std::string host = fmt::format("site{}.example", random() % 40);
            std::vector<ExtensionType> in;
            for (ExtensionType type : types) {
                if (random() % 3 == 0) in.push_back(type);
            }
            changer.whitelist(host, in);
            whitelisted.push_back(host);
            what = "whitelist " + host;
        } else if (kind == 1) {
            const std::string host = whitelisted[random() % whitelisted.size()];
            if (const auto rule = changer.whitelistRule(host)) changer.unwhitelist(host, *rule);
            what = "unwhitelist " + host;
        } else if (kind == 2) {
            const std::string host = fmt::format("plain{}.example", random() % 40);
            changer.makeHttps(host);
            what = "make HTTPS " + host;
        } else if (kind == 3) {
            const auto hide = changer.configurablePackage(model::ConfigurableType::hideElements);
            ASSERT_TRUE(hide);
            const std::string id = fmt::format("hidden{}", change);
            auto editing = data.beginEditing();
            data.saveRule(hideRule(id, fmt::format("page{}.example", random() % 10)), *hide);
            what = "hide element " + id;
        } else if (kind == 4) {
            const auto [package, rule] = someRuleOf(random);
            toggleRule(package, rule);
            what = "switch rule " + package + "/" + rule;
        } else if (kind == 5) {
            std::vector<std::string> ids{"whitelist", "block-url", "hide-elements", "make-https", "block-german",
                                         "block-polish"};
            for (JSONFileName file : generalFiles) ids.emplace_back(model::rawValue(file));
            for (const Package& package : data.customPackages()) ids.push_back(package.id);
            const std::string id = ids[random() % ids.size()];
            togglePackage(id);
            what = "switch package " + id;
        } else if (kind == 6) {
            auto editing = data.beginEditing();
            const std::string id = fmt::format("imported{}", imported++ % 4);
            data.addOrReplaceCustomPackage(Package(id, id, {}));
            for (Rule& rule : someRules(fmt::format("{}-{}", id, change), 6, random)) data.setRule(rule, id);
            data.savePackages({JSONFileName::blockCustom}, true);
            what = "import " + id;
        } else if (kind == 7) {
            const auto file = generalFiles[random() % generalFiles.size()];
            writeGeneralFile(file, random);
            what = "new version of " + std::string(model::rawValue(file));
        } else {
            what = "nothing";
        }
        platform::MainRunLoop::drain();
        // Every change goes through the kept bodies; every tenth is checked
        // against a rebuild from scratch (a file written with its disk
        // flush is slow enough to count here).
        changes += fmt::format("{}: {}; ", change, what);
        const auto incremental = rebuildAll(bodies);
        if (change % 10 == 9) {
            ASSERT_EQ(incremental, rebuildAll(nullptr)) << "after " << changes;
            changes.clear();
        }
    }
}

}  // namespace
}  // namespace tamsel::control
