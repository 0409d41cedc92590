#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Store.h"
#include "platform/UserDefaults.h"

// The three stores of the program, all under the data root (DataRoot.h):
//
//  * Defaults::standard()        this process's own defaults:
//                                suite "standard" in <home>/extension/;
//  * SharedDefaults::shared()    the app group's defaults, shared with the host
//                                application and the agent: suite = the group
//                                identifier, in <home>/group/;
//  * UbiquitousStore::shared()   the stand-in for the iCloud key-value store:
//                                suite "ubiquitous" in <home>/cloud/; changes
//                                made by other processes arrive as the
//                                changed-externally notification.
//
// Each is opened on first use and then kept. resetSharedStoresForTesting()
// drops them, so that the next call reopens under the current data root.
namespace tamsel::platform {

struct Defaults {
    static inline const std::string suiteName = "standard";

    // Never null: when the file cannot be opened the suite lives in memory
    // for the rest of the process, and a line says so.
    static std::shared_ptr<UserDefaults> standard();
};

struct SharedDefaults {
    // When the group's suite cannot be opened, the standard defaults are used
    // instead (and a line says so); the processes then no longer see each
    // other's values.
    static std::shared_ptr<UserDefaults> shared();
};

class UbiquitousStoreSync;

class UbiquitousStore : public Store {
public:
    static inline const std::string suiteName = "ubiquitous";

    // Posted on NotificationCenter::defaultCenter() when another process (or
    // the cloud) has changed keys, with object = nothing and userInfo
    //   changedKeysKey  → std::vector<std::string>, the changed keys
    //   changeReasonKey → std::int64_t, a ChangeReason: serverChange for
    //   another process's writes; the cloud sync (UbiquitousStoreSync) also
    //   posts initialSyncChange, quotaViolationChange and accountChange.
    static inline const std::string didChangeExternallyNotification =
        "NSUbiquitousKeyValueStoreDidChangeExternallyNotification";
    static inline const std::string changedKeysKey = "NSUbiquitousKeyValueStoreChangedKeysKey";
    static inline const std::string changeReasonKey = "NSUbiquitousKeyValueStoreChangeReasonKey";

    enum ChangeReason : std::int64_t {
        serverChange = 0,
        initialSyncChange = 1,
        quotaViolationChange = 2,
        accountChange = 3,
    };

    // Never null; falls back to memory like Defaults::standard(). When a
    // cloud account is configured (CloudAccount) the shared store also syncs
    // through the cloud server (UbiquitousStoreSync); without one it stays
    // local and sends nothing.
    static std::shared_ptr<UbiquitousStore> shared();

    // A store over the given suite; the notification is posted for changes
    // that other connections make to it.
    explicit UbiquitousStore(std::shared_ptr<UserDefaults> backing);
    ~UbiquitousStore() override;

    std::optional<Value> value(const std::string& key) const override;
    void set(std::optional<Value> value, const std::string& key) override;
    // Everything is persisted on set; with a sync attached, this asks it to
    // send and read soon.
    void synchronize() override;
    Dictionary dictionaryRepresentation() const override;

    const std::shared_ptr<UserDefaults>& backing() const { return backing_; }

    // From now on keys set here are sent through `sync`, which must work on
    // this store's backing.
    void attachSync(std::shared_ptr<UbiquitousStoreSync> sync);
    std::shared_ptr<UbiquitousStoreSync> sync() const;

private:
    std::shared_ptr<UserDefaults> backing_;
    mutable std::mutex syncMutex_;
    std::shared_ptr<UbiquitousStoreSync> sync_;
    ObservationToken externalChanges_;
};

// For the end of a program, before its static objects go: the shared
// ubiquitous store's sync (when it has one) sends what waits and stops.
void finishSharedStoreSync();

// Forgets the opened stores; the next standard()/shared() opens them again
// under the current data root. Holders of the old objects keep them alive.
void resetSharedStoresForTesting();

}  // namespace tamsel::platform
