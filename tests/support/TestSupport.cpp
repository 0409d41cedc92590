#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <thread>

#include "platform/DataRoot.h"
#include "platform/Stores.h"

namespace tamsel::testing {
namespace {

constexpr const char* childEntryVariable = "TAMSEL_TEST_CHILD_ENTRY";
constexpr const char* childArgumentsVariable = "TAMSEL_TEST_CHILD_ARGUMENTS";
constexpr char argumentSeparator = '\x1f';

std::map<std::string, ChildEntry>& childEntries() {
    static std::map<std::string, ChildEntry> entries;
    return entries;
}

int exitStatus(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

int waitForChild(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return exitStatus(status);
}

std::vector<std::string> split(std::string_view text) {
    std::vector<std::string> parts;
    if (text.empty()) return parts;
    std::size_t start = 0;
    for (;;) {
        const auto end = text.find(argumentSeparator, start);
        parts.emplace_back(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
        if (end == std::string_view::npos) break;
        start = end + 1;
    }
    return parts;
}

// A child started by runChildEntry runs the whole test program's start-up and
// then, before the first test, its entry instead of the tests.
class ChildEntryEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        const char* name = std::getenv(childEntryVariable);
        if (name == nullptr) return;
        const auto found = childEntries().find(name);
        if (found == childEntries().end()) {
            std::fprintf(stderr, "no child entry named %s\n", name);
            std::fflush(stderr);
            std::_Exit(125);
        }
        const char* arguments = std::getenv(childArgumentsVariable);
        int result = 1;
        try {
            result = found->second(split(arguments != nullptr ? arguments : ""));
        } catch (const std::exception& error) {
            std::fprintf(stderr, "child entry %s threw: %s\n", name, error.what());
        }
        std::fflush(stdout);
        std::fflush(stderr);
        std::_Exit(result);
    }
};

[[maybe_unused]] ::testing::Environment* const childEntryEnvironment =
    ::testing::AddGlobalTestEnvironment(new ChildEntryEnvironment);

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tamsel-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    // Tests make folders read-only to provoke failures; give the rights back
    // so that everything can go.
    for (auto it = std::filesystem::recursive_directory_iterator(path_, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
        if (it->is_directory(ignored) && !it->is_symlink(ignored)) {
            std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ignored);
        }
    }
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add,
                                 ignored);
    std::filesystem::remove_all(path_, ignored);
}

ScopedDataRoot::ScopedDataRoot() : previous_(platform::DataRoot::homeOverride()) {
    platform::resetSharedStoresForTesting();
    platform::DataRoot::setHome(directory_.path());
}

ScopedDataRoot::~ScopedDataRoot() {
    platform::resetSharedStoresForTesting();
    platform::DataRoot::setHome(previous_);
}

ScopedEnvironmentVariable::ScopedEnvironmentVariable(std::string name, std::optional<std::string> value)
    : name_(std::move(name)) {
    if (const char* previous = std::getenv(name_.c_str())) previous_ = previous;
    if (value) {
        ::setenv(name_.c_str(), value->c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

ScopedEnvironmentVariable::~ScopedEnvironmentVariable() {
    if (previous_) {
        ::setenv(name_.c_str(), previous_->c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

LogCapture::LogCapture(bool silence) {
    previous_ = platform::setLogSink(
        [this](const platform::LogRecord& record) {
            std::lock_guard lock(mutex_);
            records_.push_back(record);
        },
        silence);
}

LogCapture::~LogCapture() { platform::setLogSink(std::move(previous_)); }

std::vector<platform::LogRecord> LogCapture::records() const {
    std::lock_guard lock(mutex_);
    return records_;
}

std::vector<std::string> LogCapture::lines() const {
    std::vector<std::string> result;
    for (const auto& record : records()) {
        if (record.outlet == platform::LogRecord::Outlet::console) result.push_back(record.message);
    }
    return result;
}

std::vector<std::string> LogCapture::messages() const {
    std::vector<std::string> result;
    for (const auto& record : records()) result.push_back(record.message);
    return result;
}

bool LogCapture::contains(std::string_view text) const {
    for (const auto& record : records()) {
        if (record.message.find(text) != std::string::npos) return true;
    }
    return false;
}

int runChildProcess(const std::function<int()>& body) {
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t child = ::fork();
    if (child < 0) return -1;
    if (child == 0) {
        int result = 1;
        try {
            result = body();
        } catch (...) {
        }
        std::fflush(stdout);
        std::fflush(stderr);
        // Skip the parent's exit handlers and static destructors.
        std::_Exit(result);
    }
    return waitForChild(child);
}

int runChildEntry(const std::string& name, const std::vector<std::string>& arguments) {
    std::string joined;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (i > 0) joined += argumentSeparator;
        joined += arguments[i];
    }
    const std::string home = platform::DataRoot::home().string();

    // Everything the child needs is prepared before fork: between fork and
    // exec only async-signal-safe calls are allowed.
    std::vector<std::string> environment;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string_view entry(*variable);
        if (entry.starts_with(childEntryVariable) || entry.starts_with(childArgumentsVariable) ||
            entry.starts_with("TAMSEL_HOME=")) {
            continue;
        }
        environment.emplace_back(entry);
    }
    environment.push_back(std::string(childEntryVariable) + "=" + name);
    environment.push_back(std::string(childArgumentsVariable) + "=" + joined);
    environment.push_back("TAMSEL_HOME=" + home);
    std::vector<char*> environmentPointers;
    for (auto& entry : environment) environmentPointers.push_back(entry.data());
    environmentPointers.push_back(nullptr);

    std::string executable = std::filesystem::read_symlink("/proc/self/exe").string();
    std::string filterFlag = "--gtest_filter=*";
    char* argv[] = {executable.data(), filterFlag.data(), nullptr};

    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t child = ::fork();
    if (child < 0) return -1;
    if (child == 0) {
        ::execve(executable.c_str(), argv, environmentPointers.data());
        std::_Exit(127);
    }
    return waitForChild(child);
}

bool registerChildEntry(const char* name, ChildEntry entry) {
    childEntries().emplace(name, entry);
    return true;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

}  // namespace tamsel::testing
