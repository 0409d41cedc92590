#pragma once

#include <memory>

// The cloud sync of the user's rules in a long-running process: the sync
// manager becomes what the extension handler's sync of user rules and the
// data manager's rule reports reach, the account is watched, and the
// server's push connection is kept, so that a change made on another device
// is fetched when the server says so.
namespace tamsel::host {

class CloudSync {
public:
    // Installs the sync manager and opens the push connection (when an
    // account is configured). Stops with the object.
    static std::unique_ptr<CloudSync> start();
    virtual ~CloudSync() = default;
};

}  // namespace tamsel::host
