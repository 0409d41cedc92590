#pragma once

#include "model/Blocker.h"
#include "model/ExtensionType.h"
#include "model/Package.h"
#include "model/Rule.h"
#include "platform/DispatchQueue.h"
#include "platform/NotificationCenter.h"
#include "platform/Store.h"
#include "storage/BlockerPreferenceChangesObserver.h"
#include "storage/DisabledStateMaps.h"
#include "storage/EnabledRuleSelection.h"
#include "storage/ExtensionReloading.h"
#include "storage/PackageSource.h"

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

// Which packages and rules the user has switched off.
//
// The states are a user preference, kept apart from the package files so that
// a rule update never undoes them and so that they can follow the user to
// other devices. They live in one of two stores, chosen afresh on every read
// and write by the shared-defaults flag "StorePreferencesLocally": the shared
// app-group defaults when it is true, the ubiquitous (cloud) store otherwise.
// A manager keeps no copy of them.
//
// Every update reads the whole map, changes it and writes it back. Several
// processes (the host application, the agent, this extension) do that on the
// same stores, so each update holds a lock file in the group container for
// its read-modify-write: two processes switching different packages at once
// both keep their switch.
//
// Create managers with create(); they are cheap. Work that outlives a call
// (the serial write queue, deliveries on the main queue) keeps its manager
// alive until it has run.
namespace tamsel::storage {

class BlockerPreferenceManager : public std::enable_shared_from_this<BlockerPreferenceManager> {
public:
    // The stored keys, in whichever store "StorePreferencesLocally" chooses.
    static inline const std::string disabledPackageIDsKey = "DisabledPackageIDs";
    static inline const std::string disabledRuleIDsKey = "DisabledRuleIDs";
    // The older layout, read only by the one-time moves.
    static inline const std::string oldDisabledPackagesKey = "DisabledUserPreferenceForPackages";
    static inline const std::string oldDisabledRulesKey = "DisabledUserPreferenceForRules";
    // The one-time flags, always in the shared app-group defaults.
    static inline const std::string didMigrateDisabledPackageIDsFromOldArrayOnce =
        "DidMigrateDisabledPackageIDsFromOldArrayOnce";
    static inline const std::string didMigrateDisabledRuleIDsFromOldArrayOnce =
        "DidMigrateDisabledRuleIDsFromOldArrayOnce";

    // Who the manager works with. Empty members mean the process-wide ones.
    struct Collaborators {
        // Where the whitelist selection finds the configurable and custom
        // packages. Must outlive the manager.
        const PackageSource* packages = nullptr;
        // Who rebuilds and reloads extensions after a save with reload.
        std::shared_ptr<ExtensionReloading> reloading;
    };

    static std::shared_ptr<BlockerPreferenceManager> create(
        std::weak_ptr<BlockerPreferenceChangesObserver> changesObserver = {});
    static std::shared_ptr<BlockerPreferenceManager> create(
        std::weak_ptr<BlockerPreferenceChangesObserver> changesObserver, Collaborators collaborators);

    ~BlockerPreferenceManager();
    BlockerPreferenceManager(const BlockerPreferenceManager&) = delete;
    BlockerPreferenceManager& operator=(const BlockerPreferenceManager&) = delete;

    // The maps as stored now; absent or malformed values read as empty. The
    // first read of each map in a shared container moves the older layout.
    DisabledPackages disabledPackages() const;
    DisabledRules disabledRules() const;
    // Both maps read once, for choosing among many rules.
    EnabledRuleSelection enabledRuleSelection() const;

    // Switches a rule back on (stores an explicit false). Posts
    // "WillSaveUserPreference" and "DidSaveUserPreference" on the main queue
    // and tells the observer after the latter. Rebuilds nothing.
    void saveEnabledPreferenceWithoutReload(const model::Rule& rule, const model::Package& inPackage);

    // Switch a package on or off and tell the observer on the calling thread.
    // No notifications, no rebuild.
    void saveEnabledPreferenceWithoutReload(const model::Package& package);
    void saveDisabledPreferenceWithoutReload(const model::Package& package);

    // Switches the packages on or off on the serial write queue, one request
    // at a time in the order asked, then has the affected extensions rebuilt:
    // every extension when any of the packages holds a whitelist rule,
    // otherwise the packages' own extensions. Posts "WillSaveUserPreference"
    // before and "DidSaveUserPreference" (then tells the observer) after, on
    // the main queue.
    void savePreferenceWithReload(std::vector<model::Package> packages, bool disabled);

    // The compiler's two selections.
    //
    // Blockers of the enabled rules of the enabled packages, in order, leaving
    // out the configurable whitelist package and every rule that whitelists
    // its own package's extension: whitelisting entries only act on what
    // stands before them, so the compiler appends them at the end.
    std::vector<model::Blocker> findEnabledBlockersRemovingWhitelistRules(
        const std::vector<model::Package>& packages) const;
    // The same, handing each blocker to `found` in order instead of
    // gathering copies; returns how many it found.
    std::size_t findEnabledBlockersRemovingWhitelistRules(std::span<const model::Package> packages,
                                                          const std::function<void(const model::Blocker&)>& found) const;
    // The enabled whitelisting blockers for one extension: the configurable
    // whitelist package's first, then the custom packages'.
    std::vector<model::Blocker> findEnabledWhitelistBlockers(model::ExtensionType extensionType) const;

    const std::string& serialWriteQueueLabel() const { return serialWriteQueue_.label(); }

    // Returns once the saves queued so far on the serial write queue have run
    // (their main-queue deliveries may still be pending). For callers that
    // exit right after a save, and for tests.
    void waitForPendingWrites();

    // The store that "StorePreferencesLocally" chooses at this moment.
    static std::shared_ptr<platform::Store> chosenStore();

private:
    struct Passkey {};

public:
    BlockerPreferenceManager(Passkey, std::weak_ptr<BlockerPreferenceChangesObserver> changesObserver,
                             Collaborators collaborators);

private:
    void observeExternalChanges();
    void tellObserver();
    void postWillSaveOnMain();
    // Posts "DidSaveUserPreference", then tells the observer.
    void postDidSaveOnMain();

    platform::DispatchQueue serialWriteQueue_;
    std::weak_ptr<BlockerPreferenceChangesObserver> changesObserver_;
    Collaborators collaborators_;
    platform::ObserverToken externalChanges_;
};

}  // namespace tamsel::storage
