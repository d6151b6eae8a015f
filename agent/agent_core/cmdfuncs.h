// The scheduled commands that the commands thread runs: each calls one or more services of the
// preferred server, feeds the answer into the caches or the agent information and says by its
// result whether it is to be queued again. An answer meaning that the server does not know the
// agent or its division clears the plugged-in flag, so that the thread plugs in again. They run
// on the commands thread only, one at a time.
#pragma once

#include <cstdint>

#include "agent_core/cmdsthr.h"

namespace slm {

// Upload commands queued after an unknown file was recorded run this long after it, by default.
constexpr int32_t kDefaultUploadMinimumSeconds = 300;
// An upload command may run up to this long after its start.
constexpr int32_t kUploadWindowSeconds = 20;
// A failed upload is tried again this long after the failure.
constexpr int32_t kUploadRetrySeconds = 10;
// The parameters command takes a period for itself only from this many seconds on.
constexpr int32_t kMinimumParametersPeriod = 30;
// Above this many uploads since the start, an upload first cleans the unknown files table.
constexpr int32_t kUploadsBeforeCleaning = 99;
// The installation command line and the temporary directory are handled in buffers of this size.
constexpr int kNewAgentCommandSize = 512;

int slmAgentDownloadCatalogCommand(Command* command);
int slmAgentUploadFilesCommand(Command* command);
int slmAgentCheckServersStatusCommand(Command* command);
int slmAgentGetNodeCommand(Command* command);
int slmAgentDownloadTopologyCommand(Command* command);
int slmAgentDownloadParametersCommand(Command* command);
int slmAgentCheckForNewAgentCommand(Command* command);

// The seconds between the record of an unknown file and its upload; the parameters set it, and
// every start of the monitor thread puts it back to kDefaultUploadMinimumSeconds.
int32_t getUploadMinimumTime();
void setUploadMinimumTime(int32_t seconds);

}  // namespace slm
