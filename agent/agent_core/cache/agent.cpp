// The process-wide agent information, its lock and accessors, and the agent.dat and plugin.dat
// files.
#include "agent_core/cache/agent.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "agent_core/message/nls.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/file_handle.h"
#include "agent_core/support/linux/osinfo.h"
#include "agent_core/support/slm_lock.h"
#include "agent_core/support/trace.h"

namespace slm {
namespace {

AgentInfo agent_info;
// Exists from initAgentInfo to clearAgentInfo; guards agent_info.
SlmRwLock* agent_lock = nullptr;

// Holds the agent lock, for reading or for writing, while it lives.
class AgentLockGuard {
 public:
  explicit AgentLockGuard(bool forWriting) : lock_(agent_lock) {
    if (lock_ == nullptr) return;
    locked_ = (forWriting ? writeLock(lock_) : readLock(lock_)) == kRwlOk;
  }
  ~AgentLockGuard() {
    if (locked_) releaseLock(lock_);
  }
  AgentLockGuard(const AgentLockGuard&) = delete;
  AgentLockGuard& operator=(const AgentLockGuard&) = delete;
  bool locked() const { return locked_; }

 private:
  SlmRwLock* lock_;
  bool locked_ = false;
};

struct TextField {
  char* text;
  size_t size;
};

// The text field of `id`, or a null text for an id that names none.
TextField textField(int32_t id) {
  switch (id) {
    case kAgentHostName:
      return {agent_info.hostName, sizeof agent_info.hostName};
    case kAgentOsDescription:
      return {agent_info.osDescription, sizeof agent_info.osDescription};
    case kAgentTag:
      return {agent_info.tag, sizeof agent_info.tag};
    case kAgentCustomer:
      return {agent_info.customer, sizeof agent_info.customer};
    case kAgentProxyHost:
      return {agent_info.proxyHost, sizeof agent_info.proxyHost};
    case kAgentOsFamily:
      return {agent_info.osFamily, sizeof agent_info.osFamily};
    case kAgentIpAddress:
      return {agent_info.ipAddress, sizeof agent_info.ipAddress};
    case kAgentDriverName:
      return {agent_info.driverName, sizeof agent_info.driverName};
    default:
      return {nullptr, 0};
  }
}

// The 32-bit integer field of `id` as the setter sees it.
int32_t* int32Field(int32_t id) {
  switch (id) {
    case kAgentPluggedIn:
      return &agent_info.pluggedIn;
    case kAgentMemoryMiB:
      return &agent_info.memoryMiB;
    case kAgentDiskCount:
      return &agent_info.diskCount;
    case kAgentReserved:
      return &agent_info.reserved;
    case kAgentCpuCount:
      return &agent_info.cpuCount;
    case kAgentCpuCountCopy:
      return &agent_info.cpuCountCopy;
    case kAgentUseProxy:
      return &agent_info.useProxy;
    case kAgentMaxDelaySeconds:
      return &agent_info.maxDelaySeconds;
    case kAgentPacketSize:
      return &agent_info.packetSize;
    case kAgentAttempts:
      return &agent_info.attempts;
    case kAgentTimeThresholdSeconds:
      return &agent_info.timeThresholdSeconds;
    case kAgentDelayFactor:
      return &agent_info.delayFactor;
    case kAgentDriverStatus:
      return &agent_info.driverStatus;
    default:
      return nullptr;
  }
}

bool storeText(int32_t id, const char* text) {
  return setAgentCharValue(id, text) == kAgentValueOk;
}

bool storeInt(int32_t id, int64_t value) {
  return setAgentIntValue(id, value) == kAgentValueOk;
}

// The usual decimal reading: stops at the first non-digit, 0 when there are no digits.
int64_t decimalValue(const char* text) {
  return strtoll(text, nullptr, 10);
}

// Required keys are read through buffers of this size.
constexpr size_t kRequiredValueSize = 200;
// The tag as 16-bit characters; the last place is kept for the terminator.
constexpr size_t kTagUnits = 200;

bool readRequiredKey(const char* key, char* value) {
  if (getConfigurationValue(key, value, kRequiredValueSize) == kConfigurationValueFound) {
    return true;
  }
  SLM_TRACE(0, "ERROR - Needed tag \"%s\" not found", key);
  return false;
}

int failRequiredKey() {
  clearAgentInfo();
  return kAgentValueFailed;
}

// Every tag is kept in upper case, whatever case the configuration gives it. A tag that does not
// convert is kept as it was given.
void upperCaseTag(const char* tag, char* out) {
  copyBounded(out, kRequiredValueSize - 1, tag);
  uint16_t units[kTagUnits];
  size_t count = 0;
  int converted = convertUtf8ToUcs2(tag, units, kTagUnits, &count);
  if (converted != kTextConverted && converted != kTextTruncated) return;
  upperCaseUcs2(units, std::min(count, kTagUnits - 1));
  char upper[kRequiredValueSize];
  converted = convertUcs2ToUtf8(units, count, upper, sizeof upper);
  if (converted == kTextConverted || converted == kTextTruncated) {
    copyBounded(out, kRequiredValueSize - 1, upper);
  }
}

void readProxySettings() {
  char value[kAgentTextSize];
  bool useProxy = false;
  if (getConfigurationValue("use_proxy", value, sizeof value) == kConfigurationValueFound) {
    if (strcmp(value, "Y") == 0 || strcmp(value, "y") == 0 || strcmp(value, "yes") == 0) {
      useProxy = true;
    } else if (strcmp(value, "N") != 0 && strcmp(value, "n") != 0 && strcmp(value, "no") != 0) {
      SLM_TRACE(0, "ERROR - Bad proxy_needed value: %s", value);
    }
  }
  bool complete = storeInt(kAgentUseProxy, useProxy ? 1 : 0);

  if (getConfigurationValue("proxy", value, sizeof value) != kConfigurationValueFound ||
      !storeText(kAgentProxyHost, value)) {
    complete = false;
  }
  if (getConfigurationValue("proxy_port", value, sizeof value) != kConfigurationValueFound) {
    complete = false;
  } else if (!storeInt(kAgentProxyPort, decimalValue(value))) {
    SLM_TRACE(1, "WARNING - Bad proxy port value: %s", value);
    complete = false;
  }
  if (getConfigurationValue("proxy_security", value, sizeof value) != kConfigurationValueFound) {
    complete = false;
  } else if (!storeInt(kAgentProxySecurity, decimalValue(value))) {
    SLM_TRACE(1, "WARNING - Bad security proxy level: %s", value);
    complete = false;
  }

  if (!useProxy) return;
  if (complete) {
    SLM_TRACE(1, "OK - Using proxy server");
  } else {
    SLM_TRACE(0, "ERROR - Proxy parameter missing or wrong");
  }
}

// A fact that cannot be read keeps its initial value.
void readSystemFacts() {
  char text[kAgentTextSize];
  if (getHostName(text, sizeof text) != kOsInfoSuccess) {
    SLM_TRACE(0, "ERROR - Unable to take the host name");
  } else {
    storeText(kAgentHostName, text);
  }
  int32_t count = 0;
  if (getDiskInfo(&count) == kOsInfoSuccess) storeInt(kAgentDiskCount, count);
  int32_t megabytes = 0;
  if (getMemInfo(&megabytes) == kOsInfoSuccess) storeInt(kAgentMemoryMiB, megabytes);
  int32_t configured = 0;
  int32_t online = 0;
  if (getCPUInfo(&configured, &online) == kOsInfoSuccess) {
    storeInt(kAgentCpuCount, configured);
    storeInt(kAgentCpuCountCopy, online);
  }
  getOsDescription(text, sizeof text);
  storeText(kAgentOsDescription, text);
}

bool validParameterId(int32_t id) {
  return id >= 0;
}

// Ids 1 and 2 share one slot; existing files are laid out that way.
size_t agentDatSlotOffset(int32_t id) {
  return kAgentDatSlotSize * static_cast<size_t>(id <= 1 ? id : id - 1);
}

void putRawField(uint8_t* dst, const char* field, size_t size) {
  memcpy(dst, field, size);
}

// Drops a plugin.dat that could not be written completely; the one stored before stays.
int discardPluginData(FILE* file, const char* path) {
  discardCacheFile(file, path);
  return kPluginNotStored;
}

}  // namespace

int initAgentInfo() {
  clearAgentInfo();
  SlmRwLock* lock = nullptr;
  if (initRwl(&lock) != kRwlOk) return kAgentValueFailed;
  agent_lock = lock;
  {
    AgentLockGuard guard(true);
    agent_info = AgentInfo{};
  }

  char value[kRequiredValueSize];
  if (!readRequiredKey("agentid", value)) return failRequiredKey();
  if (!storeInt(kAgentId, aToSlmInt64(value))) {
    SLM_TRACE(0, "ERROR - Bad agent id: %s", value);
    return failRequiredKey();
  }
  if (!readRequiredKey("divisionid", value)) return failRequiredKey();
  if (!storeInt(kAgentDivisionId, aToSlmInt64(value))) {
    SLM_TRACE(0, "ERROR - Bad division id: %s", value);
    return failRequiredKey();
  }
  if (!readRequiredKey("tag", value)) return failRequiredKey();
  char tag[kRequiredValueSize];
  upperCaseTag(value, tag);
  if (!storeText(kAgentTag, tag)) return failRequiredKey();
  if (!readRequiredKey("customer", value)) return failRequiredKey();
  if (!storeText(kAgentCustomer, value)) return failRequiredKey();

  readProxySettings();
  readSystemFacts();

  if (setCacheVersion(kAgentFileId, kAgentCacheVersion.majorNumber,
                      kAgentCacheVersion.minorNumber) != kCacheVersionOk) {
    SLM_TRACE(0, "ERROR - Setting cache version for agent");
    return kAgentValueFailed;
  }
  if (setCacheVersion(kPluginFileId, kPluginCacheVersion.majorNumber,
                      kPluginCacheVersion.minorNumber) != kCacheVersionOk) {
    SLM_TRACE(0, "ERROR - Setting cache version for plugin");
    return kAgentValueFailed;
  }

  SLM_TRACE(1, "OK - Agent codeset: %s", getCodeSetName(getDefaultCodeSet()));
  SLM_TRACE(1, "OK - Agent properties");

  char tuple[kSystemTupleSize] = {};
  if (getSystemTuple(tuple) != kSystemTupleBuilt) return kAgentValueFailed;
  AgentLockGuard guard(true);
  if (!guard.locked()) return kAgentValueFailed;
  memcpy(agent_info.systemTuple, tuple, sizeof tuple);
  return kAgentValueOk;
}

void clearAgentInfo() {
  if (agent_lock == nullptr) return;
  freeRwl(agent_lock);
  agent_lock = nullptr;
}

int setAgentCharValue(int32_t id, const char* text) {
  // The operating-system family is fixed.
  if (id == kAgentOsFamily || text == nullptr) return kAgentValueFailed;
  AgentLockGuard guard(true);
  if (!guard.locked()) return kAgentValueFailed;
  TextField field = textField(id);
  if (field.text == nullptr) return kAgentValueFailed;
  memset(field.text, 0, field.size);
  copyBounded(field.text, field.size - 1, text);
  return kAgentValueOk;
}

int getAgentCharValue(int32_t id, char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return kAgentValueFailed;
  AgentLockGuard guard(false);
  if (!guard.locked()) return kAgentValueFailed;
  TextField field = textField(id);
  if (field.text == nullptr) return kAgentValueFailed;
  // A driver name loaded from plugin.dat may fill its field without a terminator.
  size_t length = strnlen(field.text, std::min(size - 1, field.size));
  memcpy(buffer, field.text, length);
  buffer[length] = '\0';
  buffer[size - 1] = '\0';
  return kAgentValueOk;
}

int setAgentIntValue(int32_t id, int64_t value) {
  AgentLockGuard guard(true);
  if (!guard.locked()) return kAgentValueFailed;
  switch (id) {
    case kAgentId:
      agent_info.agentId = value;
      return kAgentValueOk;
    case kAgentDivisionId:
      agent_info.divisionId = value;
      return kAgentValueOk;
    case kAgentNodeId:
      agent_info.nodeId = value;
      return kAgentValueOk;
    case kAgentProxyPort:
      agent_info.proxyPort = static_cast<uint16_t>(value);
      return kAgentValueOk;
    case kAgentProxySecurity:
      agent_info.proxySecurity = static_cast<int8_t>(value);
      return kAgentValueOk;
    default:
      break;
  }
  int32_t* field = int32Field(id);
  if (field == nullptr) return kAgentValueFailed;
  *field = static_cast<int32_t>(value);
  return kAgentValueOk;
}

int getAgentIntValue(int32_t id, int64_t* value) {
  if (value == nullptr) return kAgentValueFailed;
  AgentLockGuard guard(false);
  if (!guard.locked()) return kAgentValueFailed;
  switch (id) {
    case kAgentId:
      *value = agent_info.agentId;
      return kAgentValueOk;
    case kAgentDivisionId:
      *value = agent_info.divisionId;
      return kAgentValueOk;
    case kAgentNodeId:
      *value = agent_info.nodeId;
      return kAgentValueOk;
    case kAgentProxyPort:
      *value = agent_info.proxyPort;
      return kAgentValueOk;
    // Two ids read another field than the one they set: 19 answers with the maximum delay and 8
    // with the driver status. No caller reads 8 or 19, and the mapping is kept as it is.
    case kAgentProxySecurity:
      *value = agent_info.maxDelaySeconds;
      return kAgentValueOk;
    case kAgentReserved:
      *value = agent_info.driverStatus;
      return kAgentValueOk;
    case kAgentUseProxy:
      return kAgentValueFailed;
    default:
      break;
  }
  int32_t* field = int32Field(id);
  if (field == nullptr) return kAgentValueFailed;
  *value = *field;
  return kAgentValueOk;
}

int setAgentStructValue(int32_t id, const void* block) {
  if (block == nullptr) return kAgentValueFailed;
  AgentLockGuard guard(true);
  if (!guard.locked()) return kAgentValueFailed;
  if (id == kAgentScanStart) {
    memcpy(agent_info.scanStart, block, kAgentScanStartSize);
  } else if (id == kAgentScanRule) {
    memcpy(agent_info.scanRule, block, kAgentScanRuleSize);
  } else {
    return kAgentValueFailed;
  }
  return kAgentValueOk;
}

int getAgentStructValue(int32_t id, void* block) {
  if (block == nullptr) return kAgentValueFailed;
  AgentLockGuard guard(false);
  if (!guard.locked()) return kAgentValueFailed;
  if (id == kAgentScanStart) {
    memcpy(block, agent_info.scanStart, kAgentScanStartSize);
  } else if (id == kAgentScanRule) {
    memcpy(block, agent_info.scanRule, kAgentScanRuleSize);
  } else {
    return kAgentValueFailed;
  }
  return kAgentValueOk;
}

int32_t agentUseProxy() {
  return agent_info.useProxy;
}

int saveParameter(int32_t id, int32_t value) {
  if (!validParameterId(id)) return kParameterFailed;
  char path[kCachePathSize];
  cacheFilePath(kAgentDatName, path);
  FileHandle file(fopen(path, "r+be"));
  if (file == nullptr) {
    file.reset(fopen(path, "w+be"));
    if (file == nullptr) return kParameterFailed;
    // A new file holds two zero slots and then the length of its own path, which is what slot 3
    // reads until it is first written.
    uint8_t initial[kAgentDatInitialSize] = {};
    putFixed32(initial + kAgentDatPathLengthOffset, static_cast<uint32_t>(strlen(path)));
    if (fwrite(initial, 1, sizeof initial, file.get()) != sizeof initial) return kParameterFailed;
  }
  uint8_t slot[kAgentDatSlotSize];
  putFixed32(slot, static_cast<uint32_t>(value));
  if (fseek(file.get(), static_cast<long>(agentDatSlotOffset(id)), SEEK_SET) != 0 ||
      fwrite(slot, 1, sizeof slot, file.get()) != sizeof slot || fflush(file.get()) != 0) {
    return kParameterFailed;
  }
  return kParameterOk;
}

int loadParameter(int32_t id, int32_t* value) {
  if (!validParameterId(id) || value == nullptr) return kParameterFailed;
  char path[kCachePathSize];
  cacheFilePath(kAgentDatName, path);
  FileHandle file(fopen(path, "rbe"));
  if (file == nullptr) return kParameterFailed;
  uint8_t slot[kAgentDatSlotSize];
  if (fseek(file.get(), static_cast<long>(agentDatSlotOffset(id)), SEEK_SET) != 0 ||
      fread(slot, 1, sizeof slot, file.get()) != sizeof slot) {
    return kParameterFailed;
  }
  *value = static_cast<int32_t>(getFixed32(slot));
  return kParameterOk;
}

void encodePluginData(const CacheVersion& version, const AgentInfo& record, uint8_t* out) {
  encodeCacheVersion(version, out);
  putFixed64(out + kPluginAgentIdOffset, static_cast<uint64_t>(record.agentId));
  putFixed64(out + kPluginDivisionIdOffset, static_cast<uint64_t>(record.divisionId));
  // Text fields go byte for byte, so a driver name read from an older file comes back unchanged.
  putRawField(out + kPluginHostNameOffset, record.hostName, kAgentTextSize);
  putRawField(out + kPluginOsFamilyOffset, record.osFamily, kAgentTextSize);
  putRawField(out + kPluginOsDescriptionOffset, record.osDescription, kAgentTextSize);
  putRawField(out + kPluginIpAddressOffset, record.ipAddress, kAgentIpSize);
  putFixed32(out + kPluginMemoryOffset, static_cast<uint32_t>(record.memoryMiB));
  putFixed32(out + kPluginDiskCountOffset, static_cast<uint32_t>(record.diskCount));
  putFixed32(out + kPluginReservedOffset, static_cast<uint32_t>(record.reserved));
  putFixed32(out + kPluginCpuCountOffset, static_cast<uint32_t>(record.cpuCount));
  putFixed32(out + kPluginCpuCountCopyOffset, static_cast<uint32_t>(record.cpuCountCopy));
  putFixed64(out + kPluginNodeIdOffset, static_cast<uint64_t>(record.nodeId));
  putRawField(out + kPluginTagOffset, record.tag, kAgentTextSize);
  putRawField(out + kPluginDriverNameOffset, record.driverName, kAgentTextSize);
  putRawField(out + kPluginTupleOffset, record.systemTuple, kSystemTupleSize);
}

bool writePluginImage(const uint8_t* image, FILE* file, const char* path) {
  struct Item {
    size_t offset;
    size_t size;
    const char* failure;
  };
  static constexpr Item kItems[] = {
      {kCacheMajorOffset, 4, "ERROR - Writing the plug major version to file %s"},
      {kCacheMinorOffset, 4, "ERROR - Writing the plug minor version to file %s"},
      {kPluginAgentIdOffset, kPluginBlockSize, "ERROR - Writing the plugin data to file %s"},
      {kPluginTupleOffset, kSystemTupleSize, "ERROR - Writing the slm system tuple to file %s"},
  };
  for (const Item& item : kItems) {
    if (fwrite(image + item.offset, 1, item.size, file) != item.size) {
      SLM_TRACE(0, item.failure, path);
      return false;
    }
  }
  return true;
}

int storePluginData() {
  char path[kCachePathSize];
  cacheFilePath(kPluginDatName, path);
  FILE* file = createCacheFile(path);
  if (file == nullptr) return kPluginNotStored;
  CacheVersion version;
  if (getCacheVersion(kPluginFileId, &version) != kCacheVersionOk) {
    SLM_TRACE(0, "ERROR - Getting the PLUG cache version");
    return discardPluginData(file, path);
  }
  // Written from the live record without the lock: driver management stores it at start-up,
  // before the threads that change the record run.
  uint8_t image[kPluginDatSize];
  encodePluginData(version, agent_info, image);

  if (!writePluginImage(image, file, path)) return discardPluginData(file, path);
  // The writes above may only have filled the stream's buffer; the tuple is the last of them.
  if (!commitCacheFile(file, path)) {
    SLM_TRACE(0, "ERROR - Writing the slm system tuple to file %s", path);
    return kPluginNotStored;
  }
  SLM_TRACE(1, "Data written into file %s", path);
  return kPluginStored;
}

int isToBeUpdatedSlmTuple() {
  char path[kCachePathSize];
  cacheFilePath(kPluginDatName, path);
  FILE* opened = nullptr;
  if (openCacheFile(path, kPluginFileId, &opened, nullptr) != kCacheFileValid) {
    return kTupleUnreadable;
  }
  FileHandle file(opened);
  if (fseek(file.get(), static_cast<long>(kPluginDriverNameOffset), SEEK_SET) != 0 ||
      fread(agent_info.driverName, 1, kAgentTextSize, file.get()) != kAgentTextSize) {
    SLM_TRACE(0, "Reading the friver name from file %s", path);
    return kTupleUnreadable;
  }
  char tuple[kSystemTupleSize];
  if (fread(tuple, 1, kSystemTupleSize, file.get()) != kSystemTupleSize) {
    SLM_TRACE(0, "Reading the slm tuple from file %s", path);
    return kTupleUnreadable;
  }
  return memcmp(tuple, agent_info.systemTuple, kSystemTupleSize) == 0 ? kTupleMatches
                                                                      : kTupleDiffers;
}

}  // namespace slm
