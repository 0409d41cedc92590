#include <simdjson.h>

#include <chrono>
#include <string>
#include <utility>

#include "model/JSONCoding.h"
#include "model/JSONParserPool.h"
#include "model/ReferenceDate.h"
#include "platform/Log.h"

// simdjson's On-Demand front end parses lazily while we walk the document, so
// a 50 MB package file is decoded in one pass without building a DOM. Every
// call below checks its error code: a malformed document surfaces as an error
// from the step that reaches the bad bytes, never as an exception.
namespace tamsel::model {

namespace {

namespace od = simdjson::ondemand;

// A failure on its way up: the path grows as each enclosing decoder adds the
// key or index it was working on, so the final text says where it happened.
struct Failure {
    std::string path;
    std::string reason;

    Failure& inKey(std::string_view key) { return prepend(std::string(key)); }
    Failure& atIndex(std::size_t index) { return prepend("[" + std::to_string(index) + "]"); }

    std::string description() const { return path.empty() ? reason : path + ": " + reason; }

private:
    Failure& prepend(std::string segment) {
        if (!path.empty() && path.front() != '[') segment += '.';
        path.insert(0, segment);
        return *this;
    }
};

template <typename T>
using Result = std::expected<T, Failure>;

std::unexpected<Failure> fail(std::string reason) { return std::unexpected(Failure{{}, std::move(reason)}); }

std::unexpected<Failure> fail(simdjson::error_code code) {
    switch (code) {
        case simdjson::UTF8_ERROR: return fail("invalid UTF-8");
        case simdjson::DEPTH_ERROR: return fail("nesting too deep");
        case simdjson::EMPTY: return fail("not JSON: no value");
        default: return fail(std::string("not JSON: ") + simdjson::error_message(code));
    }
}

std::unexpected<Failure> missingKey(std::string_view key) {
    return fail("missing key \"" + std::string(key) + "\"");
}

std::string_view typeName(od::json_type type) {
    switch (type) {
        case od::json_type::array: return "array";
        case od::json_type::object: return "object";
        case od::json_type::number: return "number";
        case od::json_type::string: return "string";
        case od::json_type::boolean: return "boolean";
        case od::json_type::null: return "null";
    }
    return "unknown value";
}

// Checking the type first turns simdjson's bare INCORRECT_TYPE into a message
// that says what was found instead.
Result<od::json_type> typeOf(od::value& value) {
    od::json_type type;
    if (auto error = value.type().get(type)) return fail(error);
    return type;
}

Result<void> expectType(od::value& value, od::json_type expected) {
    auto type = typeOf(value);
    if (!type) return std::unexpected(type.error());
    if (*type != expected) {
        return fail("expected " + std::string(typeName(expected)) + ", found " + std::string(typeName(*type)));
    }
    return {};
}

// True when the value is JSON null: optional keys treat it as absent.
Result<bool> isNull(od::value& value) {
    auto type = typeOf(value);
    if (!type) return std::unexpected(type.error());
    return *type == od::json_type::null;
}

// Reads a value with `get`, which fails with INCORRECT_TYPE unless the value
// is of the `expected` type. The type is looked at only after such a failure,
// to say what was found instead: the same messages as checking it first, for
// half the work on the values that are right.
template <typename T, typename Get>
Result<T> readTyped(od::value& value, od::json_type expected, Get&& get) {
    T result;
    const simdjson::error_code error = get(value, result);
    if (!error) return result;
    if (error == simdjson::INCORRECT_TYPE) {
        if (auto ok = expectType(value, expected); !ok) return std::unexpected(ok.error());
    }
    return fail(error);
}

// The text stays valid while the document is being decoded.
Result<std::string_view> readStringView(od::value& value) {
    return readTyped<std::string_view>(value, od::json_type::string,
                                       [](od::value& v, std::string_view& text) { return v.get_string().get(text); });
}

Result<std::string> readString(od::value& value) {
    auto text = readStringView(value);
    if (!text) return std::unexpected(text.error());
    return std::string(*text);
}

Result<bool> readBool(od::value& value) {
    return readTyped<bool>(value, od::json_type::boolean, [](od::value& v, bool& flag) { return v.get_bool().get(flag); });
}

Result<double> readNumber(od::value& value) {
    if (auto ok = expectType(value, od::json_type::number); !ok) return std::unexpected(ok.error());
    double number;
    if (auto error = value.get_double().get(number)) return fail(error);
    return number;
}

Result<od::object> openObject(od::value& value) {
    return readTyped<od::object>(value, od::json_type::object,
                                 [](od::value& v, od::object& object) { return v.get_object().get(object); });
}

Result<od::array> openArray(od::value& value) {
    return readTyped<od::array>(value, od::json_type::array,
                                [](od::value& v, od::array& array) { return v.get_array().get(array); });
}

// Calls `onField(key, value)` for every field of the object; the first failure
// stops the walk and is returned with the key added to its path. Values the
// callback leaves unread are skipped by the parser.
template <typename OnField>
Result<void> forEachField(od::value& value, OnField&& onField) {
    auto object = openObject(value);
    if (!object) return std::unexpected(object.error());
    for (auto fieldResult : *object) {
        od::field field;
        if (auto error = std::move(fieldResult).get(field)) return fail(error);
        std::string_view key;
        if (auto error = field.unescaped_key().get(key)) return fail(error);
        Result<void> handled = onField(key, field.value());
        if (!handled) {
            handled.error().inKey(key);
            return handled;
        }
    }
    return {};
}

// Calls `onElement(value)` for every element of the array, in order.
template <typename OnElement>
Result<void> forEachElement(od::value& value, OnElement&& onElement) {
    auto array = openArray(value);
    if (!array) return std::unexpected(array.error());
    std::size_t index = 0;
    for (auto elementResult : *array) {
        od::value element;
        if (auto error = std::move(elementResult).get(element)) return fail(error);
        Result<void> handled = onElement(element);
        if (!handled) {
            handled.error().atIndex(index);
            return handled;
        }
        ++index;
    }
    return {};
}

template <typename T, typename Decode>
Result<std::vector<T>> readArray(od::value& value, Decode&& decode) {
    std::vector<T> elements;
    auto walked = forEachElement(value, [&](od::value& element) -> Result<void> {
        auto decoded = decode(element);
        if (!decoded) return std::unexpected(decoded.error());
        elements.push_back(std::move(*decoded));
        return {};
    });
    if (!walked) return std::unexpected(walked.error());
    return elements;
}

template <RawRepresentable E>
Result<E> readRawValue(od::value& value, std::string_view vocabulary) {
    auto text = readStringView(value);
    if (!text) return std::unexpected(text.error());
    if (auto parsed = fromRawValue<E>(*text)) return *parsed;
    return fail("unknown " + std::string(vocabulary) + " \"" + std::string(*text) + "\"");
}

// Stores into `target` unless the value is null.
template <typename T, typename Read>
Result<void> readOptional(od::value& value, std::optional<T>& target, Read&& read) {
    auto null = isNull(value);
    if (!null) return std::unexpected(null.error());
    if (*null) {
        target.reset();
        return {};
    }
    auto decoded = read(value);
    if (!decoded) return std::unexpected(decoded.error());
    target = std::move(*decoded);
    return {};
}

template <typename T, typename Read>
Result<void> readInto(od::value& value, std::optional<T>& target, Read&& read) {
    auto decoded = read(value);
    if (!decoded) return std::unexpected(decoded.error());
    target = std::move(*decoded);
    return {};
}

Result<std::vector<std::string>> readStringArray(od::value& value) {
    return readArray<std::string>(value, readString);
}

// --- Records -----------------------------------------------------------------

// The record readers below decode into an existing value, replacing every
// field, so that a caller decoding many records in turn (a package's rules,
// streamed) reuses the strings and lists of the one before instead of
// allocating them afresh. A failure leaves the value partly written.

// A list of raw strings, replacing `target`'s elements; `present` tells
// whether the key had a list (null counts as absent).
template <RawRepresentable E>
Result<void> readRawValueListInto(od::value& value, std::optional<std::vector<E>>& target, bool& present,
                                  std::string_view vocabulary) {
    auto null = isNull(value);
    if (!null) return std::unexpected(null.error());
    if (*null) {
        present = false;
        return {};
    }
    if (target) {
        target->clear();
    } else {
        target.emplace();
    }
    auto walked = forEachElement(value, [&](od::value& element) -> Result<void> {
        auto raw = readRawValue<E>(element, vocabulary);
        if (!raw) return std::unexpected(raw.error());
        target->push_back(*raw);
        return {};
    });
    if (!walked) return walked;
    present = true;
    return {};
}

Result<void> readStringInto(od::value& value, std::string& target) {
    auto text = readStringView(value);
    if (!text) return std::unexpected(text.error());
    target.assign(*text);
    return {};
}

Result<void> readTriggerInto(od::value& value, Trigger& trigger) {
    bool urlFilter = false;
    std::optional<bool> caseSensitive;
    bool resourceTypes = false;
    bool loadType = false;
    std::optional<std::vector<std::string>> ifDomain;
    std::optional<std::vector<std::string>> unlessDomain;

    auto walked = forEachField(value, [&](std::string_view key, od::value& field) -> Result<void> {
        if (key == "url-filter") {
            auto read = readStringInto(field, trigger.urlFilter);
            urlFilter = urlFilter || read.has_value();
            return read;
        }
        if (key == "url-filter-is-case-sensitive") return readOptional(field, caseSensitive, readBool);
        if (key == "resource-type") {
            return readRawValueListInto<ResourceType>(field, trigger.resourceTypes, resourceTypes, "resource type");
        }
        if (key == "load-type") return readRawValueListInto<LoadType>(field, trigger.loadType, loadType, "load type");
        if (key == rawValue(DomainFilterType::ifDomain)) return readOptional(field, ifDomain, readStringArray);
        if (key == rawValue(DomainFilterType::unlessDomain)) return readOptional(field, unlessDomain, readStringArray);
        return {};
    });
    if (!walked) return walked;
    if (!urlFilter) return missingKey("url-filter");

    if (!resourceTypes) trigger.resourceTypes.reset();
    if (!loadType) trigger.loadType.reset();
    // Safari's own default would be false; files written before the key was
    // always present rely on true.
    trigger.caseSensitive = caseSensitive.value_or(true);
    // Only one domain list can hold, and "if-domain" wins when both are given.
    trigger.domainFilter.reset();
    if (ifDomain && !ifDomain->empty()) {
        trigger.domainFilter = DomainFilter{DomainFilterType::ifDomain, std::move(*ifDomain)};
    } else if (unlessDomain && !unlessDomain->empty()) {
        trigger.domainFilter = DomainFilter{DomainFilterType::unlessDomain, std::move(*unlessDomain)};
    }
    return {};
}

Result<void> readActionInto(od::value& value, Action& action) {
    bool type = false;
    bool selector = false;
    auto walked = forEachField(value, [&](std::string_view key, od::value& field) -> Result<void> {
        if (key == "type") {
            auto raw = readRawValue<ActionType>(field, "action type");
            if (!raw) return std::unexpected(raw.error());
            action.type = *raw;
            type = true;
            return {};
        }
        if (key == "selector") {
            auto null = isNull(field);
            if (!null) return std::unexpected(null.error());
            selector = !*null;
            if (!selector) return {};
            if (!action.selector) action.selector.emplace();
            return readStringInto(field, *action.selector);
        }
        return {};
    });
    if (!walked) return walked;
    if (!type) return missingKey("type");
    if (!selector) action.selector.reset();
    return {};
}

Result<void> readBlockerInto(od::value& value, Blocker& blocker) {
    bool trigger = false;
    bool action = false;
    auto walked = forEachField(value, [&](std::string_view key, od::value& field) -> Result<void> {
        if (key == "trigger") {
            auto read = readTriggerInto(field, blocker.trigger);
            trigger = trigger || read.has_value();
            return read;
        }
        if (key == "action") {
            auto read = readActionInto(field, blocker.action);
            action = action || read.has_value();
            return read;
        }
        return {};
    });
    if (!walked) return walked;
    if (!trigger) return missingKey("trigger");
    if (!action) return missingKey("action");
    return {};
}

// A record read into a fresh value.
template <typename T, typename ReadInto>
Result<T> readFresh(od::value& value, ReadInto&& readInto, T fresh = T{}) {
    auto read = readInto(value, fresh);
    if (!read) return std::unexpected(read.error());
    return fresh;
}

Result<Trigger> readTrigger(od::value& value) { return readFresh<Trigger>(value, readTriggerInto); }
Result<Action> readAction(od::value& value) { return readFresh<Action>(value, readActionInto); }
Result<Blocker> readBlocker(od::value& value) { return readFresh<Blocker>(value, readBlockerInto); }

Result<DomainFilter> readDomainFilter(od::value& value) {
    std::optional<DomainFilterType> type;
    std::optional<std::vector<std::string>> values;
    auto walked = forEachField(value, [&](std::string_view key, od::value& field) -> Result<void> {
        if (key == "type") {
            return readInto(field, type,
                            [](od::value& v) { return readRawValue<DomainFilterType>(v, "domain filter type"); });
        }
        if (key == "values") return readInto(field, values, readStringArray);
        return {};
    });
    if (!walked) return std::unexpected(walked.error());
    if (!type) return missingKey("type");
    if (!values) return missingKey("values");
    return DomainFilter{*type, std::move(*values)};
}

// Rules and packages report their own failures on the console, as the
// programs sharing these files always have.
template <typename T>
Result<T> printingFailure(Result<T> result) {
    if (!result) platform::consolePrint(result.error().description());
    return result;
}

// Checks that the value is a string without reading it.
Result<void> skipString(od::value& value) {
    auto raw = readTyped<od::raw_json_string>(value, od::json_type::string, [](od::value& v, od::raw_json_string& text) {
        return v.get_raw_json_string().get(text);
    });
    if (!raw) return std::unexpected(raw.error());
    return {};
}

Result<void> readRuleIntoUnreported(od::value& value, Rule& rule, RuleNames names) {
    bool id = false;
    bool name = false;
    bool content = false;
    rule.partialWhitelist.clear();
    auto walked = forEachField(value, [&](std::string_view key, od::value& field) -> Result<void> {
        if (key == "id") {
            auto read = readStringInto(field, rule.id);
            id = id || read.has_value();
            return read;
        }
        if (key == "name") {
            auto read = names == RuleNames::read ? readStringInto(field, rule.name) : skipString(field);
            name = name || read.has_value();
            return read;
        }
        if (key == "content") {
            auto read = readBlockerInto(field, rule.blocker);
            content = content || read.has_value();
            return read;
        }
        if (key == "partial-whitelist") {
            // Kept as the file has it, even for a rule that is not a
            // whitelist rule (the constructor's check is bypassed on purpose).
            rule.partialWhitelist.clear();
            auto null = isNull(field);
            if (!null) return std::unexpected(null.error());
            if (*null) return {};
            // Strings naming no extension type (say, from a newer version) are
            // skipped instead of failing the rule.
            return forEachElement(field, [&](od::value& element) -> Result<void> {
                auto raw = readStringView(element);
                if (!raw) return std::unexpected(raw.error());
                if (auto type = fromRawValue<ExtensionType>(*raw)) rule.partialWhitelist.push_back(*type);
                return {};
            });
        }
        return {};
    });
    if (!walked) return walked;
    if (!id) return missingKey("id");
    if (!name) return missingKey("name");
    if (!content) return missingKey("content");
    return {};
}

Result<void> readRuleInto(od::value& value, Rule& rule, RuleNames names = RuleNames::read) {
    auto read = readRuleIntoUnreported(value, rule, names);
    if (!read) platform::consolePrint(read.error().description());
    return read;
}

Result<Rule> readRule(od::value& value) {
    return readFresh<Rule>(
        value, [](od::value& v, Rule& rule) { return readRuleInto(v, rule); }, Rule({}, {}, {}));
}

// The rules of a package as they are decoded, for a caller that takes them
// one by one (see decodePackageRuleByRule): the package's identifier, looked
// up before the walk, and where each rule goes.
struct RuleStream {
    const std::string& packageID;
    const RuleHandler& onRule;
    RuleNames names;
};

Result<Package> readPackage(od::value& value, const RuleStream* stream) {
    std::optional<std::string> id;
    std::optional<std::string> name;
    std::optional<std::vector<Rule>> rules;
    std::optional<double> createdAt;
    const auto readStreamed = [stream](od::value& list) -> Result<std::vector<Rule>> {
        // One rule at a time, each decoded over the one before.
        Rule rule({}, {}, {});
        auto walked = forEachElement(list, [stream, &rule](od::value& element) -> Result<void> {
            if (auto read = readRuleInto(element, rule, stream->names); !read) return read;
            stream->onRule(stream->packageID, std::move(rule));
            return {};
        });
        if (!walked) return std::unexpected(walked.error());
        return std::vector<Rule>{};
    };
    auto walked = forEachField(value, [&](std::string_view key, od::value& field) -> Result<void> {
        if (key == "id") return readInto(field, id, readString);
        if (key == "name") return readInto(field, name, readString);
        if (key == "rules") {
            if (stream) return readInto(field, rules, readStreamed);
            return readInto(field, rules, [](od::value& list) { return readArray<Rule>(list, readRule); });
        }
        if (key == "createdAt") return readOptional(field, createdAt, readNumber);
        return {};
    });
    Result<Package> result = [&]() -> Result<Package> {
        if (!walked) return std::unexpected(walked.error());
        if (!id) return missingKey("id");
        if (!name) return missingKey("name");
        if (!rules) return missingKey("rules");
        std::optional<Date> date;
        if (createdAt) date = dateWithTimeIntervalSinceReferenceDate(*createdAt);
        return Package(std::move(*id), std::move(*name), std::move(*rules), date);
    }();
    return printingFailure(std::move(result));
}

Result<Package> readWholePackage(od::value& value) { return readPackage(value, nullptr); }

Result<FirewallRule> readFirewallRule(od::value& value) {
    std::optional<std::string> id;
    std::optional<std::string> host;
    auto walked = forEachField(value, [&](std::string_view key, od::value& field) -> Result<void> {
        if (key == "id") return readInto(field, id, readString);
        if (key == "host") return readInto(field, host, readString);
        return {};
    });
    if (!walked) return std::unexpected(walked.error());
    if (!id) return missingKey("id");
    if (!host) return missingKey("host");
    return FirewallRule{std::move(*id), std::move(*host)};
}

Result<FirewallPackage> readFirewallPackage(od::value& value) {
    std::optional<std::string> id;
    std::optional<std::vector<FirewallRule>> rules;
    auto walked = forEachField(value, [&](std::string_view key, od::value& field) -> Result<void> {
        if (key == "id") return readInto(field, id, readString);
        if (key == "rules") {
            return readInto(field, rules,
                            [](od::value& list) { return readArray<FirewallRule>(list, readFirewallRule); });
        }
        return {};
    });
    if (!walked) return std::unexpected(walked.error());
    if (!id) return missingKey("id");
    if (!rules) return missingKey("rules");
    return FirewallPackage{std::move(*id), std::move(*rules)};
}

// --- Documents ---------------------------------------------------------------

// Looks at a parsed document before it is decoded, so that the decoder
// starts from the top afterwards. Returns false when it met an error, which
// leaves the document unusable (it is parsed again).
struct NoPrescan {
    bool operator()(od::document&) const { return true; }
};

// Parses `json` and hands its top-level value to `decode`, which must be an
// object or an array (On-Demand cannot treat a scalar document as a value;
// none of our formats is one). Anything after that value is an error.
template <typename T, typename Decode, typename Prescan = NoPrescan>
Decoded<T> decodeDocument(JSONInput input, std::string_view expected, Decode&& decode, Prescan&& prescan = {}) {
    const auto failed = [](const Failure& failure) { return std::unexpected(DecodingError{failure.description()}); };
    std::optional<simdjson::padded_string> copy;
    if (input.padded() == nullptr) copy.emplace(input.text());
    const simdjson::padded_string& json = copy ? *copy : *input.padded();

    const JSONParserPool::Lease parser = JSONParserPool::take();
    od::document document;
    if (auto error = parser->iterate(json).get(document)) return failed(fail(error).error());
    od::json_type type;
    if (auto error = document.type().get(type)) return failed(fail(error).error());
    if (type != od::json_type::object && type != od::json_type::array) {
        return failed(fail("expected " + std::string(expected) + ", found " + std::string(typeName(type))).error());
    }
    if constexpr (!std::is_same_v<std::remove_cvref_t<Prescan>, NoPrescan>) {
        if (prescan(document)) {
            document.rewind();
        } else if (auto error = parser->iterate(json).get(document)) {
            return failed(fail(error).error());
        }
    }
    od::value root;
    if (auto error = document.get_value().get(root)) return failed(fail(error).error());
    Result<T> decoded = decode(root, type);
    if (!decoded) return failed(decoded.error());
    // current_location() answers "out of bounds" once the whole input is used.
    const char* rest = nullptr;
    if (!document.current_location().get(rest)) return failed(fail("unexpected content after the JSON value").error());
    return std::move(*decoded);
}

template <typename T, typename Read>
Decoded<T> decodeObject(JSONInput json, Read&& read) {
    return decodeDocument<T>(json, "object", [&](od::value& root, od::json_type) { return read(root); });
}

template <typename T, typename Read>
Decoded<std::vector<T>> decodeArray(JSONInput json, Read&& read) {
    return decodeDocument<std::vector<T>>(json, "array",
                                          [&](od::value& root, od::json_type) { return readArray<T>(root, read); });
}

Result<PackageFile> readPackageFile(od::value& root, od::json_type type) {
    PackageFile file;
    file.isArray = type == od::json_type::array;
    if (file.isArray) {
        auto packages = readArray<Package>(root, readWholePackage);
        if (!packages) return std::unexpected(packages.error());
        file.packages = std::move(*packages);
    } else {
        auto package = readWholePackage(root);
        if (!package) return std::unexpected(package.error());
        file.packages.push_back(std::move(*package));
    }
    return file;
}

}  // namespace

Decoded<PackageFile> decodePackageFile(JSONInput json) {
    return decodeDocument<PackageFile>(json, "object or array", readPackageFile);
}

Decoded<std::vector<Package>> decodePackages(JSONInput json) { return decodeArray<Package>(json, readWholePackage); }
Decoded<Package> decodePackage(JSONInput json) {
    return decodeObject<Package>(json, readWholePackage);
}

Decoded<Package> decodePackageRuleByRule(JSONInput json, const RuleHandler& onRule, RuleNames names) {
    // The identifier that the walk will end up with (the last "id" wins, as
    // in the walk), so that the rules read before it already carry it.
    std::string packageID;
    const auto findID = [&packageID](od::document& document) {
        od::object object;
        if (document.get_object().get(object)) return false;
        for (auto fieldResult : object) {
            od::field field;
            std::string_view key;
            if (std::move(fieldResult).get(field) || field.unescaped_key().get(key)) return false;
            od::value value = field.value();
            od::json_type type;
            if (value.type().get(type)) return false;
            std::string_view text;
            if (key == "id" && type == od::json_type::string) {
                if (value.get_string().get(text)) return false;
                packageID = text;
            }
        }
        return true;
    };
    const RuleStream stream{packageID, onRule, names};
    return decodeDocument<Package>(
        json, "object", [&stream](od::value& root, od::json_type) { return readPackage(root, &stream); }, findID);
}
Decoded<Rule> decodeRule(JSONInput json) { return decodeObject<Rule>(json, readRule); }
Decoded<Blocker> decodeBlocker(JSONInput json) { return decodeObject<Blocker>(json, readBlocker); }
Decoded<Trigger> decodeTrigger(JSONInput json) { return decodeObject<Trigger>(json, readTrigger); }
Decoded<Action> decodeAction(JSONInput json) { return decodeObject<Action>(json, readAction); }

Decoded<DomainFilter> decodeDomainFilter(JSONInput json) {
    return decodeObject<DomainFilter>(json, readDomainFilter);
}

Decoded<std::vector<Blocker>> decodeBlockerArray(JSONInput json) { return decodeArray<Blocker>(json, readBlocker); }

Decoded<FirewallRule> decodeFirewallRule(JSONInput json) {
    return decodeObject<FirewallRule>(json, readFirewallRule);
}

Decoded<FirewallPackage> decodeFirewallPackage(JSONInput json) {
    return decodeObject<FirewallPackage>(json, readFirewallPackage);
}

Decoded<std::vector<FirewallPackage>> decodeFirewallPackages(JSONInput json) {
    return decodeArray<FirewallPackage>(json, readFirewallPackage);
}

}  // namespace tamsel::model
