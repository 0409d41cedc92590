#pragma once

#include <chrono>
#include <expected>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/ContentBlockerManager.h"
#include "platform/ContentRuleMatcher.h"
#include "platform/Files.h"
#include "platform/InterProcessMutex.h"
#include "platform/UserDefaults.h"

// The substitute host's content-blocker manager. On reload it does what
// Safari does: it reads the content blocker's JSON file and compiles it, and
// refuses what Safari's rule-list compiler refuses (see
// ContentRuleListValidator.h) with WebKit's error: domain "WKErrorDomain",
// code 6, help anchor "Rule list compilation failed: " + the reason.
//
// Its state is kept in a store of its own under <home>/safari/, so that
// separate runs of `tamsel` (and tests) share it:
//   * whether the user enabled each content blocker (enabled unless set);
//   * injected failures: "fail the next N reloads with code C", consumed one
//     reload at a time under a lock shared by all processes. Codes 3 and 4097
//     are the transient ones, in "SFErrorDomain" and "NSCocoaErrorDomain";
//   * the outcome of each content blocker's last reload;
//   * under lists/, the rule list each content blocker's last successful
//     reload compiled, which the substitute Safari matches loads against
//     (ContentRuleMatcher.h) until the next successful reload.
namespace tamsel::platform {

class LocalContentBlockerManager : public ContentBlockerManager,
                                   public std::enable_shared_from_this<LocalContentBlockerManager> {
public:
    // Construct with std::make_shared: answers are delivered from other
    // threads and keep the manager alive until they are.
    // Maps a content blocker's bundle identifier to its JSON file; nothing for
    // an identifier Safari does not know.
    using FileResolver = std::function<std::optional<std::filesystem::path>(const std::string& identifier)>;

    // The manager over <home>/safari/ of the current data root.
    static std::shared_ptr<LocalContentBlockerManager> open(FileResolver resolver);

    LocalContentBlockerManager(std::shared_ptr<UserDefaults> state, std::filesystem::path lockFile,
                               FileResolver resolver);

    void reloadContentBlocker(const std::string& identifier, ReloadCompletion completion) override;
    void getStateOfContentBlocker(const std::string& identifier, StateCompletion completion) override;

    void setEnabled(const std::string& identifier, bool enabled);
    bool isEnabled(const std::string& identifier) const;

    // The next `count` reloads of `identifier` fail with `code`; the domain is
    // the one Safari uses for that code unless one is given.
    void failNext(const std::string& identifier, std::int64_t code, int count,
                  std::optional<std::string> domain = std::nullopt);
    int pendingFailures(const std::string& identifier) const;

    struct ReloadRecord {
        std::chrono::system_clock::time_point date;
        std::optional<PlatformError> error;
        std::size_t entryCount = 0;  // entries compiled; 0 after a failure
    };
    std::optional<ReloadRecord> lastReload(const std::string& identifier) const;

    // The error Safari gives for a code that it fails with on its own.
    static PlatformError transientError(std::int64_t code, std::optional<std::string> domain = std::nullopt);

    // Reloads synchronously on the calling thread; reloadContentBlocker runs
    // this on a global queue and answers from there.
    std::optional<PlatformError> reloadNow(const std::string& identifier);

    // While this answers true (blocking is paused), the content-blocker
    // extensions serve an empty list: a reload then compiles nothing, and
    // nothing is blocked until the next reload after the pause.
    void setServesEmptyList(std::function<bool()> servesEmptyList);

    // The matcher of the list that `identifier`'s last successful reload
    // compiled (by this process or another); null when nothing is compiled.
    std::shared_ptr<const ContentRuleMatcher> matcher(const std::string& identifier);

    // Where the lists of the last successful reloads are kept.
    const std::filesystem::path& compiledListsFolder() const { return listsFolder_; }

private:
    std::filesystem::path compiledListPath(const std::string& identifier) const;
    // `source`, when given, is the file `json` was read from.
    std::expected<std::size_t, PlatformError> compileList(const std::string& identifier, const std::string& json,
                                                          const FileSnapshot* source);

    std::optional<PlatformError> takeInjectedFailure(const std::string& identifier);
    void record(const std::string& identifier, const std::optional<PlatformError>& error, std::size_t entries);

    std::shared_ptr<UserDefaults> state_;
    mutable InterProcessMutex lock_;
    FileResolver resolver_;
    std::filesystem::path listsFolder_;

    struct CompiledList {
        FileStamp stamp;
        std::shared_ptr<const ContentRuleMatcher> matcher;
    };
    std::mutex listsMutex_;
    std::function<bool()> servesEmptyList_;
    std::map<std::string, CompiledList> lists_;
};

}  // namespace tamsel::platform
