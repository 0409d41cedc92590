// How long the user's rules take to travel between two machines through the
// cloud server, with the whole sync engine in the path.
//
//   bench_user_rules_sync [--rounds N] [--rules N]
//
// Two data roots ("machines") of one user against a loopback cloud server
// on a temporary SQLite file. Measures:
//   (a) visibility: machine A saves one rule through its data manager; the
//       time until machine B's data manager holds it (A's push, the server's
//       push event to B, B's fetch and apply). Median and slowest of N rounds
//       (default 20).
//   (b) the initial upload of a custom package of N rules (default 5,000)
//       from a fresh machine: update() until every change is confirmed,
//       including the limit-exceeded splits the server's 400-records cap
//       forces.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "cloud/CloudServer.h"
#include "cloud/CloudStore.h"
#include "control/DataManager.h"
#include "platform/BuildConfig.h"
#include "platform/CKContainer.h"
#include "platform/CKPushConnection.h"
#include "platform/DataRoot.h"
#include "platform/Log.h"
#include "platform/Stores.h"
#include "platform/UserDefaults.h"
#include "storage/ExtensionReloading.h"
#include "storage/PathProvider.h"
#include "sync/SyncManager.h"

namespace {

using namespace tamsel;
using Clock = std::chrono::steady_clock;

double milliseconds(Clock::duration duration) { return std::chrono::duration<double, std::milli>(duration).count(); }

struct Machine {
    std::filesystem::path home;
    std::unique_ptr<control::DataManager> data;
    std::shared_ptr<sync::SyncManager> sync;
    std::unique_ptr<platform::CKPushConnection> push;

    void use() const {
        platform::DataRoot::setHome(home);
        storage::PathProvider::resetForTesting();
        platform::resetSharedStoresForTesting();
    }
};

class Reports : public control::RuleChangeReporting {
public:
    std::weak_ptr<sync::SyncManager> target;
    void ruleAdded(const model::Rule& rule, const model::Package& inPackage) override {
        if (auto sync = target.lock()) sync->ruleAdded(rule, inPackage);
    }
    void ruleDeleted(const model::Rule& rule, const model::Package& inPackage) override {
        if (auto sync = target.lock()) sync->ruleDeleted(rule, inPackage);
    }
};

std::unique_ptr<Machine> makeMachine(const std::filesystem::path& home, const std::string& url, const std::string& token,
                                     const std::string& device) {
    auto machine = std::make_unique<Machine>();
    machine->home = home;
    auto reports = std::make_shared<Reports>();
    machine->data = std::make_unique<control::DataManager>(
        control::DataManager::Collaborators{std::make_shared<storage::RecordingExtensionReloading>(), reports});
    platform::CKTransport::Configuration transport;
    transport.containerIdentifier = std::string("iCloud.") + build::baseIdentifier;
    transport.account = [url, token] { return std::optional(platform::CloudAccount{url, "bench", token}); };
    transport.deviceID = device;
    transport.requestTimeout = std::chrono::seconds(120);
    sync::SyncManager::Configuration configuration;
    configuration.container = platform::CKContainer::make(std::move(transport));
    configuration.standardDefaults = platform::UserDefaults::open(home / "extension", "standard");
    configuration.sharedDefaults = platform::UserDefaults::open(home / "group", build::groupIdentifier);
    configuration.ubiquitousStore = platform::UserDefaults::open(home / "cloud", "ubiquitous");
    configuration.dataManager = machine->data.get();
    configuration.reloading = std::make_shared<storage::RecordingExtensionReloading>();
    configuration.observeNotifications = false;
    configuration.scheduleAfter = [](std::chrono::duration<double>, std::function<void()> block) { block(); };
    machine->sync = sync::SyncManager::create(std::move(configuration));
    reports->target = machine->sync;
    return machine;
}

model::Rule rule(int index) {
    model::Blocker blocker;
    blocker.trigger.urlFilter = fmt::format("^https?://([^/]+\\.)?tracker{}\\.example/", index);
    blocker.trigger.resourceTypes = std::vector{model::ResourceType::script};
    blocker.trigger.domainFilter = model::DomainFilter{model::DomainFilterType::unlessDomain, {"*example.org"}};
    blocker.action.type = model::ActionType::block;
    return model::Rule(fmt::format("RULE-{:05}", index), fmt::format("Tracker {}", index), blocker);
}

bool holds(const control::DataManager& data, const std::string& ruleID) {
    for (const auto& package : *data.customPackageList()) {
        for (const auto& held : package.rules) {
            if (held.id == ruleID) return true;
        }
    }
    return false;
}

void give(Machine& machine, const model::Package& package) {
    machine.use();
    auto editing = machine.data->beginEditing();
    machine.data->addOrReplaceCustomPackage(package);
    machine.data->savePackages({model::JSONFileName::blockCustom}, false);
}

}  // namespace

