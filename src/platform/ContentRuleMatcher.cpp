#include "platform/ContentRuleMatcher.h"
#include "platform/RegexEscape.h"
#include "platform/Text.h"

#include <re2/re2.h>
#include <simdjson.h>
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <limits>

namespace tamsel::platform {

namespace {

constexpr std::uint32_t none = std::numeric_limits<std::uint32_t>::max();

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

std::string lowered(std::string_view text) {
    std::string result(text);
    for (char& c : result) c = lower(c);
    return result;
}

constexpr std::array<std::string_view, 12> loadTypeNames{
    "document", "image", "style-sheet", "script", "font", "svg-document",
    "media", "popup", "ping", "fetch", "websocket", "other"};

std::uint16_t bit(LoadResourceType type) { return static_cast<std::uint16_t>(1u << static_cast<unsigned>(type)); }

// The loads a rule's "resource-type" string covers.
std::uint16_t resourceMask(std::string_view name) {
    using enum LoadResourceType;
    if (name == "raw") return bit(fetch) | bit(websocket) | bit(ping) | bit(other);
    if (name == "other") return bit(other) | bit(ping);
    for (size_t i = 0; i < loadTypeNames.size(); ++i)
        if (loadTypeNames[i] == name) return static_cast<std::uint16_t>(1u << i);
    return 0;
}

constexpr std::uint16_t allResources = (1u << loadTypeNames.size()) - 1;
constexpr std::uint8_t firstPartyBit = 1, thirdPartyBit = 2;

enum class Action : std::uint8_t { block, blockCookies, hide, ignorePreviousRules, makeHttps };

std::optional<Action> actionNamed(std::string_view name) {
    if (name == "block") return Action::block;
    if (name == "block-cookies") return Action::blockCookies;
    if (name == "css-display-none") return Action::hide;
    if (name == "ignore-previous-rules") return Action::ignorePreviousRules;
    if (name == "make-https") return Action::makeHttps;
    return std::nullopt;
}

enum class ConditionKind : std::uint8_t { ifDomain, unlessDomain, ifTopURL, unlessTopURL };

// --- url-filter translation ------------------------------------------------------------

// The url-filter read once: its RE2 form, the literal runs any match must
// contain, and whether it is a plain literal (with optional anchors).
struct PatternShape {
    std::string re2;
    std::vector<std::string> runs;  // lower-case
    bool pureLiteral = true;
    std::string literal;
    bool anchoredStart = false;
    bool anchoredEnd = false;
};

void appendCharacter(std::string& out, unsigned value) {
    if ((value >= '0' && value <= '9') || (value >= 'a' && value <= 'z') || (value >= 'A' && value <= 'Z')) {
        out += static_cast<char>(value);
        return;
    }
    char text[12];
    std::snprintf(text, sizeof text, "\\x{%x}", value);
    out += text;
}

// Reads a pattern the grammar gate accepted (see ContentRuleListValidator.cpp
// for the syntax); the same escapes mean the same characters.
class PatternTranslator {
public:
    explicit PatternTranslator(std::string_view pattern) : p_(pattern) {}

    PatternShape read() {
        while (pos_ < p_.size()) step();
        breakRun();
        return std::move(shape_);
    }

private:
    void breakRun() {
        if (!run_.empty()) shape_.runs.push_back(lowered(run_));
        run_.clear();
        lastInRun_ = false;
    }

    void literal(unsigned value) {
        appendCharacter(shape_.re2, value);
        if (depth_ == 0) {
            run_ += static_cast<char>(value);
            shape_.literal += static_cast<char>(value);
            lastInRun_ = true;
        } else {
            shape_.pureLiteral = false;
            lastInRun_ = false;
        }
    }

    void other() {
        shape_.pureLiteral = false;
        breakRun();
    }

    void quantifier(char kind) {
        if (pos_ < p_.size() && p_[pos_] == '?') ++pos_;  // lazy: the same matches
        shape_.re2 += kind;
        shape_.pureLiteral = false;
        if (lastInRun_) {
            if (kind != '+') run_.pop_back();
            // '+': the character is there at least once; what follows need not be adjacent.
        }
        breakRun();
    }

    void step() {
        const char c = p_[pos_++];
        switch (c) {
        case '^':
            shape_.re2 += '^';
            if (pos_ == 1) shape_.anchoredStart = true; else shape_.pureLiteral = false;
            breakRun();
            return;
        case '$':
            shape_.re2 += '$';
            if (pos_ == p_.size() && depth_ == 0) shape_.anchoredEnd = true; else shape_.pureLiteral = false;
            breakRun();
            return;
        case '(':
            if (pos_ < p_.size() && p_[pos_] == '?') {
                if (p_.substr(pos_).starts_with("?:")) pos_ += 2;
                else if (const size_t close = p_.find('>', pos_); close != std::string_view::npos) pos_ = close + 1;
            }
            shape_.re2 += "(?:";
            ++depth_;
            other();
            return;
        case ')':
            shape_.re2 += ')';
            --depth_;
            other();
            return;
        case '*': case '+': case '?':
            quantifier(c);
            return;
        case '{': {
            const size_t resume = pos_;
            if (auto kind = braceQuantifier()) {
                quantifier(*kind);
            } else {
                pos_ = resume;
                literal('{');
            }
            return;
        }
        case '[':
            characterClass();
            other();
            return;
        case '.':
            shape_.re2 += '.';
            other();
            return;
        case '\\': {
            const char e = p_[pos_++];
            literal(escaped(e, false));
            return;
        }
        default:
            literal(static_cast<unsigned char>(c));
            return;
        }
    }

    // "{0,1}", "{0,}", "{1,}" (the only ones the gate accepts) as ?, * and +.
    std::optional<char> braceQuantifier() {
        auto number = [this]() -> std::optional<unsigned> {
            const size_t start = pos_;
            unsigned value = 0;
            while (pos_ < p_.size() && p_[pos_] >= '0' && p_[pos_] <= '9')
                value = std::min(value * 10 + static_cast<unsigned>(p_[pos_++] - '0'), 1000000u);
            if (pos_ == start) return std::nullopt;
            return value;
        };
        const auto minimum = number();
        if (!minimum || pos_ >= p_.size()) return std::nullopt;
        std::optional<unsigned> maximum = minimum;
        if (p_[pos_] == ',') {
            ++pos_;
            maximum = (pos_ < p_.size() && p_[pos_] == '}') ? std::nullopt : number();
            if (pos_ >= p_.size() || p_[pos_] != '}') return std::nullopt;
        }
        if (pos_ >= p_.size() || p_[pos_] != '}') return std::nullopt;
        ++pos_;
        if (*minimum == 0 && maximum == 1u) return '?';
        if (*minimum == 0 && !maximum) return '*';
        if (*minimum == 1 && !maximum) return '+';
        return std::nullopt;
    }

