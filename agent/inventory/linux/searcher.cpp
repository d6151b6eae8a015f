// The disk walk. One path buffer (as seen from the root) is extended and restored in place; the
// system calls go relative to the open directory, so the kernel never walks the long path again.
#include "inventory/linux/searcher.h"

#include <dirent.h>
#include <fcntl.h>
#include <mntent.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent_core/cache/cache_file.h"
#include "agent_core/data/inventory_record.h"
#include "agent_core/data/slm_time.h"
#include "agent_core/message/nls.h"
#include "agent_core/security_settings.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/file_handle.h"
#include "agent_core/support/hash_table.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"

namespace slm {
namespace {

std::atomic<int> stopped{0};

// The top-level directories that are never entered. Every path below the root begins with "//",
// so these name /proc and /xfn (and any top-level name that begins with them).
constexpr const char* kExcludedPrefixes[] = {"//xfn", "//proc"};

// ELF header fields read by the predicate.
constexpr uint8_t kElfMagic[] = {0x7F, 'E', 'L', 'F'};
constexpr size_t kElfClassOffset = 4;
constexpr size_t kElfTypeOffset = 16;
constexpr size_t kElfMachineOffset = 18;
// Where the program header table is described, for the 32- and the 64-bit layout.
constexpr size_t kElf32PhoffOffset = 28;
constexpr size_t kElf32PhentsizeOffset = 42;
constexpr size_t kElf32PhnumOffset = 44;
constexpr size_t kElf64PhoffOffset = 32;
constexpr size_t kElf64PhentsizeOffset = 54;
constexpr size_t kElf64PhnumOffset = 56;
constexpr size_t kProgramHeaderTypeBytes = 4;
constexpr size_t kProgramHeaderChunkBytes = 4096;

constexpr int kIoprioWhoProcess = 1;  // with a thread id: that thread alone
constexpr int kIoprioClassIdle = 3;
constexpr int kIoprioClassShift = 13;
constexpr int kLowestCpuPriority = 19;

// The fixed text fields of a scanned record hold a single blank.
constexpr char kBlankField[] = " ";

uint16_t getFixed16(const uint8_t* src) {
  return static_cast<uint16_t>(src[0] | (src[1] << 8));
}

ssize_t readFully(int fd, uint8_t* buffer, size_t size, off_t offset) {
  size_t done = 0;
  while (done < size) {
    ssize_t n = pread(fd, buffer + done, size - done, offset + static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

// Whether the program header table of a type-3 file holds a program interpreter. The table is
// taken from the bytes already read when they hold it, else read in chunks up to the first hit.
bool hasProgramInterpreter(const uint8_t* prefix, size_t available, int fd, bool elf32) {
  const size_t needed = elf32 ? kElf32PhnumOffset + 2 : kElf64PhnumOffset + 2;
  if (available < needed) return false;
  const uint64_t offset =
      elf32 ? getFixed32(prefix + kElf32PhoffOffset) : getFixed64(prefix + kElf64PhoffOffset);
  const size_t entrySize =
      getFixed16(prefix + (elf32 ? kElf32PhentsizeOffset : kElf64PhentsizeOffset));
  const size_t count = getFixed16(prefix + (elf32 ? kElf32PhnumOffset : kElf64PhnumOffset));
  if (entrySize < kProgramHeaderTypeBytes || entrySize > kProgramHeaderChunkBytes) return false;
  if (offset > static_cast<uint64_t>(INT64_MAX) - count * entrySize) return false;
  uint8_t chunk[kProgramHeaderChunkBytes];
  const size_t perChunk = kProgramHeaderChunkBytes / entrySize;
  for (size_t first = 0; first < count; first += perChunk) {
    const size_t entries = std::min(perChunk, count - first);
    const uint64_t at = offset + first * entrySize;
    const uint8_t* table = chunk;
    ssize_t got = 0;
    if (at + entries * entrySize <= available) {
      table = prefix + at;
      got = static_cast<ssize_t>(entries * entrySize);
    } else if (fd >= 0) {
      got = readFully(fd, chunk, entries * entrySize, static_cast<off_t>(at));
    }
    for (size_t i = 0; i < entries; ++i) {
      if (static_cast<ssize_t>((i + 1) * entrySize) > got) return false;
      if (getFixed32(table + i * entrySize) == kElfProgramInterpreter) return true;
    }
  }
  return false;
}

bool isExcludedPath(const char* path) {
  for (const char* prefix : kExcludedPrefixes) {
    if (strstr(path, prefix) != nullptr) return true;
  }
  return false;
}

constexpr size_t longestExcludedPrefix() {
  size_t longest = 0;
  for (const char* prefix : kExcludedPrefixes) {
    longest = std::max(longest, std::char_traits<char>::length(prefix));
  }
  return longest;
}

constexpr bool everyExcludedPrefixBeginsWithTwoSlashes() {
  for (const char* prefix : kExcludedPrefixes) {
    if (prefix[0] != '/' || prefix[1] != '/') return false;
  }
  return true;
}
static_assert(everyExcludedPrefixBeginsWithTwoSlashes());

// The same answer for a path whose directory part (up to `nameOffset`) was already found not
// excluded: only a match that reaches into the name is left to look for, and only where two
// slashes meet, which in a walk is at the start alone.
bool isExcludedEntry(const char* path, size_t nameOffset) {
  constexpr size_t kReach = longestExcludedPrefix() - 1;
  const char* window = path + (nameOffset < kReach ? 0 : nameOffset - kReach);
  for (const char* at = window; at[0] != '\0'; ++at) {
    if (at[0] == '/' && at[1] == '/') return isExcludedPath(window);
  }
  return false;
}

// ---- What earlier walks learnt.
//
// Reading the header of every candidate is most of a walk's disk work: on a machine that is
// scanned once a day hardly any of them is still in memory. A file whose size, modification and
// change times are those of the last walk holds what it held then (any write moves the change
// time, which no program can set), so its answer is taken from there instead of read again.

// A file changed within this many seconds of being read may change again within the resolution of
// its file system's clock without its times moving: its answer is not kept.
constexpr time_t kUnsettledSeconds = 2;

std::mutex knownMutex;
std::vector<KnownFile> knownFiles;  // sorted by file; guarded by knownMutex
bool knownFilesRead = false;        // whether "scanknown.dat" was read; guarded by knownMutex
bool knownFilesStored = false;      // whether it holds knownFiles; guarded by knownMutex

uint64_t fileOf(const struct stat& status) {
  return mixBits(mixBits(static_cast<uint64_t>(status.st_dev)) ^
                 static_cast<uint64_t>(status.st_ino));
}

uint64_t stateOf(const struct stat& status) {
  uint64_t state = mixBits(static_cast<uint64_t>(status.st_size));
  for (const struct timespec& time : {status.st_mtim, status.st_ctim}) {
    state = mixBits(state ^ static_cast<uint64_t>(time.tv_sec));
    state = mixBits(state ^ static_cast<uint64_t>(time.tv_nsec));
  }
  return state & ~uint64_t{1};
}

// A directory of the walk, from the start down to the one being walked. Its descriptor is closed
// (-1) while the bound on open directories holds it shut; it is reopened, and must then be the
// directory seen before, when another of its subdirectories is to be entered.
struct Level {
  int fd;
  dev_t device;
  ino_t inode;
  size_t length;  // the directory's path fills the path buffer up to here
};

// The walk's state beside the path buffer: the devices already checked, the answers of the last
// walk and those of this one, the directories it is in and the records it made.
struct Walk {
  SlmList* list;
  char* path;
  FileSystemCheck check;
  std::vector<Level> levels;
  size_t openLevels = 0;
  size_t maxOpenLevels = kMaxOpenScanDirectories;
  std::string rootedStart;  // the start's path with the agent root before it, for a reopen
  int64_t records = 0;
  int64_t maxRecords = 0;
  static constexpr size_t kDeviceSlots = 32;
  dev_t devices[kDeviceSlots];
  bool walked[kDeviceSlots];
  size_t deviceCount = 0;
  size_t lastDevice = 0;
  std::vector<KnownFile> known;
  bool knownStored = false;  // whether "scanknown.dat" holds `known`
  std::vector<KnownFile> learnt;
  time_t settledBefore = 0;
  // The mount points below the root (root-relative, sorted) of file systems that are not walked.
  std::vector<std::string> unwalkedMounts;
  // The entries of the directory being read. One buffer serves the whole walk: a directory is
  // read to its end before the walk enters the directories below it.
  std::vector<char> dirents;
  size_t direntAt = 0;
  size_t direntBytes = 0;
};

bool byFile(const KnownFile& a, const KnownFile& b) {
  return a.file < b.file;
}

// The answer of the last walk for a file in this state: kIsExecutable, kNotExecutable, or -1.
int knownAnswer(const Walk& walk, uint64_t file, uint64_t state) {
  auto at = std::lower_bound(walk.known.begin(), walk.known.end(), file,
                             [](const KnownFile& known, uint64_t key) { return known.file < key; });
  if (at == walk.known.end() || at->file != file || (at->state & ~uint64_t{1}) != state) return -1;
  return (at->state & 1) != 0 ? kIsExecutable : kNotExecutable;
}

// Keeps an answer for the next walk, unless the file has changed too recently to be trusted or
// there is no room; a keeping that fails costs only the next walk a read.
void learn(Walk& walk, const struct stat& status, uint64_t file, uint64_t state, int answer) {
  if (walk.learnt.size() >= kMaxKnownFiles) return;
  if (status.st_mtim.tv_sec >= walk.settledBefore || status.st_ctim.tv_sec >= walk.settledBefore) {
    return;
  }
  try {
    walk.learnt.push_back({file, state | (answer == kIsExecutable ? 1 : 0)});
  } catch (const std::bad_alloc&) {
    walk.learnt.clear();
    walk.learnt.shrink_to_fit();
  }
}

char* knownFilesPath(char* out) {
  return cacheFilePath(kKnownFilesFileName, out);
}

// What the last walk of an earlier run stored; nothing when there is no file or it must not be
// used, which is then deleted (the next walk writes it anew).
std::vector<KnownFile> readKnownFiles() {
  char path[kCachePathSize];
  knownFilesPath(path);
  FileHandle file(fopen(path, "rbe"));
  if (!file) return {};
  struct stat status;
  std::vector<KnownFile> files;
  if (fstat(fileno(file.get()), &status) == 0 &&
      status.st_size <=
          static_cast<off_t>(kKnownFilesHeaderSize + kMaxKnownFiles * kKnownFileSize)) {
    try {
      std::vector<uint8_t> raw(static_cast<size_t>(status.st_size));
      const size_t size = fread(raw.data(), 1, raw.size(), file.get());
      if (decodeKnownFiles(raw.data(), size, &files)) return files;
    } catch (const std::bad_alloc&) {
      return {};
    }
  }
  file.reset();
  SLM_TRACE(1, "WARNING - Scan answers file %s not used and removed", path);
  remove(path);
  return {};
}

// Stores what a walk learnt, whole or not at all; a store that fails costs the first walk after a
// restart its reads.
bool storeKnownFiles(const std::vector<KnownFile>& files) {
  char path[kCachePathSize];
  knownFilesPath(path);
  FILE* file = createCacheFile(path);
  bool stored = false;
  if (file != nullptr) {
    try {
      const std::vector<uint8_t> raw = encodeKnownFiles(files);
      if (fwrite(raw.data(), 1, raw.size(), file) == raw.size()) {
        stored = commitCacheFile(file, path);
        file = nullptr;
      }
    } catch (const std::bad_alloc&) {
    }
    if (file != nullptr) discardCacheFile(file, path);
  }
  if (!stored) SLM_TRACE(1, "WARNING - Scan answers not stored in file %s", path);
  return stored;
}

// Hands the last walk's answers to a walk about to begin: those of this run, or at its first walk
// those an earlier run stored.
void takeKnownFiles(Walk& walk) {
  std::lock_guard<std::mutex> lock(knownMutex);
  if (!knownFilesRead) {
    knownFilesRead = true;
    knownFiles = readKnownFiles();
    knownFilesStored = true;  // or, where it was missing or bad, there is none now
  }
  walk.known = std::move(knownFiles);
  walk.knownStored = knownFilesStored;
  knownFiles = {};
  walk.settledBefore = static_cast<time_t>(getNowWithOffset(0)) - kUnsettledSeconds;
}

// Keeps what the walk learnt, sorted, for the next one, and stores it unless the file holds just
// that already (a machine where nothing changed is not written to): files it did not meet are
// forgotten.
void keepKnownFiles(Walk& walk) {
  std::sort(walk.learnt.begin(), walk.learnt.end(), byFile);
  const bool stored =
      (walk.knownStored && walk.learnt == walk.known) || storeKnownFiles(walk.learnt);
  std::lock_guard<std::mutex> lock(knownMutex);
  knownFiles = std::move(walk.learnt);
  knownFilesStored = stored;
}

// The type of the file system at `rooted`, asked of a path-only descriptor: unlike a statfs by
// name, it never has an automounter mount what it serves there (a share that would then be
// mounted, or waited on while its server is down, for a scan that does not walk it anyway); such
// a point answers with the automounter's own type, which is not walked.
bool fileSystemTypeAt(const char* rooted, uint32_t* type) {
  const int fd = open(rooted, O_PATH | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return false;
  struct statfs info;
  const bool known = fstatfs(fd, &info) == 0;
  close(fd);
  if (known) *type = static_cast<uint32_t>(info.f_type);
  return known;
}

// Whether the device of an entry is on a walked file system. A device is asked about once (the
// type of a file system cannot change below it); a failed question decides for the path alone.
bool deviceWalked(Walk& walk, dev_t device) {
  if (walk.deviceCount > 0 && walk.devices[walk.lastDevice] == device) {
    return walk.walked[walk.lastDevice];
  }
  for (size_t i = 0; i < walk.deviceCount; ++i) {
    if (walk.devices[i] == device) {
      walk.lastDevice = i;
      return walk.walked[i];
    }
  }
  char rooted[2 * kSearchPathSize];
  uint32_t type = 0;
  if (!fileSystemTypeAt(rootedPath(walk.path, rooted, sizeof rooted), &type)) return false;
  const bool walked = isWalkedFileSystem(type);
  if (walk.deviceCount < Walk::kDeviceSlots) {
    walk.lastDevice = walk.deviceCount++;
    walk.devices[walk.lastDevice] = device;
    walk.walked[walk.lastDevice] = walked;
  }
  return walked;
}

// The mount points of the file systems that are not walked, from the kernel's mount table, as
// paths below the agent root, sorted. What is mounted last at a point stands, and hides whatever
// was mounted below it before. The walk leaves these points without a look: a network share whose
// server is down, or a file system whose serving process hangs, would hold a look (and the scan)
// up. None when the table cannot be read: the device check then leaves them out after a look.
std::vector<std::string> unwalkedMountPoints() {
  std::vector<std::string> points;
  FILE* mounts = setmntent("/proc/self/mounts", "re");
  if (mounts == nullptr) return points;
  const std::string& root = agentRoot();
  std::map<std::string, bool> visible;  // point, walked
  struct mntent entry;
  char text[4096];
  try {
    while (getmntent_r(mounts, &entry, text, sizeof text) != nullptr) {
      const std::string_view point = entry.mnt_dir;
      if (!point.starts_with(root) || point.size() <= root.size() + 1 ||
          point[root.size()] != '/') {
        continue;  // outside the root, or the root itself (which the walk's start decides)
      }
      std::string below(point.substr(root.size()));
      const bool walked = isWalkedFileSystemName(entry.mnt_type);
      // The points below this one: those that begin with it and a '/', before it and a '0'.
      below += '/';
      const auto first = visible.lower_bound(below);
      below.back() = '/' + 1;
      visible.erase(first, visible.lower_bound(below));
      below.pop_back();
      visible[below] = walked;
    }
    for (const auto& [point, walked] : visible) {
      if (!walked) points.push_back(point);
    }
  } catch (const std::bad_alloc&) {
    points.clear();
  }
  endmntent(mounts);
  return points;
}

// Whether the first `length` characters of the walk's path name such a point. A walk from "/"
// spells its paths with two leading slashes ("//usr"); the mount table with one.
bool isUnwalkedMountPoint(const Walk& walk, size_t length) {
  std::string_view path(walk.path, length);
  if (path.starts_with("//")) path.remove_prefix(1);
  return std::binary_search(walk.unwalkedMounts.begin(), walk.unwalkedMounts.end(), path,
                            std::less<>());
}

// Fills the record of the file at `path` and appends it; `nameOffset` is where its name begins.
int appendRecord(SlmList* list, const char* path, size_t nameOffset, off_t size) {
  InventoryRecord record{};
  const char* name = path + nameOffset;
  const size_t nameLength = strlen(name);
  // An ASCII name is the same in every code set the agent runs with: no conversion needed.
  if (std::all_of(name, name + nameLength, [](char c) { return (c & 0x80) == 0; })) {
    copyBounded(record.name, kFileNameSize - 1, name);
  } else {
    // A name the agent's code set cannot read keeps its readable part, so that the record is
    // whole and the server can still tell the file by name.
    (void)convertToUtf8Replacing(nullptr, name, record.name, kFileNameSize);
  }
  replaceControlBytes(record.name);
  // The record carries the 32-bit size, sign-extended, as the inventory transfer has always had.
  record.size = static_cast<int32_t>(size);
  copyBounded(record.directory, sizeof record.directory - 1, kBlankField);
  copyBounded(record.text1, sizeof record.text1 - 1, kBlankField);
  copyBounded(record.text2, sizeof record.text2 - 1, kBlankField);
  copyBounded(record.text3, sizeof record.text3 - 1, kBlankField);
  copyBounded(record.text4, sizeof record.text4 - 1, kBlankField);
  return append(list, &record) == kListOk ? kSearchOk : kSearchNoMemory;
}

// Reads the header of the open file and asks the predicates: kIsExecutable, kNotExecutable, or -1
// when the file is shorter than a header. Closes `fd`.
int readAnswer(int fd) {
  uint8_t header[kExecPrefixBytes];
  ssize_t got;
  do {
    got = read(fd, header, sizeof header);
  } while (got < 0 && errno == EINTR);
  int answer = -1;
  if (got >= static_cast<ssize_t>(kExecHeaderBytes)) {
    answer = kNotExecutable;
    for (size_t i = 0; i < fileExecPredicateCount && answer != kIsExecutable; ++i) {
      answer = fileExecPredicates[i](header, static_cast<size_t>(got), fd) == kIsExecutable
                   ? kIsExecutable
                   : kNotExecutable;
    }
  }
  close(fd);
  return answer;
}

// Whether the open `fd` is still the file a look at its name found: the same device, inode and
// type. A name can be given to another file between the look and the open.
bool isFileSeen(int fd, const struct stat& seen) {
  struct stat status;
  return fstat(fd, &status) == 0 && status.st_dev == seen.st_dev && status.st_ino == seen.st_ino &&
         (status.st_mode & S_IFMT) == (seen.st_mode & S_IFMT);
}

int recordAnswer(SlmList* list, const char* path, size_t nameOffset, off_t size, int answer) {
  if (answer < 0) return kSearchUnreadable;
  return answer == kIsExecutable ? appendRecord(list, path, nameOffset, size) : kSearchOk;
}

// Opens an entry of the open directory without touching its access time, so that a scan never
// makes the file system write inodes back; where the agent may not (a file of another owner
// without the capability), it opens the entry plainly.
int openEntry(int parentFd, const char* name, int flags) {
  int fd = openat(parentFd, name, flags | O_NOATIME);
  if (fd < 0 && errno == EPERM) fd = openat(parentFd, name, flags);
  return fd;
}

// Opens the candidate `name` (relative to `parentFd`, or a path) to read its header, when it is
// still the regular file `seen`; -1 otherwise. A FIFO renamed there after the look would hold a
// blocking open until some process wrote to it: the open does not wait.
int openCandidate(int parentFd, const char* name, const struct stat& seen) {
  const int fd =
      openEntry(parentFd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return -1;
  if (S_ISREG(seen.st_mode) && isFileSeen(fd, seen)) return fd;
  close(fd);
  return -1;
}

// Opens the directory `name` (relative to `parentFd`, or a path) when it is still the directory
// with `device` and `inode`; -1 otherwise: a directory put in its place, or a link, is not walked.
int openDirectory(int parentFd, const char* name, dev_t device, ino_t inode) {
  const int fd = openEntry(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return -1;
  struct stat seen {};
  seen.st_dev = device;
  seen.st_ino = inode;
  seen.st_mode = S_IFDIR;
  if (isFileSeen(fd, seen)) return fd;
  close(fd);
  return -1;
}

// Makes room for one more open directory: at the bound, the shallowest open one but `keep` is
// closed. The deepest stay open, as the walk needs them next.
void makeRoom(Walk& walk, size_t keep) {
  if (walk.openLevels < walk.maxOpenLevels) return;
  for (size_t i = 0; i < walk.levels.size(); ++i) {
    Level& level = walk.levels[i];
    if (level.fd < 0 || i == keep) continue;
    close(level.fd);
    level.fd = -1;
    --walk.openLevels;
    return;
  }
}

// The descriptor of the walk's directory at `depth`. One the bound closed is reopened name by
// name from the nearest ancestor still open (the start from its path), each directory checked to
// be the one seen before; -1 when one is gone or another: the rest below it is not walked.
int levelFd(Walk& walk, size_t depth) {
  size_t open = depth;
  while (open > 0 && walk.levels[open].fd < 0) --open;
  if (walk.levels[open].fd < 0) {
    makeRoom(walk, SIZE_MAX);
    const Level& start = walk.levels[0];
    const int fd = openDirectory(AT_FDCWD, walk.rootedStart.c_str(), start.device, start.inode);
    if (fd < 0) return -1;
    walk.levels[0].fd = fd;
    ++walk.openLevels;
  }
  for (size_t i = open + 1; i <= depth; ++i) {
    const size_t nameOffset = walk.levels[i - 1].length + 1;
    char name[NAME_MAX + 1];
    const size_t nameLength = std::min(walk.levels[i].length - nameOffset, sizeof name - 1);
    memcpy(name, walk.path + nameOffset, nameLength);
    name[nameLength] = '\0';
    makeRoom(walk, i - 1);
    const int fd =
        openDirectory(walk.levels[i - 1].fd, name, walk.levels[i].device, walk.levels[i].inode);
    if (fd < 0) return -1;
    walk.levels[i].fd = fd;
    ++walk.openLevels;
  }
  return walk.levels[depth].fd;
}

// As much as a directory read asks for at once: the entries of most directories in one call.
constexpr size_t kDirentBufferBytes = 32768;

// The next entry of the open directory `fd`, read into the walk's buffer a bufferful at a time;
// null at its end or on an error.
const dirent64* nextEntry(Walk& walk, int fd) {
  if (walk.direntAt >= walk.direntBytes) {
    const ssize_t got = getdents64(fd, walk.dirents.data(), walk.dirents.size());
    if (got <= 0) return nullptr;
    walk.direntAt = 0;
    walk.direntBytes = static_cast<size_t>(got);
  }
  const auto* entry = reinterpret_cast<const dirent64*>(walk.dirents.data() + walk.direntAt);
  walk.direntAt += entry->d_reclen;
  return entry;
}

bool hasExecuteBit(const struct stat& status) {
  return (status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
}

// What walkEntry answers for a directory to be entered: the walk enters it after the entries of
// its parent, so that the lookups of one directory's entries come together while the kernel still
// holds that directory's entries close at hand; a walk in that order runs markedly faster.
constexpr int kEnterLater = -1;
// What it answers for an executable beyond the bound on records: the walk ends there, and what it
// recorded stands.
constexpr int kRecordsBounded = -2;

// Whether a result ends the walk.
bool endsWalk(int result) {
  return result == kSearchNoMemory || result == kSearchStopped || result == kRecordsBounded;
}

// A directory to enter once its parent's entries are all seen: where its name lies in the
// parent's list of names, and what a look at it found.
struct Pending {
  size_t nameAt;
  dev_t device;
  ino_t inode;
};

int walkEntry(Walk& walk, int parentFd, size_t nameOffset, size_t length, unsigned char type,
              struct stat* status);

// Walks the open directory at `depth` of the walk's levels: its entries in the order read, then
// the directories among them. The buffer holds the directory's path again on return; the
// directory's level stays for the caller to close.
int walkDirectory(Walk& walk, size_t depth) {
  char* path = walk.path;
  const size_t length = walk.levels[depth].length;
  const int fd = walk.levels[depth].fd;
  path[length] = '/';
  path[length + 1] = '\0';
  const size_t nameOffset = length + 1;
  int result = kSearchOk;
  std::string names;  // the names of the directories to enter, each ended by a 0
  std::vector<Pending> later;
  walk.direntAt = walk.direntBytes = 0;
  for (const dirent64* entry = nextEntry(walk, fd); entry != nullptr; entry = nextEntry(walk, fd)) {
    const char* name = entry->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    const size_t nameLength = strlen(name);
    if (nameOffset + nameLength > kSearchPathMaxChars) continue;
    memcpy(path + nameOffset, name, nameLength + 1);
    struct stat status;
    result = walkEntry(walk, fd, nameOffset, nameOffset + nameLength, entry->d_type, &status);
    if (result == kEnterLater) {
      try {
        later.push_back({names.size(), status.st_dev, status.st_ino});
        names.append(name, nameLength + 1);
      } catch (const std::bad_alloc&) {
        result = kSearchNoMemory;
      }
    }
    if (endsWalk(result)) break;
    result = kSearchOk;
  }
  for (size_t i = 0; result == kSearchOk && i < later.size(); ++i) {
    const char* name = names.c_str() + later[i].nameAt;
    const size_t nameLength = strlen(name);
    const int parentFd = levelFd(walk, depth);
    if (parentFd < 0) {
      SLM_TRACE(1, "WARNING - Directory %.*s changed during the scan, not walked further",
                static_cast<int>(length), path);
      break;
    }
    memcpy(path + nameOffset, name, nameLength + 1);
    makeRoom(walk, depth);
    const int child = openDirectory(parentFd, name, later[i].device, later[i].inode);
    if (child < 0) continue;  // unreadable, or no longer what was seen: skipped
    // Room for every level a path can have was reserved before the walk.
    walk.levels.push_back({child, later[i].device, later[i].inode, nameOffset + nameLength});
    ++walk.openLevels;
    result = walkDirectory(walk, depth + 1);
    if (walk.levels.back().fd >= 0) {
      close(walk.levels.back().fd);
      --walk.openLevels;
    }
    walk.levels.pop_back();
    if (!endsWalk(result)) result = kSearchOk;
  }
  path[length] = '\0';
  return result;
}

// One entry of an open directory: its path fills the buffer up to `length`, its name begins at
// `nameOffset`. `status` gets what a look at it found, where one was made.
int walkEntry(Walk& walk, int parentFd, size_t nameOffset, size_t length, unsigned char type,
              struct stat* status) {
  const char* path = walk.path;
  const bool valid = walk.check == FileSystemCheck::kEveryPath ? isValidPath(path) == kPathValid
                                                               : !isExcludedEntry(path, nameOffset);
  if (!valid) {
    SLM_TRACE(3, "The path = %s is not valid", path);
    return kSearchOk;
  }
  // Links, devices, pipes and sockets are never recorded: the directory entry says enough.
  if (type == DT_LNK || type == DT_CHR || type == DT_BLK || type == DT_FIFO || type == DT_SOCK) {
    return kSearchOk;
  }
  if (walk.check == FileSystemCheck::kOncePerDevice && (type == DT_DIR || type == DT_UNKNOWN) &&
      isUnwalkedMountPoint(walk, length)) {
    SLM_TRACE(3, "The path = %s is not valid", path);
    return kSearchOk;
  }
  const char* name = path + nameOffset;
  // A directory too is looked at (and its device asked) before it is opened: an open would have
  // an automounter mount whatever it serves there. A look never does.
  if (fstatat(parentFd, name, status, AT_SYMLINK_NOFOLLOW) != 0) return kSearchUnreadable;
  if (walk.check == FileSystemCheck::kOncePerDevice && !deviceWalked(walk, status->st_dev)) {
    SLM_TRACE(3, "The path = %s is not valid", path);
    return kSearchOk;
  }
  if (S_ISDIR(status->st_mode)) {
    return length + 1 > kSearchPathMaxChars ? kSearchPathTooLong : kEnterLater;
  }
  // A file shorter than a header cannot be an executable: it is not opened.
  if (S_ISREG(status->st_mode) && hasExecuteBit(*status) &&
      status->st_size >= static_cast<off_t>(kExecHeaderBytes)) {
    const uint64_t file = fileOf(*status);
    const uint64_t state = stateOf(*status);
    int answer = knownAnswer(walk, file, state);
    if (answer < 0) {
      const int fd = openCandidate(parentFd, name, *status);
      if (fd < 0) return kSearchUnreadable;
      answer = readAnswer(fd);
    }
    if (answer >= 0) learn(walk, *status, file, state, answer);
    if (answer == kIsExecutable && walk.records >= walk.maxRecords) {
      SLM_TRACE(0, "WARNING - Scan stopped at %lld records (%s)",
                static_cast<long long>(walk.records), kMaxScanRecordsKey);
      return kRecordsBounded;
    }
    const int result = recordAnswer(walk.list, path, nameOffset, status->st_size, answer);
    if (result == kSearchOk && answer == kIsExecutable) ++walk.records;
    return result;
  }
  return kSearchOk;
}

// How many directories a walk keeps open: kMaxOpenScanDirectories, or half of what the process may
// open if that is less (its other threads need the rest), and never fewer than a directory and
// its parent.
size_t openDirectoryBound() {
  size_t bound = kMaxOpenScanDirectories;
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
    bound = std::min<size_t>(bound, limit.rlim_cur / 2);
  }
  return std::max<size_t>(bound, 2);
}

}  // namespace

const FileExecPredicate fileExecPredicates[] = {elfExecPred};
const size_t fileExecPredicateCount = std::size(fileExecPredicates);

bool isWalkedFileSystem(uint32_t type) {
  return std::find(std::begin(kWalkedFileSystems), std::end(kWalkedFileSystems), type) !=
         std::end(kWalkedFileSystems);
}

bool isWalkedFileSystemName(const char* name) {
  return std::any_of(std::begin(kWalkedFileSystemNames), std::end(kWalkedFileSystemNames),
                     [name](const char* walked) { return strcmp(walked, name) == 0; });
}

int elfExecPred(const uint8_t* header, size_t available, int fd) {
  if (memcmp(header, kElfMagic, sizeof kElfMagic) != 0) return kNotExecutable;
  const bool elf32 = header[kElfClassOffset] == kElfClass32;
  const uint16_t type = getFixed16(header + kElfTypeOffset);
  const uint16_t machine = getFixed16(header + kElfMachineOffset);
  const bool supported =
      elf32 ? machine == kElfMachine386 : machine == kElfMachineIa64 || machine == kElfMachineX8664;
  if (!supported) return kNotExecutable;
  if (type == kElfTypeExecutable) return kIsExecutable;
  if (type == kElfTypeShared && hasProgramInterpreter(header, available, fd, elf32)) {
    return kIsExecutable;
  }
  return kNotExecutable;
}

int isValidPath(const char* path) {
  if (isExcludedPath(path)) return kPathNotValid;
  struct statfs info;
  char rooted[2 * kSearchPathSize];
  if (statfs(rootedPath(path, rooted, sizeof rooted), &info) != 0) return kPathNotValid;
  return isWalkedFileSystem(static_cast<uint32_t>(info.f_type)) ? kPathValid : kPathNotValid;
}

int processFile(SlmList* list, char* path, const struct stat& fileStatus) {
  char rooted[2 * kSearchPathSize];
  const int fd = openCandidate(AT_FDCWD, rootedPath(path, rooted, sizeof rooted), fileStatus);
  if (fd < 0) return kSearchUnreadable;
  const char* slash = strrchr(path, '/');
  if (slash == nullptr) {
    close(fd);
    return kSearchUnreadable;
  }
  return recordAnswer(list, path, static_cast<size_t>(slash - path) + 1, fileStatus.st_size,
                      readAnswer(fd));
}

int analyzePath(SlmList* list, char* path, FileSystemCheck check) {
  if (isValidPath(path) != kPathValid) {
    SLM_TRACE(3, "The path = %s is not valid", path);
    return kSearchOk;
  }
  char rooted[2 * kSearchPathSize];
  rootedPath(path, rooted, sizeof rooted);
  struct stat status;
  if (lstat(rooted, &status) != 0) return kSearchUnreadable;
  Walk walk{};
  walk.list = list;
  walk.path = path;
  walk.check = check;
  walk.maxOpenLevels = openDirectoryBound();
  walk.maxRecords = securitySettings().maxScanRecords;
  // The start was checked by its path: its device is known to be walked.
  walk.devices[0] = status.st_dev;
  walk.walked[0] = true;
  walk.deviceCount = 1;
  if (S_ISDIR(status.st_mode)) {
    const size_t length = strlen(path);
    if (length + 1 > kSearchPathMaxChars) return kSearchPathTooLong;
    try {
      walk.dirents.resize(kDirentBufferBytes);
      // Every name of a path takes at least two characters, its "/" among them.
      walk.levels.reserve(kSearchPathSize / 2 + 1);
      walk.rootedStart = rooted;
    } catch (const std::bad_alloc&) {
      return kSearchNoMemory;
    }
    const int fd = openDirectory(AT_FDCWD, rooted, status.st_dev, status.st_ino);
    if (fd < 0) return kSearchUnreadable;
    if (check == FileSystemCheck::kOncePerDevice) walk.unwalkedMounts = unwalkedMountPoints();
    takeKnownFiles(walk);
    walk.levels.push_back({fd, status.st_dev, status.st_ino, length});
    walk.openLevels = 1;
    int result = walkDirectory(walk, 0);
    if (walk.levels[0].fd >= 0) close(walk.levels[0].fd);
    keepKnownFiles(walk);
    // A walk that met the bound on records delivers what it recorded.
    if (result == kRecordsBounded) result = kSearchOk;
    return result;
  }
  if (S_ISREG(status.st_mode) && hasExecuteBit(status)) return processFile(list, path, status);
  return kSearchOk;
}

int createInventoryList(SlmList* list) {
  char path[kSearchPathSize] = "/";
  return analyzePath(list, path);
}

uint64_t knownFilesCheck(const std::vector<KnownFile>& files) {
  uint64_t check = mixBits(files.size());
  for (const KnownFile& known : files) check = mixBits(mixBits(check ^ known.file) ^ known.state);
  return check;
}

std::vector<uint8_t> encodeKnownFiles(const std::vector<KnownFile>& files) {
  std::vector<uint8_t> raw(kKnownFilesHeaderSize + files.size() * kKnownFileSize);
  encodeCacheVersion({kKnownFilesMajor, kKnownFilesMinor}, raw.data());
  putFixed32(raw.data() + kKnownFilesCountOffset, static_cast<uint32_t>(files.size()));
  putFixed32(raw.data() + kKnownFilesCheckOffset, static_cast<uint32_t>(knownFilesCheck(files)));
  uint8_t* at = raw.data() + kKnownFilesHeaderSize;
  for (const KnownFile& known : files) {
    putFixed64(at, known.file);
    putFixed64(at + 8, known.state);
    at += kKnownFileSize;
  }
  return raw;
}

bool decodeKnownFiles(const uint8_t* raw, size_t size, std::vector<KnownFile>* files) {
  files->clear();
  if (size < kKnownFilesHeaderSize ||
      !(decodeCacheVersion(raw) == CacheVersion{kKnownFilesMajor, kKnownFilesMinor})) {
    return false;
  }
  const size_t count = getFixed32(raw + kKnownFilesCountOffset);
  if (count > kMaxKnownFiles || size != kKnownFilesHeaderSize + count * kKnownFileSize) {
    return false;
  }
  files->resize(count);
  const uint8_t* at = raw + kKnownFilesHeaderSize;
  for (KnownFile& known : *files) {
    known = {getFixed64(at), getFixed64(at + 8)};
    at += kKnownFileSize;
  }
  if (std::is_sorted(files->begin(), files->end(), byFile) &&
      static_cast<uint32_t>(knownFilesCheck(*files)) == getFixed32(raw + kKnownFilesCheckOffset)) {
    return true;
  }
  files->clear();
  return false;
}

void forgetKnownFiles(Forget what) {
  std::lock_guard<std::mutex> lock(knownMutex);
  knownFiles = {};
  knownFilesRead = what == Forget::kMemoryAndFile;
  // Forgotten both ways, nothing is known and no file holds anything: the two agree.
  knownFilesStored = knownFilesRead;
  if (what == Forget::kMemoryAndFile) {
    char path[kCachePathSize];
    remove(knownFilesPath(path));
  }
}

void stopInventoryListCreation() {
  stopped.store(1);
}

bool inventoryListCreationStopped() {
  return stopped.load() != 0;
}

int lowerScanPriority() {
  const pid_t self = gettid();
  int result = 0;
  if (syscall(SYS_ioprio_set, kIoprioWhoProcess, self, kIoprioClassIdle << kIoprioClassShift) !=
      0) {
    result = errno;
    SLM_TRACE(1, "WARNING - Idle I/O priority not set, error %d", result);
  }
  if (setpriority(PRIO_PROCESS, static_cast<id_t>(self), kLowestCpuPriority) != 0) {
    if (result == 0) result = errno;
    SLM_TRACE(1, "WARNING - Lowest CPU priority not set, error %d", errno);
  }
  return result;
}

}  // namespace slm
