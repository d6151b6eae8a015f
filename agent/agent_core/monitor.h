// The process event monitor: the thread that reads the monitoring driver's events, identifies
// every started executable against the catalog, records the unknown ones (outside temporary
// directories) in the unknown files table and schedules their upload, and acknowledges every event
// so that the process goes on. A device failure gets one re-enable attempt after a pause; anything
// worse is recorded as the driver status and ends the thread. Nothing here contacts a server.
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent_core/cache/lat.h"

namespace slm {

// The pause between a failed read and the one attempt to enable the device again.
constexpr int32_t kReenablePauseSeconds = 180;
// Tests shorten the pause; 0 or less restores kReenablePauseSeconds.
void setReenablePauseSeconds(int32_t seconds);

// Driver status values the monitor sets.
constexpr int32_t kDriverStatusUsable = 0;
constexpr int32_t kDriverStatusNotOpen = 4;
constexpr int32_t kDriverStatusNotEnabled = 5;
constexpr int32_t kDriverStatusIoFailed = 6;
constexpr int32_t kDriverStatusInternal = 7;

// 0 when the driver status is usable (the upload delay is reset to its default), else 1 and the
// thread is not started.
int slmAgentInitMonitor();
// The thread body: 1 when the device could not be opened or enabled, -1 when it ended.
int slmAgentMonitorFunction();
// Closes the device, which ends a blocked read. 0.
int slmAgentStopMonitor();
int slmAgentCleanMonitor();

constexpr int kReadRecovered = 0;
constexpr int kReadGiveUp = 1;
constexpr int kReadStopRequested = 2;
// After a failed read: kReadRecovered (the device is enabled again), kReadGiveUp, or
// kReadStopRequested.
int errorOnReadDriver();

// 1 when a component of `dir` is "tmp" in any case, else 0.
int checkIfTempDir(const char* dir);

constexpr int kFileInfoFilled = 0;
constexpr int kFileInfoMissing = 1;
// Fills the name (UTF-8), size and modification time of the executable at `path` (resolved under
// the agent root) into `file`, and its directory (UTF-8) into `dir` of `dirSize` bytes. The size
// and time are the device's when it kept the status of the event's file, else the file's now.
// kFileInfoMissing when the path cannot be examined or names a directory.
int kernelExtFillFileInfo(const char* path, FileRecord* file, char* dir, size_t dirSize);
// The last component of `path`, converted to UTF-8 into `name` (`size` bytes, terminated). 0, or
// 1 when the conversion failed (the name is then empty).
int getUtf8basename(const char* path, char* name, size_t size);

}  // namespace slm
