#pragma once

#include <chrono>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/CKError.h"
#include "platform/CKRecord.h"
#include "platform/CloudAccount.h"
#include "platform/OperationQueue.h"

// The cloud client's container and databases, after CloudKit's. A container
// talks to the cloud server of the configured account (CloudAccount); with
// none it reports "no account" and sends nothing at all.
namespace tamsel::platform {

class CKDatabaseOperation;

// Sends requests to the server for one container; shared by the container
// and its databases.
class CKTransport {
public:
    struct Configuration {
        std::string containerIdentifier;
        std::string environment = "development";
        // Where the account comes from; by default CloudAccount::load(), read
        // at every request so that a sign-in or -out takes effect at once.
        std::function<std::optional<CloudAccount>()> account;
        std::string deviceID;  // empty: CloudAccount::deviceID()
        std::chrono::milliseconds requestTimeout{30'000};
    };

    explicit CKTransport(Configuration configuration);

    const Configuration& configuration() const { return configuration_; }
    std::optional<CloudAccount> account() const;
    std::string deviceID() const;

    // Posts (or, with an empty body, gets) `endpoint` of the database and
    // gives back the body of a 200 answer; any other answer or no answer is
    // the CKError it means. Without an account: notAuthenticated, unsent.
    std::expected<std::string, CKError> send(bool publicDatabase, const std::string& endpoint, const std::string& body,
                                             const std::function<bool()>& isCancelled = {}) const;

    // The URL of a database endpoint ("…/database/1/C/E/private/ENDPOINT").
    std::string url(const CloudAccount& account, bool publicDatabase, const std::string& endpoint) const;

private:
    Configuration configuration_;
};

class CKDatabase : public std::enable_shared_from_this<CKDatabase> {
public:
    enum class Scope { publicScope = 1, privateScope = 2 };

    CKDatabase(std::shared_ptr<CKTransport> transport, Scope scope);

    Scope databaseScope() const { return scope_; }
    const std::shared_ptr<CKTransport>& transport() const { return transport_; }

    // Runs the operation on this database's own queue.
    void addOperation(const std::shared_ptr<CKDatabaseOperation>& operation);
    OperationQueue& queue() { return queue_; }

private:
    std::shared_ptr<CKTransport> transport_;
    Scope scope_;
    OperationQueue queue_;
};

class CKContainer : public std::enable_shared_from_this<CKContainer> {
public:
    // Posted on NotificationCenter::defaultCenter() when the configured
    // account changes (signed in, out, or as someone else).
    static inline const std::string accountChangedNotification = "CKAccountChanged";

    // A container of the configured account.
    static std::shared_ptr<CKContainer> container(std::string identifier);
    static std::shared_ptr<CKContainer> make(CKTransport::Configuration configuration);
    ~CKContainer();

    const std::string& containerIdentifier() const { return transport_->configuration().containerIdentifier; }
    std::shared_ptr<CKDatabase> privateCloudDatabase() const { return private_; }
    std::shared_ptr<CKDatabase> publicCloudDatabase() const { return public_; }
    const std::shared_ptr<CKTransport>& transport() const { return transport_; }

    // Asks the server who the account is: available (it answers), no
    // account (none configured, or the server does not know the token),
    // restricted (the server refuses it), could not determine (no answer).
    // The completion runs on a background queue.
    void accountStatus(std::function<void(CKAccountStatus, std::optional<CKError>)> completion) const;
    // The same, on the calling thread.
    std::pair<CKAccountStatus, std::optional<CKError>> accountStatusNow() const;

    // Looks at the account file every `interval` and posts
    // accountChangedNotification when it changed. Stops with the container.
    void startMonitoringAccountChanges(std::chrono::milliseconds interval = std::chrono::seconds(1));

private:
    explicit CKContainer(std::shared_ptr<CKTransport> transport);
    void scheduleAccountCheck(std::chrono::milliseconds interval, std::optional<CloudAccount> last);

    std::shared_ptr<CKTransport> transport_;
    std::shared_ptr<CKDatabase> private_;
    std::shared_ptr<CKDatabase> public_;
};

}  // namespace tamsel::platform
