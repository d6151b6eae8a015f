#include "service/threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "agent_core/support/trace.h"
#include "support/temp_root.h"
#include "support/wait_until.h"

namespace slm {
namespace {

std::atomic<int> bodiesRunning{0};

// A worker body that sleeps until its thread is told to stop. Its handle is set before the thread
// starts.
int runUntilStopped(SlmThread** self) {
  ++bodiesRunning;
  while (sleepSlmThread(*self, 60) == 0) {
  }
  --bodiesRunning;
  return 0;
}

int commandsBody() {
  return runUntilStopped(&cmd_thread);
}
int inventoryBody() {
  return runUntilStopped(&inv_thread);
}
int monitorBody() {
  return runUntilStopped(&mon_thread);
}
int failingInit() {
  return 1;
}

class SlmThreadWorkers : public ::testing::Test {
 protected:
  // Each test sets the workers it needs; the agent's own come back afterwards.
  void SetUp() override {
    trace_ = dir_.file("trace.log");
    startTrace(trace_.c_str());
    setTraceLevel(1);
    for (int i = 0; i < 3; ++i) {
      saved_[i] = workerFunctions(kSlots[i]);
      setWorkerFunctions(kSlots[i], {});
    }
  }
  void TearDown() override {
    slmAgentStopThreads(0);
    for (int i = 0; i < 3; ++i) setWorkerFunctions(kSlots[i], saved_[i]);
    setTraceLevel(-1);
  }
  static constexpr WorkerSlot kSlots[3] = {WorkerSlot::kCommands, WorkerSlot::kInventory,
                                           WorkerSlot::kMonitor};
  WorkerFunctions saved_[3];

  // The message texts of the trace, in order.
  std::vector<std::string> messages() const {
    std::vector<std::string> texts;
    std::string content = test::readFile(trace_);
    size_t pos = 0;
    while ((pos = content.find("\n  ", pos)) != std::string::npos) {
      size_t end = content.find('\n', pos + 1);
      texts.push_back(content.substr(pos + 3, end - pos - 3));
      pos = end;
    }
    return texts;
  }

  test::TempDir dir_;
  std::string trace_;
};

TEST_F(SlmThreadWorkers, StartAndStopInFixedOrder) {
  setWorkerFunctions(WorkerSlot::kMonitor, {nullptr, monitorBody, nullptr, nullptr});
  setWorkerFunctions(WorkerSlot::kCommands, {nullptr, commandsBody, nullptr, nullptr});
  setWorkerFunctions(WorkerSlot::kInventory, {nullptr, inventoryBody, nullptr, nullptr});
  EXPECT_EQ(slmAgentStartThreads(), 0);
  ASSERT_NE(cmd_thread, nullptr);
  ASSERT_NE(inv_thread, nullptr);
  ASSERT_NE(mon_thread, nullptr);
  ASSERT_TRUE(test::waitUntil([] { return bodiesRunning == 3; }));

  // The self-update keeps the thread it runs on.
  EXPECT_EQ(slmAgentStopThreads(1), 0);
  EXPECT_NE(cmd_thread, nullptr);
  EXPECT_EQ(inv_thread, nullptr);
  EXPECT_EQ(mon_thread, nullptr);
  EXPECT_EQ(bodiesRunning.load(), 1);

  EXPECT_EQ(slmAgentStopThreads(0), 0);
  EXPECT_EQ(cmd_thread, nullptr);
  EXPECT_EQ(bodiesRunning.load(), 0);

  std::vector<std::string> expected = {
      " - Starting commands thread", " - Starting inventory thread", " - Starting monitor thread",
      "Commands thread ALIVE",       " - Stopping inventory thread", " - Stopping monitor thread",
      " - Stopping commands thread"};
  EXPECT_EQ(messages(), expected);
}

TEST_F(SlmThreadWorkers, FailedCreationDoesNotStopTheNextWorker) {
  setWorkerFunctions(WorkerSlot::kCommands, {failingInit, commandsBody, nullptr, nullptr});
  setWorkerFunctions(WorkerSlot::kInventory, {nullptr, inventoryBody, nullptr, nullptr});
  slmAgentStartThreads();
  EXPECT_EQ(cmd_thread, nullptr);
  ASSERT_NE(inv_thread, nullptr);
  slmAgentStopThreads(0);

  std::vector<std::string> expected = {
      " - Starting commands thread", "Error creating commands thread",
      " - Starting inventory thread", "Commands thread ALIVE", " - Stopping inventory thread"};
  EXPECT_EQ(messages(), expected);
}

}  // namespace
}  // namespace slm
