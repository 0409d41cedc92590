#pragma once

#include <gtest/gtest.h>
#include <simdjson.h>

#include <fmt/format.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "cloud/CloudServer.h"
#include "cloud/CloudStore.h"
#include "platform/CKWire.h"
#include "platform/HTTPClient.h"
#include "support/TestSupport.h"

namespace tamsel::cloud::testing {

// One answer of the server, parsed.
struct Answer {
    long status = 0;
    std::string body;
    std::optional<std::string> retryAfterHeader;
    simdjson::dom::parser parser;
    simdjson::dom::element json;

    std::string code() const {
        std::string_view text;
        if (json["serverErrorCode"].get(text) != simdjson::SUCCESS) return {};
        return std::string(text);
    }
    simdjson::dom::element at(std::string_view pointer) const { return json.at_pointer(pointer).value_unsafe(); }
    std::string text(std::string_view pointer) const {
        std::string_view value;
        if (json.at_pointer(pointer).get(value) != simdjson::SUCCESS) return {};
        return std::string(value);
    }
    bool has(std::string_view pointer) const { return json.at_pointer(pointer).error() == simdjson::SUCCESS; }
    std::size_t count(std::string_view pointer) const {
        simdjson::dom::array array;
        if (json.at_pointer(pointer).get(array) != simdjson::SUCCESS) return 0;
        return array.size();
    }
};

// A server on 127.0.0.1 over a temporary SQLite file, with an administrator
// ("admin") and two users ("alice", "bob").
//
// With TAMSEL_CLOUD_TEST_POSTGRESQL set to a connection address the same
// tests run on that PostgreSQL database instead, emptied before each test
// (run the test program itself then, one test at a time).
class CloudServerTest : public ::testing::Test {
protected:
    static std::string databaseAddress(const std::filesystem::path& directory) {
        if (const char* postgres = std::getenv("TAMSEL_CLOUD_TEST_POSTGRESQL"); postgres && *postgres) {
            SQLDatabase::open(postgres)->transaction([](SQLConnection& sql) {
                sql.execute("DROP TABLE IF EXISTS users, zones, records, subscriptions, kv_items, kv_stores");
            });
            return postgres;
        }
        return "sqlite:" + (directory / "cloud.sqlite").string();
    }

    void SetUp() override {
        store_ = std::make_shared<CloudStore>(SQLDatabase::open(databaseAddress(directory_.path())));
        adminToken_ = store_->addUser("admin", true).value();
        aliceToken_ = store_->addUser("alice", false).value();
        bobToken_ = store_->addUser("bob", false).value();
        startServer();
    }

    void TearDown() override {
        if (server_) server_->stop();
    }

    virtual CloudServer::Configuration configuration() {
        CloudServer::Configuration configuration;
        configuration.port = 0;
        return configuration;
    }

    void startServer() {
        server_ = std::make_unique<CloudServer>(store_, configuration());
        ASSERT_TRUE(server_->start().has_value());
    }

    static std::string databasePath(const std::string& database = "private",
                                    const std::string& container = "iCloud.app.tamsel.Tamsel") {
        return "/database/1/" + container + "/development/" + database + "/";
    }

    std::unique_ptr<Answer> request(platform::HTTPRequest::Method method, const std::string& path,
                                    const std::string& body, const std::string& token,
                                    const std::string& device = "device-1") const {
        platform::HTTPRequest request{server_->baseURL() + path, method, std::chrono::seconds(10), {}};
        request.body = body;
        request.headers.emplace_back("Content-Type", "application/json");
        if (!token.empty()) request.headers.emplace_back("Authorization", "Bearer " + token);
        if (!device.empty()) request.headers.emplace_back(std::string(platform::ckwire::deviceIDHeader), device);
        auto result = platform::HTTPClient::fetch(request);
        auto answer = std::make_unique<Answer>();
        if (!result) {
            ADD_FAILURE() << "no answer: " << result.error().description;
            return answer;
        }
        answer->status = result->first.status;
        answer->body = std::move(result->second);
        answer->retryAfterHeader = result->first.header("Retry-After");
        if (answer->parser.parse(answer->body).get(answer->json) != simdjson::SUCCESS) {
            ADD_FAILURE() << "not JSON: " << answer->body;
        }
        return answer;
    }

    std::unique_ptr<Answer> post(const std::string& path, const std::string& body, const std::string& token,
                                 const std::string& device = "device-1") const {
        return request(platform::HTTPRequest::Method::post, path, body, token, device);
    }
    std::unique_ptr<Answer> get(const std::string& path, const std::string& token) const {
        return request(platform::HTTPRequest::Method::get, path, {}, token);
    }

    std::unique_ptr<Answer> modify(const std::string& operations, const std::string& token,
                                   const std::string& zone = "_defaultZone", const std::string& database = "private",
                                   const std::string& container = "iCloud.app.tamsel.Tamsel") const {
        return post(databasePath(database, container) + "records/modify",
                    fmt::format(R"({{"zoneID":{{"zoneName":"{}"}},"operations":[{}]}})", zone, operations), token);
    }

    static std::string operation(const std::string& type, const std::string& name, const std::string& fields = "{}",
                                 const std::string& tag = "", const std::string& recordType = "rule") {
        std::string record = fmt::format(R"("recordName":"{}","recordType":"{}","fields":{})", name, recordType, fields);
        if (!tag.empty()) record += fmt::format(R"(,"recordChangeTag":"{}")", tag);
        return fmt::format(R"({{"operationType":"{}","record":{{{}}}}})", type, record);
    }

    std::unique_ptr<Answer> createZone(const std::string& zone, const std::string& token) const {
        return post(databasePath() + "zones/modify",
                    fmt::format(R"({{"operations":[{{"operationType":"create","zone":{{"zoneID":{{"zoneName":"{}"}}}}}}]}})", zone),
                    token);
    }

    std::unique_ptr<Answer> changes(const std::string& zone, const std::string& token, const std::string& syncToken = "",
                                    int limit = 200) const {
        std::string zoneRequest = fmt::format(R"({{"zoneID":{{"zoneName":"{}"}},"resultsLimit":{})", zone, limit);
        if (!syncToken.empty()) zoneRequest += fmt::format(R"(,"syncToken":"{}")", syncToken);
        return post(databasePath() + "changes/zone", R"({"zones":[)" + zoneRequest + "}]}", token);
    }

    std::unique_ptr<Answer> lookup(const std::string& name, const std::string& token,
                                   const std::string& zone = "_defaultZone") const {
        return post(databasePath() + "records/lookup",
                    fmt::format(R"({{"zoneID":{{"zoneName":"{}"}},"records":[{{"recordName":"{}"}}]}})", zone, name),
                    token);
    }

    std::unique_ptr<Answer> injectFault(const std::string& rule) const { return post("/admin/faults", rule, adminToken_); }

    tamsel::testing::ScopedDataRoot root_;
    tamsel::testing::TemporaryDirectory directory_;
    std::shared_ptr<CloudStore> store_;
    std::unique_ptr<CloudServer> server_;
    std::string adminToken_, aliceToken_, bobToken_;
};

}  // namespace tamsel::cloud::testing