    // The character an escape stands for; the validator has refused the
    // escapes a url-filter may not hold, so the rest are identity escapes.
    unsigned escaped(char e, bool inClass) {
        if (auto value = controlEscapeValue(e, inClass, p_, pos_)) return *value;
        return static_cast<unsigned char>(e);
    }

    void characterClass() {
        bool negated = false;
        if (pos_ < p_.size() && p_[pos_] == '^') {
            negated = true;
            ++pos_;
        }
        std::vector<std::pair<unsigned, unsigned>> ranges;
        bool previousIsSingle = false;
        bool pendingRange = false;
        while (pos_ < p_.size()) {
            const char c = p_[pos_++];
            if (c == ']') break;
            unsigned member;
            if (c == '\\') {
                member = escaped(p_[pos_++], true);
            } else if (c == '-' && previousIsSingle && !pendingRange && pos_ < p_.size() && p_[pos_] != ']') {
                pendingRange = true;
                continue;
            } else {
                member = static_cast<unsigned char>(c);
            }
            if (pendingRange) {
                ranges.back().second = member;
                pendingRange = false;
                previousIsSingle = false;
            } else {
                ranges.emplace_back(member, member);
                previousIsSingle = true;
            }
        }
        if (ranges.empty()) {
            // "[]" matches nothing, "[^]" any character.
            shape_.re2 += negated ? "[\\x{0}-\\x{ff}]" : "[^\\x{0}-\\x{ff}]";
            return;
        }
        shape_.re2 += negated ? "[^" : "[";
        for (auto [from, to] : ranges) {
            char text[32];
            if (from == to) std::snprintf(text, sizeof text, "\\x{%x}", from);
            else std::snprintf(text, sizeof text, "\\x{%x}-\\x{%x}", from, to);
            shape_.re2 += text;
        }
        shape_.re2 += ']';
    }

