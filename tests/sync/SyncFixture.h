#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "cloud/CloudServerFixture.h"
#include "control/DataManager.h"
#include "model/Package.h"
#include "model/Rule.h"
#include "platform/BuildConfig.h"
#include "platform/CKContainer.h"
#include "platform/Clock.h"
#include "platform/DataRoot.h"
#include "platform/MainRunLoop.h"
#include "platform/Stores.h"
#include "platform/UserDefaults.h"
#include "storage/ExtensionReloading.h"
#include "storage/PathProvider.h"
#include "support/TestSupport.h"
#include "sync/RecordMapping.h"
#include "sync/SyncManager.h"

namespace tamsel::sync::testing {

using namespace std::chrono_literals;

// Retries wait on a clock that only the test moves: advance() runs every
// retry whose time has come, so a 65,536-second wait takes no time at all.
class ManualScheduler {
public:
    SyncManager::Scheduler scheduler() {
        return [this](std::chrono::duration<double> delay, std::function<void()> block) {
            std::lock_guard lock(mutex_);
            const auto due = clock_.now() + std::chrono::duration_cast<platform::Date::duration>(delay);
            waiting_.push_back({due, std::move(block)});
            delays_.push_back(delay.count());
        };
    }

    // Moves the clock on and runs what became due, earliest first.
    void advance(std::chrono::duration<double> by) {
        clock_.advance(std::chrono::duration_cast<platform::Date::duration>(by));
        for (;;) {
            std::function<void()> block;
            {
                std::lock_guard lock(mutex_);
                auto due = std::min_element(waiting_.begin(), waiting_.end(),
                                            [](const auto& a, const auto& b) { return a.due < b.due; });
                if (due == waiting_.end() || due->due > clock_.now()) return;
                block = std::move(due->block);
                waiting_.erase(due);
            }
            block();
        }
    }

    std::vector<double> delays() const {
        std::lock_guard lock(mutex_);
        return delays_;
    }
    std::size_t waiting() const {
        std::lock_guard lock(mutex_);
        return waiting_.size();
    }

private:
    struct Waiting {
        platform::Date due;
        std::function<void()> block;
    };
    platform::ManualClock clock_;
    mutable std::mutex mutex_;
    std::vector<Waiting> waiting_;
    std::vector<double> delays_;
};

// Hands the data manager's reports to a sync manager made after it.
class ForwardingReporting : public control::RuleChangeReporting {
public:
    std::weak_ptr<SyncManager> target;
    void ruleAdded(const model::Rule& rule, const model::Package& inPackage) override {
        if (auto sync = target.lock()) sync->ruleAdded(rule, inPackage);
    }
    void ruleDeleted(const model::Rule& rule, const model::Package& inPackage) override {
        if (auto sync = target.lock()) sync->ruleDeleted(rule, inPackage);
    }
    void packageAdded(const model::Package& package) override {
        if (auto sync = target.lock()) sync->packageAdded(package);
    }
    void ruleCollectionAdded(const std::vector<model::Rule>& rules, const model::Package& inPackage) override {
        if (auto sync = target.lock()) sync->ruleCollectionAdded(rules, inPackage);
    }
};

// One machine: a data root of its own, its stores, data manager and sync
// manager, signed in to the test's cloud server. The package files follow
// the process's data root, so a test switches to a machine (use) before it
// works with it, and lets it settle before switching to the other.
struct Machine {
    std::string name;
    tamsel::testing::TemporaryDirectory home;
    std::shared_ptr<platform::UserDefaults> standard;
    std::shared_ptr<platform::UserDefaults> shared;
    std::shared_ptr<platform::UserDefaults> ubiquitous;
    std::shared_ptr<storage::RecordingExtensionReloading> reloads = std::make_shared<storage::RecordingExtensionReloading>();
    std::shared_ptr<ForwardingReporting> reporting = std::make_shared<ForwardingReporting>();
    std::unique_ptr<control::DataManager> data;
    // What the account file would say; none: signed out.
    std::shared_ptr<std::optional<platform::CloudAccount>> account = std::make_shared<std::optional<platform::CloudAccount>>();
    std::shared_ptr<platform::CKContainer> container;
    std::shared_ptr<SyncManager> sync;

    ~Machine() {
        if (sync) sync->waitUntilIdle(std::chrono::seconds(20));
        sync.reset();
    }
};

class SyncTest : public cloud::testing::CloudServerTest {
protected:
    ManualScheduler scheduler_;

    std::unique_ptr<Machine> makeMachine(const std::string& name, const std::string& token,
                                         const std::function<void(SyncManager::Configuration&, Machine&)>& adjust = {}) {
        auto machine = std::make_unique<Machine>();
        machine->name = name;
        const auto& home = machine->home.path();
        machine->standard = platform::UserDefaults::open(home / "extension", platform::Defaults::suiteName);
        machine->shared = platform::UserDefaults::open(home / "group", build::groupIdentifier);
        machine->ubiquitous = platform::UserDefaults::open(home / "cloud", "ubiquitous");
        *machine->account = platform::CloudAccount{server_->baseURL(), name, token};
        platform::CKTransport::Configuration transport;
        transport.containerIdentifier = std::string("iCloud.") + build::baseIdentifier;
        transport.account = [account = machine->account] { return *account; };
        transport.deviceID = "device-" + name;
        transport.requestTimeout = 10s;
        machine->container = platform::CKContainer::make(std::move(transport));
        machine->data = std::make_unique<control::DataManager>(
            control::DataManager::Collaborators{machine->reloads, machine->reporting});

        SyncManager::Configuration configuration;
        configuration.container = machine->container;
        configuration.standardDefaults = machine->standard;
        configuration.sharedDefaults = machine->shared;
        configuration.ubiquitousStore = machine->ubiquitous;
        configuration.dataManager = machine->data.get();
        configuration.reloading = machine->reloads;
        configuration.scheduleAfter = scheduler_.scheduler();
        configuration.observeNotifications = false;
        configuration.isButtonExtension = [] { return true; };
        configuration.isMainApp = [] { return false; };
        configuration.isMainAppRunning = [] { return false; };
        if (adjust) adjust(configuration, *machine);
        machine->sync = SyncManager::create(std::move(configuration));
        machine->reporting->target = machine->sync;
        return machine;
    }

