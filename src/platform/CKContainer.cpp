#include "platform/CKContainer.h"

#include <charconv>

#include <simdjson.h>

#include "platform/CKOperations.h"
#include "platform/CKWire.h"
#include "platform/DispatchQueue.h"
#include "platform/HTTPClient.h"
#include "platform/Log.h"
#include "platform/NotificationCenter.h"
#include "platform/Text.h"

namespace tamsel::platform {
namespace {

const SystemLogger& logger() {
    static const SystemLogger instance("CloudKit");
    return instance;
}

std::optional<double> secondsIn(std::string_view text) {
    double seconds = 0;
    const auto trimmedText = trimmed(text);
    auto [end, error] = std::from_chars(trimmedText.data(), trimmedText.data() + trimmedText.size(), seconds);
    if (error != std::errc() || end != trimmedText.data() + trimmedText.size() || seconds < 0) return std::nullopt;
    return seconds;
}

// What an answer other than 200 means.
CKError errorFromAnswer(long status, const std::string& body, const std::optional<std::string>& retryAfterHeader) {
    CKError error = CKError::make(ckErrorCodeForHTTPStatus(status), "The server answered with status " + std::to_string(status));
    simdjson::dom::parser parser;
    simdjson::dom::element json;
    if (parser.parse(body).get(json) == simdjson::SUCCESS) {
        std::string_view code;
        if (json["serverErrorCode"].get(code) == simdjson::SUCCESS) {
            error.serverErrorCode = std::string(code);
            if (auto mapped = ckErrorCodeForServerCode(code)) error.code = *mapped;
        }
        std::string_view reason;
        if (json["reason"].get(reason) == simdjson::SUCCESS) error.description = std::string(reason);
        double retryAfter = 0;
        if (json["retryAfter"].get(retryAfter) == simdjson::SUCCESS && retryAfter >= 0) {
            error.retryAfterSeconds = retryAfter;
        }
    }
    if (!error.retryAfterSeconds && retryAfterHeader) error.retryAfterSeconds = secondsIn(*retryAfterHeader);
    return error;
}

}  // namespace

// MARK: - Transport

CKTransport::CKTransport(Configuration configuration) : configuration_(std::move(configuration)) {}

std::optional<CloudAccount> CKTransport::account() const {
    if (configuration_.account) return configuration_.account();
    auto loaded = CloudAccount::load();
    if (!loaded) {
        logger().error("The cloud account cannot be read: %s", loaded.error().c_str());
        return std::nullopt;
    }
    return *loaded;
}

std::string CKTransport::deviceID() const {
    return configuration_.deviceID.empty() ? CloudAccount::deviceID() : configuration_.deviceID;
}

std::string CKTransport::url(const CloudAccount& account, bool publicDatabase, const std::string& endpoint) const {
    std::string base = account.serverURL;
    while (base.ends_with('/')) base.pop_back();
    return base + "/database/1/" + configuration_.containerIdentifier + "/" + configuration_.environment +
           (publicDatabase ? "/public/" : "/private/") + endpoint;
}

std::expected<std::string, CKError> CKTransport::send(bool publicDatabase, const std::string& endpoint,
                                                      const std::string& body,
                                                      const std::function<bool()>& isCancelled) const {
    auto account = this->account();
    if (!account) return std::unexpected(CKError::make(CKError::Code::notAuthenticated, "No account"));
    HTTPRequest request{url(*account, publicDatabase, endpoint),
                        body.empty() ? HTTPRequest::Method::get : HTTPRequest::Method::post,
                        configuration_.requestTimeout, {}};
    request.totalTimeout = configuration_.requestTimeout;
    request.maximumBodySize = 256 * 1024 * 1024;
    request.body = body;
    request.headers = {{"Content-Type", "application/json"},
                       {"Authorization", "Bearer " + account->token},
                       {std::string(ckwire::deviceIDHeader), deviceID()}};
    request.isCancelled = isCancelled;
    auto answer = HTTPClient::fetch(request);
    if (!answer) {
        if (answer.error().code == HTTPError::Code::cancelled) {
            return std::unexpected(CKError::make(CKError::Code::operationCancelled, "The operation was cancelled."));
        }
        return std::unexpected(CKError::make(CKError::Code::networkFailure, answer.error().description));
    }
    if (answer->first.status != 200) {
        return std::unexpected(errorFromAnswer(answer->first.status, answer->second, answer->first.header("Retry-After")));
    }
    return std::move(answer->second);
}

// MARK: - Database

CKDatabase::CKDatabase(std::shared_ptr<CKTransport> transport, Scope scope)
    : transport_(std::move(transport)),
      scope_(scope),
      queue_(std::string("CKDatabase ") + (scope == Scope::publicScope ? "public" : "private")) {
    queue_.setMaxConcurrentOperationCount(4);
}

void CKDatabase::addOperation(const std::shared_ptr<CKDatabaseOperation>& operation) {
    operation->setDatabase(shared_from_this());
    queue_.addOperation(operation);
}

// MARK: - Container

CKContainer::CKContainer(std::shared_ptr<CKTransport> transport)
    : transport_(std::move(transport)),
      private_(std::make_shared<CKDatabase>(transport_, CKDatabase::Scope::privateScope)),
      public_(std::make_shared<CKDatabase>(transport_, CKDatabase::Scope::publicScope)) {}

CKContainer::~CKContainer() = default;

std::shared_ptr<CKContainer> CKContainer::container(std::string identifier) {
    CKTransport::Configuration configuration;
    configuration.containerIdentifier = std::move(identifier);
    return make(std::move(configuration));
}

std::shared_ptr<CKContainer> CKContainer::make(CKTransport::Configuration configuration) {
    return std::shared_ptr<CKContainer>(new CKContainer(std::make_shared<CKTransport>(std::move(configuration))));
}

std::pair<CKAccountStatus, std::optional<CKError>> CKContainer::accountStatusNow() const {
    if (!transport_->account()) return {CKAccountStatus::noAccount, std::nullopt};
    auto answer = transport_->send(false, "users/current", {});
    if (answer) return {CKAccountStatus::available, std::nullopt};
    switch (answer.error().code) {
        case CKError::Code::notAuthenticated: return {CKAccountStatus::noAccount, answer.error()};
        case CKError::Code::permissionFailure: return {CKAccountStatus::restricted, answer.error()};
        default: return {CKAccountStatus::couldNotDetermine, answer.error()};
    }
}

void CKContainer::accountStatus(std::function<void(CKAccountStatus, std::optional<CKError>)> completion) const {
    DispatchQueue::global(QualityOfService::userInitiated)
        .async([self = shared_from_this(), completion = std::move(completion)] {
            auto [status, error] = self->accountStatusNow();
            if (completion) completion(status, error);
        });
}

void CKContainer::startMonitoringAccountChanges(std::chrono::milliseconds interval) {
    scheduleAccountCheck(interval, transport_->account());
}

void CKContainer::scheduleAccountCheck(std::chrono::milliseconds interval, std::optional<CloudAccount> last) {
    std::weak_ptr<CKContainer> weak = shared_from_this();
    DispatchQueue::global(QualityOfService::utility).asyncAfter(interval, [weak, interval, last] {
        auto self = weak.lock();
        if (!self) return;
        auto now = self->transport_->account();
        if (now != last) NotificationCenter::defaultCenter().post(accountChangedNotification);
        self->scheduleAccountCheck(interval, now);
    });
}

}  // namespace tamsel::platform
