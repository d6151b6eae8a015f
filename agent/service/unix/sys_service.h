// The daemon: fork, new session, the SIGTERM handler and the main thread's wait for it.
#pragma once

#include <cstdint>

namespace slm {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitDaemonSetup = 8;

// How many descriptors the daemon wants to be allowed at least: a scan, the monitor's events and
// the network all draw on them.
constexpr uint64_t kWantedDescriptors = 65536;

// Raises the process's descriptor limit: the soft limit to the hard one, and both to
// kWantedDescriptors where the hard limit is lower and the process may raise it. Never lowers
// either. 0, or the error number of the raise that failed.
int raiseDescriptorLimit();

// Daemonises and runs the service until SIGTERM. The parent returns 0 at once; the child returns
// its exit status after shut-down (8 when the daemon could not be set up).
int serviceMain();
// Deactivates the kernel drivers; 0 when that succeeded, 1 otherwise.
int serviceRemove();
void stopHandler(int signal);

}  // namespace slm
