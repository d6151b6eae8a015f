// The built-in exec monitor: a fanotify notification group with exec marks; a reader thread that
// takes the kernel's notices a batch at a time, names each started file from the notice's
// descriptor, queues its start record and marks the file systems mounted later; and the device
// calls, which hand the queued records to the process event monitor.
#include "kernel/linux/agent/exec_monitor.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "agent_core/support/bytes.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "inventory/linux/searcher.h"
#include "kernel/linux/agent/mount_table.h"

namespace slm {
namespace {

// Linux 6.13 and later: a notice whose descriptor could not be made carries the error in its place
// rather than vanishing. Older kernels refuse the flag; the group is made without it there.
constexpr unsigned int kReportDescriptorErrors = 0x00002000;  // FAN_REPORT_FD_ERROR
constexpr int kMaxEventsPerRead = 256;
// Descriptors left to the agent's other threads when a read is sized: every notice read holds one
// until it is named.
constexpr int kDescriptorReserve = 16;
constexpr int kMaxDirectoryMarks = 20000;
// Mappings of other namespaces' mounts kept at most; the mount table's next change forgets them.
constexpr size_t kMaxForeignMounts = 4096;
// Reads of what the kernel still holds when the monitor closes, at most.
constexpr int kMaxReadsAtClose = 64;

// One start as the reader names it.
struct Start {
  std::string path;  // as seen from the agent root
  struct stat status;
  pid_t pid;
  uint32_t time;
};

size_t footprint(const Start& start) {
  return sizeof start + start.path.capacity();
}

// How a mount of another namespace shows its file system: its paths below `shown` are those below
// `root` in the file system of `device`.
struct ForeignMount {
  dev_t device;
  std::string shown;
  std::string root;
};

enum class Naming { kNamed, kLayer, kUnnamed };

// The queue, the counts and `current` are guarded by `mutex`; the reader adds, the device calls
// take. The mount view and the marks are guarded by `marksMutex`, taken by the reader and by the
// enable and disable requests; nothing holds both. The descriptors are set by open and close while
// the reader is not running; the reader only uses them.
struct ExecMonitor {
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Start> pending;
  size_t pendingBytes = 0;
  size_t pendingLimitBytes = kExecPendingLimitBytes;
  bool dropping = false;  // the last start was dropped: the next drop is not traced again
  Start current{};        // the last start read, for the file status
  bool haveCurrent = false;
  uint64_t nextId = 1;
  ExecMonitorCounts counts;
  bool closing = false;

  std::mutex marksMutex;
  bool enabled = false;
  std::string root;  // the agent root as the kernel names it, "" for "/"
  std::vector<MountEntry> mounts;
  std::unordered_map<int, size_t> mountById;
  std::unordered_map<int, ForeignMount> foreign;
  int directoryMarks = 0;

