#pragma once

// Names of the notifications posted inside one process on
// NotificationCenter::defaultCenter(). Observers and posters in different
// subsystems meet only through these texts.
namespace tamsel::settings::NotificationNames {

// The extension manager, around each save and reload of an extension.
inline constexpr char willReloadExtension[] = "willReloadExtension";
inline constexpr char didReloadExtension[] = "didReloadExtension";
inline constexpr char didUpdateExtensionStatusCache[] = "didUpdateExtensionStatusCache";
inline constexpr char foundDisabledExtension[] = "Found Disabled Extension";

// The data manager, around writing packages to the package files.
inline constexpr char willSavePackagesToOurJSON[] = "WillSavePackages";
inline constexpr char didSavePackagesToOurJSON[] = "DidSavePackages";

// The disabled-state preferences, around each persisted change.
inline constexpr char willPersistPreference[] = "WillSaveUserPreference";
inline constexpr char didPersistPreference[] = "DidSaveUserPreference";

// Preference changes that arrived from the cloud store were applied.
inline constexpr char RemotePreferenceSync[] = "RemotePreferenceSync";

// Rule import and the rule editors.
inline constexpr char didImportBlockers[] = "DidImportBlockers";
inline constexpr char failedImportBlockers[] = "FailedImportBlockers";
inline constexpr char editorDidChangeRule[] = "editorDidChangeRule";

// Rule updates installed newer preinstalled packages.
inline constexpr char DidUpdatePreinstalledBlockers[] = "DidUpdatePreinstalledBlockers";

// A user-facing information message.
inline constexpr char DisplayInformation[] = "DisplayInformation";

}  // namespace tamsel::settings::NotificationNames
