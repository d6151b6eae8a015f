// The layer over the monitoring driver's character device: its file name, open, enable, one
// event record per read, one acknowledgement per write, close, and drv_errno, the cause of the
// last failure. Every device call goes through one table of functions, the system's own unless a
// test or the built-in exec monitor installs another. Reads and writes come from the monitor
// thread only; close may come from the stop path too and is serialised by its own mutex.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace slm {

// The device's operations. open takes the path and flags, ioctl the request (its argument is
// always 0); the others are the system calls of the same names. fileStatus, which a device may
// leave out, gives the status of the file the last start event read names, as the device saw it
// when the program started: 0 with `status` filled when `path` is that event's path, else -1.
struct DeviceCalls {
  int (*open)(const char* path, int flags);
  int (*ioctl)(int descriptor, unsigned long request);
  ssize_t (*read)(int descriptor, void* buffer, size_t size);
  ssize_t (*write)(int descriptor, const void* buffer, size_t size);
  int (*close)(int descriptor);
  int (*fileStatus)(int descriptor, const char* path, struct stat* status) = nullptr;
};

// Installs `calls` (kept by pointer); null restores the system's calls.
void setDeviceCalls(const DeviceCalls* calls);
const DeviceCalls& deviceCalls();

constexpr unsigned long kDriverEnableRequest = 0x01020310;
constexpr unsigned long kDriverDisableRequest = 0x01020311;

constexpr char kDeviceDirectory[] = "/var/qsam";
constexpr char kDeviceName[] = "kvdkagent";

// The event record the device delivers.
constexpr size_t kEventTimeOffset = 0;
constexpr size_t kEventIdOffset = 4;
constexpr size_t kEventIdSize = 8;
constexpr size_t kEventKindOffset = 12;
constexpr size_t kEventPathOffset = 16;  // also the ended or real process id, then the dummy one
constexpr size_t kEventPathSize = 256;
constexpr size_t kEventDummyPidOffset = 24;
constexpr size_t kEventParentPidOffset = 272;
constexpr size_t kEventPidOffset = 280;
constexpr size_t kEventUidOffset = 288;
constexpr size_t kEventGidOffset = 292;
constexpr size_t kEventForkOffset = 296;
constexpr size_t kEventPrivateOffset = 300;
constexpr size_t kEventRecordSize = 304;
static_assert(kEventIdOffset + kEventIdSize == kEventKindOffset);
static_assert(kEventPathOffset + kEventPathSize == kEventParentPidOffset);
static_assert(kEventPrivateOffset + 4 == kEventRecordSize);

// The acknowledgement written back, directly behind the event in one buffer.
constexpr size_t kAckTimeOffset = 0;
constexpr size_t kAckIdOffset = 4;
constexpr size_t kAckStatusOffset = 12;
constexpr size_t kAckTextOffset = 16;
constexpr size_t kAckTextSize = 1024;
constexpr size_t kAckRecordSize = 1040;
static_assert(kAckTextOffset + kAckTextSize == kAckRecordSize);
constexpr size_t kDriverBufferSize = kEventRecordSize + kAckRecordSize;
static_assert(kDriverBufferSize == 1344);

constexpr uint32_t kEventStart = 0;
constexpr uint32_t kEventEnd = 1;
constexpr uint32_t kEventPidSwap = 2;
constexpr uint32_t kAckContinue = 1;

// An event record as the monitor reads it; `path` is always terminated.
struct DriverEvent {
  uint32_t time = 0;
  uint8_t id[kEventIdSize] = {};
  uint32_t kind = 0;
  char path[kEventPathSize + 1] = "";
  int64_t endedPid = 0;  // kind 1; also the real pid of kind 2 (the same bytes)
  int64_t dummyPid = 0;  // kind 2
  int64_t parentPid = 0;
  int64_t pid = 0;
  uint32_t uid = 0;
  uint32_t gid = 0;
  uint32_t forkFlag = 0;
  int32_t privateValue = 0;
};

// Writes kEventRecordSize bytes. For kinds 1 and 2 the pids are written over the path.
void encodeDriverEvent(const DriverEvent& event, uint8_t* out);
void decodeDriverEvent(const uint8_t* in, DriverEvent* event);
// Sets the acknowledgement's status in a driver buffer.
void setAckStatus(uint8_t* buffer, uint32_t status);

// The cause of the last failing device operation; 0 after a success and after a 0-byte read.
extern std::atomic<int> drv_errno;

constexpr int kDriverOk = 1;
constexpr int kDriverFailed = 0;

// -1 for a null name; kDriverOk, or kDriverFailed when the copy cannot be allocated.
int setSlmDeviceFileName(const char* name);
// kDriverOk, or kDriverFailed when no name was set.
int cleanSlmDeviceFileName();
// The device path ("/var/qsam/kvdkagent" under the agent root) into `dst` (kPathSize bytes).
// kDriverFailed for a null argument. `driver` is not looked at.
int getDeviceFileName(const void* driver, char* dst);

int openSlmDriver();
int enableSlmDriver();
// Reads one event record into `buffer` (kDriverBufferSize bytes), repeating reads cut short by a
// signal.
int readSlmDriver(uint8_t* buffer);
// Writes the acknowledgement behind the event in `buffer`, with the event's time and identifier.
int writeSlmDriver(uint8_t* buffer);
// The status of the started file that `path`, the last start event's path, names, as the device
// saw it (the built-in exec monitor keeps it, so a program that has gone is still known): 0 with
// `status` filled; -1 when the device keeps none or `path` is not that event's.
int statEventFile(const char* path, struct stat* status);
// Switches delivery off and closes; a device that is not open is left alone. Always kDriverOk
// unless the switch-off failed.
int closeSlmDriver();

}  // namespace slm
