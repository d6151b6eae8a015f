// Where a self-update's installer runs. When systemd runs the agent as a service, the installer is
// started through systemd-run in a transient unit of its own: stopping or restarting the agent's
// unit ends every process in the agent's cgroup, and an installer that restarts the agent (a
// package's maintainer scripts do) would otherwise end itself halfway. Elsewhere it stays the
// agent's child. Called on the commands thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "agent_core/install_command.h"
#include "service/unix/base_dir.h"

namespace slm {

// These three are looked for under the agent root: a test root says for itself whether systemd
// runs it, and a test run on a systemd machine never reaches the machine's own manager.
constexpr char kSystemdDirectory[] = "/run/systemd/system";
constexpr char kOwnCgroupFile[] = "/proc/self/cgroup";
constexpr char kSystemdRunPath[] = "/usr/bin/systemd-run";
constexpr std::string_view kServiceSuffix = ".service";
// The transient unit's name is this prefix and the agent time of the launch.
constexpr char kInstallUnitPrefix[] = "kvdagent-update-";

// Whether the cgroup that `cgroupText` (in the form of /proc/self/cgroup) gives for this process
// is a service unit's: the path of the line of the "name=systemd" hierarchy, or else of the
// unified hierarchy ("0::"), ends in ".service".
bool cgroupIsService(const char* cgroupText);

// Whether systemd runs this process as a service: kSystemdDirectory exists (the machine was booted
// with systemd) and the own cgroup is a service's.
bool runBySystemdService();

// An argv that runs a program through systemd-run in a unit of its own and waits for it:
// systemd-run then exits with the program's exit status (non-zero when the program was killed).
struct InstallUnit {
  char unit[48];
  char systemdRun[kPathSize];
  char unitOption[64];
  const char* argv[kInstallWordsMax + 8];
};

constexpr int kInstallUnitReady = 0;
constexpr int kInstallUnitNoSystemdRun = 1;  // kSystemdRunPath is not an executable file
constexpr int kInstallUnitTooLong = 2;       // more words than the argv holds

// Fills `unit` with kSystemdRunPath (under the root), "--unit=kvdagent-update-<now>", "--collect",
// "--wait" and the words of `argv` (null-terminated).
[[nodiscard]] int buildInstallUnit(const char* const* argv, int32_t now, InstallUnit* unit);

}  // namespace slm
