#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "control/RuleChanger.h"
#include "model/ExtensionType.h"
#include "model/Rule.h"
#include "storage/ExtensionReloading.h"
#include "ui/AlertViewController.h"
#include "ui/Theme.h"

// The whitelist editor: the child view the popover presents for its
// whitelist row. Blocking is turned off for the current site everywhere or,
// with "disable all" off, only in the chosen content blockers; every switch
// change is saved at once through the rule changer.
//
// Public API for a view layer (all on the main queue):
//   rows()                  the switches as plain data; sections vanish and
//                           appear with the state (1, 2 or 3 sections)
//   titleText(), isSaving() the title ("Saving…" while a save runs) and the spinner
//   didChangeTurnOffBlockingSwitch(on), didChangeDisableAllSwitch(on),
//   didChangeContentBlockerSwitch(on, tag)
//                           the user moved a switch to `on`; tag = the
//                           category row's tag (the ExtensionType's index)
//   dismissButtonDidPress() asks the popover to dismiss the editor
// Alerts (no host, save errors, the enable-package question) are presented
// by the popover over the editor; changes are reported to `Presenter::changed`.
namespace tamsel::ui {

class WhitelistViewController : public std::enable_shared_from_this<WhitelistViewController> {
public:
    // What the editor needs from the popover that presents it. Every member
    // may be empty.
    struct Presenter {
        std::function<std::optional<std::string>()> currentHost;
        std::function<void(std::shared_ptr<AlertViewController>)> presentAlert;
        std::function<void()> dismiss;
        // A save succeeded (the popover's whitelistEditorDidChange).
        std::function<void()> didSaveChange;
        // The editor's rows or title changed.
        std::function<void()> changed;
    };

    struct Row {
        enum class Kind { turnOffSwitch, disableAllSwitch, categoriesHeader, contentBlockerSwitch };
        Kind kind;
        // "turnOff", "disableAll", "categoriesHeader", or the extension's raw value.
        std::string id;
        int section = 0;
        std::string title;
        std::optional<std::string> icon;
        std::optional<bool> switchOn;  // absent for the header
        int tag = 0;                   // the ExtensionType's index for category rows
        std::optional<model::ExtensionType> extension;

        friend bool operator==(const Row&, const Row&) = default;
    };

    static std::shared_ptr<WhitelistViewController> create(std::shared_ptr<control::RuleChanger> ruleChanger,
                                                           std::shared_ptr<storage::ExtensionReloading> reloading,
                                                           Presenter presenter);

    // The initial state from the site's whitelist rule, as the popover
    // creates the editor: blocking off when a rule exists; categories only
    // with the rule's extensions when it names some.
    void setInitialState(const std::optional<model::Rule>& whitelistRule);

    bool turnedOffBlocking() const { return turnedOffBlocking_; }
    bool selectedCategoriesOnly() const { return selectedCategoriesOnly_; }
    const std::vector<model::ExtensionType>& disabledExtensions() const { return disabledExtensions_; }

    int numberOfSections() const;
    std::vector<Row> rows() const;
    std::string titleText() const;
    Font titleFont() const { return Themes::current()->titleFont(); }
    Font headerFont() const { return Themes::current()->bodyFont(); }
    bool isSaving() const { return savesInFlight_ > 0; }

    void didChangeTurnOffBlockingSwitch(bool on);
    // `tag` is only printed (the disable-all switch carries the tag 0).
    void didChangeDisableAllSwitch(bool on, int tag = 0);
    // False (nothing changes) when no category has the tag.
    bool didChangeContentBlockerSwitch(bool on, int tag);
    void dismissButtonDidPress();

    // "<WhitelistViewController>".
    std::string description() const { return "<WhitelistViewController>"; }

    // Returns once every rule change that an editor handed off so far has
    // run (their completions may still be queued on the main queue). For an
    // orderly shutdown, and for tests that tear down the data manager.
    static void waitUntilSavesFinished();
    // Whether a rule change an editor handed off has not reported back yet;
    // until it has, the extension manager may not have been asked to save.
    static bool hasSavesInFlight();

    WhitelistViewController(std::shared_ptr<control::RuleChanger> ruleChanger,
                            std::shared_ptr<storage::ExtensionReloading> reloading, Presenter presenter);

private:
    class EnablePackagePrompt;

    void save();
    void beginSaving();
    void endSaving();
    void saveChoice(const std::string& domain, bool packageWasSwitchedOn);
    void finishSave(const control::RuleChanger::Result& result, bool packageWasSwitchedOn);
    void presentAlert(std::string title, std::string message);
    void changed() const;

    bool turnedOffBlocking_ = false;
    bool selectedCategoriesOnly_ = false;
    std::vector<model::ExtensionType> disabledExtensions_;
    int savesInFlight_ = 0;

    std::shared_ptr<control::RuleChanger> ruleChanger_;
    std::shared_ptr<storage::ExtensionReloading> reloading_;
    Presenter presenter_;
};

}  // namespace tamsel::ui
