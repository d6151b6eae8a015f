// The inventory thread: scans the disks on the server's schedule, keeps the result in "scan.dat"
// until it is delivered, and sends it in packets at a randomly spread moment, pausing the commands
// queue around each packet. Also the inventory and plug-in run on demand from the command line.
// The settings and the send event belong to the inventory thread (or the on-demand run); the send
// event is guarded by a mutex of its own because the stop function reads it from the stopping
// thread.
#pragma once

#include <cstdint>
#include <cstdio>

#include "agent_core/data/inventory_record.h"
#include "agent_core/data/slm_time.h"
#include "agent_core/message/nls.h"
#include "agent_core/support/slm_list.h"

namespace slm {

constexpr char kScanFileName[] = "scan.dat";
// "scan.dat": the scan time, then the records in the order of the scan.
constexpr size_t kScanFileTimeOffset = 0;
constexpr size_t kScanFileRecordsOffset = 4;

// Defaults of the settings held in agent values 22 to 24, and the resend wait's upper bound.
constexpr int32_t kDefaultMaxDelaySeconds = 10800;
constexpr int32_t kDefaultPacketSize = 25;
constexpr int32_t kDefaultAttempts = 5;
constexpr int32_t kDefaultSleepTimeSeconds = 360;
// The on-demand send ignores the agent values.
constexpr int32_t kOnDemandMaxDelaySeconds = 82800;

// The thread's functions. Init loads the settings and restores the send event from the saved
// seconds to send; stop saves them. Both 0; stop returns the save result.
int slmAgentInitInventory();
int slmAgentInventoryFunction();
int slmAgentInventoryStop();
int slmAgentCleanupInventory();

// The send event in force (for the stop and for tests).
CalendarEvent inventorySendEvent();

constexpr int kInventoryDelivered = 1;
constexpr int kInventoryNotDelivered = 0;
// Sends one inventory packet by packet, from `list` when there is one, else from the open
// "scan.dat" `file` (positioned after the scan time). kInventoryDelivered when every packet went
// out (or the server refused the scan as obsolete, except on demand), else kInventoryNotDelivered;
// results 5 and 6 also clear the plugged-in flag.
[[nodiscard]] int sendPacketInventory(FILE* file, SlmList* list, AgentTime scanTime,
                                      int32_t retryWaitSeconds);

constexpr int kWaitStopped = 0;
constexpr int kWaitOver = 1;
// Sleeps `seconds` (wake-able on the inventory thread; a plain sleep on demand). kWaitStopped only
// when a stop request ended it.
int waitBeforeSend(int32_t seconds);

// Writes "scan.dat" at `path` with the scan time and the records of `list`, whole or not at all.
// True when written. A write that fails, or that its file system has no room for, also removes an
// earlier result still waiting there: an older inventory must never be delivered as this scan's.
[[nodiscard]] bool writeScanFile(const char* path, SlmList* list, AgentTime scanTime);

// Reads the next record of an open "scan.dat" into `record`; false at the end of the file or at a
// cut record. Records that a scan cannot have written are skipped.
bool getNextFromFile(FILE* file, InventoryRecord* record);

// The on-demand run: `actions` bits 1 plug-in, 2 inventory. Starts its own trace at `traceLevel`
// in `traceFile`, loads `configurationFile` and prints its numbered messages through `catalogue`.
constexpr int kOnDemandPlugIn = 1;
constexpr int kOnDemandInventory = 2;
constexpr int kOnDemandOk = 0;
constexpr int kOnDemandFailed = -1;
[[nodiscard]] int slmAgentInventoryOnDemand(int actions, const char* traceFile, int32_t traceLevel,
                                            const char* configurationFile,
                                            const MessageCatalogue* catalogue);

// How often "-p" calls the plug-in service at most.
constexpr int kOnDemandPlugInCalls = 12;

}  // namespace slm
