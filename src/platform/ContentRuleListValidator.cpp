#include "platform/ContentRuleListValidator.h"
#include "platform/RegexEscape.h"
#include "platform/Text.h"

#include <simdjson.h>

#include <array>
#include <cctype>
#include <vector>

namespace tamsel::platform {

std::string_view message(ContentRuleListErrorCode code) {
    using enum ContentRuleListErrorCode;
    switch (code) {
    case jsonInvalid: return "Failed to parse the JSON String.";
    case topLevelNotArray: return "Invalid input, the top level structure is not an array.";
    case invalidRule: return "Invalid rule.";
    case containsNoRules: return "Empty extension.";
    case invalidTrigger: return "Invalid trigger object.";
    case invalidURLFilter: return "Invalid url-filter object.";
    case invalidTriggerFlagsArray: return "Invalid trigger flags array.";
    case invalidStringInTriggerFlagsArray: return "Invalid string in the trigger flags array.";
    case invalidAction: return "Invalid action object.";
    case invalidActionType: return "Invalid action type.";
    case invalidCSSDisplayNoneAction: return "Invalid css-display-none action type. Requires a selector.";
    case invalidRegex: return "Invalid or unsupported regular expression.";
    case invalidConditionList:
        return "Invalid list of if-domain, unless-domain, if-top-url, or unless-top-url conditions.";
    case tooManyRules: return "Too many rules in JSON array.";
    case domainNotLowerCaseASCII:
        return "Domains must be lower case ASCII. Use punycode to encode non-ASCII characters.";
    case multipleConditions:
        return "A trigger cannot have more than one condition (if-domain, unless-domain, if-top-url, or "
               "unless-top-url)";
    case exceedsMemoryBudget: return "The rule list needs more memory than the content-blocking engine allows.";
    }
    return "Unknown error.";
}

std::string_view description(URLFilterStatus status) {
    using enum URLFilterStatus;
    switch (status) {
    case ok: return "Ok";
    case matchesEverything: return "Matches everything.";
    case nonASCII: return "Only ASCII characters are supported in pattern.";
    case emptyPattern: return "Empty pattern.";
    case unsupportedCharacterClass: return "Character class is not supported.";
    case backReference: return "Patterns cannot contain backreferences.";
    case misplacedStartOfLine:
        return "Start of line assertion can only appear as the first term in a filter.";
    case wordBoundary: return "Word boundaries assertions are not supported yet.";
    case atomCharacter: return "Builtins character class atoms are not supported yet.";
    case group: return "Groups are not supported yet.";
    case disjunction: return "Disjunctions are not supported yet.";
    case misplacedEndOfLine: return "The end of line assertion must be the last term in an expression.";
    case invalidQuantifier: return "Arbitrary atom repetitions are not supported.";
    case syntaxError: return "Syntax error in regular expression.";
    }
    return "Unknown status.";
}

namespace {

// A recursive-descent reading of the JavaScript (non-Unicode, Annex B)
// pattern syntax that WebKit's Yarr parser accepts, with the restrictions the
// URL filter compiler adds on top. It tracks only what decides acceptance: the
// placement of the line assertions and whether any term must consume a
// character (a pattern where none must is a match-everything filter).
class URLFilterReader {
public:
    explicit URLFilterReader(std::string_view pattern) : pattern_(pattern) {}

    URLFilterStatus read() {
        while (status_ == URLFilterStatus::ok && pos_ < pattern_.size()) step();
        if (status_ != URLFilterStatus::ok) return status_;
        if (!groups_.empty()) return URLFilterStatus::syntaxError;
        sink();
        if (status_ != URLFilterStatus::ok) return status_;
        return topLevelConsumes_ ? URLFilterStatus::ok : URLFilterStatus::matchesEverything;
    }

private:
    enum class Quantifier { one, zeroOrOne, zeroOrMore, oneOrMore };

    struct Term {
        bool valid = false;
        bool endOfLine = false;
        bool consumes = false;  // before quantification: a character set, or a group holding one
        Quantifier quantifier = Quantifier::one;

        bool matchesAtLeastOneCharacter() const {
            if (quantifier == Quantifier::zeroOrOne || quantifier == Quantifier::zeroOrMore) return false;
            if (endOfLine) return false;
            return consumes;
        }
    };

    struct Group {
        bool consumes = false;
    };

    void fail(URLFilterStatus status) {
        if (status_ == URLFilterStatus::ok) status_ = status;
    }

    void sink() {
        if (!floating_.valid) return;
        if (processedEndOfLine_) {
            fail(URLFilterStatus::misplacedEndOfLine);
            floating_ = {};
            return;
        }
        if (floating_.endOfLine) processedEndOfLine_ = true;
        const bool consumes = floating_.matchesAtLeastOneCharacter();
        if (!groups_.empty())
            groups_.back().consumes = groups_.back().consumes || consumes;
        else
            topLevelConsumes_ = topLevelConsumes_ || consumes;
        floating_ = {};
    }

