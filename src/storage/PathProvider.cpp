#include "storage/PathProvider.h"

#include <memory>
#include <mutex>
#include <string>
#include <system_error>

#include "platform/DataRoot.h"
#include "platform/FatalError.h"

namespace tamsel::storage {

namespace {

namespace fs = std::filesystem;

struct Locations {
    fs::path home;
    fs::path sharedContainer;
    fs::path applicationSupport;
    fs::path caches;
    fs::path filtersFolder;
    fs::path safariJSONFolder;
    fs::path downloadedArchive;
    fs::path hostsFile;
};

std::mutex locationsMutex;
std::shared_ptr<const Locations> keptLocations;

std::shared_ptr<const Locations> makeLocations(fs::path home) {
    // The data root creates the group folder on demand; if it still is not a
    // folder afterwards, the container is unusable for every program of the
    // product.
    fs::path container = platform::DataRoot::groupContainer();
    std::error_code error;
    if (!fs::is_directory(container, error)) platform::fatalError("sharedContainerURL is nil");

    auto locations = std::make_shared<Locations>();
    locations->home = std::move(home);
    locations->sharedContainer = container;
    locations->applicationSupport = container / "Library" / "Application Support";
    locations->caches = container / "Library" / "Caches";
    locations->filtersFolder = locations->applicationSupport / "Filters";
    locations->safariJSONFolder = locations->applicationSupport / "Safari JSON";
    locations->downloadedArchive = locations->caches / "data.zip";
    locations->hostsFile = locations->filtersFolder / "hosts.txt";
    return locations;
}

std::shared_ptr<const Locations> locations() {
    fs::path home = platform::DataRoot::home();
    std::lock_guard lock(locationsMutex);
    if (!keptLocations || keptLocations->home != home) keptLocations = makeLocations(std::move(home));
    return keptLocations;
}

}  // namespace

fs::path PathProvider::sharedContainerURL() { return locations()->sharedContainer; }
fs::path PathProvider::applicationSupportURL() { return locations()->applicationSupport; }
fs::path PathProvider::cachesURL() { return locations()->caches; }
fs::path PathProvider::filtersFolderURL() { return locations()->filtersFolder; }
fs::path PathProvider::safariJSONFolderURL() { return locations()->safariJSONFolder; }
fs::path PathProvider::downloadedArchiveURL() { return locations()->downloadedArchive; }
fs::path PathProvider::hostsFileURL() { return locations()->hostsFile; }

fs::path PathProvider::safariJSONFilePath(model::ExtensionType type) {
    // The custom extension's file also carries the configurable packages,
    // hence its different name.
    std::string name = type == model::ExtensionType::customRules
                           ? std::string("safari-custom+configurable.json")
                           : "safari-" + std::string(model::rawValue(type)) + ".json";
    return safariJSONFolderURL() / name;
}

fs::path PathProvider::safariJSONLockPath(model::ExtensionType type) {
    return sharedContainerURL() / ("safari-json-" + std::string(model::rawValue(type)) + ".lock");
}

void PathProvider::resetForTesting() {
    std::lock_guard lock(locationsMutex);
    keptLocations.reset();
}

}  // namespace tamsel::storage
