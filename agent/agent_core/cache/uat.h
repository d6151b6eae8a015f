// The unknown files table (the UAT): the executables the agent saw started that the catalog does
// not know, each kept once, uploaded to the server once after it was added, and dropped when its
// file has gone from the disk. Stored in "uat.dat" at stop and read back at start; dumped to
// "traceuat.log" whenever it changes while trace level 1 is on.
// One process-wide instance guarded by one mutex: the monitor thread adds while the commands
// thread walks and uploads. The server cache's read lock may be taken while the mutex is held.
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent_core/cache/lat.h"
#include "agent_core/data/slm_time.h"

namespace slm {

constexpr size_t kUnknownPathSize = 404;

// An unknown executable: its name, size and attributes laid out as in a catalog file record, the
// directory it was found in and the agent time it was added at.
struct UnknownFileEntry {
  char name[kFileNameSize];
  int64_t size;
  int32_t attribute1;
  int32_t attribute2;
  char path[kUnknownPathSize];
  AgentTime lastUpdateTime;
};

// An entry in "uat.dat".
constexpr size_t kUnknownPathOffset = kFileKeySize;
constexpr size_t kUnknownTimeOffset = 680;
constexpr size_t kUnknownEntrySize = 684;
static_assert(kUnknownPathOffset + kUnknownPathSize == kUnknownTimeOffset);
static_assert(kUnknownTimeOffset + 4 == kUnknownEntrySize);

// The name and the path are written as held; the padding comes out as zeros.
void encodeUnknownFileEntry(const UnknownFileEntry& entry, uint8_t* out);
// The name and the path are always terminated in their last byte.
void decodeUnknownFileEntry(const uint8_t* in, UnknownFileEntry* entry);

// Non-zero when the two entries (UnknownFileEntry*) are the same file: equal sizes and names equal
// without regard to case. The directory takes no part.
int compareUATEntries(const void* stored, const void* match);

// "uat.dat": the common cache header (its time is the last upload time), then entries up to the
// end of the file.
constexpr char kUatFileName[] = "uat.dat";
constexpr char kUatDumpFileName[] = "traceuat.log";

constexpr int kUatOk = 0;
constexpr int kUatFailed = 1;
constexpr int kUatKnown = 5;   // an entry for the same file exists already
constexpr int kUatNoMore = 7;  // the walk has no further entry

// Creates the table and loads "uat.dat" (a missing or bad file leaves it empty). kUatOk, or
// kUatFailed when the mutex, the table or the version registration fails.
[[nodiscard]] int createUATCache();
// Writes "uat.dat" and frees the table and the mutex.
void deleteUATCache();
// Frees the table and the mutex without writing: a start-up that failed after the table was made.
void discardUATCache();

// kUatOk: added. kUatKnown: the table holds the same file already and stays as it was (the
// earlier entry keeps its time and path). kUatFailed: mutex or memory.
[[nodiscard]] int addUnknownFileEntry(const UnknownFileEntry* entry);
// Removes the entry of the same file. kUatOk, or kUatFailed (also when there is none).
int delUnknownFileEntry(const UnknownFileEntry* entry);
// The walk over the entries added at or after the last upload time: `restart` 1 starts at the
// table's beginning, 0 goes on. kUatOk with the next such entry in *entry; kUatNoMore at the end;
// kUatFailed for a null `entry` or a mutex failure. One walk at a time.
[[nodiscard]] int copyNextUpdatedInstance(UnknownFileEntry* entry, int restart);
// Whether the entry's file (its directory and name, under the agent root) is still on the disk.
bool isUnknownFileOnDisk(const UnknownFileEntry& entry);
// Drops every entry whose file is no longer on the disk. kUatOk or kUatFailed.
int cleanUnknownTable();
// Empties the table and sets the last upload time to 0. kUatOk or kUatFailed.
int resetUATCache();

void setLastUploadTime(AgentTime time);
AgentTime getLastUploadTime();
int32_t getNumberOfUploads();
void setNumberOfUploads(int32_t count);
int32_t getUnknownFilesNumber();

// Loads "uat.dat": kUatOk; kCacheFileMissing (6) when there is none; kUatFailed for a bad header
// or an entry that cannot be added, a duplicate included (the entries before it stay, the last
// upload time stays what it was before the load).
int readUnknownFileList();
// Writes "uat.dat". kUatOk or kUatFailed.
int writeUnknownFileList();
// Writes the dump `fileName` in the log directory: every entry added at or after `fromTime`, then
// the real last upload time. kUatOk, or kUatFailed when the file or the mutex fails.
int printUATCache(const char* fileName, AgentTime fromTime);

}  // namespace slm
