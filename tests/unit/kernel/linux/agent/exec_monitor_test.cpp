// The built-in exec monitor on the real kernel: programs started in a sandbox wait for the
// agent's answer, and never for long.
#include "kernel/linux/agent/exec_monitor.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "agent_core/support/bytes.h"
#include "agent_core/support/program_runner.h"
#include "agent_core/support/unix_common.h"
#include "kernel/unix/agent/driver_api.h"
#include "support/temp_root.h"

namespace slm {
namespace {

class BuiltinExecMonitor : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!execMonitorSupported()) {
      GTEST_SKIP() << "exec permission events are not available (they need root and a kernel "
                      "built with fanotify access permissions)";
    }
    root_.makeDirs("bin");
    program_ = root_.file("bin/prog");
    std::filesystem::copy_file("/bin/true", program_);
    chmod(program_.c_str(), 0755);
    setAgentRoot(root_.path().c_str());
    setDeviceCalls(&builtinExecMonitorCalls());
    ASSERT_EQ(setSlmDeviceFileName("built-in"), kDriverOk);
    ASSERT_EQ(openSlmDriver(), kDriverOk);
    ASSERT_EQ(enableSlmDriver(), kDriverOk);
  }
  void TearDown() override {
    if (IsSkipped()) return;
    setExecMonitorStalledForTests(false);
    closeSlmDriver();
    cleanSlmDeviceFileName();
    setDeviceCalls(nullptr);
    setAgentRoot("");
  }
  pid_t start() const {
    pid_t child = fork();
    if (child == 0) {
      execl(program_.c_str(), program_.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    return child;
  }
  static int finish(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return status;
  }

  test::TempDir root_;
  std::string program_;
};

TEST_F(BuiltinExecMonitor, ProgramWaitsForItsAnswer) {
  pid_t child = start();
  uint8_t buffer[kDriverBufferSize] = {};
  ASSERT_EQ(readSlmDriver(buffer), kDriverOk);
  DriverEvent event;
  decodeDriverEvent(buffer, &event);
  EXPECT_EQ(event.kind, kEventStart);
  EXPECT_STREQ(event.path, "/bin/prog");  // as seen from the agent root
  EXPECT_EQ(event.pid, child);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, WNOHANG), 0) << "the program did not wait for its answer";
  setAckStatus(buffer, kAckContinue);
  ASSERT_EQ(writeSlmDriver(buffer), kDriverOk);
  EXPECT_EQ(finish(child), 0);
  EXPECT_EQ(execMonitorCounts().answered, 1u);
}

TEST_F(BuiltinExecMonitor, StalledMonitorHoldsNoProgramBeyondTheBound) {
  setExecMonitorStalledForTests(true);
  const ExecMonitorCounts before = execMonitorCounts();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(finish(start()), 0);
  const ExecMonitorCounts after = execMonitorCounts();
  RecordProperty("longest_wait_us", std::to_string(after.longestWaitMicros));
  EXPECT_EQ(after.byWatchdog - before.byWatchdog, 3u);
  // The bound, and a little for the scheduler.
  EXPECT_LT(after.longestWaitMicros, 1500u * 1000u) << after.longestWaitMicros;
  EXPECT_GE(after.longestWaitMicros, 1000u * 1000u);
}

TEST_F(BuiltinExecMonitor, AgentShellsAndCloseLetProgramsGoAtOnce) {
  setExecMonitorStalledForTests(true);
  const ExecMonitorCounts before = execMonitorCounts();
  EXPECT_EQ(runShellCommand(program_.c_str()), 0);
  EXPECT_GT(execMonitorCounts().own, before.own);
  pid_t child = start();
  // Closing the device ends the group: whatever waits goes on, none by the watchdog.
  closeSlmDriver();
  EXPECT_EQ(finish(child), 0);
  EXPECT_EQ(execMonitorCounts().byWatchdog, before.byWatchdog);
}

}  // namespace
}  // namespace slm
