#include "control/RuleChanger.h"

#include <algorithm>

#include "model/DomainEntry.h"
#include "model/JSONCoding.h"
#include "model/LocalizationTableName.h"
#include "model/SiteDomain.h"
#include "model/SiteRules.h"
#include "platform/DispatchQueue.h"
#include "platform/Localization.h"
#include "platform/Log.h"
#include "platform/Stores.h"
#include "settings/Keys.h"
#include "storage/PackagePreferences.h"

namespace tamsel::control {

namespace {

using model::ActionType;
using model::ConfigurableType;
using model::ExtensionType;
using model::Package;
using model::Rule;
using platform::consolePrint;
using Change = RuleChanger::Change;
using Failure = RuleChanger::Failure;

void finish(const RuleChanger::Completion& completion, RuleChanger::Result result) {
    if (!completion) return;
    platform::DispatchQueue::main().async([completion, result = std::move(result)] { completion(result); });
}

void fail(const RuleChanger::Completion& completion, Failure failure) {
    finish(completion, std::unexpected(RuleChanger::Error(failure)));
}

// A data-manager save that ends the change with `change`; a save error is
// logged after `errorLinePrefix` when one is given.
DataManager::SaveCompletion afterSave(Change change, std::string errorLinePrefix, RuleChanger::Completion completion) {
    return [change, errorLinePrefix = std::move(errorLinePrefix),
            completion = std::move(completion)](std::optional<DataManager::SaveError> error) {
        if (!error) {
            finish(completion, change);
            return;
        }
        if (!errorLinePrefix.empty()) consolePrint(errorLinePrefix + RuleChanger::description(*error));
        finish(completion, std::unexpected(RuleChanger::Error(*error)));
    };
}

const std::vector<std::string>& ifDomains(const Rule& rule) {
    static const std::vector<std::string> none;
    const auto& filter = rule.blocker.trigger.domainFilter;
    return filter && filter->type == model::DomainFilterType::ifDomain ? filter->values : none;
}

bool names(const Rule& rule, const std::string& domain) {
    const auto& domains = ifDomains(rule);
    return std::any_of(domains.begin(), domains.end(),
                       [&domain](const std::string& entry) { return model::domainEntryNames(entry, domain); });
}

bool covers(const Rule& rule, const std::string& domain) {
    const auto& domains = ifDomains(rule);
    return std::any_of(domains.begin(), domains.end(), [&domain](const std::string& entry) {
        return model::domainEntryMatches(entry, domain) || model::domainEntryNames(entry, domain);
    });
}

bool hasAction(const Rule& rule, ActionType type) { return rule.blocker.action.type == type; }

// Extension lists compare as sets: Safari does not care in which order the
// user switched the categories off.
bool sameExtensions(std::vector<ExtensionType> a, std::vector<ExtensionType> b) {
    for (auto* list : {&a, &b}) {
        std::sort(list->begin(), list->end());
        list->erase(std::unique(list->begin(), list->end()), list->end());
    }
    return a == b;
}

// ["a.com", "b.com"]
std::string describe(const std::vector<std::string>& domains) {
    std::string text = "[";
    for (std::size_t i = 0; i < domains.size(); ++i) {
        if (i > 0) text += ", ";
        text += "\"" + domains[i] + "\"";
    }
    return text + "]";
}

// Page hosts as the rules know them; a host that is no valid domain is
// looked for as written (it can only match a rule made elsewhere).
std::string lookupDomain(const std::string& host) { return model::domainForHost(host).value_or(host); }

void markRuleCreated() {
    platform::SharedDefaults::shared()->set(platform::Value(true), settings::Keys::actionExtensionCreatedRule);
}

std::string commonUIText(std::string_view key) {
    return platform::localizedString(model::rawValue(model::LocalizationTableName::commonUI), key);
}


}  // namespace

struct RuleChanger::Removal {
    ConfigurableType packageType;
    const char* missingPackageLine;
    const char* buildErrorLine;
    const char* saveErrorLine;
    // The rule anew with the remaining domains, same identifier and name.
    std::optional<Rule> (*rebuild)(const Rule& rule, std::vector<std::string> domains);
};

namespace {

const char whitelistMissingLine[] = "Whitelist package doesn't exist";
const char makeHttpsMissingLine[] = "Make HTTPS package doesn't exist";

}  // namespace

RuleChanger::RuleChanger(DataManager& dataManager) : dataManager_(dataManager) {}

// --- Lookups ------------------------------------------------------------------------------

std::optional<Package> RuleChanger::configurablePackage(ConfigurableType type) const {
    const std::string identifier(model::rawValue(type));
    for (Package& package : dataManager_.configurablePackages()) {
        if (package.id == identifier) return std::move(package);
    }
    consolePrint("Couldn't find the package for id " + identifier);
    return std::nullopt;
}

std::optional<Rule> RuleChanger::whitelistRule(const std::string& host) const {
    const auto package = configurablePackage(ConfigurableType::whitelist);
    if (!package) return std::nullopt;
    const std::string domain = lookupDomain(host);
    for (const Rule& rule : package->rules) {
        if (hasAction(rule, ActionType::ignorePreviousRules) && covers(rule, domain)) return rule;
    }
    return std::nullopt;
}

std::optional<Rule> RuleChanger::makeHttpsRule(const std::string& host) const {
    const auto package = configurablePackage(ConfigurableType::makeHttps);
    if (!package) {
        consolePrint("Couldn't find the Make HTTPS package");
        return std::nullopt;
    }
    const std::string domain = lookupDomain(host);
    for (const Rule& rule : package->rules) {
        if (hasAction(rule, ActionType::makeHttps) && covers(rule, domain)) return rule;
    }
    return std::nullopt;
}

bool RuleChanger::isDomainForcedHttps(const std::string& host) const {
    const auto package = configurablePackage(ConfigurableType::makeHttps);
    if (!package) {
        consolePrint("Couldn't find the Make HTTPS package");
        return false;
    }
    const std::string domain = lookupDomain(host);
    const storage::DisabledRules disabled = dataManager_.preferenceManager()->disabledRules();
    return std::any_of(package->rules.begin(), package->rules.end(), [&](const Rule& rule) {
        return hasAction(rule, ActionType::makeHttps) && covers(rule, domain) &&
               !storage::isDisabledFast(rule, package->id, disabled);
    });
}

// --- Whitelist ------------------------------------------------------------------------------

std::optional<Rule> RuleChanger::whitelist(const std::string& host, std::vector<ExtensionType> in,
                                           Completion completion) {
    // Decided and saved on the packages as they are on disk, with no other
    // program changing them in between.
    auto editing = dataManager_.beginEditing();
    const auto package = configurablePackage(ConfigurableType::whitelist);
    if (!package) {
        consolePrint(whitelistMissingLine);
        fail(completion, Failure::packageMissing);
        return std::nullopt;
    }
    const auto domain = model::domainForHost(host);
    if (!domain) {
        consolePrint("Error creating whitelist rule for: " + host);
        fail(completion, Failure::ruleNotBuilt);
        return std::nullopt;
    }

    const auto existing = std::find_if(package->rules.begin(), package->rules.end(), [&](const Rule& rule) {
        return hasAction(rule, ActionType::ignorePreviousRules) && names(rule, *domain);
    });
    if (existing != package->rules.end()) {
        const bool disabled = storage::isDisabled(*existing, *package);
        const bool sameList = sameExtensions(existing->partialWhitelist, in);
        if (ifDomains(*existing).size() > 1) {
            if (sameList && !disabled) {
                consolePrint("Nothing changed in this whitelist rule, no updates needed");
                finish(completion, Change::unchanged);
                return std::nullopt;
            }
            consolePrint("More than one domain in this whitelist rule (can't modify it)");
            unwhitelist(*domain, *existing);
        } else {
            // Switched on first, so that the rebuild of the save below
            // already sees the rule.
            if (disabled) dataManager_.preferenceManager()->saveEnabledPreferenceWithoutReload(*existing, *package);
            std::optional<Rule> changed;
            if (!sameList) {
                changed = Rule(existing->id, existing->name, existing->blocker, std::move(in));
                dataManager_.saveRule(*changed, *package, afterSave(Change::updated, "", completion));
                consolePrint("Updated partial array in existing whitelist rule");
            }
            if (disabled) {
                consolePrint("Enabled existing whitelist rule");
                if (!changed) changed = *existing;
            }
            if (sameList) finish(completion, disabled ? Change::enabled : Change::unchanged);
            return changed;
        }
    }

    auto rule = model::makeWhitelistRule({*domain}, std::nullopt, *domain, std::move(in));
    if (!rule) {
        consolePrint("Error creating whitelist rule for: " + *domain);
        fail(completion, Failure::ruleNotBuilt);
        return std::nullopt;
    }
    consolePrint("Creating whitelist rule for: " + *domain);
    markRuleCreated();
    // Read again: splitting the domain off a shared rule has just saved the
    // package, and the save replaces the stored package with this one.
    const auto current = configurablePackage(ConfigurableType::whitelist);
    dataManager_.saveRule(*rule, current.value_or(*package), afterSave(Change::created, "", completion));
    return rule;
}

void RuleChanger::unwhitelist(const std::string& host, const Rule& rule, Completion completion) {
    auto editing = dataManager_.beginEditing();
    const std::string domain = lookupDomain(host);
    consolePrint("Unwhitelisting domain - " + domain + " in rule " + model::encodeRule(rule));
    static const Removal removal{
        ConfigurableType::whitelist, whitelistMissingLine, "Error creating whitelist rule for: ",
        "Error unwhitelisting domain: ", [](const Rule& old, std::vector<std::string> domains) {
            return model::makeWhitelistRule(std::move(domains), old.id, old.name, old.partialWhitelist);
        }};
    removeDomain(domain, rule, removal, std::move(completion));
}

// --- Make HTTPS -------------------------------------------------------------------------------

void RuleChanger::makeHttps(const std::string& host, Completion completion) {
    auto editing = dataManager_.beginEditing();
    const auto package = configurablePackage(ConfigurableType::makeHttps);
    if (!package) {
        consolePrint(makeHttpsMissingLine);
        fail(completion, Failure::packageMissing);
        return;
    }
    const auto domain = model::domainForHost(host);
    auto rule = domain ? model::makeHttpsRule({*domain}, std::nullopt, *domain) : std::nullopt;
    if (!rule) {
        consolePrint("Error creating make https rule for: " + domain.value_or(host));
        fail(completion, Failure::ruleNotBuilt);
        return;
    }
    if (isDomainForcedHttps(*domain)) {
        finish(completion, Change::unchanged);
        return;
    }
    markRuleCreated();
    dataManager_.saveRule(*rule, *package, afterSave(Change::created, "", std::move(completion)));
}

void RuleChanger::unforceHttps(const std::string& host, Completion completion) {
    auto editing = dataManager_.beginEditing();
    if (!configurablePackage(ConfigurableType::makeHttps)) {
        consolePrint(makeHttpsMissingLine);
        fail(completion, Failure::packageMissing);
        return;
    }
    const auto rule = makeHttpsRule(host);
    if (!rule) {
        fail(completion, Failure::domainNotFound);
        return;
    }
    static const Removal removal{
        ConfigurableType::makeHttps, makeHttpsMissingLine, "Error creating make https rule for: ",
        "Error unforcing HTTPS domain: ", [](const Rule& old, std::vector<std::string> domains) {
            return model::makeHttpsRule(std::move(domains), old.id, old.name);
        }};
    removeDomain(lookupDomain(host), *rule, removal, std::move(completion));
}

void RuleChanger::removeDomain(const std::string& domain, const Rule& rule, const Removal& removal,
                               Completion completion) {
    std::vector<std::string> remaining;
    for (const std::string& entry : ifDomains(rule)) {
        if (!model::domainEntryMatches(entry, domain) && !model::domainEntryNames(entry, domain)) {
            remaining.push_back(entry);
        }
    }
    const auto package = configurablePackage(removal.packageType);
    if (!package) {
        consolePrint(removal.missingPackageLine);
        fail(completion, Failure::packageMissing);
        return;
    }
    const bool held = std::any_of(package->rules.begin(), package->rules.end(),
                                  [&rule](const Rule& candidate) { return candidate.id == rule.id; });
    if (!held || remaining.size() == ifDomains(rule).size()) {
        fail(completion, Failure::domainNotFound);
        return;
    }
    if (remaining.empty()) {
        dataManager_.deleteRule(rule, *package, afterSave(Change::deleted, removal.saveErrorLine, std::move(completion)));
        return;
    }
    const auto rebuilt = removal.rebuild(rule, remaining);
    if (!rebuilt) {
        consolePrint(removal.buildErrorLine + describe(remaining));
        fail(completion, Failure::ruleNotBuilt);
        return;
    }
    dataManager_.saveRule(*rebuilt, *package, afterSave(Change::updated, removal.saveErrorLine, std::move(completion)));
}

// --- The editors ---------------------------------------------------------------------------------

void RuleChanger::applyWhitelistChoice(const std::string& host, const WhitelistChoice& choice,
                                       Completion completion) {
    const bool nothingTurnedOff =
        !choice.turnedOffBlocking || (choice.selectedCategoriesOnly && choice.disabledExtensions.empty());
    if (nothingTurnedOff) {
        if (const auto rule = whitelistRule(host)) {
            unwhitelist(host, *rule, std::move(completion));
        } else {
            finish(completion, Change::unchanged);
        }
        return;
    }
    whitelist(host, choice.selectedCategoriesOnly ? choice.disabledExtensions : std::vector<ExtensionType>{},
              std::move(completion));
}

void RuleChanger::visualEditorDidChange(const std::string& host, bool isWhitelistedNow,
                                        const std::shared_ptr<RuleChangePrompt>& prompt, Completion completion) {
    const auto rule = whitelistRule(host);
    const std::string whitelistID(model::rawValue(ConfigurableType::whitelist));
    const bool wasWhitelisted =
        rule && !storage::isDisabledFast(*rule, whitelistID, dataManager_.preferenceManager()->disabledRules());
    if (!wasWhitelisted && !isWhitelistedNow) {
        consolePrint("Current domain was not and is not whitelisted now (no action performed).");
        finish(completion, Change::unchanged);
        return;
    }
    const auto domain = model::domainForHost(host);
    if (!domain) {
        if (prompt) {
            prompt->showAlert({commonUIText("visual-editor.alert.invalid-domain.title"),
                               commonUIText("visual-editor.alert.invalid-domain.note")});
        }
        fail(completion, Failure::ruleNotBuilt);
        return;
    }
    Completion done = [weakPrompt = std::weak_ptr(prompt), domain = *domain,
                       completion = std::move(completion)](Result result) {
        const auto shown = weakPrompt.lock();
        if (!result) {
            const std::string text = description(result.error());
            consolePrint("Error in saving and/or reloading: " + text);
            if (shown) shown->showAlert({commonUIText("alert.error.title"), text});
        } else {
            consolePrint("Added or removed " + domain + " from Whitelist");
            if (shown) shown->refresh();
        }
        if (completion) completion(std::move(result));
    };
    if (isWhitelistedNow) {
        whitelist(*domain, {}, std::move(done));
    } else {
        unwhitelist(*domain, *rule, std::move(done));
    }
}

// --- Switching packages on -------------------------------------------------------------------------

void RuleChanger::askToEnablePackage(const Package& package, const std::shared_ptr<RuleChangePrompt>& prompt,
                                     std::function<void()> pendingChange) {
    if (!prompt) {
        platform::debugLog("Error: can't present user choice alert: presentedVC is nil");
        return;
    }
    prompt->askToEnablePackage(
        enablePackageQuestion(package),
        [preferences = dataManager_.preferenceManager(), package, pendingChange = std::move(pendingChange)](
            bool confirmed) {
            if (!confirmed) return;
            consolePrint("User chose to automatically enable package");
            preferences->saveEnabledPreferenceWithoutReload(package);
            if (pendingChange) pendingChange();
        });
}

void RuleChanger::performEnablingPackage(ConfigurableType type, const std::shared_ptr<RuleChangePrompt>& prompt,
                                         std::function<void()> change) {
    const auto package = configurablePackage(type);
    if (package && storage::isDisabled(*package)) {
        askToEnablePackage(*package, prompt, std::move(change));
    } else if (change) {
        change();
    }
}

// --- Texts ---------------------------------------------------------------------------------------------

RuleChangePrompt::EnablePackageQuestion RuleChanger::enablePackageQuestion(const Package& package) {
    return {platform::localizedFormat(commonUIText("action.alert.enable-extension.title"), package.displayName()),
            platform::localizedFormat(commonUIText("action.alert.enable-extension.note"),
                       std::to_string(storage::disabledRulesCount(package))),
            commonUIText("action.alert.enable-extension.later"),
            commonUIText("action.alert.enable-extension.confrim")};
}

std::string RuleChanger::description(const Error& error) {
    if (const auto* failure = std::get_if<Failure>(&error)) {
        switch (*failure) {
            case Failure::packageMissing: return "the package doesn't exist";
            case Failure::ruleNotBuilt: return "no rule can be made for this domain";
            case Failure::domainNotFound: return "no rule holds this domain";
        }
    }
    const auto& saveError = std::get<DataManager::SaveError>(error);
    if (std::holds_alternative<PersistingError>(saveError)) return "every package list is empty, nothing was saved";
    return std::get<storage::ReloadingError>(saveError).description();
}

}  // namespace tamsel::control
