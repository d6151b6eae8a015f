// The agent information: who this agent is (ids, host, tag, customer, system facts, node id), its
// proxy and inventory settings and the installed driver, in one process-wide record read and
// written by value id from every thread. Also the two small files kept beside the caches:
// agent.dat, a row of counters that survive restarts, and plugin.dat, the record's snapshot with
// the system tuple the installed kernel driver was chosen for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "agent_core/cache/cache_file.h"
#include "agent_core/cache/system_tuple.h"

namespace slm {

// Value ids.
constexpr int32_t kAgentPluggedIn = 0;
constexpr int32_t kAgentId = 1;
constexpr int32_t kAgentDivisionId = 2;
constexpr int32_t kAgentHostName = 3;
constexpr int32_t kAgentOsDescription = 4;
constexpr int32_t kAgentMemoryMiB = 6;
constexpr int32_t kAgentDiskCount = 7;
constexpr int32_t kAgentReserved = 8;
constexpr int32_t kAgentCpuCount = 9;
constexpr int32_t kAgentCpuCountCopy = 10;
constexpr int32_t kAgentUseProxy = 11;
constexpr int32_t kAgentNodeId = 12;
constexpr int32_t kAgentTag = 13;
constexpr int32_t kAgentCustomer = 14;
constexpr int32_t kAgentProxyHost = 15;
constexpr int32_t kAgentProxyPort = 16;
constexpr int32_t kAgentOsFamily = 17;
constexpr int32_t kAgentIpAddress = 18;
constexpr int32_t kAgentProxySecurity = 19;
constexpr int32_t kAgentScanStart = 20;  // 4-byte block: agent time
constexpr int32_t kAgentScanRule = 21;   // 8-byte block: rule type and value
constexpr int32_t kAgentMaxDelaySeconds = 22;
constexpr int32_t kAgentPacketSize = 23;
constexpr int32_t kAgentAttempts = 24;
constexpr int32_t kAgentTimeThresholdSeconds = 25;
constexpr int32_t kAgentDelayFactor = 26;
constexpr int32_t kAgentDriverName = 27;
constexpr int32_t kAgentDriverStatus = 28;

constexpr size_t kAgentTextSize = 256;  // at most 255 characters
constexpr size_t kAgentIpSize = 16;     // at most 15 characters
constexpr size_t kAgentScanStartSize = 4;
constexpr size_t kAgentScanRuleSize = 8;

// Texts are terminated and padded with zeros. Guarded by the agent lock: getters take it for
// reading, setters for writing; agentUseProxy and the plugin.dat routines go without it.
struct AgentInfo {
  int32_t pluggedIn = 0;
  int64_t agentId = 0;
  int64_t divisionId = 0;
  char hostName[kAgentTextSize] = "no hostname";
  char osFamily[kAgentTextSize] = "Unix";
  char osDescription[kAgentTextSize] = "no version";
  char ipAddress[kAgentIpSize] = "no ip";
  int32_t memoryMiB = -1;
  int32_t diskCount = -1;
  int32_t reserved = -1;
  int32_t cpuCount = -1;
  int32_t cpuCountCopy = -1;
  int64_t nodeId = 0;
  char tag[kAgentTextSize] = "no tag";
  char driverName[kAgentTextSize] = "";
  char systemTuple[kSystemTupleSize] = {};
  char customer[kAgentTextSize] = "no customer";
  int32_t useProxy = 0;
  char proxyHost[kAgentTextSize] = "no proxy";
  uint16_t proxyPort = 0;
  int8_t proxySecurity = 0;
  uint8_t scanStart[kAgentScanStartSize] = {};
  uint8_t scanRule[kAgentScanRuleSize] = {};
  int32_t attempts = 5;
  int32_t maxDelaySeconds = 10800;
  int32_t packetSize = 25;
  int32_t timeThresholdSeconds = 30;
  int32_t delayFactor = 1;
  int32_t driverStatus = -1;
};

constexpr int kAgentValueOk = 1;
constexpr int kAgentValueFailed = 0;  // unknown id, or the agent lock could not be taken

// Builds the record from the configuration and the system, registers the versions of agent.dat
// and plugin.dat and describes the system tuple. kAgentValueOk, or kAgentValueFailed after the
// message of the step that failed; a missing or unstorable required key also frees the lock.
[[nodiscard]] int initAgentInfo();
// Frees the lock; every accessor fails until the next initAgentInfo.
void clearAgentInfo();

// Text ids: 3, 4, 13, 14, 15, 17 (read only), 18, 27. The setter keeps at most 255 characters (15
// for the IP address); the getter copies at most `size` - 1 and terminates at `buffer[size - 1]`.
[[nodiscard]] int setAgentCharValue(int32_t id, const char* text);
[[nodiscard]] int getAgentCharValue(int32_t id, char* buffer, size_t size);
// Integer ids: 0, 1, 2, 6-12, 16, 19, 22-26, 28. A 32-bit field keeps the low half, the proxy port
// the low 16 bits, the proxy security level the low 8 bits. The getter sign-extends (the port is
// zero-extended), refuses id 11, and answers id 8 with the driver status and id 19 with the
// maximum delay.
[[nodiscard]] int setAgentIntValue(int32_t id, int64_t value);
[[nodiscard]] int getAgentIntValue(int32_t id, int64_t* value);
// Block ids: 20 (4 bytes) and 21 (8 bytes).
[[nodiscard]] int setAgentStructValue(int32_t id, const void* block);
[[nodiscard]] int getAgentStructValue(int32_t id, void* block);
// The use-proxy switch, read without the lock.
int32_t agentUseProxy();

// agent.dat: 4-byte slots without a header. Parameter ids 0 and 1 sit at 4 * id, larger ids at
// 4 * (id - 1), so ids 1 and 2 share a slot.
constexpr char kAgentDatName[] = "agent.dat";
constexpr size_t kAgentDatSlotSize = 4;
constexpr size_t kAgentDatInitialSize = 12;
constexpr size_t kAgentDatPathLengthOffset = 8;
static_assert(kAgentDatPathLengthOffset + kAgentDatSlotSize == kAgentDatInitialSize);

// Parameter ids: the seconds left to the next inventory send, to the next self-update check (-1
// after an update), and the last maximum self-update period received (0 after an update).
constexpr int32_t kParameterSecondsToSend = 1;
constexpr int32_t kParameterSecondsToUpdate = 3;
constexpr int32_t kParameterMaxUpdatePeriod = 4;

constexpr int kParameterOk = 1;
constexpr int kParameterFailed = 0;
// Writes `value` into the slot of `id`, creating the file first when it cannot be opened.
[[nodiscard]] int saveParameter(int32_t id, int32_t value);
// kParameterFailed when the file is absent or ends before the slot.
[[nodiscard]] int loadParameter(int32_t id, int32_t* value);

// plugin.dat: the version pair of file id 3, then the record from the agent id through the driver
// name, then the system tuple.
constexpr char kPluginDatName[] = "plugin.dat";
constexpr size_t kPluginAgentIdOffset = 8;
constexpr size_t kPluginDivisionIdOffset = 16;
constexpr size_t kPluginHostNameOffset = 24;
constexpr size_t kPluginOsFamilyOffset = 280;
constexpr size_t kPluginOsDescriptionOffset = 536;
constexpr size_t kPluginIpAddressOffset = 792;
constexpr size_t kPluginMemoryOffset = 808;
constexpr size_t kPluginDiskCountOffset = 812;
constexpr size_t kPluginReservedOffset = 816;
constexpr size_t kPluginCpuCountOffset = 820;
constexpr size_t kPluginCpuCountCopyOffset = 824;
constexpr size_t kPluginNodeIdOffset = 828;
constexpr size_t kPluginTagOffset = 836;
constexpr size_t kPluginDriverNameOffset = 1092;
constexpr size_t kPluginTupleOffset = 1348;
constexpr size_t kPluginDatSize = 1648;
constexpr size_t kPluginBlockSize = kPluginTupleOffset - kPluginAgentIdOffset;
static_assert(kCacheVersionSize == kPluginAgentIdOffset);
static_assert(kPluginAgentIdOffset + 8 == kPluginDivisionIdOffset);
static_assert(kPluginDivisionIdOffset + 8 == kPluginHostNameOffset);
static_assert(kPluginHostNameOffset + kAgentTextSize == kPluginOsFamilyOffset);
static_assert(kPluginOsFamilyOffset + kAgentTextSize == kPluginOsDescriptionOffset);
static_assert(kPluginOsDescriptionOffset + kAgentTextSize == kPluginIpAddressOffset);
static_assert(kPluginIpAddressOffset + kAgentIpSize == kPluginMemoryOffset);
static_assert(kPluginMemoryOffset + 4 == kPluginDiskCountOffset);
static_assert(kPluginDiskCountOffset + 4 == kPluginReservedOffset);
static_assert(kPluginReservedOffset + 4 == kPluginCpuCountOffset);
static_assert(kPluginCpuCountOffset + 4 == kPluginCpuCountCopyOffset);
static_assert(kPluginCpuCountCopyOffset + 4 == kPluginNodeIdOffset);
static_assert(kPluginNodeIdOffset + 8 == kPluginTagOffset);
static_assert(kPluginTagOffset + kAgentTextSize == kPluginDriverNameOffset);
static_assert(kPluginDriverNameOffset + kAgentTextSize == kPluginTupleOffset);
static_assert(kPluginTupleOffset + kSystemTupleSize == kPluginDatSize);
static_assert(kPluginBlockSize == 1340);

// The kPluginDatSize bytes of plugin.dat for `record` under `version`.
void encodePluginData(const CacheVersion& version, const AgentInfo& record, uint8_t* out);

// Writes the plugin.dat image to `file` item by item (major, minor, data block, tuple); the first
// write that fails is traced with that item and gives false. `path` names the file in the trace.
[[nodiscard]] bool writePluginImage(const uint8_t* image, FILE* file, const char* path);

constexpr int kPluginStored = 0;
constexpr int kPluginNotStored = 1;
// Writes plugin.dat from the live record. On failure no file is left behind.
[[nodiscard]] int storePluginData();

constexpr int kTupleUnreadable = 1;
constexpr int kTupleDiffers = 2;
constexpr int kTupleMatches = 3;
// Compares the system tuple in plugin.dat with the record's. Loads the driver name (id 27) from
// the file as it goes.
[[nodiscard]] int isToBeUpdatedSlmTuple();

}  // namespace slm
