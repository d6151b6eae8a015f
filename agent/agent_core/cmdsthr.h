// The command queue and the commands thread: at most ten timed commands, each a calendar event
// with the time it last ran. The thread keeps the agent plugged in to its server, runs the command
// that is due, queues it again, and sleeps until the next one is due or another thread wakes it.
// The queue's mutex guards the slots, the count and the suspended flag; no other lock is taken
// while it is held, and commands run without it, so they may push, dequeue and re-time commands.
#pragma once

#include <cstdint>

#include "agent_core/data/slm_time.h"

namespace slm {

struct Command;
// Carries the command out; may change the command, which is what is queued again. 0 or 1: queue
// it again; -1: end the commands thread; anything else: done.
using CommandFunction = int (*)(Command* command);

// The function is also the command's identity: commands are found and traced by it.
struct Command {
  CommandFunction function;
  AgentTime start;
  AgentTime end;   // 0: never ends
  int32_t period;  // seconds; 0 or less: runs once
};

constexpr int kCommandRequeue = 0;
constexpr int kCommandRequeueToo = 1;
constexpr int kCommandDone = 2;
constexpr int kCommandFatal = -1;

constexpr int32_t kCommandSlots = 10;
// A command due in at most this many seconds less one is run at once.
constexpr int32_t kExecutionToleranceSeconds = 2;
// A command that ran less than this many seconds ago makes the thread wait this long.
constexpr int32_t kMinimumGapSeconds = 3;
// While the agent is not plugged in, the plug-in is retried this often.
constexpr int32_t kPlugInRetrySeconds = 1800;
constexpr int32_t kGetNodePeriodSeconds = 86400;

// Results of the queue functions besides their own: the queue's mutex could not be taken or given
// back.
constexpr int kQueueOk = 0;
constexpr int kQueueLockFailed = -1;

// Creates the queue and queues the start-up commands (the self-update only when the saved seconds
// to update are at least 1). kQueueOk or -1.
int slmAgentInitCommands();

constexpr int kQueueFull = 2;
// Adds the command in the lowest free slot. kQueueOk; kQueueFull with ten queued; -1 when no
// element or slot can be had.
[[nodiscard]] int pushCommand(const Command* command, AgentTime lastExecution);

constexpr int kCommandNotFound = 1;
// Removes the queued command with `function`, the lowest slot first. kQueueOk or kCommandNotFound.
int dequeueCommand(CommandFunction function);
// Sets the period of the queued command with `function` and wakes the commands thread to recompute
// its wait. kQueueOk or kCommandNotFound (a command that is running is not queued).
int setCommandPeriod(CommandFunction function, int32_t period);
// Whether a command with `function` is queued.
bool isCommandQueued(CommandFunction function);
// 0 and 1 both let the queue run again; any other status is refused with -1.
int setCommandQueueStatus(int32_t status);

constexpr int kCommandDue = 0;
constexpr int kQueueEmpty = 1;
constexpr int kCommandWait = 3;
// kCommandDue: *command holds the command to run now, which has left the queue, and *wait is 0.
// kQueueEmpty: nothing to run. kCommandWait: *wait holds the seconds to sleep first.
[[nodiscard]] int actualCommand(Command* command, int32_t* wait);

// The thread body; -1 when it ends.
int slmAgentCommandsFunction();
// Saves the seconds to the next self-update and frees the queue (at stop). 0.
int slmAgentCleanCommands();

}  // namespace slm
