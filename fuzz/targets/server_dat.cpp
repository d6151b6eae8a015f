// The loader of server.dat (loadServerListFile, through createServersCache): the cache header,
// the two counts, the division and the enterprise records. The load's result is a documented one;
// a walk over whatever was loaded ends; a merge and the scope recount run on it; and storing what
// was loaded is stable: lists come back reversed from each load, so the third store equals the
// first.
#include <cstddef>
#include <cstdint>
#include <string>

#include "agent_core/cache/cache_file.h"
#include "agent_core/cache/srvs.h"
#include "support/fuzz_root.h"

using namespace slm;

namespace {

constexpr char kServerDat[] = "var/qsam/cache/server.dat";

ServerInfo configured() {
  ServerInfo info{};
  snprintf(info.address.host, sizeof info.address.host, "%s", "fuzz.example");
  snprintf(info.address.path, sizeof info.address.path, "%s", "/");
  info.address.port = 8080;
  return info;
}

// Every walk over the cache ends within its records.
void checkWalks() {
  int records = 0;
  for (int32_t scope = kScopePreferred; scope <= kScopeEnterprise; ++scope) {
    records += countScopeServers(scope);
  }
  for (int filter : {kAnyServer, kActiveServers, kNotRespondingServers}) {
    ServerHandle handle = nullptr;
    ServerInfo info{};
    int steps = 0;
    while (getNextServer(&handle, filter, &info) == kSrvsOk) FUZZ_CHECK(++steps <= records);
  }
}

// Creates the cache from the file in place, then stores it and frees it. Returns the file stored.
std::string loadAndStore() {
  const ServerInfo preferred = configured();
  FUZZ_CHECK(createServersCache(&preferred) == kSrvsOk);
  checkWalks();
  FUZZ_CHECK(deleteServersCache() == kSrvsOk);
  return fuzz::readRootFile(kServerDat);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::fuzzRoot();
  // The cache is made without a file, then loads the input itself, so its result can be seen.
  fuzz::removeRootFile(kServerDat);
  const ServerInfo preferred = configured();
  FUZZ_CHECK(createServersCache(&preferred) == kSrvsOk);
  fuzz::writeRootFile(kServerDat, data, size);
  const int loaded = loadServerListFile();
  FUZZ_CHECK(loaded == kSrvsOk || loaded == kSrvsFailed || loaded == kCacheFileMissing);
  checkWalks();
  FUZZ_CHECK(writeLockSrvsCache() == kSrvsOk);
  SlmList* none = createList(sizeof(ServerAddress));
  const int merged = updateServerCache(nullptr, none, none);
  FUZZ_CHECK(merged == kSrvsOk || merged == kSrvsFailed);
  FUZZ_CHECK(setScope(kScopeDivision) == kSrvsOk);
  releaseLockSrvsCache();
  deleteList(none);
  checkWalks();
  FUZZ_CHECK(deleteServersCache() == kSrvsOk);

  fuzz::writeRootFile(kServerDat, data, size);
  const std::string first = loadAndStore();
  loadAndStore();
  FUZZ_CHECK(loadAndStore() == first);
  fuzz::removeRootFile(kServerDat);
  return 0;
}
