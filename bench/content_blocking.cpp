// How fast the substitute Safari's content-blocking engine builds the eight
// matchers of the benchmark rule set and decides a load, and what the
// matchers take in memory. Start from a data root whose Safari JSON files
// hold the benchmark rule set:
//
//   bench_generate_rule_set --home /tmp/ruleset
//   tamsel --home /tmp/ruleset compile
//   bench_content_blocking --home /tmp/ruleset [loads]
//
// Measures:
//   (a) building all eight matchers from their JSON text (grammar gate
//       included), four at a time as the reload queue runs reloads;
//   (b) building them again after a whitelist change (one more entry in each
//       file's whitelisting tail), with the compiled bodies reused;
//   (c) the matchers' own count of their bytes, and the process's resident
//       memory growth, against the JSON bytes;
//   (d) a generated mix of page loads (70 % on hosts that no rule names)
//       evaluated against all eight: median and 99th percentile per load,
//       and the mean processor time of a load (steadier than the clock on a
//       shared machine).

#include <malloc.h>

#include <algorithm>
#include <thread>
#include <optional>
#include <mutex>
#include <atomic>
#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/ContentRuleMatcher.h"
#include "platform/DataRoot.h"
#include "platform/Files.h"
#include "storage/PathProvider.h"

namespace {

using namespace tamsel;
using Clock = std::chrono::steady_clock;

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

// This thread's processor time: on a shared machine the honest figure next
// to the wall-clock one.
double cpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The reload queue reloads at most four extensions at once, so the matchers
// are built four at a time, as Safari's reloads would build them.
constexpr std::size_t reloadConcurrency = 4;

struct Built {
    std::vector<platform::NamedContentRuleMatcher> matchers;
    double seconds = 0;           // wall clock
    double processorSeconds = 0;  // summed over the building threads
};

std::optional<Built> buildAll(const std::vector<std::pair<std::string, std::string>>& files,
                              const std::vector<platform::NamedContentRuleMatcher>* previous) {
    Built built;
    built.matchers.resize(files.size());
    std::atomic<std::size_t> next{0};
    std::atomic<bool> failed{false};
    std::mutex mutex;
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < std::min(reloadConcurrency, files.size()); ++t)
        threads.emplace_back([&] {
            const double cpuStart = cpuSeconds();
            for (std::size_t i = next++; i < files.size(); i = next++) {
                const auto* before = previous ? (*previous)[i].matcher.get() : nullptr;
                auto matcher = platform::ContentRuleMatcher::compile(files[i].second, {}, before);
                if (!matcher) {
                    std::fprintf(stderr, "%s refused: %s\n", files[i].first.c_str(),
                                 std::string(matcher.error().message()).c_str());
                    failed = true;
                    continue;
                }
                built.matchers[i] = {files[i].first, *matcher};
            }
            std::lock_guard lock(mutex);
            built.processorSeconds += cpuSeconds() - cpuStart;
        });
    for (auto& thread : threads) thread.join();
    built.seconds = seconds(Clock::now() - start);
    if (failed) return std::nullopt;
    return built;
}

long residentBytes() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * 4096;
}

}  // namespace

