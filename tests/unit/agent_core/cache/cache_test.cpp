#include "agent_core/cache/cache.h"

#include <gtest/gtest.h>

#include <string>

#include "agent_core/cache/srvs.h"

#include "unit/agent_core/cache/cache_sandbox.h"

namespace slm {
namespace {

using CacheFileCreation = test::CacheSandbox;

// The host, path, port and level of the preferred server, read under the cache lock.
std::string preferredServer() {
  EXPECT_EQ(readLockSrvsCache(), kSrvsOk);
  ServerHandle handle = nullptr;
  std::string found = "none";
  if (findServerbyName("alpha", &handle) == kSrvsOk) {
    const ServerInfo& info = handle->info;
    found = std::string(info.address.host) + " " + info.address.path + " " +
            std::to_string(info.address.port) + " " + std::to_string(info.securityLevel);
  }
  releaseLockSrvsCache();
  return found;
}

TEST_F(CacheFileCreation, RefusesAServerPortThatCutsToZero) {
  struct Case {
    const char* lines;
    int result;
    const char* message;
  };
  const Case cases[] = {
      {"server=alpha\nport=8080\nserver_security=9\n", kCacheCreated, "OK - Cache created"},
      {"server=alpha\nport=70000\n", kCacheCreated, "OK - Cache created"},
      {"server=alpha\nport=65536\n", kCacheNotCreated, "ERROR - Bad server port value: 65536"},
      {"server=alpha\nport=http\n", kCacheNotCreated, "ERROR - Bad server port value: http"},
      {"server=alpha\n", kCacheNotCreated, "ERROR - Bad server port value: "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.lines);
    restartTrace();
    loadConfiguration(c.lines);
    EXPECT_EQ(createCache(), c.result);
    EXPECT_TRUE(traced(c.message)) << trace();
    EXPECT_EQ(traced("OK - Cache created"), c.result == kCacheCreated);
    if (c.result == kCacheCreated) deleteCache();
  }
}

TEST_F(CacheFileCreation, StartsTheServerCacheFromTheConfiguredServer) {
  loadConfiguration("server=alpha\npath=/rt/services\nport=70000\nserver_security=258\n");
  ASSERT_EQ(createCache(), kCacheCreated) << trace();
  // The port keeps its low 16 bits and the level its low 8.
  EXPECT_EQ(preferredServer(), "alpha /rt/services 4464 2");
  deleteCache();
  EXPECT_TRUE(traced("OK - Cache deleted"));
  EXPECT_TRUE(test::fileExists(cachePath("server.dat")));
}

}  // namespace
}  // namespace slm
