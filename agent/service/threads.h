// The agent's worker threads: the commands thread, the inventory thread and the process event
// monitor, started in that order and stopped in the same order. Each worker has its four functions
// here (tests may set others); a worker without a body is neither started nor stopped.
#pragma once

#include "agent_core/support/slm_thread.h"

namespace slm {

extern SlmThread* cmd_thread;
extern SlmThread* inv_thread;
extern SlmThread* mon_thread;
// Honoured at shut-down, never filled by this agent.
extern SlmThread* msg_thread;

enum class WorkerSlot { kCommands, kInventory, kMonitor };

struct WorkerFunctions {
  SlmThreadFunction init = nullptr;
  SlmThreadFunction body = nullptr;
  SlmThreadFunction stop = nullptr;
  SlmThreadFunction clean = nullptr;
};

// Sets the functions of one worker; a null body leaves the worker out.
void setWorkerFunctions(WorkerSlot slot, const WorkerFunctions& functions);
WorkerFunctions workerFunctions(WorkerSlot slot);

// Creates and starts every registered worker in order; a failure is traced and the next worker is
// still started. Always 0.
int slmAgentStartThreads();
// Stops, cleans and forgets the workers in order; `keepCommands` non-zero leaves the commands
// thread running (the self-update runs on it). Always 0.
int slmAgentStopThreads(int keepCommands);

}  // namespace slm
