// Creation and deletion of the persistent caches, in their fixed order.
#include "agent_core/cache/cache.h"

#include <cstdint>
#include <cstdlib>

#include "agent_core/slm_conf.h"
#include "agent_core/support/trace.h"

namespace slm {
namespace {

constexpr size_t kServerTextSize = 256;

// The server the server cache starts from when its file holds none.
struct InitialServer {
  char host[kServerTextSize] = "";
  char path[kServerTextSize] = "";
  uint16_t port = 0;
  int8_t securityLevel = 0;
};

// Absent texts stay empty. A port of 0 (absent, not a number, or a multiple of 65536 once cut to
// 16 bits) leaves the server unusable and fails.
bool readInitialServer(InitialServer* server) {
  if (getConfigurationValue("server", server->host, sizeof server->host) !=
      kConfigurationValueFound) {
    server->host[0] = '\0';
  }
  if (getConfigurationValue("path", server->path, sizeof server->path) !=
      kConfigurationValueFound) {
    server->path[0] = '\0';
  }
  char value[kServerTextSize] = "";
  if (getConfigurationValue("port", value, sizeof value) != kConfigurationValueFound) {
    value[0] = '\0';
  }
  server->port = static_cast<uint16_t>(strtoll(value, nullptr, 10));
  if (server->port == 0) {
    SLM_TRACE(0, "ERROR - Bad server port value: %s", value);
    return false;
  }
  // Every security level is accepted: the level is cut to 8 bits and the server decides what it
  // means.
  if (getConfigurationValue("server_security", value, sizeof value) != kConfigurationValueFound) {
    value[0] = '\0';
  }
  server->securityLevel = static_cast<int8_t>(strtoll(value, nullptr, 10));
  return true;
}

}  // namespace

int createCache() {
  // The catalog cache and the unknown files table come first: each reads its file, which is kept
  // only when it was written for the configured server.
  InitialServer server;
  if (!readInitialServer(&server)) return kCacheNotCreated;
  SLM_TRACE(1, "OK - Cache created");
  return kCacheCreated;
}

void deleteCache() {
  SLM_TRACE(1, "OK - Cache deleted");
}

}  // namespace slm
