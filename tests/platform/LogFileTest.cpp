// The log file: one line per record with time and process, rotation by
// size, several writers on one file, and a folder that cannot be made.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/Files.h"
#include "platform/LogFile.h"
#include "support/TestSupport.h"

namespace {

using namespace tamsel;
using platform::LogFile;
using platform::LogLevel;
using platform::LogRecord;
namespace fs = std::filesystem;

std::vector<std::string> lines(const fs::path& path) {
    std::ifstream file(path);
    std::vector<std::string> result;
    for (std::string line; std::getline(file, line);) result.push_back(line);
    return result;
}

LogRecord systemRecord(std::string message, LogLevel level = LogLevel::info) {
    return LogRecord{LogRecord::Outlet::system, level, "Files", std::move(message)};
}

TEST(LogFile, WritesEachRecordAsOneLineWithTimeAndProcessInAFolderItMakes) {
    tamsel::testing::TemporaryDirectory directory;
    const fs::path path = directory.path() / "logs" / "deeper" / "tamsel.log";
    auto file = LogFile::open(path);
    ASSERT_TRUE(file) << file.error();
    (*file)->write(systemRecord("Wrote 2 packages to /x", LogLevel::error));
    (*file)->write(LogRecord{LogRecord::Outlet::console, LogLevel::info, {}, "✅ Reloaded extension: Ads"});
    (*file)->write(LogRecord{LogRecord::Outlet::debug, LogLevel::debug, {}, "a debug line"});

    // Flushed as written: another program reads the file while we run.
    const auto written = lines(path);
    ASSERT_EQ(written.size(), 3u);
    const std::string pid = " " + std::to_string(::getpid()) + " ";
    for (const auto& line : written) {
        // "2024-05-10 12:00:00.123 4242 ..."
        ASSERT_GT(line.size(), 24u) << line;
        EXPECT_EQ(line[4], '-') << line;
        EXPECT_EQ(line[19], '.') << line;
        EXPECT_NE(line.find(pid), std::string::npos) << line;
    }
    EXPECT_TRUE(written[0].ends_with(pid + "[error] [Files] Wrote 2 packages to /x")) << written[0];
    EXPECT_TRUE(written[1].ends_with(pid + "✅ Reloaded extension: Ads")) << written[1];
    EXPECT_TRUE(written[2].ends_with(pid + "[debug] a debug line")) << written[2];
}

TEST(LogFile, RotatesBySizeAndKeepsOnlyTheGivenNumberOfOldFiles) {
    tamsel::testing::TemporaryDirectory directory;
    const fs::path path = directory.path() / "tamsel.log";
    auto file = LogFile::open(path, {.maximumSize = 400, .maximumFiles = 2});
    ASSERT_TRUE(file) << file.error();
    for (int i = 0; i < 60; ++i) (*file)->write(systemRecord("line number " + std::to_string(i)));

    EXPECT_TRUE(fs::exists(path));
    EXPECT_TRUE(fs::exists(directory.path() / "tamsel.1.log"));
    EXPECT_TRUE(fs::exists(directory.path() / "tamsel.2.log"));
    EXPECT_FALSE(fs::exists(directory.path() / "tamsel.3.log"));
    for (const char* name : {"tamsel.log", "tamsel.1.log", "tamsel.2.log"}) {
        EXPECT_LE(fs::file_size(directory.path() / name), 400u) << name;
    }
    // The newest lines are in the current file, the last one last.
    const auto current = lines(path);
    ASSERT_FALSE(current.empty());
    EXPECT_TRUE(current.back().ends_with("line number 59"));
}

TEST(LogFile, WritersSharingAFileKeepEveryLineWhole) {
    tamsel::testing::TemporaryDirectory directory;
    const fs::path path = directory.path() / "tamsel.log";
    // As two processes would: each opens the file on its own.
    auto first = LogFile::open(path);
    auto second = LogFile::open(path);
    ASSERT_TRUE(first && second);
    const auto writeMany = [](LogFile& file, const std::string& who) {
        for (int i = 0; i < 200; ++i) file.write(systemRecord(who + " " + std::to_string(i) + " " + std::string(80, 'x')));
    };
    std::thread one([&] { writeMany(**first, "first"); });
    std::thread two([&] { writeMany(**second, "second"); });
    one.join();
    two.join();

    const auto written = lines(path);
    ASSERT_EQ(written.size(), 400u);
    for (const auto& line : written) EXPECT_TRUE(line.ends_with(std::string(80, 'x'))) << line;
}

TEST(LogFile, AFolderThatCannotBeMadeFailsWithAReason) {
    tamsel::testing::TemporaryDirectory directory;
    ASSERT_TRUE(platform::writeFileAtomically(directory.path() / "plain", "not a folder"));
    auto file = LogFile::open(directory.path() / "plain" / "tamsel.log");
    ASSERT_FALSE(file);
    EXPECT_FALSE(file.error().empty());
}

}  // namespace
