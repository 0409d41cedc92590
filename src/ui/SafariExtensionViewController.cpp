#include "ui/SafariExtensionViewController.h"

#include <algorithm>
#include <utility>

#include "control/DataManager.h"
#include "control/ExtensionManager.h"
#include "control/PauseStatus.h"
#include "model/ConfigurableType.h"
#include "model/PackageCategory.h"
#include "model/SiteDomain.h"
#include "platform/BuildConfig.h"
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "runtime/HistoryStore.h"
#include "runtime/URLHost.h"
#include "settings/App.h"
#include "settings/MainApp.h"
#include "storage/ExtensionReloading.h"
#include "storage/PackagePreferences.h"
#include "ui/FeedbackMail.h"
#include "ui/SiteState.h"
#include "ui/Texts.h"

namespace tamsel::ui {

namespace {

using control::RuleChanger;
using runtime::HistoryPeriodType;
using CellID = SafariExtensionViewController::CellID;
using Outcome = SafariExtensionViewController::Outcome;

const platform::SystemLogger& popoverLog() {
    static const platform::SystemLogger logger("Popover");
    return logger;
}

// The index of each kind in ChildView.
constexpr std::size_t alertIndex = 0;
constexpr std::size_t whitelistIndex = 1;
constexpr std::size_t blockedHistoryIndex = 2;
constexpr std::size_t siteReporterIndex = 3;
constexpr std::size_t blockingStatsIndex = 4;

const char* const sectionHeaderKeys[] = {nullptr, "action.table.section.actions-with-domain",
                                         "action.table.section.stats", "action.table.section.help"};
const char* const sectionHeaderIDs[] = {nullptr, "actionsHeader", "statsHeader", "helpHeader"};

std::unexpected<std::string> refused(std::string sentence) { return std::unexpected(std::move(sentence)); }

const char* counterLabelKey(HistoryPeriodType period) {
    switch (period) {
        case HistoryPeriodType::today: return "action.table.cell.blocked-counters.today";
        case HistoryPeriodType::thisWeek: return "action.table.cell.blocked-counters.this-week";
        case HistoryPeriodType::allTime: return "action.table.cell.blocked-counters.all-time";
    }
    return "";
}

}  // namespace

// The popover as the rule changer's prompt. Holds the popover weakly: the
// rule changer may keep it past the popover's life.
class SafariExtensionViewController::Prompt : public control::RuleChangePrompt {
public:
    explicit Prompt(std::weak_ptr<SafariExtensionViewController> popover) : popover_(std::move(popover)) {}

