// The check that a shared package file passes before its import changes
// anything.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "control/PackageImport.h"
#include "model/ConfigurableType.h"
#include "model/ExtensionType.h"
#include "model/InternationalType.h"

namespace tamsel::control {
namespace {

using model::Package;
using model::Rule;
using ::testing::Optional;

Rule rule(std::string id) {
    model::Blocker blocker;
    blocker.trigger.urlFilter = "ads";
    blocker.action.type = model::ActionType::block;
    return Rule(std::move(id), "a rule", blocker);
}

Package package(std::string id, std::vector<std::string> ruleIDs = {"r1"}) {
    std::vector<Rule> rules;
    for (auto& ruleID : ruleIDs) rules.push_back(rule(std::move(ruleID)));
    return Package(std::move(id), "Shared", std::move(rules));
}

TEST(PackageImportTest, OwnPackagesWithDistinctRulesPass) {
    EXPECT_EQ(importRefusal({}), std::nullopt);
    EXPECT_EQ(importRefusal({package("shared-list", {"r1", "r2"}), package("other", {"r1"}), package("empty", {})}),
              std::nullopt)
        << "rule identifiers need only differ within a package";
    EXPECT_EQ(importRefusal({package("block-ads-extra"), package("Block-Ads"), package("block-configurable")}),
              std::nullopt)
        << "only the catalogue's identifiers themselves are taken";
}

TEST(PackageImportTest, EveryIdentifierOfTheCatalogueIsRefused) {
    for (const auto type : model::allCases<model::ExtensionType>()) {
        const std::string id(model::rawValue(type));
        EXPECT_THAT(importRefusal({package("mine"), package(id)}),
                    Optional("\"" + id + "\" is the identifier of a built-in package"));
    }
    for (const auto type : model::allCases<model::InternationalType>()) {
        const std::string id(model::rawValue(type));
        EXPECT_THAT(importRefusal({package(id)}), Optional("\"" + id + "\" is the identifier of a built-in package"));
    }
    for (const auto type : model::allCases<model::ConfigurableType>()) {
        const std::string id(model::rawValue(type));
        EXPECT_THAT(importRefusal({package(id)}),
                    Optional("\"" + id + "\" is the identifier of a configurable package"));
    }
}

TEST(PackageImportTest, MissingAndRepeatedIdentifiersAreRefused) {
    EXPECT_THAT(importRefusal({package("mine"), package("")}), Optional(std::string("package 2 has no identifier")));
    EXPECT_THAT(importRefusal({package("mine", {"r1", "", "r3"})}),
                Optional(std::string("package \"mine\": rule 2 has no identifier")));
    EXPECT_THAT(importRefusal({package("mine", {"r1", "r2", "r1"})}),
                Optional(std::string("package \"mine\": rule \"r1\" occurs more than once")));
    // Whatever an identifier holds, the text stays one line.
    EXPECT_THAT(importRefusal({package("two\nlines", {"r\n", "r\n"})}),
                Optional(std::string("package \"two\\nlines\": rule \"r\\n\" occurs more than once")));
}

}  // namespace
}  // namespace tamsel::control
