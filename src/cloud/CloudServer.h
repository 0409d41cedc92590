#pragma once

#include <atomic>
#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <string>

#include "cloud/CloudStore.h"
#include "cloud/FaultInjector.h"
#include "cloud/PushHub.h"

// The cloud server: the CloudKit Web Services shape over HTTP.
//
//   POST /database/1/{container}/{environment}/{private|public}/records/modify
//        … records/lookup, records/query, changes/zone, zones/modify,
//          subscriptions/modify, kvs/modify, kvs/changes
//   GET  … zones/list, users/current
//   GET  … notifications (server-sent events: "zoneChanged", "keyValueChanged")
//   POST /admin/faults, /admin/purge; DELETE /admin/faults (admin, loopback only)
//
// A request is signed in with the ckWebAuthToken query parameter or an
// "Authorization: Bearer" header. A request that writes names its device in
// the X-Tamsel-Device-ID header, so that its pushes skip that device.
namespace tamsel::cloud {

class CloudServer {
public:
    struct Configuration {
        std::string address = "127.0.0.1";
        int port = 8790;  // 0: any free port
        std::optional<std::string> tlsCertificate;
        std::optional<std::string> tlsKey;
        // Push connections each hold a worker; the others keep this many.
        std::size_t requestWorkers = 16;
        std::size_t maximumPushStreams = 96;
        // How often an idle push connection gets a comment line, which is
        // also how soon a gone device's worker is freed.
        std::chrono::milliseconds pushHeartbeat{15'000};
    };

    CloudServer(std::shared_ptr<CloudStore> store, Configuration configuration);
    ~CloudServer();
    CloudServer(const CloudServer&) = delete;
    CloudServer& operator=(const CloudServer&) = delete;

    // Binds and starts serving on a thread of its own; the bound port.
    std::expected<int, std::string> start();
    // Closes the push connections and stops serving. Idempotent.
    void stop();

    // "http://127.0.0.1:PORT" (https with TLS).
    std::string baseURL() const;
    int port() const { return port_; }

    CloudStore& store() { return *store_; }
    FaultInjector& faults() { return faults_; }
    PushHub& push() { return push_; }
    // Requests received so far, of any kind.
    std::size_t requestCount() const { return requestCount_; }

    struct Impl;

private:
    std::shared_ptr<CloudStore> store_;
    Configuration configuration_;
    FaultInjector faults_;
    PushHub push_;
    std::unique_ptr<Impl> impl_;
    int port_ = 0;
    std::atomic<std::size_t> requestCount_ = 0;
};

}  // namespace tamsel::cloud