    void askToEnablePackage(const EnablePackageQuestion& question, std::function<void(bool)> answer) override {
        const auto popover = popover_.lock();
        if (!popover) return;
        auto answered = std::make_shared<std::function<void(bool)>>(std::move(answer));
        popover->presentAlert(std::make_shared<AlertViewController>(
            question.title, question.message, question.confirmButton, [answered] { (*answered)(true); },
            question.laterButton, [answered] { (*answered)(false); }));
    }
    void showAlert(const Alert& alert) override {
        if (const auto popover = popover_.lock()) {
            popover->presentAlert(std::make_shared<AlertViewController>(alert.title, alert.message));
        }
    }
    void refresh() override {
        if (const auto popover = popover_.lock()) popover->refreshForCurrentPage();
    }

private:
    std::weak_ptr<SafariExtensionViewController> popover_;
};

// --- Creation and wiring ------------------------------------------------------------------------------

SafariExtensionViewController::SafariExtensionViewController(Collaborators collaborators)
    : collaborators_(std::move(collaborators)) {
    if (!collaborators_.systemActions) collaborators_.systemActions = std::make_shared<PrintingSystemActions>();
    if (!collaborators_.calendar) collaborators_.calendar = platform::Calendar::current();
    if (!collaborators_.supportAddress) collaborators_.supportAddress = build::supportAddress;
    if (!collaborators_.supportSite) collaborators_.supportSite = build::supportSite;
    ruleChanger_ = std::make_shared<RuleChanger>(dataManager());
}

std::shared_ptr<SafariExtensionViewController> SafariExtensionViewController::create(Collaborators collaborators) {
    return std::make_shared<SafariExtensionViewController>(std::move(collaborators));
}

std::shared_ptr<SafariExtensionViewController> SafariExtensionViewController::create() {
    return create(Collaborators{});
}

std::shared_ptr<SafariExtensionViewController> SafariExtensionViewController::shared() {
    static const std::shared_ptr<SafariExtensionViewController> instance = create();
    return instance;
}

void SafariExtensionViewController::setDelegate(std::weak_ptr<ActionViewControllerDelegate> delegate) {
    delegate_ = std::move(delegate);
}

void SafariExtensionViewController::setRuleChanger(std::shared_ptr<RuleChanger> ruleChanger) {
    ruleChanger_ = ruleChanger ? std::move(ruleChanger) : std::make_shared<RuleChanger>(dataManager());
}

std::shared_ptr<control::RuleChangePrompt> SafariExtensionViewController::prompt() {
    if (!prompt_) prompt_ = std::make_shared<Prompt>(weak_from_this());
    return prompt_;
}

control::DataManager& SafariExtensionViewController::dataManager() const {
    return collaborators_.dataManager ? *collaborators_.dataManager : control::DataManager::shared();
}

control::ExtensionManager& SafariExtensionViewController::extensionManager() const {
    return collaborators_.extensionManager ? *collaborators_.extensionManager : *control::ExtensionManager::shared();
}

runtime::HistoryStore& SafariExtensionViewController::history() const {
    return collaborators_.history ? *collaborators_.history : runtime::HistoryStore::shared();
}

const platform::Clock& SafariExtensionViewController::clock() const {
    return collaborators_.clock ? *collaborators_.clock : platform::Clock::system();
}

// --- Layout ----------------------------------------------------------------------------------------------

const std::vector<std::vector<CellID>>& SafariExtensionViewController::data() {
    static const std::vector<std::vector<CellID>> layout{
        {CellID::domainName},
        {CellID::pause, CellID::whitelist, CellID::blockedResources, CellID::visualEditor, CellID::makeHttps},
        {CellID::blockedCounters},
        {CellID::faq, CellID::reportProblem, CellID::contact},
    };
    return layout;
}

const std::map<CellID, std::string>& SafariExtensionViewController::cellTextKeys() {
    static const std::map<CellID, std::string> keys{
        {CellID::blockedResources, "action.table.cell.blocked-resources"},
        {CellID::pause, "action.table.cell.pause"},
        {CellID::whitelist, "action.table.cell.whitelist"},
        {CellID::makeHttps, "action.table.cell.make-https"},
        {CellID::visualEditor, "action.table.cell.hide-element"},
        {CellID::reportProblem, "action.table.cell.report.blocking-problem"},
        {CellID::faq, "action.table.cell.faq"},
        {CellID::contact, "action.table.cell.contact"},
    };
    return keys;
}

const std::map<CellID, std::string>& SafariExtensionViewController::cellDescriptionKeys() {
    static const std::map<CellID, std::string> keys{
        {CellID::blockedResources, "action.table.cell.blocked-resources.description"},
        {CellID::pause, "action.table.cell.pause.description"},
        {CellID::whitelist, "action.table.cell.whitelist.description"},
        {CellID::makeHttps, "action.table.cell.make-https.description"},
        {CellID::visualEditor, "action.table.cell.hide-element.description"},
        {CellID::reportProblem, "action.table.cell.report-blocking-problem.description"},
        {CellID::contact, "action.table.cell.contact.description"},
    };
    return keys;
}

const std::map<CellID, std::string>& SafariExtensionViewController::cellIcons() {
    static const std::map<CellID, std::string> icons{
        {CellID::blockedResources, "blocked-resources-MacIcon"}, {CellID::pause, "pause-MacIcon"},
        {CellID::whitelist, "whitelist-MacIcon"},                {CellID::makeHttps, "make-https-MacIcon"},
        {CellID::visualEditor, "visualEditor-MacIcon"},          {CellID::reportProblem, "report-MacIcon"},
        {CellID::faq, "faq-MacIcon"},                            {CellID::contact, "feedback-MacIcon"},
    };
    return icons;
}

// --- State ------------------------------------------------------------------------------------------------

std::optional<std::string> SafariExtensionViewController::currentHost() const {
    const auto delegate = delegate_.lock();
    if (!delegate) return std::nullopt;
    const auto url = delegate->currentPageURL();
    if (!url) return std::nullopt;
    return runtime::urlHost(*url);
}

bool SafariExtensionViewController::isPauseRunning() const {
    return control::PauseStatus::isPaused() && control::PauseStatus::minutesLeft(clock()) >= 1;
}

void SafariExtensionViewController::readSiteState(const std::string& host) {
    const SiteState state = SiteState::readRules(*ruleChanger_, host);
    makeHttpsRule_ = state.httpsRule;
    isCurrentDomainForcedHttps_ = state.https() == SiteState::Https::forced;
    originalWhitelistRule_ = state.whitelistRule;
    const auto whitelisting = state.whitelisting();
    isCurrentDomainWhitelisted_ =
        whitelisting == SiteState::Whitelisting::fully || whitelisting == SiteState::Whitelisting::partially;
}

void SafariExtensionViewController::rereadMakeHttpsState() {
    const auto host = currentHost();
    if (!host) {
        isCurrentDomainForcedHttps_.reset();
        makeHttpsRule_.reset();
    } else {
        const SiteState state = SiteState::readRules(*ruleChanger_, *host);
        makeHttpsRule_ = state.httpsRule;
        isCurrentDomainForcedHttps_ = state.https() == SiteState::Https::forced;
    }
    changed(PopoverChange::rows);
}

void SafariExtensionViewController::refreshForCurrentPage() {
    const auto delegate = delegate_.lock();
    const auto host = currentHost();
    if (delegate && host) {
        readSiteState(*host);
        needsPageReload_ = false;
        if (!delegate->isPopoverVisible()) dismissAllChildViews();
        schedulePauseTick();
        changed(PopoverChange::rows);
        return;
    }
    isCurrentDomainForcedHttps_.reset();
    makeHttpsRule_.reset();
    originalWhitelistRule_.reset();
    isCurrentDomainWhitelisted_.reset();
    changed(PopoverChange::rows);
    if (!presentedAlert()) {
        presentAlert(std::make_shared<AlertViewController>(commonUIText("alert.error.title"),
                                                           commonUIText("action.alert.no-domain.note")));
    }
}

void SafariExtensionViewController::reloadData() { changed(PopoverChange::rows); }

// The pause row counts down: while a pause runs, the rows change each time
// the minutes left do, and once more when the pause is over.
void SafariExtensionViewController::schedulePauseTick() {
    if (pauseTickScheduled_ || !isPauseRunning()) return;
    const auto start = control::PauseStatus::pausedDate();
    if (!start) return;
    const auto elapsed = clock().now() - *start;
    const auto nextChange = std::chrono::floor<std::chrono::minutes>(elapsed) + std::chrono::minutes(1) - elapsed;
    pauseTickScheduled_ = true;
    platform::DispatchQueue::main().asyncAfter(nextChange, [weak = weak_from_this()] {
        const auto popover = weak.lock();
        if (!popover) return;
        popover->pauseTickScheduled_ = false;
        popover->changed(PopoverChange::rows);
        popover->schedulePauseTick();
    });
}

// --- Rows --------------------------------------------------------------------------------------------------

std::vector<SafariExtensionViewController::Row> SafariExtensionViewController::rows() const {
    std::vector<Row> rows;
    const auto host = currentHost();
    const auto& sections = data();
    for (std::size_t section = 0; section < sections.size(); ++section) {
        const int sectionIndex = static_cast<int>(section);
        if (const char* key = sectionHeaderKeys[section]) {
            Row header;
            header.kind = Row::Kind::header;
            header.id = sectionHeaderIDs[section];
            header.section = sectionIndex;
            header.title = uppercased(section == 1 ? commonUIFormat(key, host.value_or("")) : commonUIText(key));
            header.smallTopOffset = section == 1;
            if (section == 2) {
                header.button = HeaderButton{"chart.bar-MacIcon",
                                             commonUIText("action.table.section.show-report-button.description")};
            }
            rows.push_back(std::move(header));
        }
        for (std::size_t index = 0; index < sections[section].size(); ++index) {
            const CellID cell = sections[section][index];
            Row row;
            row.id = std::string(model::rawValue(cell));
            row.cell = cell;
            row.section = sectionIndex;
            // The first row of a section (its header, or the domain row) is not selectable.
            row.selectable = !(index == 0 && !sectionHeaderKeys[section]);
            if (const auto text = cellTextKeys().find(cell); text != cellTextKeys().end()) {
                row.title = commonUIText(text->second);
            }
            if (const auto description = cellDescriptionKeys().find(cell); description != cellDescriptionKeys().end()) {
                row.description = commonUIText(description->second);
            }
            if (const auto icon = cellIcons().find(cell); icon != cellIcons().end()) row.icon = icon->second;
            switch (cell) {
                case CellID::domainName: row.title = commonUIText("app-name"); break;
                case CellID::pause:
                    row.switchOn = isPauseRunning();
                    if (*row.switchOn) {
                        row.description =
                            commonUIFormat("action.table.cell.paused-for-minutes.description",
                                           std::to_string(control::PauseStatus::minutesLeft(clock())));
                    }
                    break;
                case CellID::makeHttps: row.switchOn = isCurrentDomainForcedHttps_.value_or(false); break;
                case CellID::blockedCounters: {
                    const std::pair<HistoryPeriodType, std::int64_t> totals[] = {
                        {HistoryPeriodType::today, history().blockedResourcesCountForToday()},
                        {HistoryPeriodType::thisWeek, history().blockedResourcesCountForThisWeek()},
                        {HistoryPeriodType::allTime, history().blockedResourcesCountForAllTime()},
                    };
                    for (const auto& [period, value] : totals) {
                        const std::string key = counterLabelKey(period);
                        row.counters.push_back({period, std::string(model::rawValue(period)), commonUIText(key),
                                                commonUIText(key + ".description"), value, formattedCount(value)});
                    }
                    break;
                }
                case CellID::whitelist:
                case CellID::visualEditor:
                case CellID::faq:
                case CellID::reportProblem:
                case CellID::contact: row.hasCustomAction = true; break;
                default: break;
            }
            rows.push_back(std::move(row));
        }
    }
    return rows;
}

bool SafariExtensionViewController::shouldSelectRow(int row) const {
    const auto all = rows();
    if (row < 0 || static_cast<std::size_t>(row) >= all.size()) return false;
    return all[static_cast<std::size_t>(row)].selectable;
}

// --- Clicks -------------------------------------------------------------------------------------------------

Outcome SafariExtensionViewController::ignoreWhilePresenting() {
    if (presented_.empty()) return {};
    std::string list = "[";
    for (std::size_t i = 0; i < presented_.size(); ++i) {
        if (i > 0) list += ", ";
        list += description(presented_[i]);
    }
    platform::consolePrint("Ignoring the click: there are already presented: " + list + "]");
    return refused("Another view is presented over the popover; dismiss it first.");
}

Outcome SafariExtensionViewController::tableViewDidClick(int row) {
    const auto all = rows();
    if (row < 0 || static_cast<std::size_t>(row) >= all.size()) return refused("There is no row at that index.");
    if (auto ignored = ignoreWhilePresenting(); !ignored) return ignored;
    const Row& clicked = all[static_cast<std::size_t>(row)];
    if (!clicked.cell) return {};
    switch (*clicked.cell) {
        case CellID::blockedResources: return showBlockedHistory();
        case CellID::whitelist: presentWhitelistEditor(); break;
        case CellID::visualEditor: openVisualEditor(); break;
        case CellID::faq: openSupportSite(); break;
        case CellID::reportProblem: presentSiteReporter(); break;
        case CellID::contact: composeFeedback(); break;
        default: break;
    }
    return {};
}

Outcome SafariExtensionViewController::clickRow(CellID cell) {
    const auto all = rows();
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (all[i].cell == cell) return tableViewDidClick(static_cast<int>(i));
    }
    return refused("There is no such row.");
}

