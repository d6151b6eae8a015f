// The event records of the monitoring device as the process event monitor reads them
// (slmAgentMonitorFunction over readSlmDriver and decodeDriverEvent): the input is cut into
// 304-byte records, a shorter last one included, delivered one per read through the device-call
// seam; then the device fails and the monitor gives up. Programs named by the events exist in the
// root (one known to the catalog, one below a temporary directory, one unknown). Every event is
// acknowledged exactly once, with its own time and identifier; each record decodes to what it
// encodes to.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/lat.h"
#include "agent_core/cache/uat.h"
#include "agent_core/monitor.h"
#include "kernel/unix/agent/driver_api.h"
#include "support/fuzz_root.h"

using namespace slm;

namespace {

constexpr int kFakeDescriptor = 1000;
constexpr int32_t kFuzzFileSlots = 16;

struct Device {
  const uint8_t* data = nullptr;
  size_t size = 0;
  size_t offset = 0;
  std::vector<std::vector<uint8_t>> events;  // as delivered
  std::vector<std::vector<uint8_t>> acks;    // as written
};
Device device;

int deviceOpen(const char*, int) {
  return kFakeDescriptor;
}
int deviceIoctl(int, unsigned long) {
  return 0;
}
ssize_t deviceRead(int, void* buffer, size_t size) {
  if (device.offset == device.size) {
    errno = EIO;
    return -1;
  }
  const size_t piece = std::min(size, device.size - device.offset);
  memcpy(buffer, device.data + device.offset, piece);
  device.events.emplace_back(device.data + device.offset, device.data + device.offset + piece);
  device.offset += piece;
  return static_cast<ssize_t>(piece);
}
ssize_t deviceWrite(int, const void* buffer, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(buffer);
  device.acks.emplace_back(bytes, bytes + size);
  return static_cast<ssize_t>(size);
}
int deviceClose(int) {
  return 0;
}
const DeviceCalls kCalls{deviceOpen, deviceIoctl, deviceRead, deviceWrite, deviceClose};

void writeProgram(const char* relative, size_t size) {
  const std::vector<uint8_t> bytes(size, 0x90);
  fuzz::writeRootFile(relative, bytes.data(), bytes.size());
}

void setUp() {
  fuzz::initAgentValues();
  std::filesystem::create_directories(fuzz::rootFile("usr/bin"));
  std::filesystem::create_directories(fuzz::rootFile("opt/app"));
  writeProgram("usr/bin/known", 1234);
  writeProgram("opt/app/tool", 4321);
  writeProgram("tmp/qsam/run", 99);
  FUZZ_CHECK(createComponentsCacheWithSlots(kFuzzFileSlots) == kLatOk);
  SlmList* components = createList(sizeof(ComponentRecord));
  SlmList* files = createList(sizeof(FileRecord));
  const ComponentRecord component{7, 0, {1, 2, 3}};
  FileRecord known{};
  strcpy(known.name, "known");
  known.size = 1234;
  known.componentIds[0] = 7;
  known.componentCount = 1;
  FUZZ_CHECK(append(components, &component) == kListOk && append(files, &known) == kListOk);
  FUZZ_CHECK(updateCatalog(components, files) == kLatOk);
  deleteList(components);
  deleteList(files);
  FUZZ_CHECK(createUATCache() == kUatOk);
  FUZZ_CHECK(setSlmDeviceFileName(fuzz::rootFile("var/qsam/kvdkagent").c_str()) == kDriverOk);
  setDeviceCalls(&kCalls);
}

void checkRecord(const std::vector<uint8_t>& delivered) {
  uint8_t record[kEventRecordSize] = {};
  memcpy(record, delivered.data(), delivered.size());
  DriverEvent event;
  decodeDriverEvent(record, &event);
  uint8_t encoded[kEventRecordSize];
  encodeDriverEvent(event, encoded);
  DriverEvent again;
  decodeDriverEvent(encoded, &again);
  FUZZ_CHECK(again.time == event.time && memcmp(again.id, event.id, kEventIdSize) == 0);
  FUZZ_CHECK(again.kind == event.kind && again.parentPid == event.parentPid &&
             again.pid == event.pid && again.uid == event.uid && again.gid == event.gid &&
             again.forkFlag == event.forkFlag && again.privateValue == event.privateValue);
  if (event.kind == kEventStart) FUZZ_CHECK(strcmp(again.path, event.path) == 0);
  if (event.kind != kEventStart) FUZZ_CHECK(again.endedPid == event.endedPid);
  if (event.kind == kEventPidSwap) FUZZ_CHECK(again.dummyPid == event.dummyPid);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = (setUp(), true);
  (void)ready;
  FUZZ_CHECK(resetUATCache() == kUatOk);
  FUZZ_CHECK(setAgentIntValue(kAgentDriverStatus, kDriverStatusUsable) == kAgentValueOk);
  device = Device{data, size, 0, {}, {}};

  FUZZ_CHECK(slmAgentMonitorFunction() == -1);
  int64_t status = -1;
  FUZZ_CHECK(getAgentIntValue(kAgentDriverStatus, &status) == kAgentValueOk);
  FUZZ_CHECK(status == kDriverStatusIoFailed);
  FUZZ_CHECK(device.offset == size);
  FUZZ_CHECK(device.acks.size() == device.events.size());
  for (size_t i = 0; i < device.events.size(); ++i) {
    const std::vector<uint8_t>& event = device.events[i];
    const std::vector<uint8_t>& ack = device.acks[i];
    FUZZ_CHECK(ack.size() == kAckRecordSize);
    uint8_t record[kEventRecordSize] = {};
    memcpy(record, event.data(), event.size());
    FUZZ_CHECK(memcmp(ack.data() + kAckTimeOffset, record + kEventTimeOffset, 4) == 0);
    FUZZ_CHECK(memcmp(ack.data() + kAckIdOffset, record + kEventIdOffset, kEventIdSize) == 0);
    FUZZ_CHECK(ack[kAckStatusOffset] == kAckContinue);
    checkRecord(event);
  }
  FUZZ_CHECK(getUnknownFilesNumber() <= static_cast<int32_t>(device.events.size()));
  return 0;
}
