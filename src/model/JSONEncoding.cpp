#include <simdjson.h>

#include <string>

#include "model/JSONCoding.h"
#include "model/JSONWriting.h"
#include "model/ReferenceDate.h"
#include "platform/Log.h"

namespace tamsel::model {

namespace {

constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";  // U+FFFD

// Length of the well-formed UTF-8 sequence at the start of `text`, or 0 when
// it starts with an ill-formed one (overlong forms, surrogates and code points
// beyond U+10FFFF included).
std::size_t validSequenceLength(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto continuation = [&](std::size_t i, unsigned char low = 0x80, unsigned char high = 0xBF) {
        return i < text.size() && byte(i) >= low && byte(i) <= high;
    };
    const unsigned char lead = byte(0);
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) return continuation(1) ? 2 : 0;
    if (lead >= 0xE0 && lead <= 0xEF) {
        const unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;
        const unsigned char high = lead == 0xED ? 0x9F : 0xBF;
        return continuation(1, low, high) && continuation(2) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        const unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
        const unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;
        return continuation(1, low, high) && continuation(2) && continuation(3) ? 4 : 0;
    }
    return 0;
}

std::string repairedUTF8(std::string_view text) {
    std::string repaired;
    repaired.reserve(text.size() + 8);
    while (!text.empty()) {
        std::size_t length = validSequenceLength(text);
        if (length == 0) {
            repaired += replacementCharacter;
            length = 1;
        } else {
            repaired.append(text.substr(0, length));
        }
        text.remove_prefix(length);
    }
    return repaired;
}

// Strings from the files are valid UTF-8 already; strings built in code may
// not be, and a file with broken text would be refused as a whole by Safari.
void writeString(JSONWriter& writer, std::string_view text) {
    if (simdjson::validate_utf8(text.data(), text.size())) {
        writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    } else {
        const std::string repaired = repairedUTF8(text);
        writer.String(repaired.data(), static_cast<rapidjson::SizeType>(repaired.size()));
    }
}

// Appends `text` as a JSON string, byte for byte as JSONWriter writes it:
// quotation mark, reverse solidus and control characters escaped (the
// common ones by letter, the rest as \u00XX), everything else as it is.
void appendQuoted(std::string& out, std::string_view text) {
    static constexpr char hexDigits[] = "0123456789ABCDEF";
    bool ascii = true;
    for (const char c : text) ascii &= static_cast<unsigned char>(c) < 0x80;
    std::string repaired;
    if (!ascii && !simdjson::validate_utf8(text.data(), text.size())) {
        repaired = repairedUTF8(text);
        text = repaired;
    }
    out += '"';
    std::size_t run = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c != '"' && c != '\\') continue;
        out.append(text.data() + run, i - run);
        run = i + 1;
        out += '\\';
        switch (c) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '\b': out += 'b'; break;
            case '\t': out += 't'; break;
            case '\n': out += 'n'; break;
            case '\f': out += 'f'; break;
            case '\r': out += 'r'; break;
            default:
                out += "u00";
                out += hexDigits[c >> 4];
                out += hexDigits[c & 0xF];
        }
    }
    out.append(text.data() + run, text.size() - run);
    out += '"';
}

template <RawRepresentable E>
void appendRawValues(std::string& out, const std::vector<E>& values) {
    out += '[';
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) out += ',';
        // Raw values are plain ASCII words: nothing to escape.
        out += '"';
        out += rawValue(values[i]);
        out += '"';
    }
    out += ']';
}

// A content-blocker entry as JSONWriter writes it with writeTrigger and
// writeAction. Entries are most of what the compiler writes, so they are
// put together here in one pass and handed to the writer whole.
void appendBlocker(std::string& out, const Blocker& blocker) {
    const Trigger& trigger = blocker.trigger;
    out += R"({"trigger":{"url-filter":)";
    appendQuoted(out, trigger.urlFilter);
    out += trigger.caseSensitive ? R"(,"url-filter-is-case-sensitive":true)" : R"(,"url-filter-is-case-sensitive":false)";
    if (trigger.resourceTypes) {
        out += R"(,"resource-type":)";
        appendRawValues(out, *trigger.resourceTypes);
    }
    if (trigger.loadType) {
        out += R"(,"load-type":)";
        appendRawValues(out, *trigger.loadType);
    }
    if (trigger.domainFilter && !trigger.domainFilter->values.empty()) {
        out += R"(,")";
        out += rawValue(trigger.domainFilter->type);
        out += R"(":[)";
        const auto& values = trigger.domainFilter->values;
        for (std::size_t i = 0; i < values.size(); ++i) {
            if (i > 0) out += ',';
            appendQuoted(out, values[i]);
        }
        out += ']';
    }
    out += R"(},"action":{"type":")";
    out += rawValue(blocker.action.type);
    out += '"';
    if (blocker.action.selector) {
        out += R"(,"selector":)";
        appendQuoted(out, *blocker.action.selector);
    }
    out += "}}";
}

void writeKey(JSONWriter& writer, std::string_view key) {
    writer.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
}

template <RawRepresentable E>
void writeRawValues(JSONWriter& writer, const std::vector<E>& values) {
    writer.StartArray();
    for (E value : values) writeString(writer, rawValue(value));
    writer.EndArray();
}

void writeStrings(JSONWriter& writer, const std::vector<std::string>& values) {
    writer.StartArray();
    for (const auto& value : values) writeString(writer, value);
    writer.EndArray();
}

// A partial whitelist naming all eight extensions (or repeating some) means
// the same as none, so it is left out of the file.
bool writesPartialWhitelist(const std::vector<ExtensionType>& list) {
    return !list.empty() && list.size() < allCases<ExtensionType>().size();
}