int main(int argc, char** argv) {
    std::string home;
    std::size_t loadCount = 20'000;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--home" && i + 1 < argc) home = argv[++i];
        else loadCount = static_cast<std::size_t>(std::max(1, std::atoi(argv[i])));
    }
    if (home.empty()) {
        std::fprintf(stderr, "usage: bench_content_blocking --home DIR [loads]  (DIR compiled by tamsel compile)\n");
        return 2;
    }
    platform::DataRoot::setHome(std::filesystem::absolute(home));
    std::vector<std::pair<std::string, std::string>> files;  // name, JSON
    std::size_t jsonBytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(storage::PathProvider::safariJSONFolderURL())) {
        if (entry.path().extension() != ".json") continue;
        auto bytes = platform::readFile(entry.path());
        if (!bytes) continue;
        jsonBytes += bytes->size();
        files.emplace_back(entry.path().filename().string(), std::move(*bytes));
    }
    std::sort(files.begin(), files.end());
    if (files.empty()) {
        std::fprintf(stderr, "bench_content_blocking: no Safari JSON files under %s\n", home.c_str());
        return 1;
    }

    // (a) and (c)
    const long residentBefore = residentBytes();
    auto built = buildAll(files, nullptr);
    if (!built) return 1;
    std::vector<platform::NamedContentRuleMatcher> matchers = std::move(built->matchers);
    std::size_t rules = 0;
    for (const auto& m : matchers) rules += m.matcher->ruleCount();
    // The parsers' buffers are freed by now; hand them back so that what
    // stays resident is what the matchers hold.
    malloc_trim(0);
    const long residentAfter = residentBytes();
    std::size_t counted = 0;
    for (const auto& m : matchers) counted += m.matcher->memoryUsage();

    // (b): one more whitelisting entry at the end of every file.
    std::vector<std::pair<std::string, std::string>> changed;
    for (const auto& [name, json] : files) {
        std::string text = json;
        const size_t end = text.rfind(']');
        text.insert(end, R"(,{"trigger":{"url-filter":".*","if-domain":["*newly-whitelisted.example"]},)"
                         R"("action":{"type":"ignore-previous-rules"}})");
        changed.emplace_back(name, std::move(text));
    }
    auto rebuilt = buildAll(changed, &matchers);
    if (!rebuilt) return 1;
    size_t reused = 0;
    for (const auto& m : rebuilt->matchers) reused += m.matcher->reusedBody() ? 1 : 0;

    // (d): hosts the rules name, from the host-anchored url-filters.
    std::set<std::string> namedHosts;
    for (const auto& [name, json] : files) {
        // "...([^:/]+\\.)?host\\.example[:/]" in the JSON text.
        for (size_t at = json.find(")?"); at != std::string::npos && namedHosts.size() < 50'000;
             at = json.find(")?", at + 2)) {
            std::string host;
            size_t i = at + 2;
            for (; i < json.size() && json[i] != '[' && json[i] != '"'; ++i)
                if (json[i] != '\\') host += json[i];
            if (i < json.size() && json[i] == '[' && !host.empty() &&
                host.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789.-") == std::string::npos)
                namedHosts.insert(host);
        }
    }
    const std::vector<std::string> ruleHosts(namedHosts.begin(), namedHosts.end());
    std::mt19937 random(7);
    auto pick = [&random](std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(random); };
    const std::vector<std::string> paths{"/", "/index.html", "/static/js/app.js", "/images/photo.jpg?w=640",
                                         "/api/v2/items?page=3&sort=new", "/css/site.css", "/ads/banner.gif",
                                         "/track/pixel?id=123&ref=home", "/video/stream.m3u8", "/fonts/a.woff2"};
    const std::vector<platform::LoadResourceType> types{
        platform::LoadResourceType::image, platform::LoadResourceType::script, platform::LoadResourceType::fetch,
        platform::LoadResourceType::styleSheet, platform::LoadResourceType::image, platform::LoadResourceType::document,
        platform::LoadResourceType::font, platform::LoadResourceType::media};
    std::vector<platform::ContentLoad> loads;
    for (std::size_t i = 0; i < loadCount; ++i) {
        const bool named = !ruleHosts.empty() && pick(10) < 3;
        const std::string host = named ? (pick(2) ? "cdn." : "") + ruleHosts[pick(ruleHosts.size())]
                                       : "site" + std::to_string(pick(5000)) + ".unlisted-" + std::to_string(pick(40)) + ".com";
        const std::string page = "https://www.page" + std::to_string(pick(2000)) + ".com/article/" + std::to_string(i);
        loads.push_back({"https://" + host + paths[pick(paths.size())], page, types[pick(types.size())]});
    }
    std::size_t blocked = 0;
    for (const auto& load : loads) blocked += platform::evaluateLoad(rebuilt->matchers, load).blocked ? 1 : 0;  // warm-up
    std::vector<double> perLoad;
    perLoad.reserve(loads.size());
    const double evaluationStart = cpuSeconds();
    for (const auto& load : loads) {
        const auto start = Clock::now();
        const auto effects = platform::evaluateLoad(rebuilt->matchers, load);
        perLoad.push_back(seconds(Clock::now() - start) * 1e6);
        if (effects.url.empty()) std::abort();
    }
    const double evaluationProcessor = cpuSeconds() - evaluationStart;
    std::sort(perLoad.begin(), perLoad.end());
    double total = 0;
    for (double us : perLoad) total += us;

    std::printf("content-blocking engine: %zu Safari JSON files, %zu rules, %.1f MB of JSON\n", files.size(), rules,
                static_cast<double>(jsonBytes) / 1e6);
    platform::ContentRuleMatcher::IndexStatistics filed;
    for (const auto& m : matchers) {
        const auto statistics = m.matcher->indexStatistics();
        filed.byPiece += statistics.byPiece;
        filed.bySite += statistics.bySite;
        filed.always += statistics.always;
        filed.globalStyleSheet += statistics.globalStyleSheet;
    }
    std::printf("  rules filed by piece %zu, by site %zu, looked at by every load %zu, global style sheet %zu\n",
                filed.byPiece, filed.bySite, filed.always, filed.globalStyleSheet);
    std::printf("  build all matchers:              %.3f s (%zu at a time; processor %.3f s in all)\n",
                built->seconds, reloadConcurrency, built->processorSeconds);
    std::printf("  rebuild after a whitelist change: %.3f s (processor %.3f s in all; %zu of %zu bodies reused)\n",
                rebuilt->seconds, rebuilt->processorSeconds, reused, files.size());
    std::printf("  matcher memory (own count):      %.1f MB = %.2f x the JSON\n", static_cast<double>(counted) / 1e6,
                static_cast<double>(counted) / static_cast<double>(jsonBytes));
    std::printf("  resident memory growth:          %.1f MB = %.2f x the JSON\n",
                static_cast<double>(residentAfter - residentBefore) / 1e6,
                static_cast<double>(residentAfter - residentBefore) / static_cast<double>(jsonBytes));
    std::printf("  loads: %zu (70 %% on unnamed hosts, %zu hosts named by rules), %zu blocked\n", loads.size(),
                ruleHosts.size(), blocked);
    std::printf("  per load against all eight:      median %.2f us, p99 %.2f us, mean %.2f us (%.0f loads/s)\n",
                perLoad[perLoad.size() / 2], perLoad[perLoad.size() * 99 / 100], total / perLoad.size(),
                1e6 * perLoad.size() / total);
    std::printf("  processor time per load:         %.2f us (mean, timing included)\n",
                evaluationProcessor * 1e6 / static_cast<double>(perLoad.size()));
    return 0;
}
