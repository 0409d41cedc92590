// Reading the package files.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <simdjson.h>

#include <array>
#include <cerrno>
#include <memory>
#include <mutex>
#include <system_error>
#include <utility>

#include "model/ConfigurableType.h"
#include "model/JSONCoding.h"
#include "platform/DispatchGroup.h"
#include "platform/DispatchQueue.h"
#include "platform/FatalError.h"
#include "platform/Files.h"
#include "platform/Log.h"
#include "storage/FilterArchiveDownloading.h"
#include "storage/PathProvider.h"
#include "storage/PersistentStore.h"

namespace tamsel::storage {

namespace {

namespace fs = std::filesystem;
using model::JSONFileName;
using model::Package;

const platform::SystemLogger& logger() {
    static const platform::SystemLogger instance("PersistentStore");
    return instance;
}

// The read order of the general files, which is also the order of the result.
constexpr std::array generalFiles{JSONFileName::blockAds,    JSONFileName::blockTrackers, JSONFileName::blockAnnoyances,
                                  JSONFileName::blockSocial, JSONFileName::blockComments, JSONFileName::blockAdult};

struct ConfigurableDefault {
    model::ConfigurableType type;
    const char* name;
};

// The order in which the configurable packages are handed out; it differs
// from ConfigurableType's own order on purpose (whitelist first).
constexpr std::array configurableDefaults{
    ConfigurableDefault{model::ConfigurableType::whitelist, "Whitelist"},
    ConfigurableDefault{model::ConfigurableType::blockURL, "Block URLs"},
    ConfigurableDefault{model::ConfigurableType::blockCookies, "Block Cookies"},
    ConfigurableDefault{model::ConfigurableType::hideElements, "Hide Page Elements"},
    ConfigurableDefault{model::ConfigurableType::makeHttps, "Make HTTPS-only"},
};

bool fileExists(const fs::path& path) {
    std::error_code ignored;
    return fs::exists(path, ignored);
}

std::string describe(const fs::path& path, const std::error_code& error) {
    return "The file '" + path.string() + "' couldn't be read: " + error.message();
}

// The whole file, read straight into the padded storage that the JSON parser
// works in, so that a 50 MB filter list is copied once, not twice.
std::expected<simdjson::padded_string, std::error_code> readPadded(const fs::path& path) {
    const auto failure = [] { return std::unexpected(std::error_code(errno, std::generic_category())); };
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return failure();
    struct FileCloser {
        int fd;
        ~FileCloser() { ::close(fd); }
    } closer{fd};

    struct stat status {};
    if (::fstat(fd, &status) != 0) return failure();
    const auto size = static_cast<std::size_t>(status.st_size);
    simdjson::padded_string buffer(size);
    if (size > 0 && buffer.data() == nullptr) return std::unexpected(std::make_error_code(std::errc::not_enough_memory));

    std::size_t done = 0;
    while (done < size) {
        ssize_t got = ::read(fd, buffer.data() + done, size - done);
        if (got < 0) {
            if (errno == EINTR) continue;
            return failure();
        }
        if (got == 0) break;  // the file shrank meanwhile: keep what is there
        done += static_cast<std::size_t>(got);
    }
    if (done < size) return simdjson::padded_string(buffer.data(), done);
    return buffer;
}

// Copies `from` to `to`, replacing `to` only when `overwrite` is set.
std::expected<void, std::error_code> copyItem(const fs::path& from, const fs::path& to, bool overwrite) {
    if (fileExists(to)) {
        if (!overwrite) {
            logger().info("File %s already exists in '%s'", to.filename().c_str(), to.parent_path().c_str());
            return {};
        }
        std::error_code removeError;
        fs::remove(to, removeError);
        if (!removeError) {
            logger().info("Removed file %s from '%s'", to.filename().c_str(), to.parent_path().c_str());
        }
    }
    // Atomic, unlike a plain copy: another program may be reading the folder.
    std::error_code ignored;
    fs::create_directories(to.parent_path(), ignored);
    std::expected<void, std::error_code> copied;
    if (auto bytes = platform::readFile(from); !bytes) {
        copied = std::unexpected(bytes.error());
    } else {
        copied = platform::writeFileAtomically(to, *bytes);
    }
    if (!copied) {
        logger().error("Error copying '%s' to '%s': %s", from.c_str(), to.c_str(), copied.error().message().c_str());
        return std::unexpected(copied.error());
    }
    logger().info("Copied '%s' to '%s'", from.c_str(), to.c_str());
    return {};
}

// Moves a package file of the earlier layout (top of the group container)
// into the filters folder, when only the old one exists. Returns whether the
// old file was there.
bool moveFromOldLocation(std::string_view name, const fs::path& oldPath, const fs::path& newPath) {
    const bool oldExists = fileExists(oldPath);
    if (!oldExists || fileExists(newPath)) return oldExists;
    std::string nameText(name);
    logger().info("Will copy file %s from old location to new location...", nameText.c_str());
    if (auto copied = copyItem(oldPath, newPath, true); !copied) {
        // The old file stays, so that nothing is lost; the read goes on from
        // the new path and finds nothing there.
        logger().error("Failed to copy file %s from old location '%s' to new location '%s'. Error: %s",
                       nameText.c_str(), oldPath.c_str(), newPath.c_str(), copied.error().message().c_str());
        return true;
    }
    std::error_code removeError;
    fs::remove(oldPath, removeError);
    if (removeError) {
        logger().error("Failed to remove file at old path '%s'. Error: %s", oldPath.c_str(),
                       removeError.message().c_str());
    } else {
        logger().info("Removed file at old path '%s'", oldPath.c_str());
    }
    return true;
}

// How a file's bytes become its packages.
using FileDecoder = std::function<model::Decoded<std::vector<Package>>(const simdjson::padded_string&)>;

model::Decoded<std::vector<Package>> decodeList(const simdjson::padded_string& bytes) {
    return model::decodePackages(bytes);
}

// A general file's one package, as the list its readers take.
model::Decoded<std::vector<Package>> asList(model::Decoded<Package> package) {
    if (!package) return std::unexpected(package.error());
    std::vector<Package> result;
    result.push_back(std::move(*package));
    return result;
}

model::Decoded<std::vector<Package>> decodeSingle(const simdjson::padded_string& bytes) {
    return asList(model::decodePackage(bytes));
}

// The packages of one file, or none. A single-package file gives at most one.
std::vector<Package> decodeFile(const fs::path& path, std::string_view name, const FileDecoder& decode) {
    auto bytes = readPadded(path);
    if (!bytes) {
        logger().error("%s", describe(path, bytes.error()).c_str());
        return {};
    }
    if (bytes->size() == 0) {
        logger().error("Package file %.*s is empty", static_cast<int>(name.size()), name.data());
        return {};
    }
    auto packages = decode(*bytes);
    if (!packages) {
        logger().error("Failed to decode package file %.*s. Error: %s", static_cast<int>(name.size()), name.data(),
                       packages.error().description.c_str());
        return {};
    }
    return std::move(*packages);
}

using FileCompletion = std::function<void(std::vector<Package>)>;

// Reads one package file, moving it from the old location first and, when it
// is missing and `mayDownload` is set, fetching the rule archive once and
// reading again. `completion` gets the packages, or none.
void readPackageFile(JSONFileName file, FileDecoder decode, bool mayDownload, FileCompletion completion) {
    const std::string_view name = model::rawValue(file);
    const fs::path newPath = PathProvider::filtersFolderURL() / model::fileName(file);
    const fs::path oldPath = PathProvider::sharedContainerURL() / model::fileName(file);

    const bool oldExisted = moveFromOldLocation(name, oldPath, newPath);

    if (!fileExists(newPath)) {
        if (!oldExisted && mayDownload) {
            FilterArchiveDownloading::shared()->downloadZippedRules(
                FilterArchiveDownloading::backgroundDownloadIdentifier,
                [file, decode = std::move(decode), completion = std::move(completion)](bool /*downloaded*/) mutable {
                    // Whatever the download did, the file is looked for once
                    // more, and only once.
                    readPackageFile(file, std::move(decode), false, std::move(completion));
                });
            return;
        }
        completion({});
        return;
    }
    completion(decodeFile(newPath, name, decode));
}

}  // namespace

void PersistentStore::readGeneralPackages(PackagesCompletion completion) {
    struct Results {
        std::mutex mutex;
        std::vector<Package> packages;
    };
    auto results = std::make_shared<Results>();
    for (JSONFileName file : generalFiles) {
        results->packages.emplace_back(std::string(model::rawValue(file)), "some-name", std::vector<model::Rule>{});
    }

    auto group = std::make_shared<platform::DispatchGroup>();
    platform::DispatchQueue& queue = platform::DispatchQueue::global(platform::QualityOfService::userInitiated);
    for (JSONFileName file : generalFiles) {
        group->enter();
        queue.async([results, group, file] {
            readPackageFile(file, decodeSingle, true, [results, group, file](std::vector<Package> read) {
                bool placed = false;
                if (!read.empty()) {
                    std::lock_guard lock(results->mutex);
                    for (Package& placeholder : results->packages) {
                        if (placeholder.id == read.front().id) {
                            placeholder = std::move(read.front());
                            placed = true;
                            break;
                        }
                    }
                }
                if (!placed) logger().error("%s doesn't exist on disk.", std::string(model::rawValue(file)).c_str());
                group->leave();
            });
        });
    }

    group->notify(queue, [results, completion = std::move(completion)] {
        std::vector<Package> packages;
        {
            std::lock_guard lock(results->mutex);
            packages = std::move(results->packages);
        }
        logger().info("Did read %ld General packages", static_cast<long>(packages.size()));
        if (completion) completion(std::move(packages));
    });
}

void PersistentStore::readInternationalPackages(PackagesCompletion completion) {
    readPackageFile(JSONFileName::blockInternational, decodeList, true, [completion = std::move(completion)](auto packages) {
        if (completion) completion(std::move(packages));
    });
}

void PersistentStore::readConfigurablePackages(PackagesCompletion completion) {
    // The user's own rules are never downloaded.
    readPackageFile(JSONFileName::blockConfigurable, decodeList, false,
                    [completion = std::move(completion)](std::vector<Package> read) {
                        std::vector<Package> packages;
                        for (const ConfigurableDefault& entry : configurableDefaults) {
                            packages.emplace_back(std::string(model::rawValue(entry.type)), entry.name,
                                                  std::vector<model::Rule>{});
                        }
                        for (Package& package : read) {
                            for (Package& slot : packages) {
                                if (slot.id == package.id) {
                                    slot = std::move(package);
                                    break;
                                }
                            }
                        }
                        if (completion) completion(std::move(packages));
                    });
}

void PersistentStore::readCustomPackages(PackagesCompletion completion) {
    readPackageFile(JSONFileName::blockCustom, decodeList, false, [completion = std::move(completion)](auto packages) {
        if (completion) completion(std::move(packages));
    });
}

void PersistentStore::readPackages(model::PackageCategory category, JSONFileName from,
                                   PackagesCompletion completion) {
    if (category != model::PackageCategory::general) {
        platform::fatalError("Can use this method only for General category");
    }
    readPackageFile(from, decodeSingle, true, [completion = std::move(completion)](auto packages) {
        if (completion) completion(std::move(packages));
    });
}

void PersistentStore::readPackageRules(JSONFileName from, model::RuleHandler onRule, PackagesCompletion completion) {
    FileDecoder decode = [onRule = std::move(onRule)](const simdjson::padded_string& bytes) {
        return asList(model::decodePackageRuleByRule(bytes, onRule, model::RuleNames::skipped));
    };
    readPackageFile(from, std::move(decode), true, [completion = std::move(completion)](auto packages) {
        if (completion) completion(std::move(packages));
    });
}

}  // namespace tamsel::storage
