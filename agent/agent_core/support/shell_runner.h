// The one way the agent runs a shell command line (the self-update's "chmod +x " and installer,
// the kernel module loader): through a replaceable runner, the system shell unless a test installs
// another.
#pragma once

namespace slm {

// Runs `commandLine` and returns its wait status as the system shell reports it, or -1 when no
// shell could be started.
using ShellRunner = int (*)(const char* commandLine);

// Installs `runner`; null restores the system shell.
void setShellRunner(ShellRunner runner);
int runShellCommand(const char* commandLine);

}  // namespace slm
