#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// The gate Safari puts in front of a content blocker's rule list: WebKit's
// content-extension parser refuses the whole list when one entry is bad. Our
// stand-in content-blocker manager runs every reload through it, and the
// compiler and `tamsel` can run it on a file without reloading anything.
namespace tamsel::platform {

// Why a rule list was refused; each case is one of the parser's errors.
enum class ContentRuleListErrorCode {
    jsonInvalid,
    topLevelNotArray,
    invalidRule,
    containsNoRules,
    invalidTrigger,
    invalidURLFilter,
    invalidTriggerFlagsArray,
    invalidStringInTriggerFlagsArray,
    invalidAction,
    invalidActionType,
    invalidCSSDisplayNoneAction,
    invalidRegex,
    invalidConditionList,
    tooManyRules,
    domainNotLowerCaseASCII,
    multipleConditions,
    // Not WebKit's: the substitute engine's limit on one list's matcher.
    exceedsMemoryBudget,
};

// The parser's message for a code, e.g. "Invalid or unsupported regular expression.".
std::string_view message(ContentRuleListErrorCode code);

struct ContentRuleListError {
    ContentRuleListErrorCode code;
    std::optional<std::size_t> entryIndex;  // the refused entry, when one is to blame
    std::string detail;                     // what exactly, for logs and `tamsel`

    std::string_view message() const { return platform::message(code); }
};

// Safari compiles at most this many entries into one list.
inline constexpr std::size_t maximumContentRuleCount = 150'000;

// Checks a whole Safari JSON file. Returns nothing when Safari would accept it;
// `entryCount`, when given, receives the number of entries of an accepted list.
std::optional<ContentRuleListError> validateContentRuleList(std::string_view json,
                                                            std::size_t* entryCount = nullptr);

// Why a url-filter falls outside the regular-expression subset WebKit compiles.
enum class URLFilterStatus {
    ok,
    matchesEverything,  // accepted: such entries apply to every load
    nonASCII,
    emptyPattern,
    unsupportedCharacterClass,
    backReference,
    misplacedStartOfLine,
    wordBoundary,
    atomCharacter,
    group,
    disjunction,
    misplacedEndOfLine,
    invalidQuantifier,
    syntaxError,
};

std::string_view description(URLFilterStatus status);

// Parses one url-filter the way WebKit's URL filter parser does.
URLFilterStatus validateURLFilter(std::string_view pattern);

inline bool isAcceptedURLFilter(URLFilterStatus status) {
    return status == URLFilterStatus::ok || status == URLFilterStatus::matchesEverything;
}

}  // namespace tamsel::platform
