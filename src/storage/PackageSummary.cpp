#include "storage/PackageSummary.h"

#include <simdjson.h>
#include <xxhash.h>

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>

#include "model/JSONCoding.h"
#include "platform/Log.h"
#include "storage/PathProvider.h"

namespace tamsel::storage {

namespace {

namespace fs = std::filesystem;

const platform::SystemLogger& logger() {
    static const platform::SystemLogger instance("PackageSummary");
    return instance;
}

// Layout 1:
//   tamsel-package-summary 1\n
//   <device> <inode> <modified ns> <size>\n
//   <package count>\n
//   then per package: <string id><string name><rule count>\n<string rule id>...
//   and last: <16 hex digits of XXH3 over everything before them>\n
// where <string x> is the byte length, a colon and the bytes.
constexpr std::string_view magic = "tamsel-package-summary 1\n";
constexpr std::size_t checksumDigits = 16;

void appendString(std::string& out, std::string_view text) {
    out += std::to_string(text.size());
    out += ':';
    out += text;
}

std::string hexDigest(std::string_view bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::uint64_t hash = XXH3_64bits(bytes.data(), bytes.size());
    std::string text(checksumDigits, '0');
    for (std::size_t i = checksumDigits; i-- > 0; hash >>= 4) text[i] = digits[hash & 0xF];
    return text;
}

// Reads the summary's fields in order; any mismatch leaves it failed.
class Reader {
public:
    explicit Reader(std::string_view bytes) : rest_(bytes) {}

    bool ok() const { return ok_; }
    bool atEnd() const { return rest_.empty(); }
    const char* position() const { return rest_.data(); }

    template <typename Integer>
    Integer number(char terminator) {
        Integer value{};
        const char* end = rest_.data() + rest_.size();
        auto [next, error] = std::from_chars(rest_.data(), end, value);
        if (error != std::errc() || next == end || *next != terminator) return failed(value);
        rest_.remove_prefix(static_cast<std::size_t>(next - rest_.data()) + 1);
        return value;
    }

    std::string_view string() {
        const auto length = number<std::size_t>(':');
        if (!ok_ || length > rest_.size()) return failed(std::string_view());
        std::string_view text = rest_.substr(0, length);
        rest_.remove_prefix(length);
        return text;
    }

    void literal(std::string_view expected) {
        if (!rest_.starts_with(expected)) {
            ok_ = false;
            return;
        }
        rest_.remove_prefix(expected.size());
    }

private:
    template <typename T>
    T failed(T value) {
        ok_ = false;
        rest_ = {};
        return value;
    }