    std::string_view p_;
    size_t pos_ = 0;
    int depth_ = 0;
    std::string run_;
    bool lastInRun_ = false;
    PatternShape shape_;
};

// The host of a url-filter that is the usual "this host and its subdomains"
// anchor, ^[^:]+://+([^:/]+\.)?HOST[:/], with HOST a plain host name (letters,
// digits, '-', '_' and escaped dots); nothing for any other filter.
std::optional<std::string> anchoredHost(std::string_view pattern) {
    constexpr std::string_view prefix = "^[^:]+://+([^:/]+\\.)?", suffix = "[:/]";
    if (!pattern.starts_with(prefix) || !pattern.ends_with(suffix) || pattern.size() == prefix.size() + suffix.size())
        return std::nullopt;
    const std::string_view middle = pattern.substr(prefix.size(), pattern.size() - prefix.size() - suffix.size());
    std::string host;
    for (size_t i = 0; i < middle.size(); ++i) {
        const char c = middle[i];
        if (c == '\\' && i + 1 < middle.size() && middle[i + 1] == '.') {
            host += '.';
            ++i;
        } else if (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_') {
            host += c;
        } else {
            return std::nullopt;
        }
    }
    return host;
}

// What ^[^:]+://+([^:/]+\.)?HOST[:/] answers for `url`: after the scheme and
// its slashes, the authority up to the first ':' or '/' (which must follow)
// is HOST, or ends with "." HOST with at least one character before the dot.
bool hostAnchorMatches(std::string_view url, std::string_view host) {
    const size_t colon = url.find(':');
    if (colon == 0 || colon == std::string_view::npos || url.substr(colon + 1, 2) != "//") return false;
    size_t start = colon + 3;
    while (start < url.size() && url[start] == '/') ++start;
    const size_t end = url.find_first_of(":/", start);
    if (end == std::string_view::npos) return false;
    const std::string_view authority = url.substr(start, end - start);
    if (!authority.ends_with(host)) return false;
    const size_t before = authority.size() - host.size();
    return before == 0 || (before >= 2 && authority[before - 1] == '.');
}

PatternShape analyse(std::string_view pattern) {
    auto shape = PatternTranslator(pattern).read();
    if (!shape.pureLiteral) shape.literal.clear();
    return shape;
}

RE2::Options regexOptions(bool caseSensitive) {
    RE2::Options options;
    options.set_encoding(RE2::Options::EncodingLatin1);
    options.set_case_sensitive(caseSensitive);
    options.set_log_errors(false);
    options.set_never_capture(true);
    options.set_max_mem(1 << 20);
    return options;
}

const RE2* regexIn(std::atomic<const RE2*>& slot, std::string_view pattern, bool caseSensitive) {
    if (const RE2* existing = slot.load(std::memory_order_acquire)) return existing;
    auto* fresh = new RE2(translateURLFilter(pattern), regexOptions(caseSensitive));
    const RE2* expected = nullptr;
    if (!slot.compare_exchange_strong(expected, fresh, std::memory_order_acq_rel)) {
        delete fresh;
        return expected;
    }
    return fresh;
}

// --- 4-byte pieces ---------------------------------------------------------------------

std::uint32_t gramAt(const char* text) {
    std::uint32_t value;
    std::memcpy(&value, text, 4);
    return value;
}

// Every bit of the hash depends on every byte of the piece: the piece filter
// takes its three bits from the low end, its word and the tables their slots
// from the high end, and the second-piece check from the middle.
std::uint32_t mix(std::uint32_t gram) {
    std::uint32_t h = gram;
    h ^= h >> 16;
    h *= 0x85EBCA6Bu;
    h ^= h >> 13;
    h *= 0xC2B2AE35u;
    return h ^ (h >> 16);
}

// The three bits of its word the piece filter sets for a key.
std::uint64_t filterBits(std::uint32_t hash) {
    return (std::uint64_t{1} << (hash & 63)) | (std::uint64_t{1} << ((hash >> 6) & 63)) |
           (std::uint64_t{1} << ((hash >> 12) & 63));
}

// A key's place among `size` (the filter's word, a table's home slot), from
// the high bits of its hash.
std::size_t placeOf(std::uint32_t hash, std::size_t size) {
    return static_cast<std::size_t>((std::uint64_t{hash} * size) >> 32);
}

// A piece's bit in a load's piece set.
constexpr std::uint16_t checkPresent = 0x8000;
std::uint16_t checkOf(std::uint32_t hash) { return static_cast<std::uint16_t>(checkPresent | ((hash >> 16) & 0xFFF)); }

// Pieces every URL has; a rule is filed under one of them only when it has nothing else.
bool isCommonGram(std::string_view gram) {
    constexpr std::array<std::string_view, 22> common{
        "http", "ttp:", "ttps", "tps:", "tp:/", "ps:/", "p://", "s://", "://w", "//ww", "/www",
        "www.", ".com", "com/", ".net", "net/", ".org", "org/", "html", ".htm", ".php", "ww.e"};
    return std::find(common.begin(), common.end(), gram) != common.end();
}

std::uint64_t fnv(std::uint64_t hash, std::string_view text) {
    for (unsigned char c : text) hash = (hash ^ c) * 0x100000001B3ull;
    return (hash ^ 0xFF) * 0x100000001B3ull;  // a separator, so "ab"+"c" differs from "a"+"bc"
}

// --- one entry, read ---------------------------------------------------------------------

struct EntryView {
    std::string_view filter;
    bool caseSensitive = false;
    std::uint16_t resources = allResources;
    bool typesGiven = false;  // a non-empty resource-type or load-type list
    std::uint8_t loads = firstPartyBit | thirdPartyBit;
    std::optional<ConditionKind> condition;
    std::vector<std::string_view> conditionValues;
    Action action = Action::block;
    std::string_view selector;
};

std::uint64_t hashEntry(std::uint64_t hash, const EntryView& e) {
    hash = fnv(hash, e.filter);
    hash = fnv(hash, std::string_view(reinterpret_cast<const char*>(&e.resources), sizeof e.resources));
    const char flags[5] = {static_cast<char>(e.caseSensitive), static_cast<char>(e.loads),
                           static_cast<char>(e.condition ? static_cast<int>(*e.condition) : 9),
                           static_cast<char>(e.action), static_cast<char>(e.typesGiven)};
    hash = fnv(hash, std::string_view(flags, sizeof flags));
    for (auto value : e.conditionValues) hash = fnv(hash, value);
    return fnv(hash, e.selector);
}

// Reads an entry the gate accepted; nothing for one that is dropped.
std::optional<EntryView> readEntry(simdjson::dom::element element) {
    EntryView e;
    auto trigger = element["trigger"];
    if (trigger["url-filter"].get_string().get(e.filter)) return std::nullopt;
    bool caseSensitive = false;
    if (!trigger["url-filter-is-case-sensitive"].get_bool().get(caseSensitive)) e.caseSensitive = caseSensitive;
    simdjson::dom::array array;
    if (!trigger["resource-type"].get_array().get(array)) {
        std::uint16_t mask = 0;
        for (auto item : array) {
            std::string_view name;
            if (!item.get_string().get(name)) mask |= resourceMask(name);
        }
        if (mask) {
            e.resources = mask;
            e.typesGiven = true;
        }
    }
    if (!trigger["load-type"].get_array().get(array)) {
        std::uint8_t mask = 0;
        for (auto item : array) {
            std::string_view name;
            if (item.get_string().get(name)) continue;
            if (name == "first-party") mask |= firstPartyBit;
            if (name == "third-party") mask |= thirdPartyBit;
        }
        if (mask) {
            e.loads = mask;
            e.typesGiven = true;
        }
    }
    constexpr std::array<std::pair<std::string_view, ConditionKind>, 4> conditions{{
        {"if-domain", ConditionKind::ifDomain},
        {"unless-domain", ConditionKind::unlessDomain},
        {"if-top-url", ConditionKind::ifTopURL},
        {"unless-top-url", ConditionKind::unlessTopURL},
    }};
    for (auto [key, kind] : conditions) {
        if (trigger[key].get_array().get(array)) continue;
        e.condition = kind;
        for (auto item : array) {
            std::string_view value;
            if (!item.get_string().get(value)) e.conditionValues.push_back(value);
        }
        break;
    }
    std::string_view type;
    if (element["action"]["type"].get_string().get(type)) return std::nullopt;
    e.action = *actionNamed(type);
    std::string_view selector;
    if (!element["action"]["selector"].get_string().get(selector)) e.selector = selector;
    if (e.action == Action::hide && !isPlausibleSelector(e.selector)) return std::nullopt;
    return e;
}

// Never 0, which marks an empty slot.
std::uint64_t siteHash(std::string_view host) { return fnv(0xCBF29CE484222325ull, host) | 1; }

// A site's key in the piece filter.
std::uint32_t siteKey(std::uint64_t site) {
    return mix(static_cast<std::uint32_t>(site >> 32) ^ static_cast<std::uint32_t>(site) ^ 0x5173u);
}

bool universal(std::string_view filter) { return validateURLFilter(filter) == URLFilterStatus::matchesEverything; }

}  // namespace

// --- the compiled form -------------------------------------------------------------------

struct ContentRuleMatcher::Segment {
    struct Rule {
        std::uint32_t filter = 0, filterLength = 0;    // in arena
        std::uint32_t literal = 0, literalLength = 0;  // a pure literal's text, folded unless case-sensitive
        std::uint32_t selector = 0, selectorLength = 0;
        std::uint32_t run = 0, runLength = 0;  // the longest literal run, lower-case: a match holds it
        std::uint32_t condition = none;
        std::uint16_t resources = allResources;
        std::uint8_t loads = 3;
        Action action = Action::block;
        bool caseSensitive = false;
        bool universal = false;
        bool pureLiteral = false;
        bool hostAnchored = false;  // literal is the host of anchoredHost()
        bool anchoredStart = false;
        bool anchoredEnd = false;
    };
    struct Condition {
        ConditionKind kind;
        bool caseSensitive = false;
        std::vector<std::string> hosts;     // exact hosts
        std::vector<std::string> suffixes;  // "*host": the host and its subdomains
        std::vector<std::uint32_t> topPatterns;
    };
    // A rule filed under a piece, with what rules out most candidates
    // before the rule itself is read: the loads it covers and a second piece
    // of its url-filter.
    struct Posting {
        std::uint32_t rule = 0;
        std::uint16_t loads = 0;  // resource-type bits, then first-party and third-party, then lastPosting
        std::uint16_t check = 0;  // checkOf() the second piece; 0: none
    };
    static constexpr std::uint16_t lastPosting = 0x8000;
    // A piece's first posting sits in its slot, so that a piece with one rule
    // (most of them) costs one read; the others follow in `postings` from
    // `more` on, the last one marked.
    struct GramSlot {
        std::uint32_t gram = 0;  // 0: empty (no URL holds a NUL byte)
        std::uint32_t more = 0;  // 0: none
        Posting first;
    };

