#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "model/Package.h"
#include "model/Rule.h"
#include "platform/Store.h"
#include "platform/Value.h"

// The local changes of the user's packages and rules that the cloud has not
// confirmed yet. They wait in the standard defaults, so that a change made by
// a process that ends before its push is sent by the next one:
//
//   "AddedPackages"    record name → field dictionary (RecordMapping.h)
//   "AddedRules"       record name → field dictionary
//   "DeletedPackages"  record names
//   "DeletedRules"     record names
//
// An added or changed object replaces the entry of its name; a deleted one
// leaves the added dictionaries and joins the deleted list (and an object
// added again leaves the deleted list). Entries go only when the server
// confirmed them (and then only if they were not changed again meanwhile),
// or when a merge found them to be duplicates.
//
// Every change is one read-modify-write of the four keys under a lock file
// beside the defaults, shared by every process of the data root.
namespace tamsel::sync {

enum class LocalAddKeys { Packages, Rules };
enum class LocalDeleteKeys { Packages, Rules };
std::string_view rawValue(LocalAddKeys key);     // "AddedPackages", "AddedRules"
std::string_view rawValue(LocalDeleteKeys key);  // "DeletedPackages", "DeletedRules"

class LocalChangesQueue {
public:
    struct Changes {
        std::map<std::string, platform::Dictionary> addedPackages;
        std::map<std::string, platform::Dictionary> addedRules;
        std::vector<std::string> deletedPackages;
        std::vector<std::string> deletedRules;

        std::size_t count() const {
            return addedPackages.size() + addedRules.size() + deletedPackages.size() + deletedRules.size();
        }
        bool empty() const { return count() == 0; }
        friend bool operator==(const Changes&, const Changes&) = default;
    };

    // `lockFile` guards the read-modify-writes; empty: this process only.
    LocalChangesQueue(std::shared_ptr<platform::Store> defaults, std::filesystem::path lockFile);

    void packageAdded(const model::Package& package);
    void packageDeleted(const std::string& packageID);
    void ruleAdded(const model::Rule& rule, const std::string& packageID);
    void rulesAdded(const std::vector<model::Rule>& rules, const std::string& packageID);
    void rulesDeleted(const std::vector<std::string>& ruleIDs);
    // Every package and every rule of `packages` as added, in one write.
    void allAdded(const std::vector<model::Package>& packages);

    // Replaces the added entry of `recordName` (a merge's outcome).
    void setAdded(const std::string& recordName, bool isPackage, platform::Dictionary fields);
    // Forgets every pending change of the name.
    void drop(const std::string& recordName);

    // After a push: the saved entries that still hold the fields sent, and
    // the deleted names.
    void confirm(const std::map<std::string, platform::Dictionary>& saved, const std::vector<std::string>& deleted);

    Changes changes() const;

    // One read-modify-write of the four keys.
    void update(const std::function<void(Changes&)>& edit);

private:
    Changes read() const;
    void write(const Changes& before, const Changes& after);

    std::shared_ptr<platform::Store> defaults_;
    std::filesystem::path lockFile_;
};

}  // namespace tamsel::sync
