// The scheduled commands: catalog, unknown files upload, server pings, node id, topology,
// parameters and the self-update.
#include "agent_core/cmdfuncs.h"

#include <errno.h>
#include <malloc.h>
#include <sys/stat.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/lat.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/cache/uat.h"
#include "agent_core/communication/catalog.h"
#include "agent_core/communication/comm_init.h"
#include "agent_core/communication/service.h"
#include "agent_core/communication/service_call.h"
#include "agent_core/communication/slm.h"
#include "agent_core/data/inventory_record.h"
#include "agent_core/data/slm_time.h"
#include "agent_core/install_command.h"
#include "agent_core/install_unit.h"
#include "agent_core/security_settings.h"
#include "agent_core/site_manifest.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/file_handle.h"
#include "agent_core/support/program_runner.h"
#include "agent_core/support/slm_thread.h"
#include "agent_core/support/trace.h"
#include "agent_core/verifySign.h"
#include "service/threads.h"
#include "service/unix/base_dir.h"

namespace slm {
namespace {

// Read by the monitor thread when it queues an upload; written by the parameters command.
std::atomic<int32_t> uploadMinimumSeconds{kDefaultUploadMinimumSeconds};

// The parameters command's own memory, on the commands thread only.
bool parametersFirstRun = true;
int32_t savedMaxUpdatePeriod = 0;

// Answers meaning that the server does not know the agent or its division: plug in again.
bool unknownToServer(int result) {
  if (result != kServiceUnknownAgent && result != kServiceUnknownDivision) return false;
  (void)setAgentIntValue(kAgentPluggedIn, 0);
  return true;
}

// The descriptive texts of an upload record carry no data on this system: one blank each.
void blankTexts(InventoryRecord* record) {
  strcpy(record->text1, " ");
  strcpy(record->text2, " ");
  strcpy(record->text3, " ");
  strcpy(record->text4, " ");
}

void uploadRecordOf(const UnknownFileEntry& entry, InventoryRecord* record) {
  *record = InventoryRecord{};
  memcpy(record->name, entry.name, sizeof record->name);
  record->size = entry.size;
  record->first = static_cast<uint32_t>(entry.attribute1);
  record->second = static_cast<uint32_t>(entry.attribute2);
  copyBounded(record->directory, sizeof record->directory - 1, entry.path);
  // The monitor recorded the names as the program was started: a local user chose them.
  replaceControlBytes(record->name);
  replaceControlBytes(record->directory);
  blankTexts(record);
}

// Downloads the entry's file and its signature into `directory` and checks one against the other
// (and, when `requiredSha256` is not null, the file's SHA-256 against it). The file keeps its name
// only when it passed; the signature files go away in every case.
bool signedDownload(ServerAddress entry, const char* directory, const uint8_t* requiredSha256) {
  char filePath[kPathSize];
  char signaturePath[kLocalPathSize];
  copyBounded(filePath, sizeof filePath - 1, directory);
  switch (fetchSignedFile(&entry, filePath, sizeof filePath, signaturePath, requiredSha256)) {
    case kSignedFileValid:
      return true;
    case kSignedFileNotDownloaded:
    case kSignatureNotDownloaded:
      SLM_TRACE(0, "ERROR - Check for new agent");
      break;
    case kSignatureNotOpened:
      SLM_TRACE(0, "ERROR - Opening signature file %s error", signaturePath);
      break;
    case kSignatureTooShort:
      SLM_TRACE(0, "ERROR - Signature file %s error", signaturePath);
      break;
    case kSignedFileNotOpened:
      SLM_TRACE(0, "ERROR - Opening file %s error", filePath);
      break;
    case kSignedFileNotSaved:
      SLM_TRACE(0, "ERROR - Saving %s, retval %d", filePath, -1);
      break;
    case kSiteSignatureNotDownloaded:
    case kSiteSignatureMismatch:
      break;  // traced where the site signature was checked
    case kSignedFileOtherDigest:
      SLM_TRACE(0, "ERROR - Update refused: the SHA-256 of %s is not the manifest's", filePath);
      break;
    default:
      SLM_TRACE(0, "ERROR - Signature check failed for %s, %s", filePath, signaturePath);
  }
  return false;
}

// The local names of the files a self-update offers, in the offer's order.
struct OfferedNames {
  std::unique_ptr<char[]> names;
  std::unique_ptr<const char*[]> pointers;
  size_t count = 0;
};

// False after an ERROR line when there is no memory for the names.
bool listOfferedNames(SlmList* files, OfferedNames* offered) {
  const size_t count = static_cast<size_t>(entries(files));
  // A one-character name is stored under the host and port, so a name may outgrow a path.
  constexpr size_t kNameSize = 2 * kServerPathSize;
  offered->names.reset(new (std::nothrow) char[count * kNameSize + 1]);
  offered->pointers.reset(new (std::nothrow) const char*[count + 1]);
  if (offered->names == nullptr || offered->pointers == nullptr) {
    SLM_TRACE(0, "ERROR - Check for new agent creating list");
    return false;
  }
  size_t n = 0;
  for (void* item = getNext(files, nullptr); item != nullptr; item = getNext(files, item), ++n) {
    char* name = offered->names.get() + n * kNameSize;
    name[0] = '\0';
    appendLocalName(static_cast<const ServerAddress*>(item), name, kNameSize);
    offered->pointers[n] = name;
  }
  offered->count = n;
  return true;
}

// Fetches the site-signed manifest of the offer (beside its first file) and checks the offer
// against it. False after an ERROR line naming the rule broken; `manifest` holds the files' digests
// when it is true.
bool siteManifestAccepted(const char* commandLine, SlmList* files, const OfferedNames& offered,
                          const char* directory, SiteManifest* manifest) {
  ServerAddress address = *static_cast<const ServerAddress*>(getNext(files, nullptr));
  if (strlen(address.path) + strlen(kSiteManifestSuffix) >= sizeof address.path) {
    SLM_TRACE(0, "ERROR - Update refused: no room for the manifest's path beside %s", address.path);
    return false;
  }
  strcat(address.path, kSiteManifestSuffix);
  char manifestPath[kServerPathSize];
  copyBounded(manifestPath, sizeof manifestPath - 1, address.path);
  char localPath[kPathSize];
  copyBounded(localPath, sizeof localPath - 1, directory);
  std::string text;
  if (fetchSiteSignedText(&address, localPath, sizeof localPath, kSiteManifestMaxBytes, &text) !=
      kSignedFileValid) {
    SLM_TRACE(0, "ERROR - Update refused: no valid site-signed manifest %s", manifestPath);
    return false;
  }
  size_t badLine = 0;
  if (parseSiteManifest(text.data(), text.size(), manifest, &badLine) != kSiteManifestParsed) {
    SLM_TRACE(0, "ERROR - Update refused: manifest %s unreadable at line %d", manifestPath,
              static_cast<int>(badLine));
    return false;
  }
  size_t detail = 0;
  switch (checkSiteManifest(*manifest, kAgentVersion, getNowWithOffset(0), commandLine,
                            offered.pointers.get(), offered.count, &detail)) {
    case kSiteManifestAccepted:
      return true;
    case kSiteManifestNotNewer:
      SLM_TRACE(0, "ERROR - Update refused: manifest version %s is not newer than this agent's %s",
                manifest->version.c_str(), kAgentVersion);
      break;
    case kSiteManifestExpired: {
      char notAfter[32] = "?";
      const time_t seconds = static_cast<time_t>(manifest->notAfter);
      struct tm parts {};
      if (gmtime_r(&seconds, &parts) != nullptr) {
        strftime(notAfter, sizeof notAfter, "%Y-%m-%dT%H:%M:%SZ", &parts);
      }
      SLM_TRACE(0, "ERROR - Update refused: manifest %s expired at %s", manifestPath, notAfter);
      break;
    }
    case kSiteManifestOtherCommand:
      SLM_TRACE(0, "ERROR - Update refused: command line '%s' is not the manifest's '%s'",
                commandLine, manifest->command.c_str());
      break;
    case kSiteManifestNotListed:
      SLM_TRACE(0, "ERROR - Update refused: file %s is not in the manifest",
                offered.pointers[detail]);
      break;
    default:
      SLM_TRACE(0, "ERROR - Update refused: file %s of the manifest is not offered",
                manifest->files[detail].name.c_str());
  }
  return false;
}

// Checks the installation command line against the files to be downloaded, as a self-update
// without a shell needs it. False after an ERROR line naming the rule broken.
bool installCommandAccepted(const char* commandLine, const OfferedNames& offered,
                            InstallCommand* command) {
  size_t badWord = 0;
  switch (splitInstallCommand(commandLine, tempDir, offered.pointers.get(), offered.count, command,
                              &badWord)) {
    case kInstallCommandAccepted:
      return true;
    case kInstallCommandNotDownloaded:
      SLM_TRACE(0,
                "ERROR - Update command refused: its program '%s' is not one of the files "
                "downloaded into %s",
                command->argv[0], tempDir);
      break;
    case kInstallCommandBadWord:
      SLM_TRACE(0,
                "ERROR - Update command refused: word %d '%s' holds a character other than "
                "A-Z a-z 0-9 . _ , = / : + -",
                static_cast<int>(badWord + 1), command->argv[badWord]);
      break;
    default:
      SLM_TRACE(0, "ERROR - Update command refused: it names no program");
  }
  return false;
}

// Makes the downloaded program executable, as "chmod +x" would. The same trace line either way.
void makeExecutable(const char* directory, const char* programName) {
  char program[kPathSize + kNewAgentCommandSize];
  snprintf(program, sizeof program, "%s%s", directory, programName);
  if (securitySettings().selfUpdate == SelfUpdateMode::kLegacy) {
    char chmod[sizeof program + 16];
    snprintf(chmod, sizeof chmod, "chmod +x %s", program);
    int chmodStatus = runShellCommand(chmod);
    SLM_TRACE(1, "Executed command: %s; exit %d", chmod, chmodStatus);
    return;
  }
  struct stat status;
  int failed = lstat(program, &status) != 0 || !S_ISREG(status.st_mode) ||
               ::chmod(program, (status.st_mode & 07777) | 0111) != 0;
  SLM_TRACE(1, "Executed command: chmod +x %s; exit %d", program, failed);
}

// Brings the agent back after an installer that failed. 0, or -1 when it cannot be.
int recoverFromUpdate() {
  int loaded = loadConfigurationFile(conf_file);
  if (loaded == kConfigurationLoaded) readSecuritySettings();
  if (loaded != kConfigurationLoaded) {
    SLM_TRACE(0, "ERROR - Main loading '%s' not loaded", kConfFileName);
  } else if (initAgentInfo() != kAgentValueOk) {
    SLM_TRACE(0, "ERROR - Init the agent info");
  } else if (initCommunication() != kCommOk) {
    SLM_TRACE(0, "ERROR - Main during communication init");
  } else {
    slmAgentStartThreads();
    deleteConfigurationVariables();
    return kCommandRequeue;
  }
  deleteConfigurationVariables();
  clearAgentInfo();
  stopTrace();
  return kCommandFatal;
}

}  // namespace

int32_t getUploadMinimumTime() {
  return uploadMinimumSeconds.load();
}

void setUploadMinimumTime(int32_t seconds) {
  uploadMinimumSeconds.store(seconds);
}

int slmAgentDownloadCatalogCommand(Command*) {
  int64_t updateTime = getLATLastUpdateTime();
  ListHandle components = makeList(sizeof(ComponentRecord));
  ListHandle files = makeList(sizeof(FileRecord));
  if (components == nullptr || files == nullptr) return kCommandRequeue;
  // The records go into the catalog a batch at a time as they are read: a full catalog never
  // stands whole in the lists beside it.
  CatalogBatches batches{updateCatalog, kCatalogBatchRecords, kLatOk};
  int result = downloadCatalogInBatches(&updateTime, components.get(), files.get(), &batches);
  if (result == kServiceOk) batches.result = updateCatalog(components.get(), files.get());
  int outcome = kCommandRequeue;
  if (batches.result != kLatOk) {
    SLM_TRACE(0, "ERROR - Storing catalog");
  } else if (result == kServiceOk) {
    setLATLastUpdateTime(updateTime);
    char text[24];
    snprintf(text, sizeof text, "%" PRId64, updateTime);
    SLM_TRACE(1, "OK - Catalog stored, update time: %s", text);
    outcome = kCommandRequeueToo;
  } else if (result == kServiceFailed) {
    SLM_TRACE(0, "ERROR - Catalog not received");
  } else if (result == kServiceObsoleteScan) {
    SLM_TRACE(0, "ERROR - Catalog not sent; incomplete service from server");
  } else if (unknownToServer(result)) {
    SLM_TRACE(0, "ERROR - Catalog not received");
  } else {
    SLM_TRACE(0, "ERROR - Catalog download error");
  }
  // The lists' last batch goes back to the system.
  components.reset();
  files.reset();
  malloc_trim(0);
  return outcome;
}

int slmAgentUploadFilesCommand(Command* command) {
  ListHandle records = makeList(sizeof(InventoryRecord));
  if (records == nullptr) {
    SLM_TRACE(0, "ERROR - Upload creating list");
    return kCommandRequeue;
  }
  bool cleaned = false;
  if (getNumberOfUploads() > kUploadsBeforeCleaning) {
    if (cleanUnknownTable() != kUatOk) {
      SLM_TRACE(0, "ERROR - Cleaning the unknown table.");
      return kCommandRequeue;
    }
    cleaned = true;
  }
  UnknownFileEntry entry{};
  int walked = copyNextUpdatedInstance(&entry, 1);
  for (; walked == kUatOk; walked = copyNextUpdatedInstance(&entry, 0)) {
    if (!cleaned && !isUnknownFileOnDisk(entry)) {
      if (delUnknownFileEntry(&entry) != kUatOk) {
        SLM_TRACE(0, "ERROR - Removing unknown files from UAT");
        return kCommandRequeue;
      }
      continue;
    }
    InventoryRecord record;
    uploadRecordOf(entry, &record);
    if (append(records.get(), &record) != kListOk) {
      SLM_TRACE(0, "ERROR - Upload filling list");
      return kCommandRequeue;
    }
  }
  if (walked != kUatNoMore) {
    SLM_TRACE(0, "ERROR - Retrieving an unknown file from UAT");
    return kCommandRequeue;
  }
  if (entries(records.get()) == 0) {
    SLM_TRACE(2, "OK - Upload uneeded");
    return kCommandDone;
  }
  // Entries recorded while the upload runs are sent again next time rather than lost.
  const AgentTime noted = getNowWithOffset(0);
  int result = uploadUnidentifiedList(records.get());
  if (result == kServiceOk) {
    setLastUploadTime(noted);
    setNumberOfUploads(getNumberOfUploads() + 1);
    SLM_TRACE(2, "OK - Upload successfull, %d files, time %d",
              static_cast<int>(entries(records.get())), noted);
  } else if (result == kServiceFailed) {
    SLM_TRACE(0, "ERROR - Upload failed");
    command->start = getNowWithOffset(kUploadRetrySeconds);
    command->end = command->start + kUploadWindowSeconds;
    command->period = 0;
    return kCommandRequeue;
  } else if (result == kServiceObsoleteScan) {
    SLM_TRACE(0, "ERROR - Upload not successfully stored by server");
  } else if (unknownToServer(result)) {
    SLM_TRACE(0, "ERROR - Unknown angent or division");
  }
  return kCommandDone;
}

int slmAgentCheckServersStatusCommand(Command*) {
  if (readLockSrvsCache() != kSrvsOk) {
    SLM_TRACE(0, "ERROR - Servers ping failed");
    return kCommandRequeue;
  }
  int answered = 0;
  ServerHandle handle = nullptr;
  ServerInfo info{};
  int walked = kSrvsOk;
  while ((walked = getNextServer(&handle, kNotRespondingServers, &info)) == kSrvsOk) {
    if (pingRTServer(&info.address) == kPingAnswered) {
      serverIsActive(handle);
      ++answered;
    } else {
      serverNotResponding(handle);
    }
  }
  releaseLockSrvsCache();
  if (walked == kSrvsFailed) {
    SLM_TRACE(0, "ERROR - Servers ping failed");
    return kCommandRequeue;
  }
  if (answered > 0) {
    SLM_TRACE(2, "OK - Pinged %d servers", answered);
  } else {
    SLM_TRACE(2, "OK - No inactive servers to ping");
  }
  return kCommandRequeueToo;
}

int slmAgentGetNodeCommand(Command*) {
  ServerInfo info{};
  if (firstServer(kAnyServer, &info) != kSrvsOk) {
    SLM_TRACE(0, "ERROR - Getting server");
    return kCommandRequeue;
  }
  int result = plugIn(&info.address);
  if (result != kServiceOk) {
    (void)unknownToServer(result);
    return kCommandRequeue;
  }
  // The plug-in stored the node id it was given; a node not yet assigned is asked for again.
  int64_t node = 0;
  if (getAgentIntValue(kAgentNodeId, &node) != kAgentValueOk || node <= 0) {
    return kCommandRequeueToo;
  }
  return kCommandDone;
}

int slmAgentDownloadTopologyCommand(Command*) {
  ListHandle division = makeList(sizeof(ServerAddress));
  ListHandle enterprise = makeList(sizeof(ServerAddress));
  if (division == nullptr || enterprise == nullptr) {
    SLM_TRACE(0, "ERROR - Download topology unable to create list");
    return kCommandRequeue;
  }
  int result = downloadTopology(division.get(), enterprise.get());
  if (result != kServiceOk) {
    (void)unknownToServer(result);
    SLM_TRACE(0, "ERROR - Download topology service failed");
    return kCommandRequeue;
  }
  int merged = kSrvsFailed;
  if (writeLockSrvsCache() == kSrvsOk) {
    merged = updateServerCache(nullptr, division.get(), enterprise.get());
    releaseLockSrvsCache();
  }
  if (merged != kSrvsOk) {
    SLM_TRACE(0, "ERROR - Topology update failed");
    return kCommandRequeue;
  }
  SLM_TRACE(1, "OK - Topology updated: %d division server(s), %d enterprise server(s)",
            static_cast<int>(entries(division.get())), static_cast<int>(entries(enterprise.get())));
  return kCommandRequeueToo;
}

int slmAgentDownloadParametersCommand(Command* command) {
  if (parametersFirstRun) {
    srand(static_cast<unsigned>(getNowWithOffset(0)) * 1000u);
    if (loadParameter(kParameterMaxUpdatePeriod, &savedMaxUpdatePeriod) != kParameterOk) {
      savedMaxUpdatePeriod = 0;
    }
  }
  int32_t words[kParameterWords] = {};
  int result = downloadParameters(words);
  if (result != kServiceOk) {
    SLM_TRACE(0, "ERROR - No parameters downloaded");
    (void)unknownToServer(result);
    if (result == kServiceUnknownAgent) SLM_TRACE(0, "ERROR - Agent unknown: plug-in needed");
    return kCommandRequeueToo;
  }

  // Words 2 and 3: the scan start in server milliseconds; 4 and 5: the scan date rule.
  const uint64_t startBits = static_cast<uint32_t>(words[2]) |
                             static_cast<uint64_t>(static_cast<uint32_t>(words[3])) << 32;
  const AgentTime scanStart = static_cast<AgentTime>(static_cast<int64_t>(startBits) / 1000);
  uint8_t block[kAgentScanRuleSize];
  putFixed32(block, static_cast<uint32_t>(scanStart));
  (void)setAgentStructValue(kAgentScanStart, block);
  putFixed32(block, static_cast<uint32_t>(words[4]));
  putFixed32(block + 4, static_cast<uint32_t>(words[5]));
  (void)setAgentStructValue(kAgentScanRule, block);
  const int32_t inventoryIds[] = {kAgentMaxDelaySeconds, kAgentPacketSize, kAgentAttempts,
                                  kAgentTimeThresholdSeconds, kAgentDelayFactor};
  for (int i = 0; i < 5; ++i) (void)setAgentIntValue(inventoryIds[i], words[6 + i]);

  if (writeLockSrvsCache() == kSrvsOk) {
    if (getScope() != words[1]) (void)setScope(words[1]);
    releaseLockSrvsCache();
  }
  if (inv_thread != nullptr && setSlmThreadStatus(inv_thread, SLM_THREAD_BUSY) != kSlmThreadOk) {
    SLM_TRACE(0, "WARNING - Inventory thread busy");
  }
  (void)setCommandPeriod(slmAgentCheckServersStatusCommand, words[11]);
  (void)setCommandPeriod(slmAgentDownloadCatalogCommand, words[13]);
  (void)setCommandPeriod(slmAgentDownloadTopologyCommand, words[14]);
  // This command is not in the queue while it runs: its own period changes in hand.
  if (words[12] >= kMinimumParametersPeriod) command->period = words[12];
  if (words[15] < 1) {
    SLM_TRACE(0, "ERROR - Bad upload minimum time %d", words[15]);
  } else {
    setUploadMinimumTime(words[15]);
  }

  const int32_t maxPeriod = words[17];
  // With self-update off the server's word is not asked: the command is never queued.
  if (words[kParameterUpdateEnableWord] != 1 ||
      securitySettings().selfUpdate == SelfUpdateMode::kOff) {
    // Asked even when nothing is queued: the queue says so in the trace.
    (void)dequeueCommand(slmAgentCheckForNewAgentCommand);
    savedMaxUpdatePeriod = -1;
    return kCommandRequeueToo;
  }
  // The same maximum again keeps the period drawn for it.
  if (maxPeriod == savedMaxUpdatePeriod && !parametersFirstRun) return kCommandRequeueToo;
  (void)saveParameter(kParameterMaxUpdatePeriod, maxPeriod);
  savedMaxUpdatePeriod = maxPeriod;
  const int32_t period = slm_rand(maxPeriod);
  if (isCommandQueued(slmAgentCheckForNewAgentCommand)) {
    (void)setCommandPeriod(slmAgentCheckForNewAgentCommand, period);
  } else {
    const AgentTime now = getNowWithOffset(0);
    const Command update{slmAgentCheckForNewAgentCommand, now, 0, period};
    if (pushCommand(&update, now) != kQueueOk) {
      SLM_TRACE(0, "ERROR - Command update agent not queued");
    }
  }
  SLM_TRACE(2, "OK - New agent period for update %d (max %d)", period, maxPeriod);
  parametersFirstRun = false;
  return kCommandRequeueToo;
}

int slmAgentCheckForNewAgentCommand(Command*) {
  const SelfUpdateMode mode = securitySettings().selfUpdate;
  if (mode == SelfUpdateMode::kOff) {
    SLM_TRACE(1, "WARNING - Self-update is off (%s=off): nothing checked", kSelfUpdateKey);
    return kCommandDone;
  }
  ListHandle files = makeList(sizeof(ServerAddress));
  if (files == nullptr) {
    SLM_TRACE(0, "ERROR - Check for new agent creating list");
    return kCommandRequeue;
  }
  if (prepareTemporaryDirectory() != kTempDirReady) return kCommandRequeue;

  char commandLine[kNewAgentCommandSize];
  copyBounded(commandLine, sizeof commandLine - 1, tempDir);
  int result = downloadNewAgent(commandLine, sizeof commandLine, files.get());
  if (result == kServiceNoNewerAgent) {
    SLM_TRACE(2, "OK - No new agents found");
    return kCommandRequeueToo;
  }
  if (result != kServiceOk) {
    (void)unknownToServer(result);
    SLM_TRACE(0, "ERROR - Check for new agent");
    return kCommandRequeue;
  }

  char directory[kPathSize + 1];
  snprintf(directory, sizeof directory, "%s/", tempDir);
  // The program is the command line's first word; its name is what follows the last "/" in it.
  char program[kNewAgentCommandSize];
  copyBounded(program, sizeof program - 1, commandLine);
  if (char* blank = strchr(program, ' ')) *blank = '\0';
  const char* slash = strrchr(program, '/');
  if (slash == nullptr) {
    SLM_TRACE(0, "ERROR - Bad program path '%s'", program);
    return kCommandRequeue;
  }
  const char* programName = slash + 1;
  // Without a shell, the words are checked before anything is fetched: a command line that could
  // run anything but a verified download never gets that far.
  InstallCommand command{};
  OfferedNames offered;
  const bool site = securitySettings().signaturePolicy == SignaturePolicy::kSite;
  if ((mode == SelfUpdateMode::kStrict || site) && !listOfferedNames(files.get(), &offered)) {
    return kCommandRequeue;
  }
  if (mode == SelfUpdateMode::kStrict && !installCommandAccepted(commandLine, offered, &command)) {
    return kCommandRequeue;
  }
  // Under the site's signatures, only what its signed manifest lists is fetched at all.
  SiteManifest manifest;
  if (site && !siteManifestAccepted(commandLine, files.get(), offered, directory, &manifest)) {
    return kCommandRequeue;
  }

  if (initSlmRSAContext() != kRsaContextReady) {
    SLM_TRACE(0, "ERROR - Unable to set the context");
    return kCommandRequeue;
  }
  size_t n = 0;
  for (void* item = getNext(files.get(), nullptr); item != nullptr;
       item = getNext(files.get(), item), ++n) {
    const SiteManifestFile* listed =
        site ? findManifestFile(manifest, offered.pointers[n]) : nullptr;
    // Nothing is installed unless every file passed.
    if (!signedDownload(*static_cast<const ServerAddress*>(item), directory,
                        listed != nullptr ? listed->sha256 : nullptr)) {
      disposeSlmRSAContext();
      return kCommandRequeue;
    }
  }
  disposeSlmRSAContext();
  files.reset();

  slmAgentStopThreads(1);
  closeCommunication();
  clearAgentInfo();
  // A restarted agent must not look for an update at once.
  (void)saveParameter(kParameterMaxUpdatePeriod, 0);
  (void)saveParameter(kParameterSecondsToUpdate, -1);

  SLM_TRACE(0, "WARNING - Launching \"%s\" for new agent installation", commandLine);
  makeExecutable(directory, programName);
  SLM_TRACE(1, "Update command: %s", commandLine);
  // Under systemd the installer gets a unit of its own, so that a restart of the agent's unit,
  // which ends everything in the agent's cgroup, does not end the installer that asked for it. It
  // is the same program with the same words; the legacy shell runs inside that unit.
  const char* shellWords[] = {"/bin/sh", "-c", commandLine, nullptr};
  const char* const* words = mode == SelfUpdateMode::kLegacy ? shellWords : command.argv;
  InstallUnit unit;
  bool inUnit = false;
  if (!runBySystemdService()) {
    SLM_TRACE(1, "OK - The installer runs as the agent's child: no systemd service runs the agent");
  } else if (int built = buildInstallUnit(words, getNowWithOffset(0), &unit);
             built != kInstallUnitReady) {
    SLM_TRACE(0,
              "WARNING - No unit of its own for the installer (%s, error %d): it runs as the "
              "agent's child",
              unit.systemdRun, built);
  } else {
    SLM_TRACE(1, "OK - The installer runs in unit %s through %s: systemd runs the agent", unit.unit,
              unit.systemdRun);
    inUnit = true;
  }
  stopTrace();
  int status = inUnit                            ? runProgram(unit.argv, fixedEnvironment())
               : mode == SelfUpdateMode::kLegacy ? runShellCommand(commandLine)
                                                 : runProgram(command.argv, fixedEnvironment());
  // A restart finds the stopped trace still recorded and leaves it be; the trace goes on where it
  // stopped, so that what follows the installer is not lost.
  if (restartTrace() != 1) (void)resumeTrace();
  if (status == 0) {
    SLM_TRACE(0, "Exiting.....");
    stopTrace();
    return kCommandFatal;
  }
  SLM_TRACE(0, "ERROR - Launching %s, error: %d", commandLine, status);
  return recoverFromUpdate();
}

}  // namespace slm
