// The topology answer (downloadTopology) and its merge into the server cache, as the topology
// command does it: the division and enterprise sections of "host|path|port" lines, then the
// trailer. Only servers with an acceptable host come into the lists.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "agent_core/cache/srvs.h"
#include "agent_core/communication/service.h"
#include "agent_core/communication/slm.h"
#include "support/fuzz_root.h"
#include "support/service_peer.h"

using namespace slm;

namespace {

int checkedEntries(SlmList* servers) {
  int count = 0;
  for (void* item = getNext(servers, nullptr); item != nullptr; item = getNext(servers, item)) {
    const auto* server = static_cast<const ServerAddress*>(item);
    FUZZ_CHECK(server->port != 0);
    FUZZ_CHECK(strnlen(server->host, kServerHostSize) < kServerHostSize);
    FUZZ_CHECK(acceptableServerHost(server->host));  // no other host is ever listed
    FUZZ_CHECK(strnlen(server->path, kServerPathSize) < kServerPathSize);
    ++count;
  }
  return count;
}

// After a merge every server it named is in the cache, and a walk over the cache ends.
void checkMerged(SlmList* division, SlmList* enterprise, int named) {
  for (SlmList* servers : {division, enterprise}) {
    for (void* item = getNext(servers, nullptr); item != nullptr; item = getNext(servers, item)) {
      ServerHandle handle = nullptr;
      FUZZ_CHECK(findServerbyName(static_cast<const ServerAddress*>(item)->host, &handle) ==
                 kSrvsOk);
    }
  }
  ServerHandle handle = nullptr;
  ServerInfo info{};
  int steps = 0;
  while (getNextServer(&handle, kAnyServer, &info) == kSrvsOk) FUZZ_CHECK(++steps <= named + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::ServicePeer& peer = fuzz::ServicePeer::instance();
  SlmList* division = createList(sizeof(ServerAddress));
  SlmList* enterprise = createList(sizeof(ServerAddress));
  peer.answerWith(data, size);
  const int result = downloadTopology(division, enterprise);
  FUZZ_CHECK(peer.finish() == 1);
  FUZZ_CHECK(fuzz::isServiceResult(result));
  const int named = checkedEntries(division) + checkedEntries(enterprise);
  if (result == kServiceOk) {
    FUZZ_CHECK(writeLockSrvsCache() == kSrvsOk);
    const int merged = updateServerCache(nullptr, division, enterprise);
    FUZZ_CHECK(merged == kSrvsOk || merged == kSrvsFailed);
    checkMerged(division, enterprise, named);
    releaseLockSrvsCache();
    peer.resetServerCache();
  }
  deleteList(division);
  deleteList(enterprise);
  return 0;
}
