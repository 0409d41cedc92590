#include "platform/Workspace.h"

#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "platform/NotificationCenter.h"

#include <cstdlib>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace tamsel::platform {

namespace {

std::optional<std::string> environmentCommand(const char* name) {
    const char* value = std::getenv(name);
    if (!value || !*value) return std::nullopt;
    return std::string(value);
}

struct OpenerCommands {
    std::mutex mutex;
    std::map<URLOpener::Application, std::optional<std::string>> commands;
};

OpenerCommands& openerCommands() {
    static OpenerCommands commands;
    return commands;
}

}  // namespace

bool spawnShellCommand(const std::string& command, const std::string& argument) {
    const std::string script = command + " \"$1\"";
    const char* argv[] = {"sh", "-c", script.c_str(), "sh", argument.c_str(), nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0) return false;
    DispatchQueue::global(QualityOfService::utility).async([pid] {
        int status = 0;
        waitpid(pid, &status, 0);
    });
    return true;
}

Workspace& Workspace::shared() {
    static Workspace workspace;
    return workspace;
}

Workspace::Workspace() : launchCommand_(environmentCommand("TAMSEL_LAUNCH_COMMAND")) {}

void Workspace::registerApplication(const std::string& bundleIdentifier, RunningProbe isRunning) {
    std::lock_guard lock(mutex_);
    probes_[bundleIdentifier] = std::move(isRunning);
}

std::vector<std::string> Workspace::runningApplications() const {
    std::map<std::string, RunningProbe> probes;
    {
        std::lock_guard lock(mutex_);
        probes = probes_;
    }
    std::vector<std::string> running;
    for (const auto& [identifier, probe] : probes)
        if (probe && probe()) running.push_back(identifier);
    return running;
}

bool Workspace::isRunning(const std::string& bundleIdentifier) const {
    RunningProbe probe;
    {
        std::lock_guard lock(mutex_);
        auto it = probes_.find(bundleIdentifier);
        if (it == probes_.end()) return false;
        probe = it->second;
    }
    return probe && probe();
}

void Workspace::setLauncher(const std::string& bundleIdentifier, Launcher launcher) {
    std::lock_guard lock(mutex_);
    if (launcher)
        launchers_[bundleIdentifier] = std::move(launcher);
    else
        launchers_.erase(bundleIdentifier);
}

void Workspace::setLaunchCommand(std::optional<std::string> command) {
    std::lock_guard lock(mutex_);
    launchCommand_ = std::move(command);
}

bool Workspace::launchApplication(const std::string& bundleIdentifier) {
    Launcher launcher;
    std::optional<std::string> command;
    {
        std::lock_guard lock(mutex_);
        if (auto it = launchers_.find(bundleIdentifier); it != launchers_.end()) launcher = it->second;
        command = launchCommand_;
    }
    if (launcher) return launcher(bundleIdentifier);
    if (command) return spawnShellCommand(*command, bundleIdentifier);
    consolePrint("Launching " + bundleIdentifier + ": no launch command configured");
    return false;
}

void Workspace::postDidTerminateApplication(const std::string& bundleIdentifier) {
    NotificationCenter::defaultCenter().post(didTerminateApplicationNotification, {},
                                             {{applicationBundleIdentifierKey, bundleIdentifier}});
}

void URLOpener::setCommand(Application application, std::optional<std::string> command) {
    auto& commands = openerCommands();
    std::lock_guard lock(commands.mutex);
    commands.commands[application] = std::move(command);
}

bool URLOpener::open(Application application, const std::string& url) {
    std::optional<std::string> command;
    {
        auto& commands = openerCommands();
        std::lock_guard lock(commands.mutex);
        if (auto it = commands.commands.find(application); it != commands.commands.end())
            command = it->second;
        else
            command = environmentCommand(application == Application::browser ? "TAMSEL_BROWSER_COMMAND"
                                                                             : "TAMSEL_MAIL_COMMAND");
    }
    if (command) return spawnShellCommand(*command, url);
    consolePrint((application == Application::browser ? "Open in the default browser: "
                                                      : "Open in the default mail application: ") +
                 url);
    return true;
}

}  // namespace tamsel::platform