    void characterAtom(unsigned character) {
        if (character > 0x7F) {
            fail(URLFilterStatus::nonASCII);
            return;
        }
        sink();
        floating_ = Term{true, false, true, Quantifier::one};
        lastWasAtom_ = true;
    }

    void step() {
        const char c = pattern_[pos_++];
        switch (c) {
        case '^':
            if (floating_.valid || !groups_.empty()) fail(URLFilterStatus::misplacedStartOfLine);
            lastWasAtom_ = false;
            return;
        case '$':
            sink();
            floating_ = Term{true, true, false, Quantifier::one};
            lastWasAtom_ = false;
            return;
        case '|':
            fail(URLFilterStatus::disjunction);
            return;
        case '(':
            openGroup();
            return;
        case ')':
            if (groups_.empty()) {
                fail(URLFilterStatus::syntaxError);
                return;
            }
            sink();
            floating_ = Term{true, false, groups_.back().consumes, Quantifier::one};
            groups_.pop_back();
            lastWasAtom_ = true;
            return;
        case '*': quantify(0, infinite); return;
        case '+': quantify(1, infinite); return;
        case '?': quantify(0, 1); return;
        case '{': {
            unsigned minimum = 0, maximum = 0;
            const size_t resume = pos_;
            if (readBraceQuantifier(minimum, maximum)) {
                quantify(minimum, maximum);
            } else {
                pos_ = resume;
                characterAtom('{');
            }
            return;
        }
        case '[':
            characterClass();
            return;
        case '\\':
            escape();
            return;
        case '.':
            // Any character but a newline: WebKit turns it into the universal transition.
            characterAtom('.');
            return;
        default:
            characterAtom(static_cast<unsigned char>(c));
            return;
        }
    }

    static constexpr unsigned infinite = ~0u;

    void quantify(unsigned minimum, unsigned maximum) {
        if (!lastWasAtom_ || !floating_.valid) {
            fail(URLFilterStatus::syntaxError);  // nothing to repeat
            return;
        }
        if (minimum > maximum) {
            fail(URLFilterStatus::syntaxError);  // numbers out of order
            return;
        }
        if (pos_ < pattern_.size() && pattern_[pos_] == '?') ++pos_;  // lazy form
        lastWasAtom_ = false;
        if (minimum == 0 && maximum == 1)
            floating_.quantifier = Quantifier::zeroOrOne;
        else if (minimum == 0 && maximum == infinite)
            floating_.quantifier = Quantifier::zeroOrMore;
        else if (minimum == 1 && maximum == infinite)
            floating_.quantifier = Quantifier::oneOrMore;
        else
            fail(URLFilterStatus::invalidQuantifier);
    }

    // "{n}", "{n,}" or "{n,m}" right after '{'; anything else is a literal brace.
    bool readBraceQuantifier(unsigned& minimum, unsigned& maximum) {
        auto readNumber = [this](unsigned& value) {
            const size_t start = pos_;
            unsigned long long number = 0;
            while (pos_ < pattern_.size() && pattern_[pos_] >= '0' && pattern_[pos_] <= '9') {
                number = number * 10 + static_cast<unsigned>(pattern_[pos_] - '0');
                if (number > 0xFFFFFFFEull) number = 0xFFFFFFFEull;
                ++pos_;
            }
            value = static_cast<unsigned>(number);
            return pos_ > start;
        };
        if (!readNumber(minimum)) return false;
        if (pos_ < pattern_.size() && pattern_[pos_] == '}') {
            ++pos_;
            maximum = minimum;
            return true;
        }
        if (pos_ >= pattern_.size() || pattern_[pos_] != ',') return false;
        ++pos_;
        if (pos_ < pattern_.size() && pattern_[pos_] == '}') {
            ++pos_;
            maximum = infinite;
            return true;
        }
        if (!readNumber(maximum)) return false;
        if (pos_ >= pattern_.size() || pattern_[pos_] != '}') return false;
        ++pos_;
        return true;
    }

    void openGroup() {
        if (pos_ < pattern_.size() && pattern_[pos_] == '?') {
            const std::string_view rest = pattern_.substr(pos_ + 1);
            if (rest.starts_with(":")) {
                pos_ += 2;
            } else if (rest.starts_with("=") || rest.starts_with("!") || rest.starts_with("<=") ||
                       rest.starts_with("<!")) {
                fail(URLFilterStatus::group);  // lookarounds
                return;
            } else if (rest.starts_with("<")) {
                const size_t close = rest.find('>');
                if (close == std::string_view::npos || close == 1) {
                    fail(URLFilterStatus::syntaxError);
                    return;
                }
                pos_ += 1 + close + 1;  // a named capture group is still a plain group
            } else {
                fail(URLFilterStatus::syntaxError);
                return;
            }
        }
        sink();
        groups_.push_back(Group{});
        lastWasAtom_ = false;
    }

