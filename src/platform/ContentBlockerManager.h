#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/PlatformError.h"

// Safari's content-blocker manager, as the product calls it: reload a content
// blocker by its bundle identifier, and ask whether the user enabled it.
// Completions arrive on an arbitrary thread, as Safari's do.
namespace tamsel::platform {

struct ContentBlockerState {
    bool isEnabled = false;
};

class ContentBlockerManager {
public:
    using ReloadCompletion = std::function<void(std::optional<PlatformError>)>;
    using StateCompletion =
        std::function<void(std::optional<ContentBlockerState>, std::optional<PlatformError>)>;

    virtual ~ContentBlockerManager() = default;

    virtual void reloadContentBlocker(const std::string& identifier, ReloadCompletion completion) = 0;
    virtual void getStateOfContentBlocker(const std::string& identifier, StateCompletion completion) = 0;

    // The process's manager. Until one is set, calls fail with an error saying
    // that no Safari is there to answer.
    static std::shared_ptr<ContentBlockerManager> shared();
    static void setShared(std::shared_ptr<ContentBlockerManager> manager);
};

}  // namespace tamsel::platform
