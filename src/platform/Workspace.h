#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// The desktop around Safari: which applications run, launching one by its
// bundle identifier and hearing that one quit (the workspace), and opening a
// link in the default browser or mail application.
//
// There is no desktop on Linux. An application counts as running while the
// probe registered for its bundle identifier says so (the host application's
// probe tries its lock file); launching runs a configured command, else
// writes a line saying what would have been launched; a link is opened with
// a configured command, else printed.
namespace tamsel::platform {

class Workspace {
public:
    // Posted on NotificationCenter::defaultCenter() when an application quit,
    // with userInfo applicationBundleIdentifierKey → std::string.
    static inline const std::string didTerminateApplicationNotification =
        "NSWorkspaceDidTerminateApplicationNotification";
    static inline const std::string applicationBundleIdentifierKey = "NSApplicationBundleIdentifier";

    // The process's workspace. Its launch command comes from
    // $TAMSEL_LAUNCH_COMMAND until one is set.
    static Workspace& shared();

    Workspace();

    using RunningProbe = std::function<bool()>;
    void registerApplication(const std::string& bundleIdentifier, RunningProbe isRunning);
    // The bundle identifiers whose probe answers true now, asked afresh.
    std::vector<std::string> runningApplications() const;
    bool isRunning(const std::string& bundleIdentifier) const;

    // Launching. A launcher set here takes the call first (the host program
    // stands in for an application this way); else the launch command runs
    // through /bin/sh with the bundle identifier as its argument "$1"; else
    // the line "Launching <bundle identifier>: no launch command configured"
    // is written. Returns whether something was launched.
    using Launcher = std::function<bool(const std::string& bundleIdentifier)>;
    void setLauncher(const std::string& bundleIdentifier, Launcher launcher);
    void setLaunchCommand(std::optional<std::string> command);
    bool launchApplication(const std::string& bundleIdentifier);

    // Tells the process's observers that the application quit.
    static void postDidTerminateApplication(const std::string& bundleIdentifier);

private:
    mutable std::mutex mutex_;
    std::map<std::string, RunningProbe> probes_;
    std::map<std::string, Launcher> launchers_;
    std::optional<std::string> launchCommand_;
};

// Opens links in the default browser or mail application.
class URLOpener {
public:
    enum class Application { browser, mail };

    // The command for each application: set here, else $TAMSEL_BROWSER_COMMAND
    // and $TAMSEL_MAIL_COMMAND. It runs through /bin/sh with the link as "$1".
    static void setCommand(Application application, std::optional<std::string> command);

    // Runs the command, or without one writes "Open in the default browser: "
    // (or "... mail application: ") and the link. False when the command
    // could not be started.
    static bool open(Application application, const std::string& url);
};

// Starts `command` through /bin/sh -c with `argument` as "$1", without
// waiting for it (it is reaped in the background). False when it could not
// be started.
bool spawnShellCommand(const std::string& command, const std::string& argument);

}  // namespace tamsel::platform
