// The process event monitor's loop, its recovery after a failed read, and the path conversion of
// started executables.
#include "agent_core/monitor.h"

#include <strings.h>
#include <sys/stat.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/uat.h"
#include "agent_core/cmdfuncs.h"
#include "agent_core/cmdsthr.h"
#include "agent_core/message/nls.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/slm_thread.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "kernel/unix/agent/driver_api.h"
#include "service/threads.h"
#include "service/unix/base_dir.h"

namespace slm {
namespace {

constexpr size_t kDirectorySize = 401;
constexpr size_t kPathPartBytes = 512;
constexpr size_t kNameMaxBytes = 254;
constexpr int32_t kGetNodeDelaySeconds = 10;

std::atomic<int32_t> reenablePauseSeconds{kReenablePauseSeconds};

void setDriverStatus(int32_t status) {
  (void)setAgentIntValue(kAgentDriverStatus, status);
}

void queueGetNode() {
  const Command getNode{slmAgentGetNodeCommand, getNowWithOffset(kGetNodeDelaySeconds), 0,
                        kGetNodePeriodSeconds};
  if (pushCommand(&getNode, 0) != kQueueOk) SLM_TRACE(0, "ERROR - Couldn't push getNodeCommand");
}

// A failure that ends the monitor: the status recorded, the node asked for again, the device shut.
void giveUp(int32_t status) {
  setDriverStatus(status);
  queueGetNode();
  closeSlmDriver();
}

// Acknowledges the event in `buffer` so that its process goes on. False when the write failed;
// the monitor has then ended its use of the device.
bool acknowledge(uint8_t* buffer) {
  setAckStatus(buffer, kAckContinue);
  if (writeSlmDriver(buffer) == kDriverOk) return true;
  setDriverStatus(kDriverStatusIoFailed);
  queueGetNode();
  SLM_TRACE(0, "ERROR - Driver error");
  closeSlmDriver();
  return false;
}

std::string int64Text(int64_t value) {
  char text[24];
  snprintf(text, sizeof text, "%" PRId64, value);
  return text;
}

// Schedules the upload of what was just recorded: a queued upload is made due at once, else one
// is queued to run after the upload delay.
void scheduleUpload() {
  if (setCommandPeriod(slmAgentUploadFilesCommand, 0) == kQueueOk) {
    SLM_TRACE(2, " - Upload already scheduled");
    return;
  }
  const AgentTime start = getNowWithOffset(getUploadMinimumTime());
  const Command upload{slmAgentUploadFilesCommand, start, start + kUploadWindowSeconds, 0};
  if (pushCommand(&upload, 0) == kQueueOk) {
    SLM_TRACE(2, " - Upload scheduled");
  } else {
    SLM_TRACE(1, "WARNING - Upload command not scheduled");
  }
}

enum class Outcome { kNext, kEnd };

// The start of a program: identified, or recorded as unknown. Every path acknowledges the event.
Outcome onStart(const DriverEvent& event, uint8_t* buffer) {
  SLM_TRACE(2, " - Application %s started", event.path);
  if (event.forkFlag != 0) {
    SLM_TRACE(2, " - Duplicate current process %s (fork)", int64Text(event.parentPid).c_str());
    return acknowledge(buffer) ? Outcome::kNext : Outcome::kEnd;
  }
  FileRecord file{};
  char dir[kDirectorySize] = "";
  if (kernelExtFillFileInfo(event.path, &file, dir, sizeof dir) != kFileInfoFilled) {
    SLM_TRACE(1, "WARNING - No file information found");
    return acknowledge(buffer) ? Outcome::kNext : Outcome::kEnd;
  }
  FileRecord found{};
  int result = findFileEntry(&file, &found, nullptr, nullptr);
  if (result == kLatOk) {
    SLM_TRACE(2, " - Found '%s' in catalog", file.name);
    return acknowledge(buffer) ? Outcome::kNext : Outcome::kEnd;
  }
  if (result == kLatNotFound) {
    // The program goes on before it is recorded.
    if (!acknowledge(buffer)) return Outcome::kEnd;
    SLM_TRACE(2, " - File '%s' not found in catalog", file.name);
    if (checkIfTempDir(dir) == 1) {
      SLM_TRACE(2, " - Application '%s' in temporary path '%s' not added to UAT", file.name, dir);
      return Outcome::kNext;
    }
    UnknownFileEntry entry{};
    memcpy(entry.name, file.name, sizeof entry.name);
    entry.size = file.size;
    entry.attribute1 = file.attribute1;
    entry.attribute2 = file.attribute2;
    copyBounded(entry.path, sizeof entry.path - 1, dir);
    entry.lastUpdateTime = getNowWithOffset(0);
    int added = addUnknownFileEntry(&entry);
    if (added == kUatFailed) {
      SLM_TRACE(0, "ERROR - Putting '%s' in UAT", file.name);
      closeSlmDriver();
      setDriverStatus(kDriverStatusInternal);
      queueGetNode();
      return Outcome::kEnd;
    }
    if (added == kUatOk) scheduleUpload();
    return Outcome::kNext;
  }
  if (result == kLatFailed) {
    // The event is acknowledged here and once more below: the device sees both.
    if (!acknowledge(buffer)) return Outcome::kEnd;
    SLM_TRACE(0, "ERROR - Cache error");
  }
  SLM_TRACE(0, "ERROR - Unknown catalog cache exit value %d", result);
  if (acknowledge(buffer)) {
    SLM_TRACE(0, "ERROR - Driver error");
    closeSlmDriver();
  }
  return Outcome::kEnd;
}

// The event time as a decimal and as calendar text in universal time, for the level-1 trace.
void traceEventTime(uint32_t time) {
  if (!traceActive(1)) return;
  time_t seconds = static_cast<time_t>(time);
  struct tm utc;
  char date[32] = "";
  if (gmtime_r(&seconds, &utc) != nullptr)
    strftime(date, sizeof date, "%a %b %e %H:%M:%S %Y", &utc);
  SLM_TRACE(1, "Cache entry time: %s; date %s", std::to_string(time).c_str(), date);
}

}  // namespace

void setReenablePauseSeconds(int32_t seconds) {
  reenablePauseSeconds.store(seconds > 0 ? seconds : kReenablePauseSeconds);
}

int slmAgentInitMonitor() {
  int64_t status = -1;
  if (getAgentIntValue(kAgentDriverStatus, &status) != kAgentValueOk) status = -1;
  if (status != kDriverStatusUsable) {
    SLM_TRACE(0, "Found driver status %d exiting", static_cast<int>(status));
    return 1;
  }
  // A monitor restarted after a failed installer waits the default again, whatever the last
  // parameters said.
  setUploadMinimumTime(kDefaultUploadMinimumSeconds);
  return 0;
}

int slmAgentMonitorFunction() {
  if (openSlmDriver() != kDriverOk) {
    SLM_TRACE(0, "ERROR - Slm Driver not open");
    setDriverStatus(kDriverStatusNotOpen);
    queueGetNode();
    return 1;
  }
  // A stop asked for while the device was being opened found nothing to close. Nobody else closes
  // it then, and a read would wait until the stop cancels the thread, which the built-in exec
  // monitor's wait does not survive.
  int32_t status = SLM_THREAD_RUNNING;
  if (getSlmThreadStatus(mon_thread, &status) == kSlmThreadOk && status == SLM_THREAD_STOPPED) {
    closeSlmDriver();
    return 0;
  }
  if (enableSlmDriver() != kDriverOk) {
    SLM_TRACE(0, "ERROR - Slm Driver not open");
    setDriverStatus(kDriverStatusNotEnabled);
    queueGetNode();
    closeSlmDriver();
    return 1;
  }
  uint8_t buffer[kDriverBufferSize];
  for (;;) {
    memset(buffer, 0, sizeof buffer);
    if (readSlmDriver(buffer) != kDriverOk) {
      SLM_TRACE(0, "Driver errno reading %d", drv_errno.load());
      if (errorOnReadDriver() != kReadRecovered) return -1;
      continue;
    }
    DriverEvent event;
    decodeDriverEvent(buffer, &event);
    traceEventTime(event.time);
    if (event.kind == kEventEnd) {
      if (!acknowledge(buffer)) return -1;
      SLM_TRACE(2, " - Process %d end", static_cast<int>(event.endedPid));
    } else if (event.kind == kEventPidSwap) {
      if (!acknowledge(buffer)) return -1;
      SLM_TRACE(2, " - Swapping pids, dummy: %s real %s", int64Text(event.dummyPid).c_str(),
                int64Text(event.endedPid).c_str());
    } else if (onStart(event, buffer) == Outcome::kEnd) {
      return -1;
    }
  }
}

int slmAgentStopMonitor() {
  closeSlmDriver();
  return 0;
}

int slmAgentCleanMonitor() {
  return 0;
}

int errorOnReadDriver() {
  const int error = drv_errno.load();
  if (error != 0 && error != ETIMEDOUT) {
    SLM_TRACE(0, "ERROR on driver: drv_errno %d. Exit", error);
    giveUp(kDriverStatusIoFailed);
    return kReadGiveUp;
  }
  int32_t status = SLM_THREAD_RUNNING;
  if (getSlmThreadStatus(mon_thread, &status) == kSlmThreadOk) {
    if (status == SLM_THREAD_STOPPED) return kReadStopRequested;
    if (status == SLM_THREAD_BUSY) {
      giveUp(kDriverStatusIoFailed);
      return kReadGiveUp;
    }
  }
  SLM_TRACE(0, "Driver errno %d; trying to re-enable it", error);
  closeSlmDriver();
  if (sleepSlmThread(mon_thread, reenablePauseSeconds.load()) != kSleepFullTime) {
    setDriverStatus(kDriverStatusIoFailed);
    queueGetNode();
    return kReadGiveUp;
  }
  if (openSlmDriver() != kDriverOk) {
    SLM_TRACE(0, "ERROR - Slm Driver not open");
    setDriverStatus(kDriverStatusNotOpen);
    queueGetNode();
    return kReadGiveUp;
  }
  if (enableSlmDriver() != kDriverOk) {
    SLM_TRACE(0, "ERROR - Slm Driver not enabled");
    closeSlmDriver();
    setDriverStatus(kDriverStatusNotEnabled);
    queueGetNode();
    return kReadGiveUp;
  }
  return kReadRecovered;
}

int checkIfTempDir(const char* dir) {
  char copy[kPathSize];
  if (dir == nullptr) {
    SLM_TRACE(0, "ERROR - During memory allocation");
    return 0;
  }
  copyBounded(copy, sizeof copy - 1, dir);
  char* state = nullptr;
  for (char* part = strtok_r(copy, "/", &state); part != nullptr;
       part = strtok_r(nullptr, "/", &state)) {
    if (strcasecmp(part, "tmp") == 0) return 1;
  }
  return 0;
}

int getUtf8basename(const char* path, char* name, size_t size) {
  char head[kPathPartBytes];
  copyBounded(head, sizeof head - 1, path);
  const char* slash = strrchr(head, '/');
  const char* last = slash != nullptr ? slash + 1 : head;
  if (convertToUtf8(nullptr, last, name, size) != kTextConverted) {
    SLM_TRACE(0, "Executable name '%s' conversion to UTF8 failed", last);
    name[0] = '\0';
    return 1;
  }
  return 0;
}

int kernelExtFillFileInfo(const char* path, FileRecord* file, char* dir, size_t dirSize) {
  char resolved[kPathSize];
  struct stat status;
  // The device's own look at the started file comes first: it holds after the file has gone.
  if (statEventFile(path, &status) != 0 &&
      stat(rootedPath(path, resolved, sizeof resolved), &status) != 0) {
    SLM_TRACE(0, "ERROR - Impossible to obtain file stats about %s", path);
    return kFileInfoMissing;
  }
  if (S_ISDIR(status.st_mode)) {
    SLM_TRACE(1, "ERROR - Impossible to obtain file stats about %s", path);
    return kFileInfoMissing;
  }
  // The directory: everything before the last "/" of the path's head ("/" for a file at the top).
  char parent[kPathPartBytes + 1];
  copyBounded(parent, kPathPartBytes, path);
  char* slash = strrchr(parent, '/');
  if (slash == nullptr) {
    strcpy(parent, ".");
  } else {
    slash[slash == parent ? 1 : 0] = '\0';
  }
  if (convertToUtf8(nullptr, parent, dir, dirSize) != kTextConverted) {
    SLM_TRACE(0, "Executable path '%s' conversion to UTF8 failed", parent);
    dir[0] = '\0';
  }
  *file = FileRecord{};
  (void)getUtf8basename(path, file->name, kNameMaxBytes + 1);
  // Sizes are taken as the 32-bit size of the file, as the catalog has them.
  file->size = static_cast<int32_t>(status.st_size);
  file->attribute1 = 0;
  file->attribute2 = static_cast<int32_t>(status.st_mtime);
  return kFileInfoFilled;
}

}  // namespace slm
