// The built-in exec monitor on the real kernel: programs started in a sandbox go on at once, are
// named by their notice's descriptor even once removed, and what cannot be reported is counted.
#include "kernel/linux/agent/exec_monitor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "kernel/unix/agent/driver_api.h"
#include "support/agent_sandbox.h"
#include "support/wait_until.h"

namespace slm {
namespace {

class BuiltinExecMonitor : public test::AgentSandbox {
 protected:
  void SetUp() override {
    if (!execMonitorSupported()) {
      GTEST_SKIP() << "exec notifications are not available (they need root and fanotify)";
    }
    AgentSandbox::SetUp();
    root_.makeDirs("bin");
    program_ = root_.file("bin/prog");
    std::filesystem::copy_file("/bin/true", program_);
    chmod(program_.c_str(), 0755);
    setDeviceCalls(&builtinExecMonitorCalls());
    ASSERT_EQ(setSlmDeviceFileName("built-in"), kDriverOk);
    ASSERT_EQ(openSlmDriver(), kDriverOk);
    ASSERT_EQ(enableSlmDriver(), kDriverOk);
  }
  void TearDown() override {
    if (IsSkipped()) return;
    setExecPendingLimitForTests(0);
    closeSlmDriver();
    cleanSlmDeviceFileName();
    setDeviceCalls(nullptr);
    AgentSandbox::TearDown();
  }
  // Starts the program and waits for its end: nothing in the test reads the monitor meanwhile.
  int run() const {
    pid_t child = fork();
    if (child == 0) {
      execl(program_.c_str(), program_.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
  }
  // Waits until the reader has taken `starts` more starts than `before` had (queued or dropped).
  static bool taken(const ExecMonitorCounts& before, uint64_t starts) {
    return test::waitUntil([&] {
      const ExecMonitorCounts now = execMonitorCounts();
      return now.seen + now.dropped - before.seen - before.dropped >= starts;
    });
  }

  std::string program_;
};

TEST_F(BuiltinExecMonitor, ProgramsGoOnAtOnceAndAreNamedByTheirDescriptorOnceRemoved) {
  const ExecMonitorCounts before = execMonitorCounts();
  struct stat original;
  ASSERT_EQ(stat(program_.c_str(), &original), 0);
  EXPECT_EQ(run(), 0);
  ASSERT_TRUE(taken(before, 1));
  ASSERT_EQ(unlink(program_.c_str()), 0);

  uint8_t buffer[kDriverBufferSize] = {};
  ASSERT_EQ(readSlmDriver(buffer), kDriverOk);
  DriverEvent event;
  decodeDriverEvent(buffer, &event);
  EXPECT_EQ(event.kind, kEventStart);
  EXPECT_STREQ(event.path, "/bin/prog");  // as seen from the agent root, not "... (deleted)"
  EXPECT_GT(event.pid, 0);
  // The file is gone; its status as the program started is still known, for its path only.
  struct stat status;
  ASSERT_EQ(statEventFile("/bin/prog", &status), 0);
  EXPECT_EQ(status.st_size, original.st_size);
  EXPECT_EQ(status.st_mtime, original.st_mtime);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(statEventFile("/bin/other", &status), -1);
  // The acknowledgement is taken and answers nothing.
  setAckStatus(buffer, kAckContinue);
  EXPECT_EQ(writeSlmDriver(buffer), kDriverOk);
  EXPECT_EQ(execMonitorCounts().delivered - before.delivered, 1u);
}

TEST_F(BuiltinExecMonitor, NoticesThatNameNoStartAreCountedNeverDelivered) {
  const int outside = open("/bin/true", O_RDONLY | O_CLOEXEC);
  const int inside = open(program_.c_str(), O_RDONLY | O_CLOEXEC);
  const int opened = open(program_.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(outside, 0);
  ASSERT_GE(inside, 0);
  ASSERT_GE(opened, 0);
  auto notice = [](uint64_t mask, int fd) {
    struct fanotify_event_metadata event {};
    event.event_len = sizeof event;
    event.vers = FANOTIFY_METADATA_VERSION;
    event.metadata_len = sizeof event;
    event.mask = mask;
    event.fd = fd;
    event.pid = 4242;
    return event;
  };
  const struct fanotify_event_metadata events[] = {
      notice(FAN_Q_OVERFLOW, FAN_NOFD),  // the kernel's queue was full
      notice(FAN_OPEN_EXEC, -EMFILE),    // no descriptor could be made
      notice(FAN_OPEN, opened),          // not a start
      notice(FAN_OPEN_EXEC, outside),    // a program outside the root
      notice(FAN_OPEN_EXEC, inside),     // the one start to deliver
  };
  const ExecMonitorCounts before = execMonitorCounts();
  takeExecEventsForTests(events, sizeof events);
  const ExecMonitorCounts after = execMonitorCounts();
  EXPECT_EQ(after.overflows - before.overflows, 1u);
  EXPECT_EQ(after.noDescriptor - before.noDescriptor, 1u);
  EXPECT_EQ(after.unnamed - before.unnamed, 1u);
  EXPECT_EQ(after.seen - before.seen, 1u);
  EXPECT_EQ(execEventsLost(after) - execEventsLost(before), 2u);
  EXPECT_TRUE(traced("WARNING - Exec events lost: queue overflow"));
  EXPECT_TRUE(traced("WARNING - Exec events lost: 1 without a descriptor (error 24)"));
  // Every descriptor a notice brought is closed, whatever became of the notice.
  for (int fd : {outside, inside, opened}) EXPECT_EQ(fcntl(fd, F_GETFD), -1) << fd;

  uint8_t buffer[kDriverBufferSize] = {};
  ASSERT_EQ(readSlmDriver(buffer), kDriverOk);
  DriverEvent event;
  decodeDriverEvent(buffer, &event);
  EXPECT_STREQ(event.path, "/bin/prog");
  EXPECT_EQ(event.pid, 4242);
}

TEST_F(BuiltinExecMonitor, StartsBeyondThePendingLimitAreDroppedAndCountedUntilItHasRoom) {
  setExecPendingLimitForTests(1);  // no record fits
  const ExecMonitorCounts before = execMonitorCounts();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(run(), 0);
  ASSERT_TRUE(taken(before, 3));
  ExecMonitorCounts after = execMonitorCounts();
  EXPECT_EQ(after.dropped - before.dropped, 3u);
  EXPECT_EQ(after.seen, before.seen);
  const std::string text = trace();
  const std::string warning = "WARNING - Exec events lost: the monitor is behind";
  ASSERT_NE(text.find(warning), std::string::npos);
  EXPECT_EQ(text.find(warning, text.find(warning) + 1), std::string::npos) << "traced once a run";

  setExecPendingLimitForTests(0);
  EXPECT_EQ(run(), 0);
  ASSERT_TRUE(taken(after, 1));
  uint8_t buffer[kDriverBufferSize] = {};
  ASSERT_EQ(readSlmDriver(buffer), kDriverOk);
  after = execMonitorCounts();
  EXPECT_EQ(after.seen - before.seen, 1u);
  EXPECT_EQ(after.delivered - before.delivered, 1u);
}

}  // namespace
}  // namespace slm
