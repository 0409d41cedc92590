// Signals between the processes: what send writes, what getValues accepts,
// and an observer in this process hearing a signal sent by another.
#include <gtest/gtest.h>

#include <mutex>
#include <optional>
#include <vector>

#include "platform/Stores.h"
#include "settings/IPC.h"
#include "settings/Keys.h"
#include "support/TestSupport.h"

namespace {

using namespace tamsel;
using platform::Dictionary;
using platform::Value;
using settings::IPC;
using tamsel::testing::LogCapture;
using tamsel::testing::runChildEntry;
using tamsel::testing::ScopedDataRoot;
using tamsel::testing::waitUntil;

constexpr char missingValueLine[] = "Error getting values from dict: some value is nil";

Dictionary signal(std::optional<Value> type, std::optional<Value> domain, std::optional<Value> enabled) {
    Dictionary dictionary;
    if (type) dictionary.insert_or_assign("type", *type);
    if (domain) dictionary.insert_or_assign("domain", *domain);
    if (enabled) dictionary.insert_or_assign("enabled", *enabled);
    return dictionary;
}

TAMSEL_CHILD_ENTRY(sendChange) {
    const auto type = settings::changedTypeFromRawValue(arguments.at(0));
    if (!type) return 2;
    IPC::send(*type, arguments.at(1) == "true", arguments.at(2));
    return 0;
}

TAMSEL_CHILD_ENTRY(askToReloadAll) {
    IPC::saveToJSONAndReloadAllExtensions();
    return 0;
}

TEST(IPCChangedType, RawValuesInOrder) {
    const auto all = settings::allChangedTypeCases();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0], IPC::ChangedType::whitelist);
    EXPECT_EQ(all[1], IPC::ChangedType::makeHTTPS);
    EXPECT_EQ(settings::rawValue(IPC::ChangedType::makeHTTPS), "makeHTTPS");
    EXPECT_EQ(settings::changedTypeFromRawValue("whitelist"), IPC::ChangedType::whitelist);
    EXPECT_FALSE(settings::changedTypeFromRawValue("makeHttps"));
    EXPECT_FALSE(settings::changedTypeFromRawValue(""));
}

TEST(IPCSend, WritesTheWholeSignalUnderTheTypesKey) {
    ScopedDataRoot root;
    const auto shared = platform::SharedDefaults::shared();

    IPC::send(IPC::ChangedType::whitelist, false, "example.com");
    IPC::send(IPC::ChangedType::makeHTTPS, true, "*neverssl.com");

    EXPECT_EQ(shared->dictionary(settings::Keys::actionExtensionDidChangeWhitelist),
              signal(Value("whitelist"), Value("example.com"), Value(false)));
    EXPECT_EQ(shared->dictionary(settings::Keys::actionExtensionDidChangeMakeHTTPS),
              signal(Value("makeHTTPS"), Value("*neverssl.com"), Value(true)));
}

TEST(IPCSend, RequestFlagsAreTrueBooleans) {
    ScopedDataRoot root;
    IPC::showVisualEditor();
    IPC::saveToJSONAndReloadAllExtensions();
    const auto shared = platform::SharedDefaults::shared();
    EXPECT_EQ(shared->value(settings::Keys::actionExtensionAsksToShowVisualEditor), Value(true));
    EXPECT_EQ(shared->value(settings::Keys::agentAsksToSaveToJSONAndReloadAllExtensions), Value(true));
}

TEST(IPCGetValues, ReadsBackWhatSendWrote) {
    ScopedDataRoot root;
    IPC::send(IPC::ChangedType::makeHTTPS, true, "example.org");
    const auto dictionary = platform::SharedDefaults::shared()->dictionary(settings::Keys::actionExtensionDidChangeMakeHTTPS);
    ASSERT_TRUE(dictionary);
    LogCapture log;
    const auto change = IPC::getValues(*dictionary);
    ASSERT_TRUE(change);
    EXPECT_EQ(*change, (IPC::Change{IPC::ChangedType::makeHTTPS, true, "example.org"}));
    EXPECT_TRUE(log.records().empty());
}

TEST(IPCGetValues, AnyMissingOrMistypedValueGivesNothingAndOneLine) {
    const std::vector<std::pair<const char*, Dictionary>> broken{
        {"enabled missing", signal(Value("whitelist"), Value("example.com"), std::nullopt)},
        {"domain missing", signal(Value("whitelist"), std::nullopt, Value(true))},
        {"type missing", signal(std::nullopt, Value("example.com"), Value(true))},
        {"unknown type", signal(Value("blacklist"), Value("example.com"), Value(true))},
        {"enabled as integer", signal(Value("whitelist"), Value("example.com"), Value(1))},
        {"domain as array", signal(Value("whitelist"), Value(platform::Array{Value("a.com")}), Value(true))},
        {"type as boolean", signal(Value(true), Value("example.com"), Value(true))},
        {"empty", Dictionary{}},
    };
    for (const auto& [what, dictionary] : broken) {
        SCOPED_TRACE(what);
        LogCapture log;
        EXPECT_FALSE(IPC::getValues(dictionary));
        EXPECT_EQ(log.lines(), std::vector<std::string>{missingValueLine});
    }
}

TEST(IPCGetValues, ExtraKeysAreIgnored) {
    auto dictionary = signal(Value("whitelist"), Value(""), Value(false));
    dictionary.insert_or_assign("sender", Value("agent"));
    EXPECT_EQ(IPC::getValues(dictionary), (IPC::Change{IPC::ChangedType::whitelist, false, ""}));
}

TEST(IPCObserver, HearsASignalSentByAnotherProcess) {
    ScopedDataRoot root;
    std::mutex mutex;
    std::vector<std::optional<IPC::Change>> heard;
    auto token = IPC::makeObserver(settings::Keys::actionExtensionDidChangeWhitelist,
                                   [&](platform::UserDefaults&, const std::optional<Value>& newValue) {
                                       std::optional<IPC::Change> change;
                                       if (newValue && newValue->asDictionary()) {
                                           change = IPC::getValues(*newValue->asDictionary());
                                       }
                                       std::lock_guard lock(mutex);
                                       heard.push_back(change);
                                   });

    ASSERT_EQ(runChildEntry("sendChange", {"whitelist", "true", "news.example.com"}), 0);
    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard lock(mutex);
        return !heard.empty();
    }));
    std::lock_guard lock(mutex);
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0], (IPC::Change{IPC::ChangedType::whitelist, true, "news.example.com"}));
}

TEST(IPCObserver, IgnoresOtherKeysAndStopsWithItsToken) {
    ScopedDataRoot root;
    const auto shared = platform::SharedDefaults::shared();
    std::mutex mutex;
    std::vector<std::optional<Value>> heard;
    auto token = IPC::makeObserver(settings::Keys::agentAsksToSaveToJSONAndReloadAllExtensions,
                                   [&](platform::UserDefaults& defaults, const std::optional<Value>& newValue) {
                                       // The handler gets the shared defaults themselves.
                                       EXPECT_EQ(&defaults, shared.get());
                                       std::lock_guard lock(mutex);
                                       heard.push_back(newValue);
                                   });

    IPC::send(IPC::ChangedType::makeHTTPS, true, "example.com");
    ASSERT_EQ(runChildEntry("askToReloadAll"), 0);
    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard lock(mutex);
        return !heard.empty();
    }));
    shared->deliverPendingChanges();

    token.reset();
    ASSERT_EQ(runChildEntry("askToReloadAll"), 0);
    shared->deliverPendingChanges();

    std::lock_guard lock(mutex);
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0], Value(true));
}

}  // namespace