void SafariExtensionViewController::openVisualEditor() {
    platform::consolePrint("Visual Editor did press");
    settings::App::setMustShowVisualEditor(true);
    const auto delegate = delegate_.lock();
    settings::App::setMustShowVisualEditorURL(delegate ? delegate->currentPageURL() : std::nullopt);
    collaborators_.systemActions->launchApplication(settings::MainApp::mainAppBundleID());
}

void SafariExtensionViewController::openSupportSite() {
    const std::string& site = *collaborators_.supportSite;
    if (!site.starts_with("https://") && !site.starts_with("http://")) {
        popoverLog().error("Can't open the support site: \"%s\" is no web address", site.c_str());
        return;
    }
    collaborators_.systemActions->openInBrowser(site);
}

void SafariExtensionViewController::composeFeedback() {
    const auto delegate = delegate_.lock();
    const auto pageURL = delegate ? delegate->currentPageURL() : std::nullopt;
    control::DataManager& manager = dataManager();
    std::vector<model::Package> custom = manager.configurablePackages();
    for (model::Package& package : manager.customPackages()) custom.push_back(std::move(package));
    const std::vector<FeedbackMail::PackageGroup> groups{
        {model::localizedTitle(model::PackageCategory::general), manager.generalPackages()},
        {model::localizedTitle(model::PackageCategory::international), manager.internationalPackages()},
        {model::localizedTitle(model::PackageCategory::custom), std::move(custom)},
    };
    const std::string body = FeedbackMail::body(FeedbackMail::diagnosticBlock(pageURL, groups));
    const auto link = FeedbackMail::link(*collaborators_.supportAddress, body);
    if (!link) {
        popoverLog().error("Error sending email: can't convert string %s to URL", body.c_str());
        return;
    }
    presentAlert(std::make_shared<AlertViewController>(
        commonUIText("alert.feedback-welcome.title"), commonUIText("alert.feedback-welcome.message"),
        commonUIText("alert.feedback-welcome.ok-button"),
        [actions = collaborators_.systemActions, link = *link] { actions->openMailLink(link); }));
}

