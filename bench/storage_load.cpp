// How long loading every package file takes: the six general lists, the
// regional lists, the configurable and the custom packages, read the way the
// data manager reads them when it starts or reloads (all four reads at once,
// the six general files side by side).
//
// Writes the benchmark rule set (bench/support/RuleSetGenerator.h: 6 general
// files of 50,000 rules, 9 regional lists of 5,000, the configurable packages
// with a 2,000-domain whitelist, 3 custom packages of 1,000) into a temporary
// data root, then loads it several times and prints the size, the time of
// each run and the throughput.
//
//   bench_storage_load [runs]

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "model/Package.h"
#include "platform/DataRoot.h"
#include "platform/Log.h"
#include "storage/PathProvider.h"
#include "storage/PersistentStore.h"
#include "support/RuleSetGenerator.h"

namespace {

namespace fs = std::filesystem;
using namespace tamsel;
using model::Package;

// Loads everything once; returns the number of rules that came back.
std::size_t loadAll() {
    std::mutex mutex;
    std::condition_variable done;
    int pending = 4;
    std::size_t rules = 0;
    const auto collect = [&](std::vector<Package> packages) {
        std::lock_guard lock(mutex);
        for (const Package& package : packages) rules += package.rules.size();
        if (--pending == 0) done.notify_one();
    };
    storage::PersistentStore::readGeneralPackages(collect);
    storage::PersistentStore::readInternationalPackages(collect);
    storage::PersistentStore::readConfigurablePackages(collect);
    storage::PersistentStore::readCustomPackages(collect);
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return pending == 0; });
    return rules;
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;

    std::string pattern = (fs::temp_directory_path() / "tamsel-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    const fs::path home = pattern;
    platform::DataRoot::setHome(home);
    // The reads log one line per file; keep the output to the figures.
    platform::setLogSink([](const platform::LogRecord&) {}, true);

    const auto generateStart = std::chrono::steady_clock::now();
    const bench::RuleSet set = bench::generateRuleSet();
    const auto written = bench::writeRuleSet(set);
    if (!written) {
        std::fprintf(stderr, "could not write the package files: %s\n", written.error().c_str());
        fs::remove_all(home);
        return 1;
    }
    const double generateSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - generateStart).count();

    // Only the package files are loaded; the firewall host list is not.
    std::uintmax_t bytes = 0;
    for (const auto& file : *written) {
        if (file.path != storage::PathProvider::hostsFileURL()) bytes += file.bytes;
    }
    const double megabytes = static_cast<double>(bytes) / 1e6;
    std::printf("input: %zu packages, %zu rules (6 general x 50,000, 9 regional x 5,000, configurable, 3 custom x 1,000)\n",
                set.packageCount(), set.ruleCount());
    std::printf("files: %.1f MB of package files in %s (generated in %.1f s)\n", megabytes,
                storage::PathProvider::filtersFolderURL().c_str(), generateSeconds);

    std::vector<double> seconds;
    for (int run = 0; run < runs; ++run) {
        const auto start = std::chrono::steady_clock::now();
        const std::size_t rules = loadAll();
        seconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        std::printf("run %d: %zu rules in %.3f s, %.1f MB/s\n", run + 1, rules, seconds.back(),
                    megabytes / seconds.back());
    }
    std::sort(seconds.begin(), seconds.end());
    const double median = seconds[seconds.size() / 2];
    std::printf("median of %d runs: %.3f s for %.1f MB, %.1f MB/s (best %.3f s)\n", runs, median, megabytes,
                megabytes / median, seconds.front());

    platform::setLogSink({});
    fs::remove_all(home);
    return 0;
}
