// Creation and deletion of the persistent caches, in their fixed order.
#include "agent_core/cache/cache.h"

#include <cstdint>
#include <cstdlib>

#include "agent_core/cache/lat.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/cache/uat.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/trace.h"

namespace slm {
namespace {

// Reads the server the server cache starts from. Absent texts stay empty. A port of 0 (absent, not
// a number, or a multiple of 65536 once cut to 16 bits) leaves the server unusable and fails.
bool readConfiguredServer(ServerInfo* server) {
  *server = ServerInfo{};
  ServerAddress& address = server->address;
  if (getConfigurationValue("server", address.host, sizeof address.host) !=
      kConfigurationValueFound) {
    address.host[0] = '\0';
  }
  if (getConfigurationValue("path", address.path, sizeof address.path) !=
      kConfigurationValueFound) {
    address.path[0] = '\0';
  }
  char value[kServerHostSize] = "";
  if (getConfigurationValue("port", value, sizeof value) != kConfigurationValueFound) {
    value[0] = '\0';
  }
  address.port = static_cast<uint16_t>(strtoll(value, nullptr, 10));
  if (address.port == 0) {
    SLM_TRACE(0, "ERROR - Bad server port value: %s", value);
    return false;
  }
  // Every level is accepted once cut to 8 bits; what a level means is the connection's business.
  if (getConfigurationValue("server_security", value, sizeof value) != kConfigurationValueFound) {
    value[0] = '\0';
  }
  server->securityLevel = static_cast<int8_t>(strtoll(value, nullptr, 10));
  return true;
}

}  // namespace

int createCache() {
  if (createComponentsCache() != kLatOk) {
    SLM_TRACE(0, "ERROR - Creating components cache");
    return kCacheNotCreated;
  }
  // A cache made before a later one failed is freed unwritten: its file stays as it was read.
  if (createUATCache() != kUatOk) {
    SLM_TRACE(0, "ERROR - Creating UAT cache");
    discardComponentsCache();
    return kCacheNotCreated;
  }
  ServerInfo configured;
  bool created = readConfiguredServer(&configured);
  if (created && createServersCache(&configured) != kSrvsOk) {
    SLM_TRACE(0, "ERROR - Creating Servers cache");
    created = false;
  }
  if (!created) {
    discardUATCache();
    discardComponentsCache();
    return kCacheNotCreated;
  }
  SLM_TRACE(1, "OK - Cache created");
  return kCacheCreated;
}

void deleteCache() {
  // The catalog and the unknown files table name the preferred server in their files, so the
  // server cache goes last.
  deleteComponentsCache();
  deleteUATCache();
  deleteServersCache();
  SLM_TRACE(1, "OK - Cache deleted");
}

}  // namespace slm
