// The shell runner: "/bin/sh -c" in a child of the agent, awaited, as the C library's system()
// does, but with the child known to the agent while it runs.
#include "agent_core/support/shell_runner.h"

#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <atomic>

extern char** environ;

namespace slm {
namespace {

std::atomic<int> shellsRunning{0};

int systemShell(const char* commandLine) {
  char shell[] = "/bin/sh";
  char option[] = "-c";
  char* argv[] = {shell, option, const_cast<char*>(commandLine), nullptr};
  ++shellsRunning;
  pid_t child = -1;
  int status = -1;
  if (posix_spawn(&child, shell, nullptr, nullptr, argv, environ) == 0) {
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
  }
  --shellsRunning;
  return status;
}

std::atomic<ShellRunner> runner{systemShell};

}  // namespace

void setShellRunner(ShellRunner replacement) {
  runner.store(replacement != nullptr ? replacement : systemShell);
}

int runShellCommand(const char* commandLine) {
  return runner.load()(commandLine);
}

bool agentShellRunning() {
  return shellsRunning.load() > 0;
}

}  // namespace slm
