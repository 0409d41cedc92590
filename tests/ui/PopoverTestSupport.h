#pragma once

// A popover wired to real files and SQLite under a fresh data root: a data
// manager whose rebuild requests are recorded, an extension manager that
// reloads through a scripted Safari, a history store on its own database and
// a manual clock, and a delegate that plays the extension handler.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "../control/FakeSafari.h"
#include "control/DataManager.h"
#include "control/ExtensionManager.h"
#include "model/SiteRules.h"
#include "platform/Calendar.h"
#include "platform/Clock.h"
#include "platform/MainRunLoop.h"
#include "platform/Stores.h"
#include "runtime/CoreDataStore.h"
#include "runtime/HistoryStore.h"
#include "storage/BlockerPreferenceManager.h"
#include "storage/DisabledStateMaps.h"
#include "storage/ExtensionReloading.h"
#include "storage/PackagePreferences.h"
#include "support/TestSupport.h"
#include "ui/SafariExtensionViewController.h"

namespace tamsel::ui::testing {

using namespace std::chrono_literals;

inline platform::Date utc(int y, unsigned m, unsigned d, int h = 0, int mi = 0) {
    using namespace std::chrono;
    return platform::Date{sys_days{year{y} / month{m} / day{d}}} + hours{h} + minutes{mi};
}

// The extension handler's side of the popover.
class FakeDelegate : public ActionViewControllerDelegate {
public:
    std::shared_ptr<platform::SafariPage> currentPage() const override { return page; }
    std::optional<std::string> currentPageURL() const override { return url; }
    bool isPopoverVisible() const override { return visible; }

    void open(const std::string& address) {
        url = address;
        page = std::make_shared<platform::StaticSafariPage>(
            platform::SafariPageProperties{address, "Page", false, true});
    }

    std::shared_ptr<platform::SafariPage> page;
    std::optional<std::string> url;
    bool visible = true;
};

class RecordingSystemActions : public SystemActions {
public:
    void launchApplication(const std::string& id) override { launched.push_back(id); }
    void openInBrowser(const std::string& url) override { browsed.push_back(url); }
    void openMailLink(const std::string& link) override { mailed.push_back(link); }
    std::vector<std::string> launched, browsed, mailed;
};

class PopoverTest : public ::testing::Test {
protected:
    PopoverTest() {
        platform::MainRunLoop::drain();
        manager.setGeneralPackages({model::Package("block-ads", "Ads", {})});
        manager.setConfigurablePackages({model::Package("whitelist", "Whitelist", {}),
                                         model::Package("make-https", "Make HTTPS-only", {})});
        SafariExtensionViewController::Collaborators collaborators;
        collaborators.dataManager = &manager;
        collaborators.extensionManager = extensions;
        collaborators.reloading = reloads;
        collaborators.history = &history;
        collaborators.systemActions = actions;
        collaborators.clock = &clock;
        collaborators.calendar = platform::Calendar("UTC");
        popover = SafariExtensionViewController::create(collaborators);
        popover->setDelegate(delegate);
        token = popover->observe([this](const PopoverChange& change) { changes.push_back(change); });
    }
    ~PopoverTest() override {
        // Background rule changes still use the data manager after they
        // completed; it goes with the fixture.
        WhitelistViewController::waitUntilSavesFinished();
        extensions->waitUntilIdle(10s);
        platform::MainRunLoop::drain();
    }

    // Opens a page and refreshes, as toolbar validation does.
    void openPage(const std::string& url) {
        delegate->open(url);
        popover->refreshForCurrentPage();
    }

    const SafariExtensionViewController::Row& row(const std::string& id) {
        rows_ = popover->rows();
        for (const auto& row : rows_) {
            if (row.id == id) return row;
        }
        ADD_FAILURE() << "no row " << id;
        return rows_.front();
    }

    // Runs the main queue until `done` holds.
    static bool runUntil(const std::function<bool()>& done) { return platform::MainRunLoop::runUntil(done, 10s); }

    template <class View>
    std::shared_ptr<View> child() const {
        const auto presented = popover->presentedChild();
        if (!presented) return nullptr;
        const auto* view = std::get_if<std::shared_ptr<View>>(&*presented);
        return view ? *view : nullptr;
    }

    void disablePackage(const std::string& id) {
        platform::UbiquitousStore::shared()->set(
            platform::Value(storage::encode(storage::DisabledPackages{{id, true}})),
            storage::BlockerPreferenceManager::disabledPackageIDsKey);
    }

    std::optional<model::Package> configurable(const std::string& id) const {
        for (const auto& package : manager.configurablePackages()) {
            if (package.id == id) return package;
        }
        return std::nullopt;
    }

    tamsel::testing::ScopedDataRoot root;
    tamsel::testing::LogCapture log;
    tamsel::testing::TemporaryDirectory storeFolder;
    platform::ManualClock clock{utc(2024, 5, 10, 8, 30)};
    runtime::CoreDataStore store{storeFolder.path(), clock};
    runtime::HistoryStore history{store, {&clock, platform::Calendar("UTC"), {}}};
    std::shared_ptr<storage::RecordingExtensionReloading> reloads =
        std::make_shared<storage::RecordingExtensionReloading>();
    control::DataManager manager{{reloads, nullptr}};
    std::shared_ptr<tamsel::testing::FakeSafari> safari = std::make_shared<tamsel::testing::FakeSafari>();
    std::shared_ptr<control::ExtensionManager> extensions = control::ExtensionManager::create([this] {
        control::ExtensionManager::Configuration configuration;
        configuration.dataManager = &manager;
        configuration.contentBlockers = safari;
        configuration.retryDelay = 1ms;
        return configuration;
    }());
    std::shared_ptr<RecordingSystemActions> actions = std::make_shared<RecordingSystemActions>();
    std::shared_ptr<FakeDelegate> delegate = std::make_shared<FakeDelegate>();
    std::shared_ptr<SafariExtensionViewController> popover;
    std::vector<PopoverChange> changes;
    SafariExtensionViewController::Token token;

private:
    std::vector<SafariExtensionViewController::Row> rows_;
};

}  // namespace tamsel::ui::testing
