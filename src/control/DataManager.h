#pragma once

#include "control/PersistingError.h"
#include "control/RuleChangeReporting.h"
#include "model/JSONFileName.h"
#include "model/Package.h"
#include "model/Rule.h"
#include "platform/Files.h"
#include "platform/NotificationCenter.h"
#include "storage/BlockerPreferenceManager.h"
#include "storage/ExtensionReloading.h"
#include "storage/PackageFilesLock.h"
#include "storage/PackageSource.h"
#include "storage/ReloadingResult.h"

#include <functional>
#include <initializer_list>
#include <map>
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
// Several programs share the package files (the host application, the
// toolbar extension, the command line), so the lists are a cache of what is
// on disk: refreshFromDisk() reads again every list whose file another
// program replaced since it was read, and every change is made inside an
// Editing session, which holds the package files' lock and starts from the
// files as they are now. A list set in memory (setXPackages) is taken as it
// is until it is next saved.
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

    // Reads again each configurable, custom and international list whose
    // file changed on disk since it was read or written here, and each such
    // list that is empty and was never read; drops the general list when a
    // general file changed (readers then take the file from disk).
    void refreshFromDisk();
    // The same for the configurable and custom lists alone (the user's own
    // packages), for readers that need nothing else: a site's whitelist and
    // HTTPS state.
    void refreshUserPackagesFromDisk();

    // --- Edits (the cloud sync merge, the popover's rule changes) -------------------

    // One read-modify-write of the package files: holds their lock (shared
    // with every other program of the data root) for its lifetime, and
    // starts with refreshFromDisk(). Make the decision and the edits, and
    // save, inside it. Sessions nest on one thread.
    class Editing {
    public:
        explicit Editing(DataManager& manager);
        Editing(const Editing&) = delete;
        Editing& operator=(const Editing&) = delete;

    private:
        storage::PackageFilesLock lock_;
    };
    [[nodiscard]] Editing beginEditing() { return Editing(*this); }

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
    // reports the rule to the sync engine. The rule is set into the package
    // of that identifier as it is on disk at the time (`inPackage` names the
    // package), so a change another program saved meanwhile is kept.
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
    // The reload's result reaches the completion. The extensions to rebuild
    // are recorded as owing a rebuild before anything is written, and the
    // writes hold the package files' lock; call it inside an Editing
    // session so that the lists written are the ones on disk plus the edit.
    void savePackages(const std::vector<model::JSONFileName>& files, bool didChangeWhitelist,
                      SaveCompletion completion = {});

    // A notification-centre registration that this instance keeps for its
    // whole life (who registers it, and for what, is up to the caller).
    void setUpdateRulesObserver(platform::ObserverToken token);

private:
    enum class ListKind { general, international, configurable, custom };
    static std::vector<model::JSONFileName> filesOf(ListKind kind);

    struct Lists {
        storage::PackageList general;
        storage::PackageList international;
        storage::PackageList configurable;
        storage::PackageList custom;

        storage::PackageList& of(ListKind kind);
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

    void refreshListsFromDisk(std::initializer_list<ListKind> kinds);
    // Which list a package file holds.
    static ListKind listKind(model::JSONFileName file);
    // Replaces a list; `stamps` are the versions of its files it was read
    // from (none: set in memory, not known to match any file).
    void replaceList(ListKind kind, std::vector<model::Package> packages,
                     std::map<model::JSONFileName, platform::FileStamp> stamps);
    // The same, unless the list is no longer `expected`: an edit made while
    // the files were read is newer than what was read, and stays.
    void replaceListIfUnchanged(ListKind kind, const storage::PackageList& expected,
                                std::vector<model::Package> packages,
                                std::map<model::JSONFileName, platform::FileStamp> stamps);
    void forgetStamps(ListKind kind);

    // Writes each file from `lists`, holding the package files' lock.
    void writePackageFiles(const std::vector<model::JSONFileName>& files, const Lists& lists);

    std::shared_ptr<storage::ExtensionReloading> reloading() const;
    std::shared_ptr<RuleChangeReporting> ruleChanges() const;

    Collaborators collaborators_;
    mutable std::mutex mutex_;
    Lists lists_;
    // The version of each package file that the list holding it was read
    // from or last written as; a file without one is not known to match.
    std::map<model::JSONFileName, platform::FileStamp> stamps_;
    std::shared_ptr<storage::BlockerPreferenceManager> preferenceManager_;
    platform::ObserverToken updateRulesObserver_;
};

}  // namespace tamsel::control
