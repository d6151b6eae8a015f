#include "agent_core/monitor.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <thread>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/uat.h"
#include "agent_core/cmdfuncs.h"
#include "agent_core/cmdsthr.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/slm_thread.h"
#include "kernel/unix/agent/driver_api.h"
#include "service/threads.h"
#include "service/unix/base_dir.h"
#include "support/agent_sandbox.h"
#include "support/scripted_device.h"
#include "support/wait_until.h"

namespace slm {
namespace {

DriverEvent start(const std::string& path, uint32_t id) {
  DriverEvent event;
  event.time = 1700000000 + id;
  memcpy(event.id, &id, sizeof id);
  event.kind = kEventStart;
  path.copy(event.path, kEventPathSize - 1);
  event.pid = 100 + id;
  event.parentPid = 1;
  return event;
}

DriverEvent other(uint32_t kind, uint32_t id) {
  DriverEvent event = start("", id);
  event.kind = kind;
  event.endedPid = 4000000000;
  event.dummyPid = 7;
  return event;
}

// The agent as the monitor finds it: catalog, unknown files, command queue, a usable driver, and
// the scripted device behind the device calls.
class Monitor : public test::AgentSandbox {
 protected:
  void SetUp() override {
    AgentSandbox::SetUp();
    loadConfiguration("agentid=1\ndivisionid=2\ntag=t\ncustomer=c\n");
    ASSERT_EQ(initAgentInfo(), kAgentValueOk);
    setTraceLevel(2);
    ASSERT_EQ(createComponentsCacheWithSlots(64), kLatOk);
    ASSERT_EQ(createUATCache(), kUatOk);
    ASSERT_EQ(slmAgentInitCommands(), kQueueOk);
    ASSERT_EQ(dequeueCommand(slmAgentUploadFilesCommand), kQueueOk);
    ASSERT_EQ(setAgentIntValue(kAgentDriverStatus, 0), kAgentValueOk);
    ASSERT_EQ(setSlmDeviceFileName("/var/qsam/kvdkagent"), kDriverOk);
    setReenablePauseSeconds(1);
    root_.makeDirs("opt/app");
    root_.makeDirs("var/TMP");
    root_.writeFile("opt/app/known", std::string(4096, 'k'));
    root_.writeFile("opt/app/new", std::string(100, 'n'));
    root_.writeFile("opt/app/new2", std::string(200, 'n'));
    root_.writeFile("var/TMP/scratch", "s");
    FileRecord known{};
    strcpy(known.name, "KNOWN");
    known.size = 4096;
    SlmList* files = createList(sizeof(FileRecord));
    SlmList* components = createList(sizeof(ComponentRecord));
    ASSERT_EQ(append(files, &known), kListOk);
    ASSERT_EQ(updateCatalog(components, files), kLatOk);
    deleteList(files);
    deleteList(components);
  }
  void TearDown() override {
    stop();
    setReenablePauseSeconds(0);
    cleanSlmDeviceFileName();
    slmAgentCleanCommands();
    deleteUATCache();
    deleteComponentsCache();
    clearAgentInfo();
    AgentSandbox::TearDown();
  }
  void run() {
    mon_thread = createSlmThread(slmAgentInitMonitor, slmAgentMonitorFunction, slmAgentStopMonitor,
                                 slmAgentCleanMonitor);
    ASSERT_NE(mon_thread, nullptr);
    ASSERT_EQ(startSlmThread(mon_thread), kSlmThreadOk);
  }
  void stop() {
    if (mon_thread == nullptr) return;
    stopSlmThread(mon_thread);
    cleanSlmThread(mon_thread);
    mon_thread = nullptr;
  }
  static int64_t driverStatus() {
    int64_t status = -9;
    EXPECT_EQ(getAgentIntValue(kAgentDriverStatus, &status), kAgentValueOk);
    return status;
  }
  // Waits, with a generous bound, until the driver status is `status`.
  static bool statusBecomes(int64_t status) {
    for (int i = 0; i < 2000 && driverStatus() != status; ++i) {
      struct timespec pause = {0, 10 * 1000 * 1000};
      nanosleep(&pause, nullptr);
    }
    return driverStatus() == status;
  }

