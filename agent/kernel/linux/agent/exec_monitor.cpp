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
#include <vector>

#include "agent_core/support/bytes.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "inventory/linux/searcher.h"
#include "kernel/linux/agent/exec_paths.h"
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
constexpr int kReaderNice = 19;
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
  MountView view;
  int directoryMarks = 0;

  int group = -1;
  int wake = -1;
  int mountTable = -1;   // the agent's /proc/self/mountinfo, polled for changes
  int descriptors = -1;  // the agent's /proc/self/fd, where the notices' files are named
  std::thread reader;
};

ExecMonitor monitor;
std::atomic<int32_t> batchPauseMillis{kExecBatchPauseMillis};

void closeDescriptor(int* fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
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
    // A mount that shows only a part of its file system (a directory or a single file that a host
    // lends a container) is watched as that mount alone: a mark on the whole file system would
    // bring the agent every start on the host's disk.
    if (mount.root == "/" &&
        fanotify_mark(monitor.group, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, FAN_OPEN_EXEC, AT_FDCWD,
                      mount.mountPoint.c_str()) == 0) {
      return true;
    }
    return fanotify_mark(monitor.group, FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_OPEN_EXEC, AT_FDCWD,
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
  int marked = 0;
  if (monitor.enabled) {
    for (const MountEntry& mount : mounts) {
      if (monitor.view.byId.count(mount.id) != 0) continue;
      if (markMount(mount)) {
        ++marked;
        SLM_TRACE(2, " - Exec monitor watching the new mount %s (%s)", mount.mountPoint.c_str(),
                  mount.type.c_str());
      }
    }
  }
  setMounts(&monitor.view, std::move(mounts));
  return marked;
}

enum class Naming { kNamed, kLayer, kUnnamed };

// Names the file of a notice's descriptor: its path from the agent root and its status into
// `start`. The caller holds marksMutex.
Naming nameStart(int fd, pid_t pid, bool* refreshed, Start* start) {
  struct statx status;
  if (statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_MNT_ID, &status) != 0) {
    return Naming::kUnnamed;
  }
  if (!knownMount(monitor.view, status) && !*refreshed) {
    // Perhaps a mount made since the table was last read.
    *refreshed = true;
    (void)refreshMounts();
  }
  std::string path;
  switch (nameExecFile(&monitor.view, monitor.descriptors, fd, pid, status, &path)) {
    case ExecFileNaming::kNamed:
      break;
    case ExecFileNaming::kLayer:
      // Its overlay's own notice names the start: the layer's private mount is left out from now.
      (void)fanotify_mark(monitor.group, FAN_MARK_ADD | FAN_MARK_MOUNT | FAN_MARK_IGNORED_MASK,
                          FAN_OPEN_EXEC, fd, nullptr);
      return Naming::kLayer;
    case ExecFileNaming::kUnnamed:
      return Naming::kUnnamed;
  }
  if (!monitor.root.empty()) {
    if (!pathWithin(path, monitor.root) || path.size() == monitor.root.size()) {
      return Naming::kUnnamed;
    }
    path.erase(0, monitor.root.size());
  }
  start->path = std::move(path);
  start->status = statOf(status);
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
  // The reader yields the processor to any program that wants it: its work can wait, a start
  // cannot.
  (void)setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kReaderNice);
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
  monitor.descriptors = open("/proc/self/fd", O_PATH | O_DIRECTORY | O_CLOEXEC);
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
  closeDescriptor(&monitor.descriptors);
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
    for (const MountEntry& mount : monitor.view.mounts) {
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
    setMounts(&monitor.view, {});
  }
  closeDescriptor(&monitor.descriptors);
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
