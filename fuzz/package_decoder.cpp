// Decodes arbitrary bytes as a package file. Whatever decodes must survive a
// write and a second read unchanged (apart from what the format drops on
// purpose); anything else is a bug, and the target aborts. A single package
// decoded rule by rule must agree with the whole decode. The same bytes are
// also tried as a Safari JSON file.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "model/JSONCoding.h"
#include "platform/Log.h"

namespace {

using namespace tamsel::model;

// A partial whitelist of eight or more entries is not written, so it reads
// back empty: the same meaning, whitelisted everywhere.
PackageFile afterOneWrite(PackageFile file) {
    for (auto& package : file.packages) {
        for (auto& rule : package.rules) {
            if (rule.partialWhitelist.size() >= allCases<ExtensionType>().size()) rule.partialWhitelist.clear();
        }
    }
    return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Decoders print every failure; at millions of inputs that is only noise.
    static const bool silenced = [] {
        tamsel::platform::setLogSink([](const tamsel::platform::LogRecord&) {}, true);
        return true;
    }();
    (void)silenced;

    const std::string_view bytes(reinterpret_cast<const char*>(data), size);

    if (auto file = decodePackageFile(bytes)) {
        auto again = decodePackageFile(encodePackageFile(*file));
        if (!again || *again != afterOneWrite(*file)) std::abort();
    }

    {
        std::vector<Rule> streamed;
        std::string streamedID;
        auto header = decodePackageRuleByRule(bytes, [&](const std::string& packageID, Rule&& rule) {
            streamedID = packageID;
            streamed.push_back(std::move(rule));
        });
        auto whole = decodePackage(bytes);
        if (header.has_value() != whole.has_value()) std::abort();
        if (whole && (header->id != whole->id || header->name != whole->name || streamed != whole->rules ||
                      (!streamed.empty() && streamedID != whole->id))) {
            std::abort();
        }
        if (!whole && header.error() != whole.error()) std::abort();
    }

    if (auto blockers = decodeBlockerArray(bytes)) {
        auto again = decodeBlockerArray(encodeBlockers(*blockers));
        if (!again || *again != *blockers) std::abort();
    }
    return 0;
}
