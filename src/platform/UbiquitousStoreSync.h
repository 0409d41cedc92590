#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>
#include <string>

#include "platform/CKContainer.h"
#include "platform/CKError.h"
#include "platform/CKPushConnection.h"
#include "platform/DispatchQueue.h"
#include "platform/UserDefaults.h"

// Keeps the local stand-in of the iCloud key-value store (UbiquitousStore) in
// step with the cloud server's key-value store of the account: keys set here
// are sent, stamped with this device's time; keys set on other devices are
// read back, and the later write of a key wins everywhere. The server keeps
// at most 1,024 keys and 1 MB; a key it refuses stays local and is announced
// as a quota violation.
//
// Changes read back arrive as the store's changed-externally notification,
// with the reason initialSyncChange on the first read of an account,
// accountChange when the account is another than last time, and serverChange
// after that.
//
// What is waiting to be sent and where the reading stopped are kept in a
// suite of their own (`state`), shared by the processes of the data root.
namespace tamsel::platform {

class UbiquitousStoreSync : public std::enable_shared_from_this<UbiquitousStoreSync> {
public:
    using Clock = std::function<std::int64_t()>;  // milliseconds since 1970

    UbiquitousStoreSync(std::shared_ptr<UserDefaults> store, std::shared_ptr<UserDefaults> state,
                        std::shared_ptr<CKTransport> transport, Clock clock = {});
    ~UbiquitousStoreSync();

    // `key` was set on this device: it is sent at the next synchronisation.
    void noteLocalChange(const std::string& key);

    // Sends what waits, then reads what other devices wrote. Without an
    // account it sends nothing and answers notAuthenticated.
    std::optional<CKError> synchronizeNow();

    // Synchronises soon on a queue of its own (once, however often asked
    // before it runs).
    void scheduleSynchronization();

    // Synchronises now, and whenever the server says another device changed
    // the store. stop() ends that.
    void start();
    void stop();

    // For the end of the process: stops listening, takes no more work, waits
    // for a synchronisation under way, and sends what still waits (one try),
    // so that a short-lived program's writes leave with it. The destructor
    // does it too.
    void shutdown();

    // Keys waiting to be sent.
    std::vector<std::string> pendingKeys() const;

private:
    struct PendingItem {
        std::string key;
        std::int64_t stamp = 0;
    };
    std::optional<CKError> push();
    std::optional<CKError> pushBatch(std::span<const PendingItem> items, std::vector<std::string>& refused);
    std::optional<CKError> pull();
    void postChange(const std::vector<std::string>& keys, std::int64_t reason);

    std::shared_ptr<UserDefaults> store_;
    std::shared_ptr<UserDefaults> state_;
    std::shared_ptr<CKTransport> transport_;
    Clock clock_;
    std::mutex mutex_;  // one synchronisation at a time
    // Scheduled work: whether one is queued, how many are queued or running,
    // and whether shutdown() has begun. The queued block uses `this`; the
    // destructor waits until none is left.
    std::mutex scheduleMutex_;
    std::condition_variable idle_;
    bool scheduled_ = false;
    int inFlight_ = 0;
    bool closed_ = false;
    std::unique_ptr<CKPushConnection> push_;
    DispatchQueue queue_;
};

}  // namespace tamsel::platform
