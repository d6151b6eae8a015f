#include "agent_core/cache/cache.h"

#include <gtest/gtest.h>

#include <string>

#include "agent_core/cache/srvs.h"

#include "support/agent_sandbox.h"

namespace slm {
namespace {

using CacheFileCreation = test::AgentSandbox;

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

TEST_F(CacheFileCreation, StartsTheServerCacheUnlessThePortCutsToZero) {
  struct Case {
    const char* lines;
    const char* message;
    const char* preferred;  // null when no cache is created
  };
  const Case cases[] = {
      // The port keeps its low 16 bits and the level its low 8.
      {"server=alpha\npath=/rt/services\nport=70000\nserver_security=258\n", "OK - Cache created",
       "alpha /rt/services 4464 2"},
      {"server=alpha\nport=65536\n", "ERROR - Bad server port value: 65536", nullptr},
      {"server=alpha\nport=http\n", "ERROR - Bad server port value: http", nullptr},
      {"server=alpha\n", "ERROR - Bad server port value: ", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.lines);
    restartTrace();
    loadConfiguration(c.lines);
    EXPECT_EQ(createCache(), c.preferred != nullptr ? kCacheCreated : kCacheNotCreated);
    EXPECT_TRUE(traced(c.message)) << trace();
    EXPECT_EQ(traced("OK - Cache created"), c.preferred != nullptr);
    if (c.preferred == nullptr) continue;
    EXPECT_EQ(preferredServer(), c.preferred);
    deleteCache();
    EXPECT_TRUE(traced("OK - Cache deleted"));
    EXPECT_TRUE(test::fileExists(cachePath("server.dat")));
  }
}

}  // namespace
}  // namespace slm