    static void use(Machine& machine) {
        platform::DataRoot::setHome(machine.home.path());
        storage::PathProvider::resetForTesting();
        platform::resetSharedStoresForTesting();
    }

    static void settle(Machine& machine) {
        ASSERT_TRUE(machine.sync->waitUntilIdle(20s)) << machine.name << " did not settle";
        platform::MainRunLoop::drain();
    }

    // Gives a machine custom packages as if it had them before sync began.
    static void givePackages(Machine& machine, const std::vector<model::Package>& packages) {
        use(machine);
        {
            auto editing = machine.data->beginEditing();
            for (const auto& package : packages) machine.data->addOrReplaceCustomPackage(package);
            machine.data->savePackages({model::JSONFileName::blockCustom}, false);
        }
        platform::MainRunLoop::drain();
    }

    static void startSync(Machine& machine) {
        use(machine);
        machine.sync->update(machine.data->customPackages());
        settle(machine);
    }

    static bool fetch(Machine& machine) {
        use(machine);
        std::atomic<bool> done = false;
        machine.sync->fetchRemoteChanges([&done] { done = true; });
        settle(machine);
        return done;
    }

    static void saveRule(Machine& machine, const model::Rule& rule, const std::string& packageID) {
        use(machine);
        const auto package = findPackage(machine, packageID);
        ASSERT_TRUE(package) << packageID;
        machine.data->saveRule(rule, *package);
        settle(machine);
    }

    static void deleteRule(Machine& machine, const model::Rule& rule, const std::string& packageID) {
        use(machine);
        const auto package = findPackage(machine, packageID);
        ASSERT_TRUE(package) << packageID;
        machine.data->deleteRule(rule, *package);
        settle(machine);
    }

    static std::optional<model::Package> findPackage(Machine& machine, const std::string& packageID) {
        for (const auto& package : machine.data->customPackages()) {
            if (package.id == packageID) return package;
        }
        for (const auto& package : machine.data->configurablePackages()) {
            if (package.id == packageID) return package;
        }
        return std::nullopt;
    }

    static std::optional<model::Rule> findRule(Machine& machine, const std::string& packageID, const std::string& ruleID) {
        const auto package = findPackage(machine, packageID);
        if (!package) return std::nullopt;
        for (const auto& rule : package->rules) {
            if (rule.id == ruleID) return rule;
        }
        return std::nullopt;
    }

    static model::Rule hideRule(const std::string& id, const std::string& name, const std::string& selector,
                                std::vector<std::string> domains = {"example.com"}) {
        model::Blocker blocker;
        blocker.trigger.urlFilter = ".*";
        blocker.trigger.domainFilter = model::DomainFilter{model::DomainFilterType::ifDomain, std::move(domains)};
        blocker.action.type = model::ActionType::hide;
        blocker.action.selector = selector;
        return model::Rule(id, name, blocker);
    }

    static model::Rule blockRule(const std::string& id, const std::string& urlFilter) {
        model::Blocker blocker;
        blocker.trigger.urlFilter = urlFilter;
        blocker.trigger.caseSensitive = true;
        blocker.trigger.resourceTypes = std::vector{model::ResourceType::script, model::ResourceType::image};
        blocker.trigger.loadType = std::vector{model::LoadType::thirdParty};
        blocker.action.type = model::ActionType::block;
        return model::Rule(id, "Block " + urlFilter, blocker);
    }

    // Records of the rules zone on the server: live ones, by name.
    std::map<std::string, std::string> serverRecords(const std::string& token) {
        std::map<std::string, std::string> records;
        std::string syncToken;
        for (;;) {
            auto answer = changes(tamsel::sync::zoneName, token, syncToken, 200);
            simdjson::dom::array list;
            if (answer->json.at_pointer("/zones/0/records").get(list) != simdjson::SUCCESS) return records;
            for (simdjson::dom::element record : list) {
                std::string_view recordName;
                bool deleted = false;
                if (record["recordName"].get(recordName) != simdjson::SUCCESS) continue;
                if (record["deleted"].get(deleted) == simdjson::SUCCESS && deleted) {
                    records.erase(std::string(recordName));
                    continue;
                }
                records.insert_or_assign(std::string(recordName), simdjson::to_string(record));
            }
            bool more = false;
            if (answer->json.at_pointer("/zones/0/moreComing").get(more) != simdjson::SUCCESS) more = false;
            syncToken = answer->text("/zones/0/syncToken");
            if (!more) return records;
        }
    }
};

}  // namespace tamsel::sync::testing
