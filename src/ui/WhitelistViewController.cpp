#include "ui/WhitelistViewController.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "model/ConfigurableType.h"
#include "model/SiteDomain.h"
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "storage/PackagePreferences.h"
#include "ui/Texts.h"

namespace tamsel::ui {

namespace {

using control::RuleChanger;
using model::ExtensionType;

const platform::SystemLogger& popoverLog() {
    static const platform::SystemLogger logger("Popover");
    return logger;
}

const char* text(bool value) { return value ? "true" : "false"; }

// Lives as long as the process (never destroyed, so exit never waits on it).
platform::DispatchQueue& saveQueue() {
    static auto* queue = new platform::DispatchQueue("Whitelist Editor Save", platform::DispatchQueue::Kind::serial,
                                                     platform::QualityOfService::userInitiated);
    return *queue;
}

// Rule changes handed to the save queue whose completion has not run (or
// been dropped) yet.
std::atomic<int> savesInFlight = 0;

// Counts one save from its hand-off until the last copy of its completion is gone.
std::shared_ptr<void> countSaveInFlight() {
    ++savesInFlight;
    return std::shared_ptr<void>(nullptr, [](void*) { --savesInFlight; });
}

}  // namespace

// The enable-package question, asked as an alert over the editor. "Later"
// ends the save that asked.
class WhitelistViewController::EnablePackagePrompt : public control::RuleChangePrompt {
public:
    explicit EnablePackagePrompt(std::weak_ptr<WhitelistViewController> editor) : editor_(std::move(editor)) {}

