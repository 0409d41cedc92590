// Writing package and Safari JSON files, and the filter file checks.

#include "storage/PersistentStore.h"

#include <simdjson.h>

#include <exception>
#include <mutex>
#include <system_error>
#include <type_traits>
#include <utility>

#include "model/JSONCoding.h"
#include "platform/Files.h"
#include "platform/InterProcessMutex.h"
#include "platform/Log.h"
#include "storage/Directory.h"
#include "storage/PathProvider.h"
#include "storage/SafariJSONBuilder.h"

namespace tamsel::storage {

namespace {

namespace fs = std::filesystem;
using WritingToFileError = PersistentStore::WritingToFileError;
using SafariJSONModificationResult = PersistentStore::SafariJSONModificationResult;

const platform::SystemLogger& logger() {
    static const platform::SystemLogger instance("PersistentStore");
    return instance;
}

// The encoders report trouble (running out of memory on a huge list) by
// throwing; that becomes failedEncodeJSON.
template <class Encode>
std::expected<std::invoke_result_t<Encode>, WritingToFileError> encode(const fs::path& path, Encode&& encodeBytes) {
    try {
        return encodeBytes();
    } catch (const std::exception& error) {
        logger().error("Failed to write to file at %s. %s", path.c_str(), error.what());
        return std::unexpected(WritingToFileError::failedEncodeJSON(error.what()));
    }
}

PersistentStore::WriteResult writePackageBytes(const fs::path& path, std::string_view bytes) {
    if (!platform::writeFileAtomically(path, bytes)) {
        logger().error("Failed write to the file at %s", path.c_str());
        return std::unexpected(WritingToFileError::failedCreateFile(path));
    }
    return {};
}

PersistentStore::WriteResult writePackages(const std::vector<model::Package>& packages, const fs::path& path) {
    auto bytes = encode(path, [&] { return model::encodePackages(packages); });
    if (!bytes) return std::unexpected(bytes.error());
    auto written = writePackageBytes(path, *bytes);
    if (written) logger().info("Wrote %ld packages to %s", static_cast<long>(packages.size()), path.c_str());
    return written;
}

fs::path packageFilePath(model::JSONFileName file) {
    // The folder is created by whoever writes into it first.
    fs::path folder = PathProvider::filtersFolderURL();
    std::error_code ignored;
    fs::create_directories(folder, ignored);
    return folder / model::fileName(file);
}

// Neither flag changes what the program does, so a refusal is only logged.
void markExcludedFromBackupAndHidden(const fs::path& path) {
    if (auto set = platform::setExcludedFromBackup(path, true); !set) {
        logger().error("Failed to set `isExcludedFromBackup` for `%s`. Error: %s", path.c_str(),
                       set.error().message().c_str());
    }
    if (auto set = platform::setHidden(path, true); !set) {
        logger().error("Failed to set `isHidden` for `%s`. Error: %s", path.c_str(), set.error().message().c_str());
    }
}

std::optional<fs::path> firstMissing(const std::vector<fs::path>& paths) {
    for (const fs::path& path : paths) {
        std::error_code ignored;
        if (!fs::exists(path, ignored)) return path;
    }
    return std::nullopt;
}

}  // namespace

// --- Result values ---------------------------------------------------------------

WritingToFileError WritingToFileError::failedCreateFile(fs::path path) {
    return {Kind::failedCreateFile, std::move(path), {}};
}

WritingToFileError WritingToFileError::failedEncodeJSON(std::string encoderError) {
    return {Kind::failedEncodeJSON, {}, std::move(encoderError)};
}

WritingToFileError WritingToFileError::noPath() { return {Kind::noPath, {}, {}}; }

std::string WritingToFileError::description() const {
    switch (kind) {
        case Kind::failedCreateFile: return "Could not create the file at " + path.string();
        case Kind::failedEncodeJSON: return "Could not encode the packages: " + encoderError;
        case Kind::noPath: return "No path to write to";
    }
    return {};
}

SafariJSONModificationResult SafariJSONModificationResult::otherError(std::string text) {
    return {Kind::otherError, std::move(text)};
}

SafariJSONModificationResult SafariJSONModificationResult::success() { return {Kind::success, {}}; }

SafariJSONModificationResult SafariJSONModificationResult::emptyFile() { return {Kind::emptyFile, {}}; }

// --- Packages ---------------------------------------------------------------------

PersistentStore::WriteResult PersistentStore::write(const model::Package& package,
                                                    model::JSONFileName toOurJSONFile) {
    const fs::path path = packageFilePath(toOurJSONFile);
    auto bytes = encode(path, [&] { return model::encodePackage(package); });
    if (!bytes) return std::unexpected(bytes.error());
    auto written = writePackageBytes(path, *bytes);
    if (written) logger().info("Wrote %s package to %s", package.name.c_str(), path.c_str());
    return written;
}

PersistentStore::WriteResult PersistentStore::write(const std::vector<model::Package>& packages,
                                                    model::JSONFileName toOurJSONFile) {
    return writePackages(packages, packageFilePath(toOurJSONFile));
}

PersistentStore::WriteResult PersistentStore::writeForSharing(const model::Package& package,
                                                              const std::optional<fs::path>& preferredSavePath) {
    if (!preferredSavePath) {
        logger().error("Can't write packages for sharing, path is nil");
        return std::unexpected(WritingToFileError::noPath());
    }
    return writePackages({package}, *preferredSavePath);
}

fs::path PersistentStore::sharedPackagesPath() {
    // Worked out on each call rather than kept, so that it follows the data
    // root; the documents directory is created on the way.
    return Directory::url(StandardDirectory::documents) / "Rules.tmsl";
}

// --- Safari JSON files ------------------------------------------------------------

model::Blocker PersistentStore::placeholderBlocker() {
    model::Blocker blocker;
    blocker.trigger.urlFilter = ".*";
    blocker.trigger.caseSensitive = true;
    blocker.action.type = model::ActionType::hide;
    blocker.action.selector = "#s0a0l0a0v0a0t";
    return blocker;
}

PersistentStore::WriteResult PersistentStore::write(const std::optional<std::vector<model::Blocker>>& blockers,
                                                    model::ExtensionType toSafariJSON) {
    SafariJSONBuilder file;
    auto added = encode(PathProvider::safariJSONFilePath(toSafariJSON), [&] {
        if (blockers) {
            for (const model::Blocker& blocker : *blockers) file.add(blocker);
        }
        return true;
    });
    if (!added) return std::unexpected(added.error());
    return write(file, toSafariJSON);
}

namespace {

// Writes the finished `file` with `put` (one of the atomic writes), logging as
// the Safari JSON writes do.
template <class Put,
          class Written = typename std::invoke_result_t<Put&, const fs::path&, std::span<const std::string_view>>::value_type>
std::expected<Written, WritingToFileError> writeSafariJSON(SafariJSONBuilder& file, model::ExtensionType toSafariJSON,
                                                          Put&& put) {
    const fs::path path = PathProvider::safariJSONFilePath(toSafariJSON);
    // Safari refuses a list without entries, so "no entries" is written as
    // one entry that matches nothing.
    const std::size_t count = file.count();
    auto pieces = encode(path, [&] { return file.finish(); });
    if (!pieces) return std::unexpected(pieces.error());

    std::error_code ignored;
    fs::create_directories(path.parent_path(), ignored);
    auto written = put(path, std::span<const std::string_view>(*pieces));
    if (!written) {
        if (count > 0) {
            logger().error("Could not write %ld blockers to Safari JSON file in shared container: %s",
                           static_cast<long>(count), path.c_str());
        } else {
            logger().error("Could not remove blockers from Safari JSON file in shared container: %s", path.c_str());
        }
        return std::unexpected(WritingToFileError::failedCreateFile(path));
    }
    if (count > 0) {
        logger().info("Wrote %ld blockers to: %s", static_cast<long>(count), path.c_str());
    } else {
        logger().info("Removed blockers from Safari JSON file in shared container: %s", path.c_str());
    }
    markExcludedFromBackupAndHidden(path);
    if constexpr (std::is_void_v<Written>) {
        return {};
    } else {
        return std::move(*written);
    }
}

}  // namespace

PersistentStore::WriteResult PersistentStore::write(SafariJSONBuilder& file, model::ExtensionType toSafariJSON) {
    return writeSafariJSON(file, toSafariJSON, [](const fs::path& path, std::span<const std::string_view> parts) {
        return platform::writeFileAtomically(path, parts);
    });
}

std::expected<platform::UnflushedFile, WritingToFileError> PersistentStore::writeUnflushed(
    SafariJSONBuilder& file, model::ExtensionType toSafariJSON) {
    return writeSafariJSON(file, toSafariJSON, [](const fs::path& path, std::span<const std::string_view> parts) {
        return platform::writeFileAtomicallyUnflushed(path, parts);
    });
}

void PersistentStore::prependToSafariJSONFile(const model::Blocker& blocker, ModificationCompletion completion) {
    const auto finish = [&completion](SafariJSONModificationResult result) {
        if (completion) completion(std::move(result));
    };
    const fs::path path = PathProvider::safariJSONFilePath(model::ExtensionType::customRules);
    // A rebuild of the same file in another program would otherwise lose
    // this entry, or this write the rebuild.
    platform::InterProcessMutex fileLock(PathProvider::safariJSONLockPath(model::ExtensionType::customRules));
    std::lock_guard locked(fileLock);

    auto old = platform::readFile(path);
    if (!old) {
        std::string description = "The file '" + path.string() + "' couldn't be read: " + old.error().message();
        logger().error("%s", description.c_str());
        return finish(SafariJSONModificationResult::otherError(std::move(description)));
    }
    if (old->empty()) return finish(SafariJSONModificationResult::emptyFile());
    if (!simdjson::validate_utf8(old->data(), old->size())) {
        const std::string text = "Error creating JSON string from Safari JSON file";
        logger().error("%s", text.c_str());
        return finish(SafariJSONModificationResult::otherError(text));
    }
    std::string entry;
    try {
        entry = model::encodeBlocker(blocker);
    } catch (const std::exception&) {
        const std::string text = "Error encoding new blocker to JSON";
        logger().error("%s", text.c_str());
        return finish(SafariJSONModificationResult::otherError(text));
    }

    // The old list is not parsed again: its opening bracket gives way to the
    // new entry and a comma, and the rest stays byte for byte.
    std::string text;
    text.reserve(old->size() + entry.size() + 1);
    text.append("[").append(entry).append(",").append(std::string_view(*old).substr(1));

    if (auto written = platform::writeFileAtomically(path, text); !written) {
        std::string description = "The file '" + path.string() + "' couldn't be written: " + written.error().message();
        logger().error("%s", description.c_str());
        return finish(SafariJSONModificationResult::otherError(std::move(description)));
    }
    logger().info("Prepended new blocker to Safari JSON file: %s", path.c_str());
    // The replaced file is a new file: it needs its attributes again.
    markExcludedFromBackupAndHidden(path);
    finish(SafariJSONModificationResult::success());
}

// --- Filter file checks ---------------------------------------------------------

bool PersistentStore::isAllFilterFilesExistLocally() {
    const fs::path folder = PathProvider::filtersFolderURL();
    std::vector<fs::path> paths;
    for (model::JSONFileName file : model::allCases<model::JSONFileName>()) {
        // The user's own file comes into being with their first rule; the
        // rule set never carries it.
        if (file != model::JSONFileName::blockCustom) paths.push_back(folder / model::fileName(file));
    }
    auto missing = firstMissing(paths);
    if (missing) logger().info("Filter files don't exist locally: %s is not found", missing->filename().c_str());
    return !missing;
}

bool PersistentStore::isFirewallFilterFilesExistLocally() {
    auto missing = firstMissing({PathProvider::hostsFileURL()});
    if (missing) {
        logger().info("Firewall filter files don't exist locally: %s is not found", missing->filename().c_str());
    }
    return !missing;
}

}  // namespace tamsel::storage
