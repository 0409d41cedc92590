#pragma once

#include <array>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/Blocker.h"
#include "model/ExtensionType.h"
#include "model/Hashing.h"
#include "model/JSONCoding.h"
#include "model/JSONFileName.h"
#include "model/Package.h"
#include "model/PackageCategory.h"
#include "model/RawRepresentable.h"
#include "platform/Files.h"

// The file layer of the rule model: package files in the filters folder,
// Safari JSON files in the Safari JSON folder, and the file a package is
// exported to for sharing (paths from storage/PathProvider.h).
//
// Package files, in the filters folder:
//   block-ads.json … block-adult.json   one package object each (the six
//                                       general files)
//   block-international.json            an array: the regional lists
//   block-configurable.json             an array: the five configurable packages
//   block-custom.json                   an array: the user's own packages
//
// Reads never fail as a whole: a missing, zero-byte, unreadable or
// undecodable file is logged and contributes no package. A package file that
// an earlier layout kept at the top of the group container is moved into the
// filters folder on its first read. A missing general or international file
// may be fetched once per read through FilterArchiveDownloading (the user's
// own files never are).
//
// Writes replace files atomically (a reader sees the old file or the new one,
// whole) and report failures as WritingToFileError through std::expected;
// nothing here throws.
//
// Stateless: every operation is static and may be called from any thread. The
// six general reads run side by side on the global user-initiated queue; the
// other operations run on the caller's thread, and so do read completions
// unless a download was needed, in which case they run where the download
// finished.
namespace tamsel::storage {

class SafariJSONBuilder;

class PersistentStore {
public:
    PersistentStore() = delete;

    // Why a package or Safari JSON write failed.
    struct WritingToFileError {
        enum class Kind {
            failedCreateFile,  // the file system refused the file at `path`
            failedEncodeJSON,  // the encoder failed; `encoderError` says why
            noPath,            // there was no path to write to
        };

        Kind kind = Kind::noPath;
        std::filesystem::path path;  // failedCreateFile only
        std::string encoderError;    // failedEncodeJSON only

        static WritingToFileError failedCreateFile(std::filesystem::path path);
        static WritingToFileError failedEncodeJSON(std::string encoderError);
        static WritingToFileError noPath();

        // One line for the user or the log.
        std::string description() const;

        bool operator==(const WritingToFileError&) const = default;
    };

    using WriteResult = std::expected<void, WritingToFileError>;

    // The outcome of prependToSafariJSONFile.
    struct SafariJSONModificationResult {
        enum class Kind {
            otherError,  // not read, decoded or written; `text` says why
            success,     // the new entry stands first in the file
            emptyFile,   // the file holds no bytes; nothing was written
        };

        Kind kind = Kind::success;
        std::string text;  // otherError only

        static SafariJSONModificationResult otherError(std::string text);
        static SafariJSONModificationResult success();
        static SafariJSONModificationResult emptyFile();

        bool operator==(const SafariJSONModificationResult&) const = default;
    };

    using PackagesCompletion = std::function<void(std::vector<model::Package>)>;
    using ModificationCompletion = std::function<void(SafariJSONModificationResult)>;

    // --- Reading (each completion is called once) ----------------------------

    // Always six packages, in the order ads, trackers, annoyances, social,
    // comments, adult, however the reads finish. A file that yields no package
    // is stood in for by a placeholder: the file's identifier, the name
    // "some-name", no rules. Completes on the global user-initiated queue.
    static void readGeneralPackages(PackagesCompletion completion);
    // The regional lists of "block-international".
    static void readInternationalPackages(PackagesCompletion completion);
    // Always five packages, in the order whitelist, block-url, block-cookies,
    // hide-elements, make-https: each the file's package with that identifier,
    // else an empty default ("Whitelist", "Block URLs", "Block Cookies", "Hide
    // Page Elements", "Make HTTPS-only"). Packages of other identifiers in the
    // file are dropped.
    static void readConfigurablePackages(PackagesCompletion completion);
    // The user's own packages of "block-custom".
    static void readCustomPackages(PackagesCompletion completion);
    // One general file: its package, or nothing. Any other category than
    // general is a programming error that stops the process with "Can use
    // this method only for General category".
    static void readPackages(model::PackageCategory category, model::JSONFileName from,
                             PackagesCompletion completion);
    // The general file `from` like readPackages, but rule by rule: `onRule`
    // gets each rule as it is decoded, then `completion` the package without
    // its rules, or nothing. Nothing means the file was missing or did not
    // decode, and whatever `onRule` got is to be dropped. `onRule` runs on
    // the reading thread, before `completion`. The rules come without their
    // names: this reading is for what they block.
    static void readPackageRules(model::JSONFileName from, model::RuleHandler onRule,
                                 PackagesCompletion completion);

