#include "platform/LocalContentBlockerManager.h"

#include <mutex>

#include "platform/ContentRuleListValidator.h"
#include "platform/DataRoot.h"
#include "platform/DispatchQueue.h"
#include "platform/Files.h"

namespace tamsel::platform {

std::string defaultErrorDescription(const std::string& domain, std::int64_t code) {
    return "The operation couldn\u2019t be completed. (" + domain + " error " + std::to_string(code) + ".)";
}

namespace {

std::mutex sharedMutex;
std::shared_ptr<ContentBlockerManager>& sharedSlot() {
    static std::shared_ptr<ContentBlockerManager> manager;
    return manager;
}

// What a process gets before anyone has put Safari in place.
class AbsentContentBlockerManager : public ContentBlockerManager {
public:
    void reloadContentBlocker(const std::string&, ReloadCompletion completion) override {
        if (completion) completion(unavailable());
    }
    void getStateOfContentBlocker(const std::string&, StateCompletion completion) override {
        if (completion) completion(std::nullopt, unavailable());
    }

private:
    static PlatformError unavailable() {
        return PlatformError{"SFErrorDomain", 1, "Safari is not available to this process.", std::nullopt};
    }
};

const std::string enabledPrefix = "enabled.";
const std::string failurePrefix = "failNext.";
const std::string reloadPrefix = "lastReload.";

constexpr std::int64_t compileFailedCode = 6;  // WKErrorContentRuleListStoreCompileFailed

PlatformError compileError(std::string_view reason) {
    return PlatformError{"WKErrorDomain", compileFailedCode,
                         defaultErrorDescription("WKErrorDomain", compileFailedCode),
                         "Rule list compilation failed: " + std::string(reason)};
}

}  // namespace

std::shared_ptr<ContentBlockerManager> ContentBlockerManager::shared() {
    std::lock_guard lock(sharedMutex);
    if (!sharedSlot()) sharedSlot() = std::make_shared<AbsentContentBlockerManager>();
    return sharedSlot();
}

void ContentBlockerManager::setShared(std::shared_ptr<ContentBlockerManager> manager) {
    std::lock_guard lock(sharedMutex);
    sharedSlot() = std::move(manager);
}

std::shared_ptr<LocalContentBlockerManager> LocalContentBlockerManager::open(FileResolver resolver) {
    const auto folder = DataRoot::home() / "safari";
    auto state = UserDefaults::open(folder, "content-blockers");
    if (!state) state = UserDefaults::inMemory("content-blockers");
    return std::make_shared<LocalContentBlockerManager>(std::move(state), folder / "content-blockers.lock",
                                                        std::move(resolver));
}

LocalContentBlockerManager::LocalContentBlockerManager(std::shared_ptr<UserDefaults> state,
                                                       std::filesystem::path lockFile, FileResolver resolver)
    : state_(std::move(state)),
      lock_(lockFile),
      resolver_(std::move(resolver)),
      listsFolder_(lockFile.parent_path() / "lists") {}

void LocalContentBlockerManager::reloadContentBlocker(const std::string& identifier, ReloadCompletion completion) {
    DispatchQueue::global(QualityOfService::userInitiated).async([self = shared_from_this(), identifier, completion] {
        auto error = self->reloadNow(identifier);
        if (completion) completion(std::move(error));
    });
}

void LocalContentBlockerManager::getStateOfContentBlocker(const std::string& identifier,
                                                          StateCompletion completion) {
    DispatchQueue::global(QualityOfService::userInitiated).async([self = shared_from_this(), identifier, completion] {
        if (!self->resolver_(identifier)) {
            if (completion)
                completion(std::nullopt, PlatformError{"SFErrorDomain", 1,
                                                       "No content blocker with identifier " + identifier,
                                                       std::nullopt});
            return;
        }
        if (completion) completion(ContentBlockerState{self->isEnabled(identifier)}, std::nullopt);
    });
}

std::optional<PlatformError> LocalContentBlockerManager::reloadNow(const std::string& identifier) {
    const auto file = resolver_(identifier);
    if (!file) {
        PlatformError error{"SFErrorDomain", 1, "No content blocker with identifier " + identifier, std::nullopt};
        return error;
    }
    if (auto injected = takeInjectedFailure(identifier)) {
        record(identifier, injected, 0);
        return injected;
    }
    auto snapshot = FileSnapshot::take(*file);
    if (!snapshot) {
        auto error = compileError("Failed to read the rule list: " + snapshot.error().message() + ".");
        record(identifier, error, 0);
        return error;
    }
    bool empty = false;
    {
        std::lock_guard lock(listsMutex_);
        empty = servesEmptyList_ && servesEmptyList_();
    }
    auto entries = empty ? compileList(identifier, "[]", nullptr) : compileList(identifier, snapshot->bytes(), &*snapshot);
    if (!entries) {
        record(identifier, entries.error(), 0);
        return entries.error();
    }
    record(identifier, std::nullopt, *entries);
    return std::nullopt;
}

std::filesystem::path LocalContentBlockerManager::compiledListPath(const std::string& identifier) const {
    return listsFolder_ / (identifier + ".json");
}

// Builds the matcher, behind the grammar gate, reusing the previous one's
// body when only the whitelisting tail changed, and keeps the list for other
// processes. Answers the number of entries Safari would count.
std::expected<std::size_t, PlatformError> LocalContentBlockerManager::compileList(const std::string& identifier,
                                                                                  const std::string& json,
                                                                                  const FileSnapshot* source) {
    std::shared_ptr<const ContentRuleMatcher> previous = json == "[]" ? nullptr : matcher(identifier);
    std::shared_ptr<const ContentRuleMatcher> compiled;
    if (json != "[]") {
        auto result = ContentRuleMatcher::compile(json, ContentRuleMatcher::Limits{}, previous.get());
        if (!result) return std::unexpected(compileError(result.error().message()));
        compiled = std::move(*result);
    }
    const std::size_t entries = compiled ? compiled->entryCount() : 0;
    std::error_code ignored;
    std::filesystem::create_directories(listsFolder_, ignored);
    const auto path = compiledListPath(identifier);
    // The list is kept as another name of the file it was compiled from: a
    // copy would be written and flushed for every reload.
    if (!source || !source->linkAs(path)) {
        if (auto written = writeFileAtomically(path, json); !written)
            return std::unexpected(
                compileError("Failed to store the compiled rule list: " + written.error().message() + "."));
    }
    std::lock_guard lock(listsMutex_);
    lists_[identifier] = CompiledList{fileStamp(path), std::move(compiled)};
    return entries;
}

void LocalContentBlockerManager::setServesEmptyList(std::function<bool()> servesEmptyList) {
    std::lock_guard lock(listsMutex_);
    servesEmptyList_ = std::move(servesEmptyList);
}

std::shared_ptr<const ContentRuleMatcher> LocalContentBlockerManager::matcher(const std::string& identifier) {
    const auto path = compiledListPath(identifier);
    const FileStamp stamp = fileStamp(path);
    {
        std::lock_guard lock(listsMutex_);
        if (auto found = lists_.find(identifier); found != lists_.end() && found->second.stamp == stamp)
            return found->second.matcher;
    }
    // Compiled by another process since, or never seen by this one.
    std::shared_ptr<const ContentRuleMatcher> compiled;
    if (stamp.exists) {
        if (auto bytes = readFile(path); bytes && *bytes != "[]") {
            if (auto result = ContentRuleMatcher::compile(*bytes)) compiled = std::move(*result);
        }
    }
    std::lock_guard lock(listsMutex_);
    lists_[identifier] = CompiledList{stamp, compiled};
    return compiled;
}

void LocalContentBlockerManager::setEnabled(const std::string& identifier, bool enabled) {
    state_->set(Value(enabled), enabledPrefix + identifier);
}

bool LocalContentBlockerManager::isEnabled(const std::string& identifier) const {
    return state_->value(enabledPrefix + identifier).value_or(Value(true)).asBool().value_or(true);
}

PlatformError LocalContentBlockerManager::transientError(std::int64_t code, std::optional<std::string> domain) {
    std::string chosen = domain ? *domain : (code == 4097 ? "NSCocoaErrorDomain" : "SFErrorDomain");
    std::string text = defaultErrorDescription(chosen, code);
    return PlatformError{std::move(chosen), code, std::move(text), std::nullopt};
}

void LocalContentBlockerManager::failNext(const std::string& identifier, std::int64_t code, int count,
                                          std::optional<std::string> domain) {
    std::lock_guard lock(lock_);
    if (count <= 0) {
        state_->removeObject(failurePrefix + identifier);
        return;
    }
    const auto error = transientError(code, std::move(domain));
    state_->set(Value(Dictionary{{"domain", Value(error.domain)},
                                 {"code", Value(code)},
                                 {"remaining", Value(static_cast<std::int64_t>(count))}}),
                failurePrefix + identifier);
}

int LocalContentBlockerManager::pendingFailures(const std::string& identifier) const {
    auto entry = state_->dictionary(failurePrefix + identifier);
    if (!entry) return 0;
    auto remaining = entry->find("remaining");
    if (remaining == entry->end()) return 0;
    return static_cast<int>(remaining->second.asInteger().value_or(0));
}

std::optional<PlatformError> LocalContentBlockerManager::takeInjectedFailure(const std::string& identifier) {
    std::lock_guard lock(lock_);
    auto entry = state_->dictionary(failurePrefix + identifier);
    if (!entry) return std::nullopt;
    auto field = [&](const char* key) -> const Value* {
        auto it = entry->find(key);
        return it == entry->end() ? nullptr : &it->second;
    };
    const auto* remaining = field("remaining");
    const auto* code = field("code");
    const auto* domain = field("domain");
    const auto count = remaining ? remaining->asInteger().value_or(0) : 0;
    if (count <= 0 || !code || !code->asInteger()) {
        state_->removeObject(failurePrefix + identifier);
        return std::nullopt;
    }
    if (count == 1) {
        state_->removeObject(failurePrefix + identifier);
    } else {
        entry->insert_or_assign("remaining", Value(count - 1));
        state_->set(Value(*entry), failurePrefix + identifier);
    }
    return transientError(*code->asInteger(), domain ? domain->asString() : std::nullopt);
}

void LocalContentBlockerManager::record(const std::string& identifier, const std::optional<PlatformError>& error,
                                        std::size_t entries) {
    Dictionary entry{{"date", Value(Clock::systemNow())},
                     {"entries", Value(static_cast<std::int64_t>(entries))}};
    if (error) {
        entry.insert_or_assign("domain", Value(error->domain));
        entry.insert_or_assign("code", Value(error->code));
        entry.insert_or_assign("description", Value(error->localizedDescription));
        if (error->helpAnchor) entry.insert_or_assign("helpAnchor", Value(*error->helpAnchor));
    }
    state_->set(Value(std::move(entry)), reloadPrefix + identifier);
}

std::optional<LocalContentBlockerManager::ReloadRecord> LocalContentBlockerManager::lastReload(
    const std::string& identifier) const {
    auto entry = state_->dictionary(reloadPrefix + identifier);
    if (!entry) return std::nullopt;
    auto get = [&](const char* key) -> std::optional<Value> {
        auto it = entry->find(key);
        if (it == entry->end()) return std::nullopt;
        return it->second;
    };
    ReloadRecord result;
    if (auto date = get("date")) result.date = date->asDate().value_or(Date{});
    if (auto entries = get("entries")) result.entryCount = static_cast<std::size_t>(entries->asInteger().value_or(0));
    if (auto domain = get("domain")) {
        PlatformError error;
        error.domain = domain->asString().value_or("");
        if (auto code = get("code")) error.code = code->asInteger().value_or(0);
        if (auto text = get("description")) error.localizedDescription = text->asString().value_or("");
        if (auto anchor = get("helpAnchor")) error.helpAnchor = anchor->asString();
        result.error = std::move(error);
    }
    return result;
}

}  // namespace tamsel::platform