// --- Switches -------------------------------------------------------------------------------------------------

Outcome SafariExtensionViewController::switchRow(CellID cell, bool on) {
    if (auto ignored = ignoreWhilePresenting(); !ignored) return ignored;
    switch (cell) {
        case CellID::pause: pauseBlockingSwitchDidChange(on); return {};
        case CellID::makeHttps: makeHTTPSSwitchDidChange(on); return {};
        default: return refused("That row has no switch.");
    }
}

void SafariExtensionViewController::pauseBlockingSwitchDidChange(bool on) {
    platform::consolePrint(std::string("pauseBlockingSwitchDidChange: ") + (on ? "true" : "false"));
    needsPageReload_ = false;
    auto done = [weak = weak_from_this()](const storage::ReloadingResult& result) {
        const auto popover = weak.lock();
        if (!popover) return;
        if (!result) {
            const std::string text = result.error().description();
            platform::consolePrint("Error in saving and/or reloading: " + text);
            popover->presentErrorAlert(commonUIText("alert.error.title"), text);
        } else {
            platform::consolePrint("Successfuly aplied new pause state");
            popover->needsPageReload_ = true;
        }
        popover->changed(PopoverChange::rows);
    };
    if (on) {
        extensionManager().pauseBlocking(std::move(done));
    } else {
        extensionManager().resumeBlocking(std::move(done));
    }
    schedulePauseTick();
    changed(PopoverChange::rows);
}

