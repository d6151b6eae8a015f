// The command queue on its arena, the choice of the next command, and the commands thread.
#include "agent_core/cmdsthr.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/lat.h"
#include "agent_core/cache/uat.h"
#include "agent_core/cmdfuncs.h"
#include "agent_core/communication/service.h"
#include "agent_core/communication/service_call.h"
#include "agent_core/communication/slm.h"
#include "agent_core/security_settings.h"
#include "agent_core/support/arena.h"
#include "agent_core/support/slm_lock.h"
#include "agent_core/support/slm_thread.h"
#include "agent_core/support/trace.h"
#include "service/threads.h"

namespace slm {
namespace {

struct QueueElement {
  Command command;
  AgentTime lastExecution;  // 0: never run
};

struct CommandQueue {
  Arena* arena = nullptr;
  QueueElement* slots[kCommandSlots] = {};
  int32_t count = 0;
  int32_t suspended = 0;  // 1: the last plug-in failed, commands are not run
  SlmMutex* mutex = nullptr;
};

// Guarded by queue.mutex.
CommandQueue queue;

// Commands are traced by their function, as a number.
int commandNumber(CommandFunction function) {
  return static_cast<int>(reinterpret_cast<uintptr_t>(function));
}

bool lockQueue() {
  if (queue.mutex != nullptr && lockMutex(queue.mutex) == kMutexOk) return true;
  SLM_TRACE(0, "ERROR - Mutex not acquired");
  return false;
}

bool unlockQueue() {
  if (unlockMutex(queue.mutex) == kMutexOk) return true;
  SLM_TRACE(0, "ERROR - Releasing mutex");
  return false;
}

// Under the mutex.
void removeSlot(int32_t slot) {
  deleteArenaElement(queue.arena, queue.slots[slot]);
  queue.slots[slot] = nullptr;
  --queue.count;
}

// Under the mutex: the lowest slot holding `function`, or -1.
int32_t findSlot(CommandFunction function, bool traceSearch) {
  for (int32_t slot = 0; slot < kCommandSlots; ++slot) {
    if (queue.slots[slot] == nullptr) continue;
    CommandFunction actual = queue.slots[slot]->command.function;
    if (traceSearch) {
      SLM_TRACE(3, "finding command %d, actual %d", commandNumber(function), commandNumber(actual));
    }
    if (actual == function) return slot;
  }
  return -1;
}

// A command of the start-up table.
int pushInitial(CommandFunction function, int32_t startOffset, AgentTime end, int32_t period,
                AgentTime lastExecution, const char* failure) {
  const Command command{function, getNowWithOffset(startOffset), end, period};
  if (pushCommand(&command, lastExecution) == kQueueOk) return kQueueOk;
  SLM_TRACE(0, "%s", failure);
  return kQueueLockFailed;
}

void setSuspended(int32_t suspended) {
  if (!lockQueue()) return;
  queue.suspended = suspended;
  unlockQueue();
}

bool suspended() {
  if (!lockQueue()) return true;
  int32_t value = queue.suspended;
  unlockQueue();
  return value != 0;
}

int64_t agentValue(int32_t id) {
  int64_t value = 0;
  if (getAgentIntValue(id, &value) != kAgentValueOk) value = 0;
  return value;
}

// Plugs in on the preferred server. -1 when the thread must end.
int plugInPass() {
  ServerAddress server;
  int result = preferredServer(&server) == kServiceOk ? plugIn(&server) : kServiceFailed;
  if (result != kServiceOk && result != kServiceUnknownAgent) {
    setSuspended(1);
    return 0;
  }
  (void)setAgentIntValue(kAgentPluggedIn, 1);
  setSuspended(0);
  int64_t node = agentValue(kAgentNodeId);
  if (node != 0) {
    char text[24];
    snprintf(text, sizeof text, "%" PRId64, node);
    SLM_TRACE(1, "OK - Plugged, agent node: %s", text);
  } else {
    const Command getNode{slmAgentGetNodeCommand, getNowWithOffset(-1), 0, kGetNodePeriodSeconds};
    int pushed = pushCommand(&getNode, 0);
    SLM_TRACE(1, "OK - Plug-in: waiting for a node in %d seconds", kGetNodePeriodSeconds);
    if (pushed == kQueueLockFailed) {
      SLM_TRACE(0, "ERROR - Couldn't push getNodeCommand");
      return kQueueLockFailed;
    }
  }
  // A server that answers with a first plug-in starts this agent afresh: what it was told and
  // what it reported before belongs to another server's world.
  if (result == kServiceUnknownAgent) {
    (void)resetComponentsCache();
    (void)resetUATCache();
  }
  return 0;
}

// After a sleep: 0 to go on, -1 to end the thread.
int afterSleep(int slept) {
  if (slept == kSleepFullTime) return 0;
  if (slept != kSleepWoken) {
    SLM_TRACE(0, "ERROR - Commands thread after sleeping");
    return -1;
  }
  int32_t status = SLM_THREAD_RUNNING;
  if (getSlmThreadStatus(cmd_thread, &status) != kSlmThreadOk) return 0;
  switch (status) {
    case SLM_THREAD_STOPPED:
      SLM_TRACE(1, "CMDS Thread stopped");
      return -1;
    case SLM_THREAD_RUNNING:
      SLM_TRACE(0, "ERROR - Signaled normal state in inventory thread");
      return 0;
    default:
      (void)clearBusyMark(cmd_thread);
      return 0;
  }
}

}  // namespace

int slmAgentInitCommands() {
  queue = CommandQueue{};
  queue.mutex = createMutex();
  if (queue.mutex == nullptr) return kQueueLockFailed;
  queue.arena = initArena(sizeof(QueueElement), kCommandSlots);
  if (queue.arena == nullptr) {
    SLM_TRACE(0, "ERROR - Init arena for commands queue");
    deleteMutex(queue.mutex);
    queue.mutex = nullptr;
    return kQueueLockFailed;
  }

  int32_t toUpdate = 0;
  if (loadParameter(kParameterSecondsToUpdate, &toUpdate) != kParameterOk) toUpdate = 0;
  if (securitySettings().selfUpdate == SelfUpdateMode::kOff) {
    SLM_TRACE(1, "CMDS - Self-update is off (%s=off)", kSelfUpdateKey);
  } else if (toUpdate < 1) {
    SLM_TRACE(0, "CMDS - No self update to do (time: %d)", toUpdate);
  } else {
    SLM_TRACE(1, "CMDS - Loading the update period: %d", toUpdate);
    if (pushInitial(slmAgentCheckForNewAgentCommand, 0, 0, toUpdate, getNowWithOffset(0),
                    "ERROR - Command update agent not queued") != kQueueOk) {
      return kQueueLockFailed;
    }
  }
  const AgentTime uploadEnd = getNowWithOffset(kUploadWindowSeconds);
  if (pushInitial(slmAgentCheckServersStatusCommand, -1, 0, 3600, 0,
                  "ERROR - Command check servers not queued") != kQueueOk ||
      pushInitial(slmAgentDownloadTopologyCommand, -1, 0, 86400, 0,
                  "ERROR - Command download topology not queued") != kQueueOk ||
      pushInitial(slmAgentDownloadCatalogCommand, -2, 0, 86400, 0,
                  "ERROR - Command downloadCatalog not queued") != kQueueOk ||
      pushInitial(slmAgentDownloadParametersCommand, -4, 0, 86400, 0,
                  "ERROR - Command download parameters not queued") != kQueueOk ||
      pushInitial(slmAgentUploadFilesCommand, 0, uploadEnd, 0, 0,
                  "ERROR - Command download parameters not queued") != kQueueOk) {
    return kQueueLockFailed;
  }
  SLM_TRACE(2, "OK - Queued %d commands during init", static_cast<int>(queue.count));
  return kQueueOk;
}

int pushCommand(const Command* command, AgentTime lastExecution) {
  if (!lockQueue()) return kQueueLockFailed;
  if (queue.count >= kCommandSlots) {
    SLM_TRACE(1, "WARNING - Full command queue");
    return unlockQueue() ? kQueueFull : kQueueLockFailed;
  }
  auto* element = static_cast<QueueElement*>(newArenaElement(queue.arena));
  if (element == nullptr) {
    SLM_TRACE(0, "ERROR - Command creation, arena error");
    unlockQueue();
    return kQueueLockFailed;
  }
  int32_t slot = 0;
  while (slot < kCommandSlots && queue.slots[slot] != nullptr) ++slot;
  if (slot == kCommandSlots) {
    SLM_TRACE(0, "ERROR - Command less then %d but no free slots available", kCommandSlots);
    deleteArenaElement(queue.arena, element);
    unlockQueue();
    return kQueueLockFailed;
  }
  element->command = *command;
  element->lastExecution = lastExecution;
  queue.slots[slot] = element;
  ++queue.count;
  SLM_TRACE(2, "CMD PUSH - free element %d, command %d, last exec %d", slot,
            commandNumber(command->function), lastExecution);
  if (!unlockQueue()) return kQueueLockFailed;
  // A command queued by another thread (an upload after an unknown program, say) may be due
  // before the commands thread means to wake: it recomputes its wait.
  if (cmd_thread != nullptr && isItMe(cmd_thread->osThread) != kIsMe) {
    (void)setSlmThreadStatus(cmd_thread, SLM_THREAD_BUSY);
  }
  return kQueueOk;
}

int dequeueCommand(CommandFunction function) {
  if (!lockQueue()) return kQueueLockFailed;
  int32_t slot = findSlot(function, true);
  if (slot >= 0) {
    removeSlot(slot);
    SLM_TRACE(2, "CMD DEQUEUE - element %d, command %d", slot, commandNumber(function));
  } else {
    SLM_TRACE(0, "WARNING - Command not found for dequeueing");
  }
  if (!unlockQueue()) return kQueueLockFailed;
  return slot >= 0 ? kQueueOk : kCommandNotFound;
}

int setCommandPeriod(CommandFunction function, int32_t period) {
  if (!lockQueue()) return kQueueLockFailed;
  int32_t slot = findSlot(function, false);
  if (slot >= 0) queue.slots[slot]->command.period = period;
  if (!unlockQueue()) return kQueueLockFailed;
  if (slot < 0) {
    SLM_TRACE(0, "WARNING - Command not found to change period");
    return kCommandNotFound;
  }
  if (cmd_thread != nullptr) (void)setSlmThreadStatus(cmd_thread, SLM_THREAD_BUSY);
  return kQueueOk;
}

bool isCommandQueued(CommandFunction function) {
  if (!lockQueue()) return false;
  bool queued = findSlot(function, false) >= 0;
  unlockQueue();
  return queued;
}

int setCommandQueueStatus(int32_t status) {
  if (status != 0 && status != 1) {
    SLM_TRACE(0, "ERROR - Unknown status code");
    return kQueueLockFailed;
  }
  // Both statuses let the queue run: the inventory sender pauses commands only around a packet.
  if (!lockQueue()) return kQueueLockFailed;
  queue.suspended = 0;
  return unlockQueue() ? kQueueOk : kQueueLockFailed;
}

int actualCommand(Command* command, int32_t* wait) {
  if (!lockQueue()) return kQueueLockFailed;
  if (queue.count == 0) return unlockQueue() ? kQueueEmpty : kQueueLockFailed;

  const AgentTime now = getNowWithOffset(0);
  int32_t chosenWait = -1;
  int32_t selected = -1;
  for (int32_t slot = 0; slot < kCommandSlots; ++slot) {
    QueueElement* element = queue.slots[slot];
    if (element == nullptr) continue;
    const Command& queued = element->command;
    const int number = commandNumber(queued.function);
    int32_t ws = giveSecondsToEvent(CalendarEvent{queued.start, queued.end, queued.period});
    SLM_TRACE(3, " - Command %d, last time %d, ws %d", number, element->lastExecution, ws);
    if (ws == kNoOccurrence) {
      if (element->lastExecution != 0) {
        SLM_TRACE(3, " - Command %d end ws %d", number, ws);
        removeSlot(slot);
      } else {
        // An ended command that never ran still runs once.
        selected = slot;
        chosenWait = 0;
      }
      continue;
    }
    int32_t diff = now - element->lastExecution;
    SLM_TRACE(3, " - Difference now (%d) last execution of command %d is %d", now, number, diff);
    if (diff < kMinimumGapSeconds) {
      chosenWait = kMinimumGapSeconds;
      selected = slot;
      if (diff < 0) {
        SLM_TRACE(1, "WARNING - Clock has been moved back");
        for (QueueElement* other : queue.slots) {
          if (other == nullptr) continue;
          other->lastExecution += diff;
          other->command.start = now;
          if (other->command.end != 0) other->command.end -= now;
        }
        chosenWait = 0;
      }
      continue;
    }
    if (ws < chosenWait || chosenWait == -1) {
      SLM_TRACE(3, " - Command %d ws %d < wait %d actual_wait", number, ws, chosenWait);
      chosenWait = ws;
      selected = slot;
    }
    // A periodic command that missed a run is due now.
    if (queued.period > 0 && diff > queued.period) {
      chosenWait = 0;
      selected = slot;
    }
  }

  int result = kCommandDue;
  if (selected < 0) {
    SLM_TRACE(3, " - Command empty");
    result = kQueueEmpty;
  } else if (chosenWait > 1) {
    SLM_TRACE(3, " - Command %d wait %d seconds ",
              commandNumber(queue.slots[selected]->command.function), chosenWait);
    *wait = chosenWait;
    result = kCommandWait;
  } else {
    SLM_TRACE(3, " - Command %d wait %d < %d (EXEC_TOLL)",
              commandNumber(queue.slots[selected]->command.function), chosenWait,
              kExecutionToleranceSeconds);
    *command = queue.slots[selected]->command;
    removeSlot(selected);
    *wait = 0;
  }
  return unlockQueue() ? result : kQueueLockFailed;
}

int slmAgentCommandsFunction() {
  // A driver that was not usable at start-up gets one plug-in at once, plugged in or not.
  bool driverNotReady = agentValue(kAgentDriverStatus) != 0;
  for (;;) {
    if (agentValue(kAgentPluggedIn) == 0 || driverNotReady) {
      driverNotReady = false;
      if (plugInPass() == kQueueLockFailed) return -1;
    }
    int slept = kSleepFullTime;
    if (agentValue(kAgentPluggedIn) == 1 && !suspended()) {
      Command command{};
      int32_t wait = 0;
      int chosen = actualCommand(&command, &wait);
      // A wake-up asked for while a command ran has been seen by now; a stop request stays.
      (void)clearBusyMark(cmd_thread);
      if (chosen == kCommandDue) {
        SLM_TRACE(3, " - exec %d command", commandNumber(command.function));
        int result = command.function(&command);
        if (result == kCommandRequeue || result == kCommandRequeueToo) {
          (void)pushCommand(&command, getNowWithOffset(0));
        } else if (result == kCommandFatal) {
          return -1;
        }
        continue;
      }
      if (chosen == kQueueLockFailed) continue;
      if (chosen == kQueueEmpty) {
        slept = sleepSlmThread(cmd_thread, -1);
      } else {
        SLM_TRACE(2, "OK - waiting: %d seconds for the next command", wait);
        slept = sleepSlmThread(cmd_thread, wait);
      }
    } else {
      slept = sleepSlmThread(cmd_thread, kPlugInRetrySeconds);
    }
    if (afterSleep(slept) != 0) return -1;
  }
}

int slmAgentCleanCommands() {
  int32_t seconds = -1;
  if (lockQueue()) {
    // The scan stops at the first empty slot.
    for (int32_t slot = 0; slot < kCommandSlots && queue.slots[slot] != nullptr; ++slot) {
      const Command& queued = queue.slots[slot]->command;
      if (queued.function != slmAgentCheckForNewAgentCommand) continue;
      seconds = giveSecondsToEvent(CalendarEvent{queued.start, queued.end, queued.period});
      break;
    }
    unlockQueue();
  }
  SLM_TRACE(1, "CMDS - Saving time to update: %d seconds", seconds);
  (void)saveParameter(kParameterSecondsToUpdate, seconds);
  deleteMutex(queue.mutex);
  deleteArena(queue.arena);
  queue = CommandQueue{};
  return 0;
}

}  // namespace slm
