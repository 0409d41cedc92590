#pragma once

#include <expected>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "model/Blocker.h"
#include "model/FirewallPackage.h"
#include "model/Package.h"
#include "model/Rule.h"

namespace simdjson {
struct padded_string;
}

// JSON forms of the rule model: the content-blocker entry (the same object in
// package files and Safari JSON files), rules, packages and firewall lists.
//
// Decoding is strict about what the format requires and lenient about the
// rest: a missing required key, a value of the wrong JSON type, an unknown raw
// string in an enumerated field, bytes that are not UTF-8 or not JSON, and
// anything after the top-level value are errors; unknown keys are ignored and
// lost on the next write. A null value counts as an absent key. Decoding never
// throws and never crashes, whatever the input.
//
// Rule and package decoders print the error's description on the console
// before failing (so a broken rule is named twice: once by itself, once by its
// package). Entry and firewall decoders print nothing.
//
// Encoding produces compact JSON and never fails: a string that is not valid
// UTF-8 is written with U+FFFD in place of its broken sequences.
//
// The parser needs padding after the input. Text given as a string is copied
// into padded storage first; callers that read whole files should read them
// straight into a simdjson::padded_string (simdjson::padded_string::load) and
// pass that, which parses in place.
namespace tamsel::model {

struct DecodingError {
    // The reason and where, e.g.
    //   rules[12].content.trigger: missing key "url-filter"
    //   rules[0].content.trigger.resource-type[1]: unknown resource type "stylesheet"
    //   invalid UTF-8
    std::string description;

    bool operator==(const DecodingError&) const = default;
};

template <typename T>
using Decoded = std::expected<T, DecodingError>;

// The bytes to decode: any string, or padded storage that needs no copy.
// Only for passing as an argument; it refers to the caller's bytes.
class JSONInput {
public:
    JSONInput(std::string_view text) : text_(text) {}
    JSONInput(const std::string& text) : text_(text) {}
    JSONInput(const char* text) : text_(text) {}
    JSONInput(const simdjson::padded_string& padded) : padded_(&padded) {}

    const simdjson::padded_string* padded() const { return padded_; }
    std::string_view text() const { return text_; }

private:
    std::string_view text_;
    const simdjson::padded_string* padded_ = nullptr;
};

// The contents of a package file: either one package object or an array of
// packages. isArray remembers which, so that the file is written back alike.
struct PackageFile {
    std::vector<Package> packages;
    bool isArray = false;

    bool operator==(const PackageFile&) const = default;
};

// --- Decoding -------------------------------------------------------------

// One package object or an array of packages.
Decoded<PackageFile> decodePackageFile(JSONInput json);

// An array of packages (the list files, the shared package file).
Decoded<std::vector<Package>> decodePackages(JSONInput json);

// One package object (the general package files). "createdAt" absent or null
// gives the moment of decoding.
Decoded<Package> decodePackage(JSONInput json);

// Where decodePackageRuleByRule hands each rule, with its package's identifier.
using RuleHandler = std::function<void(const std::string& packageID, Rule&& rule)>;

// One package object like decodePackage, but each rule goes to `onRule` as
// soon as it is decoded instead of into the package, which comes back without
// rules: a filter list of fifty thousand rules is never whole in memory. The
// identifier comes with the first rule even when "id" follows "rules" in the
// file. A failure anywhere fails the whole decode, with the same printed
// lines as decodePackage; the rules `onRule` got by then are to be dropped.
// With RuleNames::skipped each rule's "name" is checked to be a string but
// not read (the rules come without names): for callers that need only what
// the rules block, a good part of the work.
enum class RuleNames { read, skipped };
Decoded<Package> decodePackageRuleByRule(JSONInput json, const RuleHandler& onRule,
                                         RuleNames names = RuleNames::read);

Decoded<Rule> decodeRule(JSONInput json);
Decoded<Blocker> decodeBlocker(JSONInput json);
Decoded<Trigger> decodeTrigger(JSONInput json);
Decoded<Action> decodeAction(JSONInput json);
// The standalone form {"type": ..., "values": [...]}; never used inside triggers.
Decoded<DomainFilter> decodeDomainFilter(JSONInput json);

// A Safari JSON file: an array of entries.
Decoded<std::vector<Blocker>> decodeBlockerArray(JSONInput json);

Decoded<FirewallRule> decodeFirewallRule(JSONInput json);
Decoded<FirewallPackage> decodeFirewallPackage(JSONInput json);
Decoded<std::vector<FirewallPackage>> decodeFirewallPackages(JSONInput json);

// --- Encoding (compact text; see model/JSONWriting.h to stream) -----------

// One package object when the file was one (isArray false, one package),
// otherwise an array.
std::string encodePackageFile(const PackageFile& file);
std::string encodePackage(const Package& package);
std::string encodePackages(const std::vector<Package>& packages);
// Prints "Encoded " + the list for each rule whose partial whitelist is written.
std::string encodeRule(const Rule& rule);
std::string encodeBlocker(const Blocker& blocker);
std::string encodeBlockers(const std::vector<Blocker>& blockers);  // a Safari JSON file
std::string encodeTrigger(const Trigger& trigger);
std::string encodeAction(const Action& action);
std::string encodeDomainFilter(const DomainFilter& filter);
std::string encodeFirewallRule(const FirewallRule& rule);
std::string encodeFirewallPackage(const FirewallPackage& package);
std::string encodeFirewallPackages(const std::vector<FirewallPackage>& packages);

}  // namespace tamsel::model