void SafariExtensionViewController::makeHTTPSSwitchDidChange(bool on) {
    isCurrentDomainForcedHttps_ = on;
    changed(PopoverChange::rows);
    const auto host = currentHost();
    if (!host) {
        platform::consolePrint("Can't force HTTPS: domain doesn't exist");
        rereadMakeHttpsState();
        return;
    }
    needsPageReload_ = false;
    const auto domain = model::domainForHost(*host);
    const auto alert = [this](const char* title, const char* message) {
        presentErrorAlert(commonUIText(title), commonUIText(message));
        rereadMakeHttpsState();
    };
    if (on) {
        // A switched-off list is named before the domain is looked at.
        const auto package = ruleChanger_->configurablePackage(model::ConfigurableType::makeHttps);
        if (package && storage::isDisabled(*package)) {
            return alert("action.alert.make-https.disabled.title", "action.alert.make-https.disabled.note");
        }
        if (!domain) {
            popoverLog().error("Can't save rule: domain invalid");
            return alert("action.alert.make-https.invalid-domain.title", "action.alert.make-https.invalid-domain.note");
        }
    } else {
        if (!domain) {
            popoverLog().error("Can't remove rule: domain invalid");
            return alert("action.alert.make-https.invalid-domain.title",
                         "action.alert.make-https.remove.invalid-domain.note");
        }
        if (!ruleChanger_->makeHttpsRule(*domain)) {
            popoverLog().error("Can't unforce https: domain or rule doesn't exist");
            return alert("alert.error.title", "action.alert.make-https.not-exist.note");
        }
    }
    auto done = [weak = weak_from_this(), on, domain = *domain](const RuleChanger::Result& result) {
        const auto popover = weak.lock();
        if (!popover) return;
        if (result) {
            platform::consolePrint(on ? "Added " + domain + " to Make HTTPS" : "Removed " + domain + " from Make HTTPS");
            popover->needsPageReload_ = true;
        } else if (const auto* failure = std::get_if<RuleChanger::Failure>(&result.error())) {
            if (on) {
                popover->presentErrorAlert(commonUIText("action.alert.make-https.invalid-rule.title"),
                                           commonUIText("action.alert.make-https.invalid-rule.note"));
            } else {
                if (*failure == RuleChanger::Failure::domainNotFound) {
                    popoverLog().error("Can't unforce https: domain or rule doesn't exist");
                }
                popover->presentErrorAlert(commonUIText("alert.error.title"),
                                           commonUIText("action.alert.make-https.not-exist.note"));
            }
        } else {
            // Saved, but the rebuild failed: the change stays.
            const std::string text = RuleChanger::description(result.error());
            platform::consolePrint("Error in saving and/or reloading: " + text);
            popover->presentErrorAlert(commonUIText("alert.error.title"), text);
            popover->needsPageReload_ = true;
        }
        popover->rereadMakeHttpsState();
    };
    if (on) {
        ruleChanger_->makeHttps(*domain, std::move(done));
    } else {
        ruleChanger_->unforceHttps(*domain, std::move(done));
    }
}

