// The catalog cache (the LAT): the software components and executable files the server knows, the
// components in a hash table and the files in a compact table (lat_files), both under one
// read-write lock. Every executable started on the machine is looked up here; downloaded
// increments are merged in. Stored in "catalog.dat" at stop and read back at start. One
// process-wide instance: lookups take the lock for reading, merges, resets and the store for
// writing. When the server cache's read lock is needed too, the catalog lock is always taken first.
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent_core/support/slm_list.h"

namespace slm {

constexpr size_t kFileNameSize = 256;  // a base name of at most 255 bytes
constexpr int32_t kMaxFileComponents = 16;

// A software component of the catalog.
struct ComponentRecord {
  int64_t compId;    // never 0
  int64_t reserved;  // kept as received
  uint8_t attributes[3];
};

// An executable file of the catalog. A file is its size together with its name compared without
// regard to case; it lists the components that contain it.
struct FileRecord {
  char name[kFileNameSize];
  int64_t size;  // never 0
  int32_t attribute1;
  int32_t attribute2;
  int64_t componentIds[kMaxFileComponents];  // unused slots are 0
  int32_t componentCount;                    // 0 to 16
};

// A component record in "catalog.dat".
constexpr size_t kComponentIdOffset = 0;
constexpr size_t kComponentReservedOffset = 8;
constexpr size_t kComponentAttributesOffset = 16;
constexpr size_t kComponentPaddingOffset = 19;
constexpr size_t kComponentRecordSize = 20;
static_assert(kComponentReservedOffset + 8 == kComponentAttributesOffset);
static_assert(kComponentAttributesOffset + 3 == kComponentPaddingOffset);
static_assert(kComponentPaddingOffset + 1 == kComponentRecordSize);

// A file record in "catalog.dat". Its first kFileKeySize bytes are also the start of an unknown
// file entry and of an inventory record.
constexpr size_t kFileNameOffset = 0;
constexpr size_t kFileSizeOffset = 256;
constexpr size_t kFileAttribute1Offset = 264;
constexpr size_t kFileAttribute2Offset = 268;
constexpr size_t kFilePaddingOffset = 272;
constexpr size_t kFileKeySize = 276;
constexpr size_t kFileComponentIdsOffset = 276;
constexpr size_t kFileComponentCountOffset = 404;
constexpr size_t kFileRecordSize = 408;
static_assert(kFileNameOffset + kFileNameSize == kFileSizeOffset);
static_assert(kFileSizeOffset + 8 == kFileAttribute1Offset);
static_assert(kFileAttribute1Offset + 4 == kFileAttribute2Offset);
static_assert(kFileAttribute2Offset + 4 == kFilePaddingOffset);
static_assert(kFilePaddingOffset + 4 == kFileComponentIdsOffset);
static_assert(kFileComponentIdsOffset + 8 * kMaxFileComponents == kFileComponentCountOffset);
static_assert(kFileComponentCountOffset + 4 == kFileRecordSize);

// The leading kFileKeySize bytes that a file record, an unknown file entry and an inventory record
// share: the name's 256 bytes as held, the size, two 32-bit words, then zeros.
void encodeFileKey(const char* name, int64_t size, uint32_t first, uint32_t second, uint8_t* out);
// The name comes out terminated in its last byte.
void decodeFileKey(const uint8_t* in, char* name, int64_t* size, uint32_t* first, uint32_t* second);

void encodeComponentRecord(const ComponentRecord& record, uint8_t* out);
void decodeComponentRecord(const uint8_t* in, ComponentRecord* record);
// The padding comes out as zeros; the name's 256 bytes are written as they are held.
void encodeFileRecord(const FileRecord& record, uint8_t* out);
// The name is always terminated in its last byte; the count is kept as read, readers bound it.
void decodeFileRecord(const uint8_t* in, FileRecord* record);

// Non-zero when the two file records (FileRecord*) are the same file: equal sizes and names equal
// without regard to case.
int compareFiles(const void* stored, const void* match);

// "catalog.dat": the common cache header (its time is the last update time), the number of
// components C, C component records, then file records up to the end of the file.
constexpr char kCatalogFileName[] = "catalog.dat";
constexpr size_t kCatalogComponentCountOffset = 272;
constexpr size_t kCatalogRecordsOffset = 276;

// The files table's index starts with this many slots. A load sizes it for the records of its
// file; a download grows it as files come in.
constexpr int32_t kCatalogFileSlots = 4096;

// A load or a download hands its records to the merge in batches of at most this many, so that
// the records stand in lists beside the tables a batch at a time, never the whole catalog.
constexpr int32_t kCatalogBatchRecords = 1024;

constexpr int kLatOk = 0;
constexpr int kLatFailed = 1;
constexpr int kLatNotFound = 2;

// Builds the cache and loads "catalog.dat" (a missing or bad file leaves the catalog empty with
// last update time 0). kLatOk, or kLatFailed after its message when any part cannot be built.
[[nodiscard]] int createComponentsCache();
// The same with a files index that starts with `fileSlots` slots.
[[nodiscard]] int createComponentsCacheWithSlots(int32_t fileSlots);
// Stores the catalog (its result is not looked at) and frees the tables and the lock.
void deleteComponentsCache();
// Frees the tables and the lock without storing: a start-up that failed after the cache was made.
void discardComponentsCache();

// Reads "catalog.dat" into a list of ComponentRecord and a list of FileRecord, and its time into
// the last update time. kLatOk; kCacheFileMissing (6) when there is no file; kLatFailed for a bad
// header (the last update time is then 0) or a cut component record (the records read stay in the
// lists). A partial last file record is dropped.
int loadCatalogFile(SlmList* components, SlmList* files);
// Writes "catalog.dat". kLatOk or kLatFailed.
int storeCatalog();

void setLATLastUpdateTime(int64_t time);
int64_t getLATLastUpdateTime();

// kLatOk with the component's record in *record, kLatNotFound, or kLatFailed when the lock fails.
[[nodiscard]] int getComponentEntry(int64_t compId, ComponentRecord* record);
// Looks the file of `key` (its name and size) up. kLatOk: *record holds the catalog's record and,
// when `components` is not null (room for kMaxFileComponents records), the file's components that
// the catalog has, *count of them. kLatNotFound: the file is unknown. kLatFailed: a lock failed.
[[nodiscard]] int findFileEntry(const FileRecord* key, FileRecord* record,
                                ComponentRecord* components, int32_t* count);
// Merges the records of a downloaded increment: each component and file replaces the one with its
// id or identity, or is added. Nothing is removed. kLatOk, or kLatFailed when the lock or an
// addition fails.
[[nodiscard]] int updateCatalog(SlmList* components, SlmList* files);
// Empties both tables and sets the last update time to 0. kLatOk or kLatFailed.
int resetComponentsCache();

// Counts of the tables, for traces and tests.
int32_t getCatalogFilesNumber();
int32_t getCatalogComponentsNumber();

}  // namespace slm
