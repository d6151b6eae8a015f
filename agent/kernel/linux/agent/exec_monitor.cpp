// The built-in exec monitor: a fanotify group with exec permission marks, a reader thread that
// takes every event from the kernel at once (answering those that must not wait and, as the
// watchdog, those nobody answered in time), and the device calls over its queue of waiting events.
#include "kernel/linux/agent/exec_monitor.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <mntent.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <thread>

#include "agent_core/support/bytes.h"
#include "agent_core/support/program_runner.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "inventory/linux/searcher.h"

namespace slm {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kEventBufferBytes = 8192;
constexpr int kAncestryDepth = 16;
constexpr int kMaxDirectoryMarks = 20000;

struct Waiting {
  uint64_t id;
  int fd;  // the event's descriptor: the answer names it
  pid_t pid;
  Clock::time_point since;
  bool delivered;
  std::string path;
};

// Guarded by `mutex`, except the descriptors, which open and close set while the reader is not
// running, and which the reader only reads.
struct ExecMonitor {
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Waiting> waiting;  // in arrival order
  ExecMonitorCounts counts;
  uint64_t nextId = 1;
  bool closing = false;
  bool stalled = false;
  int group = -1;
  int wake = -1;
  std::thread reader;
};

ExecMonitor monitor;

// Lets the program of `fd` go on and forgets the descriptor.
void allow(int fd) {
  struct fanotify_response response {};
  response.fd = fd;
  response.response = FAN_ALLOW;
  ssize_t written;
  do {
    written = write(monitor.group, &response, sizeof response);
  } while (written < 0 && errno == EINTR);
  close(fd);
}

// Under the mutex: answers `entry`, keeping the longest wait.
void allowWaiting(const Waiting& entry) {
  allow(entry.fd);
  auto waited =
      std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - entry.since).count();
  if (static_cast<uint64_t>(waited) > monitor.counts.longestWaitMicros) {
    monitor.counts.longestWaitMicros = static_cast<uint64_t>(waited);
  }
}

pid_t parentOf(pid_t pid) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
  FILE* file = fopen(path, "re");
  if (file == nullptr) return 0;
  char line[512];
  size_t got = fread(line, 1, sizeof line - 1, file);
  fclose(file);
  line[got] = '\0';
  // The command name may hold blanks and parentheses: the fields after it follow the last ')'.
  const char* after = strrchr(line, ')');
  int parent = 0;
  char state = 0;
  if (after == nullptr || sscanf(after + 1, " %c %d", &state, &parent) != 2) return 0;
  return static_cast<pid_t>(parent);
}

// Whether `pid` is the agent or was started, at any depth, by a shell the agent runs.
bool ownStart(pid_t pid) {
  const pid_t self = getpid();
  if (pid == self) return true;
  if (!agentShellRunning()) return false;
  for (int depth = 0; depth < kAncestryDepth && pid > 1; ++depth) {
    pid = parentOf(pid);
    if (pid == self) return true;
  }
  return false;
}

// The program's path as the agent sees it: below the agent root, without the root's own part.
bool agentPath(int fd, std::string* path) {
  char link[64];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  char target[PATH_MAX];
  ssize_t length = readlink(link, target, sizeof target - 1);
  if (length <= 0) return false;
  target[length] = '\0';
  const std::string& root = agentRoot();
  if (root.empty()) {
    *path = target;
    return true;
  }
  if (strncmp(target, root.c_str(), root.size()) != 0 || target[root.size()] != '/') return false;
  *path = target + root.size();
  return true;
}

