// The inventory thread, its packet sender and the on-demand run.
#include "agent_core/invthr.h"

#include <pthread.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/cache_file.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/cmdsthr.h"
#include "agent_core/communication/catalog.h"
#include "agent_core/communication/comm_init.h"
#include "agent_core/communication/service.h"
#include "agent_core/communication/slm.h"
#include "agent_core/message/format_msg.h"
#include "agent_core/security_settings.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/file_handle.h"
#include "agent_core/support/trace.h"
#include "inventory/linux/searcher.h"
#include "service/threads.h"

namespace slm {
namespace {

// Settings: set by init before the thread starts, then used and reloaded by the inventory thread
// alone (or by the on-demand run, which has no thread).
int32_t max_delay = kDefaultMaxDelaySeconds;
int32_t packet_size = kDefaultPacketSize;
int32_t attempts_number = kDefaultAttempts;
int32_t sleep_time = kDefaultSleepTimeSeconds;
int on_demand = 0;
int32_t send_period = 0;  // the current random send period

// Guarded by sendMutex: the stop function reads it from the stopping thread.
pthread_mutex_t sendMutex = PTHREAD_MUTEX_INITIALIZER;
CalendarEvent send_schedule;

// Without these agent values a slow packet is never followed by a pause.
constexpr int32_t kNoThreshold = INT32_MAX;

void setSendEvent(const CalendarEvent& event) {
  pthread_mutex_lock(&sendMutex);
  send_schedule = event;
  pthread_mutex_unlock(&sendMutex);
}

AgentTime now() {
  return getNowWithOffset(0);
}

bool loadIntValue(int32_t id, int32_t* value) {
  int64_t read = 0;
  if (getAgentIntValue(id, &read) != kAgentValueOk) return false;
  *value = static_cast<int32_t>(read);
  return true;
}

// Values 22 to 24; a missing value keeps the setting. A packet must hold a record.
void loadSettings() {
  (void)loadIntValue(kAgentMaxDelaySeconds, &max_delay);
  (void)loadIntValue(kAgentPacketSize, &packet_size);
  (void)loadIntValue(kAgentAttempts, &attempts_number);
  if (packet_size < 1) packet_size = kDefaultPacketSize;
}

// The scan date event (value 20, a local time made universal) and its rule (value 21).
void loadScanSchedule(CalendarEvent* event, DateRule* rule) {
  uint8_t block[kAgentScanRuleSize] = {};
  *event = CalendarEvent{};
  if (getAgentStructValue(kAgentScanStart, block) == kAgentValueOk) {
    event->start = static_cast<AgentTime>(getFixed32(block));
  }
  correctWithTimeZone(&event->start);
  *rule = DateRule{};
  if (getAgentStructValue(kAgentScanRule, block) == kAgentValueOk) {
    rule->type = static_cast<int32_t>(getFixed32(block));
    rule->value = static_cast<int32_t>(getFixed32(block + 4));
  }
}

int32_t secondsToScan(CalendarEvent* event, const DateRule& rule) {
  // A months rule of 0 cannot be evaluated: no scan is scheduled by it.
  if (rule.type == kDateRuleMonths && rule.value == 0) return kNoOccurrence;
  return giveSecondsToDateEvent(event, rule);
}

void drawSendPeriod() {
  send_period = slm_rand(max_delay);
  SLM_TRACE(1, "INV - New send period %d, max period %d", send_period, max_delay);
}

bool pluggedIn() {
  int32_t value = 0;
  return loadIntValue(kAgentPluggedIn, &value) && value == 1;
}

char* scanFilePath(char* out) {
  return cacheFilePath(kScanFileName, out);
}

bool fileExists(const char* path) {
  struct stat status;
  return stat(path, &status) == 0;
}

// Whether a record read back from "scan.dat" is one the scanner can have written: a name, zero
// integers, blank text fields, and zeros behind every terminator.
bool isScannedRecord(const uint8_t* raw, const InventoryRecord& record) {
  if (record.name[0] == '\0' || record.first != 0 || record.second != 0 || record.reserved != 0) {
    return false;
  }
  for (const char* text :
       {record.directory, record.text1, record.text2, record.text3, record.text4}) {
    if (strcmp(text, " ") != 0) return false;
  }
  uint8_t again[kInventoryRecordSize];
  encodeInventoryRecord(record, again);
  return memcmp(raw, again, kInventoryRecordSize) == 0;
}

// The records of one inventory, from the in-memory list or from "scan.dat", one ahead so that the
// sender knows which packet is the last. Names go out with no control bytes, whatever agent wrote
// a waiting "scan.dat".
class RecordSource {
 public:
  RecordSource(FILE* file, SlmList* list) : file_(file), list_(list) { fetch(); }
  bool hasMore() const { return pending_; }
  bool next(InventoryRecord* record) {
    if (!pending_) return false;
    *record = record_;
    fetch();
    return true;
  }

