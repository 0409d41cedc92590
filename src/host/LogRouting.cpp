#include "host/LogRouting.h"

#include <cstdio>
#include <memory>
#include <string>

#include "platform/DataRoot.h"
#include "platform/Log.h"
#include "platform/LogFile.h"

namespace tamsel::host {
namespace {

class Routing {
public:
    explicit Routing(bool verbose) : verbose_(verbose) {}

    // Runs under the log's own lock, so it writes directly instead of logging again.
    void write(const platform::LogRecord& record) {
        if (!opened_) {
            // Only now: a command that logs nothing makes no data root.
            opened_ = true;
            const std::filesystem::path path = logFilePath();
            auto file = platform::LogFile::open(path);
            if (file) {
                file_ = std::move(*file);
            } else if (verbose_) {
                std::fprintf(stderr, "[debug] no log file %s: %s\n", path.c_str(), file.error().c_str());
            }
        }
        if (file_) file_->write(record);
        if (verbose_) std::fprintf(stderr, "%s\n", platform::streamLine(record).c_str());
    }

private:
    const bool verbose_;
    bool opened_ = false;
    // Stays empty when the file cannot be opened: the lines are then only
    // on standard error, with -v.
    std::unique_ptr<platform::LogFile> file_;
};

}  // namespace

std::filesystem::path logFilePath() { return platform::DataRoot::home() / "logs" / "tamsel.log"; }

void routeLogLines(bool verbose) {
    auto routing = std::make_shared<Routing>(verbose);
    platform::setLogSink([routing](const platform::LogRecord& record) { routing->write(record); }, /*silence=*/true);
}

}  // namespace tamsel::host