// --- Counters and the statistics -----------------------------------------------------------------------------

Outcome SafariExtensionViewController::counterDidTap(HistoryPeriodType period) {
    switch (period) {
        case HistoryPeriodType::today: platform::consolePrint("blockedResourcesCounterForTodayDidTap"); break;
        case HistoryPeriodType::thisWeek: platform::consolePrint("blockedResourcesCounterForThisWeekDidTap"); break;
        case HistoryPeriodType::allTime: platform::consolePrint("blockedResourcesCounterForAllTimeDidTap"); break;
    }
    if (auto ignored = ignoreWhilePresenting(); !ignored) return ignored;
    present(std::make_shared<BlockingStatsViewController>(
        period, history(), collaborators_.calendar,
        [weak = weak_from_this()] {
            if (const auto popover = weak.lock()) popover->changed(PopoverChange::children);
        }));
    return {};
}

Outcome SafariExtensionViewController::blockedResourcesCounterForAllTimeDidTap() {
    return counterDidTap(HistoryPeriodType::allTime);
}
Outcome SafariExtensionViewController::blockedResourcesCounterForThisWeekDidTap() {
    return counterDidTap(HistoryPeriodType::thisWeek);
}
Outcome SafariExtensionViewController::blockedResourcesCounterForTodayDidTap() {
    return counterDidTap(HistoryPeriodType::today);
}