    void askToEnablePackage(const EnablePackageQuestion& question, std::function<void(bool)> answer) override {
        const auto editor = editor_.lock();
        if (!editor || !editor->presenter_.presentAlert) return;
        auto answered = std::make_shared<std::function<void(bool)>>(std::move(answer));
        auto later = [weak = editor_, answered] {
            if (const auto shown = weak.lock()) shown->endSaving();
            (*answered)(false);
        };
        auto confirm = [answered] { (*answered)(true); };
        editor->presenter_.presentAlert(std::make_shared<AlertViewController>(
            question.title, question.message, question.confirmButton, std::move(confirm), question.laterButton,
            std::move(later)));
    }
    void showAlert(const Alert& alert) override {
        if (const auto editor = editor_.lock()) editor->presentAlert(alert.title, alert.message);
    }
    void refresh() override {}

private:
    std::weak_ptr<WhitelistViewController> editor_;
};

WhitelistViewController::WhitelistViewController(std::shared_ptr<RuleChanger> ruleChanger,
                                                 std::shared_ptr<storage::ExtensionReloading> reloading,
                                                 Presenter presenter)
    : ruleChanger_(std::move(ruleChanger)), reloading_(std::move(reloading)), presenter_(std::move(presenter)) {}

std::shared_ptr<WhitelistViewController> WhitelistViewController::create(
    std::shared_ptr<RuleChanger> ruleChanger, std::shared_ptr<storage::ExtensionReloading> reloading,
    Presenter presenter) {
    return std::make_shared<WhitelistViewController>(std::move(ruleChanger), std::move(reloading),
                                                     std::move(presenter));
}

void WhitelistViewController::waitUntilSavesFinished() {
    saveQueue().sync([] {});
}

bool WhitelistViewController::hasSavesInFlight() { return savesInFlight.load() > 0; }

void WhitelistViewController::setInitialState(const std::optional<model::Rule>& whitelistRule) {
    turnedOffBlocking_ = whitelistRule.has_value();
    disabledExtensions_ = whitelistRule ? whitelistRule->partialWhitelist : std::vector<ExtensionType>{};
    selectedCategoriesOnly_ = !disabledExtensions_.empty();
}

int WhitelistViewController::numberOfSections() const {
    if (!turnedOffBlocking_) return 1;
    return selectedCategoriesOnly_ ? 3 : 2;
}

std::vector<WhitelistViewController::Row> WhitelistViewController::rows() const {
    std::vector<Row> rows;
    rows.push_back({Row::Kind::turnOffSwitch, "turnOff", 0, commonUIText("whitelist-editor.table.cell.turn-off"),
                    "hand.raised.slash.fill.medium-m", turnedOffBlocking_, 0, std::nullopt});
    if (!turnedOffBlocking_) return rows;
    rows.push_back({Row::Kind::disableAllSwitch, "disableAll", 1,
                    commonUIText("whitelist-editor.table.picker.disable-all"), std::nullopt,
                    !selectedCategoriesOnly_, 0, std::nullopt});
    if (!selectedCategoriesOnly_) return rows;
    // The header names the site, so it exists only while the host is known.
    if (const auto host = presenter_.currentHost ? presenter_.currentHost() : std::nullopt) {
        rows.push_back({Row::Kind::categoriesHeader, "categoriesHeader", 2,
                        commonUIFormat("whitelist-editor.table.header.unblock-categories", *host), std::nullopt,
                        std::nullopt, 0, std::nullopt});
    }
    int tag = 0;
    for (ExtensionType type : model::allCases<ExtensionType>()) {
        const bool on = std::find(disabledExtensions_.begin(), disabledExtensions_.end(), type) !=
                        disabledExtensions_.end();
        const std::string raw(model::rawValue(type));
        rows.push_back({Row::Kind::contentBlockerSwitch, raw, 2, model::localizedName(type), raw + "-MacIcon", on,
                        tag++, type});
    }
    return rows;
}

std::string WhitelistViewController::titleText() const {
    return commonUIText(isSaving() ? "whitelist-editor.saving-rule.title" : "whitelist-editor.title");
}

void WhitelistViewController::didChangeTurnOffBlockingSwitch(bool on) {
    platform::consolePrint(std::string("Changed turn off blocking switch to ") + text(on));
    turnedOffBlocking_ = on;
    changed();
    save();
}

void WhitelistViewController::didChangeDisableAllSwitch(bool on, int tag) {
    platform::consolePrint(std::string("Changed disable all switch to ") + text(on) + ", tag = " +
                           std::to_string(tag));
    selectedCategoriesOnly_ = !on;
    changed();
    save();
}

bool WhitelistViewController::didChangeContentBlockerSwitch(bool on, int tag) {
    const auto& all = model::allCases<ExtensionType>();
    if (tag < 0 || static_cast<std::size_t>(tag) >= all.size()) return false;
    platform::consolePrint(std::string("Changed content blocker switch to ") + text(on) + ", tag = " +
                           std::to_string(tag));
    const ExtensionType type = all[static_cast<std::size_t>(tag)];
    const auto found = std::find(disabledExtensions_.begin(), disabledExtensions_.end(), type);
    if (on && found == disabledExtensions_.end()) disabledExtensions_.push_back(type);
    if (!on && found != disabledExtensions_.end()) disabledExtensions_.erase(found);
    changed();
    save();
    return true;
}

void WhitelistViewController::dismissButtonDidPress() {
    if (presenter_.dismiss) presenter_.dismiss();
}

void WhitelistViewController::save() {
    const auto host = presenter_.currentHost ? presenter_.currentHost() : std::nullopt;
    if (!host) {
        presentAlert(commonUIText("alert.error.title"), commonUIText("visual-editor.alert.cant-resolve.note"));
        return;
    }
    beginSaving();
    const auto domain = model::domainForHost(*host);
    if (!domain) {
        popoverLog().error("Can't save rule: domain invalid");
        endSaving();
        return;
    }
    // A switched-off whitelist package is switched on first, when the user agrees.
    const auto package = ruleChanger_->configurablePackage(model::ConfigurableType::whitelist);
    if (package && storage::isDisabled(*package)) {
        auto prompt = std::make_shared<EnablePackagePrompt>(weak_from_this());
        ruleChanger_->askToEnablePackage(*package, prompt, [weak = weak_from_this(), domain = *domain] {
            if (const auto editor = weak.lock()) editor->saveChoice(domain, true);
        });
        return;
    }
    saveChoice(*domain, false);
}

void WhitelistViewController::saveChoice(const std::string& domain, bool packageWasSwitchedOn) {
    const RuleChanger::WhitelistChoice choice{turnedOffBlocking_, selectedCategoriesOnly_, disabledExtensions_};
    // The rule change reads and writes package files: off the main queue,
    // one at a time and in the order of the switch changes, so that the last
    // change is the one that stays. Its completion comes back on the main queue.
    saveQueue().async([changer = ruleChanger_, domain, choice, weak = weak_from_this(), packageWasSwitchedOn,
                       inFlight = countSaveInFlight()] {
        changer->applyWhitelistChoice(domain, choice, [weak, packageWasSwitchedOn, inFlight](RuleChanger::Result result) {
            if (const auto editor = weak.lock()) editor->finishSave(result, packageWasSwitchedOn);
        });
    });
}

void WhitelistViewController::finishSave(const RuleChanger::Result& result, bool packageWasSwitchedOn) {
    if (!result) {
        const auto* failure = std::get_if<RuleChanger::Failure>(&result.error());
        // Nothing to take away is no error for the user.
        if (!failure || *failure != RuleChanger::Failure::domainNotFound) {
            presentAlert(commonUIText("alert.error.title"), RuleChanger::description(result.error()));
        }
        endSaving();
        return;
    }
    // A rule or package that was only switched back on changes no package
    // file, so nothing was rebuilt yet: rebuild for the change to take effect.
    const bool needsRebuild = *result == RuleChanger::Change::enabled ||
                              (packageWasSwitchedOn && *result == RuleChanger::Change::unchanged);
    if (needsRebuild && reloading_) {
        reloading_->saveToJSONAndReload(
            ExtensionType::customRules, true, [weak = weak_from_this()](const storage::ReloadingResult& reloaded) {
                const auto editor = weak.lock();
                if (!editor) return;
                if (!reloaded) {
                    editor->presentAlert(commonUIText("alert.error.title"), reloaded.error().description());
                } else if (editor->presenter_.didSaveChange) {
                    editor->presenter_.didSaveChange();
                }
                editor->endSaving();
            });
        return;
    }
    if (*result != RuleChanger::Change::unchanged && presenter_.didSaveChange) presenter_.didSaveChange();
    endSaving();
}

void WhitelistViewController::beginSaving() {
    ++savesInFlight_;
    changed();
}

void WhitelistViewController::endSaving() {
    if (savesInFlight_ > 0) --savesInFlight_;
    changed();
}

void WhitelistViewController::presentAlert(std::string title, std::string message) {
    if (presenter_.presentAlert) {
        presenter_.presentAlert(std::make_shared<AlertViewController>(std::move(title), std::move(message)));
    }
}

void WhitelistViewController::changed() const {
    if (presenter_.changed) presenter_.changed();
}

}  // namespace tamsel::ui
