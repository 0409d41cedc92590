#pragma once

#include <cstddef>
#include <expected>
#include <filesystem>
#include <memory>
#include <string>

#include "platform/Log.h"

// A log file that keeps the program's log lines on disk and rotates by size.
//
// Each record becomes one line: the local time to the millisecond, the
// process id, then the record as the streams show it ("[info] [Files] ...",
// "[debug] ...", or a console line as-is). When the file would grow past
// `maximumSize` it is renamed to "<stem>.1<ext>" (the older ones move up a
// number) and a new one is begun; `maximumFiles` old files are kept.
//
// Several processes may append to the same file: the file is opened for
// appending, so whole lines never interleave. Each process counts the size
// it has seen, so when two rotate at about the same time a file may end up
// a little larger than the limit; nothing is lost.
namespace tamsel::platform {

class LogFile {
public:
    struct Limits {
        std::size_t maximumSize = std::size_t{1} << 20;
        std::size_t maximumFiles = 3;
    };

    // Opens (creating the folder and the file) for appending. Fails with a
    // readable reason when the folder or file cannot be created.
    static std::expected<std::unique_ptr<LogFile>, std::string> open(const std::filesystem::path& path,
                                                                      Limits limits);
    static std::expected<std::unique_ptr<LogFile>, std::string> open(const std::filesystem::path& path) {
        return open(path, Limits{});
    }

    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // Appends the record as one line and flushes it, so that a crash loses
    // nothing that was logged before it. Thread-safe.
    void write(const LogRecord& record);

    const std::filesystem::path& path() const { return path_; }

private:
    struct Writer;
    LogFile(std::filesystem::path path, std::unique_ptr<Writer> writer);

    std::filesystem::path path_;
    std::unique_ptr<Writer> writer_;
};

}  // namespace tamsel::platform