Outcome SafariExtensionViewController::showBlockingReportButtonDidTap() {
    platform::consolePrint("showBlockingStatsButtonDidTap");
    if (auto ignored = ignoreWhilePresenting(); !ignored) return ignored;
    present(std::make_shared<BlockingStatsViewController>(
        HistoryPeriodType::allTime, history(), collaborators_.calendar, [weak = weak_from_this()] {
            if (const auto popover = weak.lock()) popover->changed(PopoverChange::children);
        }));
    return {};
}

Outcome SafariExtensionViewController::showBlockedHistory() {
    const auto delegate = delegate_.lock();
    const auto page = delegate ? delegate->currentPage() : nullptr;
    if (!page) {
        platform::debugLog("Error: Can't show BlockedHistory. currentPage is nil");
        return refused("There is no current page.");
    }
    auto grouped = history().groupedHistory(page);
    if (!grouped) {
        platform::debugLog("Error: groupedBlockedHistoryRecords is nil");
        return refused("Nothing was blocked on this page.");
    }
    if (!presented_.empty()) {
        platform::debugLog("Error: another VC is presented, so not allowing BlockedHistory to be presented");
        return refused("Another view is presented over the popover; dismiss it first.");
    }
    present(std::make_shared<BlockedHistoryViewController>(std::move(*grouped), [weak = weak_from_this()] {
        if (const auto popover = weak.lock()) {
            popover->changed(PopoverChange::children);
            popover->changed(PopoverChange::badge);
        }
    }));
    return {};
}

// --- Child views ---------------------------------------------------------------------------------------------------

void SafariExtensionViewController::presentWhitelistEditor() {
    if (!presented_.empty()) {
        platform::debugLog("Error: another VC is presented, so not allowing Whitelist to be presented");
        return;
    }
    const std::weak_ptr<SafariExtensionViewController> weak = weak_from_this();
    WhitelistViewController::Presenter presenter;
    presenter.currentHost = [weak]() -> std::optional<std::string> {
        const auto popover = weak.lock();
        return popover ? popover->currentHost() : std::nullopt;
    };
    presenter.presentAlert = [weak](std::shared_ptr<AlertViewController> alert) {
        if (const auto popover = weak.lock()) popover->presentAlert(std::move(alert));
    };
    presenter.dismiss = [weak] {
        if (const auto popover = weak.lock()) popover->dismissWhitelist();
    };
    presenter.didSaveChange = [weak] {
        const auto popover = weak.lock();
        if (!popover) return;
        popover->whitelistEditorDidChange_ = true;
        // The site's whitelist state changed: the rows, and the heart on the
        // badge, follow at once rather than at the next validation.
        if (const auto host = popover->currentHost()) popover->readSiteState(*host);
        popover->changed(PopoverChange::rows);
        popover->changed(PopoverChange::badge);
    };
    presenter.changed = [weak] {
        if (const auto popover = weak.lock()) popover->changed(PopoverChange::children);
    };
    auto editor = WhitelistViewController::create(
        ruleChanger_, collaborators_.reloading ? collaborators_.reloading : storage::ExtensionReloading::shared(),
        std::move(presenter));
    editor->setInitialState(originalWhitelistRule_);
    whitelistEditorDidChange_ = false;
    present(std::move(editor));
}

void SafariExtensionViewController::presentSiteReporter() {
    const std::weak_ptr<SafariExtensionViewController> weak = weak_from_this();
    ReportSiteViewController::Presenter presenter;
    presenter.currentPageURL = [weak]() -> std::optional<std::string> {
        const auto popover = weak.lock();
        const auto delegate = popover ? popover->delegate_.lock() : nullptr;
        return delegate ? delegate->currentPageURL() : std::nullopt;
    };
    presenter.presentAlert = [weak](std::shared_ptr<AlertViewController> alert) {
        if (const auto popover = weak.lock()) popover->presentAlert(std::move(alert));
    };
    presenter.dismiss = [weak] {
        if (const auto popover = weak.lock()) popover->dismissSiteReporter();
    };
    presenter.changed = [weak] {
        if (const auto popover = weak.lock()) popover->changed(PopoverChange::children);
    };
    present(std::make_shared<ReportSiteViewController>(collaborators_.reporter, std::move(presenter)));
}

