#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ContentRuleListValidator.h"
#include "platform/ContentRuleURL.h"

// The substitute Safari's content-blocking engine: one content blocker's
// Safari JSON rule list compiled into a matcher that decides, for each load of
// a page, what WebKit would decide.
//
// Matching, as WebKit does it:
//   * a url-filter is matched against the canonical URL, case-insensitively
//     unless "url-filter-is-case-sensitive" is true, unanchored unless it
//     starts with '^'; data: and invalid URLs are never evaluated;
//   * "resource-type" absent means every type; "raw" covers fetch, websocket,
//     ping and other loads, "other" covers other and ping loads;
//   * "third-party" compares registrable domains of page and resource;
//   * if-domain/unless-domain entries are hosts of the main document ("*host"
//     also covers subdomains), if-top-url/unless-top-url are url-filters over
//     the main document's URL;
//   * the list applies in order: an ignore-previous-rules that fires cancels
//     every earlier action of its list for this load.
//
// Speed: every url-filter is split into the literal runs a match must
// contain; each rule is filed under its rarest 4-byte piece, so a load looks
// at the few rules whose piece occurs in its URL. A Bloom filter in front of
// the piece table keeps most of the URL's pieces from reaching it, and each
// filed rule carries the loads it covers and a second piece, so that most
// candidates are dropped before the rule is read. Filters that are a plain
// literal, or the usual "host and its subdomains" anchor, are answered
// directly; the others are confirmed with RE2 (linear time, so no pattern
// can make a load slow), compiled on first use.
namespace tamsel::platform {

// What a page loads, in Safari's vocabulary ("raw" in a rule covers the last four).
enum class LoadResourceType : std::uint8_t {
    document, image, styleSheet, script, font, svgDocument, media, popup, ping, fetch, websocket, other,
};

// "document" ... "other"; "raw" reads as a fetch (an XMLHttpRequest).
std::optional<LoadResourceType> loadResourceTypeFromName(std::string_view name);
std::string_view name(LoadResourceType type);

// One load of a page. An empty main document URL means a main-frame
// navigation: the URL being loaded is the main document's.
struct ContentLoad {
    std::string url;
    std::string mainDocumentURL;
    LoadResourceType resourceType = LoadResourceType::document;
};

// A load made ready for matching once, then asked of every list.
class PreparedLoad {
public:
    // Nothing for a data: or invalid URL (or an invalid main document URL):
    // such loads are not evaluated.
    static std::optional<PreparedLoad> prepare(const ContentLoad& load);

    const CanonicalURL& url() const { return url_; }
    const CanonicalURL& mainDocument() const { return main_; }
    LoadResourceType resourceType() const { return type_; }
    // Decided on first use (the public-suffix look-up is the dearest part of
    // a load, and most loads meet no rule with a load-type), so a prepared
    // load belongs to one thread at a time.
    bool isThirdParty() const;

    // A 4-byte piece of the lower-cased URL with its hash.
    struct Gram {
        std::uint32_t gram;
        std::uint32_t hash;
    };
    // A host of the main document (the host itself and its parent domains).
    struct Site {
        std::uint64_t site;
        std::uint32_t hash;
    };

private:
    friend class ContentRuleMatcher;
    CanonicalURL url_;
    CanonicalURL main_;
    std::string lowerURL_;
    std::vector<Gram> grams_;  // every 4-byte piece of lowerURL_, in order
    std::vector<Site> sites_;
    // Which piece hashes the URL holds (12 bits of each): a rule's second
    // piece is looked up here before the rule itself is read.
    std::uint64_t pieceSet_[64] = {};
    LoadResourceType type_ = LoadResourceType::document;
    mutable std::int8_t thirdParty_ = -1;  // -1: not decided yet

