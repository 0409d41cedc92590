// How fast the eight Safari JSON files are rebuilt, and how much memory that
// takes, for a data root that holds the benchmark rule set (write one with
// bench_generate_rule_set first, so that generating it does not count towards
// the peak):
//
//   bench_generate_rule_set --home /tmp/ruleset
//   bench_compile --home /tmp/ruleset [runs] [--case a|b]
//
// Measures, with Safari's reloads answered at once:
//   (a) saveToJSONAndReloadAll from scratch: the first run loads the
//       regional, configurable and custom lists into the data manager; every
//       run reads the six general files again and encodes every rule, as
//       the program does when nothing was kept from an earlier rebuild;
//   (b) the rebuild after one whitelisting rule changed (the whitelist
//       package feeds every file, so all eight are rebuilt; their bodies are
//       kept from the rebuild before);
//   (c) the peak resident memory of the whole process, against the bytes of
//       the package files.
// A rebuild is done when Safari was asked to reload the last file; the files
// reach the disk after that, in the background. Each run waits for that
// before the next starts, and the time until then is given as well.
// "--case" runs only one of (a) and (b) (after one rebuild), for profiling.

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "control/DataManager.h"
#include "control/ExtensionManager.h"
#include "model/Package.h"
#include "platform/DataRoot.h"
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "platform/MainRunLoop.h"
#include "platform/ProcessMemory.h"
#include "settings/App.h"
#include "storage/PathProvider.h"

namespace {

using namespace tamsel;
using Seconds = std::chrono::duration<double>;

// Safari that compiles nothing and answers at once.
class InstantSafari : public platform::ContentBlockerManager {
public:
    void reloadContentBlocker(const std::string&, ReloadCompletion completion) override { completion(std::nullopt); }
    void getStateOfContentBlocker(const std::string&, StateCompletion completion) override {
        completion(platform::ContentBlockerState{true}, std::nullopt);
    }
};

std::uintmax_t folderBytes(const std::filesystem::path& folder, const std::string& extension) {
    std::uintmax_t bytes = 0;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        if (entry.is_regular_file() && entry.path().extension() == extension) bytes += entry.file_size();
    }
    return bytes;
}

double peakResidentMegabytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;  // kilobytes on Linux
}

// Processor time of the whole process (every thread), in seconds.
double processorSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// What each run took, in processor time: on a shared machine wall time
// depends on the neighbours.
std::vector<double> processorRuns;
// When each run's files were on disk, from its start.
std::vector<double> durableRuns;

// Runs `request` and the main queue until its completion came; the seconds
// it took. Then waits until `manager` is idle (the files on disk).
double timed(control::ExtensionManager& manager, const std::function<void(storage::ReloadingCompletion)>& request) {
    std::optional<storage::ReloadingResult> result;
    const double processorStart = processorSeconds();
    const auto start = std::chrono::steady_clock::now();
    request([&](storage::ReloadingResult r) { result = r; });
    if (!platform::MainRunLoop::runUntil([&] { return result.has_value(); }, std::chrono::minutes(5))) {
        std::fprintf(stderr, "bench_compile: the rebuild did not finish\n");
        std::exit(1);
    }
    const double seconds = Seconds(std::chrono::steady_clock::now() - start).count();
    processorRuns.push_back(processorSeconds() - processorStart);
    manager.waitUntilIdle();
    durableRuns.push_back(Seconds(std::chrono::steady_clock::now() - start).count());
    if (!*result) {
        std::fprintf(stderr, "bench_compile: the rebuild failed: %s\n", result->error().description().c_str());
        std::exit(1);
    }
    return seconds;
}

void printRuns(const char* label, std::vector<double> runs, std::vector<double> processor,
               std::vector<double> durable) {
    std::sort(runs.begin(), runs.end());
    std::sort(processor.begin(), processor.end());
    std::sort(durable.begin(), durable.end());
    std::printf("%-48s median %7.3f s  min %7.3f s  max %7.3f s  (%zu runs)\n", label, runs[runs.size() / 2],
                runs.front(), runs.back(), runs.size());
    std::printf("%-48s median %7.3f s  min %7.3f s  max %7.3f s\n", "    processor time (all threads)",
                processor[processor.size() / 2], processor.front(), processor.back());
    std::printf("%-48s median %7.3f s  min %7.3f s  max %7.3f s\n", "    until the files were on disk",
                durable[durable.size() / 2], durable.front(), durable.back());
}

}  // namespace