std::string describe(const std::vector<ExtensionType>& list) {
    std::string text = "[";
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (i > 0) text += ", ";
        text += '"';
        text += rawValue(list[i]);
        text += '"';
    }
    return text + "]";
}

template <typename T, typename Write>
std::string encodeWith(const T& value, Write&& write) {
    rapidjson::StringBuffer buffer;
    JSONWriter writer(buffer);
    write(writer, value);
    return std::string(buffer.GetString(), buffer.GetSize());
}

template <typename T, typename Write>
std::string encodeArray(const std::vector<T>& values, Write&& write) {
    return encodeWith(values, [&](JSONWriter& writer, const std::vector<T>& list) {
        writer.StartArray();
        for (const auto& element : list) write(writer, element);
        writer.EndArray();
    });
}

}  // namespace

void writeDomainFilter(JSONWriter& writer, const DomainFilter& filter) {
    writer.StartObject();
    writeKey(writer, "type");
    writeString(writer, rawValue(filter.type));
    writeKey(writer, "values");
    writeStrings(writer, filter.values);
    writer.EndObject();
}

void writeTrigger(JSONWriter& writer, const Trigger& trigger) {
    writer.StartObject();
    writeKey(writer, "url-filter");
    writeString(writer, trigger.urlFilter);
    writeKey(writer, "url-filter-is-case-sensitive");
    writer.Bool(trigger.caseSensitive);
    if (trigger.resourceTypes) {
        writeKey(writer, "resource-type");
        writeRawValues(writer, *trigger.resourceTypes);
    }
    if (trigger.loadType) {
        writeKey(writer, "load-type");
        writeRawValues(writer, *trigger.loadType);
    }
    // Safari refuses an empty domain list, so an empty filter is left out and
    // reads back as no filter.
    if (trigger.domainFilter && !trigger.domainFilter->values.empty()) {
        writeKey(writer, rawValue(trigger.domainFilter->type));
        writeStrings(writer, trigger.domainFilter->values);
    }
    writer.EndObject();
}

void writeAction(JSONWriter& writer, const Action& action) {
    writer.StartObject();
    writeKey(writer, "type");
    writeString(writer, rawValue(action.type));
    if (action.selector) {
        writeKey(writer, "selector");
        writeString(writer, *action.selector);
    }
    writer.EndObject();
}

void writeBlocker(JSONWriter& writer, const Blocker& blocker) {
    thread_local std::string text;
    text.clear();
    appendBlocker(text, blocker);
    writer.RawValue(text.data(), text.size(), rapidjson::kObjectType);
}

// Writing a rule cannot fail: every string is written as valid UTF-8 and a
// rule holds no numbers, so the writer has nothing to refuse.
void writeRule(JSONWriter& writer, const Rule& rule) {
    writer.StartObject();
    writeKey(writer, "id");
    writeString(writer, rule.id);
    writeKey(writer, "name");
    writeString(writer, rule.name);
    writeKey(writer, "content");
    writeBlocker(writer, rule.blocker);
    if (writesPartialWhitelist(rule.partialWhitelist)) {
        writeKey(writer, "partial-whitelist");
        writeRawValues(writer, rule.partialWhitelist);
        platform::consolePrint("Encoded " + describe(rule.partialWhitelist));
    }
    writer.EndObject();
}

void writePackage(JSONWriter& writer, const Package& package) {
    writer.StartObject();
    writeKey(writer, "id");
    writeString(writer, package.id);
    writeKey(writer, "name");
    writeString(writer, package.name);
    writeKey(writer, "rules");
    writer.StartArray();
    for (const auto& rule : package.rules) writeRule(writer, rule);
    writer.EndArray();
    writeKey(writer, "createdAt");
    writer.Double(timeIntervalSinceReferenceDate(package.createdAt));
    writer.EndObject();
}

void writeFirewallRule(JSONWriter& writer, const FirewallRule& rule) {
    writer.StartObject();
    writeKey(writer, "id");
    writeString(writer, rule.id);
    writeKey(writer, "host");
    writeString(writer, rule.host);
    writer.EndObject();
}

void writeFirewallPackage(JSONWriter& writer, const FirewallPackage& package) {
    writer.StartObject();
    writeKey(writer, "id");
    writeString(writer, package.id);
    writeKey(writer, "rules");
    writer.StartArray();
    for (const auto& rule : package.rules) writeFirewallRule(writer, rule);
    writer.EndArray();
    writer.EndObject();
}

std::string encodePackageFile(const PackageFile& file) {
    if (!file.isArray && file.packages.size() == 1) return encodePackage(file.packages.front());
    return encodePackages(file.packages);
}

std::string encodePackage(const Package& package) { return encodeWith(package, writePackage); }
std::string encodePackages(const std::vector<Package>& packages) { return encodeArray(packages, writePackage); }
std::string encodeRule(const Rule& rule) { return encodeWith(rule, writeRule); }
std::string encodeBlocker(const Blocker& blocker) { return encodeWith(blocker, writeBlocker); }
std::string encodeBlockers(const std::vector<Blocker>& blockers) { return encodeArray(blockers, writeBlocker); }
std::string encodeTrigger(const Trigger& trigger) { return encodeWith(trigger, writeTrigger); }
std::string encodeAction(const Action& action) { return encodeWith(action, writeAction); }
std::string encodeDomainFilter(const DomainFilter& filter) { return encodeWith(filter, writeDomainFilter); }
std::string encodeFirewallRule(const FirewallRule& rule) { return encodeWith(rule, writeFirewallRule); }
std::string encodeFirewallPackage(const FirewallPackage& package) {
    return encodeWith(package, writeFirewallPackage);
}
std::string encodeFirewallPackages(const std::vector<FirewallPackage>& packages) {
    return encodeArray(packages, writeFirewallPackage);
}

}  // namespace tamsel::model
