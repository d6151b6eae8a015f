// The daemon: fork, new session, the SIGTERM handler and the main thread's wait for it.
#pragma once

namespace slm {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitDaemonSetup = 8;

// Daemonises and runs the service until SIGTERM. The parent returns 0 at once; the child returns
// its exit status after shut-down (8 when the daemon could not be set up).
int serviceMain();
// Deactivates the kernel drivers; 0 when that succeeded, 1 otherwise.
int serviceRemove();
void stopHandler(int signal);

}  // namespace slm
