#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "platform/Files.h"
#include "platform/Localization.h"
#include "support/TestSupport.h"

namespace tamsel::platform {
namespace {

using tamsel::testing::LogCapture;
using tamsel::testing::ScopedEnvironmentVariable;
using tamsel::testing::TemporaryDirectory;

// Tables in a temporary resources folder, chosen through the environment.
class LocalizationTest : public ::testing::Test {
protected:
    void SetUp() override { resetLocalizationForTesting(); }
    void TearDown() override { resetLocalizationForTesting(); }

    void writeTable(const std::string& language, const std::string& table, const std::string& content) {
        const auto folder = resources / "strings" / language;
        std::filesystem::create_directories(folder);
        ASSERT_TRUE(writeFileAtomically(folder / (table + ".strings"), content));
    }

    TemporaryDirectory resources;
    ScopedEnvironmentVariable resourcesVariable{"TAMSEL_RESOURCES", resources.path().string()};
    ScopedEnvironmentVariable languageVariable{"TAMSEL_LANGUAGE", std::nullopt};
    ScopedEnvironmentVariable langVariable{"LANG", "C.UTF-8"};
};

TEST_F(LocalizationTest, ReadsTheStringsSyntax) {
    writeTable("en", "Table", R"(/* A block comment
   over lines "with" = "quotes"; */
"plain" = "Plain text";
// a line comment
"escapes" = "Say \"hi\"\n\tthen \\ go";
"unicode" = "caf\U00e9 \u2192 \ud83d\ude00";
bare.key = bare-value;
"self";
  "spaced"   =
     "Spaced"  ;
"format" = "%d of %@ blocked";
"plain" = "Last one wins";
)");
    EXPECT_EQ(localizedString("Table", "plain"), "Last one wins");
    EXPECT_EQ(localizedString("Table", "escapes"), "Say \"hi\"\n\tthen \\ go");
    EXPECT_EQ(localizedString("Table", "unicode"), "caf\u00e9 \u2192 \U0001F600");
    EXPECT_EQ(localizedString("Table", "bare.key"), "bare-value");
    EXPECT_EQ(localizedString("Table", "self"), "self");
    EXPECT_EQ(localizedString("Table", "spaced"), "Spaced");
    EXPECT_EQ(localizedString("Table", "format"), "%d of %@ blocked");
    EXPECT_EQ(localizedString("Table", "with"), "with");  // commented out
}

TEST_F(LocalizationTest, MissingTranslationShowsTheKey) {
    writeTable("en", "Table", R"("known" = "Known";)");
    EXPECT_EQ(localizedString("Table", "unknown.key"), "unknown.key");
    EXPECT_EQ(localizedString("NoSuchTable", "known"), "known");
}

TEST_F(LocalizationTest, MalformedTableKeepsTheEntriesBeforeTheError) {
    writeTable("en", "Table", "\"first\" = \"First\";\n\"second\" = \"Second\"\n\"third\" = \"Third\";\n");
    LogCapture log;
    EXPECT_EQ(localizedString("Table", "first"), "First");
    EXPECT_EQ(localizedString("Table", "third"), "third");
    EXPECT_TRUE(log.contains("expected ';' on line 3"));
}

TEST_F(LocalizationTest, LanguageComesFromTheEnvironmentWithEnglishAsFallback) {
    writeTable("en", "Table", R"("both" = "Both"; "english" = "English only";)");
    writeTable("de", "Table", R"("both" = "Beide";)");
    {
        ScopedEnvironmentVariable lang("LANG", "de_DE.UTF-8");
        resetLocalizationForTesting();
        EXPECT_EQ(localizationLanguage(), "de");
        EXPECT_EQ(localizedString("Table", "both"), "Beide");
        EXPECT_EQ(localizedString("Table", "english"), "English only");
    }
    {
        ScopedEnvironmentVariable language("TAMSEL_LANGUAGE", "de-CH");
        ScopedEnvironmentVariable lang("LANG", "fr_FR.UTF-8");
        resetLocalizationForTesting();
        EXPECT_EQ(localizationLanguage(), "de");
    }
    {
        ScopedEnvironmentVariable language("TAMSEL_LANGUAGE", "ja");
        resetLocalizationForTesting();
        EXPECT_EQ(localizationLanguage(), "en");
        EXPECT_EQ(localizedString("Table", "both"), "Both");
    }
}

TEST_F(LocalizationTest, FirstLookupsFromManyThreadsAgree) {
    std::string table;
    for (int i = 0; i < 500; ++i) table += "\"key" + std::to_string(i) + "\" = \"Value " + std::to_string(i) + "\";\n";
    writeTable("en", "Table", table);
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = t; i < 500; i += 7) {
                if (localizedString("Table", "key" + std::to_string(i)) != "Value " + std::to_string(i)) ++wrong;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

// The tables that ship with the program.
TEST(ShippedStringTables, ParseCleanlyAndTranslateTheirKeys) {
    ScopedEnvironmentVariable resources("TAMSEL_RESOURCES", std::nullopt);
    ScopedEnvironmentVariable language("TAMSEL_LANGUAGE", "en");
    resetLocalizationForTesting();
    LogCapture log;
    const std::filesystem::path folder = std::filesystem::path(TAMSEL_SOURCE_DIR) / "resources" / "strings" / "en";
    std::size_t keys = 0;
    for (const char* table : {"TamselKit+Localizable", "CommonUI+Localizable", "Shortcut+Localizable"}) {
        const auto content = readFile(folder / (std::string(table) + ".strings"));
        ASSERT_TRUE(content) << table;
        // Every quoted key at the start of a line must come back translated.
        std::istringstream lines(*content);
        for (std::string line; std::getline(lines, line);) {
            if (!line.starts_with('"')) continue;
            const std::string key = line.substr(1, line.find('"', 1) - 1);
            EXPECT_NE(localizedString(table, key), key) << table << ": " << key;
            ++keys;
        }
    }
    EXPECT_GT(keys, 50u);
    EXPECT_FALSE(log.contains("Malformed")) << ::testing::PrintToString(log.messages());
    resetLocalizationForTesting();
}

TEST(LocalizedFormatTest, FillsTheFirstConversionOnly) {
    EXPECT_EQ(localizedFormat("Actions on %@", "example.com"), "Actions on example.com");
    EXPECT_EQ(localizedFormat("Paused for %d more minutes", "12"), "Paused for 12 more minutes");
    EXPECT_EQ(localizedFormat("%ld rules", "3"), "3 rules");
    EXPECT_EQ(localizedFormat("100%% of %@ and %@", "a"), "100% of a and %@");
    // An untranslated key has no conversion; an unknown one is kept as written.
    EXPECT_EQ(localizedFormat("action.alert.no-domain.note", "x"), "action.alert.no-domain.note");
    EXPECT_EQ(localizedFormat("50%x %@ %", "y"), "50%x y %");
}

}  // namespace
}  // namespace tamsel::platform
