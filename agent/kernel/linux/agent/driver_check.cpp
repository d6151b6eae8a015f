// Kernel driver management: the start-up decision, the signed downloads, loading and activation,
// and the walk over the loaded drivers in /proc/devices.
#include "kernel/linux/agent/driver_check.h"

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/cache/system_tuple.h"
#include "agent_core/communication/slm.h"
#include "agent_core/communication/slm_stream.h"
#include "agent_core/install_command.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/file_handle.h"
#include "agent_core/support/program_runner.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "agent_core/verifySign.h"

namespace slm {
namespace {

constexpr char kDriverConfKey[] = "driver_conf_file";
constexpr char kProcDevices[] = "/proc/devices";
constexpr char kProcModules[] = "/proc/modules";
constexpr char kInsmod[] = "/sbin/insmod";
// Lines of /proc/devices and /proc/modules are read up to this many characters.
constexpr size_t kProcLineSize = 4096;
// A driver configuration line as the kernel-configuration stream delivers it.
constexpr int kDriverConfLineSize = 1000;
constexpr size_t kTuplePatternCount = 6;
constexpr unsigned kDeviceMinor = 0;
constexpr mode_t kDeviceMode = 0600;

void setDriverStatus(int32_t status) {
  (void)setAgentIntValue(kAgentDriverStatus, status);
}

// The verification context of one signed download, released on every way out.
struct RsaContextGuard {
  ~RsaContextGuard() { disposeSlmRSAContext(); }
};

// "*" matches any field; otherwise one of the "|"-separated alternatives must equal it.
bool patternMatches(const char* pattern, const char* field) {
  if (strcmp(pattern, "*") == 0) return true;
  size_t fieldLength = strlen(field);
  for (const char* alternative = pattern;;) {
    const char* end = strchr(alternative, '|');
    size_t length = end == nullptr ? strlen(alternative) : static_cast<size_t>(end - alternative);
    if (length == fieldLength && strncmp(alternative, field, length) == 0) return true;
    if (end == nullptr) return false;
    alternative = end + 1;
  }
}

// A line is six ","-separated tuple patterns, "=", then ","-separated module paths. `line` is cut
// into its pieces in place; the result is the module paths of a line that matches `tuple`, else
// null.
const char* matchingModules(const char* tuple, char* line) {
  char* modules = strchr(line, '=');
  if (modules == nullptr) return nullptr;
  *modules++ = '\0';
  char* patterns[kTuplePatternCount] = {};
  size_t count = 0;
  for (char* piece = line; piece != nullptr && count <= kTuplePatternCount;) {
    char* comma = strchr(piece, ',');
    if (comma != nullptr) *comma = '\0';
    if (count < kTuplePatternCount) patterns[count] = piece;
    ++count;
    piece = comma == nullptr ? nullptr : comma + 1;
  }
  if (count != kTuplePatternCount) return nullptr;
  if (strcmp(patterns[kTupleFormatField], kSystemTupleFormat) != 0) return nullptr;
  for (size_t field = kTupleFormatField + 1; field < kTuplePatternCount; ++field) {
    char value[kSystemTupleFieldSize + 1];
    copyBounded(value, kSystemTupleFieldSize, tuple + field * kSystemTupleFieldSize);
    if (!patternMatches(patterns[field], value)) return nullptr;
  }
  return modules;
}

// Appends the non-empty ","-separated paths of `text` to `modules`.
bool appendModulePaths(const char* text, SlmList* modules) {
  for (const char* path = text; *path != '\0';) {
    const char* comma = strchr(path, ',');
    size_t length = comma == nullptr ? strlen(path) : static_cast<size_t>(comma - path);
    if (length > 0) {
      char record[kServerPathSize] = {};
      memcpy(record, path, length < kServerPathSize - 1 ? length : kServerPathSize - 1);
      if (append(modules, record) != kListOk) return false;
    }
    if (comma == nullptr) break;
    path = comma + 1;
  }
  return true;
}

constexpr int kModuleLoaded = 0;
constexpr int kModuleNotLoaded = 1;
constexpr int kModuleQueryFailed = 2;

// Whether a module list's line begins with `name` as its first word. The kernel lists a module's
// "-" as "_", so the two count as the same character.
bool namesModule(const char* line, const char* name) {
  size_t i = 0;
  for (; name[i] != '\0'; ++i) {
    char a = line[i] == '-' ? '_' : line[i];
    char b = name[i] == '-' ? '_' : name[i];
    if (a != b) return false;
  }
  return line[i] == ' ' || line[i] == '\t' || line[i] == '\n' || line[i] == '\0';
}

// query_module no longer exists on current kernels, so the kernel's module list is read instead:
// a line whose first word is the module's name means it is loaded.
int moduleLoadState(const char* name) {
  FileHandle modules(fopen(rootedPath(kProcModules).c_str(), "re"));
  if (modules == nullptr) return kModuleQueryFailed;
  char line[kProcLineSize];
  bool lineStart = true;
  while (fgets(line, sizeof line, modules.get()) != nullptr) {
    bool starts = lineStart;
    lineStart = strchr(line, '\n') != nullptr;
    if (starts && namesModule(line, name)) return kModuleLoaded;
  }
  return ferror(modules.get()) ? kModuleQueryFailed : kModuleNotLoaded;
}

}  // namespace

int configureSlmDriver() {
  ServerAddress context{};
  {
    ServerInfo info{};
    if (firstServer(kActiveServers, &info) != kSrvsOk) {
      SLM_TRACE(0, "ERROR - No preferred server");
      return kDriverNotConfigured;
    }
    context = info.address;
  }

  DriverEntry entry{};
  if (isToBeUpdatedSlmTuple() == kTupleMatches) {
    SLM_TRACE(2, "The old system tuple matches to the system tuple");
    if (getCurrentDriverData(&entry) != kDriverOk) {
      SLM_TRACE(0, "Unable to retrieve current driver");
    } else if (checkSlmDriver(&entry) == kDriverOk) {
      SLM_TRACE(1, "Driver '%s' running", entry.name);
      setDriverStatus(kDriverStatusUsable);
      return kDriverConfigured;
    } else {
      SLM_TRACE(1, "Driver '%s' not properly configured", entry.name);
    }
  }
  SLM_TRACE(1, "Plugin data don't match/missing, or current driver not working");

  if (dectivateOldKvdDrivers() != kDriverOk) {
    setDriverStatus(kDriverStatusNotActivated);
    SLM_TRACE(0, "Could not delete old drivers");
    return kDriverNotConfigured;
  }
  if (checkReqPatches() != 0) {
    SLM_TRACE(0, "Some prerequisite patches are missing");
    setDriverStatus(kDriverStatusNoConfiguration);
    return kDriverNotConfigured;
  }

  entry = DriverEntry{};
  switch (downloadKernelExtensions(&context, &entry)) {
    case kKernelExtensionsDownloaded:
      break;
    case kKernelExtensionsNoConfiguration:
      SLM_TRACE(0, "ERROR - Kernel driver configuration from from runtime %s", context.host);
      setDriverStatus(kDriverStatusNoConfiguration);
      return kDriverNotConfigured;
    default:
      SLM_TRACE(0, "ERROR - Kernel drivers cannot be downloaded from runtime %s", context.host);
      setDriverStatus(kDriverStatusNotDownloaded);
      return kDriverNotConfigured;
  }

  SLM_TRACE(1, "Kernel drivers downloaded");
  if (activateSlmDriver(&entry) != kDriverOk) {
    SLM_TRACE(0, "Driver '%s' cannot be activated", entry.name);
    setDriverStatus(kDriverStatusNotActivated);
    return kDriverNotConfigured;
  }
  SLM_TRACE(1, "Driver %s has been correctly installed, device file %s", entry.name,
            entry.deviceFile);
  (void)setAgentCharValue(kAgentDriverName, entry.name);
  // storePluginData traces its own failures; the driver is usable either way.
  (void)storePluginData();
  setDriverStatus(kDriverStatusUsable);
  return kDriverConfigured;
}

int getCurrentDriverData(DriverEntry* entry) {
  if (getAgentCharValue(kAgentDriverName, entry->name, sizeof entry->name) != kAgentValueOk) {
    return kDriverFailed;
  }
  return getDeviceFileName(entry, entry->deviceFile);
}

int downloadKernelExtensions(ServerAddress* context, DriverEntry* entry) {
  char remoteName[kServerPathSize] = "";
  if (getConfigurationValue(kDriverConfKey, remoteName, sizeof remoteName) !=
      kConfigurationValueFound) {
    return kKernelExtensionsNotConfigured;
  }
  SLM_TRACE(2, "kernel configuration file %s", remoteName);

  char tuple[kSystemTupleSize] = {};
  if (getSystemTuple(tuple) != kSystemTupleBuilt) return kKernelExtensionsNotConfigured;
  if (initSlmRSAContext() != kRsaContextReady) return kKernelExtensionsNotConfigured;
  RsaContextGuard verification;
  if (prepareTemporaryDirectory() != kTempDirReady) return kKernelExtensionsNotConfigured;

  char confFile[kPathSize];
  snprintf(confFile, sizeof confFile, "%.4094s/", tempDir);
  copyBounded(context->path, sizeof context->path - 1, remoteName);
  if (slmGetSignedFile(context, confFile, sizeof confFile) != kDownloadDone) {
    SLM_TRACE(0, "error occurs while downloading the driver configuration file");
    return kKernelExtensionsNoConfiguration;
  }
  SLM_TRACE(2, "Kernel configuration file '%s' downloaded", confFile);

  ListHandle modules = makeList(kServerPathSize);
  if (modules == nullptr) return kKernelExtensionsNotConfigured;
  const char* module = nullptr;
  if (findKernelExtensions(tuple, confFile, modules.get()) != kKernelExtensionsFound ||
      (module = static_cast<const char*>(getNext(modules.get(), nullptr))) == nullptr) {
    SLM_TRACE(0, "No KE drivers available for this system");
    return kKernelExtensionsNoConfiguration;
  }

  SLM_TRACE(2, "Kernel extensions found");
  // The module's name becomes a file name and the loader's argument: plain characters only.
  if (!isPlainWord(module)) {
    SLM_TRACE(0,
              "ERROR - Module path '%s' refused: it holds a character other than "
              "A-Z a-z 0-9 . _ , = / : + -",
              module);
    return kKernelExtensionsNoConfiguration;
  }
  copyBounded(context->path, sizeof context->path - 1, module);
  copyBounded(entry->moduleFile, sizeof entry->moduleFile - 1, driverDir);
  if (slmGetSignedFile(context, entry->moduleFile, sizeof entry->moduleFile) != kDownloadDone) {
    SLM_TRACE(0, "Error occured downloading KE '%s'", module);
    return kKernelExtensionsModuleNotDownloaded;
  }

  const char* slash = strrchr(entry->moduleFile, '/');
  copyBounded(entry->name, sizeof entry->name - 1,
              slash == nullptr ? entry->moduleFile : slash + 1);
  if (char* dot = strrchr(entry->name, '.')) *dot = '\0';
  if (getDeviceFileName(entry, entry->deviceFile) != kDriverOk) {
    SLM_TRACE(0, "Error retriving device name on '%s'", entry->name);
    return kKernelExtensionsNotConfigured;
  }
  SLM_TRACE(1, "KE file '%s' downloaded", entry->moduleFile);
  return kKernelExtensionsDownloaded;
}

int findKernelExtensions(const char* tuple, const char* path, SlmList* modules) {
  SlmStream* stream = newKerConfFileStream(path, static_cast<int>(strlen(path)));
  if (stream == nullptr) return kKernelExtensionsNotFound;
  int result = kKernelExtensionsNotFound;
  if (stream->open(stream->context) == 0) {
    char line[kDriverConfLineSize];
    while (stream->read(stream->context, line, sizeof line, 0) > 0) {
      if (const char* paths = matchingModules(tuple, line)) {
        if (appendModulePaths(paths, modules)) result = kKernelExtensionsFound;
        break;
      }
    }
    stream->close(stream->context);
  }
  closeKerConfFileStream(stream);
  return result;
}

int checkSlmDriver(DriverEntry* entry) {
  if (generate_driver_file_name(entry->moduleFile, kDriverFileNameSize, entry->name) != kDriverOk) {
    return kDriverFailed;
  }
  return activateSlmDriver(entry);
}

int activateSlmDriver(DriverEntry* entry) {
  switch (moduleLoadState(entry->name)) {
    case kModuleLoaded:
      SLM_TRACE(1, "Driver %s is already loaded", entry->name);
      break;
    case kModuleNotLoaded: {
      SLM_TRACE(1, "Driver %s is not loaded. Trying to load it", entry->name);
      const char* argv[] = {kInsmod, entry->moduleFile, nullptr};
      if (runProgram(argv, fixedEnvironment()) != 0) {
        SLM_TRACE(0, "Error inserting module '%s', device %s", entry->moduleFile,
                  entry->deviceFile);
        return kDriverFailed;
      }
      SLM_TRACE(1, "Driver %s loaded successfully", entry->name);
      break;
    }
    default:
      SLM_TRACE(0, "query_module failed for '%s'", entry->name);
      return kDriverFailed;
  }
  return do_activate_driver(entry);
}

int do_activate_driver(DriverEntry* entry) {
  // A driver that /proc/devices does not list keeps the major it had: the device file is made
  // with that one.
  if (apply_to_drivers(discover_device_major, entry) != kDriverOk) {
    SLM_TRACE(0, "Error finding major number");
    return kDriverFailed;
  }
  SLM_TRACE(2, "Found driver with major number %d", entry->major);
  if (createDeviceFile(entry) != kDriverOk) {
    SLM_TRACE(0, "Error creating device file %s for driver %s", entry->deviceFile, entry->name);
    return kDriverFailed;
  }
  if (setSlmDeviceFileName(entry->deviceFile) != kDriverOk) {
    SLM_TRACE(0, "Error setting device name '%s'", entry->deviceFile);
    return kDriverFailed;
  }
  SLM_TRACE(2, "Using device name '%s'", entry->deviceFile);
  return kDriverOk;
}

int apply_to_drivers(DriverFunction fn, void* arg) {
  ListHandle drivers = makeList(sizeof(DriverEntry));
  if (drivers == nullptr || enumerate_loaded_drivers(drivers.get()) != kDriverOk) {
    return kDriverFailed;
  }
  SLM_TRACE(2, "Found %d drivers", entries(drivers.get()));
  for (void* item = getNext(drivers.get(), nullptr); item != nullptr;
       item = getNext(drivers.get(), item)) {
    fn(static_cast<DriverEntry*>(item), arg);
  }
  return kDriverOk;
}

int enumerate_loaded_drivers(SlmList* list) {
  FileHandle devices(fopen(rootedPath(kProcDevices).c_str(), "re"));
  if (devices == nullptr) {
    SLM_TRACE(0, "Unable to open /proc/devices, errno: %d", errno);
    return kDriverFailed;
  }
  struct stat status;
  if (fstat(fileno(devices.get()), &status) != 0) {
    SLM_TRACE(0, "Unable to fstat /proc/devices, errno: %d", errno);
    return kDriverFailed;
  }
  if (!S_ISREG(status.st_mode)) {
    SLM_TRACE(0, "/proc/devices is not a regular file, st_mode: %d",
              static_cast<int>(status.st_mode));
    return kDriverFailed;
  }
  return fill_driver_list(devices.get(), list);
}

int fill_driver_list(FILE* stream, SlmList* list) {
  constexpr size_t kPrefixLength = sizeof kDriverNamePrefix - 1;
  char line[kProcLineSize];
  char word[kProcLineSize];
  while (fgets(line, sizeof line, stream) != nullptr) {
    int major = 0;
    if (sscanf(line, "%d %4095s\n", &major, word) != 2) continue;
    if (strncmp(word, kDriverNamePrefix, kPrefixLength) != 0) continue;
    DriverEntry entry{};
    copyBounded(entry.name, sizeof entry.name - 1, word);
    entry.major = major;
    SLM_TRACE(2, "Found a matching driver, name: %s, major: %d", entry.name, entry.major);
    if (append(list, &entry) != kListOk) {
      SLM_TRACE(0, "Error appending to list");
      return kDriverFailed;
    }
  }
  return kDriverOk;
}

int discover_device_major(DriverEntry* entry, void* target) {
  auto* wanted = static_cast<DriverEntry*>(target);
  if (strcmp(entry->name, wanted->name) == 0) wanted->major = entry->major;
  return kDriverOk;
}

int dectivateOldKvdDrivers() {
  return apply_to_drivers(deactivate_driver, nullptr);
}

int deactivate_driver(DriverEntry* entry, void*) {
  if (getDeviceFileName(entry, entry->deviceFile) != kDriverOk ||
      createDeviceFile(entry) != kDriverOk) {
    SLM_TRACE(0, "Error deactivating driver %s", entry->name);
    return kDriverFailed;
  }
  // Closing the device switches the driver's event delivery off.
  if (setSlmDeviceFileName(entry->deviceFile) == kDriverOk && openSlmDriver() == kDriverOk) {
    closeSlmDriver();
  }
  int removed = removeDeviceFile(entry);
  if (removeDriverFile(entry->name) != kDriverOk) removed = kDriverFailed;
  return removed;
}

int createDeviceFile(const DriverEntry* entry) {
  auto device = static_cast<dev_t>(static_cast<unsigned>(entry->major) * 256 + kDeviceMinor);
  int made = mknod(entry->deviceFile, S_IFCHR | kDeviceMode, device);
  // An existing file is never reused: it may be a node for another major number.
  if (made != 0 && errno == EEXIST && unlink(entry->deviceFile) == 0) {
    made = mknod(entry->deviceFile, S_IFCHR | kDeviceMode, device);
  }
  if (made != 0) {
    SLM_TRACE(0, "Error creating device file %s, errno: %d", entry->deviceFile, errno);
    return kDriverFailed;
  }
  return kDriverOk;
}

int removeDeviceFile(const DriverEntry* entry) {
  if (unlink(entry->deviceFile) != 0) {
    SLM_TRACE(0, "Error removing device file, errno: %d", errno);
    return kDriverFailed;
  }
  return kDriverOk;
}

int removeDriverFile(const char* name) {
  char path[kPathSize];
  if (generate_driver_file_name(path, kDriverFileNameSize, name) != kDriverOk) {
    SLM_TRACE(0, "Filename too long (%d characters)",
              snprintf(nullptr, 0, "%s/%s%s", driverDir, name, kDriverFileExtension));
    return kDriverFailed;
  }
  if (unlink(path) != 0) {
    SLM_TRACE(0, "Error removing driver file %s, errno: %d", path, errno);
    return kDriverFailed;
  }
  return kDriverOk;
}

int generate_driver_file_name(char* dst, size_t size, const char* name) {
  int length = snprintf(dst, size, "%s/%s%s", driverDir, name, kDriverFileExtension);
  return length >= 0 && static_cast<size_t>(length) < size ? kDriverOk : kDriverFailed;
}

}  // namespace slm
