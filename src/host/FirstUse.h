#pragma once

#include <expected>
#include <filesystem>
#include <optional>
#include <string>

// The first use of a data root, so that every command works on a new
// machine with no set-up:
//
//  1. the shipped filter lists (the six general package files and
//     "block-international.json" of the resources' packages/ folder) are
//     copied into the filters folder, each only where neither the filters
//     folder nor the old location at the top of the container has one;
//  2. "block-configurable.json" is written with the five configurable
//     packages as built in (their default identifiers and names, no rules),
//     where there is none; the user's own packages ("block-custom.json") are
//     left to the user;
//  3. every extension is compiled and reloaded once, so that Safari has a
//     file for each.
//
// Nothing that exists is replaced. The work runs once per data root, under
// an exclusive lock on "first-use.lock" in the group container, and ends by
// writing "first-use.done" beside it; a second process that starts at the
// same time waits for the lock and then finds the work done. While the host
// application holds the writer lock the compile is its to do: the files are
// put in place, and the compile happens on a later first use.
namespace tamsel::host {

struct FirstUseOutcome {
    // Whether this call did the work (false: done before, by this or another process).
    bool prepared = false;
    // Why the first compile failed, when it did; the files are in place all
    // the same, and the work counts as done.
    std::optional<std::string> compileFailure;
};

// Prepares the current data root for use when it has not been yet. Fails with
// a readable reason when a file could not be put in place. Needs the
// substitute host installed (host/SubstituteHost.h) and drives the main queue.
std::expected<FirstUseOutcome, std::string> prepareDataRootOnFirstUse();

// The shipped filter lists: packages/ of the program's resources.
std::filesystem::path shippedPackagesFolder();

}  // namespace tamsel::host
