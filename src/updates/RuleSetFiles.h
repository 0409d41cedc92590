#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

#include "updates/ArchiveUnpacker.h"
#include "updates/UpdateError.h"

// What of a rule archive may reach the filters folder. The archive's entries
// are the files of a rule set, at its top level:
//
//  * the six general package files ("block-ads.json" …) and
//    "block-international.json": they replace the installed ones;
//  * "block-configurable.json": the configurable packages (whitelist, block
//    URLs, block cookies, hide elements, make HTTPS) are the user's own rules
//    once installed, edited from the popover and synced. The archive's file
//    only seeds a filters folder that has none; where the user has one it
//    stays as it is, whole. The server's packages are not merged into it,
//    not even those the user's file lacks: merging would rewrite the user's
//    file behind the back of the data manager and of sync, which own it, and
//    a package the file lacks is read as its empty default all the same.
//    A user's file still at the old location (the top of the shared
//    container, moved in on its first read) counts as the user's too;
//  * "hosts.txt", the firewall host list: replaces the installed one.
//
// Everything else is skipped with a log line and never installed:
// "block-custom.json" (the user's own packages never come from the server),
// other names, hidden files, folders and whatever lies in them.
//
// Before anything moves, every unpacked package file must decode as the
// package file of its name (with the model's decoder, as the package reader
// will read it): a general file as one package whose identifier is the
// file's name, the list files as arrays of packages. The host list must be
// UTF-8 text. One file that fails refuses the whole archive.
namespace tamsel::updates {

class RuleSetFiles {
public:
    RuleSetFiles() = delete;

    // How the unpack treats the archive entry `name`; logs the skipped ones.
    static EntryHandling handling(std::string_view name);

    // Whether the unpacked file `staged`, the archive's `name`, may be
    // installed: none when it may, else an invalidPackageFile error that
    // names the file and says what is wrong, in one line.
    static std::optional<Error> check(std::string_view name, const std::filesystem::path& staged);
};

}  // namespace tamsel::updates
