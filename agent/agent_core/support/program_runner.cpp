// The program runner: posix_spawn in a child of the agent, awaited, with every descriptor above
// standard error closed and the signal mask and dispositions of a fresh process.
#include "agent_core/support/program_runner.h"

#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

extern char** environ;

namespace slm {
namespace {

constexpr char kShell[] = "/bin/sh";
constexpr char kFixedPath[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";

int spawnProgram(const char* const* argv, const char* const* environment) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  if (posix_spawn_file_actions_init(&actions) != 0) return -1;
  if (posix_spawnattr_init(&attributes) != 0) {
    posix_spawn_file_actions_destroy(&actions);
    return -1;
  }
  // Close-on-exec covers what the agent opens itself; this also covers what a library opened.
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  const bool prepared =
      posix_spawn_file_actions_addclosefrom_np(&actions, 3) == 0 &&
      posix_spawnattr_setsigmask(&attributes, &none) == 0 &&
      posix_spawnattr_setsigdefault(&attributes, &all) == 0 &&
      posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF) == 0;
  pid_t child = -1;
  int status = -1;
  if (prepared && posix_spawn(&child, argv[0], &actions, &attributes, const_cast<char**>(argv),
                              const_cast<char**>(environment)) == 0) {
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
  }
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return status;
}

std::atomic<ProgramRunner> runner{spawnProgram};

}  // namespace

void setProgramRunner(ProgramRunner replacement) {
  runner.store(replacement != nullptr ? replacement : spawnProgram);
}

int runProgram(const char* const* argv, const char* const* environment) {
  return runner.load()(argv, environment);
}

const char* const* fixedEnvironment() {
  static std::string language;
  static const char* environment[3];
  const char* lang = getenv("LANG");
  language = lang != nullptr ? std::string("LANG=") + lang : std::string();
  environment[0] = kFixedPath;
  environment[1] = lang != nullptr ? language.c_str() : nullptr;
  environment[2] = nullptr;
  return environment;
}

int runShellCommand(const char* commandLine) {
  const char* argv[] = {kShell, "-c", commandLine, nullptr};
  return runProgram(argv, environ);
}

}  // namespace slm
