// Writes the benchmark rule set (bench/support/RuleSetGenerator.h) into a data
// root: the package files and hosts.txt in its group container's filters
// folder, exactly where the program reads them.
//
//   bench_generate_rule_set --home DIR [--seed N]
//
// Checks first that Safari would accept every extension's list built from the
// set, then prints each file written with its size, and the total.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/DataRoot.h"
#include "platform/Log.h"
#include "storage/PathProvider.h"
#include "support/RuleSetGenerator.h"

namespace {

int usage() {
    std::fprintf(stderr, "usage: bench_generate_rule_set --home DIR [--seed N]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace tamsel;
    std::string home;
    unsigned seed = bench::defaultRuleSetSeed;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--home" && i + 1 < argc) {
            home = argv[++i];
        } else if (argument == "--seed" && i + 1 < argc) {
            char* end = nullptr;
            const unsigned long value = std::strtoul(argv[++i], &end, 10);
            if (end == argv[i] || *end != '\0') return usage();
            seed = static_cast<unsigned>(value);
        } else {
            return usage();
        }
    }
    if (home.empty()) return usage();

    platform::DataRoot::setHome(std::filesystem::absolute(home));
    // Every write logs a line, and every whitelist rule with a partial
    // whitelist prints one while it is encoded; only the summary matters here.
    platform::setLogSink([](const platform::LogRecord&) {}, true);

    const auto start = std::chrono::steady_clock::now();
    const bench::RuleSet set = bench::generateRuleSet({}, seed);
    if (auto refusal = bench::checkAcceptedBySafari(set)) {
        std::fprintf(stderr, "generated rules that Safari would refuse: %s\n", refusal->c_str());
        return 1;
    }
    const auto written = bench::writeRuleSet(set);
    platform::setLogSink({});
    if (!written) {
        std::fprintf(stderr, "could not write the rule set: %s\n", written.error().c_str());
        return 1;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    std::uintmax_t total = 0;
    std::printf("rule set (seed %u): %zu packages, %zu rules, %zu firewall hosts\n", seed, set.packageCount(),
                set.ruleCount(), set.firewallHosts.size());
    std::printf("written to %s\n", storage::PathProvider::filtersFolderURL().c_str());
    for (const auto& file : *written) {
        std::printf("  %12ju  %s\n", file.bytes, file.path.filename().c_str());
        total += file.bytes;
    }
    std::printf("total: %ju bytes (%.1f MB) in %zu files, generated in %.1f s\n", total,
                static_cast<double>(total) / 1e6, written->size(), seconds);
    return 0;
}
