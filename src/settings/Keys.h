#pragma once

// The stored keys that the host application, the agent and this extension
// share, with the store each lives in. The texts are part of the on-disk
// contract with the other programs: never rename them.
namespace tamsel::settings::Keys {

// Defaults (this process only).
inline constexpr char didLaunchAppOnce[] = "DidLaunchAppOnce";

// SharedDefaults (the app group).
inline constexpr char currentBuildFirstLaunchDate[] = "currentBuildFirstLaunchDateKey";
inline constexpr char mustShowVisualEditor[] = "mustShowVisualEditorKey";
inline constexpr char mustShowVisualEditorURL[] = "mustShowVisualEditorURLKey";
inline constexpr char blockingPausedStatus[] = "blocking-paused-status";
inline constexpr char blockingPausedDate[] = "blocking-paused-date";
inline constexpr char storePreferencesLocally[] = "StorePreferencesLocally";
inline constexpr char actionExtensionCreatedRule[] = "ActionExtensionCreatedRuleKey";
inline constexpr char userPrefersPauseButtonHidden[] = "UserPrefersPauseButtonHidden";
inline constexpr char userPrefersHeartButtonHidden[] = "UserPrefersHeartButtonHidden";

// SharedDefaults: signals between the processes (see IPC.h). The value
// carries the whole signal.
inline constexpr char actionExtensionDidChangeWhitelist[] = "actionExtensionDidChangeWhitelist";
inline constexpr char actionExtensionDidChangeMakeHTTPS[] = "actionExtensionDidChangeMakeHTTPS";
inline constexpr char actionExtensionAsksToShowVisualEditor[] = "actionExtensionAsksToShowVisualEditor";
inline constexpr char agentAsksToSaveToJSONAndReloadAllExtensions[] =
    "agentAsksToSaveToJSONAndReloadAllExtensions";
// Asks the toolbar extension to reload the page in the active tab.
inline constexpr char reloadTab[] = "reloadTab";

// UbiquitousStore (follows the user across devices).
inline constexpr char userHasMacDevice[] = "UserHasMacDevice";
inline constexpr char userHasiPhoneDevice[] = "UserHasiPhoneDevice";
inline constexpr char userHasiPadDevice[] = "UserHasiPadDevice";

}  // namespace tamsel::settings::Keys
