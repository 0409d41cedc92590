#pragma once

#include <filesystem>

#include "model/ExtensionType.h"

// Where every file shared by the programs of the product lies. Other code asks
// here and never builds these paths itself.
//
// The app-group container is the data root's "group" folder (see
// platform/DataRoot.h); every location below resolves inside it:
//
//   sharedContainerURL     <group>
//   applicationSupportURL  <group>/Library/Application Support
//   cachesURL              <group>/Library/Caches
//   filtersFolderURL       <group>/Library/Application Support/Filters
//   safariJSONFolderURL    <group>/Library/Application Support/Safari JSON
//   downloadedArchiveURL   <group>/Library/Caches/data.zip
//   hostsFileURL           <group>/Library/Application Support/Filters/hosts.txt
//
// Nothing here creates the folders below the container: whoever writes into
// one creates it. When the container itself is missing and cannot be made,
// the process stops with "sharedContainerURL is nil": that is a broken
// installation, not something to recover from.
//
// The locations are worked out together on first use and kept. They are kept
// per data root, so that a process (in practice: a test) that moves its data
// root sees the new locations. Thread-safe.
namespace tamsel::storage {

class PathProvider {
public:
    PathProvider() = delete;

    static std::filesystem::path sharedContainerURL();
    static std::filesystem::path applicationSupportURL();
    static std::filesystem::path cachesURL();
    static std::filesystem::path filtersFolderURL();
    static std::filesystem::path safariJSONFolderURL();
    static std::filesystem::path downloadedArchiveURL();
    static std::filesystem::path hostsFileURL();

    // The Safari JSON file that the extension of `type` loads, in the Safari
    // JSON folder: "safari-custom+configurable.json" for customRules,
    // "safari-<raw value>.json" for every other type.
    static std::filesystem::path safariJSONFilePath(model::ExtensionType type);

    // The lock file held by whoever rewrites that extension's Safari JSON
    // file from what it read (a rebuild, a prepend), in the group container.
    static std::filesystem::path safariJSONLockPath(model::ExtensionType type);

    // Forgets the kept locations, so that the next call works them out again.
    static void resetForTesting();
};

}  // namespace tamsel::storage