  test::ScriptedDevice device_;
};

TEST_F(Monitor, EveryEventIsAcknowledgedAndOnlyUnknownProgramsAreRecorded) {
  run();
  uint32_t id = 0;
  device_.queueEvent(start("/opt/app/known", ++id));
  device_.queueEvent(start("/opt/app/new", ++id));
  device_.queueEvent(start("/opt/app/new", ++id));   // again: no second entry
  device_.queueEvent(start("/opt/app/new2", ++id));  // another: the same upload, due at once
  device_.queueEvent(start("/var/TMP/scratch", ++id));
  device_.queueEvent(start("/opt/app", ++id));           // a directory
  device_.queueEvent(start("/opt/app/vanished", ++id));  // gone before it was looked at
  DriverEvent fork = start("/opt/app/new", ++id);
  fork.forkFlag = 1;
  device_.queueEvent(fork);
  device_.queueEvent(other(kEventEnd, ++id));
  device_.queueEvent(other(kEventPidSwap, ++id));
  ASSERT_TRUE(device_.waitForAcks(id));
  // Each acknowledgement answers its own event: its time, its identifier, "go on".
  std::vector<std::string> acks = device_.acks();
  ASSERT_EQ(acks.size(), id);
  for (uint32_t n = 1; n <= id; ++n) {
    const auto* ack = reinterpret_cast<const uint8_t*>(acks[n - 1].data());
    EXPECT_EQ(getFixed32(ack + kAckTimeOffset), 1700000000 + n);
    EXPECT_EQ(getFixed32(ack + kAckIdOffset), n);
    EXPECT_EQ(getFixed32(ack + kAckStatusOffset), kAckContinue);
    EXPECT_EQ(acks[n - 1].substr(kAckTextOffset), std::string(kAckTextSize, '\0'));
  }
  EXPECT_EQ(getUnknownFilesNumber(), 2);
  UnknownFileEntry entry{};
  ASSERT_EQ(copyNextUpdatedInstance(&entry, 1), kUatOk);
  EXPECT_EQ(std::string(entry.path) + "/" + entry.name + " " + std::to_string(entry.size),
            "/opt/app/new 100");
  EXPECT_TRUE(isCommandQueued(slmAgentUploadFilesCommand));
  ASSERT_EQ(dequeueCommand(slmAgentUploadFilesCommand), kQueueOk);
  EXPECT_FALSE(isCommandQueued(slmAgentUploadFilesCommand));  // queued once only

  // Started again once its upload has run: it is recorded already, so no upload is queued. The
  // known start behind it is read only once the one before it has been dealt with.
  device_.queueEvent(start("/opt/app/new", ++id));
  device_.queueEvent(start("/opt/app/known", ++id));
  ASSERT_TRUE(device_.waitForAcks(id));
  EXPECT_FALSE(isCommandQueued(slmAgentUploadFilesCommand));

  // A stop while a read waits ends the thread without touching the status.
  stop();
  EXPECT_EQ(driverStatus(), 0);
  // What the monitor traced after its last acknowledgement is in the trace once it has ended.
  EXPECT_TRUE(traced(" - Found 'known' in catalog"));
  EXPECT_TRUE(traced(" - Upload already scheduled"));
  EXPECT_TRUE(traced(" - Application 'scratch' in temporary path '/var/TMP' not added to UAT"));
  EXPECT_TRUE(traced(" - Process -294967296 end"));
  EXPECT_TRUE(traced(" - Swapping pids, dummy: 7 real 4000000000"));
  EXPECT_EQ(device_.ioctls(),
            (std::vector<unsigned long>{kDriverEnableRequest, kDriverDisableRequest}));
}

TEST_F(Monitor, AnUploadWaitsTheMinimumDelay) {
  for (CommandFunction f : {slmAgentCheckServersStatusCommand, slmAgentDownloadTopologyCommand,
                            slmAgentDownloadCatalogCommand, slmAgentDownloadParametersCommand}) {
    ASSERT_EQ(dequeueCommand(f), kQueueOk);
  }
  run();
  device_.queueEvent(start("/opt/app/new", 1));
  device_.queueEvent(start("/opt/app/known", 2));
  ASSERT_TRUE(device_.waitForAcks(2));
  Command due{};
  int32_t wait = 0;
  EXPECT_EQ(actualCommand(&due, &wait), kCommandWait);
  EXPECT_GE(wait, kDefaultUploadMinimumSeconds - 1);
}

TEST_F(Monitor, ReadFailuresGetOneReEnableOrEndTheMonitor) {
  device_.interruptNextRead(3);  // repeated without a word
  device_.queueReadFailure(0);
  device_.queueEvent(start("/opt/app/known", 1));
  device_.queueReadFailure(ETIMEDOUT);
  device_.queueEvent(start("/opt/app/known", 2));
  device_.queueReadFailure(EIO);
  run();
  ASSERT_TRUE(device_.waitForAcks(2));
  ASSERT_TRUE(statusBecomes(kDriverStatusIoFailed));
  EXPECT_EQ(device_.opens(), 3);  // the start and two re-enables
  EXPECT_EQ(driverStatus(), kDriverStatusIoFailed);
  EXPECT_TRUE(traced("ERROR on driver: drv_errno 5. Exit"));
  EXPECT_TRUE(traced("ERROR  - Reading Driver: nBytesRead 0 drv_errno 0"));
  EXPECT_TRUE(isCommandQueued(slmAgentGetNodeCommand));
}

TEST_F(Monitor, DeviceFailuresSetTheirStatus) {
  device_.failOpen(ENOENT);
  run();
  ASSERT_TRUE(statusBecomes(kDriverStatusNotOpen));
  EXPECT_EQ(driverStatus(), kDriverStatusNotOpen);
  stop();

  device_.failOpen(0);
  ASSERT_EQ(setAgentIntValue(kAgentDriverStatus, 0), kAgentValueOk);
  device_.failWrites(EIO);
  device_.queueEvent(start("/opt/app/known", 1));
  // Whatever the last parameters said, a started monitor waits the default before an upload.
  setUploadMinimumTime(120);
  run();
  EXPECT_EQ(getUploadMinimumTime(), kDefaultUploadMinimumSeconds);
  ASSERT_TRUE(statusBecomes(kDriverStatusIoFailed));
  EXPECT_TRUE(traced("ERROR - Driver error"));
  stop();

  // A driver that is not usable keeps the monitor from starting.
  EXPECT_EQ(createSlmThread(slmAgentInitMonitor, slmAgentMonitorFunction, slmAgentStopMonitor,
                            slmAgentCleanMonitor),
            nullptr);
  EXPECT_TRUE(traced("Found driver status 6 exiting"));
}

// A stop that comes while the device is being opened finds nothing to close. The monitor must
// then close the device itself and end: a monitor left waiting for events on it is cancelled
// when the grace time is over, and the built-in exec monitor's wait does not survive a cancel.
TEST_F(Monitor, StopWhileTheDeviceOpensStillClosesItAndEnds) {
  device_.holdOpens();
  run();
  ASSERT_TRUE(device_.waitForHeldOpen());
  int stopped = -9;
  std::thread stopper([&] { stopped = stopSlmThread(mon_thread); });
  ASSERT_TRUE(test::waitUntil([&] { return traced("DRIVER CLOSED"); }));
  device_.releaseOpens();
  const bool closed =
      test::waitUntil([&] { return device_.closes() == 1; }, std::chrono::seconds(2));
  // Within the grace time, so that a monitor still reading ends instead of being cancelled.
  if (!closed) device_.queueReadFailure(0);
  stopper.join();
  EXPECT_TRUE(closed) << trace();
  EXPECT_EQ(stopped, kOsThreadEnded);
  cleanSlmThread(mon_thread);
  mon_thread = nullptr;
}

TEST_F(Monitor, DamagedRecordsAreAcknowledgedAndNeverCrashIt) {
  run();
  std::mt19937 rng(7);
  size_t events = 0;
  for (int i = 0; i < 400; ++i) {
    uint8_t bytes[kEventRecordSize];
    encodeDriverEvent(start("/opt/app/new", i), bytes);
    for (int n = rng() % 8; n > 0; --n) bytes[rng() % sizeof bytes] = static_cast<uint8_t>(rng());
    if (i % 3 == 0) memset(bytes + kEventPathOffset, 'p', kEventPathSize);  // no terminator
    if (i % 5 == 0) putFixed32(bytes + kEventKindOffset, rng());            // unknown kind
    std::string record(reinterpret_cast<char*>(bytes), sizeof bytes);
    if (i % 7 == 0) record.resize(rng() % kEventRecordSize + 1);  // a cut record
    device_.queueRecord(record);
    ++events;
  }
  ASSERT_TRUE(device_.waitForAcks(events));
  EXPECT_EQ(driverStatus(), 0);
}

TEST(DriverApi, ClosesOnceAndNamesItsDevice) {
  test::ScriptedDevice device;
  test::TempDir root;
  EXPECT_EQ(openSlmDriver(), kDriverFailed);  // no name yet
  ASSERT_EQ(setSlmDeviceFileName("/dev/x"), kDriverOk);
  ASSERT_EQ(openSlmDriver(), kDriverOk);
  EXPECT_EQ(closeSlmDriver(), kDriverOk);
  EXPECT_EQ(closeSlmDriver(), kDriverOk);
  EXPECT_EQ(device.closes(), 1);
  EXPECT_EQ(device.ioctls(), std::vector<unsigned long>{kDriverDisableRequest});
  EXPECT_EQ(cleanSlmDeviceFileName(), kDriverOk);
  EXPECT_EQ(cleanSlmDeviceFileName(), kDriverFailed);
  EXPECT_EQ(setSlmDeviceFileName(nullptr), -1);
  char path[kPathSize];
  setAgentRoot(root.path().c_str());
  EXPECT_EQ(getDeviceFileName(&device, path), kDriverOk);
  EXPECT_EQ(std::string(path), root.path() + "/var/qsam/kvdkagent");
  EXPECT_EQ(getDeviceFileName(nullptr, path), kDriverFailed);
  setAgentRoot("");
}

}  // namespace
}  // namespace slm
