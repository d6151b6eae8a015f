// Starting and stopping the worker threads in their fixed order.
#include "service/threads.h"

#include "agent_core/cmdsthr.h"
#include "agent_core/invthr.h"
#include "agent_core/monitor.h"
#include "agent_core/support/trace.h"

namespace slm {

SlmThread* cmd_thread = nullptr;
SlmThread* inv_thread = nullptr;
SlmThread* mon_thread = nullptr;
SlmThread* msg_thread = nullptr;

namespace {

struct Worker {
  SlmThread** handle;
  const char* startLine;
  const char* createError;
  const char* startError;
  const char* stopLine;
  WorkerFunctions functions;
};

// In start and stop order. The texts differ slightly from worker to worker; they are kept as the
// field reports know them.
Worker workers[] = {
    {&cmd_thread,
     " - Starting commands thread",
     "Error creating commands thread",
     "Error starting the commands thread",
     " - Stopping commands thread",
     {slmAgentInitCommands, slmAgentCommandsFunction, nullptr, slmAgentCleanCommands}},
    {&inv_thread,
     " - Starting inventory thread",
     "Error creating inventory thread",
     "Error starting inventory thread",
     " - Stopping inventory thread",
     {slmAgentInitInventory, slmAgentInventoryFunction, slmAgentInventoryStop,
      slmAgentCleanupInventory}},
    {&mon_thread,
     " - Starting monitor thread",
     "Error creating monitor thread",
     "Error starting monitor thread",
     " - Stopping monitor thread",
     {slmAgentInitMonitor, slmAgentMonitorFunction, slmAgentStopMonitor, slmAgentCleanMonitor}},
};

Worker& worker(WorkerSlot slot) {
  return workers[static_cast<int>(slot)];
}

void stopWorker(SlmThread** handle, const char* stopLine) {
  SLM_TRACE(1, "%s", stopLine);
  stopSlmThread(*handle);
  cleanSlmThread(*handle);
  *handle = nullptr;
}

}  // namespace

void setWorkerFunctions(WorkerSlot slot, const WorkerFunctions& functions) {
  worker(slot).functions = functions;
}

WorkerFunctions workerFunctions(WorkerSlot slot) {
  return worker(slot).functions;
}

int slmAgentStartThreads() {
  for (Worker& w : workers) {
    // A worker still running is left as it is: the self-update restarts the others from the
    // commands thread, which it did not stop.
    if (w.functions.body == nullptr || *w.handle != nullptr) continue;
    SLM_TRACE(1, "%s", w.startLine);
    *w.handle =
        createSlmThread(w.functions.init, w.functions.body, w.functions.stop, w.functions.clean);
    if (*w.handle == nullptr) {
      SLM_TRACE(0, "%s", w.createError);
      continue;
    }
    if (startSlmThread(*w.handle) != kSlmThreadOk) SLM_TRACE(0, "%s", w.startError);
  }
  return 0;
}

int slmAgentStopThreads(int keepCommands) {
  Worker& commands = worker(WorkerSlot::kCommands);
  if (cmd_thread != nullptr && keepCommands == 0) {
    stopWorker(&cmd_thread, commands.stopLine);
  } else {
    SLM_TRACE(0, "Commands thread ALIVE");
  }
  for (Worker* w : {&worker(WorkerSlot::kInventory), &worker(WorkerSlot::kMonitor)}) {
    if (*w->handle != nullptr) stopWorker(w->handle, w->stopLine);
  }
  if (msg_thread != nullptr) stopWorker(&msg_thread, " - Stopping messages thread");
  return 0;
}

}  // namespace slm