int main(int argc, char** argv) {
    int rounds = 20;
    int rules = 5000;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--rounds") rounds = std::atoi(argv[i + 1]);
        if (option == "--rules") rules = std::atoi(argv[i + 1]);
    }
    // The engine's log lines would dominate the timings on a terminal.
    platform::setLogSink([](const platform::LogRecord&) {}, true);

    const auto folder = std::filesystem::temp_directory_path() / ("tamsel-bench-sync-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    auto store = std::make_shared<cloud::CloudStore>(cloud::SQLDatabase::open("sqlite:" + (folder / "cloud.sqlite").string()));
    const std::string token = store->addUser("bench", false).value();
    cloud::CloudServer::Configuration serverConfiguration;
    serverConfiguration.port = 0;
    cloud::CloudServer server(store, serverConfiguration);
    if (!server.start()) {
        std::fprintf(stderr, "the cloud server did not start\n");
        return 1;
    }
    const std::string url = server.baseURL();

    // (a) A → B through push and fetch.
    auto a = makeMachine(folder / "a", url, token, "device-a");
    auto b = makeMachine(folder / "b", url, token, "device-b");
    give(*a, model::Package("mine", "Mine", {rule(0)}));
    a->use();
    a->sync->update(a->data->customPackages());
    a->sync->waitUntilIdle(std::chrono::minutes(1));
    b->use();
    b->sync->update({});
    b->sync->waitUntilIdle(std::chrono::minutes(1));
    b->sync->fetchRemoteChanges({});
    b->sync->waitUntilIdle(std::chrono::minutes(1));
    std::weak_ptr<sync::SyncManager> bSync = b->sync;
    b->push = std::make_unique<platform::CKPushConnection>(b->sync->container()->transport(),
                                                          [bSync](const std::string& kind, const std::string&) {
                                                              if (kind != "zoneChanged") return;
                                                              if (auto sync = bSync.lock()) sync->handleNotification({});
                                                          });
    b->push->start();
    if (!b->push->waitUntilConnected(std::chrono::seconds(10)) || !holds(*b->data, "RULE-00000")) {
        std::fprintf(stderr, "machine B is not in step\n");
        return 1;
    }

    std::vector<double> visible;
    for (int round = 1; round <= rounds; ++round) {
        const model::Rule added = rule(round);
        a->use();
        const auto package = a->data->customPackages().front();
        const auto start = Clock::now();
        a->data->saveRule(added, package);
        // B's fetch writes B's package files: B's data root from here on.
        b->use();
        while (!holds(*b->data, added.id)) {
            if (Clock::now() - start > std::chrono::seconds(30)) {
                std::fprintf(stderr, "round %d: the rule never reached B\n", round);
                return 1;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        visible.push_back(milliseconds(Clock::now() - start));
        a->sync->waitUntilIdle(std::chrono::minutes(1));
        b->sync->waitUntilIdle(std::chrono::minutes(1));
    }
    b->push->stop();
    std::sort(visible.begin(), visible.end());
    std::printf("A -> B visibility (save on A until B's data manager holds the rule), %d rounds:\n", rounds);
    std::printf("  median %.1f ms, fastest %.1f ms, slowest %.1f ms\n", visible[visible.size() / 2], visible.front(),
                visible.back());

    // (b) The initial upload of many custom rules from a fresh machine (its
    // own user, so that its zone starts empty).
    const std::string uploader = store->addUser("uploader", false).value();
    auto c = makeMachine(folder / "c", url, uploader, "device-c");
    std::vector<model::Rule> many;
    many.reserve(static_cast<std::size_t>(rules));
    for (int i = 0; i < rules; ++i) many.push_back(rule(i));
    give(*c, model::Package("many", "Many", many));
    c->use();
    const auto requestsBefore = server.requestCount();
    const auto start = Clock::now();
    c->sync->update(c->data->customPackages());
    c->sync->waitUntilIdle(std::chrono::minutes(30));
    const double elapsed = milliseconds(Clock::now() - start);
    const auto left = c->sync->localChanges().changes().count();
    const auto totals = c->sync->totals();
    std::printf("initial upload of 1 package with %d rules (%zu records): %.0f ms, %.0f records/s, "
                "%zu requests, %zu failed pushes (limit exceeded), %zu changes left\n",
                rules, totals.recordsSaved, elapsed, static_cast<double>(totals.recordsSaved) / (elapsed / 1000.0),
                server.requestCount() - requestsBefore, totals.pushFailures, left);

    a.reset();
    b.reset();
    c.reset();
    server.stop();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return left == 0 ? 0 : 1;
}