 private:
  void fetch() {
    if (list_ != nullptr) {
      item_ = getNext(list_, item_);
      pending_ = item_ != nullptr;
      if (pending_) record_ = *static_cast<const InventoryRecord*>(item_);
    } else {
      pending_ = getNextFromFile(file_, &record_);
    }
    if (pending_) {
      replaceControlBytes(record_.name);
      replaceControlBytes(record_.directory);
    }
  }

  FILE* file_;
  SlmList* list_;
  void* item_ = nullptr;
  bool pending_ = false;
  InventoryRecord record_{};
};

// Whether the file system of the cache directory has room for a file of `bytes` beside what it
// holds; true when that cannot be asked, and the write finds out.
bool roomForFile(const char* path, uint64_t bytes) {
  char directory[kCachePathSize];
  copyBounded(directory, sizeof directory - 1, path);
  if (char* slash = strrchr(directory, '/')) *slash = '\0';
  struct statvfs space;
  if (statvfs(directory, &space) != 0) return true;
  const uint64_t available = static_cast<uint64_t>(space.f_bavail) * space.f_frsize;
  if (available >= bytes) return true;
  SLM_TRACE(0, "ERROR - No room for inventory file %s: %llu bytes, %llu available", path,
            static_cast<unsigned long long>(bytes), static_cast<unsigned long long>(available));
  return false;
}

}  // namespace

namespace {

bool writeWholeScanFile(const char* path, SlmList* list, AgentTime scanTime) {
  const uint64_t bytes =
      kScanFileRecordsOffset + static_cast<uint64_t>(entries(list)) * kInventoryRecordSize;
  if (!roomForFile(path, bytes)) {
    SLM_TRACE(0, "ERROR - Some problems saving inventory file");
    return false;
  }
  FILE* file = createCacheFile(path);
  if (file == nullptr) {
    SLM_TRACE(0, "ERROR - Some problems opening inventory file");
    return false;
  }
  uint8_t raw[kInventoryRecordSize];
  putFixed32(raw, static_cast<uint32_t>(scanTime));
  bool written = fwrite(raw, 1, kScanFileRecordsOffset, file) == kScanFileRecordsOffset;
  for (void* item = getNext(list, nullptr); item != nullptr && written;
       item = getNext(list, item)) {
    encodeInventoryRecord(*static_cast<const InventoryRecord*>(item), raw);
    written = fwrite(raw, 1, sizeof raw, file) == sizeof raw;
  }
  if (written) {
    written = commitCacheFile(file, path);
  } else {
    discardCacheFile(file, path);
  }
  if (!written) SLM_TRACE(0, "ERROR - Some problems saving inventory file");
  return written;
}

}  // namespace

bool writeScanFile(const char* path, SlmList* list, AgentTime scanTime) {
  if (writeWholeScanFile(path, list, scanTime)) return true;
  if (remove(path) == 0) SLM_TRACE(1, "WARNING - Older inventory file %s removed", path);
  return false;
}

namespace {

// A fresh list with the scan's records, or null after the failure's message.
SlmList* performDisksScan() {
  ListHandle list(createList(sizeof(InventoryRecord)));
  if (!list) {
    SLM_TRACE(0, "ERROR - Unable to create inventory list");
    return nullptr;
  }
  SLM_TRACE(1, "INV - Scanning Disks for inventory");
  switch (createInventoryList(list.get())) {
    case kSearchOk:
      return list.release();
    case kSearchNoMemory:
      SLM_TRACE(0, "ERROR - No enough memory to do inventory");
      return nullptr;
    case kSearchStopped:
      SLM_TRACE(0, "ERROR - Inventory was stopped");
      return nullptr;
    default:
      SLM_TRACE(0, "ERROR - Unknown internal return code");
      return nullptr;
  }
}

// Sends the waiting "scan.dat". True when nothing is left to send afterwards.
bool sendScanFile(const char* path, int32_t secondsToNextScan) {
  int32_t retryWait = sleep_time;
  if (secondsToNextScan >= 0) {
    retryWait = attempts_number > 0 ? secondsToNextScan / attempts_number : secondsToNextScan;
  }
  if (retryWait < sleep_time) sleep_time = retryWait;
  SLM_TRACE(1, "INV - Sending inventory to server");
  SLM_TRACE(1, "INV - Catching inventory from file %s", path);
  FileHandle file(fopen(path, "rbe"));
  if (!file) {
    // Sending nothing still goes through the sender, which says so; the result waits for a later
    // pass either way.
    SLM_TRACE(0, "ERROR - Opening inventory file for sending");
    (void)sendPacketInventory(nullptr, nullptr, 0, sleep_time);
    SLM_TRACE(1, "WARNING - Inventory not yet sent");
    SLM_TRACE(0, "Inventory file not opened");
    return false;
  }
  uint8_t raw[kScanFileRecordsOffset];
  if (fread(raw, 1, sizeof raw, file.get()) != sizeof raw) {
    // Without its scan time the file cannot be delivered at all.
    SLM_TRACE(0, "ERROR - Inventory file %s has no scan time, removed", path);
    file.reset();
    remove(path);
    return true;
  }
  const AgentTime scanTime = static_cast<AgentTime>(getFixed32(raw + kScanFileTimeOffset));
  if (sendPacketInventory(file.get(), nullptr, scanTime, sleep_time) != kInventoryDelivered) {
    SLM_TRACE(1, "WARNING - Inventory not yet sent");
    return false;
  }
  file.reset();
  remove(path);
  pthread_mutex_lock(&sendMutex);
  send_schedule.end = now() - 1;
  pthread_mutex_unlock(&sendMutex);
  return true;
}

enum class Woken { kGoOn, kStop, kUpdate, kError };

Woken sleepInventory(int32_t seconds) {
  const int slept = sleepSlmThread(inv_thread, seconds);
  int32_t status = SLM_THREAD_RUNNING;
  if (slept == kSleepError || getSlmThreadStatus(inv_thread, &status) != kSlmThreadOk) {
    SLM_TRACE(0, "ERROR - Inventory thread after sleeping");
    return Woken::kError;
  }
  if (status == SLM_THREAD_STOPPED) return Woken::kStop;
  if (status == SLM_THREAD_BUSY) return Woken::kUpdate;
  if (slept == kSleepWoken) SLM_TRACE(0, "ERROR - Signaled normal state in inventory thread");
  return Woken::kGoOn;
}

// The server changed the parameters while the thread slept before a send (`beforeSend`) or
// before a scan.
void reloadAfterUpdate(bool beforeSend, bool resultWaiting, CalendarEvent* scanEvent,
                       DateRule* rule) {
  const int32_t previousMaxDelay = max_delay;
  loadSettings();
  loadScanSchedule(scanEvent, rule);
  if (max_delay != previousMaxDelay) drawSendPeriod();
  // A waiting result keeps its send, re-timed to the new schedule, whichever sleep was cut short:
  // the result of an agent that was not yet plugged in when it started would otherwise wait for
  // the next scan.
  if (beforeSend || resultWaiting) {
    if (resultWaiting) {
      const int32_t toScan = secondsToScan(scanEvent, *rule);
      pthread_mutex_lock(&sendMutex);
      send_schedule.end = toScan > 0 ? now() + toScan : 0;
      send_schedule.period = send_period;
      pthread_mutex_unlock(&sendMutex);
    } else {
      SLM_TRACE(0, "ERROR - Waiting for sending inventory but not data available");
    }
  } else {
    setSendEvent({now() - 1, now() - 1, send_period});
  }
  // A stop asked for since the wake-up stays, and ends the thread at its next sleep.
  (void)clearBusyMark(inv_thread);
}

constexpr int kThreadEnds = 0;
constexpr int kThreadFails = -1;

}  // namespace

int slmAgentInitInventory() {
  max_delay = kDefaultMaxDelaySeconds;
  packet_size = kDefaultPacketSize;
  attempts_number = kDefaultAttempts;
  loadSettings();
  on_demand = 0;
  sleep_time = kDefaultSleepTimeSeconds;
  srand(static_cast<unsigned>(now()));
  int32_t saved = 0;
  if (loadParameter(kParameterSecondsToSend, &saved) == kParameterOk && saved >= 1) {
    setSendEvent({now() + saved, 0, saved});
    SLM_TRACE(1, "INV - Previous send inventory period %d, actual Max %d", saved, max_delay);
  } else {
    setSendEvent({now() - 1, 0, 0});
  }
  return 0;
}

CalendarEvent inventorySendEvent() {
  pthread_mutex_lock(&sendMutex);
  CalendarEvent event = send_schedule;
  pthread_mutex_unlock(&sendMutex);
  return event;
}

int slmAgentInventoryStop() {
  const int32_t seconds = giveSecondsToEvent(inventorySendEvent());
  SLM_TRACE(1, "INV - Saving seconds to send inventory %d", seconds);
  const int saved = saveParameter(kParameterSecondsToSend, seconds);
  stopInventoryListCreation();
  return saved;
}

int slmAgentCleanupInventory() {
  return 0;
}

bool getNextFromFile(FILE* file, InventoryRecord* record) {
  uint8_t raw[kInventoryRecordSize];
  for (;;) {
    const size_t got = fread(raw, 1, sizeof raw, file);
    if (got != sizeof raw) {
      if (got != 0) SLM_TRACE(0, "ERROR - Inventory file ends inside a record, %zu bytes", got);
      return false;
    }
    decodeInventoryRecord(raw, record);
    if (isScannedRecord(raw, *record)) return true;
    SLM_TRACE(0, "ERROR - Damaged inventory record skipped");
  }
}

int waitBeforeSend(int32_t seconds) {
  SLM_TRACE(2, "INV - Waiting %d seconds", seconds);
  if (on_demand != 0 || inv_thread == nullptr || isItMe(inv_thread->osThread) != kIsMe) {
    if (seconds > 0) sleep(static_cast<unsigned>(seconds));
    return kWaitOver;
  }
  sleepSlmThread(inv_thread, seconds);
  int32_t status = SLM_THREAD_RUNNING;
  if (getSlmThreadStatus(inv_thread, &status) == kSlmThreadOk && status == SLM_THREAD_STOPPED) {
    return kWaitStopped;
  }
  return kWaitOver;
}

int sendPacketInventory(FILE* file, SlmList* list, AgentTime scanTime, int32_t retryWaitSeconds) {
  if (list == nullptr && file == nullptr) {
    SLM_TRACE(0, "ERROR - Inventory data not found");
    return kInventoryNotDelivered;
  }
  ListHandle packet(createList(sizeof(InventoryRecord)));
  int32_t threshold = kNoThreshold;
  int32_t factor = 0;
  if (!loadIntValue(kAgentTimeThresholdSeconds, &threshold)) threshold = kNoThreshold;
  (void)loadIntValue(kAgentDelayFactor, &factor);

  RecordSource source(file, list);
  int32_t packetNumber = 0;
  int32_t attempts = 0;  // over the whole inventory: a later success does not reset it
  bool resend = false;
  while (resend || source.hasMore()) {
    if (!resend) {
      ++packetNumber;
      InventoryRecord record;
      for (int32_t i = 0; packet && i < packet_size && source.next(&record); ++i) {
        if (append(packet.get(), &record) != kListOk) packet.reset();
      }
    }
    if (!packet) {
      SLM_TRACE(0, "ERROR - Creating Servers cache");
      return kInventoryNotDelivered;
    }
    resend = false;
    if (on_demand == 0 && setCommandQueueStatus(0) != kQueueOk) {
      SLM_TRACE(1, "WARNING - Couldn't pause the commands queue");
    }
    const AgentTime began = now();
    const int result = sendInventory(packet.get(), scanTime, source.hasMore() ? 0 : 1);
    const int32_t elapsed = now() - began;
    if (on_demand == 0 && setCommandQueueStatus(1) != kQueueOk) {
      SLM_TRACE(1, "WARNING - Couldn't restart the commands queue");
    }
    switch (result) {
      case kServiceOk:
        SLM_TRACE(2, "INV - Packet %d sent; %d files. Time %d (sec)", packetNumber,
                  static_cast<int>(entries(packet.get())), elapsed);
        packet.reset(createList(sizeof(InventoryRecord)));
        if (elapsed > threshold) {
          SLM_TRACE(2, "INV - Time over threshold %d", threshold);
          if (waitBeforeSend((elapsed - threshold) * factor) == kWaitStopped) {
            return kInventoryNotDelivered;
          }
        }
        break;
      case kServiceFailed:
        SLM_TRACE(0, "ERROR - Sending inventory packet %d", packetNumber);
        if (++attempts >= attempts_number) {
          SLM_TRACE(0, "ERROR - Inventory not sent, error packet %d, attempt %d", packetNumber,
                    attempts);
          return kInventoryNotDelivered;
        }
        SLM_TRACE(1, "INV - Attempt %d, resending inventory packet %d", attempts, packetNumber);
        if (waitBeforeSend(retryWaitSeconds) == kWaitStopped) return kInventoryNotDelivered;
        resend = true;
        break;
      case kServiceObsoleteScan:
        // The server holds a newer scan: this one is done with, except for a user who waits.
        SLM_TRACE(0, "ERROR - Inventory not successfully stored from server");
        return on_demand != 0 ? kInventoryNotDelivered : kInventoryDelivered;
      case kServiceUnknownAgent:
      case kServiceUnknownDivision:
        SLM_TRACE(0, "ERROR - Unknown angent or division, packet %d", packetNumber);
        (void)setAgentIntValue(kAgentPluggedIn, 0);
        return kInventoryNotDelivered;
      default:
        // Unanswered: the records travel again with the next packet.
        break;
    }
  }
  return kInventoryDelivered;
}

int slmAgentInventoryFunction() {
  (void)lowerScanPriority();
  CalendarEvent scanEvent;
  DateRule rule;
  loadScanSchedule(&scanEvent, &rule);
  char path[kCachePathSize];
  scanFilePath(path);
  bool resultWaiting = fileExists(path);
  if (resultWaiting) SLM_TRACE(1, "INV - Inventory file %s waits to be sent", path);
  const uint32_t seed = static_cast<uint32_t>(now()) * 1000u;
  srand(seed);
  SLM_TRACE(2, "INV - rand generator init %u", seed);
  drawSendPeriod();
  AgentTime lastScan = 0;

  for (;;) {
    int32_t toScan = secondsToScan(&scanEvent, rule);
    if (toScan >= 0) {
      SLM_TRACE(1, "INV - Now %d, Start %d, period %d", now(), scanEvent.start, scanEvent.period);
    }
    if (resultWaiting) {
      const int32_t toSend = giveSecondsToEvent(inventorySendEvent());
      SLM_TRACE(1, "INV - %d seconds to send the inventor, actual period %d ", toSend, send_period);
      if (toSend >= 0 && (toScan < 0 || toSend <= toScan)) {
        if (toSend > 0) {
          const Woken woken = sleepInventory(toSend);
          if (woken == Woken::kStop) return kThreadEnds;
          if (woken == Woken::kError) return kThreadFails;
          if (woken == Woken::kUpdate) {
            reloadAfterUpdate(true, resultWaiting, &scanEvent, &rule);
            continue;
          }
        }
        if (pluggedIn()) resultWaiting = !sendScanFile(path, secondsToScan(&scanEvent, rule));
      }
    }

    toScan = secondsToScan(&scanEvent, rule);
    // A scan is not repeated within the second it began in, whatever the schedule says.
    if (toScan == 0 && now() == lastScan) toScan = 1;
    if (toScan != 0) {
      if (toScan > 0)
        SLM_TRACE(1, "INV - Inventory thread waiting to do scan in %d seconds", toScan);
      const Woken woken = sleepInventory(toScan);
      if (woken == Woken::kStop) return kThreadEnds;
      if (woken == Woken::kError) return kThreadFails;
      if (woken == Woken::kUpdate) {
        reloadAfterUpdate(false, resultWaiting, &scanEvent, &rule);
        continue;
      }
      // The schedule is asked again after every sleep: the one-second pause after a scan that
      // began this very second must not become a second scan, and a sleep without a scheduled
      // scan ends only by a wake-up.
      continue;
    }

    lastScan = now();
    const AgentTime scanTime = lastScan;
    ListHandle list(performDisksScan());
    if (!list) {
      SLM_TRACE(0, "ERROR - Some problems doing the disks scan");
      continue;
    }
    SLM_TRACE(1, "OK - Disks scan completes");
    resultWaiting = writeScanFile(path, list.get(), scanTime);
    list.reset();
    const int32_t next = secondsToScan(&scanEvent, rule);
    const AgentTime finished = now() - 1;
    setSendEvent({finished, next > 0 ? finished + next : 0, send_period});
  }
}

namespace {

// The server of the configuration, as the on-demand run enrols and sends with.
bool configuredServer(ServerInfo* info) {
  *info = ServerInfo{};
  char text[kServerHostSize] = "";
  (void)getConfigurationValue("server", info->address.host, sizeof info->address.host);
  (void)getConfigurationValue("path", info->address.path, sizeof info->address.path);
  if (getConfigurationValue("port", text, sizeof text) == kConfigurationValueFound) {
    info->address.port = static_cast<uint16_t>(aToSlmInt64(text));
  }
  if (info->address.port == 0) {
    SLM_TRACE(0, "ERROR - Bad server port: %s", text);
    return false;
  }
  text[0] = '\0';
  (void)getConfigurationValue("server_security", text, sizeof text);
  // Kept as a signed byte; its range test can never reject a value, so none is made here.
  info->securityLevel = static_cast<int8_t>(aToSlmInt64(text));
  return true;
}

void printLine(const MessageCatalogue* catalogue, const MessageText& message) {
  printMessage(stdout, catalogue, message);
  fputc('\n', stdout);
}

// Scans into a fresh list and sends it without "scan.dat". kOnDemandOk when it was delivered.
int inventoryOnDemand(const MessageCatalogue* catalogue) {
  max_delay = kOnDemandMaxDelaySeconds;
  packet_size = kDefaultPacketSize;
  attempts_number = kDefaultAttempts;
  sleep_time = kDefaultSleepTimeSeconds;
  printLine(catalogue, kMsgScanning);
  fflush(stdout);
  const AgentTime scanTime = now();
  // Somebody asked for this inventory now: it runs at the normal priority, unlike the daemon's
  // scheduled scans.
  ListHandle list(createList(sizeof(InventoryRecord)));
  if (!list || createInventoryList(list.get()) != kSearchOk) {
    printLine(catalogue, kMsgScanNotCreated);
    return kOnDemandFailed;
  }
  printLine(catalogue, kMsgSendingInventory);
  fflush(stdout);
  if (sendPacketInventory(nullptr, list.get(), scanTime, sleep_time) == kInventoryDelivered) {
    printLine(catalogue, kMsgInventorySent);
    return kOnDemandOk;
  }
  printLine(catalogue, kMsgInventoryNotSent);
  return kOnDemandFailed;
}

int runOnDemandActions(int actions, const MessageCatalogue* catalogue) {
  const int described = initAgentInfo();
  if (described != kAgentValueOk) {
    printMessage(stdout, catalogue, kMsgAgentInitFailed, described);
    fputc('\n', stdout);
    return kOnDemandFailed;
  }
  // A communication layer that did not start is no reason to stop here: a server that cannot be
  // reached is reported as such by the run itself.
  (void)initCommunication();
  ServerInfo server;
  int result = kOnDemandFailed;
  if (configuredServer(&server) && createServersCache(&server) == kSrvsOk) {
    result = kOnDemandOk;
    if ((actions & kOnDemandPlugIn) != 0) {
      // A first plug-in on a server answers "unknown agent": it enrolled all the same.
      bool plugged = false;
      for (int call = 0; call < kOnDemandPlugInCalls && !plugged; ++call) {
        const int answer = plugIn(&server.address);
        plugged = answer == kServiceOk || answer == kServiceUnknownAgent;
      }
      printMessage(stdout, catalogue, plugged ? kMsgServerContacted : kMsgServerNotContacted,
                   server.address.host);
      fputc('\n', stdout);
      if (!plugged) result = kOnDemandFailed;
    }
    if ((actions & kOnDemandInventory) != 0 && inventoryOnDemand(catalogue) != kOnDemandOk) {
      result = kOnDemandFailed;
    }
    deleteServersCache();
  }
  closeCommunication();
  clearAgentInfo();
  return result;
}

}  // namespace

int slmAgentInventoryOnDemand(int actions, const char* traceFile, int32_t traceLevel,
                              const char* configurationFile, const MessageCatalogue* catalogue) {
  on_demand = 1;
  startTrace(traceFile);
  setTraceLevel(traceLevel);
  int result = kOnDemandFailed;
  if (loadConfigurationFile(configurationFile) != kConfigurationLoaded) {
    SLM_TRACE(0, "ERROR - Main loading '%s' not loaded", configurationFile);
    printMessage(stdout, catalogue, kMsgAgentInitFailed, kAgentValueFailed);
    fputc('\n', stdout);
  } else {
    readSecuritySettings();
    result = runOnDemandActions(actions, catalogue);
  }
  deleteConfigurationVariables();
  fflush(stdout);
  stopTrace();
  on_demand = 0;
  return result;
}

}  // namespace slm