    // The character an escape stands for (shared by atoms and class members),
    // or nothing after reporting why it is refused. `inClass` changes \b.
    std::optional<unsigned> escapedCharacter(char e, bool inClass) {
        if (auto value = controlEscapeValue(e, inClass, pattern_, pos_)) return value;
        switch (e) {
        case 'b':
            fail(URLFilterStatus::wordBoundary);
            return std::nullopt;
        case 'B':
            if (inClass) return 'B';
            fail(URLFilterStatus::wordBoundary);
            return std::nullopt;
        case 'd': case 'D': case 'w': case 'W': case 's': case 'S':
            fail(inClass ? URLFilterStatus::atomCharacter : URLFilterStatus::unsupportedCharacterClass);
            return std::nullopt;
        default:
            if (e >= '1' && e <= '9') {
                if (inClass) return static_cast<unsigned>(e);  // octal-ish identity inside a class
                fail(URLFilterStatus::backReference);
                return std::nullopt;
            }
            return static_cast<unsigned char>(e);  // identity escape
        }
    }

    void escape() {
        if (pos_ >= pattern_.size()) {
            fail(URLFilterStatus::syntaxError);  // \ at end of pattern
            return;
        }
        const char e = pattern_[pos_++];
        if (e == 'b' || e == 'B') {
            fail(URLFilterStatus::wordBoundary);
            return;
        }
        if (auto character = escapedCharacter(e, false)) characterAtom(*character);
    }

    void characterClass() {
        if (pos_ < pattern_.size() && pattern_[pos_] == '^') ++pos_;
        std::optional<unsigned> previous;  // the last single member, for ranges
        bool pendingRange = false;
        while (true) {
            if (status_ != URLFilterStatus::ok) return;
            if (pos_ >= pattern_.size()) {
                fail(URLFilterStatus::syntaxError);  // missing terminating ]
                return;
            }
            const char c = pattern_[pos_++];
            if (c == ']') break;
            std::optional<unsigned> member;
            if (c == '\\') {
                if (pos_ >= pattern_.size()) {
                    fail(URLFilterStatus::syntaxError);
                    return;
                }
                member = escapedCharacter(pattern_[pos_++], true);
                if (!member) return;
            } else if (c == '-' && previous && !pendingRange && pos_ < pattern_.size() &&
                       pattern_[pos_] != ']') {
                pendingRange = true;
                continue;
            } else {
                member = static_cast<unsigned char>(c);
            }
            if (*member > 0x7F) {
                fail(URLFilterStatus::nonASCII);
                return;
            }
            if (pendingRange) {
                if (*previous > *member) {
                    fail(URLFilterStatus::syntaxError);  // range out of order
                    return;
                }
                pendingRange = false;
                previous.reset();
            } else {
                previous = member;
            }
        }
        sink();
        floating_ = Term{true, false, true, Quantifier::one};
        lastWasAtom_ = true;
    }

    std::string_view pattern_;
    size_t pos_ = 0;
    URLFilterStatus status_ = URLFilterStatus::ok;
    Term floating_;
    std::vector<Group> groups_;
    bool processedEndOfLine_ = false;
    bool topLevelConsumes_ = false;
    bool lastWasAtom_ = false;
};

bool isASCIIWithoutUppercase(std::string_view text) {
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > 0x7F || (byte >= 'A' && byte <= 'Z')) return false;
    }
    return true;
}

constexpr std::array<std::string_view, 13> knownResourceTypes{
    "document", "image", "style-sheet", "script", "font", "raw", "svg-document",
    "media", "popup", "ping", "fetch", "websocket", "other"};
constexpr std::array<std::string_view, 2> knownLoadTypes{"first-party", "third-party"};
constexpr std::array<std::string_view, 5> knownActionTypes{
    "block", "block-cookies", "css-display-none", "ignore-previous-rules", "make-https"};

template <size_t N>
bool contains(const std::array<std::string_view, N>& list, std::string_view value) {
    for (auto item : list)
        if (item == value) return true;
    return false;
}

using Code = ContentRuleListErrorCode;

struct EntryError {
    Code code;
    std::string detail;
};

std::optional<EntryError> checkFlags(simdjson::dom::element value, std::string_view key,
                                     bool resourceTypes) {
    simdjson::dom::array array;
    if (value.get_array().get(array)) return EntryError{Code::invalidTriggerFlagsArray, std::string(key)};
    for (auto item : array) {
        std::string_view name;
        if (item.get_string().get(name) ||
            !(resourceTypes ? contains(knownResourceTypes, name) : contains(knownLoadTypes, name)))
            return EntryError{Code::invalidStringInTriggerFlagsArray,
                              std::string(key) + ": " + simdjson::minify(item)};
    }
    return std::nullopt;
}

