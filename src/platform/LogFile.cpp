#include "platform/LogFile.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>

namespace tamsel::platform {

struct LogFile::Writer {
    std::shared_ptr<spdlog::logger> logger;
};

std::expected<std::unique_ptr<LogFile>, std::string> LogFile::open(const std::filesystem::path& path, Limits limits) {
    try {
        // The sink creates the folder and opens the file for appending at once,
        // so a folder we may not write to fails here rather than at the first line.
        auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
            path.string(), limits.maximumSize == 0 ? 1 : limits.maximumSize, limits.maximumFiles);
        // Not registered: spdlog's registry is process-wide and this logger is ours alone.
        auto logger = std::make_shared<spdlog::logger>("tamsel", std::move(sink));
        logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %P %v");
        logger->set_level(spdlog::level::trace);
        logger->flush_on(spdlog::level::trace);
        return std::unique_ptr<LogFile>(new LogFile(path, std::make_unique<Writer>(Writer{std::move(logger)})));
    } catch (const std::exception& error) {
        return std::unexpected(std::string(error.what()));
    }
}

LogFile::LogFile(std::filesystem::path path, std::unique_ptr<Writer> writer)
    : path_(std::move(path)), writer_(std::move(writer)) {}

LogFile::~LogFile() = default;

void LogFile::write(const LogRecord& record) {
    const std::string line = streamLine(record);
    const auto level = record.level == LogLevel::error ? spdlog::level::err
                       : record.level == LogLevel::debug ? spdlog::level::debug
                                                         : spdlog::level::info;
    try {
        writer_->logger->log(level, spdlog::string_view_t(line.data(), line.size()));
    } catch (const std::exception&) {
        // A full disk must not take the program down with it; the line is lost.
    }
}

}  // namespace tamsel::platform
