#pragma once

#include <functional>
#include <memory>
#include <string>

// What the package-file reader needs from the rule-update code: fetch the
// rule archive from the filter server ("/v4/data.zip") and unpack it into the
// filters folder. The updater lives a layer above storage and installs itself
// as the shared instance; until it does, the shared instance answers "nothing
// was downloaded" at once, so a missing filter file simply stays missing.
namespace tamsel::storage {

class FilterArchiveDownloading {
public:
    // The download identifier under which a missing filter file is fetched.
    static constexpr const char* backgroundDownloadIdentifier = "Background-Download-Filters";

    virtual ~FilterArchiveDownloading() = default;

    // Downloads and unpacks the archive, then calls `completion` once, on any
    // thread, with whether new files were unpacked. Several reads may ask at
    // the same time (the six general files are read side by side); joining
    // them into one download is the implementation's concern.
    virtual void downloadZippedRules(std::string identifier, std::function<void(bool downloaded)> completion) = 0;

    // The process's instance; a NoFilterArchiveDownloading until one is set.
    static std::shared_ptr<FilterArchiveDownloading> shared();
    // nullptr goes back to the default.
    static void setShared(std::shared_ptr<FilterArchiveDownloading> downloading);
};

// Downloads nothing: completes at once, on the calling thread, with false.
class NoFilterArchiveDownloading : public FilterArchiveDownloading {
public:
    void downloadZippedRules(std::string identifier, std::function<void(bool downloaded)> completion) override;
};

}  // namespace tamsel::storage
