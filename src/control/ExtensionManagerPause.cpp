// Pausing and resuming rewrite no Safari JSON file: the content-blocker
// extensions read the shared pause keys themselves, so the manager only
// changes the keys and has Safari reload every extension.
#include "control/ExtensionManager.h"
#include "control/PauseStatus.h"

namespace tamsel::control {

void ExtensionManager::pauseBlocking(storage::ReloadingCompletion completion) {
    PauseStatus::begin(clock());
    reloadAllWithoutSaving(std::move(completion));
}

void ExtensionManager::resumeBlocking(storage::ReloadingCompletion completion) {
    PauseStatus::end();
    reloadAllWithoutSaving(std::move(completion));
}

}  // namespace tamsel::control
