// The built-in exec monitor: the monitoring device of today's kernels, made of fanotify exec
// notifications and served through the same device calls as the kernel module, so the process
// event monitor runs on it unchanged. No program ever waits for it or is denied by it: the kernel
// queues a notice and the start goes on. The notice carries an open descriptor of the started
// file, which names it and gives its status even after the program has ended or the file has
// gone. What cannot be reported (a queue overflow, a notice without a descriptor, records beyond
// the memory bound) is counted and traced.
// One instance per process. Its reader thread takes the kernel's notices in batches and follows
// the mount table; the device calls come from the monitor thread, close also from the stop path.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kernel/unix/agent/driver_api.h"

namespace slm {

// The device calls of the built-in monitor. open sets up the fanotify group and the reader, the
// enable request adds the marks, read delivers one exec as a start event (path as seen from the
// agent root), write of an acknowledgement does nothing and succeeds, close ends the group.
const DeviceCalls& builtinExecMonitorCalls();

// Whether this kernel delivers exec notifications to this process.
bool execMonitorSupported();

// After a read that emptied the kernel's queue, the reader pauses this long before it looks
// again, so that the starts of a busy machine cost it one wake-up per pause rather than one each.
// Idle, it sleeps until the kernel has a notice.
constexpr int32_t kExecBatchPauseMillis = 100;
// Start records taken from the kernel and not yet read by the monitor are held up to this many
// bytes; beyond it new ones are dropped and counted.
constexpr size_t kExecPendingLimitBytes = size_t{64} << 20;

struct ExecMonitorCounts {
  uint64_t seen = 0;          // starts named and queued for the process event monitor
  uint64_t delivered = 0;     // read by the process event monitor
  uint64_t overflows = 0;     // queue overflows the kernel reported (each lost one start or more)
  uint64_t noDescriptor = 0;  // notices lost because no descriptor could be made for them
  uint64_t dropped = 0;       // starts named but dropped beyond the pending limit
  uint64_t unnamed = 0;       // files with no path below the root in the agent's namespace
  uint64_t layers = 0;        // an overlay's start seen again through a layer below it
  uint64_t reads = 0;         // reads of the kernel's queue
};
ExecMonitorCounts execMonitorCounts();
// Starts lost for good: overflows, notices without a descriptor and dropped records.
uint64_t execEventsLost(const ExecMonitorCounts& counts);

// Benchmarks compare pauses; a negative value restores kExecBatchPauseMillis.
void setExecBatchPauseMillis(int32_t millis);
// Tests lower the pending limit; 0 restores kExecPendingLimitBytes.
void setExecPendingLimitForTests(size_t bytes);
// Tests hand the open monitor the bytes of one read of the kernel's queue, as its reader would.
void takeExecEventsForTests(const void* bytes, size_t size);

}  // namespace slm
