// Machine description on Linux: uname, gethostname, sysinfo, sysconf, the password and group
// databases and the drive-geometry ioctl. Each system call sits in the public function that needs
// it; the text handling lives in the helpers tests call directly.
#include "agent_core/support/linux/osinfo.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/hdreg.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "agent_core/message/nls.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"

namespace slm {
namespace {

static_assert(HDIO_GETGEO == 0x0301);

constexpr const char* kNotAvailable = "not avalaible";
constexpr char kFirstIdeDisk[] = "/dev/hda";
constexpr size_t kDiskTypeIndex = 5;    // 'h' for IDE, 's' for SCSI
constexpr size_t kDiskLetterIndex = 7;  // 'a' to 'z'
static_assert(sizeof(kFirstIdeDisk) == kDiskLetterIndex + 2);

constexpr size_t kAccountLookupStartBytes = 1024;
constexpr size_t kAccountLookupMaxBytes = 1 << 20;

// Copies at most `size` - 1 characters and a terminator; a zero-sized buffer gets nothing.
void copyToBuffer(char* dst, size_t size, const char* src) {
  if (dst == nullptr || size == 0) return;
  copyBounded(dst, size - 1, src);
}

bool acceptsAccountBuffer(const char* buffer, size_t size) {
  if (size < kAccountNameMinSize) {
    SLM_TRACE(0, "ERROR - Buffer size littler than 10");
    return false;
  }
  return buffer != nullptr;
}

// Writes the name of account `id`, from a reentrant database lookup (getpwuid_r, getgrgid_r) whose
// scratch buffer grows until the entry fits, or the id itself when there is none.
template <typename Entry, typename Id>
int writeAccountName(int (*lookup)(Id, Entry*, char*, size_t, Entry**), char* Entry::*name, Id id,
                     char* buffer, size_t size) {
  if (!acceptsAccountBuffer(buffer, size)) return kOsInfoFailure;
  Entry entry{};
  // Grown without exceptions: when memory runs out the id stands in for the name.
  char first[kAccountLookupStartBytes];
  std::unique_ptr<char[]> grown;
  char* scratch = first;
  size_t scratchBytes = sizeof first;
  Entry* found = nullptr;
  for (;;) {
    int error = lookup(id, &entry, scratch, scratchBytes, &found);
    if (error == EINTR) continue;
    if (error == ERANGE && scratchBytes < kAccountLookupMaxBytes) {
      grown.reset(new (std::nothrow) char[scratchBytes * 2]);
      if (grown != nullptr) {
        scratch = grown.get();
        scratchBytes *= 2;
        continue;
      }
    }
    if (error != 0) found = nullptr;
    break;
  }
  const char* entryName = found != nullptr ? found->*name : nullptr;
  formatAccountName(entryName, static_cast<int32_t>(id), buffer, size);
  return kOsInfoSuccess;
}

}  // namespace

const char* machineFamily(const char* machine) {
  return strstr(machine, "86") != nullptr ? "x86" : machine;
}

void formatOsDescription(const char* systemName, const char* release, char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return;
  snprintf(buffer, size, "%s %s", systemName, release);
}

int getSystemEnvironment(char* machine, char* systemName, char* release, size_t size) {
  utsname names{};
  if (uname(&names) != 0) return kOsInfoFailure;
  copyToBuffer(systemName, size, names.sysname);
  copyToBuffer(release, size, names.release);
  copyToBuffer(machine, size, machineFamily(names.machine));
  return kOsInfoSuccess;
}

void getOsDescription(char* buffer, size_t size) {
  utsname names{};
  if (uname(&names) != 0) {
    copyToBuffer(buffer, size, kNotAvailable);
    return;
  }
  formatOsDescription(names.sysname, names.release, buffer, size);
}

int getHostName(char* buffer, size_t size) {
  char name[HOST_NAME_MAX + 1] = "";
  if (gethostname(name, sizeof(name)) != 0) return kOsInfoFailure;
  name[HOST_NAME_MAX] = '\0';
  copyToBuffer(buffer, size, name);
  return kOsInfoSuccess;
}

bool answersDriveGeometry(const char* devicePath) {
  char device[PATH_MAX];
  rootedPath(devicePath, device, sizeof device);
  int descriptor;
  do {
    descriptor = open(device, O_RDONLY | O_CLOEXEC);
  } while (descriptor < 0 && errno == EINTR);
  if (descriptor < 0) return false;
  hd_geometry geometry{};
  bool answered = ioctl(descriptor, HDIO_GETGEO, &geometry) == 0;
  close(descriptor);
  return answered;
}

int32_t countDisks(DiskProbe probe) {
  char device[sizeof(kFirstIdeDisk)];
  memcpy(device, kFirstIdeDisk, sizeof(kFirstIdeDisk));
  int32_t count = 0;
  for (char type : {'h', 's'}) {
    device[kDiskTypeIndex] = type;
    for (char letter = 'a'; letter <= 'z'; ++letter) {
      device[kDiskLetterIndex] = letter;
      if (probe(device)) ++count;
    }
  }
  return count;
}

int GetNumDisks(int32_t* count) {
  *count = countDisks(answersDriveGeometry);
  return kOsInfoSuccess;
}

int getDiskInfo(int32_t* count) {
  if (count == nullptr) return kOsInfoFailure;
  if (geteuid() != 0) {
    SLM_TRACE(0, "ERROR - No root: unable to read disks number");
    return kOsInfoFailure;
  }
  return GetNumDisks(count);
}

int getMemInfo(int32_t* megabytes) {
  if (megabytes == nullptr) return kOsInfoFailure;
  struct sysinfo info {};
  if (sysinfo(&info) != 0) return kOsInfoFailure;
  // The memory unit is not applied: it is 1 on the machines the agent serves, and servers compare
  // with what earlier agents reported.
  *megabytes = static_cast<int32_t>(info.totalram >> 20);
  return kOsInfoSuccess;
}

int getCPUInfo(int32_t* configured, int32_t* online) {
  long processors = sysconf(_SC_NPROCESSORS_CONF);
  // Both report the configured count; servers have always received the same number twice.
  if (configured != nullptr) *configured = static_cast<int32_t>(processors);
  if (online != nullptr) *online = static_cast<int32_t>(processors);
  return processors < 0 ? kOsInfoFailure : kOsInfoSuccess;
}

void formatAccountName(const char* localName, int32_t id, char* buffer, size_t size) {
  // A name too long for the buffer keeps its whole leading characters.
  if (localName != nullptr) {
    int converted = convertToUtf8(nullptr, localName, buffer, size);
    if (converted == kTextConverted || converted == kTextTruncated) return;
  }
  snprintf(buffer, size, "%d", id);
}

int getUserName(uid_t uid, char* buffer, size_t size) {
  return writeAccountName(getpwuid_r, &passwd::pw_name, uid, buffer, size);
}

int getUserGroup(gid_t gid, char* buffer, size_t size) {
  return writeAccountName(getgrgid_r, &group::gr_name, gid, buffer, size);
}

}  // namespace slm
