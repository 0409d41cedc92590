#pragma once

#include "model/ExtensionType.h"
#include "platform/Files.h"
#include "storage/EnabledRuleSelection.h"
#include "storage/PackageSource.h"
#include "storage/SafariJSONBuilder.h"

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// What each extension's file held before its whitelisting entries, the last
// time it was built, and what that was made from.
//
// A file is its packages' enabled, non-whitelisting entries (the body) and
// then the whitelisting entries that apply to it (the tail). A whitelist
// change alters only the tails, yet touches every file; keeping the encoded
// body of each package lets a rebuild encode only what changed. A kept part
// is used again only while everything it was chosen from is as it was: the
// same package (the same value, wherever it is held now) or the same version
// of the package file it was read from, under the same disabled states.
//
// Thread-safe; the parts themselves never change once kept.
namespace tamsel::control {

class EncodedBodyCache {
public:
    // One package's share of a body, or one general package file's.
    struct Part {
        // A package held in memory: the list that held it, and where.
        storage::PackageList list;
        std::size_t index = 0;
        // A package file read from disk: its version before it was read.
        std::optional<platform::FileStamp> file;
        // How many packages it stands for (a file may hold several).
        std::size_t packages = 1;
        // The disabled states its rules were chosen under, per package.
        std::vector<std::pair<std::string, storage::EnabledRuleSelection::PackageState>> states;
        std::shared_ptr<const storage::EncodedEntries> entries;

        // Whether the part was made from `package` as it stands in `list`
        // at `index`, with the rules `selection` chooses now.
        bool holds(const storage::PackageList& list, std::size_t index,
                   const storage::EnabledRuleSelection& selection) const;
        // Whether the part was read from the file at this version, with the
        // rules `selection` chooses now.
        bool holds(const platform::FileStamp& file, const storage::EnabledRuleSelection& selection) const;

    private:
        bool statesHold(const storage::EnabledRuleSelection& selection) const;
    };
    using Body = std::vector<Part>;

    // The body last kept for the extension; empty when there is none.
    Body body(model::ExtensionType extension) const;
    void keep(model::ExtensionType extension, Body body);
    void forget(model::ExtensionType extension);
    void forgetAll();

private:
    mutable std::mutex mutex_;
    std::map<model::ExtensionType, Body> bodies_;
};

}  // namespace tamsel::control