  int group = -1;
  int wake = -1;
  int mountTable = -1;  // the agent's /proc/self/mountinfo, polled for changes
  std::thread reader;
};

ExecMonitor monitor;
std::atomic<int32_t> batchPauseMillis{kExecBatchPauseMillis};

void closeDescriptor(int* fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

std::string joinPath(const std::string& directory, std::string_view rest) {
  if (directory == "/") return rest.empty() ? directory : std::string(rest);
  return directory + std::string(rest);
}

// ---- Marks. The caller holds marksMutex.

// File systems whose programs are watched with the root at "/": those an inventory scan walks,
// and those containers and packaged applications start programs from.
bool watchedFileSystem(const std::string& type) {
  return isWalkedFileSystemName(type.c_str()) || type == "overlay" || type == "tmpfs" ||
         type == "squashfs" || type == "fuse" || type == "fuseblk" || type.rfind("fuse.", 0) == 0;
}

int markDirectory(const char* path, const struct stat*, int type, struct FTW*) {
  if (type != FTW_D) return 0;
  if (fanotify_mark(monitor.group, FAN_MARK_ADD, FAN_OPEN_EXEC | FAN_EVENT_ON_CHILD, AT_FDCWD,
                    path) == 0) {
    ++monitor.directoryMarks;
  }
  return monitor.directoryMarks >= kMaxDirectoryMarks ? 1 : 0;
}

// Marks the directories below `path` as they are now (a directory made later is not watched).
void markDirectoriesBelow(const std::string& path) {
  if (monitor.directoryMarks < kMaxDirectoryMarks) {
    (void)nftw(path.c_str(), markDirectory, 64, FTW_PHYS);
  }
}

// Marks what the agent watches of a mount: with the root at "/" its whole file system when it is
// of a watched type; with another root its directories when it lies below the root, never a
// whole file system, so that a sandbox never slows the machine's other programs. True when a mark
// was added.
bool markMount(const MountEntry& mount) {
  if (monitor.root.empty()) {
    if (!watchedFileSystem(mount.type)) return false;
    return fanotify_mark(monitor.group, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, FAN_OPEN_EXEC, AT_FDCWD,
                         mount.mountPoint.c_str()) == 0 ||
           fanotify_mark(monitor.group, FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_OPEN_EXEC, AT_FDCWD,
                         mount.mountPoint.c_str()) == 0;
  }
  if (!pathWithin(mount.mountPoint, monitor.root)) return false;
  const int before = monitor.directoryMarks;
  markDirectoriesBelow(mount.mountPoint);
  return monitor.directoryMarks > before;
}

bool readAll(int fd, std::string* text) {
  if (lseek(fd, 0, SEEK_SET) != 0) return false;
  text->clear();
  char chunk[16384];
  for (;;) {
    ssize_t got = read(fd, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) return true;
    text->append(chunk, static_cast<size_t>(got));
  }
}

// Reads the agent's mount table again. When the monitor is enabled, the mounts that are new since
// the last reading are marked and traced. The number of mounts marked.
int refreshMounts() {
  std::string text;
  if (monitor.mountTable < 0 || !readAll(monitor.mountTable, &text)) return 0;
  std::vector<MountEntry> mounts = parseMountTable(text);
  std::unordered_map<int, size_t> byId;
  for (size_t i = 0; i < mounts.size(); ++i) byId.emplace(mounts[i].id, i);
  int marked = 0;
  if (monitor.enabled) {
    for (const MountEntry& mount : mounts) {
      if (monitor.mountById.count(mount.id) != 0) continue;
      if (markMount(mount)) {
        ++marked;
        SLM_TRACE(2, " - Exec monitor watching the new mount %s (%s)", mount.mountPoint.c_str(),
                  mount.type.c_str());
      }
    }
  }
  monitor.mounts = std::move(mounts);
  monitor.mountById = std::move(byId);
  // A mount id may come back for another mount once its own has gone.
  monitor.foreign.clear();
  return marked;
}

// ---- Naming. The caller holds marksMutex.

dev_t deviceOf(const struct statx& status) {
  return makedev(status.stx_dev_major, status.stx_dev_minor);
}

// Whether `path` is the file of `status` (same device and inode), without following a last link.
bool sameFile(const std::string& path, const struct statx& status) {
  struct stat other;
  return lstat(path.c_str(), &other) == 0 && other.st_dev == deviceOf(status) &&
         other.st_ino == status.stx_ino;
}

// The path of the descriptor's file in the agent's namespace, as the kernel writes it.
bool descriptorPath(int fd, const struct statx& status, std::string* path) {
  char link[64];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  char target[PATH_MAX];
  ssize_t length = readlink(link, target, sizeof target - 1);
  if (length <= 0) return false;
  path->assign(target, static_cast<size_t>(length));
  // A file removed since it was started keeps its old path, marked so.
  static constexpr std::string_view kDeleted = " (deleted)";
  if (status.stx_nlink == 0 && path->size() > kDeleted.size() &&
      path->compare(path->size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
    path->resize(path->size() - kDeleted.size());
  }
  return !path->empty() && (*path)[0] == '/';
}

// A path of the agent's namespace for the file of `status`, which lies at `inFileSystem` in its
// file system: below one of the agent's mounts of that file system that shows it.
bool agentNamespacePath(const std::string& inFileSystem, const struct statx& status,
                        std::string* path) {
  const dev_t device = deviceOf(status);
  for (const MountEntry& mount : monitor.mounts) {
    if (mount.device != device || !pathWithin(inFileSystem, mount.root)) continue;
    std::string candidate = joinPath(mount.mountPoint, pathBelow(inFileSystem, mount.root));
    if (sameFile(candidate, status)) {
      *path = std::move(candidate);
      return true;
    }
  }
  return false;
}

// An overlay opens the file of a layer below it for every file started from it, and that open is
// seen too, through a private mount of the layer that belongs to no namespace: `shown` is then
// the file's path below one of the layer directories. True for such a file.
bool seenThroughLayer(const std::string& shown, const struct statx& status) {
  for (const MountEntry& mount : monitor.mounts) {
    for (const std::string& layer : mount.layers) {
      if (sameFile(joinPath(layer, shown), status)) return true;
    }
  }
  return false;
}

// The path of a file seen through a mount of another namespace (a container's), which `shown`
// gives as that namespace sees it. The mapping learnt first, then the guess that the mount shows
// its file system's root at one of the directories above the file (a container's root is one),
// then the mount as the starting process's own table gives it. True with `path` set.
bool foreignPath(int mountId, pid_t pid, const std::string& shown, const struct statx& status,
                 std::string* path) {
  const dev_t device = deviceOf(status);
  auto known = monitor.foreign.find(mountId);
  if (known != monitor.foreign.end() && known->second.device == device &&
      pathWithin(shown, known->second.shown) &&
      agentNamespacePath(joinPath(known->second.root, pathBelow(shown, known->second.shown)),
                         status, path)) {
    return true;
  }
  auto learn = [&](std::string shownAt, std::string root) {
    if (monitor.foreign.size() >= kMaxForeignMounts) monitor.foreign.clear();
    monitor.foreign[mountId] = ForeignMount{device, std::move(shownAt), std::move(root)};
  };
  for (size_t slash = 0; slash != std::string::npos; slash = shown.find('/', slash + 1)) {
    const std::string above = slash == 0 ? "/" : shown.substr(0, slash);
    if (agentNamespacePath(shown.substr(slash), status, path)) {
      learn(above, "/");
      return true;
    }
  }
  char table[64];
  snprintf(table, sizeof table, "/proc/%d/mountinfo", static_cast<int>(pid));
  int fd = open(table, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::string text;
  const bool read = readAll(fd, &text);
  close(fd);
  if (!read) return false;
  for (const MountEntry& mount : parseMountTable(text)) {
    if (mount.id != mountId || !pathWithin(shown, mount.mountPoint)) continue;
    if (agentNamespacePath(joinPath(mount.root, pathBelow(shown, mount.mountPoint)), status,
                           path)) {
      learn(mount.mountPoint, mount.root);
      return true;
    }
  }
  return false;
}

// Names the file of a notice's descriptor: its path from the agent root into `start`.
Naming nameStart(int fd, pid_t pid, bool* refreshed, Start* start) {
  struct statx status;
  if (statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_MNT_ID, &status) != 0) {
    return Naming::kUnnamed;
  }
  std::string shown;
  if (!descriptorPath(fd, status, &shown)) return Naming::kUnnamed;
  const int mountId = static_cast<int>(status.stx_mnt_id);
  // Without the mount's id (kernels before 5.8) every file is taken as seen through the agent's.
  bool ours = (status.stx_mask & STATX_MNT_ID) == 0 || monitor.mountById.count(mountId) != 0;
  if (!ours && !*refreshed && monitor.foreign.count(mountId) == 0) {
    // A mount made since the table was last read.
    *refreshed = true;
    (void)refreshMounts();
    ours = monitor.mountById.count(mountId) != 0;
  }
  std::string path;
  if (ours) {
    path = std::move(shown);
  } else if (seenThroughLayer(shown, status)) {
    // Its overlay's own notice names the start: the layer's private mount is left out from now.
    (void)fanotify_mark(monitor.group, FAN_MARK_ADD | FAN_MARK_MOUNT | FAN_MARK_IGNORED_MASK,
                        FAN_OPEN_EXEC, fd, nullptr);
    return Naming::kLayer;
  } else if (!foreignPath(mountId, pid, shown, status, &path)) {
    return Naming::kUnnamed;
  }
  if (!monitor.root.empty()) {
    if (!pathWithin(path, monitor.root) || path.size() == monitor.root.size()) {
      return Naming::kUnnamed;
    }
    path.erase(0, monitor.root.size());
  }
  start->path = std::move(path);
  start->status = {};
  start->status.st_dev = deviceOf(status);
  start->status.st_ino = status.stx_ino;
  start->status.st_mode = status.stx_mode;
  start->status.st_nlink = status.stx_nlink;
  start->status.st_uid = status.stx_uid;
  start->status.st_gid = status.stx_gid;
  start->status.st_size = static_cast<off_t>(status.stx_size);
  start->status.st_mtim.tv_sec = status.stx_mtime.tv_sec;
  start->status.st_mtim.tv_nsec = status.stx_mtime.tv_nsec;
  start->pid = pid;
  return Naming::kNamed;
}

// ---- The reader.

// Notices one read may take: one descriptor each, so no more than the descriptors left free, less
// a reserve for the other threads, and at least one.
int eventsPerRead() {
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
    return kMaxEventsPerRead;
  }
  DIR* directory = opendir("/proc/self/fd");
  if (directory == nullptr) return 1;
  long open = 0;
  while (const struct dirent* entry = readdir(directory)) {
    if (entry->d_name[0] != '.') ++open;
  }
  closedir(directory);
  const long free = static_cast<long>(limit.rlim_cur) - open - kDescriptorReserve;
  return static_cast<int>(std::clamp<long>(free, 1, kMaxEventsPerRead));
}

// Names and queues the starts of one read of the kernel's queue and counts what is lost.
void takeEvents(const void* bytes, size_t size) {
  std::vector<Start> named;
  ExecMonitorCounts counts;
  int descriptorError = 0;
  const uint32_t now = static_cast<uint32_t>(time(nullptr));
  {
    std::lock_guard<std::mutex> lock(monitor.marksMutex);
    bool refreshed = false;
    const auto* event = static_cast<const struct fanotify_event_metadata*>(bytes);
    ssize_t left = static_cast<ssize_t>(size);
    for (; FAN_EVENT_OK(event, left); event = FAN_EVENT_NEXT(event, left)) {
      if ((event->mask & FAN_Q_OVERFLOW) != 0) {
        ++counts.overflows;
        SLM_TRACE(0, "WARNING - Exec events lost: queue overflow");
        continue;
      }
      if (event->fd < 0) {
        ++counts.noDescriptor;
        descriptorError = -event->fd;
        continue;
      }
      if ((event->mask & FAN_OPEN_EXEC) != 0) {
        Start start{};
        start.time = now;
        try {
          switch (nameStart(event->fd, event->pid, &refreshed, &start)) {
            case Naming::kNamed:
              named.push_back(std::move(start));
              break;
            case Naming::kLayer:
              ++counts.layers;
              break;
            case Naming::kUnnamed:
              ++counts.unnamed;
              break;
          }
        } catch (const std::bad_alloc&) {
          ++counts.dropped;
        }
      }
      close(event->fd);
    }
  }
  if (counts.noDescriptor != 0) {
    SLM_TRACE(0, "WARNING - Exec events lost: %d without a descriptor (error %d)",
              static_cast<int>(counts.noDescriptor), descriptorError);
  }
  std::lock_guard<std::mutex> lock(monitor.mutex);
  int dropped = 0;
  for (Start& start : named) {
    const size_t bytesNeeded = footprint(start);
    bool queued = false;
    if (monitor.pendingBytes + bytesNeeded <= monitor.pendingLimitBytes) {
      try {
        monitor.pending.push_back(std::move(start));
        monitor.pendingBytes += bytesNeeded;
        queued = true;
      } catch (const std::bad_alloc&) {
      }
    }
    if (queued) {
      ++counts.seen;
      monitor.dropping = false;
      continue;
    }
    ++counts.dropped;
    if (!monitor.dropping) ++dropped;
    monitor.dropping = true;
  }
  if (dropped != 0) {
    SLM_TRACE(0, "WARNING - Exec events lost: the monitor is behind by %d MiB of starts",
              static_cast<int>(monitor.pendingLimitBytes >> 20));
  }
  monitor.counts.seen += counts.seen;
  monitor.counts.overflows += counts.overflows;
  monitor.counts.noDescriptor += counts.noDescriptor;
  monitor.counts.dropped += counts.dropped;
  monitor.counts.unnamed += counts.unnamed;
  monitor.counts.layers += counts.layers;
  if (counts.seen != 0) monitor.changed.notify_all();
}

// One read of the kernel's queue. True when it filled its buffer, so that more may wait.
bool readBatch(struct fanotify_event_metadata* buffer) {
  const int events = eventsPerRead();
  const size_t bufferBytes = static_cast<size_t>(events) * sizeof *buffer;
  ssize_t got;
  do {
    got = read(monitor.group, buffer, bufferBytes);
  } while (got < 0 && errno == EINTR);
  if (got < 0) {
    if (errno == EAGAIN) return false;
    // Kernels that cannot report a descriptor's error in the notice fail the read instead and
    // drop the notice.
    const int error = errno;
    std::lock_guard<std::mutex> lock(monitor.mutex);
    ++monitor.counts.reads;
    ++monitor.counts.noDescriptor;
    SLM_TRACE(0, "WARNING - Exec events lost: 1 without a descriptor (error %d)", error);
    return false;
  }
  {
    std::lock_guard<std::mutex> lock(monitor.mutex);
    ++monitor.counts.reads;
  }
  takeEvents(buffer, static_cast<size_t>(got));
  return static_cast<size_t>(got) + sizeof *buffer > bufferBytes;
}

// The reader: sleeps in poll until the kernel has notices, the mount table changes or close wakes
// it; after a read that found the queue emptied it pauses, so that the starts meanwhile come in
// one read.
void readEvents() {
  std::unique_ptr<struct fanotify_event_metadata[]> buffer(
      new (std::nothrow) struct fanotify_event_metadata[kMaxEventsPerRead]);
  if (buffer == nullptr) return;
  for (;;) {
    struct pollfd fds[3] = {
        {monitor.wake, POLLIN, 0}, {monitor.group, POLLIN, 0}, {monitor.mountTable, POLLPRI, 0}};
    const nfds_t count = monitor.mountTable >= 0 ? 3 : 2;
    if (poll(fds, count, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[0].revents != 0) break;
    if (count == 3 && (fds[2].revents & (POLLPRI | POLLERR)) != 0) {
      std::lock_guard<std::mutex> lock(monitor.marksMutex);
      (void)refreshMounts();
    }
    if ((fds[1].revents & POLLIN) == 0) continue;
    if (readBatch(buffer.get())) continue;
    const int pause = batchPauseMillis.load();
    if (pause > 0 && poll(fds, 1, pause) > 0) break;
  }
}

// ---- The device calls.

int openMonitor(const char*, int) {
  if (monitor.group >= 0) {
    errno = EBUSY;
    return -1;
  }
  // The largest queue and mark count the agent's privilege allows, and errors in the notices
  // where the kernel reports them; each refused flag is left out in turn.
  const unsigned int base = FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK;
  const unsigned int tries[] = {
      base | FAN_UNLIMITED_QUEUE | FAN_UNLIMITED_MARKS | kReportDescriptorErrors,
      base | FAN_UNLIMITED_QUEUE | FAN_UNLIMITED_MARKS, base | kReportDescriptorErrors, base};
  for (unsigned int flags : tries) {
    monitor.group = fanotify_init(flags, O_RDONLY | O_LARGEFILE | O_CLOEXEC);
    if (monitor.group >= 0 || (errno != EINVAL && errno != EPERM)) break;
  }
  if (monitor.group < 0) return -1;
  monitor.wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  // Without the mount table, mounts made later go unmarked and other namespaces' files unnamed.
  monitor.mountTable = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
  {
    std::lock_guard<std::mutex> lock(monitor.marksMutex);
    (void)refreshMounts();
  }
  {
    std::lock_guard<std::mutex> lock(monitor.mutex);
    monitor.closing = false;
    monitor.haveCurrent = false;
  }
  if (monitor.wake >= 0) {
    try {
      monitor.reader = std::thread(readEvents);
      return monitor.group;
    } catch (const std::system_error& error) {
      errno = error.code().value();
    }
  }
  int saved = errno;
  closeDescriptor(&monitor.mountTable);
  closeDescriptor(&monitor.wake);
  closeDescriptor(&monitor.group);
  errno = saved;
  return -1;
}

// Marks what is watched and traces it. 0, or -1 when nothing could be marked.
int enableMonitor() {
  std::lock_guard<std::mutex> lock(monitor.marksMutex);
  monitor.root.clear();
  if (!agentRoot().empty()) {
    // Paths are compared with those the kernel gives, which never hold a link.
    char resolved[PATH_MAX];
    monitor.root = realpath(agentRoot().c_str(), resolved) != nullptr ? resolved : agentRoot();
    if (monitor.root == "/") monitor.root.clear();
  }
  monitor.enabled = true;
  monitor.directoryMarks = 0;
  int marked = 0;
  if (monitor.root.empty()) {
    for (const MountEntry& mount : monitor.mounts) {
      if (markMount(mount)) ++marked;
    }
    SLM_TRACE(1, "OK - Exec monitor watching %d file systems", marked);
  } else {
    markDirectoriesBelow(monitor.root);
    marked = monitor.directoryMarks;
    SLM_TRACE(1, "OK - Exec monitor watching %d directories below %s", marked,
              monitor.root.c_str());
  }
  if (marked > 0) return 0;
  monitor.enabled = false;
  errno = ENOENT;
  return -1;
}

int ioctlMonitor(int, unsigned long request) {
  if (request == kDriverEnableRequest) return enableMonitor();
  if (request == kDriverDisableRequest) {
    std::lock_guard<std::mutex> lock(monitor.marksMutex);
    monitor.enabled = false;
    fanotify_mark(monitor.group, FAN_MARK_FLUSH, 0, AT_FDCWD, nullptr);
    fanotify_mark(monitor.group, FAN_MARK_FLUSH | FAN_MARK_MOUNT, 0, AT_FDCWD, nullptr);
    fanotify_mark(monitor.group, FAN_MARK_FLUSH | FAN_MARK_FILESYSTEM, 0, AT_FDCWD, nullptr);
    return 0;
  }
  errno = EINVAL;
  return -1;
}

ssize_t readMonitor(int, void* buffer, size_t size) {
  if (size < kEventRecordSize) {
    errno = EINVAL;
    return -1;
  }
  std::unique_lock<std::mutex> lock(monitor.mutex);
  monitor.changed.wait(lock, [] { return monitor.closing || !monitor.pending.empty(); });
  // A closed device ends a waiting read with nothing, as the module's does.
  if (monitor.closing) return 0;
  Start& next = monitor.pending.front();
  monitor.pendingBytes -= footprint(next);
  monitor.current = std::move(next);
  monitor.pending.pop_front();
  monitor.haveCurrent = true;
  ++monitor.counts.delivered;
  DriverEvent event;
  event.time = monitor.current.time;
  uint8_t id[kEventIdSize];
  putFixed64(id, monitor.nextId++);
  memcpy(event.id, id, kEventIdSize);
  event.kind = kEventStart;
  copyBounded(event.path, kEventPathSize - 1, monitor.current.path.c_str());
  event.pid = monitor.current.pid;
  event.parentPid = monitor.current.pid;
  encodeDriverEvent(event, static_cast<uint8_t*>(buffer));
  return static_cast<ssize_t>(kEventRecordSize);
}

// Nothing waits for an answer: the acknowledgement is taken and forgotten.
ssize_t writeMonitor(int, const void*, size_t size) {
  if (size < kAckRecordSize) {
    errno = EINVAL;
    return -1;
  }
  return static_cast<ssize_t>(size);
}

int statMonitorFile(int, const char* path, struct stat* status) {
  std::lock_guard<std::mutex> lock(monitor.mutex);
  // The record holds the path's first characters only.
  if (!monitor.haveCurrent || path == nullptr ||
      monitor.current.path.compare(0, kEventPathSize - 1, path) != 0) {
    return -1;
  }
  *status = monitor.current.status;
  return 0;
}

int closeMonitor(int) {
  {
    std::lock_guard<std::mutex> lock(monitor.mutex);
    monitor.closing = true;
    monitor.changed.notify_all();
  }
  if (monitor.wake >= 0) {
    uint64_t one = 1;
    (void)!write(monitor.wake, &one, sizeof one);
  }
  if (monitor.reader.joinable()) monitor.reader.join();
  // What the kernel still holds is taken and counted too, so that the counts cover every start
  // made while the monitor ran; it is never delivered.
  std::unique_ptr<struct fanotify_event_metadata[]> buffer(
      new (std::nothrow) struct fanotify_event_metadata[kMaxEventsPerRead]);
  for (int reads = 0; buffer != nullptr && monitor.group >= 0 && reads < kMaxReadsAtClose;
       ++reads) {
    if (!readBatch(buffer.get())) break;
  }
  ExecMonitorCounts counts;
  {
    std::lock_guard<std::mutex> lock(monitor.mutex);
    monitor.pending.clear();
    monitor.pendingBytes = 0;
    monitor.dropping = false;
    monitor.haveCurrent = false;
    counts = monitor.counts;
  }
  {
    std::lock_guard<std::mutex> lock(monitor.marksMutex);
    monitor.enabled = false;
    monitor.mounts.clear();
    monitor.mountById.clear();
    monitor.foreign.clear();
  }
  closeDescriptor(&monitor.mountTable);
  closeDescriptor(&monitor.wake);
  closeDescriptor(&monitor.group);
  SLM_TRACE(1,
            "OK - Exec monitor closed: %llu starts seen, %llu delivered, %llu lost (%llu queue "
            "overflows, %llu without a descriptor, %llu beyond the memory bound), %llu not named, "
            "%llu seen through a lower layer, %llu reads",
            static_cast<unsigned long long>(counts.seen),
            static_cast<unsigned long long>(counts.delivered),
            static_cast<unsigned long long>(execEventsLost(counts)),
            static_cast<unsigned long long>(counts.overflows),
            static_cast<unsigned long long>(counts.noDescriptor),
            static_cast<unsigned long long>(counts.dropped),
            static_cast<unsigned long long>(counts.unnamed),
            static_cast<unsigned long long>(counts.layers),
            static_cast<unsigned long long>(counts.reads));
  return 0;
}

const DeviceCalls kBuiltinCalls{openMonitor,  ioctlMonitor, readMonitor,
                                writeMonitor, closeMonitor, statMonitorFile};

}  // namespace

const DeviceCalls& builtinExecMonitorCalls() {
  return kBuiltinCalls;
}

bool execMonitorSupported() {
  int group = fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC, O_RDONLY | O_CLOEXEC);
  if (group < 0) return false;
  // A mark on the root directory itself asks for exec notices without watching any program: the
  // root directory is never started.
  bool supported = fanotify_mark(group, FAN_MARK_ADD, FAN_OPEN_EXEC, AT_FDCWD, "/") == 0;
  close(group);
  return supported;
}

ExecMonitorCounts execMonitorCounts() {
  std::lock_guard<std::mutex> lock(monitor.mutex);
  return monitor.counts;
}

uint64_t execEventsLost(const ExecMonitorCounts& counts) {
  return counts.overflows + counts.noDescriptor + counts.dropped;
}

void setExecBatchPauseMillis(int32_t millis) {
  batchPauseMillis.store(millis < 0 ? kExecBatchPauseMillis : millis);
}

void setExecPendingLimitForTests(size_t bytes) {
  std::lock_guard<std::mutex> lock(monitor.mutex);
  monitor.pendingLimitBytes = bytes != 0 ? bytes : kExecPendingLimitBytes;
}

void takeExecEventsForTests(const void* bytes, size_t size) {
  takeEvents(bytes, size);
}

}  // namespace slm
