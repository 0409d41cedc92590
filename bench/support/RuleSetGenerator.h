#pragma once

// The benchmark rule set: every package file of a full installation, shaped
// like converted filter lists, generated from a fixed seed so that every run
// and every engineer measures the same bytes.
//
//   six general packages     (block-ads … block-adult)        50,000 rules each
//   nine regional lists      (block-german … block-polish)     5,000 rules each
//   the five configurable packages: a whitelist of 2,000 domains (some rules
//                            whitelist a site everywhere, some only in 1–7
//                            extensions) and a few rules in each of the others
//   three custom packages                                      1,000 rules each
//   the firewall host list   hosts.txt
//
// Rules look like what a filter-list converter writes: host-anchored and path
// url-filters with resource and load types, $domain= lists, generic and
// per-site element hiding, exceptions, cookie blocking; each rule is named
// after the filter-list line it stands for. Every url-filter is one that
// Safari compiles (checkAcceptedBySafari proves it for a whole set).
//
// The compile benchmark, the whitelist latency measurement, the update
// archive and bench_storage_load all start from this set.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "model/Package.h"

namespace tamsel::bench {

inline constexpr unsigned defaultRuleSetSeed = 424242;

// How much to generate. The defaults are the benchmark set.
struct RuleSetSize {
    int generalRuleCount = 50'000;     // each of the six general packages
    int regionalListCount = 9;         // how many regional lists, at most nine
    int regionalRuleCount = 5'000;     // each regional list
    int whitelistDomainCount = 2'000;  // domains over all whitelist rules
    int configurableRuleCount = 50;    // each configurable package but the whitelist
    int customPackageCount = 3;
    int customRuleCount = 1'000;       // each custom package
    int firewallHostCount = 10'000;    // lines of hosts.txt
};

struct RuleSet {
    std::vector<model::Package> general;        // ads, trackers, annoyances, social, comments, adult
    std::vector<model::Package> international;  // the regional lists
    std::vector<model::Package> configurable;   // whitelist, block-url, block-cookies, hide-elements, make-https
    std::vector<model::Package> custom;         // the user's own packages
    std::vector<std::string> firewallHosts;     // one host a line in hosts.txt

    std::size_t packageCount() const;
    std::size_t ruleCount() const;
};

// The same size and seed always give the same set, and once written the same
// bytes (every package carries a fixed creation date).
RuleSet generateRuleSet(const RuleSetSize& size = {}, unsigned seed = defaultRuleSetSeed);

// The first entry Safari would refuse, as a sentence naming the extension and
// the rule; nothing when it would load every extension's list. Each list is
// checked the way the compiler fills it: the packages of that extension
// followed by the whitelist rules that apply to it.
std::optional<std::string> checkAcceptedBySafari(const RuleSet& set);

struct WrittenFile {
    std::filesystem::path path;
    std::uintmax_t bytes = 0;
};

// Writes the set as the package files and the hosts file of the current data
// root's filters folder (platform::DataRoot, storage::PathProvider), through
// storage::PersistentStore, replacing what is there. Returns the files in the
// order written, or why the first write failed.
std::expected<std::vector<WrittenFile>, std::string> writeRuleSet(const RuleSet& set);

}  // namespace tamsel::bench
