#include "agent_core/cmdsthr.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/cmdfuncs.h"
#include "support/agent_sandbox.h"
#include "support/fake_clock.h"

namespace slm {
namespace {

constexpr AgentTime kNow = 1700000000;

// Commands of their own, told apart by their functions.
int first(Command*) {
  return 0;
}
int second(Command*) {
  return 0;
}
int third(Command*) {
  return 0;
}

std::string nameOf(CommandFunction function) {
  if (function == first) return "first";
  if (function == second) return "second";
  if (function == third) return "third";
  if (function == slmAgentCheckForNewAgentCommand) return "update";
  if (function == slmAgentCheckServersStatusCommand) return "servers";
  if (function == slmAgentDownloadTopologyCommand) return "topology";
  if (function == slmAgentDownloadCatalogCommand) return "catalog";
  if (function == slmAgentDownloadParametersCommand) return "parameters";
  if (function == slmAgentUploadFilesCommand) return "upload";
  return "?";
}

class CommandQueue : public test::AgentSandbox {
 protected:
  void SetUp() override {
    AgentSandbox::SetUp();
    ASSERT_EQ(slmAgentInitCommands(), kQueueOk);
    for (CommandFunction f : {slmAgentCheckServersStatusCommand, slmAgentDownloadTopologyCommand,
                              slmAgentDownloadCatalogCommand, slmAgentDownloadParametersCommand,
                              slmAgentUploadFilesCommand}) {
      ASSERT_EQ(dequeueCommand(f), kQueueOk);
    }
    restartTrace();
  }
  void TearDown() override {
    slmAgentCleanCommands();
    AgentSandbox::TearDown();
  }
  static void push(CommandFunction function, AgentTime start, AgentTime end, int32_t period,
                   AgentTime last) {
    const Command command{function, start, end, period};
    ASSERT_EQ(pushCommand(&command, last), kQueueOk);
  }
  // "name" of the command due now (it leaves the queue), "wait N", or "empty".
  static std::string next() {
    Command command{};
    int32_t wait = -7;
    switch (actualCommand(&command, &wait)) {
      case kCommandDue:
        return wait == 0 ? nameOf(command.function) : "bad wait";
      case kCommandWait:
        return "wait " + std::to_string(wait);
      case kQueueEmpty:
        return "empty";
      default:
        return "failed";
    }
  }

