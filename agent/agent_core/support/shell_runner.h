// The one way the agent runs a shell command line (the self-update's "chmod +x " and installer,
// the kernel module loader): through a replaceable runner, the system shell unless a test installs
// another. The agent knows which of its children are shells it started, so that the built-in exec
// monitor lets them and what they start run without waiting for the agent.
#pragma once

#include <sys/types.h>

namespace slm {

// Runs `commandLine` and returns its wait status as the system shell reports it, or -1 when no
// shell could be started.
using ShellRunner = int (*)(const char* commandLine);

// Installs `runner`; null restores the system shell.
void setShellRunner(ShellRunner runner);
int runShellCommand(const char* commandLine);

// Whether a shell started by runShellCommand is running now; any thread may ask.
bool agentShellRunning();

}  // namespace slm