void takeEvent(const struct fanotify_event_metadata* event) {
  if (event->fd < 0) return;  // the kernel's queue overflowed: nothing to answer
  if ((event->mask & FAN_OPEN_EXEC_PERM) == 0) {
    close(event->fd);
    return;
  }
  std::lock_guard<std::mutex> lock(monitor.mutex);
  if (ownStart(event->pid)) {
    ++monitor.counts.own;
    allow(event->fd);
    return;
  }
  // A path that cannot be had (no memory, say) allows the program rather than hold it.
  std::string path;
  bool named = false;
  try {
    named = agentPath(event->fd, &path);
  } catch (const std::bad_alloc&) {
    named = false;
  }
  if (!named || monitor.waiting.size() >= static_cast<size_t>(kExecQueueLimit)) {
    ++monitor.counts.overflow;
    allow(event->fd);
    return;
  }
  try {
    monitor.waiting.push_back(
        Waiting{monitor.nextId++, event->fd, event->pid, Clock::now(), false, std::move(path)});
  } catch (const std::bad_alloc&) {
    ++monitor.counts.overflow;
    allow(event->fd);
    return;
  }
  monitor.changed.notify_all();
}

// Allows what waited too long; the milliseconds until the next event is due, or -1.
int watchdog() {
  std::lock_guard<std::mutex> lock(monitor.mutex);
  const Clock::time_point now = Clock::now();
  const auto bound = std::chrono::milliseconds(kExecAnswerBoundMillis);
  while (!monitor.waiting.empty() && monitor.waiting.front().since + bound <= now) {
    allowWaiting(monitor.waiting.front());
    ++monitor.counts.byWatchdog;
    monitor.waiting.pop_front();
  }
  if (monitor.waiting.empty()) return -1;
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(monitor.waiting.front().since +
                                                                    bound - now);
  return static_cast<int>(left.count()) + 1;
}

// The reader: sleeps until the kernel has an event, the watchdog is due, or close wakes it.
void readEvents() {
  alignas(struct fanotify_event_metadata) char buffer[kEventBufferBytes];
  for (;;) {
    struct pollfd fds[2] = {{monitor.group, POLLIN, 0}, {monitor.wake, POLLIN, 0}};
    int ready = poll(fds, 2, watchdog());
    if (ready < 0 && errno != EINTR) break;
    if (fds[1].revents != 0) break;
    if (ready <= 0 || (fds[0].revents & POLLIN) == 0) continue;
    ssize_t got = read(monitor.group, buffer, sizeof buffer);
    if (got <= 0) continue;
    const auto* event = reinterpret_cast<const struct fanotify_event_metadata*>(buffer);
    while (FAN_EVENT_OK(event, got)) {
      takeEvent(event);
      event = FAN_EVENT_NEXT(event, got);
    }
  }
}

// The directory marks of the walk in progress; the walk runs on the enabling thread only.
int directoryMarks = 0;

int markDirectory(const char* path, const struct stat*, int type, struct FTW*) {
  if (type != FTW_D) return 0;
  if (fanotify_mark(monitor.group, FAN_MARK_ADD, FAN_OPEN_EXEC_PERM | FAN_EVENT_ON_CHILD, AT_FDCWD,
                    path) == 0) {
    ++directoryMarks;
  }
  return directoryMarks >= kMaxDirectoryMarks ? 1 : 0;
}

// Marks what is watched: with the root at "/" every local disk file system, otherwise the
// directories below the root only, never a whole mount, so that a sandbox never slows the
// machine's other programs. 0, or -1 when nothing could be marked.
int addMarks() {
  const std::string& root = agentRoot();
  int marked = 0;
  if (root.empty()) {
    FILE* mounts = setmntent("/proc/self/mounts", "re");
    if (mounts == nullptr) return -1;
    struct mntent entry;
    char text[4096];
    while (getmntent_r(mounts, &entry, text, sizeof text) != nullptr) {
      // Programs are watched on the file systems an inventory scan walks.
      if (!isWalkedFileSystemName(entry.mnt_type)) continue;
      if (fanotify_mark(monitor.group, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, FAN_OPEN_EXEC_PERM,
                        AT_FDCWD, entry.mnt_dir) == 0 ||
          fanotify_mark(monitor.group, FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_OPEN_EXEC_PERM, AT_FDCWD,
                        entry.mnt_dir) == 0) {
        ++marked;
      }
    }
    endmntent(mounts);
  } else {
    // The sandbox's directories as they are now; one made later is not watched.
    directoryMarks = 0;
    if (nftw(root.c_str(), markDirectory, 64, FTW_PHYS) >= 0) marked = directoryMarks;
  }
  return marked > 0 ? 0 : -1;
}