void SafariExtensionViewController::present(ChildView child) {
    presented_.push_back(std::move(child));
    changed(PopoverChange::children);
}

void SafariExtensionViewController::presentAlert(std::shared_ptr<AlertViewController> alert) {
    if (alert) present(std::move(alert));
}

void SafariExtensionViewController::presentErrorAlert(const std::string& title, const std::string& message) {
    presentAlert(std::make_shared<AlertViewController>(title, message));
}

std::optional<SafariExtensionViewController::ChildView> SafariExtensionViewController::presentedChild() const {
    for (auto it = presented_.rbegin(); it != presented_.rend(); ++it) {
        if (it->index() != alertIndex) return *it;
    }
    return std::nullopt;
}

std::shared_ptr<AlertViewController> SafariExtensionViewController::presentedAlert() const {
    for (auto it = presented_.rbegin(); it != presented_.rend(); ++it) {
        if (it->index() == alertIndex) return std::get<alertIndex>(*it);
    }
    return nullptr;
}

Outcome SafariExtensionViewController::alertOK() {
    const auto alert = presentedAlert();
    if (!alert) return refused("No alert is presented.");
    std::erase_if(presented_, [&alert](const ChildView& child) {
        return child.index() == alertIndex && std::get<alertIndex>(child) == alert;
    });
    changed(PopoverChange::children);
    alert->pressOK();
    return {};
}

Outcome SafariExtensionViewController::alertCancel() {
    const auto alert = presentedAlert();
    if (!alert) return refused("No alert is presented.");
    if (!alert->showCancelButton()) return refused("The alert has no cancel button.");
    std::erase_if(presented_, [&alert](const ChildView& child) {
        return child.index() == alertIndex && std::get<alertIndex>(child) == alert;
    });
    changed(PopoverChange::children);
    alert->pressCancel();
    return {};
}

void SafariExtensionViewController::dismissKind(std::size_t index, const char* line) {
    std::vector<ChildView> dismissed;
    std::erase_if(presented_, [&](const ChildView& child) {
        if (child.index() != index) return false;
        dismissed.push_back(child);
        return true;
    });
    if (dismissed.empty()) return;
    for (const ChildView& child : dismissed) {
        platform::consolePrint(index == alertIndex ? std::string(line) + description(child) : std::string(line));
    }
    changed(PopoverChange::children);
}

void SafariExtensionViewController::dismissBlockedHistory() { dismissKind(blockedHistoryIndex, "Dismissing Blocked History"); }
void SafariExtensionViewController::dismissAlert() { dismissKind(alertIndex, "Dismissing Alert ("); }
void SafariExtensionViewController::dismissWhitelist() { dismissKind(whitelistIndex, "Dismissing Whitelist"); }
void SafariExtensionViewController::dismissSiteReporter() { dismissKind(siteReporterIndex, "Dismissing Site Reporter"); }
void SafariExtensionViewController::dismissBlockingStats() { dismissKind(blockingStatsIndex, "Dismissing Blocking Stats"); }

void SafariExtensionViewController::dismissAllChildViews() {
    dismissBlockedHistory();
    dismissAlert();
    dismissWhitelist();
    dismissSiteReporter();
    dismissBlockingStats();
}

std::string_view SafariExtensionViewController::kindName(const ChildView& child) {
    static constexpr std::array<std::string_view, 5> names{"alert", "whitelist", "blockedHistory", "siteReporter",
                                                           "blockingStats"};
    return names[child.index()];
}

std::string SafariExtensionViewController::description(const ChildView& child) {
    return std::visit([](const auto& view) { return view->description(); }, child);
}

}  // namespace tamsel::ui
