// The server cache: three scope lists of server records, the walk over them, the topology merge
// and "server.dat". Everything here but the three lock functions runs under the cache lock taken
// by the caller.
#include "agent_core/cache/srvs.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "agent_core/cache/cache_file.h"
#include "agent_core/data/slm_time.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/file_handle.h"
#include "agent_core/support/trace.h"

namespace slm {
namespace {

struct ServersCache {
  ServerRecord* heads[kScopeCount] = {nullptr, nullptr, nullptr};
  int32_t activeCount = 0;  // active servers within the cache scope; atomic helpers only
  int32_t scope = kScopeEnterprise;
  uint32_t updateTime = 0;
  char path[kCachePathSize] = "";
  SlmRwLock* lock = nullptr;
};

ServersCache cache;

// The two counts of "server.dat" are read and written as one block; the enterprise count's place
// in it is taken relative to the block, never by stepping past its end and back.
constexpr size_t kCountsSize = kServerFileRecordsOffset - kServerFileDivisionCountOffset;
constexpr size_t kEnterpriseCountInCounts =
    kServerFileEnterpriseCountOffset - kServerFileDivisionCountOffset;

bool validScope(int32_t scope) {
  return scope >= kScopePreferred && scope <= kScopeEnterprise;
}

// A record with its own lock, not yet linked. Null when memory or the lock fails.
ServerRecord* allocateRecord() {
  auto* record = new (std::nothrow) ServerRecord{};
  if (record == nullptr) return nullptr;
  if (initRwl(&record->lock) != kRwlOk) {
    delete record;
    return nullptr;
  }
  return record;
}

void freeRecord(ServerRecord* record) {
  if (record->lock != nullptr) freeRwl(record->lock);
  delete record;
}

// Reads and links the records of one list. Failures are traced; the records read before the
// failing one stay linked.
int loadRecords(FILE* file, uint32_t count, int32_t listScope) {
  for (uint32_t i = 0; i < count; ++i) {
    uint8_t bytes[kServerRecordSize];
    auto* record = new (std::nothrow) ServerRecord{};
    if (record == nullptr) {
      SLM_TRACE(0, "ERROR - cannot allocate memory for preferred server");
      return kSrvsFailed;
    }
    if (fread(bytes, 1, kServerRecordSize, file) != kServerRecordSize) {
      SLM_TRACE(0, "ERROR - reading from cache file");
      delete record;
      return kSrvsFailed;
    }
    decodeServerRecord(bytes, record);
    if (initRwl(&record->lock) != kRwlOk) {
      SLM_TRACE(0, "ERROR - initializing server rwl");
      delete record;
      return kSrvsFailed;
    }
    // Linked at the head, so each load gives the lists back in reverse; the order is not kept.
    linkServer(record, listScope);
    if (atomicGet(&record->active) != 0) ATOMIC_INT_INCR(&cache.activeCount);
  }
  return kSrvsOk;
}

// The index of the list that holds the linked `record`.
int32_t holdingList(const ServerRecord* record) {
  while (record->prev != nullptr) record = record->prev;
  int32_t list = kScopePreferred;
  while (list < kScopeEnterprise && cache.heads[list] != record) ++list;
  return list;
}

// Where a walk goes after `record`: its successor, or at the end of its list the head of the next
// list while the record's scope is below the cache scope. An empty next list sends the walk one
// list further without asking the cache scope again; walks that start in the preferred list may
// thus reach the enterprise servers with cache scope 1. A scope read from a damaged file that
// names no list ends the walk.
ServerRecord* stepOn(const ServerRecord* record) {
  if (record->next != nullptr) return record->next;
  int32_t scope = record->scope;
  if (!validScope(scope) || scope >= cache.scope) return nullptr;
  // A record read from a damaged server.dat may carry the scope of its own list or of an earlier
  // one; jumping there would walk in a circle for ever, so the walk only moves on to later lists.
  int32_t holder = holdingList(record);
  if (scope + 1 <= kScopeEnterprise && cache.heads[scope + 1] != nullptr) {
    return scope + 1 > holder ? cache.heads[scope + 1] : nullptr;
  }
  if (scope + 2 <= kScopeEnterprise && scope + 2 > holder) return cache.heads[scope + 2];
  return nullptr;
}

bool passes(const ServerRecord* record, int filter) {
  switch (filter) {
    case kActiveServers:
      return atomicGet(&record->active) == 1;
    case kNotRespondingServers:
      return atomicGet(&record->active) == 0;
    default:
      return true;
  }
}

// Merges one topology entry into the list of `scope`. `keep` is the preferred record that the
// merge must leave where it is.
int mergeEntry(const ServerInfo& entry, int32_t scope, const ServerRecord* keep) {
  ServerHandle found = nullptr;
  int result = findServerbyName(entry.address.host, &found);
  if (result == kSrvsNotFound) {
    if (createNewServer(&entry, scope) != kSrvsOk) return kSrvsFailed;
    SLM_TRACE(1, "SRV CACHE - Added new server '%s', scope %d", entry.address.host, scope);
    return kSrvsOk;
  }
  if (result != kSrvsOk) return kSrvsFailed;
  if (found == keep) return kSrvsOk;
  found->used = 1;
  moveServer(found, scope);
  SLM_TRACE(1, "SRV CACHE - Server '%s' moved to scope %d", entry.address.host, scope);
  return kSrvsOk;
}

ServerInfo infoFromAddress(const void* address) {
  ServerInfo info{};
  memcpy(&info.address, address, sizeof info.address);
  return info;
}

// Drops every record the merge did not mark as used and gives every record the preferred
// server's security level. At the end of a list it goes on with the list after the last record's
// scope and stops at the first empty one, so an empty division list leaves the enterprise list
// unswept.
void sweep() {
  ServerRecord* record = cache.heads[kScopePreferred];
  if (record == nullptr) return;
  int32_t list = kScopePreferred;
  const uint32_t level = static_cast<uint32_t>(record->info.securityLevel) & 0xffu;
  while (record != nullptr) {
    ServerRecord* next = record->next;
    int32_t scope = record->scope;
    record->info.securityLevel =
        static_cast<int32_t>((static_cast<uint32_t>(record->info.securityLevel) & ~0xffu) | level);
    if (record->used == 0) removeServer(record);
    // Only later lists: a scope from a damaged server.dat must not lead back to a swept list.
    if (next == nullptr && validScope(scope) && scope < kScopeEnterprise && scope + 1 > list) {
      list = scope + 1;
      next = cache.heads[list];
    }
    record = next;
  }
}

}  // namespace

void encodeServerInfo(const ServerInfo& info, uint8_t* out) {
  putText(out + kServerAddressHostOffset, kServerHostSize, info.address.host);
  putText(out + kServerAddressPathOffset, kServerPathSize, info.address.path);
  putFixed32(out + kServerAddressPortOffset, info.address.port);
  putFixed32(out + kServerInfoSecurityOffset, static_cast<uint32_t>(info.securityLevel));
}

void decodeServerInfo(const uint8_t* in, ServerInfo* info) {
  copyBounded(info->address.host, kServerHostSize - 1,
              reinterpret_cast<const char*>(in + kServerAddressHostOffset));
  copyBounded(info->address.path, kServerPathSize - 1,
              reinterpret_cast<const char*>(in + kServerAddressPathOffset));
  info->address.port = static_cast<uint16_t>(getFixed32(in + kServerAddressPortOffset));
  info->securityLevel = static_cast<int32_t>(getFixed32(in + kServerInfoSecurityOffset));
}

void encodeServerRecord(const ServerRecord& record, uint8_t* out) {
  memset(out, 0, kServerRecordSize);
  encodeServerInfo(record.info, out + kServerRecordInfoOffset);
  putFixed32(out + kServerRecordAttributeOffset, static_cast<uint32_t>(record.attribute));
  putFixed32(out + kServerRecordActiveOffset, static_cast<uint32_t>(atomicGet(&record.active)));
  out[kServerRecordUsedOffset] = record.used;
  putFixed32(out + kServerRecordScopeOffset, static_cast<uint32_t>(record.scope));
}

void decodeServerRecord(const uint8_t* in, ServerRecord* record) {
  decodeServerInfo(in + kServerRecordInfoOffset, &record->info);
  record->attribute = static_cast<int32_t>(getFixed32(in + kServerRecordAttributeOffset));
  atomicSet(&record->active, static_cast<int32_t>(getFixed32(in + kServerRecordActiveOffset)));
  record->used = in[kServerRecordUsedOffset];
  record->scope = static_cast<int32_t>(getFixed32(in + kServerRecordScopeOffset));
}

int readLockSrvsCache() {
  if (readLock(cache.lock) != kRwlOk) {
    SLM_TRACE(0, "ERROR - Acquiring read lock on cache");
    return kSrvsFailed;
  }
  return kSrvsOk;
}

int writeLockSrvsCache() {
  if (writeLock(cache.lock) != kRwlOk) {
    SLM_TRACE(0, "ERROR - Acquiring write lock on cache");
    return kSrvsFailed;
  }
  return kSrvsOk;
}

int releaseLockSrvsCache() {
  if (releaseLock(cache.lock) != kRwlOk) {
    SLM_TRACE(0, "ERROR - Releasing lock on cache");
    return kSrvsFailed;
  }
  return kSrvsOk;
}

int createServersCache(const ServerInfo* configured) {
  if (configured == nullptr) return kSrvsFailed;
  cache = ServersCache{};
  if (initRwl(&cache.lock) != kRwlOk) {
    SLM_TRACE(0, "ERROR - Creating server cache rwl");
    return kSrvsFailed;
  }
  ServerRecord* preferred = allocateRecord();
  if (preferred == nullptr) {
    SLM_TRACE(0, "ERROR - cannot allocate memory for preferred server");
    freeRwl(cache.lock);
    cache.lock = nullptr;
    return kSrvsFailed;
  }
  preferred->info = *configured;
  preferred->attribute = 0;
  preferred->used = 1;
  atomicSet(&preferred->active, 1);
  linkServer(preferred, kScopePreferred);
  preferred->scope = kScopePreferred;
  atomicSet(&cache.activeCount, 1);
  cache.updateTime = 0;
  cache.scope = kScopeEnterprise;
  if (setCacheVersion(kServerFileId, kServerCacheVersion.majorNumber,
                      kServerCacheVersion.minorNumber) != kCacheVersionOk) {
    SLM_TRACE(0, "ERROR - Setting server cache version");
    return kSrvsFailed;
  }
  if (loadServerListFile() != kSrvsOk) SLM_TRACE(1, "SRV CACHE - no Servers file %s", cache.path);
  SLM_TRACE(1, "ServersCache successfully created");
  return kSrvsOk;
}

int deleteServersCache() {
  if (storeServerList() != kSrvsOk)
    SLM_TRACE(0, "ERROR - Writing server list to file %s", cache.path);
  for (ServerRecord*& head : cache.heads) {
    while (head != nullptr) {
      ServerRecord* next = head->next;
      freeRecord(head);
      head = next;
    }
  }
  if (cache.lock != nullptr) freeRwl(cache.lock);
  cache.lock = nullptr;
  atomicSet(&cache.activeCount, 0);
  SLM_TRACE(2, "ServersCache successfully deleted");
  return kSrvsOk;
}

int loadServerListFile() {
  cacheFilePath(kServerFileName, cache.path);
  FILE* raw = nullptr;
  int64_t timestamp = 0;
  int opened = openCacheFile(cache.path, kServerFileId, &raw, &timestamp);
  if (opened == kCacheFileBad) {
    SLM_TRACE(0,
              "WARNING - The version in file %s is not supported or the runtime server has been "
              "changed.",
              cache.path);
    return kSrvsFailed;
  }
  if (opened != kCacheFileValid) return opened;
  FileHandle file(raw);
  cache.updateTime = static_cast<uint32_t>(static_cast<uint64_t>(timestamp));

  uint8_t counts[kCountsSize];
  if (fread(counts, 1, sizeof counts, file.get()) != sizeof counts) return kSrvsFailed;
  uint32_t divisionCount = getFixed32(counts);
  uint32_t enterpriseCount = getFixed32(counts + kEnterpriseCountInCounts);
  if (loadRecords(file.get(), divisionCount, kScopeDivision) != kSrvsOk ||
      loadRecords(file.get(), enterpriseCount, kScopeEnterprise) != kSrvsOk) {
    return kSrvsFailed;
  }
  file.reset();
  SLM_TRACE(1, "SRV - The server list has been read from file %s", cache.path);
  return kSrvsOk;
}

int storeServerList() {
  FILE* out = createCacheFile(cache.path);
  if (out == nullptr) {
    SLM_TRACE(0, "ERROR - Opening file %s to store the server list", cache.path);
    return kSrvsFailed;
  }
  CacheHeader header;
  if (getCacheVersion(kServerFileId, &header.version) != kCacheVersionOk) {
    discardCacheFile(out, cache.path);
    return kSrvsFailed;
  }
  header.timestamp = cache.updateTime;
  if (cache.heads[kScopePreferred] != nullptr) {
    copyBounded(header.serverName, kCacheServerNameSize,
                cache.heads[kScopePreferred]->info.address.host);
  }
  uint8_t head[kCacheHeaderSize];
  encodeCacheHeader(header, head);
  uint8_t counts[kCountsSize];
  putFixed32(counts, static_cast<uint32_t>(countScopeServers(kScopeDivision)));
  putFixed32(counts + kEnterpriseCountInCounts,
             static_cast<uint32_t>(countScopeServers(kScopeEnterprise)));

  // The header fields go out one write each, as every cache writer does it.
  bool written =
      fwrite(head + kCacheMajorOffset, 1, 4, out) == 4 &&
      fwrite(head + kCacheMinorOffset, 1, 4, out) == 4 &&
      fwrite(head + kCacheTimestampOffset, 1, kCacheTimestampSize, out) == kCacheTimestampSize &&
      fwrite(head + kCacheServerNameOffset, 1, kCacheServerNameSize, out) == kCacheServerNameSize &&
      fwrite(counts, 1, 4, out) == 4 && fwrite(counts + 4, 1, 4, out) == 4;
  for (int32_t scope : {kScopeDivision, kScopeEnterprise}) {
    for (ServerRecord* record = cache.heads[scope]; written && record != nullptr;
         record = record->next) {
      uint8_t bytes[kServerRecordSize];
      encodeServerRecord(*record, bytes);
      written = fwrite(bytes, 1, kServerRecordSize, out) == kServerRecordSize;
    }
  }
  if (!written) {
    discardCacheFile(out, cache.path);
    return kSrvsFailed;
  }
  // The buffered records reach the file only as it is closed.
  if (!commitCacheFile(out, cache.path)) {
    SLM_TRACE(0, "ERROR - Closing file %s", cache.path);
    return kSrvsFailed;
  }
  SLM_TRACE(1, "SRV - Data written into file %s", cache.path);
  return kSrvsOk;
}

int findServerbyName(const char* name, ServerHandle* handle) {
  *handle = nullptr;
  if (name == nullptr) return kSrvsNotFound;
  for (ServerRecord* head : cache.heads) {
    for (ServerRecord* record = head; record != nullptr; record = record->next) {
      if (strcmp(record->info.address.host, name) == 0) {
        *handle = record;
        return kSrvsOk;
      }
    }
  }
  return kSrvsNotFound;
}

int createNewServer(const ServerInfo* info, int32_t scope) {
  if (info == nullptr || !validScope(scope)) return kSrvsFailed;
  ServerRecord* record = allocateRecord();
  if (record == nullptr) return kSrvsFailed;
  record->info = *info;
  record->attribute = 0;
  atomicSet(&record->active, 1);
  record->used = 1;
  record->scope = scope;
  linkServer(record, scope);
  // Counted whatever the scope; setScope's recount puts the count right again.
  ATOMIC_INT_INCR(&cache.activeCount);
  return kSrvsOk;
}

int linkServer(ServerHandle handle, int32_t scope) {
  if (handle == nullptr || !validScope(scope)) return kSrvsFailed;
  handle->prev = nullptr;
  handle->next = cache.heads[scope];
  if (handle->next != nullptr) handle->next->prev = handle;
  cache.heads[scope] = handle;
  return kSrvsOk;
}

int unlinkServer(ServerHandle handle) {
  if (handle == nullptr) return kSrvsFailed;
  if (handle->prev != nullptr) {
    handle->prev->next = handle->next;
  } else {
    for (ServerRecord*& head : cache.heads) {
      if (head == handle) head = handle->next;
    }
  }
  if (handle->next != nullptr) handle->next->prev = handle->prev;
  handle->next = nullptr;
  handle->prev = nullptr;
  return kSrvsOk;
}

int moveServer(ServerHandle handle, int32_t scope) {
  if (handle == nullptr || !validScope(scope)) return kSrvsFailed;
  unlinkServer(handle);
  linkServer(handle, scope);
  handle->scope = scope;
  return kSrvsOk;
}

int removeServer(ServerHandle handle) {
  if (handle == nullptr) return kSrvsFailed;
  if (atomicGet(&handle->active) != 0) ATOMIC_INT_DECR(&cache.activeCount);
  unlinkServer(handle);
  freeRecord(handle);
  return kSrvsOk;
}

int setAllUnused(int32_t scope) {
  if (!validScope(scope)) return kSrvsFailed;
  for (ServerRecord* record = cache.heads[scope]; record != nullptr; record = record->next) {
    record->used = 0;
  }
  return kSrvsOk;
}

int countScopeServers(int32_t scope) {
  if (!validScope(scope)) return 0;
  int count = 0;
  for (ServerRecord* record = cache.heads[scope]; record != nullptr; record = record->next) {
    ++count;
  }
  return count;
}

int getServerInfo(ServerHandle handle, ServerInfo* info) {
  if (handle == nullptr || info == nullptr) return kSrvsFailed;
  *info = handle->info;
  return kSrvsOk;
}

uint32_t getSrvsCacheUpdateTime() {
  return cache.updateTime;
}

int32_t getScope() {
  return cache.scope;
}

int setScope(int32_t scope) {
  SLM_TRACE(2, "setScope with scope= %d", scope);
  if (!validScope(scope)) {
    SLM_TRACE(1, "SRV CACHE - Bad scope value %d", scope);
    return kSrvsFailed;
  }
  cache.scope = scope;
  int32_t count = 0;
  for (ServerRecord* head : cache.heads) {
    for (ServerRecord* record = head; record != nullptr; record = record->next) {
      if (record->used != 0 && atomicGet(&record->active) != 0 && record->scope <= scope) ++count;
    }
  }
  atomicSet(&cache.activeCount, count);
  return kSrvsOk;
}

int getNextServer(ServerHandle* handle, int filter, ServerInfo* info) {
  ServerRecord* record = *handle != nullptr ? *handle : cache.heads[kScopePreferred];
  if (record == nullptr) return kSrvsNotFound;
  bool step = *handle != nullptr;
  for (;;) {
    if (step) {
      record = stepOn(record);
      if (record == nullptr) return kSrvsNotFound;
    }
    step = true;
    *handle = record;
    if (passes(record, filter)) {
      *info = record->info;
      return kSrvsOk;
    }
  }
}

int firstServer(int filter, ServerInfo* info) {
  if (readLockSrvsCache() != kSrvsOk) return kSrvsFailed;
  ServerHandle handle = nullptr;
  int found = getNextServer(&handle, filter, info);
  releaseLockSrvsCache();
  return found;
}

int serverIsActive(ServerHandle handle) {
  if (handle == nullptr) return kSrvsFailed;
  ATOMIC_INT_INCR(&handle->active);
  if (handle->scope <= cache.scope) ATOMIC_INT_INCR(&cache.activeCount);
  return kSrvsOk;
}

int serverNotResponding(ServerHandle handle) {
  if (handle == nullptr) return kSrvsFailed;
  if (ATOMIC_INT_DECR(&handle->active) != 0) {
    // Already marked as not responding (or marked active more than once): undo.
    ATOMIC_INT_INCR(&handle->active);
    return kSrvsOk;
  }
  if (handle->scope <= cache.scope) ATOMIC_INT_DECR(&cache.activeCount);
  return kSrvsOk;
}

int testActive(ServerHandle handle) {
  return handle == nullptr ? 0 : atomicGet(&handle->active);
}

int getServersNumber(int kind) {
  int32_t active = atomicGet(&cache.activeCount);
  int32_t notResponding = 0;
  for (ServerRecord* head : cache.heads) {
    for (ServerRecord* record = head; record != nullptr; record = record->next) {
      if (atomicGet(&record->active) == 0) ++notResponding;
    }
  }
  if (kind == kActiveCount) return active;
  if (kind == kNotRespondingCount) return notResponding;
  return active + notResponding;
}

int updateServerCache(const ServerInfo* preferred, SlmList* division, SlmList* enterprise) {
  if (enterprise != nullptr) setAllUnused(kScopeEnterprise);
  if (division != nullptr) setAllUnused(kScopeDivision);
  const ServerRecord* keep = nullptr;
  if (preferred != nullptr) {
    setAllUnused(kScopePreferred);
  } else {
    keep = cache.heads[kScopePreferred];
  }
  if (preferred != nullptr || division != nullptr || enterprise != nullptr) {
    AgentTime now = getNowWithOffset(0);
    if (now != 0) cache.updateTime = static_cast<uint32_t>(now);
  }

  if (preferred != nullptr && mergeEntry(*preferred, kScopePreferred, keep) != kSrvsOk) {
    return kSrvsFailed;
  }
  if (division != nullptr) {
    for (void* entry = getNext(division, nullptr); entry != nullptr;
         entry = getNext(division, entry)) {
      if (mergeEntry(infoFromAddress(entry), kScopeDivision, keep) != kSrvsOk) return kSrvsFailed;
    }
  }
  if (enterprise != nullptr) {
    void* entry = getNext(enterprise, nullptr);
    // After a preferred entry with no division list the walk over the entries steps past the
    // first enterprise server; existing caches were merged that way and it is kept.
    if (preferred != nullptr && division == nullptr && entry != nullptr) {
      entry = getNext(enterprise, entry);
    }
    for (; entry != nullptr; entry = getNext(enterprise, entry)) {
      if (mergeEntry(infoFromAddress(entry), kScopeEnterprise, keep) != kSrvsOk) {
        return kSrvsFailed;
      }
    }
  }

  sweep();

  if (cache.heads[kScopePreferred] != nullptr) return kSrvsOk;
  SLM_TRACE(1, "SRV CACHE - Warning! no preferred server");
  if (ServerRecord* head = cache.heads[kScopeDivision]; head != nullptr) {
    moveServer(head, kScopePreferred);
    SLM_TRACE(1, "SRV CACHE - Using the division server %s as preferred", head->info.address.host);
    return kSrvsOk;
  }
  if (ServerRecord* head = cache.heads[kScopeEnterprise]; head != nullptr) {
    moveServer(head, kScopePreferred);
    SLM_TRACE(1, "SRV CACHE - Using the enterprise server %s as preferred",
              head->info.address.host);
    return kSrvsOk;
  }
  return kSrvsFailed;
}

}  // namespace slm
