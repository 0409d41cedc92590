// Throughput of the package and Safari JSON coders on a generated package of
// about 50 MB, the size of the largest filter lists. Reports bytes per second
// and the input size of each run.
#include <benchmark/benchmark.h>
#include <simdjson.h>

#include <string>

#include "model/JSONCoding.h"
#include "model/JSONWriting.h"
#include "platform/Log.h"

namespace {

using namespace tamsel::model;

// A mix like a real list: mostly blocking rules with resource and load types,
// some element hiding, some domain-limited rules, some whitelisting.
Package generatedPackage(std::size_t ruleCount) {
    std::vector<Rule> rules;
    rules.reserve(ruleCount);
    for (std::size_t i = 0; i < ruleCount; ++i) {
        const std::string n = std::to_string(i);
        Trigger trigger{.urlFilter = "^https?://([^/]+\\.)?tracker-" + n + "\\.example\\.com[/:]",
                        .caseSensitive = i % 3 == 0};
        Action action{ActionType::block, std::nullopt};
        switch (i % 5) {
            case 0: trigger.resourceTypes = std::vector{ResourceType::script, ResourceType::image}; break;
            case 1: trigger.loadType = std::vector{LoadType::thirdParty}; break;
            case 2:
                trigger.domainFilter = DomainFilter{DomainFilterType::unlessDomain, {"*site-" + n + ".org", "b.net"}};
                break;
            case 3: action = Action{ActionType::hide, ".ad-banner-" + n + ", #sponsored-" + n}; break;
            default: action = Action{ActionType::ignorePreviousRules, std::nullopt}; break;
        }
        rules.emplace_back("rule-" + n, "Generated rule number " + n, Blocker{std::move(trigger), std::move(action)});
    }
    return Package("block-ads", "Generated", std::move(rules));
}

struct Fixture {
    Package package = generatedPackage(200000);
    std::string packageJSON = encodePackage(package);
    simdjson::padded_string paddedPackage{packageJSON};
    std::vector<Blocker> blockers = [this] {
        std::vector<Blocker> list;
        for (const auto& rule : package.rules) list.push_back(rule.blocker);
        return list;
    }();
    std::string blockersJSON = encodeBlockers(blockers);
    simdjson::padded_string paddedBlockers{blockersJSON};
};

const Fixture& fixture() {
    static const Fixture instance;
    return instance;
}

void report(benchmark::State& state, std::size_t bytes) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
    state.counters["MB"] = static_cast<double>(bytes) / 1e6;
}

void DecodePackagePadded(benchmark::State& state) {
    const auto& f = fixture();
    for (auto _ : state) benchmark::DoNotOptimize(decodePackageFile(f.paddedPackage));
    report(state, f.packageJSON.size());
}

void DecodePackageFromString(benchmark::State& state) {
    const auto& f = fixture();
    for (auto _ : state) benchmark::DoNotOptimize(decodePackageFile(f.packageJSON));
    report(state, f.packageJSON.size());
}

void EncodePackage(benchmark::State& state) {
    const auto& f = fixture();
    for (auto _ : state) benchmark::DoNotOptimize(encodePackage(f.package));
    report(state, f.packageJSON.size());
}

void DecodeSafariJSON(benchmark::State& state) {
    const auto& f = fixture();
    for (auto _ : state) benchmark::DoNotOptimize(decodeBlockerArray(f.paddedBlockers));
    report(state, f.blockersJSON.size());
}

// What the compiler does: stream the entries of the rules into one buffer.
void StreamSafariJSON(benchmark::State& state) {
    const auto& f = fixture();
    for (auto _ : state) {
        rapidjson::StringBuffer buffer;
        JSONWriter writer(buffer);
        writer.StartArray();
        for (const auto& rule : f.package.rules) writeBlocker(writer, rule.blocker);
        writer.EndArray();
        benchmark::DoNotOptimize(buffer.GetString());
    }
    report(state, f.blockersJSON.size());
}

BENCHMARK(DecodePackagePadded)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(DecodePackageFromString)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(EncodePackage)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(DecodeSafariJSON)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(StreamSafariJSON)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
    // The whitelisting rules print "Encoded [...]" lines only when they carry
    // a partial whitelist; these carry none, but keep the output clean anyway.
    tamsel::platform::setLogSink([](const tamsel::platform::LogRecord&) {}, true);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
