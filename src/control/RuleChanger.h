#pragma once

#include <array>
#include <expected>
#include <memory>
#include <string_view>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "control/DataManager.h"
#include "control/RuleChangePrompt.h"
#include "model/ConfigurableType.h"
#include "model/ExtensionType.h"
#include "model/Package.h"
#include "model/RawRepresentable.h"
#include "model/Rule.h"

// The changes the popover makes for the site of the current page: whitelist
// it (in every extension or in chosen ones), take it off the whitelist, force
// HTTPS on it or stop forcing. Each change edits the configurable "whitelist"
// or "make-https" package through the data manager, which writes the package
// file and has the affected extensions rebuilt: every enabled extension after
// a whitelist change (whitelisting entries end every extension's file), only
// block-custom after a make-HTTPS change.
//
// Hosts are taken as the page gives them: every operation first turns the
// host into the lower-case punycode domain Safari's lists need
// (model::domainForHost). A host that cannot become a valid domain changes
// nothing and is reported as ruleNotBuilt.
//
// Rules are kept one per whitelisted domain where the user made them: a rule
// that lists several domains (imported, or synced from an older version) is
// never rewritten for one of them; the domain is taken out of it and gets a
// rule of its own.
//
// The changer keeps no state; it reads the packages and the disabled states
// afresh on every call, and may be called from any thread. Each change runs
// in one of the data manager's editing sessions: it is decided on the
// package files as they are on disk and saved before any other program can
// change them. Completions run on
// the main queue, exactly once per call, also when the change stops early.
namespace tamsel::control {

class RuleChanger {
public:
    // What a change did.
    enum class Change {
        created,    // a new rule holds the domain
        updated,    // an existing rule was rewritten: new extension list, or a domain less
        enabled,    // a switched-off rule that already fitted was switched back on
        deleted,    // the rule lost its last domain and is gone
        unchanged,  // the rules already said what was asked
    };

    // Why a change was not made.
    enum class Failure {
        packageMissing,  // no whitelist or make-HTTPS package in the data manager
        ruleNotBuilt,    // the host is no valid domain, so no rule could hold it
        domainNotFound,  // no rule of the package holds the domain
    };

    // A refusal, or the error of the save and reload that followed the change
    // (the change itself is kept then).
    using Error = std::variant<Failure, DataManager::SaveError>;
    using Result = std::expected<Change, Error>;
    using Completion = std::function<void(Result)>;

    // The three states of the whitelist editor's switches for one site.
    struct WhitelistChoice {
        bool turnedOffBlocking = false;       // the site is whitelisted at all
        bool selectedCategoriesOnly = false;  // only in `disabledExtensions`
        std::vector<model::ExtensionType> disabledExtensions;

        friend bool operator==(const WhitelistChoice&, const WhitelistChoice&) = default;
    };

    explicit RuleChanger(DataManager& dataManager = DataManager::shared());

    // --- Lookups for the popover -----------------------------------------------------

    // The configurable package of `type`, as the data manager holds it now.
    // Missing: "Couldn't find the package for id <identifier>".
    std::optional<model::Package> configurablePackage(model::ConfigurableType type) const;

    // The first whitelist rule with a domain entry that covers the host
    // (model::domainEntryMatches), switched off or not.
    std::optional<model::Rule> whitelistRule(const std::string& host) const;

    // The first make-HTTPS rule with a domain entry that covers the host.
    // Without the package: "Couldn't find the Make HTTPS package".
    std::optional<model::Rule> makeHttpsRule(const std::string& host) const;

    // Whether a make-HTTPS rule that is switched on covers the host. (Whether
    // the package itself is switched on is asked separately.)
    bool isDomainForcedHttps(const std::string& host) const;

    // --- Changes ------------------------------------------------------------------------

