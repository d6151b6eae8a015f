// The node services: plug-in, operating parameters, ping, topology and the query for a newer
// agent. Each is one service exchange with a runtime server; they run on the thread of the
// command that calls them and read the preferred server under the server cache's read lock,
// copying it before any network I/O.
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent_core/communication/server_address.h"
#include "agent_core/support/slm_list.h"

namespace slm {

// The agent version reported to servers.
inline constexpr const char* kAgentVersion = "1.1.1.51";
// Every node service waits this long for its answer.
constexpr int kNodeServiceTimeoutSeconds = 180;
// The tag is sent with at most this many characters at plug-in.
constexpr size_t kPlugInTagMax = 40;

// Results besides the server's own (kServiceOk, kServiceNoNewerAgent, ... of slm.h): a failure
// before the payload is kServiceFailed, a malformed payload kServiceMalformedPayload.

// Enrols the agent on `server`. The node id line of the answer, when it starts with a digit,
// becomes the agent's node id (value 12); an answer without that line is kServiceFailed whatever
// its trailer says.
[[nodiscard]] int plugIn(const ServerAddress* server);

// Words of the parameter record, in the order the server sends them.
constexpr int kParameterWords = 18;
constexpr int kParameterUpdateEnableWord = 16;
// Fills `parameters` (kParameterWords words) from the preferred server's answer: words 0 and 1,
// one 64-bit value in words 2 (low half) and 3 (high half), words 4 to 15 and 17 as the low halves
// of 64-bit values, word 16 the update switch (1 for "yes", 0 for "no"). An answer without
// parameters leaves the record alone.
[[nodiscard]] int downloadParameters(int32_t* parameters);

constexpr int kPingAnswered = 0;
constexpr int kPingFailed = 1;
// kPingAnswered when `server` gave a usable answer of this protocol.
[[nodiscard]] int pingRTServer(const ServerAddress* server);

// Appends the division servers and the enterprise servers of the preferred server's topology to
// `division` and `enterprise`, lists of ServerAddress records. A server whose host is not
// acceptableServerHost is left out after "ERROR - Server host ... refused"; the others are kept.
[[nodiscard]] int downloadTopology(SlmList* division, SlmList* enterprise);

// A host the agent will connect to from a server's word: an IPv4 address in four decimal parts
// (0 to 255, no leading zeros), or a host name of dot-separated labels of letters, digits and "-"
// (1 to 63 characters, neither starting nor ending with "-"; 253 characters in all, no final dot)
// whose last label is not all digits.
bool acceptableServerHost(const char* host);

// Asks the preferred server for a newer agent, sending the text in `command` along. On success
// `command` holds the update command line (at most `commandSize` - 1 characters) and `files`, a
// list of ServerAddress records, one copy of the preferred server's address per file to download,
// with the file's path. kServiceNoNewerAgent when there is none.
[[nodiscard]] int downloadNewAgent(char* command, size_t commandSize, SlmList* files);

}  // namespace slm
