// The server cache: the preferred server and the servers of the agent's division and enterprise,
// held in three scope lists, with which of them answer, the topology merge that keeps them current
// and the walk that hands them out. Written to "server.dat" at stop and read back at start.
// One process-wide instance, guarded by the cache lock that the callers take: the read lock for
// lookups and walks, the write lock for changes. Active values and the active count change through
// atomic adds, because contacts are recorded under the read lock from several threads.
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent_core/communication/server_address.h"
#include "agent_core/support/slm_list.h"
#include "agent_core/support/slm_lock.h"

namespace slm {

// Scopes, and the index of the list that holds the servers of each.
constexpr int32_t kScopePreferred = 0;
constexpr int32_t kScopeDivision = 1;
constexpr int32_t kScopeEnterprise = 2;
constexpr int32_t kScopeCount = 3;

// What the cache knows of one server and hands out: the address, and the security level (0 to 2)
// the connection to it uses.
struct ServerInfo {
  ServerAddress address;
  int32_t securityLevel;
};

// The server information as laid out in a server record: the address, then the security level.
constexpr size_t kServerInfoSecurityOffset = kServerAddressRecordSize;
constexpr size_t kServerInfoSize = kServerInfoSecurityOffset + 4;
static_assert(kServerInfoSize == 520);

// One server. The handle by which callers name a server is the record's address.
struct ServerRecord {
  ServerInfo info;
  int32_t attribute;  // stored and carried, not otherwise used
  int32_t active;     // 1: the server answers; 0: it does not respond. Atomic helpers only.
  uint8_t used;       // 1: named by the latest topology or the configuration
  int32_t scope;      // the scope of the list that holds the record
  SlmRwLock* lock;
  ServerRecord* next;
  ServerRecord* prev;
};
using ServerHandle = ServerRecord*;

// A server record as written to "server.dat". The handle, lock and link words mean nothing in a
// file: they are written as zeros and ignored when read.
constexpr size_t kServerRecordHandleOffset = 0;
constexpr size_t kServerRecordInfoOffset = 4;
constexpr size_t kServerRecordAttributeOffset = kServerRecordInfoOffset + kServerInfoSize;
constexpr size_t kServerRecordActiveOffset = kServerRecordAttributeOffset + 4;
constexpr size_t kServerRecordUsedOffset = kServerRecordActiveOffset + 4;
constexpr size_t kServerRecordScopeOffset = kServerRecordUsedOffset + 4;  // 3 bytes of padding
constexpr size_t kServerRecordLockOffset = kServerRecordScopeOffset + 4;
constexpr size_t kServerRecordNextOffset = kServerRecordLockOffset + 4;
constexpr size_t kServerRecordPrevOffset = kServerRecordNextOffset + 4;
constexpr size_t kServerRecordSize = kServerRecordPrevOffset + 4;
static_assert(kServerRecordHandleOffset + 4 == kServerRecordInfoOffset);
static_assert(kServerRecordAttributeOffset == 524);
static_assert(kServerRecordUsedOffset == 532);
static_assert(kServerRecordScopeOffset == 536);
static_assert(kServerRecordSize == 552);

// "server.dat": the common cache header, the number of division and of enterprise records, then
// the division records and the enterprise records, each list from head to tail.
constexpr char kServerFileName[] = "server.dat";
constexpr size_t kServerFileDivisionCountOffset = 272;
constexpr size_t kServerFileEnterpriseCountOffset = kServerFileDivisionCountOffset + 4;
constexpr size_t kServerFileRecordsOffset = kServerFileEnterpriseCountOffset + 4;
static_assert(kServerFileRecordsOffset == 280);

void encodeServerInfo(const ServerInfo& info, uint8_t* out);
void decodeServerInfo(const uint8_t* in, ServerInfo* info);
// Writes kServerRecordSize bytes; the link words come out as zeros.
void encodeServerRecord(const ServerRecord& record, uint8_t* out);
// Fills the information, attribute, active value, used flag and scope; leaves lock and links.
void decodeServerRecord(const uint8_t* in, ServerRecord* record);

constexpr int kSrvsOk = 0;
constexpr int kSrvsFailed = 1;
constexpr int kSrvsNotFound = 2;  // also: no more servers

// Take or release the cache lock; kSrvsFailed (traced) when the lock cannot be taken or released.
[[nodiscard]] int readLockSrvsCache();
[[nodiscard]] int writeLockSrvsCache();
int releaseLockSrvsCache();

// Builds the cache from the configured server, which becomes the preferred record, and then from
// "server.dat" (a missing or unusable file is no error). kSrvsFailed for a null argument or when
// the lock, the preferred record or the version registration fails.
[[nodiscard]] int createServersCache(const ServerInfo* configured);
// Stores the lists in "server.dat" and frees every record and the lock.
int deleteServersCache();

// Reads "server.dat" into the division and enterprise lists. kSrvsOk; kCacheFileMissing (6) when
// there is no file; kSrvsFailed for a bad header or a damaged record (the records read before
// it stay).
int loadServerListFile();
// Writes the header and the division and enterprise lists to "server.dat". kSrvsOk or kSrvsFailed.
int storeServerList();

// Exact, case-sensitive host name match over the preferred, division and enterprise lists in that
// order. kSrvsOk with *handle set, or kSrvsNotFound with *handle null.
[[nodiscard]] int findServerbyName(const char* name, ServerHandle* handle);
// Links a new record for `info` at the head of the list of `scope`: active, used, attribute 0.
// The active count grows whatever the scope. kSrvsFailed when memory or the record lock fails.
int createNewServer(const ServerInfo* info, int32_t scope);
// Link at the head of the list of `scope` (the record's scope is left as it is).
int linkServer(ServerHandle handle, int32_t scope);
int unlinkServer(ServerHandle handle);
// Unlinks, links at the head of the list of `scope` and sets the record's scope.
int moveServer(ServerHandle handle, int32_t scope);
// Unlinks and frees the record; an active one lowers the active count.
int removeServer(ServerHandle handle);
int setAllUnused(int32_t scope);
int countScopeServers(int32_t scope);
int getServerInfo(ServerHandle handle, ServerInfo* info);
uint32_t getSrvsCacheUpdateTime();
int32_t getScope();
// Sets how far down the scopes a walk goes and recounts the active count. kSrvsFailed (traced)
// for a scope outside 0 to 2.
int setScope(int32_t scope);

constexpr int kAnyServer = 0;
constexpr int kActiveServers = 1;
constexpr int kNotRespondingServers = 2;

// The walk: with *handle null, starts at the preferred server, otherwise steps on from *handle;
// goes on through the division and enterprise servers as far as the cache scope allows. kSrvsOk
// with *handle and *info set to the next server that passes `filter`; kSrvsNotFound at the end.
[[nodiscard]] int getNextServer(ServerHandle* handle, int filter, ServerInfo* info);

// The first server of the walk that passes `filter` (normally the preferred server), its
// information copied out under the cache's read lock. kSrvsOk, kSrvsNotFound, or kSrvsFailed when
// the lock cannot be taken.
[[nodiscard]] int firstServer(int filter, ServerInfo* info);

// Record the outcome of a contact with the server.
int serverIsActive(ServerHandle handle);
int serverNotResponding(ServerHandle handle);
// The record's active value.
int testActive(ServerHandle handle);

constexpr int kActiveCount = 1;
constexpr int kNotRespondingCount = 2;
// kActiveCount: the active count; kNotRespondingCount: the records that do not respond; any other
// kind: the sum of the two.
int getServersNumber(int kind);

// Merges a topology: the preferred server (or null) and lists of ServerAddress records of the
// division and of the enterprise (either may be null). New servers are added, known ones moved to
// the scope the topology gives them, servers it no longer names are dropped, and a preferred
// server that went away is replaced by the first division or enterprise server. kSrvsFailed when a
// lookup fails or when no preferred server is left.
int updateServerCache(const ServerInfo* preferred, SlmList* division, SlmList* enterprise);

}  // namespace slm