    // Whitelists the host in the extensions of `in` (empty: all). Reuses the
    // host's own single-domain rule (rewriting its extension list when it
    // differs, switching it back on when it was off); takes the domain out of
    // a rule that lists others too and, unless that rule already says the
    // same and is on, gives it a new rule; else creates one. Returns the
    // created or changed rule; nothing when nothing changed or on failure.
    //
    // A rule that is only switched back on is not rebuilt here (its package
    // file does not change); the caller has the extensions rebuilt when it
    // needs the change in effect at once.
    std::optional<model::Rule> whitelist(const std::string& host, std::vector<model::ExtensionType> in,
                                         Completion completion = {});

    // Takes the host out of `rule` (every entry that covers or names it):
    // the rule is rewritten with the remaining domains under its identifier,
    // name and extension list, or deleted when none remain.
    void unwhitelist(const std::string& host, const model::Rule& rule, Completion completion = {});

    // Adds a make-HTTPS rule for the host. A host that a switched-on rule
    // already forces is left alone (unchanged), so repeated requests do not
    // pile up rules.
    void makeHttps(const std::string& host, Completion completion = {});

    // Takes the host out of the make-HTTPS rule that covers it, as
    // unwhitelist does; domainNotFound when no rule covers it.
    void unforceHttps(const std::string& host, Completion completion = {});

    // The whitelist editor's switches, saved for the host:
    //  * blocking not turned off: the host's whitelist rule loses the host
    //    (unchanged when there is none);
    //  * turned off everywhere: whitelist(host, {});
    //  * turned off in chosen categories: whitelist(host, those categories);
    //  * turned off in chosen categories with none chosen yet: treated like
    //    blocking not turned off. No extension is switched off, so the site
    //    keeps no whitelist rule until a category is chosen. (An empty
    //    extension list would mean "all" in a rule, the opposite of what
    //    the switches show, and the editor would reopen with every
    //    category off.)
    void applyWhitelistChoice(const std::string& host, const WhitelistChoice& choice, Completion completion = {});

    // The element-hiding editor reports whether the host is whitelisted now.
    // Not before and not now: "Current domain was not and is not whitelisted
    // now (no action performed)." An invalid host: the invalid-domain alert.
    // Else whitelists (in all extensions) or unwhitelists; an error ends in
    // "Error in saving and/or reloading: <error>" and the error alert,
    // success in "Added or removed <host> from Whitelist" and a refresh. A
    // null prompt only loses the alerts and the refresh.
    // The prompt is held weakly until the change completes.
    void visualEditorDidChange(const std::string& host, bool isWhitelistedNow,
                               const std::shared_ptr<RuleChangePrompt>& prompt, Completion completion = {});

    // Asks through `prompt` whether to switch the package on. On confirm:
    // "User chose to automatically enable package", the package is switched
    // on (without a rebuild: the pending change saves and rebuilds), then
    // `pendingChange` runs. On "later" nothing happens. Without a prompt
    // there is nobody to ask: a debug line, and nothing happens.
    void askToEnablePackage(const model::Package& package, const std::shared_ptr<RuleChangePrompt>& prompt,
                            std::function<void()> pendingChange);

    // Runs `change` at once when the configurable package of `type` is
    // switched on, else asks to enable it first (askToEnablePackage). A
    // missing package runs the change, which then reports packageMissing.
    void performEnablingPackage(model::ConfigurableType type, const std::shared_ptr<RuleChangePrompt>& prompt,
                                std::function<void()> change);

    // --- Texts ------------------------------------------------------------------------------

    // The enable-package question for `package`: localised title with its
    // display name, message with its count of switched-off rules.
    static RuleChangePrompt::EnablePackageQuestion enablePackageQuestion(const model::Package& package);

    // For logs and alerts.
    static std::string description(const Error& error);

private:
    // How one package's rules lose a domain (lines, rule shape).
    struct Removal;
    void removeDomain(const std::string& domain, const model::Rule& rule, const Removal& removal,
                      Completion completion);

    DataManager& dataManager_;
};

}  // namespace tamsel::control

namespace tamsel::model {
template <>
struct RawValueTable<control::RuleChanger::Change> {
    static constexpr std::array<std::string_view, 5> rawValues{"created", "updated", "enabled", "deleted",
                                                               "unchanged"};
};
}  // namespace tamsel::model
