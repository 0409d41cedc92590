#include <simdjson.h>

#include <bit>
#include <cstdint>
#include <cstring>
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

// Where an entry's bytes go: straight into the writer's buffer, which only
// the writer itself can reach (its stream is a protected member).
class EntrySink : JSONWriter {
public:
    static rapidjson::StringBuffer& of(JSONWriter& writer) { return *(writer.*&EntrySink::os_); }
};

class Output {
public:
    explicit Output(rapidjson::StringBuffer& buffer) : buffer_(buffer) {}

    void append(const char* bytes, std::size_t count) {
        if (count > 0) std::memcpy(buffer_.Push(count), bytes, count);
    }
    void append(std::string_view text) { append(text.data(), text.size()); }
    void put(char c) { buffer_.Put(c); }

private:
    rapidjson::StringBuffer& buffer_;
};

// Eight bytes at a time (in memory order on a little-endian machine): the
// bit 7 of each byte of the result is set where `word` holds a byte that a
// JSON string cannot hold as it is (a control character, a quotation mark, a
// reverse solidus), and possibly at higher bytes after such a byte. Bytes of
// 0x80 and above are never flagged.
constexpr std::uint64_t ones = 0x0101010101010101ULL;
constexpr std::uint64_t highs = 0x8080808080808080ULL;

std::uint64_t specialBytes(std::uint64_t word) {
    const auto zeroBytes = [](std::uint64_t v) { return (v - ones) & ~v & highs; };
    const std::uint64_t control = (word - ones * 0x20) & ~word & highs;
    return control | zeroBytes(word ^ (ones * '"')) | zeroBytes(word ^ (ones * '\\'));
}

bool isASCII(std::string_view text) {
    std::size_t i = 0;
    std::uint64_t high = 0;
    for (; i + 8 <= text.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, text.data() + i, 8);
        high |= word;
    }
    for (; i < text.size(); ++i) high |= static_cast<unsigned char>(text[i]);
    return (high & highs) == 0;
}

// Writes `text` as a JSON string, byte for byte as JSONWriter writes it:
// quotation mark, reverse solidus and control characters escaped (the
// common ones by letter, the rest as \u00XX), everything else as it is,
// after broken UTF-8 is repaired.
void writeQuoted(Output& out, std::string_view text) {
    static constexpr char hexDigits[] = "0123456789ABCDEF";
    std::string repaired;
    if (!isASCII(text) && !simdjson::validate_utf8(text.data(), text.size())) {
        repaired = repairedUTF8(text);
        text = repaired;
    }
    out.put('"');
    std::size_t run = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        if (std::endian::native == std::endian::little && i + 8 <= text.size()) {
            std::uint64_t word;
            std::memcpy(&word, text.data() + i, 8);
            const std::uint64_t special = specialBytes(word);
            if (special == 0) {
                i += 8;
                continue;
            }
            // The lowest flagged byte is a real one (a false flag needs a
            // real one below it): skip straight to it.
            i += static_cast<std::size_t>(std::countr_zero(special)) / 8;
        }
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c != '"' && c != '\\') {
            ++i;
            continue;
        }
        out.append(text.data() + run, i - run);
        run = ++i;
        out.put('\\');
        switch (c) {
            case '"': out.put('"'); break;
            case '\\': out.put('\\'); break;
            case '\b': out.put('b'); break;
            case '\t': out.put('t'); break;
            case '\n': out.put('n'); break;
            case '\f': out.put('f'); break;
            case '\r': out.put('r'); break;
            default:
                out.append("u00", 3);
                out.put(hexDigits[c >> 4]);
                out.put(hexDigits[c & 0xF]);
        }
    }
    out.append(text.data() + run, text.size() - run);
    out.put('"');
}

template <RawRepresentable E>
void writeRawValueList(Output& out, const std::vector<E>& values) {
    out.put('[');
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) out.put(',');
        // Raw values are plain ASCII words: nothing to escape.
        out.put('"');
        out.append(rawValue(values[i]));
        out.put('"');
    }
    out.put(']');
}

// A content-blocker entry as JSONWriter writes it with writeTrigger and
// writeAction. Entries are most of what the compiler writes, so they are
// put together here in one pass.
void writeEntry(Output& out, const Blocker& blocker) {
    using namespace std::string_view_literals;
    const Trigger& trigger = blocker.trigger;
    out.append(R"({"trigger":{"url-filter":)"sv);
    writeQuoted(out, trigger.urlFilter);
    out.append(trigger.caseSensitive ? R"(,"url-filter-is-case-sensitive":true)"sv
                                     : R"(,"url-filter-is-case-sensitive":false)"sv);
    if (trigger.resourceTypes) {
        out.append(R"(,"resource-type":)"sv);
        writeRawValueList(out, *trigger.resourceTypes);
    }
    if (trigger.loadType) {
        out.append(R"(,"load-type":)"sv);
        writeRawValueList(out, *trigger.loadType);
    }
    if (trigger.domainFilter && !trigger.domainFilter->values.empty()) {
        out.append(R"(,")"sv);
        out.append(rawValue(trigger.domainFilter->type));
        out.append(R"(":[)"sv);
        const auto& values = trigger.domainFilter->values;
        for (std::size_t i = 0; i < values.size(); ++i) {
            if (i > 0) out.put(',');
            writeQuoted(out, values[i]);
        }
        out.put(']');
    }
    out.append(R"(},"action":{"type":")"sv);
    out.append(rawValue(blocker.action.type));
    out.put('"');
    if (blocker.action.selector) {
        out.append(R"(,"selector":)"sv);
        writeQuoted(out, *blocker.action.selector);
    }
    out.append("}}"sv);
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
    // An empty raw value places the comma before the entry and counts it
    // in the writer's state; the entry's bytes follow it in the buffer.
    writer.RawValue("", 0, rapidjson::kObjectType);
    Output out(EntrySink::of(writer));
    writeEntry(out, blocker);
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
