#include "host/FirstUse.h"

#include <array>
#include <future>
#include <mutex>

#include "control/ExtensionManager.h"
#include "model/JSONFileName.h"
#include "platform/DataRoot.h"
#include "platform/Files.h"
#include "platform/InterProcessMutex.h"
#include "platform/Log.h"
#include "platform/MainRunLoop.h"
#include "platform/Resources.h"
#include "storage/PathProvider.h"
#include "storage/PackageFilesLock.h"
#include "storage/PersistentStore.h"

namespace tamsel::host {
namespace {

namespace fs = std::filesystem;
using model::JSONFileName;

const platform::SystemLogger& logger() {
    static const platform::SystemLogger instance("FirstUse");
    return instance;
}

// The filter lists that ship with the program; the user's own files are not among them.
constexpr std::array shippedFiles{JSONFileName::blockAds,      JSONFileName::blockTrackers,
                                  JSONFileName::blockAnnoyances, JSONFileName::blockSocial,
                                  JSONFileName::blockComments, JSONFileName::blockAdult,
                                  JSONFileName::blockInternational};

bool isPresent(const fs::path& path) {
    std::error_code ignored;
    return fs::exists(path, ignored);
}

// A package file is there when the filters folder or the old location holds
// it; reading moves the old one in.
bool hasPackageFile(JSONFileName name) {
    const std::string file = model::fileName(name);
    return isPresent(storage::PathProvider::filtersFolderURL() / file) ||
           isPresent(storage::PathProvider::sharedContainerURL() / file);
}

std::expected<void, std::string> copyShippedFiles() {
    const fs::path shipped = shippedPackagesFolder();
    std::error_code created;
    fs::create_directories(storage::PathProvider::filtersFolderURL(), created);
    if (created) return std::unexpected("can't create the filters folder: " + created.message());
    for (JSONFileName name : shippedFiles) {
        if (hasPackageFile(name)) continue;
        const std::string file = model::fileName(name);
        auto bytes = platform::readFile(shipped / file);
        if (!bytes) {
            return std::unexpected("can't read the shipped " + (shipped / file).string() + ": " +
                                   bytes.error().message() + " (TAMSEL_RESOURCES names the folder that holds packages/)");
        }
        const fs::path target = storage::PathProvider::filtersFolderURL() / file;
        if (auto written = platform::writeFileAtomically(target, *bytes); !written) {
            return std::unexpected("can't write " + target.string() + ": " + written.error().message());
        }
        logger().info("Installed the shipped %s", file.c_str());
    }
    return {};
}

std::expected<void, std::string> writeConfigurableDefaults() {
    // Checked and written under the package files' lock: an edit that
    // another program saves meanwhile is never replaced.
    storage::PackageFilesLock filesLock;
    if (hasPackageFile(JSONFileName::blockConfigurable)) return {};
    // With no file, reading yields the five packages as built in.
    std::promise<std::vector<model::Package>> read;
    storage::PersistentStore::readConfigurablePackages(
        [&read](std::vector<model::Package> packages) { read.set_value(std::move(packages)); });
    const auto packages = read.get_future().get();
    if (auto written = storage::PersistentStore::write(packages, JSONFileName::blockConfigurable); !written) {
        return std::unexpected("can't write the configurable packages: " + written.error().description());
    }
    return {};
}

std::optional<std::string> compileAll() {
    auto manager = control::ExtensionManager::shared();
    std::optional<storage::ReloadingResult> result;
    manager->saveToJSONAndReloadAll(std::nullopt, [&result](storage::ReloadingResult outcome) { result = outcome; });
    if (!platform::MainRunLoop::runUntil([&result] { return result.has_value(); }, std::chrono::minutes(10)) ||
        !manager->waitUntilIdle()) {
        return "the extensions were not compiled in time";
    }
    if (!*result) return result->error().description();
    return std::nullopt;
}

}  // namespace

fs::path shippedPackagesFolder() { return platform::resourcesDirectory() / "packages"; }

std::expected<FirstUseOutcome, std::string> prepareDataRootOnFirstUse() {
    const fs::path container = platform::DataRoot::groupContainer();
    const fs::path done = container / "first-use.done";
    if (isPresent(done)) return FirstUseOutcome{};

    platform::InterProcessMutex mutex(container / "first-use.lock");
    std::lock_guard lock(mutex);
    if (isPresent(done)) return FirstUseOutcome{};

    logger().info("First use of %s", platform::DataRoot::home().c_str());
    if (auto copied = copyShippedFiles(); !copied) return std::unexpected(copied.error());
    if (auto written = writeConfigurableDefaults(); !written) return std::unexpected(written.error());

    FirstUseOutcome outcome{true, std::nullopt};
    if (!control::ExtensionManager::mayWrite()) {
        logger().info("The host application is running: the first compile is left to it");
        return outcome;
    }
    outcome.compileFailure = compileAll();
    if (outcome.compileFailure) logger().error("First compile failed: %s", outcome.compileFailure->c_str());
    if (auto marked = platform::writeFileAtomically(done, "done\n"); !marked) {
        return std::unexpected("can't write " + done.string() + ": " + marked.error().message());
    }
    return outcome;
}

}  // namespace tamsel::host
