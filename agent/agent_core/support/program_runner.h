// The one way the agent starts another program (the self-update's installer, the legacy shell,
// the kernel module loader): from an argv, through a replaceable runner, the real spawn unless a
// test installs another. A program started this way inherits only descriptors 0 to 2.
#pragma once

#include <sys/types.h>

namespace slm {

// Starts `argv[0]` (an absolute path) with `argv` and the environment `environment` (both
// null-terminated), waits for it and returns its wait status, or -1 when it could not be started.
using ProgramRunner = int (*)(const char* const* argv, const char* const* environment);

// Installs `runner`; null restores the real one.
void setProgramRunner(ProgramRunner runner);
int runProgram(const char* const* argv, const char* const* environment);

// The environment of the programs the agent runs on its own account: a fixed PATH, and the
// agent's LANG when it has one. Valid until the next call from any thread; callers run on the
// commands thread or at start-up.
const char* const* fixedEnvironment();

// Runs `commandLine` through "/bin/sh -c" with the agent's whole environment, as older agents ran
// the server's installation command; the wait status as runProgram returns it.
int runShellCommand(const char* commandLine);

}  // namespace slm