  test::FakeClock clock_{kNow};
};

TEST_F(CommandQueue, StartUpQueuesTheTableAndTheSelfUpdateOnlyWithTimeLeft) {
  slmAgentCleanCommands();
  ASSERT_EQ(saveParameter(kParameterSecondsToUpdate, 500), kParameterOk);
  ASSERT_EQ(slmAgentInitCommands(), kQueueOk);
  EXPECT_TRUE(traced("CMDS - Loading the update period: 500"));
  EXPECT_TRUE(traced("OK - Queued 6 commands during init"));
  // Overdue periodic commands go first, the later slots winning; the one-shot upload is merely
  // due; the update ran "now" and waits its 3 seconds.
  std::vector<std::string> order;
  for (std::string name = next(); name.rfind("wait", 0) != 0 && name != "empty"; name = next())
    order.push_back(name);
  EXPECT_EQ(order,
            (std::vector<std::string>{"parameters", "catalog", "topology", "servers", "upload"}));
  EXPECT_EQ(next(), "wait 3");
  clock_.advance(200);
  slmAgentCleanCommands();  // 300 seconds left to the update's next run
  int32_t saved = 0;
  ASSERT_EQ(loadParameter(kParameterSecondsToUpdate, &saved), kParameterOk);
  EXPECT_EQ(saved, 300);

  ASSERT_EQ(saveParameter(kParameterSecondsToUpdate, 0), kParameterOk);
  restartTrace();
  ASSERT_EQ(slmAgentInitCommands(), kQueueOk);
  EXPECT_TRUE(traced("CMDS - No self update to do (time: 0)"));
  EXPECT_FALSE(isCommandQueued(slmAgentCheckForNewAgentCommand));
}

TEST_F(CommandQueue, TenSlotsLowestFreeFirst) {
  for (int i = 0; i < kCommandSlots; ++i) push(first, kNow + 100, 0, 60, 0);
  const Command eleventh{second, kNow, 0, 60};
  EXPECT_EQ(pushCommand(&eleventh, 0), kQueueFull);
  EXPECT_TRUE(traced("WARNING - Full command queue"));
  ASSERT_EQ(dequeueCommand(first), kQueueOk);
  EXPECT_TRUE(traced("CMD DEQUEUE - element 0, command"));
  push(second, kNow + 100, 0, 60, 0);
  EXPECT_TRUE(traced("CMD PUSH - free element 0, command"));
  EXPECT_EQ(dequeueCommand(third), kCommandNotFound);
  EXPECT_TRUE(traced("WARNING - Command not found for dequeueing"));
  EXPECT_EQ(setCommandPeriod(third, 5), kCommandNotFound);
  EXPECT_TRUE(traced("WARNING - Command not found to change period"));
  EXPECT_EQ(setCommandQueueStatus(0), kQueueOk);
  EXPECT_EQ(setCommandQueueStatus(1), kQueueOk);
  EXPECT_EQ(setCommandQueueStatus(2), kQueueLockFailed);
  EXPECT_TRUE(traced("ERROR - Unknown status code"));
}

TEST_F(CommandQueue, ChoosesByWaitGapAndToleranceOnAHeldClock) {
  EXPECT_EQ(next(), "empty");
  // Due in 2 seconds: a sleep of 2; due in 1: run at once.
  push(first, kNow + 2, 0, 0, 0);
  EXPECT_EQ(next(), "wait 2");
  clock_.advance(1);
  EXPECT_EQ(next(), "first");

  // A command that ran 2 seconds ago makes the thread wait 3, even beside a due one.
  push(first, kNow - 100, 0, 60, kNow - 99);  // overdue: missed a run
  push(second, kNow - 100, 0, 600, kNow - 1);
  EXPECT_EQ(next(), "wait 3");
  clock_.advance(3);
  EXPECT_EQ(next(), "first");
  EXPECT_EQ(next(), "wait 496");  // second's next run, 600 after its start, 4 seconds on

  // Of two overdue periodic commands the higher slot runs first.
  ASSERT_EQ(dequeueCommand(second), kQueueOk);
  push(first, kNow - 1000, 0, 60, kNow - 500);
  push(second, kNow - 1000, 0, 60, kNow - 400);
  EXPECT_EQ(next(), "second");
  EXPECT_EQ(next(), "first");
  EXPECT_EQ(next(), "empty");

  // Exactly three seconds after a run the gap is kept: a command due now runs at once.
  const AgentTime now = static_cast<AgentTime>(clock_.now());
  push(first, now, 0, 0, now - 3);
  EXPECT_EQ(next(), "first");
}

TEST_F(CommandQueue, EndedOneShotRunsOnceThenGoes) {
  push(first, kNow - 100, kNow - 50, 0, 0);  // ended before it ever ran
  EXPECT_EQ(next(), "first");
  push(first, kNow - 100, kNow - 50, 0, kNow - 60);  // ended after it ran
  EXPECT_EQ(next(), "empty");
  EXPECT_FALSE(isCommandQueued(first));
}

TEST_F(CommandQueue, ClockMovedBackShiftsEveryCommand) {
  push(first, kNow - 10, 0, 3600, kNow - 10);
  push(second, kNow - 10, 0, 600, kNow - 20);
  push(third, kNow + 100, kNow + 200, 0, 0);
  clock_.set(kNow - 3600);  // an hour back
  // The command in hand runs at once. Every last run moved back by its difference (second ran
  // 10 seconds "ago"), every start became now (second is due), and an end became end - now, which
  // lies in the past: third, with its moved last run, is gone.
  EXPECT_EQ(next(), "first");
  EXPECT_TRUE(traced("WARNING - Clock has been moved back"));
  EXPECT_EQ(next(), "second");
  EXPECT_EQ(next(), "empty");
  EXPECT_FALSE(isCommandQueued(third));
}

}  // namespace
}  // namespace slm
