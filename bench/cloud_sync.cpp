// How fast the cloud server and its client move a user's rules, and how soon
// a push reaches the user's other devices.
//
//   bench_cloud_sync [--database sqlite:PATH | postgresql://…] [--servers 1|2]
//                    [--records N] [--devices N] [--rounds N]
//
// Default: a fresh SQLite file in a temporary folder, one server, 10,000
// records, 50 devices, 5 rounds. With --servers 2 the writer talks to one
// server and every listening device to the other, both on the same database
// (two servers of this process, each with its own connections; on
// PostgreSQL they reach each other as separate processes would, through the
// database).
//
// Measures:
//   (a) saving N rule-sized records from device A in batches of 400
//       (modify-records operations through the client layer, one at a time);
//   (b) fetching them all on device B from no token, paged at 200;
//   (c) D devices of the user holding a push connection while A saves one
//       record: the time until each device is told, per round; the median
//       and the slowest.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "cloud/CloudServer.h"
#include "cloud/CloudStore.h"
#include "platform/CKContainer.h"
#include "platform/CKOperations.h"
#include "platform/CKPushConnection.h"
#include "platform/UUID.h"

namespace {

using namespace tamsel;
using Clock = std::chrono::steady_clock;
using platform::CKRecord;
using platform::CKRecordID;
using platform::CKRecordZoneID;

const CKRecordZoneID zone{"BlockerRulesZone", CKRecordZoneID::defaultOwnerName};

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

std::shared_ptr<platform::CKContainer> container(const std::string& url, const std::string& token,
                                                 const std::string& device) {
    platform::CKTransport::Configuration configuration;
    configuration.containerIdentifier = "iCloud.app.tamsel.Tamsel";
    configuration.account = [url, token] { return std::optional(platform::CloudAccount{url, "bench", token}); };
    configuration.deviceID = device;
    configuration.requestTimeout = std::chrono::seconds(120);
    return platform::CKContainer::make(std::move(configuration));
}

// A rule as the sync code writes it: about 350 bytes of fields.
std::shared_ptr<CKRecord> ruleRecord(int index) {
    auto record = std::make_shared<CKRecord>("rule", CKRecordID{fmt::format("rule-{:06}", index), zone});
    record->set("name", fmt::format("Block tracker {} on news sites", index));
    record->set("package", platform::CKReference{CKRecordID{"package-custom", zone}, platform::CKReference::Action::none});
    record->set("urlFilter", fmt::format("^https?://([^/]+\\\\.)?tracker{}\\\\.example\\\\.com/collect\\\\?id=", index));
    record->set("caseSensitive", std::int64_t{0});
    record->set("resourceTypes", std::vector<std::string>{"script", "image", "raw"});
    record->set("loadType", std::vector<std::string>{"third-party"});
    record->set("domainFilterType", std::string("if-domain"));
    record->set("domainFilterValues", std::vector<std::string>{"*news.example", "*daily.example"});
    record->set("actionType", std::string("block"));
    return record;
}

struct Options {
    std::string database;
    int servers = 1;
    int records = 10'000;
    int devices = 50;
    int rounds = 5;
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "bench_cloud_sync: %s needs a value\n", argument.c_str());
                std::exit(2);
            }
            return argv[++i];
        };
        if (argument == "--database") options.database = next();
        else if (argument == "--servers") options.servers = std::stoi(next());
        else if (argument == "--records") options.records = std::stoi(next());
        else if (argument == "--devices") options.devices = std::stoi(next());
        else if (argument == "--rounds") options.rounds = std::stoi(next());
        else {
            std::fprintf(stderr,
                         "usage: bench_cloud_sync [--database sqlite:PATH|postgresql://...] [--servers 1|2] "
                         "[--records N] [--devices N] [--rounds N]\n");
            return 2;
        }
    }
    const auto folder = std::filesystem::temp_directory_path() / ("tamsel-bench-cloud-" + platform::newUUIDString());
    std::filesystem::create_directories(folder);
    const bool temporaryDatabase = options.database.empty();
    if (temporaryDatabase) options.database = "sqlite:" + (folder / "cloud.sqlite").string();

    std::vector<std::shared_ptr<cloud::CloudStore>> stores;
    std::vector<std::unique_ptr<cloud::CloudServer>> servers;
    std::string token;
    try {
        if (options.database.starts_with("postgres")) {
            cloud::SQLDatabase::open(options.database)->transaction([](cloud::SQLConnection& sql) {
                sql.execute("DROP TABLE IF EXISTS users, zones, records, subscriptions, kv_items, kv_stores");
            });
        }
        for (int s = 0; s < std::max(1, std::min(2, options.servers)); ++s) {
            stores.push_back(std::make_shared<cloud::CloudStore>(cloud::SQLDatabase::open(options.database)));
            cloud::CloudServer::Configuration configuration;
            configuration.port = 0;
            configuration.maximumPushStreams = static_cast<std::size_t>(options.devices) + 8;
            servers.push_back(std::make_unique<cloud::CloudServer>(stores.back(), configuration));
            if (auto started = servers.back()->start(); !started) {
                std::fprintf(stderr, "bench_cloud_sync: %s\n", started.error().c_str());
                return 1;
            }
        }
        token = stores.front()->addUser("bench", false).value();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_cloud_sync: %s\n", error.what());
        return 1;
    }
    const std::string writerURL = servers.front()->baseURL();
    const std::string readerURL = servers.back()->baseURL();

    auto deviceA = container(writerURL, token, "device-A")->privateCloudDatabase();
    auto deviceB = container(readerURL, token, "device-B")->privateCloudDatabase();
    {
        auto save = std::make_shared<platform::CKModifyRecordZonesOperation>(std::vector{platform::CKRecordZone(zone)},
                                                                             std::vector<CKRecordZoneID>{});
        deviceA->addOperation(save);
        save->waitUntilFinished();
        auto subscribe = std::make_shared<platform::CKModifySubscriptionsOperation>(
            std::vector{platform::CKRecordZoneSubscription{zone, "bench", {true}}}, std::vector<std::string>{});
        deviceA->addOperation(subscribe);
        subscribe->waitUntilFinished();
    }

    // (a) Save.
    std::vector<std::shared_ptr<CKRecord>> records;
    for (int i = 0; i < options.records; ++i) records.push_back(ruleRecord(i));
    std::size_t recordBytes = 0;
    for (const auto& record : records) recordBytes += platform::ckwire::fieldsJSON(record->fields()).size();
    std::size_t saved = 0;
    const auto saveStart = Clock::now();
    for (std::size_t first = 0; first < records.size(); first += 400) {
        std::vector batch(records.begin() + static_cast<std::ptrdiff_t>(first),
                          records.begin() + static_cast<std::ptrdiff_t>(std::min(records.size(), first + 400)));
        auto operation = std::make_shared<platform::CKModifyRecordsOperation>(std::move(batch), std::vector<CKRecordID>{});
        operation->modifyRecordsCompletionBlock = [&saved](const auto& done, const auto&, const auto& error) {
            if (error) std::fprintf(stderr, "save failed: %s\n", error->localizedDescription().c_str());
            saved += done.size();
        };
        deviceA->addOperation(operation);
        operation->waitUntilFinished();
    }
    const double saveTime = seconds(Clock::now() - saveStart);

    // (b) Fetch on another device, from nothing.
    std::size_t fetched = 0;
    int pages = 0;
    const auto fetchStart = Clock::now();
    {
        auto operation = std::make_shared<platform::CKFetchRecordZoneChangesOperation>(
            std::vector{zone},
            std::unordered_map<CKRecordZoneID, platform::CKFetchRecordZoneChangesOperation::ZoneConfiguration>{
                {zone, {std::nullopt, 200}}});
        operation->recordChangedBlock = [&fetched](const auto&) { ++fetched; };
        operation->recordZoneChangeTokensUpdatedBlock = [&pages](const auto&, const auto&) { ++pages; };
        operation->fetchRecordZoneChangesCompletionBlock = [](const auto& error) {
            if (error) std::fprintf(stderr, "fetch failed: %s\n", error->localizedDescription().c_str());
        };
        deviceB->addOperation(operation);
        operation->waitUntilFinished();
    }
    const double fetchTime = seconds(Clock::now() - fetchStart);

    // (c) Push to the other devices.
    std::mutex mutex;
    std::condition_variable told;
    std::vector<Clock::time_point> arrivals(static_cast<std::size_t>(options.devices));
    int round = -1;
    int toldThisRound = 0;
    std::vector<std::unique_ptr<platform::CKPushConnection>> connections;
    for (int d = 0; d < options.devices; ++d) {
        auto device = container(readerURL, token, fmt::format("listener-{}", d));
        connections.push_back(std::make_unique<platform::CKPushConnection>(
            device->transport(), [&, d](const std::string& kind, const std::string&) {
                if (kind != "zoneChanged") return;
                std::lock_guard lock(mutex);
                if (round < 0 || arrivals[static_cast<std::size_t>(d)] != Clock::time_point{}) return;
                arrivals[static_cast<std::size_t>(d)] = Clock::now();
                ++toldThisRound;
                told.notify_all();
            }));
        connections.back()->start();
    }
    for (auto& connection : connections) {
        if (!connection->waitUntilConnected(std::chrono::seconds(30))) {
            std::fprintf(stderr, "bench_cloud_sync: a push connection did not open\n");
            return 1;
        }
    }
    std::vector<double> latencies;
    std::vector<double> slowest;
    for (int r = 0; r < options.rounds; ++r) {
        {
            std::lock_guard lock(mutex);
            std::fill(arrivals.begin(), arrivals.end(), Clock::time_point{});
            toldThisRound = 0;
            round = r;
        }
        auto record = ruleRecord(1'000'000 + r);
        auto operation = std::make_shared<platform::CKModifyRecordsOperation>(std::vector{record}, std::vector<CKRecordID>{});
        const auto start = Clock::now();
        deviceA->addOperation(operation);
        std::unique_lock lock(mutex);
        told.wait_for(lock, std::chrono::seconds(10), [&] { return toldThisRound == options.devices; });
        double worst = 0;
        for (const auto& arrival : arrivals) {
            if (arrival == Clock::time_point{}) {
                worst = 1e9;
                continue;
            }
            const double latency = seconds(arrival - start) * 1000;
            latencies.push_back(latency);
            worst = std::max(worst, latency);
        }
        slowest.push_back(worst);
        lock.unlock();
        operation->waitUntilFinished();
        round = -1;
    }
    for (auto& connection : connections) connection->stop();
    std::sort(latencies.begin(), latencies.end());
    std::sort(slowest.begin(), slowest.end());

    std::printf("cloud sync: %s, %zu server%s, %d records (%.0f bytes of fields each on average)\n",
                options.database.starts_with("sqlite") ? "SQLite" : "PostgreSQL", servers.size(),
                servers.size() == 1 ? "" : "s on one database", options.records,
                static_cast<double>(recordBytes) / std::max(1, options.records));
    std::printf("  save in batches of 400:     %.3f s, %zu saved, %.0f records/s\n", saveTime, saved,
                static_cast<double>(saved) / saveTime);
    std::printf("  fetch from no token (200):  %.3f s, %zu fetched in %d pages, %.0f records/s\n", fetchTime, fetched,
                pages + 1, static_cast<double>(fetched) / fetchTime);
    if (!latencies.empty()) {
        std::printf("  push to %d devices, %d rounds: median %.1f ms, slowest device per round %.1f..%.1f ms%s\n",
                    options.devices, options.rounds, latencies[latencies.size() / 2], slowest.front(), slowest.back(),
                    latencies.size() < static_cast<std::size_t>(options.devices * options.rounds) ? " (some never told)"
                                                                                                 : "");
    }
    for (auto& server : servers) server->stop();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return 0;
}
