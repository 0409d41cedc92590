#pragma once

#include "model/ExtensionType.h"
#include "storage/ReloadingResult.h"

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

// The one thing storage needs from the extension manager: have extensions'
// Safari JSON files rebuilt and the extensions reloaded. The manager itself
// lives a layer above; it installs itself as the shared instance. Until it
// does, the shared instance is a recorder that only notes what was asked, so
// that callers (and tests, and `tamsel enable`) can tell which extensions a
// change would rebuild.
namespace tamsel::storage {

class ExtensionReloading {
public:
    virtual ~ExtensionReloading() = default;

    // Rebuilds and reloads one extension. A whitelist change made in the
    // custom extension rebuilds every extension instead, because whitelisting
    // entries end every extension's file.
    virtual void saveToJSONAndReload(model::ExtensionType extension, bool didChangeWhitelist,
                                     ReloadingCompletion completion) = 0;

    // Rebuilds and reloads every enabled extension but `except`.
    virtual void saveToJSONAndReloadAll(std::optional<model::ExtensionType> except,
                                        ReloadingCompletion mainCompletion) = 0;

    // The process's instance; a RecordingExtensionReloading until one is set.
    static std::shared_ptr<ExtensionReloading> shared();
    // nullptr goes back to a fresh recorder.
    static void setShared(std::shared_ptr<ExtensionReloading> reloading);
};

// Notes every request. When given a target it passes each request on;
// without one it completes each request with success on the main queue.
class RecordingExtensionReloading : public ExtensionReloading {
public:
    struct Request {
        enum class Kind { one, all };
        Kind kind = Kind::one;
        // The extension of a one-extension request.
        std::optional<model::ExtensionType> extension;
        bool didChangeWhitelist = false;
        // The exclusion of an all-extensions request.
        std::optional<model::ExtensionType> except;

        friend bool operator==(const Request&, const Request&) = default;
    };

    explicit RecordingExtensionReloading(std::shared_ptr<ExtensionReloading> target = nullptr);

    void saveToJSONAndReload(model::ExtensionType extension, bool didChangeWhitelist,
                             ReloadingCompletion completion) override;
    void saveToJSONAndReloadAll(std::optional<model::ExtensionType> except,
                                ReloadingCompletion mainCompletion) override;

    std::vector<Request> requests() const;
    void clear();

    // The extensions the requests so far would rebuild, each once, in the
    // order of the requests; an all-extensions request stands for every
    // extension type but its exclusion (what Safari reports as enabled is
    // not known here).
    std::vector<model::ExtensionType> extensionsToRebuild() const;

private:
    void complete(ReloadingCompletion completion) const;

    std::shared_ptr<ExtensionReloading> target_;
    mutable std::mutex mutex_;
    std::vector<Request> requests_;
};

}  // namespace tamsel::storage
