// The shell runner: the system shell by default.
#include "agent_core/support/shell_runner.h"

#include <atomic>
#include <cstdlib>

namespace slm {
namespace {

int systemShell(const char* commandLine) {
  return system(commandLine);
}

std::atomic<ShellRunner> runner{systemShell};

}  // namespace

void setShellRunner(ShellRunner replacement) {
  runner.store(replacement != nullptr ? replacement : systemShell);
}

int runShellCommand(const char* commandLine) {
  return runner.load()(commandLine);
}

}  // namespace slm