int main(int argc, char** argv) {
    // As the program sets itself up.
    platform::configureProcessMemory();
    std::string home;
    int runs = 5;
    std::string only;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--home" && i + 1 < argc) {
            home = argv[++i];
        } else if (argument == "--case" && i + 1 < argc) {
            only = argv[++i];
        } else {
            runs = std::max(1, std::atoi(argv[i]));
        }
    }
    if (home.empty()) {
        std::fprintf(stderr, "usage: bench_compile --home DIR [runs]  (DIR from bench_generate_rule_set)\n");
        return 2;
    }
    platform::DataRoot::setHome(std::filesystem::absolute(home));
    const auto packageBytes = folderBytes(storage::PathProvider::filtersFolderURL(), ".json");
    if (packageBytes == 0) {
        std::fprintf(stderr, "bench_compile: no package files under %s\n", home.c_str());
        return 1;
    }
    // The compile's trace lines are not what is measured.
    platform::setLogSink([](const platform::LogRecord&) {}, true);
    settings::App::setIsMacButtonExtension(true);

    control::DataManager data;
    control::ExtensionManager::Configuration configuration;
    configuration.dataManager = &data;
    configuration.contentBlockers = std::make_shared<InstantSafari>();
    auto manager = control::ExtensionManager::create(configuration);

    std::vector<double> all;
    std::vector<double> allProcessor;
    std::vector<double> allDurable;
    double cold = 0;
    for (int run = 0; run <= (only == "b" ? 0 : runs); ++run) {
        manager->forgetEncodedBodies();
        const double seconds =
            timed(*manager, [&](auto completion) { manager->saveToJSONAndReloadAll(std::nullopt, completion); });
        if (run == 0) {
            cold = seconds;
        } else {
            all.push_back(seconds);
            allProcessor.push_back(processorRuns.back());
            allDurable.push_back(durableRuns.back());
        }
    }

    std::vector<double> whitelistChange;
    std::vector<double> whitelistProcessor;
    std::vector<double> whitelistDurable;
    for (int run = 0; run < (only == "a" ? 0 : runs); ++run) {
        auto configurable = data.configurablePackages();
        auto whitelist = std::find_if(configurable.begin(), configurable.end(),
                                      [](const model::Package& p) { return p.isConfigurableWhitelist(); });
        if (whitelist == configurable.end() || whitelist->rules.empty()) {
            std::fprintf(stderr, "bench_compile: the rule set has no whitelist rules\n");
            return 1;
        }
        model::Rule changed = whitelist->rules.front();
        changed.partialWhitelist = run % 2 == 0 ? std::vector<model::ExtensionType>{model::ExtensionType::blockAds}
                                                : std::vector<model::ExtensionType>{};
        data.setRule(changed, whitelist->id);
        whitelistChange.push_back(timed(*manager, [&](auto completion) {
            manager->saveToJSONAndReload(model::ExtensionType::customRules, true, completion);
        }));
        whitelistProcessor.push_back(processorRuns.back());
        whitelistDurable.push_back(durableRuns.back());
    }
    manager->waitUntilIdle();

    const auto safariBytes = folderBytes(storage::PathProvider::safariJSONFolderURL(), ".json");
    const double packageMegabytes = static_cast<double>(packageBytes) / (1024.0 * 1024.0);
    const double peak = peakResidentMegabytes();
    std::printf("package files          %8.1f MB\n", packageMegabytes);
    std::printf("Safari JSON files      %8.1f MB\n", static_cast<double>(safariBytes) / (1024.0 * 1024.0));
    std::printf("%-48s %7.3f s\n", "(a) save-reload all, first run (lists loaded)", cold);
    if (!all.empty()) printRuns("(a) save-reload all", all, allProcessor, allDurable);
    if (!whitelistChange.empty()) {
        printRuns("(b) rebuild after one whitelist rule changed", whitelistChange, whitelistProcessor,
                  whitelistDurable);
    }
    std::printf("(c) peak resident memory %8.1f MB = %.2f x the package files\n", peak, peak / packageMegabytes);
    return 0;
}
