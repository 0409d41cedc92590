#include <gtest/gtest.h>

#include <fstream>

#include "platform/DataRoot.h"
#include "support/TestSupport.h"

namespace tamsel::platform {
namespace {

using tamsel::testing::ScopedEnvironmentVariable;
using tamsel::testing::TemporaryDirectory;

// Each case starts from no override and a known environment.
class DataRootTest : public ::testing::Test {
protected:
    void SetUp() override {
        previous = DataRoot::homeOverride();
        DataRoot::setHome(std::nullopt);
    }
    void TearDown() override { DataRoot::setHome(previous); }

    TemporaryDirectory directory;
    std::optional<std::filesystem::path> previous;
    ScopedEnvironmentVariable userHome{"HOME", (directory / "user").string()};
    ScopedEnvironmentVariable tamselHome{"TAMSEL_HOME", std::nullopt};
    ScopedEnvironmentVariable dataHome{"XDG_DATA_HOME", std::nullopt};
};

TEST_F(DataRootTest, OptionBeatsEnvironmentWhichBeatsXDG) {
    ScopedEnvironmentVariable xdg("XDG_DATA_HOME", (directory / "xdg").string());
    ScopedEnvironmentVariable home("TAMSEL_HOME", (directory / "env").string());
    DataRoot::setHome(directory / "option");
    EXPECT_EQ(DataRoot::home(), directory / "option");
    DataRoot::setHome(std::nullopt);
    EXPECT_EQ(DataRoot::home(), directory / "env");
}

TEST_F(DataRootTest, FallsBackToXDGDataHomeThenToTheUsersHome) {
    {
        ScopedEnvironmentVariable xdg("XDG_DATA_HOME", (directory / "xdg").string());
        EXPECT_EQ(DataRoot::home(), directory / "xdg" / "tamsel");
    }
    {
        ScopedEnvironmentVariable empty("TAMSEL_HOME", "");
        ScopedEnvironmentVariable relative("XDG_DATA_HOME", "relative/path");  // invalid, ignored
        EXPECT_EQ(DataRoot::home(), directory / "user" / ".local" / "share" / "tamsel");
    }
}

TEST_F(DataRootTest, FoldersAreCreatedOnDemand) {
    DataRoot::setHome(directory / "root");
    EXPECT_EQ(DataRoot::groupContainer(), directory / "root" / "group");
    EXPECT_EQ(DataRoot::extensionDirectory(), directory / "root" / "extension");
    EXPECT_EQ(DataRoot::cloudDirectory(), directory / "root" / "cloud");
    for (const char* name : {"group", "extension", "cloud"}) {
        EXPECT_TRUE(std::filesystem::is_directory(directory / "root" / name)) << name;
    }
}

TEST_F(DataRootTest, UncreatableFolderStillHasItsPath) {
    std::filesystem::create_directories(directory / "root");
    std::ofstream(directory / "root" / "cloud") << "in the way";
    DataRoot::setHome(directory / "root");
    EXPECT_EQ(DataRoot::cloudDirectory(), directory / "root" / "cloud");
    EXPECT_FALSE(std::filesystem::is_directory(directory / "root" / "cloud"));
}

}  // namespace
}  // namespace tamsel::platform
