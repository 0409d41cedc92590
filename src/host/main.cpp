// The `tamsel` program: the substitute Safari host. Its commands live in the
// other files of this folder and register themselves (see host/Command.h).
#include "host/Command.h"
#include "platform/ProcessMemory.h"

int main(int argc, char** argv) {
    tamsel::platform::configureProcessMemory();
    tamsel::host::CommandLine commandLine;
    tamsel::host::CommandRegistration::addAll(commandLine);
    return commandLine.run(argc, argv);
}
