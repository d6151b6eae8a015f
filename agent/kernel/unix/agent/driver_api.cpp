// The device layer: process-wide device state, the record codecs and the calls through the table.
#include "kernel/unix/agent/driver_api.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent_core/support/bytes.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "service/unix/base_dir.h"

namespace slm {

std::atomic<int> drv_errno{0};

namespace {

int systemOpen(const char* path, int flags) {
  // The device is the agent's own: no program it starts may inherit it.
  return open(path, flags | O_CLOEXEC);
}
int systemIoctl(int descriptor, unsigned long request) {
  return ioctl(descriptor, request, 0);
}
ssize_t systemRead(int descriptor, void* buffer, size_t size) {
  return read(descriptor, buffer, size);
}
ssize_t systemWrite(int descriptor, const void* buffer, size_t size) {
  return write(descriptor, buffer, size);
}
int systemClose(int descriptor) {
  return close(descriptor);
}

const DeviceCalls kSystemCalls{systemOpen, systemIoctl, systemRead, systemWrite, systemClose};
std::atomic<const DeviceCalls*> calls{&kSystemCalls};

// The device's name and descriptor; `driverActive` and the close are guarded by close_mtx.
char* device_file_name = nullptr;
std::atomic<int> hDevice{-1};
int driver_active = 0;
pthread_mutex_t close_mtx = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

void setDeviceCalls(const DeviceCalls* replacement) {
  calls.store(replacement != nullptr ? replacement : &kSystemCalls);
}

const DeviceCalls& deviceCalls() {
  return *calls.load();
}

void encodeDriverEvent(const DriverEvent& event, uint8_t* out) {
  memset(out, 0, kEventRecordSize);
  putFixed32(out + kEventTimeOffset, event.time);
  memcpy(out + kEventIdOffset, event.id, kEventIdSize);
  putFixed32(out + kEventKindOffset, event.kind);
  if (event.kind == kEventStart) {
    putText(out + kEventPathOffset, kEventPathSize, event.path);
  } else {
    putFixed64(out + kEventPathOffset, static_cast<uint64_t>(event.endedPid));
    if (event.kind == kEventPidSwap) {
      putFixed64(out + kEventDummyPidOffset, static_cast<uint64_t>(event.dummyPid));
    }
  }
  putFixed64(out + kEventParentPidOffset, static_cast<uint64_t>(event.parentPid));
  putFixed64(out + kEventPidOffset, static_cast<uint64_t>(event.pid));
  putFixed32(out + kEventUidOffset, event.uid);
  putFixed32(out + kEventGidOffset, event.gid);
  putFixed32(out + kEventForkOffset, event.forkFlag);
  putFixed32(out + kEventPrivateOffset, static_cast<uint32_t>(event.privateValue));
}

void decodeDriverEvent(const uint8_t* in, DriverEvent* event) {
  event->time = getFixed32(in + kEventTimeOffset);
  memcpy(event->id, in + kEventIdOffset, kEventIdSize);
  event->kind = getFixed32(in + kEventKindOffset);
  // A path without its terminator is cut at the end of its field.
  getText(in + kEventPathOffset, kEventPathSize, event->path);
  event->endedPid = static_cast<int64_t>(getFixed64(in + kEventPathOffset));
  event->dummyPid = static_cast<int64_t>(getFixed64(in + kEventDummyPidOffset));
  event->parentPid = static_cast<int64_t>(getFixed64(in + kEventParentPidOffset));
  event->pid = static_cast<int64_t>(getFixed64(in + kEventPidOffset));
  event->uid = getFixed32(in + kEventUidOffset);
  event->gid = getFixed32(in + kEventGidOffset);
  event->forkFlag = getFixed32(in + kEventForkOffset);
  event->privateValue = static_cast<int32_t>(getFixed32(in + kEventPrivateOffset));
}

void setAckStatus(uint8_t* buffer, uint32_t status) {
  putFixed32(buffer + kEventRecordSize + kAckStatusOffset, status);
}

int setSlmDeviceFileName(const char* name) {
  if (name == nullptr) return -1;
  size_t size = strlen(name) + 1;
  char* resized = static_cast<char*>(realloc(device_file_name, size));
  if (resized == nullptr) {
    free(device_file_name);
    device_file_name = nullptr;
    return kDriverFailed;
  }
  memcpy(resized, name, size);
  device_file_name = resized;
  return kDriverOk;
}

int cleanSlmDeviceFileName() {
  if (device_file_name == nullptr) return kDriverFailed;
  free(device_file_name);
  device_file_name = nullptr;
  return kDriverOk;
}

int getDeviceFileName(const void* driver, char* dst) {
  if (driver == nullptr || dst == nullptr) return kDriverFailed;
  char directory[kPathSize];
  rootedPath(kDeviceDirectory, directory, sizeof directory);
  snprintf(dst, kPathSize, "%.4000s/%s", directory, kDeviceName);
  return kDriverOk;
}

int openSlmDriver() {
  SLM_TRACE(1, "Opening driver");
  if (device_file_name == nullptr) {
    SLM_TRACE(0, "ERROR Driver name not found!");
    return kDriverFailed;
  }
  int descriptor = deviceCalls().open(device_file_name, O_RDWR);
  drv_errno = errno;
  // A descriptor of 0 would be standard input handed out again: it is not taken for the device.
  if (descriptor > 0) {
    pthread_mutex_lock(&close_mtx);
    hDevice = descriptor;
    driver_active = 1;
    pthread_mutex_unlock(&close_mtx);
    return kDriverOk;
  }
  SLM_TRACE(0, "ERROR %d opening '%s'", drv_errno.load(), device_file_name);
  return kDriverFailed;
}

int enableSlmDriver() {
  SLM_TRACE(1, "Enabling driver");
  drv_errno = 0;
  if (deviceCalls().ioctl(hDevice, kDriverEnableRequest) == 0) return kDriverOk;
  drv_errno = errno;
  SLM_TRACE(0, "ERROR %d enabling driver", drv_errno.load());
  return kDriverFailed;
}

int readSlmDriver(uint8_t* buffer) {
  ssize_t got = 0;
  do {
    got = deviceCalls().read(hDevice, buffer, kEventRecordSize);
  } while (got < 0 && errno == EINTR);
  if (got >= 1) {
    drv_errno = 0;
    return kDriverOk;
  }
  drv_errno = got == 0 ? 0 : errno;
  // Written whatever the level in force: the monitor decides on this failure.
  SLM_TRACE(-1, "ERROR  - Reading Driver: nBytesRead %d drv_errno %d", static_cast<int>(got),
            drv_errno.load());
  return kDriverFailed;
}

int writeSlmDriver(uint8_t* buffer) {
  uint8_t* ack = buffer + kEventRecordSize;
  memcpy(ack + kAckTimeOffset, buffer + kEventTimeOffset, 4);
  memcpy(ack + kAckIdOffset, buffer + kEventIdOffset, kEventIdSize);
  ssize_t written = deviceCalls().write(hDevice, ack, kAckRecordSize);
  drv_errno = errno;
  if (written > 0) return kDriverOk;
  SLM_TRACE(0, "ERROR %d writing driver", drv_errno.load());
  return kDriverFailed;
}

int statEventFile(const char* path, struct stat* status) {
  const DeviceCalls& device = deviceCalls();
  if (device.fileStatus == nullptr) return -1;
  return device.fileStatus(hDevice, path, status);
}

int closeSlmDriver() {
  SLM_TRACE(1, "Closing driver");
  int result = kDriverOk;
  pthread_mutex_lock(&close_mtx);
  if (driver_active) {
    drv_errno = 0;
    if (deviceCalls().ioctl(hDevice, kDriverDisableRequest) != 0) {
      drv_errno = errno;
      result = kDriverFailed;
    }
    deviceCalls().close(hDevice);
    hDevice = -1;
    driver_active = 0;
  }
  pthread_mutex_unlock(&close_mtx);
  SLM_TRACE(0, "DRIVER CLOSED");
  return result;
}

}  // namespace slm
