// The catalog cache: the record codecs, the two tables with their lock, the lookup, the merge and
// "catalog.dat".
#include "agent_core/cache/lat.h"

#include <malloc.h>
#include <strings.h>
#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "agent_core/cache/cache_file.h"
#include "agent_core/cache/lat_files.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/file_handle.h"
#include "agent_core/support/hash_table.h"
#include "agent_core/support/slm_lock.h"
#include "agent_core/support/trace.h"

namespace slm {
namespace {

constexpr size_t kComponentIdText = 24;

struct Catalog {
  SlmRwLock* lock = nullptr;
  CatalogFiles* files = nullptr;
  HashTable* components = nullptr;  // ComponentRecord values keyed by id
  int64_t lastUpdateTime = 0;       // read and written without the lock
  char path[kCachePathSize] = "";
};

Catalog lat;

// Frees whatever exists of the cache.
void freeCatalog() {
  deleteCatalogFiles(lat.files);
  deleteHashTable(lat.components);
  if (lat.lock != nullptr) freeRwl(lat.lock);
  lat.files = nullptr;
  lat.components = nullptr;
  lat.lock = nullptr;
}

// The working lists of a load are freed once their last records are merged; what they held goes
// back to the system, which takes it back only when asked.
void freeLists(SlmList* components, SlmList* files) {
  deleteList(components);
  deleteList(files);
  malloc_trim(0);
}

void int64Text(int64_t value, char* out) {
  snprintf(out, kComponentIdText, "%" PRId64, value);
}

// A store that failed after the lock was taken: the lock is released, and the failure's message
// is written only when that release fails too. The new file is dropped; the catalog stored before
// stays in place.
int failStore(FILE* file, const char* message) {
  if (releaseLock(lat.lock) != kRwlOk) SLM_TRACE(0, message, lat.path);
  discardCacheFile(file, lat.path);
  return kLatFailed;
}

// Writes the name of the preferred server, taken under the server cache's read lock.
bool preferredServerName(char* name) {
  ServerInfo info{};
  if (firstServer(kAnyServer, &info) != kSrvsOk) return false;
  copyBounded(name, kCacheServerNameSize - 1, info.address.host);
  return true;
}

bool writeAll(FILE* file, const uint8_t* bytes, size_t size) {
  return fwrite(bytes, 1, size, file) == size;
}

}  // namespace

void encodeComponentRecord(const ComponentRecord& record, uint8_t* out) {
  putFixed64(out + kComponentIdOffset, static_cast<uint64_t>(record.compId));
  putFixed64(out + kComponentReservedOffset, static_cast<uint64_t>(record.reserved));
  memcpy(out + kComponentAttributesOffset, record.attributes, 3);
  out[kComponentPaddingOffset] = 0;
}

void decodeComponentRecord(const uint8_t* in, ComponentRecord* record) {
  record->compId = static_cast<int64_t>(getFixed64(in + kComponentIdOffset));
  record->reserved = static_cast<int64_t>(getFixed64(in + kComponentReservedOffset));
  memcpy(record->attributes, in + kComponentAttributesOffset, 3);
}

void encodeFileKey(const char* name, int64_t size, uint32_t first, uint32_t second, uint8_t* out) {
  memcpy(out + kFileNameOffset, name, kFileNameSize);
  putFixed64(out + kFileSizeOffset, static_cast<uint64_t>(size));
  putFixed32(out + kFileAttribute1Offset, first);
  putFixed32(out + kFileAttribute2Offset, second);
  putFixed32(out + kFilePaddingOffset, 0);
}

void decodeFileKey(const uint8_t* in, char* name, int64_t* size, uint32_t* first,
                   uint32_t* second) {
  memcpy(name, in + kFileNameOffset, kFileNameSize);
  name[kFileNameSize - 1] = '\0';
  *size = static_cast<int64_t>(getFixed64(in + kFileSizeOffset));
  *first = getFixed32(in + kFileAttribute1Offset);
  *second = getFixed32(in + kFileAttribute2Offset);
}

void encodeFileRecord(const FileRecord& record, uint8_t* out) {
  encodeFileKey(record.name, record.size, static_cast<uint32_t>(record.attribute1),
                static_cast<uint32_t>(record.attribute2), out);
  for (int32_t i = 0; i < kMaxFileComponents; ++i) {
    putFixed64(out + kFileComponentIdsOffset + 8 * i,
               static_cast<uint64_t>(record.componentIds[i]));
  }
  putFixed32(out + kFileComponentCountOffset, static_cast<uint32_t>(record.componentCount));
}

void decodeFileRecord(const uint8_t* in, FileRecord* record) {
  uint32_t first = 0, second = 0;
  decodeFileKey(in, record->name, &record->size, &first, &second);
  record->attribute1 = static_cast<int32_t>(first);
  record->attribute2 = static_cast<int32_t>(second);
  for (int32_t i = 0; i < kMaxFileComponents; ++i) {
    record->componentIds[i] =
        static_cast<int64_t>(getFixed64(in + kFileComponentIdsOffset + 8 * i));
  }
  record->componentCount = static_cast<int32_t>(getFixed32(in + kFileComponentCountOffset));
}

int compareFiles(const void* stored, const void* match) {
  const auto* a = static_cast<const FileRecord*>(stored);
  const auto* b = static_cast<const FileRecord*>(match);
  return a->size == b->size && strncasecmp(a->name, b->name, kFileNameSize) == 0;
}

namespace {

// A load's result when the file was read but a merge of its records failed.
constexpr int kLoadMergeFailed = 3;

int readCatalogFile(SlmList* components, SlmList* files, bool merge);

// Builds the cache around the files table `fileTable` (null when it could not be made), which it
// then owns, and loads "catalog.dat" into it a batch at a time.
int createComponentsCacheWith(CatalogFiles* fileTable) {
  if (initRwl(&lat.lock) != kRwlOk) {
    deleteCatalogFiles(fileTable);
    SLM_TRACE(0, "ERROR - Lock while creating components cache");
    return kLatFailed;
  }
  lat.files = fileTable;
  if (setCacheVersion(kCatalogFileId, kCatalogCacheVersion.majorNumber,
                      kCatalogCacheVersion.minorNumber) != kCacheVersionOk) {
    SLM_TRACE(0, "ERROR - Setting catalog cache version");
    freeCatalog();
    return kLatFailed;
  }
  if (lat.files == nullptr) {
    SLM_TRACE(0, "ERROR - Init files cache hash table");
    freeCatalog();
    return kLatFailed;
  }
  lat.components = initHashTable(sizeof(ComponentRecord), kHashBuckets, 0);
  if (lat.components == nullptr) {
    SLM_TRACE(0, "ERROR - Init components cache hash table");
    freeCatalog();
    return kLatFailed;
  }
  lat.lastUpdateTime = 0;

  SlmList* components = createList(sizeof(ComponentRecord));
  SlmList* files = createList(sizeof(FileRecord));
  if (components == nullptr || files == nullptr) {
    SLM_TRACE(0, "ERROR - Init list structures");
    freeLists(components, files);
    freeCatalog();
    return kLatFailed;
  }
  int loaded = readCatalogFile(components, files, true);
  if (loaded == kLatFailed) {
    // Nothing of a bad file is used, not even the batches merged before the fault, and the next
    // download asks for the whole catalog.
    SLM_TRACE(1, "LAT - no Catalog file %s", lat.path);
    (void)resetComponentsCache();
    lat.lastUpdateTime = 0;
  } else if (loaded == kLoadMergeFailed || updateCatalog(components, files) != kLatOk) {
    SLM_TRACE(0, "ERROR - LAT error");
    freeLists(components, files);
    freeCatalog();
    return kLatFailed;
  }
  freeLists(components, files);
  return kLatOk;
}

// Sizes the files index for the records that follow the components in `file`, so that loading
// them never moves it. Only an estimate: a file may hold the same file twice.
void reserveForFile(FILE* file, int32_t componentCount) {
  struct stat status {};
  if (fstat(fileno(file), &status) != 0) return;
  const int64_t recordBytes = static_cast<int64_t>(status.st_size) -
                              static_cast<int64_t>(kCatalogRecordsOffset) -
                              int64_t{componentCount} * static_cast<int64_t>(kComponentRecordSize);
  if (recordBytes < static_cast<int64_t>(kFileRecordSize)) return;
  // A file far larger than any catalog (a damaged or sparse one) is not believed: the index then
  // grows with what is really merged.
  constexpr int64_t kMaxReservedFiles = int64_t{1} << 25;
  int64_t count = recordBytes / static_cast<int64_t>(kFileRecordSize);
  if (count > kMaxReservedFiles) count = kMaxReservedFiles;
  if (writeLock(lat.lock) != kRwlOk) return;
  (void)reserveCatalogFiles(lat.files, static_cast<size_t>(count));
  releaseLock(lat.lock);
}

}  // namespace

int createComponentsCache() {
  return createComponentsCacheWithSlots(kCatalogFileSlots);
}

int createComponentsCacheWithSlots(int32_t fileSlots) {
  return createComponentsCacheWith(fileSlots > 0 ? newCatalogFiles(static_cast<size_t>(fileSlots))
                                                 : nullptr);
}

void deleteComponentsCache() {
  if (lat.lock == nullptr) return;
  (void)storeCatalog();
  freeCatalog();
}

void discardComponentsCache() {
  freeCatalog();
}

int loadCatalogFile(SlmList* components, SlmList* files) {
  return readCatalogFile(components, files, false);
}

namespace {

// loadCatalogFile; with `merge`, the records are merged into the cache whenever the lists hold a
// batch of them, and the lists emptied, so that a large file never stands in them whole. The
// results of loadCatalogFile, or kLoadMergeFailed when a merge failed.
int readCatalogFile(SlmList* components, SlmList* files, bool merge) {
  cacheFilePath(kCatalogFileName, lat.path);
  FILE* opened = nullptr;
  int result = openCacheFile(lat.path, kCatalogFileId, &opened, &lat.lastUpdateTime);
  if (result == kCacheFileMissing) return kCacheFileMissing;
  if (result != kCacheFileValid) {
    SLM_TRACE(0,
              "WARNING - The version in file %s is not supported or the runtime server has been "
              "changed.",
              lat.path);
    SLM_TRACE(1, "CACHE - Setting to 0 the last update time in file %s.", lat.path);
    lat.lastUpdateTime = 0;
    return kLatFailed;
  }
  FileHandle file(opened);

  uint8_t countBytes[4];
  if (fread(countBytes, 1, sizeof countBytes, file.get()) != sizeof countBytes) return kLatFailed;
  int32_t componentCount = static_cast<int32_t>(getFixed32(countBytes));
  // Without components the catalog cannot be trusted whole: the next download takes all of it.
  if (componentCount < 1) lat.lastUpdateTime = 0;
  if (merge) reserveForFile(file.get(), componentCount);

  int32_t componentsRead = 0, filesRead = 0;
  auto mergeBatch = [&] {
    if (!merge || entries(components) + entries(files) < kCatalogBatchRecords) return true;
    if (updateCatalog(components, files) != kLatOk) return false;
    clearList(components);
    clearList(files);
    return true;
  };
  uint8_t bytes[kFileRecordSize];
  for (int32_t i = 0; i < componentCount; ++i) {
    if (fread(bytes, 1, kComponentRecordSize, file.get()) != kComponentRecordSize) {
      return kLatFailed;
    }
    ComponentRecord component{};
    decodeComponentRecord(bytes, &component);
    if (append(components, &component) != kListOk) return kLatFailed;
    ++componentsRead;
    if (!mergeBatch()) return kLoadMergeFailed;
  }
  // File records run to the end of the file; a partial last one is what a cut write leaves.
  while (fread(bytes, 1, kFileRecordSize, file.get()) == kFileRecordSize) {
    FileRecord record{};
    decodeFileRecord(bytes, &record);
    if (append(files, &record) != kListOk) return kLatFailed;
    ++filesRead;
    if (!mergeBatch()) return kLoadMergeFailed;
  }
  file.reset();
  SLM_TRACE(1, "LAT - The catalog has been read from file %s, %d comps, %d files", lat.path,
            static_cast<int>(componentsRead), static_cast<int>(filesRead));
  return kLatOk;
}

}  // namespace

int storeCatalog() {
  cacheFilePath(kCatalogFileName, lat.path);
  FILE* file = createCacheFile(lat.path);
  if (file == nullptr) {
    SLM_TRACE(0, "ERROR - Opening file %s to store catalog", lat.path);
    return kLatFailed;
  }
  if (lat.lock == nullptr || writeLock(lat.lock) != kRwlOk) {
    discardCacheFile(file, lat.path);
    return kLatFailed;
  }

  CacheVersion version;
  if (getCacheVersion(kCatalogFileId, &version) != kCacheVersionOk) {
    return failStore(file, "ERROR - Getting the LAT cache version");
  }
  uint8_t bytes[kFileRecordSize];
  putFixed32(bytes, version.majorNumber);
  if (!writeAll(file, bytes, 4)) {
    return failStore(file, "ERROR - Writing the LAT major version to file %s");
  }
  putFixed32(bytes, version.minorNumber);
  if (!writeAll(file, bytes, 4)) {
    return failStore(file, "ERROR - Writing the LAT minor version to file %s");
  }
  putFixed64(bytes, static_cast<uint64_t>(lat.lastUpdateTime));
  (void)writeAll(file, bytes, kCacheTimestampSize);  // a short write here shows in the next ones

  char serverName[kCacheServerNameSize] = "";
  if (!preferredServerName(serverName)) return failStore(file, "ERROR - Getting preferred server");
  putText(bytes, kCacheServerNameSize, serverName);
  if (!writeAll(file, bytes, kCacheServerNameSize)) {
    return failStore(file, "ERROR - Writing the preferred server name to file %s");
  }

  int32_t remaining = getHtElementsNum(lat.components);
  putFixed32(bytes, static_cast<uint32_t>(remaining));
  if (!writeAll(file, bytes, 4)) {
    return failStore(file, "ERROR - Error writing components to file %s");
  }
  for (void* value = findHtNextElement(lat.components, 1); value != nullptr;
       value = findHtNextElement(lat.components, 0)) {
    encodeComponentRecord(*static_cast<const ComponentRecord*>(value), bytes);
    if (!writeAll(file, bytes, kComponentRecordSize)) {
      return failStore(file, "ERROR - Error writing components to file %s");
    }
    --remaining;
  }
  if (remaining != 0) {
    if (releaseLock(lat.lock) != kRwlOk) {
      SLM_TRACE(0, "ERROR - Number components mismatch %d", static_cast<int>(remaining));
    }
    discardCacheFile(file, lat.path);
    return kLatFailed;
  }
  CatalogFilesWalk walk{};
  FileRecord record;
  while (nextCatalogFile(lat.files, &walk, &record)) {
    encodeFileRecord(record, bytes);
    if (!writeAll(file, bytes, kFileRecordSize)) {
      return failStore(file, "ERROR - Error writing files to file %s");
    }
  }

  bool committed = commitCacheFile(file, lat.path);
  if (releaseLock(lat.lock) != kRwlOk) {
    SLM_TRACE(0, "ERROR - Error writing files to file %s", lat.path);
    return kLatFailed;
  }
  if (!committed) {
    // The last records did not reach the disk: the catalog stored before stays in place.
    SLM_TRACE(0, "ERROR - Error writing files to file %s", lat.path);
    return kLatFailed;
  }
  SLM_TRACE(1, "LAT - Data written into file %s", lat.path);
  return kLatOk;
}

void setLATLastUpdateTime(int64_t time) {
  lat.lastUpdateTime = time;
}

int64_t getLATLastUpdateTime() {
  return lat.lastUpdateTime;
}

int getComponentEntry(int64_t compId, ComponentRecord* record) {
  if (lat.lock == nullptr || readLock(lat.lock) != kRwlOk) return kLatFailed;
  const void* found = findHtElement(lat.components, compId, nullptr, nullptr);
  if (found != nullptr) memcpy(record, found, sizeof *record);
  if (releaseLock(lat.lock) != kRwlOk) return kLatFailed;
  return found != nullptr ? kLatOk : kLatNotFound;
}

int findFileEntry(const FileRecord* key, FileRecord* record, ComponentRecord* components,
                  int32_t* count) {
  if (lat.lock == nullptr || readLock(lat.lock) != kRwlOk) {
    SLM_TRACE(0, "ERROR - Read lock to find file");
    return kLatFailed;
  }
  const CompactFile* found = findCatalogFile(lat.files, *key);
  if (found == nullptr) {
    releaseLock(lat.lock);
    return kLatNotFound;
  }
  expandCatalogFile(found, record);
  if (components != nullptr) {
    *count = 0;
    // A count read from a damaged file never reaches past the record's slots.
    int32_t listed = record->componentCount;
    if (listed > kMaxFileComponents) listed = kMaxFileComponents;
    for (int32_t i = 0; i < listed; ++i) {
      const void* component =
          findHtElement(lat.components, record->componentIds[i], nullptr, nullptr);
      if (component != nullptr) memcpy(&components[(*count)++], component, sizeof *components);
    }
  }
  if (releaseLock(lat.lock) != kRwlOk) {
    SLM_TRACE(0, "ERROR - Releasing lock after finding file");
    return kLatFailed;
  }
  return kLatOk;
}

int updateCatalog(SlmList* components, SlmList* files) {
  if (lat.lock == nullptr || writeLock(lat.lock) != kRwlOk) return kLatFailed;
  char idText[kComponentIdText];
  for (void* item = getNext(components, nullptr); item != nullptr;
       item = getNext(components, item)) {
    const auto* component = static_cast<const ComponentRecord*>(item);
    if (traceActive(2)) int64Text(component->compId, idText);
    void* stored = findHtElement(lat.components, component->compId, nullptr, nullptr);
    if (stored != nullptr) {
      SLM_TRACE(2, " - Existing component %s found in LAT", idText);
    } else {
      stored = addHtElement(lat.components, component->compId);
      if (stored == nullptr) {
        releaseLock(lat.lock);
        return kLatFailed;
      }
      SLM_TRACE(2, " - New component %s added to LAT", idText);
    }
    memcpy(stored, component, sizeof *component);
  }
  for (void* item = getNext(files, nullptr); item != nullptr; item = getNext(files, item)) {
    const auto* file = static_cast<const FileRecord*>(item);
    // The latest entry of a file replaces the earlier one whole, its component list included.
    const int put = putCatalogFile(lat.files, *file);
    if (put == kCatalogFileNoMemory) {
      releaseLock(lat.lock);
      return kLatFailed;
    }
    if (put == kCatalogFileReplaced) {
      SLM_TRACE(2, " - Existing file %s in LAT", file->name);
    } else if (traceActive(2)) {
      char sizeText[kComponentIdText];
      int64Text(file->componentIds[0], idText);
      int64Text(file->size, sizeText);
      SLM_TRACE(2, " - New file %s added to LAT, components number %d, first %s, size %s",
                file->name, static_cast<int>(file->componentCount), idText, sizeText);
    }
  }
  return releaseLock(lat.lock) == kRwlOk ? kLatOk : kLatFailed;
}

int resetComponentsCache() {
  if (lat.lock == nullptr || writeLock(lat.lock) != kRwlOk) return kLatFailed;
  resetCatalogFiles(lat.files);
  resetHashTable(lat.components);
  // Emptying a table leaves its count to its owner; the store writes the components' count.
  lat.components->count = 0;
  lat.lastUpdateTime = 0;
  return releaseLock(lat.lock) == kRwlOk ? kLatOk : kLatFailed;
}

int32_t getCatalogFilesNumber() {
  return catalogFilesCount(lat.files);
}

int32_t getCatalogComponentsNumber() {
  return getHtElementsNum(lat.components);
}

}  // namespace slm
