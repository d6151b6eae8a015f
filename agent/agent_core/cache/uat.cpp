// The unknown files table: the entry codec, the table with its mutex, the upload walk, the
// cleaning, "uat.dat" and the dump.
#include "agent_core/cache/uat.h"

#include <strings.h>
#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "agent_core/cache/cache_file.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/file_handle.h"
#include "agent_core/support/hash_table.h"
#include "agent_core/support/slm_lock.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"

namespace slm {
namespace {

constexpr char kLogDir[] = "/var/qsam/log";
constexpr AgentTime kDumpFromTime = 1;

struct UnknownFiles {
  SlmMutex* mutex = nullptr;
  HashTable* table = nullptr;    // UnknownFileEntry values keyed by size, several per key
  AgentTime lastUploadTime = 0;  // 0: never
  int32_t uploads = 0;           // since this start; the commands thread's alone
  char path[kCachePathSize] = "";
};

// Guarded by uat.mutex, except `uploads`.
UnknownFiles uat;

bool dumpWanted() {
  return traceActive(1);
}

void dump() {
  if (dumpWanted()) (void)printUATCache(kUatDumpFileName, kDumpFromTime);
}

// Adds under the mutex; the dump is the caller's.
int addEntry(const UnknownFileEntry* entry) {
  if (uat.mutex == nullptr || lockMutex(uat.mutex) != kMutexOk) return kUatFailed;
  int result = kUatOk;
  if (findHtElement(uat.table, entry->size, entry, compareUATEntries) != nullptr) {
    SLM_TRACE(2, " - File %s found in UAT", entry->name);
    result = kUatKnown;
  } else if (void* stored = addHtElement(uat.table, entry->size)) {
    memcpy(stored, entry, sizeof *entry);
    SLM_TRACE(2, " - New file %s added in UAT", entry->name);
  } else {
    result = kUatFailed;
  }
  unlockMutex(uat.mutex);
  return result;
}

// The next entry of the walk added at or after `from`, or null at the end. Under the mutex.
const UnknownFileEntry* nextEntryFrom(AgentTime from, int restart) {
  for (void* value = findHtNextElement(uat.table, restart); value != nullptr;
       value = findHtNextElement(uat.table, 0)) {
    const auto* entry = static_cast<const UnknownFileEntry*>(value);
    if (entry->lastUpdateTime >= from) return entry;
  }
  return nullptr;
}

// A write that failed while the mutex was held: the mutex is released, and the failure's message
// (with `detail` and the path) is written only when that release fails too. The file stored before
// stays in place.
int failWrite(FILE* file, const char* message, const char* detail = nullptr) {
  if (unlockMutex(uat.mutex) != kMutexOk) {
    if (detail != nullptr) {
      SLM_TRACE(0, message, detail, uat.path);
    } else {
      SLM_TRACE(0, message, uat.path);
    }
  }
  discardCacheFile(file, uat.path);
  return kUatFailed;
}

bool writeAll(FILE* file, const uint8_t* bytes, size_t size) {
  return fwrite(bytes, 1, size, file) == size;
}

}  // namespace

void encodeUnknownFileEntry(const UnknownFileEntry& entry, uint8_t* out) {
  encodeFileKey(entry.name, entry.size, static_cast<uint32_t>(entry.attribute1),
                static_cast<uint32_t>(entry.attribute2), out);
  memcpy(out + kUnknownPathOffset, entry.path, kUnknownPathSize);
  putFixed32(out + kUnknownTimeOffset, static_cast<uint32_t>(entry.lastUpdateTime));
}

void decodeUnknownFileEntry(const uint8_t* in, UnknownFileEntry* entry) {
  uint32_t first = 0, second = 0;
  decodeFileKey(in, entry->name, &entry->size, &first, &second);
  entry->attribute1 = static_cast<int32_t>(first);
  entry->attribute2 = static_cast<int32_t>(second);
  memcpy(entry->path, in + kUnknownPathOffset, kUnknownPathSize);
  entry->path[kUnknownPathSize - 1] = '\0';
  entry->lastUpdateTime = static_cast<AgentTime>(getFixed32(in + kUnknownTimeOffset));
}

bool isUnknownFileOnDisk(const UnknownFileEntry& entry) {
  char relative[kUnknownPathSize + kFileNameSize + 1];
  size_t length = strnlen(entry.path, kUnknownPathSize);
  bool slash = length > 0 && entry.path[length - 1] == '/';
  snprintf(relative, sizeof relative, slash ? "%s%s" : "%s/%s", entry.path, entry.name);
  char path[kCachePathSize];
  struct stat status;
  return lstat(rootedPath(relative, path, sizeof path), &status) == 0;
}

int compareUATEntries(const void* stored, const void* match) {
  const auto* a = static_cast<const UnknownFileEntry*>(stored);
  const auto* b = static_cast<const UnknownFileEntry*>(match);
  return a->size == b->size && strncasecmp(a->name, b->name, kFileNameSize) == 0;
}

int createUATCache() {
  uat.mutex = createMutex();
  if (uat.mutex == nullptr) return kUatFailed;
  uat.table = initHashTable(sizeof(UnknownFileEntry), kHashBuckets, 1);
  if (uat.table == nullptr) {
    deleteMutex(uat.mutex);
    uat.mutex = nullptr;
    return kUatFailed;
  }
  uat.lastUploadTime = 0;
  uat.uploads = 0;
  if (setCacheVersion(kUatFileId, kUatCacheVersion.majorNumber, kUatCacheVersion.minorNumber) !=
      kCacheVersionOk) {
    SLM_TRACE(0, "ERROR - Setting UAT cache version");
    deleteHashTable(uat.table);
    deleteMutex(uat.mutex);
    uat.table = nullptr;
    uat.mutex = nullptr;
    return kUatFailed;
  }
  if (readUnknownFileList() != kUatOk) SLM_TRACE(1, "UAT - no Unknown Files file %s", uat.path);
  return kUatOk;
}

void deleteUATCache() {
  if (uat.mutex == nullptr) return;
  if (writeUnknownFileList() != kUatOk) {
    SLM_TRACE(0, "ERROR - Writing unknown file list to file %s", uat.path);
  }
  discardUATCache();
}

void discardUATCache() {
  deleteHashTable(uat.table);
  deleteMutex(uat.mutex);
  uat.table = nullptr;
  uat.mutex = nullptr;
}

int addUnknownFileEntry(const UnknownFileEntry* entry) {
  int result = addEntry(entry);
  if (result == kUatOk) dump();
  return result;
}

int delUnknownFileEntry(const UnknownFileEntry* entry) {
  if (uat.mutex == nullptr || lockMutex(uat.mutex) != kMutexOk) return kUatFailed;
  int deleted = deleteHtElement(uat.table, entry->size, entry, compareUATEntries);
  unlockMutex(uat.mutex);
  if (deleted != kHtDeleted) {
    SLM_TRACE(0, "ERROR - Removing an element from UAT table");
    return kUatFailed;
  }
  SLM_TRACE(2, "delUnknownFileEntry - Element removed from UAT table");
  return kUatOk;
}

int copyNextUpdatedInstance(UnknownFileEntry* entry, int restart) {
  if (entry == nullptr) return kUatFailed;
  if (uat.mutex == nullptr || lockMutex(uat.mutex) != kMutexOk) return kUatFailed;
  // "Not earlier than": an entry added in the second of the last upload goes out again.
  const UnknownFileEntry* next = nextEntryFrom(uat.lastUploadTime, restart);
  if (next != nullptr) memcpy(entry, next, sizeof *entry);
  unlockMutex(uat.mutex);
  return next != nullptr ? kUatOk : kUatNoMore;
}

int cleanUnknownTable() {
  if (uat.mutex == nullptr || lockMutex(uat.mutex) != kMutexOk) return kUatFailed;
  if (getHtElementsNum(uat.table) == 0) {
    unlockMutex(uat.mutex);
    SLM_TRACE(1, " - Unknown cache empty");
    return kUatOk;
  }
  int result = kUatOk;
  // Removing an entry frees only its own slot, which the walk has passed already.
  for (void* value = findHtNextElement(uat.table, 1); value != nullptr;
       value = findHtNextElement(uat.table, 0)) {
    UnknownFileEntry entry;
    memcpy(&entry, value, sizeof entry);
    if (isUnknownFileOnDisk(entry)) continue;
    if (deleteHtElement(uat.table, entry.size, &entry, compareUATEntries) != kHtDeleted) {
      SLM_TRACE(0, "ERROR - Removing unknown files from UAT");
      result = kUatFailed;
      break;
    }
  }
  // A walk that stopped early must not leave its position to the next one.
  uat.table->arena->walkBlock = nullptr;
  unlockMutex(uat.mutex);
  dump();
  return result;
}

int resetUATCache() {
  if (uat.mutex == nullptr || lockMutex(uat.mutex) != kMutexOk) return kUatFailed;
  resetHashTable(uat.table);
  uat.table->count = 0;  // emptying a table leaves its count to its owner
  uat.lastUploadTime = 0;
  unlockMutex(uat.mutex);
  dump();
  return kUatOk;
}

void setLastUploadTime(AgentTime time) {
  if (uat.mutex == nullptr || lockMutex(uat.mutex) != kMutexOk) return;
  uat.lastUploadTime = time;
  unlockMutex(uat.mutex);
  dump();
}

AgentTime getLastUploadTime() {
  if (uat.mutex == nullptr || lockMutex(uat.mutex) != kMutexOk) return 0;
  AgentTime time = uat.lastUploadTime;
  unlockMutex(uat.mutex);
  return time;
}

int32_t getNumberOfUploads() {
  return uat.uploads;
}

void setNumberOfUploads(int32_t count) {
  uat.uploads = count;
}

int32_t getUnknownFilesNumber() {
  if (uat.mutex == nullptr || lockMutex(uat.mutex) != kMutexOk) return 0;
  int32_t count = getHtElementsNum(uat.table);
  unlockMutex(uat.mutex);
  return count;
}

int readUnknownFileList() {
  cacheFilePath(kUatFileName, uat.path);
  AgentTime before = uat.lastUploadTime;
  FILE* opened = nullptr;
  int64_t timestamp = 0;
  int result = openCacheFile(uat.path, kUatFileId, &opened, &timestamp);
  if (result == kCacheFileMissing) return kCacheFileMissing;
  if (result != kCacheFileValid) {
    SLM_TRACE(0,
              "WARNING - The version in file %s is not supported or the runtime server has been "
              "changed.",
              uat.path);
    return kUatFailed;
  }
  FileHandle file(opened);
  uat.lastUploadTime = static_cast<AgentTime>(static_cast<uint32_t>(timestamp));

  uint8_t bytes[kUnknownEntrySize];
  // Entries run to the end of the file; a partial last one is what a cut write leaves.
  while (fread(bytes, 1, kUnknownEntrySize, file.get()) == kUnknownEntrySize) {
    UnknownFileEntry entry{};
    decodeUnknownFileEntry(bytes, &entry);
    if (addEntry(&entry) != kUatOk) {
      // A file holding the same program twice was not written by this table.
      uat.lastUploadTime = before;
      dump();
      return kUatFailed;
    }
  }
  file.reset();
  SLM_TRACE(1, "UAT - The unknown file list has been read from file %s, %d entries", uat.path,
            static_cast<int>(getHtElementsNum(uat.table)));
  dump();
  return kUatOk;
}

int writeUnknownFileList() {
  cacheFilePath(kUatFileName, uat.path);
  FILE* file = createCacheFile(uat.path);
  if (file == nullptr) {
    SLM_TRACE(0, "ERROR - Opening file %s to write the unknown file list", uat.path);
    return kUatFailed;
  }
  uint8_t bytes[kUnknownEntrySize];
  CacheVersion version;
  bool versionWritten = getCacheVersion(kUatFileId, &version) == kCacheVersionOk;
  if (versionWritten) {
    encodeCacheVersion(version, bytes);
    versionWritten = writeAll(file, bytes, kCacheVersionSize);
  }
  if (!versionWritten || uat.mutex == nullptr || lockMutex(uat.mutex) != kMutexOk) {
    discardCacheFile(file, uat.path);
    return kUatFailed;
  }
  putFixed64(bytes, static_cast<uint64_t>(static_cast<int64_t>(uat.lastUploadTime)));
  if (!writeAll(file, bytes, kCacheTimestampSize)) {
    return failWrite(file, "ERROR - Writing the last upload time to file %s");
  }
  char serverName[kCacheServerNameSize] = "";
  ServerInfo info{};
  if (firstServer(kAnyServer, &info) != kSrvsOk) {
    return failWrite(file, "ERROR - Getting preferred server");
  }
  copyBounded(serverName, kCacheServerNameSize - 1, info.address.host);
  putText(bytes, kCacheServerNameSize, serverName);
  if (!writeAll(file, bytes, kCacheServerNameSize)) {
    return failWrite(file, "ERROR - Writing the server name to file %s");
  }
  for (void* value = findHtNextElement(uat.table, 1); value != nullptr;
       value = findHtNextElement(uat.table, 0)) {
    const auto* entry = static_cast<const UnknownFileEntry*>(value);
    encodeUnknownFileEntry(*entry, bytes);
    if (!writeAll(file, bytes, kUnknownEntrySize)) {
      uat.table->arena->walkBlock = nullptr;
      return failWrite(file, "ERROR - Writing the unknown file %s to file %s", entry->name);
    }
  }
  bool released = unlockMutex(uat.mutex) == kMutexOk;
  bool committed = commitCacheFile(file, uat.path);
  if (!released || !committed) {
    SLM_TRACE(0, "ERROR - After writing the unknown files to file %s", uat.path);
    return kUatFailed;
  }
  SLM_TRACE(1, "UAT - Data written into file %s", uat.path);
  return kUatOk;
}

int printUATCache(const char* fileName, AgentTime fromTime) {
  char path[kCachePathSize];
  // Replaced by a new file: a truncated and rewritten one is flushed to the disk when it is
  // closed, and the dump is rewritten after every change.
  remove(rootedFilePath(kLogDir, fileName, path));
  FILE* file = fopen(path, "we");
  if (file == nullptr) return kUatFailed;
  if (uat.mutex == nullptr || lockMutex(uat.mutex) != kMutexOk) {
    fclose(file);
    return kUatFailed;
  }
  // The dump walks on its own: an upload's walk in progress keeps its position.
  Arena* arena = uat.table->arena;
  ArenaBlock* walkBlock = arena->walkBlock;
  size_t walkSlot = arena->walkSlot;

  fputs("\n      -*- UNKNOWN FILES CACHE -*-\n\n", file);
  fputs("\n", file);
  int listed = 0;
  for (const UnknownFileEntry* entry = nextEntryFrom(fromTime, 1); entry != nullptr;
       entry = nextEntryFrom(fromTime, 0)) {
    char sizeText[24];
    snprintf(sizeText, sizeof sizeText, "%" PRId64, entry->size);
    fprintf(file, " File name: %s, size: %s, path: %s\n    last update time: %d\n\n", entry->name,
            sizeText, entry->path, entry->lastUpdateTime);
    ++listed;
  }
  if (listed == 0) {
    fprintf(file, " Empty cache, last upload time %d", uat.lastUploadTime);
  } else {
    fprintf(file, " Cache from time %d, last upload time %d", fromTime, uat.lastUploadTime);
  }
  arena->walkBlock = walkBlock;
  arena->walkSlot = walkSlot;
  unlockMutex(uat.mutex);
  return fclose(file) == 0 ? kUatOk : kUatFailed;
}

}  // namespace slm
