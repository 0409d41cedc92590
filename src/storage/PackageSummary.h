#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/JSONFileName.h"
#include "platform/Files.h"

// What a package file holds, without what its rules say: each package's
// identifier, name and rule identifiers. Listing the packages needs no more,
// and a general filter list of fifty thousand rules takes a tenth of a
// second to decode, so the outline of each large file is kept in a summary
// file beside it (".<file name>.summary" in the filters folder).
//
// A summary names the version of the package file it was made from (device,
// inode, modification time in nanoseconds, size) and ends with a checksum of
// everything before it. It is used only while the package file still has
// that version and the checksum holds; otherwise the package file is decoded
// and the summary written again. Package files are replaced whole (a new
// inode each time), so a changed file never passes for the old one. The
// summary is written atomically, and each process that finds it stale writes
// the same bytes, so several programs sharing the data root need no lock.
namespace tamsel::storage {

struct PackageOutline {
    std::string id;
    std::string name;
    std::size_t ruleCount = 0;

    // The rule identifiers, sorted (a package may name one identifier twice,
    // and then it is here twice). They are read from the summary only when
    // asked for: listing packages without disabled rules needs none of them.
    std::vector<std::string_view> ruleIDs() const;

    // How many of the package's rules `disabled` (rule identifier → disabled
    // flag) marks as disabled, counting each rule that carries the identifier.
    std::size_t disabledCount(const std::map<std::string, bool>& disabled) const;

    // The summary's bytes, and this package's rule identifiers among them.
    std::shared_ptr<const std::string> summary;
    std::string_view ruleBlock;
};

class PackageSummary {
public:
    // The packages of a package file: one for a single-package file, those of
    // the array otherwise, none when the file cannot be decoded. nullopt when
    // the file is missing or cannot be read.
    static std::optional<std::vector<PackageOutline>> outlines(model::JSONFileName file);

    static std::filesystem::path summaryPath(model::JSONFileName file);

    // What a summary holds of one package.
    struct Entry {
        std::string id;
        std::string name;
        std::vector<std::string> ruleIDs;  // in any order
    };

    // The summary's bytes for packages read from a file of version `stamp`,
    // and back; nullopt for bytes that are damaged or of another version.
    static std::string encode(const platform::FileStamp& stamp, std::vector<Entry> packages);
    static std::optional<std::vector<PackageOutline>> decode(std::shared_ptr<const std::string> bytes,
                                                             const platform::FileStamp& expected);
};

}  // namespace tamsel::storage
