// The disk walk of the inventory: from the root it enters the local disk file systems of known
// types and appends one InventoryRecord to a list for every executable program it finds. Symbolic
// links are never followed, and a name given to another file between a look and an open is
// skipped. Runs on the inventory thread (or an on-demand run); the list is private to the caller
// until the walk ends.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "agent_core/support/slm_list.h"

namespace slm {

// The walk's path buffer: paths as seen from the agent root, at most 4095 characters.
constexpr size_t kSearchPathSize = 4096;
constexpr size_t kSearchPathMaxChars = kSearchPathSize - 1;

constexpr int kSearchOk = 0;
constexpr int kSearchPathTooLong = 1;
constexpr int kSearchNoMemory = 2;
constexpr int kSearchUnreadable = 3;
constexpr int kSearchStopped = 4;  // passed up like kSearchNoMemory; nothing in the walk makes it

constexpr int kPathValid = 0;
constexpr int kPathNotValid = 5;

// File-system types (as statfs reports them) that are walked: the local disk file systems.
constexpr uint32_t kExtFileSystem = 0xEF53;
constexpr uint32_t kExtOldFileSystem = 0xEF51;
constexpr uint32_t kJfsFileSystem = 0x3153464A;
constexpr uint32_t kReiserFileSystem = 0x52654973;
constexpr uint32_t kXfsFileSystem = 0x58465342;
constexpr uint32_t kVxFileSystem = 0xA501FCF5;
// The disk file systems of current distributions.
constexpr uint32_t kBtrFileSystem = 0x9123683E;
constexpr uint32_t kF2FileSystem = 0xF2F52010;
constexpr uint32_t kBcacheFileSystem = 0xCA451A4E;
constexpr uint32_t kZfsFileSystem = 0x2FC12FC1;
constexpr uint32_t kWalkedFileSystems[] = {
    kExtFileSystem, kExtOldFileSystem, kJfsFileSystem, kReiserFileSystem, kXfsFileSystem,
    kVxFileSystem,  kBtrFileSystem,    kF2FileSystem,  kBcacheFileSystem, kZfsFileSystem};

// The same file systems by the names the kernel's mount table gives them.
constexpr const char* kWalkedFileSystemNames[] = {
    "ext2", "ext3", "ext4", "jfs", "reiserfs", "xfs", "vxfs", "btrfs", "bcachefs", "f2fs", "zfs"};

// Whether a file-system type, by number or by name, is one of the walked ones.
bool isWalkedFileSystem(uint32_t type);
bool isWalkedFileSystemName(const char* name);

// ---- Executable headers.

// How many leading bytes of a candidate file every predicate gets.
constexpr size_t kExecHeaderBytes = 20;
constexpr int kNotExecutable = 0;
constexpr int kIsExecutable = 1;

// How many leading bytes are read at once: a position-independent executable's program header
// table usually follows its header within them, so one read decides most files.
constexpr size_t kExecPrefixBytes = 256;

// Answers kIsExecutable or kNotExecutable from the first `available` (at least kExecHeaderBytes)
// bytes of a file; `fd` (or -1) lets a predicate read further where they cannot decide.
using FileExecPredicate = int (*)(const uint8_t* header, size_t available, int fd);

constexpr uint8_t kElfClass32 = 1;
constexpr uint16_t kElfTypeExecutable = 2;
constexpr uint16_t kElfTypeShared = 3;
constexpr uint16_t kElfMachine386 = 3;
constexpr uint16_t kElfMachineIa64 = 50;
constexpr uint16_t kElfMachineX8664 = 62;
constexpr uint32_t kElfProgramInterpreter = 3;  // program header type PT_INTERP

// An ELF executable for a supported processor: class 1 with machine 386, any other class with IA-64
// or x86-64. Type 2 counts; type 3 counts only when its program headers hold a program
// interpreter (position-independent executables, not shared libraries), read through `fd`.
int elfExecPred(const uint8_t* header, size_t available, int fd);

// Tried in order until one answers kIsExecutable. A change to what counts as an executable (here or
// in a predicate) must raise kKnownFilesMinor below: answers stored by an agent that counted
// otherwise are then read again instead of trusted.
extern const FileExecPredicate fileExecPredicates[];
extern const size_t fileExecPredicateCount;

// ---- The walk.

// How the file-system type is checked: once for each device the walk meets (from the lstat
// result), or, as a reference, by a statfs of every path.
enum class FileSystemCheck { kOncePerDevice, kEveryPath };

// At most this many directories of a walk are open at once (fewer where the process may open
// fewer than twice as many descriptors): a deeper one is entered after closing the shallowest, and
// that one is opened again by name when the walk comes back to it.
constexpr size_t kMaxOpenScanDirectories = 64;

// Walks from the root. kSearchOk when the walk finished (unreadable parts are skipped) or stopped
// at the bound on records (securitySettings().maxScanRecords, with a WARNING: the records made
// stand), kSearchNoMemory when a record could not be appended, kSearchPathTooLong or
// kSearchUnreadable only for the root itself.
[[nodiscard]] int createInventoryList(SlmList* list);

// Walks `path` (a kSearchPathSize buffer holding a path as seen from the root), recursively; the
// buffer is extended in place and holds `path` again afterwards. Results as createInventoryList;
// kSearchPathTooLong for a directory whose path has 4095 characters.
[[nodiscard]] int analyzePath(SlmList* list, char* path,
                              FileSystemCheck check = FileSystemCheck::kOncePerDevice);

// kPathValid when `path` lies on a walked file-system type and is not below the top-level
// directories /proc or /xfn; kPathNotValid otherwise, or when statfs fails.
[[nodiscard]] int isValidPath(const char* path);

// Tests the file at `path` (as seen from the root, lstat result `fileStatus`) and appends its
// record when it is an executable. kSearchOk (recorded or not an executable), kSearchNoMemory,
// kSearchUnreadable (cannot be opened or is no longer the regular file `fileStatus` describes,
// shorter than the header, or no "/" in the path).
[[nodiscard]] int processFile(SlmList* list, char* path, const struct stat& fileStatus);

// ---- What walks learn.
//
// A walk from a directory keeps, for the next one, whether each candidate file it read was an
// executable, and the next walk reads again only the files whose size or times have moved since
// (or that had changed just before they were read). What it kept is also stored in
// "scanknown.dat" in the cache directory, so that the first walk after a restart reads no more.

// A file, and its state when its answer was read: hashes of (device, inode) and of (size, times),
// the answer in the state's lowest bit.
struct KnownFile {
  uint64_t file;
  uint64_t state;
  bool operator==(const KnownFile&) const = default;
};

// "scanknown.dat", little-endian: the version pair, the count of entries, a check of the entries
// (the low 32 bits of knownFilesCheck), then the entries in ascending order of file, 16 bytes
// each: the file, then the state.
constexpr char kKnownFilesFileName[] = "scanknown.dat";
constexpr uint32_t kKnownFilesMajor = 1;
constexpr uint32_t kKnownFilesMinor = 1;  // raised whenever what counts as an executable changes
constexpr size_t kKnownFilesCountOffset = 8;
constexpr size_t kKnownFilesCheckOffset = 12;
constexpr size_t kKnownFilesHeaderSize = 16;
constexpr size_t kKnownFileSize = 16;
// At most this many answers are kept (4 MiB): more than the candidates of almost any machine.
constexpr size_t kMaxKnownFiles = size_t{1} << 18;

uint64_t knownFilesCheck(const std::vector<KnownFile>& files);
// The bytes of the file for `files` (in ascending order of file, at most kMaxKnownFiles).
std::vector<uint8_t> encodeKnownFiles(const std::vector<KnownFile>& files);
// The entries of a file of `size` bytes. False, with `files` empty, for any file this agent did
// not write whole: another version, a size or count that do not agree, entries out of order, a
// check that fails.
[[nodiscard]] bool decodeKnownFiles(const uint8_t* raw, size_t size, std::vector<KnownFile>* files);

enum class Forget {
  kMemory,         // as at a restart: the next walk takes what "scanknown.dat" holds
  kMemoryAndFile,  // the next walk reads every candidate
};
void forgetKnownFiles(Forget what);

// Sets the stop flag. A walk that has begun still runs to its end: the inventory is stopped
// between the scan and the sending instead.
void stopInventoryListCreation();
bool inventoryListCreationStopped();

// Puts the calling thread (only it) at idle I/O priority and the lowest CPU priority, so that a
// scan does not slow the machine or the agent's other threads. 0, or the first errno.
int lowerScanPriority();

}  // namespace slm