std::optional<EntryError> checkConditionList(simdjson::dom::element value, std::string_view key,
                                             bool domains) {
    simdjson::dom::array array;
    if (value.get_array().get(array) || array.size() == 0)
        return EntryError{Code::invalidConditionList, std::string(key)};
    for (auto item : array) {
        std::string_view text;
        if (item.get_string().get(text) || text.empty())
            return EntryError{Code::invalidConditionList, std::string(key)};
        if (domains && !isASCIIWithoutUppercase(text))
            return EntryError{Code::domainNotLowerCaseASCII, std::string(key) + ": " + std::string(text)};
    }
    return std::nullopt;
}

std::optional<EntryError> checkEntry(simdjson::dom::element entry, std::string_view& urlFilter) {
    simdjson::dom::object object;
    if (entry.get_object().get(object)) return EntryError{Code::invalidRule, {}};

    simdjson::dom::object trigger;
    if (object["trigger"].get_object().get(trigger)) return EntryError{Code::invalidTrigger, {}};
    if (trigger["url-filter"].get_string().get(urlFilter) || urlFilter.empty())
        return EntryError{Code::invalidURLFilter, {}};

    simdjson::dom::element value;
    if (!trigger["resource-type"].get(value))
        if (auto error = checkFlags(value, "resource-type", true)) return error;
    if (!trigger["load-type"].get(value))
        if (auto error = checkFlags(value, "load-type", false)) return error;

    bool hasCondition = false;
    constexpr std::array<std::pair<std::string_view, bool>, 4> conditions{
        {{"if-domain", true}, {"unless-domain", true}, {"if-top-url", false}, {"unless-top-url", false}}};
    for (auto [key, isDomainList] : conditions) {
        if (trigger[key].get(value)) continue;
        if (hasCondition && value.is_array()) return EntryError{Code::multipleConditions, std::string(key)};
        if (auto error = checkConditionList(value, key, isDomainList)) return error;
        hasCondition = true;
    }

    simdjson::dom::object action;
    if (object["action"].get_object().get(action)) return EntryError{Code::invalidAction, {}};
    std::string_view type;
    if (action["type"].get_string().get(type) || !contains(knownActionTypes, type))
        return EntryError{Code::invalidActionType, std::string(type)};
    if (type == "css-display-none") {
        std::string_view selector;
        if (action["selector"].get_string().get(selector))
            return EntryError{Code::invalidCSSDisplayNoneAction, {}};
    }
    return std::nullopt;
}

}  // namespace

URLFilterStatus validateURLFilter(std::string_view pattern) {
    for (char c : pattern)
        if (static_cast<unsigned char>(c) > 0x7F) return URLFilterStatus::nonASCII;
    if (pattern.empty()) return URLFilterStatus::emptyPattern;
    return URLFilterReader(pattern).read();
}

std::optional<ContentRuleListError> validateContentRuleList(std::string_view json,
                                                            std::size_t* entryCount) {
    simdjson::dom::parser parser;
    simdjson::padded_string padded(json);
    simdjson::dom::element root;
    if (auto error = parser.parse(padded).get(root))
        return ContentRuleListError{Code::jsonInvalid, std::nullopt, simdjson::error_message(error)};
    simdjson::dom::array entries;
    if (root.get_array().get(entries)) return ContentRuleListError{Code::topLevelNotArray, std::nullopt, {}};
    if (entries.size() > maximumContentRuleCount)
        return ContentRuleListError{Code::tooManyRules, std::nullopt,
                                    std::to_string(entries.size()) + " entries"};

    // Like WebKit, parse every entry first, then compile the url-filters.
    std::vector<std::string_view> urlFilters;
    urlFilters.reserve(entries.size());
    for (auto entry : entries) {
        std::string_view urlFilter;
        if (auto error = checkEntry(entry, urlFilter))
            return ContentRuleListError{error->code, urlFilters.size(), std::move(error->detail)};
        urlFilters.push_back(urlFilter);
    }
    if (urlFilters.empty()) return ContentRuleListError{Code::containsNoRules, std::nullopt, {}};
    for (size_t index = 0; index < urlFilters.size(); ++index) {
        const auto status = validateURLFilter(urlFilters[index]);
        if (!isAcceptedURLFilter(status))
            return ContentRuleListError{Code::invalidRegex, index,
                                        "\"" + std::string(urlFilters[index]) + "\": " +
                                            std::string(description(status))};
    }
    if (entryCount) *entryCount = urlFilters.size();
    return std::nullopt;
}

}  // namespace tamsel::platform