    std::string arena;
    std::vector<Rule> rules;
    std::vector<Condition> conditions;
    std::vector<std::string> topPatterns;
    std::unique_ptr<std::atomic<const RE2*>[]> regexes;
    std::unique_ptr<std::atomic<const RE2*>[]> topRegexes;
    mutable std::atomic<std::size_t> compiledRegexBytes{0};

    // Which pieces and sites any rule is filed under: a blocked Bloom
    // filter, three bits in one word per key, about 16 bits a key.
    std::vector<std::uint64_t> filter;
    std::vector<GramSlot> table;
    std::vector<Posting> postings;
    std::vector<std::uint32_t> always;  // rules with no piece to file them under
    std::size_t filedByPiece = 0;
    // Match-all filters with an if-domain list, filed under the hash of each
    // of its hosts (a collision only adds a candidate that the check refuses);
    // as with pieces, the first rule sits in the slot, the others follow in
    // `sitePostings` from `more` on, the last one marked.
    struct SiteSlot {
        std::uint64_t site = 0;  // 0: empty
        std::uint32_t first = 0;
        std::uint32_t more = 0;  // 0: none
    };
    static constexpr std::uint32_t lastSitePosting = 0x80000000u;
    std::vector<SiteSlot> siteTable;
    std::vector<std::uint32_t> sitePostings;

    std::vector<std::string> globalSheet;
    std::uint64_t hash = 0;
    std::size_t entryCount = 0;
    // A body keeps where it stood in its list's text: the bytes from the
    // list's start to the end of its last element, as a digest, and how many
    // elements they hold. A list that starts with the same bytes and goes on
    // with whitelisting entries only shares the body without parsing it.
    std::size_t sourceBytes = 0;
    std::uint64_t sourceDigest = 0;
    std::size_t sourceElements = 0;

    ~Segment() {
        for (size_t i = 0; i < rules.size(); ++i) delete regexes[i].load();
        for (size_t i = 0; i < topPatterns.size(); ++i) delete topRegexes[i].load();
    }

    std::string_view text(std::uint32_t offset, std::uint32_t length) const {
        return std::string_view(arena).substr(offset, length);
    }

    std::size_t memoryUsage() const {
        std::size_t bytes = sizeof *this + arena.capacity() + rules.capacity() * sizeof(Rule) +
                            rules.size() * sizeof(void*) + filter.capacity() * 8 + table.capacity() * sizeof(GramSlot) +
                            postings.capacity() * sizeof(Posting) + always.capacity() * 4 +
                            compiledRegexBytes.load();
        for (const auto& condition : conditions) {
            bytes += sizeof condition + condition.topPatterns.capacity() * 4;
            for (const auto& host : condition.hosts) bytes += sizeof host + host.capacity();
            for (const auto& host : condition.suffixes) bytes += sizeof host + host.capacity();
        }
        bytes += siteTable.capacity() * sizeof(SiteSlot) + sitePostings.capacity() * 4;
        for (const auto& selector : globalSheet) bytes += sizeof selector + selector.capacity();
        return bytes;
    }

    static std::size_t estimate(const std::vector<EntryView>& entries) {
        std::size_t bytes = 0;
        for (const auto& e : entries) {
            bytes += sizeof(Rule) + 24 + e.filter.size() * 2 + e.selector.size();
            for (auto value : e.conditionValues) bytes += 40 + value.size();
        }
        return bytes;
    }