void closeDescriptor(int* fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

int openMonitor(const char*, int) {
  if (monitor.group >= 0) {
    errno = EBUSY;
    return -1;
  }
  monitor.group = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK,
                                O_RDONLY | O_LARGEFILE | O_CLOEXEC);
  if (monitor.group < 0) return -1;
  monitor.wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  {
    std::lock_guard<std::mutex> lock(monitor.mutex);
    monitor.closing = false;
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
  closeDescriptor(&monitor.wake);
  closeDescriptor(&monitor.group);
  errno = saved;
  return -1;
}

int ioctlMonitor(int, unsigned long request) {
  if (request == kDriverEnableRequest) return addMarks();
  if (request == kDriverDisableRequest) {
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
  auto undelivered = [] {
    for (Waiting& entry : monitor.waiting) {
      if (!entry.delivered) return &entry;
    }
    return static_cast<Waiting*>(nullptr);
  };
  monitor.changed.wait(
      lock, [&] { return monitor.closing || (!monitor.stalled && undelivered() != nullptr); });
  // A closed device ends a waiting read with nothing, as the module's does.
  if (monitor.closing) return 0;
  Waiting* entry = undelivered();
  entry->delivered = true;
  ++monitor.counts.delivered;
  DriverEvent event;
  event.time = static_cast<uint32_t>(time(nullptr));
  uint8_t id[kEventIdSize];
  putFixed64(id, entry->id);
  memcpy(event.id, id, kEventIdSize);
  event.kind = kEventStart;
  copyBounded(event.path, kEventPathSize - 1, entry->path.c_str());
  event.pid = entry->pid;
  event.parentPid = entry->pid;
  encodeDriverEvent(event, static_cast<uint8_t*>(buffer));
  return static_cast<ssize_t>(kEventRecordSize);
}

ssize_t writeMonitor(int, const void* buffer, size_t size) {
  if (size < kAckRecordSize) {
    errno = EINVAL;
    return -1;
  }
  const uint64_t id = getFixed64(static_cast<const uint8_t*>(buffer) + kAckIdOffset);
  std::lock_guard<std::mutex> lock(monitor.mutex);
  for (auto at = monitor.waiting.begin(); at != monitor.waiting.end(); ++at) {
    if (at->id != id) continue;
    allowWaiting(*at);
    ++monitor.counts.answered;
    monitor.waiting.erase(at);
    break;
  }
  // An event the watchdog answered first needs nothing more.
  return static_cast<ssize_t>(size);
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
  {
    std::lock_guard<std::mutex> lock(monitor.mutex);
    for (const Waiting& entry : monitor.waiting) allowWaiting(entry);
    monitor.waiting.clear();
  }
  closeDescriptor(&monitor.wake);
  // Whatever still waits in the kernel is allowed when the group goes.
  closeDescriptor(&monitor.group);
  return 0;
}

const DeviceCalls kBuiltinCalls{openMonitor, ioctlMonitor, readMonitor, writeMonitor, closeMonitor};

}  // namespace

const DeviceCalls& builtinExecMonitorCalls() {
  return kBuiltinCalls;
}

bool execMonitorSupported() {
  int group = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY | O_CLOEXEC);
  if (group < 0) return false;
  // A mark on the root directory itself asks for the permission events without watching any
  // program: the root directory is never started.
  bool supported = fanotify_mark(group, FAN_MARK_ADD, FAN_OPEN_EXEC_PERM, AT_FDCWD, "/") == 0;
  close(group);
  return supported;
}

ExecMonitorCounts execMonitorCounts() {
  std::lock_guard<std::mutex> lock(monitor.mutex);
  return monitor.counts;
}

void setExecMonitorStalledForTests(bool stalled) {
  std::lock_guard<std::mutex> lock(monitor.mutex);
  monitor.stalled = stalled;
  monitor.changed.notify_all();
}

}  // namespace slm