    // Whether the URL may hold the piece of a posting's check (0: no check).
    bool mayHold(std::uint16_t check) const {
        const unsigned piece = check & 0xFFFu;
        return check == 0 || (pieceSet_[piece / 64] >> (piece % 64) & 1) != 0;
    }
};

// What one list does to one load.
struct ContentRuleListEffects {
    bool blocked = false;
    bool blockCookies = false;
    bool makeHttps = false;
    bool ignoredPreviousRules = false;       // the list's global style sheet does not apply
    std::vector<std::string_view> selectors;  // css-display-none of the rules that fired, in order
};

class ContentRuleMatcher {
public:
    struct Limits {
        // A list whose matcher would take more is refused.
        std::size_t memoryBudget = std::size_t{1} << 30;
    };

    // Compiles a Safari JSON rule list. Refuses, with WebKit's error, what the
    // grammar gate refuses, and with `exceedsMemoryBudget` a list too large
    // for `limits`. When `previous` holds the same rules before its trailing
    // run of ignore-previous-rules entries (the whitelisting tail), its
    // compiled body is shared instead of built again; when the text up to
    // the tail is the same too, the body is not even parsed again.
    static std::expected<std::shared_ptr<const ContentRuleMatcher>, ContentRuleListError> compile(
        std::string_view json, const Limits& limits, const ContentRuleMatcher* previous = nullptr);
    static std::expected<std::shared_ptr<const ContentRuleMatcher>, ContentRuleListError> compile(
        std::string_view json) {
        return compile(json, Limits{});
    }

    ~ContentRuleMatcher();

    ContentRuleListEffects evaluate(const PreparedLoad& load) const;

    // Selectors of the css-display-none rules that match every URL with no
    // other condition and come before the first ignore-previous-rules.
    const std::vector<std::string>& globalStyleSheet() const;

    std::size_t ruleCount() const;
    // The list's entries as Safari counts them (every element of the array).
    std::size_t entryCount() const { return elementCount_; }
    // Bytes the matcher holds, regular expressions compiled so far included.
    std::size_t memoryUsage() const;
    // How the rules are filed: under a piece of their url-filter, under the
    // sites of their if-domain list, on the list every load looks at, or in
    // the global style sheet.
    struct IndexStatistics {
        std::size_t byPiece = 0, bySite = 0, always = 0, globalStyleSheet = 0;
    };
    IndexStatistics indexStatistics() const;

    // Whether the body was taken over from the previous matcher.
    bool reusedBody() const { return reusedBody_; }

    struct Segment;

private:
    ContentRuleMatcher() = default;
    // The matcher of `json` when it is `previous`'s body, byte for byte,
    // followed by whitelisting entries only; nothing otherwise.
    static std::shared_ptr<const ContentRuleMatcher> withBodyOf(const ContentRuleMatcher& previous,
                                                                std::string_view json, const Limits& limits);

    std::shared_ptr<const Segment> body_;
    std::shared_ptr<const Segment> tail_;
    bool reusedBody_ = false;
    std::size_t elementCount_ = 0;
};

// One enabled content blocker's matcher.
struct NamedContentRuleMatcher {
    std::string identifier;
    std::shared_ptr<const ContentRuleMatcher> matcher;
};

// What every enabled list together does to one load.
struct LoadEffects {
    bool evaluated = false;  // false for data: and invalid URLs
    bool blocked = false;
    std::vector<std::string> blockedBy;  // identifiers of the lists that block it
    bool blockCookies = false;
    std::string url;                     // after make-https; the load's URL when not evaluated
    std::vector<std::string> selectors;  // of this load, without the global style sheets
    std::vector<std::string> stylesheetAppliedFor;  // identifiers whose global style sheet applies
};

LoadEffects evaluateLoad(std::span<const NamedContentRuleMatcher> matchers, const ContentLoad& load);

// Whether WebKit would take `selector` as a css-display-none selector; rules
// with one it would not are dropped from the list.
bool isPlausibleSelector(std::string_view selector);

// The RE2 pattern for an accepted url-filter (for tests and the plain evaluator).
std::string translateURLFilter(std::string_view urlFilter);

}  // namespace tamsel::platform