    void build(const std::vector<EntryView>& entries, bool collectGlobalSheet);
    bool mayHold(std::uint32_t key) const {
        const std::uint64_t bits = filterBits(key);
        return (filter[placeOf(key, filter.size())] & bits) == bits;
    }
    void collect(const PreparedLoad& load, std::vector<std::uint32_t>& out) const;
    bool fires(const Rule& rule, const PreparedLoad& load) const;
    bool urlMatches(const Rule& rule, std::string_view url, std::string_view lowerURL) const;
    bool conditionHolds(const Condition& condition, const PreparedLoad& load) const;
};

void ContentRuleMatcher::Segment::build(const std::vector<EntryView>& entries, bool collectGlobalSheet) {
    entryCount = entries.size();
    std::size_t arenaBytes = 0;
    for (const auto& e : entries) arenaBytes += e.filter.size() * 3 + e.selector.size();
    arena.reserve(arenaBytes);
    rules.reserve(entries.size());
    auto store = [this](std::string_view text) {
        const auto offset = static_cast<std::uint32_t>(arena.size());
        arena.append(text);
        return offset;
    };

    std::vector<std::vector<std::string>> runsOf;
    runsOf.reserve(entries.size());
    bool beforeFirstIgnore = collectGlobalSheet;
    for (const auto& e : entries) {
        if (e.action == Action::ignorePreviousRules) beforeFirstIgnore = false;
        const bool matchesAll = universal(e.filter);
        if (beforeFirstIgnore && e.action == Action::hide && matchesAll && !e.typesGiven && !e.condition) {
            globalSheet.emplace_back(e.selector);
            continue;  // never evaluated per load: it applies unless an ignore-previous-rules fires
        }
        Rule rule;
        rule.filter = store(e.filter);
        rule.filterLength = static_cast<std::uint32_t>(e.filter.size());
        rule.selector = store(e.selector);
        rule.selectorLength = static_cast<std::uint32_t>(e.selector.size());
        rule.resources = e.resources;
        rule.loads = e.loads;
        rule.action = e.action;
        rule.caseSensitive = e.caseSensitive;
        rule.universal = matchesAll;
        std::vector<std::string> runs;
        if (!matchesAll) {
            auto shape = analyse(e.filter);
            rule.anchoredStart = shape.anchoredStart;
            rule.anchoredEnd = shape.anchoredEnd;
            if (shape.pureLiteral) {
                rule.pureLiteral = true;
                const std::string literal = e.caseSensitive ? shape.literal : lowered(shape.literal);
                rule.literal = store(literal);
                rule.literalLength = static_cast<std::uint32_t>(literal.size());
            }
            if (auto host = anchoredHost(e.filter)) {
                rule.hostAnchored = true;
                if (!e.caseSensitive) *host = lowered(*host);
                rule.literal = store(*host);
                rule.literalLength = static_cast<std::uint32_t>(host->size());
            }
            runs = std::move(shape.runs);
            if (!rule.pureLiteral && !rule.hostAnchored && !runs.empty()) {
                const auto longest = std::max_element(runs.begin(), runs.end(), [](const auto& a, const auto& b) {
                    return a.size() < b.size();
                });
                rule.run = store(*longest);
                rule.runLength = static_cast<std::uint32_t>(longest->size());
            }
        }
        if (e.condition) {
            Condition condition{*e.condition, e.caseSensitive, {}, {}, {}};
            for (auto value : e.conditionValues) {
                if (*e.condition == ConditionKind::ifTopURL || *e.condition == ConditionKind::unlessTopURL) {
                    condition.topPatterns.push_back(static_cast<std::uint32_t>(topPatterns.size()));
                    topPatterns.emplace_back(value);
                } else if (value.starts_with('*')) {
                    condition.suffixes.emplace_back(value.substr(1));
                } else {
                    condition.hosts.emplace_back(value);
                }
            }
            rule.condition = static_cast<std::uint32_t>(conditions.size());
            conditions.push_back(std::move(condition));
        }
        rules.push_back(rule);
        runsOf.push_back(std::move(runs));
    }
    arena.shrink_to_fit();
    regexes = std::make_unique<std::atomic<const RE2*>[]>(rules.size());
    topRegexes = std::make_unique<std::atomic<const RE2*>[]>(topPatterns.size());

    // How many rules could be filed under each piece (approximately: counts share buckets).
    constexpr unsigned countBits = 16;
    std::vector<std::uint32_t> counts(std::size_t{1} << countBits, 0);
    auto eachGram = [](const std::vector<std::string>& runs, auto&& body) {
        for (const auto& run : runs)
            for (size_t i = 0; i + 4 <= run.size(); ++i) body(std::string_view(run).substr(i, 4));
    };
    for (const auto& runs : runsOf)
        eachGram(runs, [&](std::string_view gram) { ++counts[mix(gramAt(gram.data())) >> (32 - countBits)]; });

    struct Filed {
        std::uint32_t gram;
        Posting posting;
    };
    std::vector<Filed> filed;
    filed.reserve(rules.size());
    std::vector<std::pair<std::uint64_t, std::uint32_t>> sites;  // site, rule
    for (std::uint32_t index = 0; index < rules.size(); ++index) {
        const Rule& rule = rules[index];
        if (rule.universal && rule.condition != none && conditions[rule.condition].kind == ConditionKind::ifDomain) {
            const auto& condition = conditions[rule.condition];
            for (const auto& host : condition.hosts) sites.emplace_back(siteHash(host), index);
            for (const auto& host : condition.suffixes) sites.emplace_back(siteHash(host), index);
            continue;
        }
        // Filed under its rarest piece; the rarest of the others that does
        // not overlap it (any other when all do) is the second piece.
        const auto cost = [&](std::string_view gram) {
            return counts[mix(gramAt(gram.data())) >> (32 - countBits)] + (isCommonGram(gram) ? 1'000'000'000ull : 0);
        };
        const auto& runs = runsOf[index];
        std::optional<std::uint32_t> best;
        std::size_t bestRun = 0, bestAt = 0;
        std::uint64_t bestCost = std::numeric_limits<std::uint64_t>::max();
        for (size_t r = 0; r < runs.size(); ++r)
            for (size_t i = 0; i + 4 <= runs[r].size(); ++i)
                if (const auto c = cost(std::string_view(runs[r]).substr(i, 4)); c < bestCost) {
                    bestCost = c;
                    best = gramAt(runs[r].data() + i);
                    bestRun = r;
                    bestAt = i;
                }
        if (!best) {
            always.push_back(index);
            continue;
        }
        std::optional<std::uint32_t> second;
        std::uint64_t secondCost = std::numeric_limits<std::uint64_t>::max();
        bool secondApart = false;
        for (size_t r = 0; r < runs.size(); ++r)
            for (size_t i = 0; i + 4 <= runs[r].size(); ++i) {
                const std::uint32_t value = gramAt(runs[r].data() + i);
                if (value == *best) continue;
                const bool apart = r != bestRun || i + 4 <= bestAt || bestAt + 4 <= i;
                const auto c = cost(std::string_view(runs[r]).substr(i, 4));
                if ((apart && !secondApart) || (apart == secondApart && c < secondCost)) {
                    second = value;
                    secondCost = c;
                    secondApart = apart;
                }
            }
        const auto loads = static_cast<std::uint16_t>(rule.resources | (rule.loads << loadTypeNames.size()));
        filed.push_back({*best, {index, loads, second ? checkOf(mix(*second)) : std::uint16_t{0}}});
    }
    std::sort(filed.begin(), filed.end(), [](const Filed& a, const Filed& b) {
        return a.gram != b.gram ? a.gram < b.gram : a.posting.rule < b.posting.rule;
    });

    std::size_t distinct = 0;
    for (size_t i = 0; i < filed.size(); ++i)
        if (i == 0 || filed[i].gram != filed[i - 1].gram) ++distinct;
    std::sort(sites.begin(), sites.end());
    sites.erase(std::unique(sites.begin(), sites.end()), sites.end());
    std::size_t distinctSites = 0;
    for (size_t i = 0; i < sites.size(); ++i)
        if (i == 0 || sites[i].first != sites[i - 1].first) ++distinctSites;
    filter.assign(std::max<std::size_t>(1, (distinct + distinctSites + 3) / 4), 0);
    const auto file = [this](std::uint32_t key) { filter[placeOf(key, filter.size())] |= filterBits(key); };

    // Open addressing, two thirds full at most (the filter keeps most
    // absent pieces away from the table).
    filedByPiece = filed.size();
    table.assign(distinct ? distinct + distinct / 2 + 1 : 0, GramSlot{});
    postings.reserve(filed.size() - distinct + 1);
    postings.emplace_back();  // `more` 0 means none
    for (size_t i = 0; i < filed.size();) {
        const std::uint32_t gram = filed[i].gram;
        const std::uint32_t h = mix(gram);
        size_t slot = placeOf(h, table.size());
        while (table[slot].gram != 0) slot = slot + 1 == table.size() ? 0 : slot + 1;
        table[slot] = GramSlot{gram, 0, filed[i++].posting};
        if (i < filed.size() && filed[i].gram == gram) {
            table[slot].more = static_cast<std::uint32_t>(postings.size());
            for (; i < filed.size() && filed[i].gram == gram; ++i) postings.push_back(filed[i].posting);
            postings.back().loads |= lastPosting;
        }
        file(h);
    }
    postings.shrink_to_fit();

    siteTable.assign(distinctSites ? distinctSites + distinctSites / 2 + 1 : 0, SiteSlot{});
    sitePostings.reserve(sites.size() - distinctSites + 1);
    sitePostings.push_back(0);  // `more` 0 means none
    for (size_t i = 0; i < sites.size();) {
        const std::uint64_t site = sites[i].first;
        const std::uint32_t key = siteKey(site);
        size_t slot = placeOf(key, siteTable.size());
        while (siteTable[slot].site != 0) slot = slot + 1 == siteTable.size() ? 0 : slot + 1;
        siteTable[slot] = SiteSlot{site, sites[i++].second, 0};
        if (i < sites.size() && sites[i].first == site) {
            siteTable[slot].more = static_cast<std::uint32_t>(sitePostings.size());
            for (; i < sites.size() && sites[i].first == site; ++i) sitePostings.push_back(sites[i].second);
            sitePostings.back() |= lastSitePosting;
        }
        file(key);
    }
    sitePostings.shrink_to_fit();
}

void ContentRuleMatcher::Segment::collect(const PreparedLoad& load, std::vector<std::uint32_t>& out) const {
    out.clear();
    const std::uint16_t typeBit = bit(load.type_);
    const auto take = [&](Posting posting) {
        if (!(posting.loads & typeBit) || !load.mayHold(posting.check)) return;
        const unsigned party = (posting.loads >> loadTypeNames.size()) & 3;
        if (party != (firstPartyBit | thirdPartyBit) && !(party & (load.isThirdParty() ? thirdPartyBit : firstPartyBit)))
            return;
        out.push_back(posting.rule);
    };
    if (!table.empty()) {
        for (const auto [gram, h] : load.grams_) {
            if (!mayHold(h)) continue;
            for (size_t slot = placeOf(h, table.size()); table[slot].gram != 0;
                 slot = slot + 1 == table.size() ? 0 : slot + 1) {
                if (table[slot].gram != gram) continue;
                take(table[slot].first);
                if (table[slot].more)
                    for (std::uint32_t p = table[slot].more;; ++p) {
                        take(postings[p]);
                        if (postings[p].loads & lastPosting) break;
                    }
                break;
            }
        }
    }
    if (!siteTable.empty()) {
        for (const auto [site, key] : load.sites_) {
            if (!mayHold(key)) continue;
            for (size_t slot = placeOf(key, siteTable.size()); siteTable[slot].site != 0;
                 slot = slot + 1 == siteTable.size() ? 0 : slot + 1) {
                if (siteTable[slot].site != site) continue;
                out.push_back(siteTable[slot].first);
                if (siteTable[slot].more)
                    for (std::uint32_t p = siteTable[slot].more;; ++p) {
                        out.push_back(sitePostings[p] & ~lastSitePosting);
                        if (sitePostings[p] & lastSitePosting) break;
                    }
                break;
            }
        }
    }
    if (out.size() > 1) {
        std::sort(out.begin(), out.end());
        out.erase(std::unique(out.begin(), out.end()), out.end());
    }
}

bool ContentRuleMatcher::Segment::urlMatches(const Rule& rule, std::string_view url, std::string_view lowerURL) const {
    if (rule.universal) return true;
    if (rule.hostAnchored)
        return hostAnchorMatches(rule.caseSensitive ? url : lowerURL, text(rule.literal, rule.literalLength));
    if (rule.pureLiteral) {
        const std::string_view subject = rule.caseSensitive ? url : lowerURL;
        const std::string_view literal = text(rule.literal, rule.literalLength);
        if (rule.anchoredStart && rule.anchoredEnd) return subject == literal;
        if (rule.anchoredStart) return subject.starts_with(literal);
        if (rule.anchoredEnd) return subject.ends_with(literal);
        return subject.find(literal) != std::string_view::npos;
    }
    // Most candidates fail here, before the regular expression is asked.
    if (rule.runLength && lowerURL.find(text(rule.run, rule.runLength)) == std::string_view::npos) return false;
    const size_t index = static_cast<size_t>(&rule - rules.data());
    const bool fresh = regexes[index].load(std::memory_order_acquire) == nullptr;
    const RE2* regex = regexIn(regexes[index], text(rule.filter, rule.filterLength), rule.caseSensitive);
    if (fresh) compiledRegexBytes += sizeof(RE2) + static_cast<std::size_t>(std::max(regex->ProgramSize(), 0)) * 16;
    return regex->ok() && RE2::PartialMatch(url, *regex);
}

bool ContentRuleMatcher::Segment::conditionHolds(const Condition& condition, const PreparedLoad& load) const {
    switch (condition.kind) {
    case ConditionKind::ifDomain:
    case ConditionKind::unlessDomain: {
        const std::string& host = load.main_.host;
        bool listed = std::find(condition.hosts.begin(), condition.hosts.end(), host) != condition.hosts.end();
        for (size_t i = 0; !listed && i < condition.suffixes.size(); ++i) {
            const std::string& suffix = condition.suffixes[i];
            listed = host == suffix ||
                     (host.size() > suffix.size() && host.ends_with(suffix) && host[host.size() - suffix.size() - 1] == '.');
        }
        return listed == (condition.kind == ConditionKind::ifDomain);
    }
    case ConditionKind::ifTopURL:
    case ConditionKind::unlessTopURL: {
        bool listed = false;
        for (std::uint32_t index : condition.topPatterns) {
            const std::string& pattern = topPatterns[index];
            if (universal(pattern)) {
                listed = true;
            } else {
                const RE2* regex = regexIn(topRegexes[index], pattern, condition.caseSensitive);
                listed = regex->ok() && RE2::PartialMatch(load.main_.text, *regex);
            }
            if (listed) break;
        }
        return listed == (condition.kind == ConditionKind::ifTopURL);
    }
    }
    return false;
}

bool ContentRuleMatcher::Segment::fires(const Rule& rule, const PreparedLoad& load) const {
    if (!(rule.resources & bit(load.type_))) return false;
    if (rule.loads != (firstPartyBit | thirdPartyBit) &&
        !(rule.loads & (load.isThirdParty() ? thirdPartyBit : firstPartyBit)))
        return false;
    if (rule.condition != none && !conditionHolds(conditions[rule.condition], load)) return false;
    return urlMatches(rule, load.url_.text, load.lowerURL_);
}

// --- the matcher -------------------------------------------------------------------------

ContentRuleMatcher::~ContentRuleMatcher() = default;

namespace {

// The offset just past the `count`-th element of a JSON array's text; the
// text is an array the grammar gate accepted.
std::size_t endOfElement(std::string_view json, std::size_t count) {
    std::size_t seen = 0;
    int depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < json.size(); ++i) {
        const char c = json[i];
        if (inString) {
            if (c == '\\') ++i;
            else if (c == '"') inString = false;
            continue;
        }
        switch (c) {
        case '"': inString = true; break;
        case '[': case '{': ++depth; break;
        case ']': case '}':
            if (--depth == 1 && ++seen == count) return i + 1;
            break;
        default: break;
        }
    }
    return 0;
}

bool isJSONSpace(char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }

// Reads the entries of a parsed list; `elementOf` receives each entry's place
// among the list's elements (entries with an unusable selector are dropped).
std::vector<EntryView> readEntries(simdjson::dom::array array, std::vector<std::size_t>* elementOf) {
    std::vector<EntryView> entries;
    entries.reserve(array.size());
    std::size_t element = 0;
    for (auto item : array) {
        if (auto entry = readEntry(item)) {
            entries.push_back(std::move(*entry));
            if (elementOf) elementOf->push_back(element);
        }
        ++element;
    }
    return entries;
}

}  // namespace

std::shared_ptr<const ContentRuleMatcher> ContentRuleMatcher::withBodyOf(const ContentRuleMatcher& previous,
                                                                         std::string_view json,
                                                                         const Limits& limits) {
    const Segment& body = *previous.body_;
    const std::size_t n = body.sourceBytes;
    if (n == 0 || json.size() <= n || XXH3_64bits(json.data(), n) != body.sourceDigest) return nullptr;
    std::size_t i = n;
    while (i < json.size() && isJSONSpace(json[i])) ++i;
    std::string tailText;
    if (i < json.size() && json[i] == ']') {
        for (std::size_t j = i + 1; j < json.size(); ++j)
            if (!isJSONSpace(json[j])) return nullptr;
        tailText = "[]";
    } else if (i < json.size() && json[i] == ',') {
        tailText.reserve(json.size() - i);
        tailText += '[';
        tailText.append(json.substr(i + 1));
    } else {
        return nullptr;
    }
    // Anything the tail does wrong, the whole list is compiled again, so that
    // a refusal names the entry by its place in the whole list.
    std::size_t tailElements = 0;
    if (validateContentRuleList(tailText, &tailElements)) return nullptr;
    if (body.sourceElements + tailElements > maximumContentRuleCount) return nullptr;
    simdjson::dom::parser parser;
    simdjson::padded_string padded(tailText);
    simdjson::dom::array array;
    if (parser.parse(padded).get_array().get(array)) return nullptr;
    const std::vector<EntryView> tail = readEntries(array, nullptr);
    if (tail.size() != tailElements) return nullptr;
    for (const auto& entry : tail)
        if (entry.action != Action::ignorePreviousRules) return nullptr;
    if (Segment::estimate(tail) > limits.memoryBudget) return nullptr;

    std::shared_ptr<ContentRuleMatcher> matcher(new ContentRuleMatcher());
    matcher->body_ = previous.body_;
    matcher->reusedBody_ = true;
    auto tailSegment = std::make_shared<Segment>();
    tailSegment->build(tail, false);
    matcher->tail_ = std::move(tailSegment);
    matcher->elementCount_ = body.sourceElements + tailElements;
    return matcher;
}

std::expected<std::shared_ptr<const ContentRuleMatcher>, ContentRuleListError> ContentRuleMatcher::compile(
    std::string_view json, const Limits& limits, const ContentRuleMatcher* previous) {
    if (previous && previous->body_)
        if (auto matcher = withBodyOf(*previous, json, limits)) return matcher;
    if (auto refused = validateContentRuleList(json)) return std::unexpected(std::move(*refused));

    simdjson::dom::parser parser;
    simdjson::padded_string padded(json);
    simdjson::dom::array array;
    if (parser.parse(padded).get_array().get(array))
        return std::unexpected(ContentRuleListError{ContentRuleListErrorCode::jsonInvalid, std::nullopt, {}});
    std::vector<std::size_t> elementOf;
    const std::vector<EntryView> entries = readEntries(array, &elementOf);

    if (Segment::estimate(entries) > limits.memoryBudget)
        return std::unexpected(ContentRuleListError{
            ContentRuleListErrorCode::exceedsMemoryBudget, std::nullopt,
            "about " + std::to_string(Segment::estimate(entries)) + " bytes, the budget is " +
                std::to_string(limits.memoryBudget)});

    // The whitelisting tail: the trailing run of ignore-previous-rules entries.
    size_t tailStart = entries.size();
    while (tailStart > 0 && entries[tailStart - 1].action == Action::ignorePreviousRules) --tailStart;
    const std::vector<EntryView> body(entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(tailStart));
    const std::vector<EntryView> tail(entries.begin() + static_cast<std::ptrdiff_t>(tailStart), entries.end());
    std::uint64_t bodyHash = 0xCBF29CE484222325ull;
    for (const auto& entry : body) bodyHash = hashEntry(bodyHash, entry);

    std::shared_ptr<ContentRuleMatcher> matcher(new ContentRuleMatcher());
    matcher->elementCount_ = array.size();
    if (previous && previous->body_ && previous->body_->hash == bodyHash &&
        previous->body_->entryCount == body.size()) {
        matcher->body_ = previous->body_;
        matcher->reusedBody_ = true;
    } else {
        auto segment = std::make_shared<Segment>();
        segment->hash = bodyHash;
        segment->build(body, true);
        // The body's elements: all before the tail's first one.
        segment->sourceElements = tailStart < entries.size() ? elementOf[tailStart] : array.size();
        if (segment->sourceElements > 0) {
            segment->sourceBytes = endOfElement(json, segment->sourceElements);
            segment->sourceDigest = XXH3_64bits(json.data(), segment->sourceBytes);
        }
        matcher->body_ = std::move(segment);
    }
    auto tailSegment = std::make_shared<Segment>();
    tailSegment->build(tail, false);
    matcher->tail_ = std::move(tailSegment);
    return matcher;
}

ContentRuleListEffects ContentRuleMatcher::evaluate(const PreparedLoad& load) const {
    ContentRuleListEffects effects;
    thread_local std::vector<std::uint32_t> candidates;
    for (const Segment* segment : {body_.get(), tail_.get()}) {
        segment->collect(load, candidates);
        // The candidates merged, in list order, with the rules every load looks at.
        const auto& always = segment->always;
        for (size_t i = 0, j = 0; i < candidates.size() || j < always.size();) {
            std::uint32_t index;
            if (j == always.size() || (i < candidates.size() && candidates[i] < always[j])) {
                index = candidates[i++];
            } else {
                index = always[j++];
                if (i < candidates.size() && candidates[i] == index) ++i;
            }
            const auto& rule = segment->rules[index];
            if (!segment->fires(rule, load)) continue;
            switch (rule.action) {
            case Action::block: effects.blocked = true; break;
            case Action::blockCookies: effects.blockCookies = true; break;
            case Action::makeHttps: effects.makeHttps = true; break;
            case Action::hide: effects.selectors.push_back(segment->text(rule.selector, rule.selectorLength)); break;
            case Action::ignorePreviousRules:
                effects = ContentRuleListEffects{};
                effects.ignoredPreviousRules = true;
                break;
            }
        }
    }
    return effects;
}

ContentRuleMatcher::IndexStatistics ContentRuleMatcher::indexStatistics() const {
    IndexStatistics statistics;
    for (const Segment* segment : {body_.get(), tail_.get()}) {
        statistics.byPiece += segment->filedByPiece;
        statistics.always += segment->always.size();
        statistics.globalStyleSheet += segment->globalSheet.size();
        statistics.bySite += segment->rules.size() - segment->filedByPiece - segment->always.size();
    }
    return statistics;
}

const std::vector<std::string>& ContentRuleMatcher::globalStyleSheet() const { return body_->globalSheet; }

std::size_t ContentRuleMatcher::ruleCount() const {
    return body_->rules.size() + body_->globalSheet.size() + tail_->rules.size();
}

std::size_t ContentRuleMatcher::memoryUsage() const {
    return sizeof *this + body_->memoryUsage() + tail_->memoryUsage();
}

// --- loads ---------------------------------------------------------------------------------

std::optional<LoadResourceType> loadResourceTypeFromName(std::string_view name) {
    if (name == "raw") return LoadResourceType::fetch;
    for (size_t i = 0; i < loadTypeNames.size(); ++i)
        if (loadTypeNames[i] == name) return static_cast<LoadResourceType>(i);
    return std::nullopt;
}

std::string_view name(LoadResourceType type) { return loadTypeNames[static_cast<size_t>(type)]; }

std::optional<PreparedLoad> PreparedLoad::prepare(const ContentLoad& load) {
    auto url = canonicalURL(load.url);
    if (!url) return std::nullopt;
    auto main = load.mainDocumentURL.empty() ? url : canonicalURL(load.mainDocumentURL);
    if (!main) return std::nullopt;
    PreparedLoad prepared;
    prepared.lowerURL_ = lowered(url->text);
    const std::string& lower = prepared.lowerURL_;
    if (lower.size() >= 4) prepared.grams_.reserve(lower.size() - 3);
    for (size_t i = 0; i + 4 <= lower.size(); ++i) {
        const std::uint32_t gram = gramAt(lower.data() + i);
        const std::uint32_t hash = mix(gram);
        prepared.grams_.push_back({gram, hash});
        const unsigned piece = checkOf(hash) & 0xFFF;
        prepared.pieceSet_[piece / 64] |= std::uint64_t{1} << (piece % 64);
    }
    prepared.sites_.reserve(4);
    for (std::string_view host = main->host; !host.empty();) {
        const std::uint64_t site = siteHash(host);
        prepared.sites_.push_back({site, siteKey(site)});
        const size_t dot = host.find('.');
        if (dot == std::string_view::npos) break;
        host.remove_prefix(dot + 1);
    }
    prepared.type_ = load.resourceType;
    if (url->host == main->host) prepared.thirdParty_ = 0;
    prepared.url_ = std::move(*url);
    prepared.main_ = std::move(*main);
    return prepared;
}

bool PreparedLoad::isThirdParty() const {
    if (thirdParty_ < 0) thirdParty_ = registrableDomain(url_.host) != registrableDomain(main_.host) ? 1 : 0;
    return thirdParty_ > 0;
}

LoadEffects evaluateLoad(std::span<const NamedContentRuleMatcher> matchers, const ContentLoad& load) {
    LoadEffects result;
    const auto prepared = PreparedLoad::prepare(load);
    if (!prepared) {
        result.url = load.url;
        return result;
    }
    result.evaluated = true;
    result.stylesheetAppliedFor.reserve(matchers.size());
    bool makeHttps = false;
    for (const auto& [identifier, matcher] : matchers) {
        if (!matcher) continue;
        const auto effects = matcher->evaluate(*prepared);
        if (effects.blocked) {
            result.blocked = true;
            result.blockedBy.push_back(identifier);
        }
        result.blockCookies = result.blockCookies || effects.blockCookies;
        makeHttps = makeHttps || effects.makeHttps;
        for (auto selector : effects.selectors) result.selectors.emplace_back(selector);
        if (!effects.ignoredPreviousRules) result.stylesheetAppliedFor.push_back(identifier);
    }
    auto upgraded = makeHttps ? upgradedToSecure(prepared->url()) : std::nullopt;
    result.url = upgraded ? *upgraded : prepared->url().text;
    return result;
}

bool isPlausibleSelector(std::string_view selector) {
    while (!selector.empty() && std::isspace(static_cast<unsigned char>(selector.front()))) selector.remove_prefix(1);
    while (!selector.empty() && std::isspace(static_cast<unsigned char>(selector.back()))) selector.remove_suffix(1);
    if (selector.empty()) return false;
    const char first = selector.front(), last = selector.back();
    if (first == ',' || first == '>' || first == '+' || first == '~' || last == ',' || last == '>' || last == '+' ||
        last == '~')
        return false;
    std::vector<char> open;
    char quote = 0;
    char previousSignificant = 0;
    for (size_t i = 0; i < selector.size(); ++i) {
        const char c = selector[i];
        if (quote) {
            if (c == '\\') ++i;
            else if (c == quote) quote = 0;
            continue;
        }
        switch (c) {
        case '\\': ++i; break;
        case '"': case '\'': quote = c; break;
        case '[': case '(': open.push_back(c); break;
        case ']': if (open.empty() || open.back() != '[') return false; open.pop_back(); break;
        case ')': if (open.empty() || open.back() != '(') return false; open.pop_back(); break;
        case '{': case '}': case ';': return false;
        case ',': if (open.empty() && previousSignificant == ',') return false; break;
        default: break;
        }
        if (!std::isspace(static_cast<unsigned char>(c))) previousSignificant = c;
    }
    return !quote && open.empty();
}

std::string translateURLFilter(std::string_view urlFilter) { return analyse(urlFilter).re2; }

}  // namespace tamsel::platform
