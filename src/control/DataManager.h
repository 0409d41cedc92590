#pragma once

#include "control/PersistingError.h"
#include "control/RuleChangeReporting.h"
#include "model/JSONFileName.h"
#include "model/Package.h"
#include "model/Rule.h"
#include "platform/NotificationCenter.h"
#include "storage/BlockerPreferenceManager.h"
#include "storage/ExtensionReloading.h"
#include "storage/PackageSource.h"
#include "storage/ReloadingResult.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

// The process's in-memory holder of every package, grouped by category. The
// compiler reads it and fills it lazily from disk; the popover's rule changes,
// the cloud sync merge and the extension handler edit it and ask it to save.
// It owns no files: loading and writing go through PersistentStore, disabled
// states through BlockerPreferenceManager.
//
// Invariants: package identifiers are unique across the configurable and
// custom lists (a custom package never takes a configurable identifier);
// lists keep their order, a replaced package keeps its position and a new
// custom package goes to the end.
//
// Thread-safe. The lists are read and replaced from the main thread, the
// compiler's save queue and the stores' callback queues, so one mutex guards
// all four. A list is never changed in place: every edit builds the new list
// and swaps it in, one read-modify-write under the mutex. So readers either
// share the list as it stands (the *PackageList accessors, no copy of its
// rules) or take a copy. Nothing is called out (writes, reloads,
// notifications) while the mutex is held.
namespace tamsel::control {

class DataManager : public storage::PackageSource {
public:
    // Empty members mean the process-wide instances, looked up at the time of
    // use (so that the real extension manager and sync engine, installed
    // later, are the ones called).
    struct Collaborators {
        std::shared_ptr<storage::ExtensionReloading> reloading;
        std::shared_ptr<RuleChangeReporting> ruleChanges;
    };

    // What a save reports: refused, or the rebuild's reload failed.
    using SaveError = std::variant<PersistingError, storage::ReloadingError>;
    // Called once with the error, or with nothing after a successful reload.
    // An empty function means "no completion".
    using SaveCompletion = std::function<void(std::optional<SaveError>)>;

    // The process's instance; registers itself as the package source of the
    // disabled-state selections on first use.
    static DataManager& shared();

    DataManager();
    explicit DataManager(Collaborators collaborators);
    ~DataManager() override;

    DataManager(const DataManager&) = delete;
    DataManager& operator=(const DataManager&) = delete;

    // Made on first use and kept; its whitelist selection reads this
    // instance's packages.
    std::shared_ptr<storage::BlockerPreferenceManager> preferenceManager();

    // --- The four lists -------------------------------------------------------

    std::vector<model::Package> generalPackages() const;
    std::vector<model::Package> internationalPackages() const;
    std::vector<model::Package> configurablePackages() const;
    std::vector<model::Package> customPackages() const;

    // The same lists, shared as they stand now; never null.
    storage::PackageList generalPackageList() const;
    storage::PackageList internationalPackageList() const;
    storage::PackageList configurablePackageList() const override;
    storage::PackageList customPackageList() const override;

    void setGeneralPackages(std::vector<model::Package> packages);
    void setInternationalPackages(std::vector<model::Package> packages);
    void setConfigurablePackages(std::vector<model::Package> packages);
    void setCustomPackages(std::vector<model::Package> packages);

    // General, then international, then configurable, then custom packages.
    std::vector<model::Package> allPackages() const;

    // Replaces all four lists with what the package files hold now, and
    // returns when they are in place. Must not be called from the global
    // user-initiated queue's own blocks (the general reads complete there).
    void loadAllPackages();

    // --- Edits (the cloud sync merge, the popover's rule changes) -------------------

    // Appends a new custom package, or renames the custom package of the same
    // identifier in place (keeping its rules). A configurable identifier is
    // refused: "There's already a configurable package with ID <id>".
    void addOrReplaceCustomPackage(const model::Package& package);

    // Sets the rule (replacing one of the same identifier, else appending it)
    // in the package `packageID`, looked up in the configurable packages
    // first: "Can't find package with identifier <id>" when neither list has it.
    void setRule(const model::Rule& rule, const std::string& packageID);

    // Removes the custom package with this identifier, else the first rule
    // with it in the configurable and then the custom packages. False when
    // nothing matched.
    bool removeByIdentifier(const std::string& identifier);

    // Sets the rule into the package, replaces the package at its position
    // (configurable list first, then custom), saves the list's file, has the
    // custom extension rebuilt (every extension for a whitelist rule), and
    // reports the rule to the sync engine.
    void saveRule(const model::Rule& rule, const model::Package& inPackage, SaveCompletion completion = {});

    // Removes the rule from the package of `inPackage`'s identifier that holds
    // it, then saves and reports like saveRule. When no package holds it:
    // "Can't delete rule: can't find old package to remove the rule from",
    // and nothing changes (the completion is not called).
    void deleteRule(const model::Rule& rule, const model::Package& inPackage, SaveCompletion completion = {});

    // Writes the requested package files and has the custom extension rebuilt
    // and reloaded (every extension when `didChangeWhitelist`). With every
    // list empty nothing is written and the completion gets
    // PersistingError::allPackagesEmpty. Otherwise "WillSavePackages" is
    // posted on the main queue (object: this manager) before the writes; a
    // file that fails to write is logged and the others are still written.
    // The reload's result reaches the completion.
    void savePackages(const std::vector<model::JSONFileName>& files, bool didChangeWhitelist,
                      SaveCompletion completion = {});

    // A notification-centre registration that this instance keeps for its
    // whole life (who registers it, and for what, is up to the caller).
    void setUpdateRulesObserver(platform::ObserverToken token);

private:
    struct Lists {
        storage::PackageList general;
        storage::PackageList international;
        storage::PackageList configurable;
        storage::PackageList custom;
    };

    // Applies `edit` to the package `packageID` (configurable list first) under
    // the lock. `edit` returns the replacement, or nothing to leave it alone.
    // Returns the file to save and the package as stored, or nothing.
    struct Replacement {
        model::JSONFileName file;
        model::Package package;
    };
    std::optional<Replacement> replacePackage(
        const std::string& packageID,
        const std::function<std::optional<model::Package>(const model::Package&)>& edit);

    std::shared_ptr<storage::ExtensionReloading> reloading() const;
    std::shared_ptr<RuleChangeReporting> ruleChanges() const;

    Collaborators collaborators_;
    mutable std::mutex mutex_;
    Lists lists_;
    std::shared_ptr<storage::BlockerPreferenceManager> preferenceManager_;
    platform::ObserverToken updateRulesObserver_;
};

}  // namespace tamsel::control
