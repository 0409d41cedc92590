#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <memory>

#include "platform/LocalContentBlockerManager.h"

// What the `tamsel` program stands in for: Safari, with its content-blocker
// manager, and the toolbar extension's process around the product code.
namespace tamsel::host {

// Makes this process the toolbar extension (so the writer rule lets it write
// while no host application runs), installs the substitute content-blocker
// manager over the data root's "safari" folder (opened on first use, so
// commands that never reload touch nothing there) and makes the extension
// manager the process's rebuilder, and has rule changes recorded for the
// cloud sync. Call once the data root is chosen.
void installSubstituteHost();

// The substitute Safari's content-blocker manager (opened on first use), for
// the commands that load pages through the reloaded extensions' matchers.
std::shared_ptr<platform::LocalContentBlockerManager> substituteContentBlockerManager();

// What a program that writes the shared files does first: completes a rule
// update that a killed process left half installed, removes the temporary
// files that writers killed mid-write left in the group container's folders,
// and rebuilds the extensions that still owe a rebuild (a change whose
// rebuild never finished). Call after installSubstituteHost.
void startWriter();

// While the host application runs it alone writes the Safari JSON files
// (the writer rule): a change made here is saved, and its rebuild is left to
// it. Then the text that says so, for a command's "rebuilt:" line.
std::optional<std::string> rebuildLeftToHostApplication();

// Runs the main queue until every queued save, reload and retry of the
// extension manager has finished, so that the program never exits with work
// half done. Returns false when `timeout` passed first.
bool finishPendingExtensionWork(std::chrono::milliseconds timeout = std::chrono::minutes(10));

}  // namespace tamsel::host
