// The built-in exec monitor: the monitoring device of today's kernels, made of fanotify exec
// permission events and served through the same device calls as the kernel module, so the process
// event monitor runs on it unchanged. Every program started in the watched file systems waits
// until the agent answers, so this monitor never stalls the machine: it never denies, it answers
// the agent's own starts and those of the shells the agent runs at once, a watchdog allows any
// event left unanswered for a second, a full queue or an internal error allows, and closing it
// (which a crash does too) lets every waiting program go on.
// One instance per process. Its reader thread takes the events from the kernel; the device calls
// come from the monitor thread, close also from the stop path.
#pragma once

#include <cstdint>

#include "kernel/unix/agent/driver_api.h"

namespace slm {

// The device calls of the built-in monitor. open sets up the fanotify group and the reader, the
// enable request adds the marks, read delivers one exec as a start event (path as seen from the
// agent root), write answers the event its acknowledgement names, close ends the group.
const DeviceCalls& builtinExecMonitorCalls();

// Whether this kernel delivers exec permission events to this process.
bool execMonitorSupported();

// An event is allowed by the watchdog once it has waited this long.
constexpr int32_t kExecAnswerBoundMillis = 1000;
// More waiting events than this are allowed at once rather than queued.
constexpr int32_t kExecQueueLimit = 4096;

struct ExecMonitorCounts {
  uint64_t delivered = 0;          // handed to the process event monitor
  uint64_t answered = 0;           // allowed by its acknowledgement
  uint64_t own = 0;                // the agent's own and its shells' starts, allowed at once
  uint64_t byWatchdog = 0;         // allowed because nobody answered in time
  uint64_t overflow = 0;           // allowed at once because the queue was full, or unusable
  uint64_t longestWaitMicros = 0;  // the longest any event waited for its answer
};
ExecMonitorCounts execMonitorCounts();

// Tests make the monitor stall: while set, read delivers nothing.
void setExecMonitorStalledForTests(bool stalled);

}  // namespace slm