    std::string_view rest_;
    bool ok_ = true;
};

bool isListFile(model::JSONFileName file) {
    return file == model::JSONFileName::blockInternational || file == model::JSONFileName::blockConfigurable ||
           file == model::JSONFileName::blockCustom;
}


// Decodes the package file as the package store reads it: a general file is
// one package object, the list files are arrays.
std::vector<PackageSummary::Entry> decodeEntries(model::JSONFileName file, const simdjson::padded_string& bytes) {
    std::vector<PackageSummary::Entry> outlines;
    if (isListFile(file)) {
        auto packages = model::decodePackages(bytes);
        if (!packages) return outlines;
        for (const model::Package& package : *packages) {
            std::vector<std::string> ids;
            ids.reserve(package.rules.size());
            for (const model::Rule& rule : package.rules) ids.push_back(rule.id);
            outlines.push_back({package.id, package.name, std::move(ids)});
        }
        return outlines;
    }
    std::vector<std::string> ids;
    auto package = model::decodePackageRuleByRule(
        bytes, [&ids](const std::string&, model::Rule&& rule) { ids.push_back(std::move(rule.id)); },
        model::RuleNames::skipped);
    if (package) outlines.push_back({package->id, package->name, std::move(ids)});
    return outlines;
}

}  // namespace

std::vector<std::string_view> PackageOutline::ruleIDs() const {
    std::vector<std::string_view> ids;
    ids.reserve(ruleCount);
    Reader reader(ruleBlock);
    while (reader.ok() && !reader.atEnd()) ids.push_back(reader.string());
    return ids;
}

std::size_t PackageOutline::disabledCount(const std::map<std::string, bool>& disabled) const {
    if (std::none_of(disabled.begin(), disabled.end(), [](const auto& entry) { return entry.second; })) return 0;
    const std::vector<std::string_view> ids = ruleIDs();
    std::size_t count = 0;
    for (const auto& [ruleID, isDisabled] : disabled) {
        if (!isDisabled) continue;
        const auto [first, last] = std::equal_range(ids.begin(), ids.end(), std::string_view(ruleID));
        count += static_cast<std::size_t>(last - first);
    }
    return count;
}

fs::path PackageSummary::summaryPath(model::JSONFileName file) {
    return PathProvider::filtersFolderURL() / ("." + model::fileName(file) + ".summary");
}

std::string PackageSummary::encode(const platform::FileStamp& stamp, std::vector<Entry> packages) {
    std::string out(magic);
    out += std::to_string(stamp.device) + ' ' + std::to_string(stamp.inode) + ' ' +
           std::to_string(stamp.modifiedNanoseconds) + ' ' + std::to_string(stamp.size) + '\n';
    out += std::to_string(packages.size()) + '\n';
    for (Entry& package : packages) {
        std::sort(package.ruleIDs.begin(), package.ruleIDs.end());
        appendString(out, package.id);
        appendString(out, package.name);
        out += std::to_string(package.ruleIDs.size()) + '\n';
        for (const std::string& id : package.ruleIDs) appendString(out, id);
    }
    out += hexDigest(out) + '\n';
    return out;
}

std::optional<std::vector<PackageOutline>> PackageSummary::decode(std::shared_ptr<const std::string> bytes,
                                                                  const platform::FileStamp& expected) {
    const std::string_view all = *bytes;
    if (all.size() < magic.size() + checksumDigits + 1 || all.back() != '\n') return std::nullopt;
    const std::string_view body = all.substr(0, all.size() - checksumDigits - 1);
    if (all.substr(body.size(), checksumDigits) != hexDigest(body)) return std::nullopt;

    Reader reader(body);
    reader.literal(magic);
    platform::FileStamp stamp;
    stamp.exists = true;
    stamp.device = reader.number<std::uint64_t>(' ');
    stamp.inode = reader.number<std::uint64_t>(' ');
    stamp.modifiedNanoseconds = reader.number<std::int64_t>(' ');
    stamp.size = reader.number<std::int64_t>('\n');
    if (!reader.ok() || stamp != expected) return std::nullopt;

    const auto count = reader.number<std::size_t>('\n');
    std::vector<PackageOutline> packages;
    for (std::size_t i = 0; reader.ok() && i < count; ++i) {
        PackageOutline package;
        package.id = reader.string();
        package.name = reader.string();
        package.ruleCount = reader.number<std::size_t>('\n');
        // Each rule takes at least two bytes ("0:"); a larger count is damage.
        if (!reader.ok() || package.ruleCount > body.size() / 2) return std::nullopt;
        const char* start = reader.position();
        for (std::size_t r = 0; reader.ok() && r < package.ruleCount; ++r) reader.string();
        if (!reader.ok()) return std::nullopt;
        package.summary = bytes;
        package.ruleBlock = std::string_view(start, static_cast<std::size_t>(reader.position() - start));
        packages.push_back(std::move(package));
    }
    if (!reader.ok() || !reader.atEnd()) return std::nullopt;
    return packages;
}

std::optional<std::vector<PackageOutline>> PackageSummary::outlines(model::JSONFileName file) {
    const fs::path packagePath = PathProvider::filtersFolderURL() / model::fileName(file);
    const fs::path path = summaryPath(file);
    // Taken before anything is read: a file replaced meanwhile leaves a
    // summary of an older version, which the next reader finds stale.
    const platform::FileStamp stamp = platform::fileStamp(packagePath);
    if (!stamp.exists) return std::nullopt;

    if (auto bytes = platform::readFile(path)) {
        if (auto packages = decode(std::make_shared<const std::string>(std::move(*bytes)), stamp)) return packages;
    }

    auto json = simdjson::padded_string::load(packagePath.string());
    if (json.error()) return std::nullopt;
    auto summary = std::make_shared<const std::string>(encode(stamp, decodeEntries(file, json.value_unsafe())));
    // Only a summary of the version that was read is worth keeping.
    if (platform::fileStamp(packagePath) == stamp) {
        if (auto written = platform::writeFileAtomically(path, *summary); !written) {
            logger().error("Could not write the summary '%s': %s", path.c_str(), written.error().message().c_str());
        }
    }
    return decode(std::move(summary), stamp);
}

}  // namespace tamsel::storage