    // --- Writing packages --------------------------------------------------------

    // The package as the general file `toOurJSONFile`, creating the filters
    // folder when needed.
    [[nodiscard]] static WriteResult write(const model::Package& package, model::JSONFileName toOurJSONFile);
    // The array as the list file `toOurJSONFile`.
    [[nodiscard]] static WriteResult write(const std::vector<model::Package>& packages,
                                           model::JSONFileName toOurJSONFile);
    // An array holding `package`, to `preferredSavePath`; noPath without one.
    [[nodiscard]] static WriteResult writeForSharing(const model::Package& package,
                                                     const std::optional<std::filesystem::path>& preferredSavePath);
    // The default path to share to: the documents directory + "Rules.tmsl".
    static std::filesystem::path sharedPackagesPath();

    // --- Safari JSON files -------------------------------------------------------

    // Replaces the Safari JSON file of `toSafariJSON` with the entries, or,
    // when `blockers` is absent or empty, with the single placeholderBlocker()
    // (Safari refuses an empty list). Creates the Safari JSON folder when
    // needed and marks the file excluded from backup and hidden.
    [[nodiscard]] static WriteResult write(const std::optional<std::vector<model::Blocker>>& blockers,
                                           model::ExtensionType toSafariJSON);
    // The same for entries gathered in `file` (finished here).
    [[nodiscard]] static WriteResult write(SafariJSONBuilder& file, model::ExtensionType toSafariJSON);
    // The same without waiting for the disk: the file is in place whole for
    // every reader, and durable once platform::flushFiles has run on it.
    [[nodiscard]] static std::expected<platform::UnflushedFile, WritingToFileError> writeUnflushed(
        SafariJSONBuilder& file, model::ExtensionType toSafariJSON);
    // Puts `blocker` first in the custom extension's Safari JSON file without
    // compiling the file again: the text becomes "[" + entry + "," + the old
    // text after its first character. A zero-byte file is left alone
    // (emptyFile). `completion` may be empty.
    static void prependToSafariJSONFile(const model::Blocker& blocker, ModificationCompletion completion);

    // The entry that matches nothing: url-filter ".*", case-sensitive, action
    // css-display-none with the selector "#s0a0l0a0v0a0t".
    static model::Blocker placeholderBlocker();

    // --- Filter file checks --------------------------------------------------------

    // Whether every general, international and configurable package file is in
    // the filters folder; the first missing one is logged.
    static bool isAllFilterFilesExistLocally();
    // Whether every firewall file of the rule set is in the filters folder. The
    // rule set carries one: the plain host list "hosts.txt"
    // (PathProvider::hostsFileURL()).
    static bool isFirewallFilterFilesExistLocally();
};

}  // namespace tamsel::storage

namespace tamsel::model {

template <>
struct RawValueTable<storage::PersistentStore::WritingToFileError::Kind> {
    static constexpr std::array<std::string_view, 3> rawValues{"failedCreateFile", "failedEncodeJSON", "noPath"};
};

template <>
struct RawValueTable<storage::PersistentStore::SafariJSONModificationResult::Kind> {
    static constexpr std::array<std::string_view, 3> rawValues{"otherError", "success", "emptyFile"};
};

}  // namespace tamsel::model

template <>
struct std::hash<tamsel::storage::PersistentStore::WritingToFileError> {
    std::size_t operator()(const tamsel::storage::PersistentStore::WritingToFileError& error) const {
        return tamsel::model::HashBuilder()
            .add(error.kind)
            .add(std::string_view(error.path.native()))
            .add(error.encoderError)
            .value();
    }
};

template <>
struct std::hash<tamsel::storage::PersistentStore::SafariJSONModificationResult> {
    std::size_t operator()(const tamsel::storage::PersistentStore::SafariJSONModificationResult& result) const {
        return tamsel::model::HashBuilder().add(result.kind).add(result.text).value();
    }
};
