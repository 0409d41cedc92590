// How long loading every package file takes: the six general lists, the
// regional lists, the configurable and the custom packages, read the way the
// data manager reads them when it starts or reloads (all four reads at once,
// the six general files side by side).
//
// Generates, in a temporary data root, 6 general files of 50,000 rules each
// and a regional file of 9 lists of 5,000 rules, shaped like converted filter
// lists: host-anchored and path url-filters, resource and load types, domain
// lists, element-hiding selectors and a few exceptions. Then loads them
// several times and prints the size, the time of each run and the throughput.
//
//   bench_storage_load [runs]

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "model/JSONFileName.h"
#include "model/Package.h"
#include "platform/DataRoot.h"
#include "platform/Log.h"
#include "storage/PathProvider.h"
#include "storage/PersistentStore.h"

namespace {

namespace fs = std::filesystem;
using namespace tamsel;
using model::Blocker;
using model::Package;
using model::Rule;

constexpr int generalRuleCount = 50'000;
constexpr int regionalListCount = 9;
constexpr int regionalRuleCount = 5'000;

class RuleGenerator {
public:
    explicit RuleGenerator(unsigned seed) : random_(seed) {}

    Rule next(const std::string& prefix, int index) {
        Blocker blocker;
        const int kind = pick(100);
        if (kind < 45) {
            // ||ads.host.tld^ style: a host and its subdomains.
            blocker.trigger.urlFilter = "^[^:]+://+([^:/]+\\.)?" + escapedHost() + "[:/]";
            blocker.action.type = model::ActionType::block;
            if (pick(3) == 0) blocker.trigger.loadType = std::vector{model::LoadType::thirdParty};
        } else if (kind < 65) {
            // A path fragment such as /adserver/banner_ with resource types.
            blocker.trigger.urlFilter = "/" + word() + "/" + word() + "[_-]" + std::to_string(pick(1000)) + "\\.";
            blocker.action.type = model::ActionType::block;
            blocker.trigger.resourceTypes = std::vector{model::ResourceType::script, model::ResourceType::image};
        } else if (kind < 93) {
            // Element hiding, mostly generic, some per site.
            blocker.trigger.urlFilter = ".*";
            blocker.action.type = model::ActionType::hide;
            blocker.action.selector = selector();
        } else {
            // An exception for a site.
            blocker.trigger.urlFilter = ".*";
            blocker.action.type = model::ActionType::ignorePreviousRules;
        }
        blocker.trigger.caseSensitive = pick(4) != 0;
        if (blocker.action.type == model::ActionType::ignorePreviousRules || pick(5) == 0) {
            model::DomainFilter filter;
            filter.type = pick(4) == 0 && blocker.action.type != model::ActionType::ignorePreviousRules
                              ? model::DomainFilterType::unlessDomain
                              : model::DomainFilterType::ifDomain;
            for (int i = 0, count = 1 + pick(6); i < count; ++i) filter.values.push_back("*" + host());
            blocker.trigger.domainFilter = std::move(filter);
        }
        return Rule(prefix + "-" + std::to_string(index), "Rule " + std::to_string(index), std::move(blocker));
    }

private:
    int pick(int below) { return std::uniform_int_distribution<int>(0, below - 1)(random_); }

    std::string word() {
        static const char* const parts[] = {"ad",     "ads",   "banner", "track", "pixel", "promo",  "sponsor",
                                            "popup",  "stat",  "metric", "beacon", "adserver", "analytics",
                                            "widget", "affil", "click",  "count", "media", "cdn",    "tag"};
        std::string text = parts[pick(std::size(parts))];
        if (pick(2) == 0) text += parts[pick(std::size(parts))];
        return text;
    }

    std::string host() {
        static const char* const tlds[] = {"com", "net", "org", "de", "ru", "fr", "io", "co.uk", "jp", "pl"};
        return word() + std::to_string(pick(100000)) + "." + tlds[pick(std::size(tlds))];
    }

    std::string escapedHost() {
        std::string escaped;
        for (char c : host()) {
            if (c == '.') escaped += '\\';
            escaped += c;
        }
        return escaped;
    }

    std::string selector() {
        switch (pick(4)) {
            case 0: return "." + word() + "-" + word() + "-" + std::to_string(pick(500));
            case 1: return "#" + word() + "_" + std::to_string(pick(500));
            case 2: return "div[id^=\"" + word() + "-\"]";
            default: return "a[href*=\"" + host() + "\"], ." + word() + " > iframe";
        }
    }

    std::mt19937 random_;
};

Package makePackage(RuleGenerator& generator, const std::string& id, int ruleCount) {
    std::vector<Rule> rules;
    rules.reserve(static_cast<std::size_t>(ruleCount));
    for (int i = 0; i < ruleCount; ++i) rules.push_back(generator.next(id, i));
    return Package(id, id + " list", std::move(rules));
}

bool generate() {
    RuleGenerator generator(424242);
    using model::JSONFileName;
    const JSONFileName generalFiles[] = {JSONFileName::blockAds,    JSONFileName::blockTrackers,
                                         JSONFileName::blockAnnoyances, JSONFileName::blockSocial,
                                         JSONFileName::blockComments, JSONFileName::blockAdult};
    for (JSONFileName file : generalFiles) {
        const std::string id(model::rawValue(file));
        if (!storage::PersistentStore::write(makePackage(generator, id, generalRuleCount), file)) return false;
    }
    const char* const regional[] = {"block-german",  "block-russian",  "block-spanish",
                                    "block-italian", "block-french",   "block-chinese",
                                    "block-japanese", "block-dutch",   "block-polish"};
    std::vector<Package> regionalPackages;
    for (int i = 0; i < regionalListCount; ++i) {
        regionalPackages.push_back(makePackage(generator, regional[i], regionalRuleCount));
    }
    std::vector<Package> configurable{makePackage(generator, "whitelist", 40),
                                      makePackage(generator, "block-url", 60),
                                      makePackage(generator, "hide-elements", 80)};
    std::vector<Package> custom{makePackage(generator, "my-own-list", 200)};
    return storage::PersistentStore::write(regionalPackages, JSONFileName::blockInternational) &&
           storage::PersistentStore::write(configurable, JSONFileName::blockConfigurable) &&
           storage::PersistentStore::write(custom, JSONFileName::blockCustom);
}

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
    if (!generate()) {
        std::fprintf(stderr, "could not write the package files\n");
        fs::remove_all(home);
        return 1;
    }
    const double generateSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - generateStart).count();

    std::uintmax_t bytes = 0;
    for (const auto& entry : fs::directory_iterator(storage::PathProvider::filtersFolderURL())) {
        bytes += entry.file_size();
    }
    const double megabytes = static_cast<double>(bytes) / (1024.0 * 1024.0);
    std::printf("input: 6 general files x %d rules, %d regional lists x %d rules, configurable and custom\n",
                generalRuleCount, regionalListCount, regionalRuleCount);
    std::printf("files: %.1f MB in %s (generated in %.1f s)\n", megabytes,
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
