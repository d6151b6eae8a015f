// Start-up of the communication layer: who the agent says it is, and the service layer's proxy
// and default time-out.
#include "agent_core/communication/comm_init.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "agent_core/communication/server_address.h"
#include "agent_core/communication/slm.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/file_handle.h"
#include "agent_core/support/trace.h"

namespace slm {
namespace {

constexpr char kLoopbackPrefix[] = "127.";
constexpr char kDummyAddress[] = "127.0.0.1";

bool isLoopback(const char* address) {
  return strncmp(address, kLoopbackPrefix, sizeof kLoopbackPrefix - 1) == 0;
}

// Any port will do to pick a route; this one when the configuration gives none.
constexpr uint16_t kRouteProbePort = 9;

void addressText(const sockaddr_in& address, char* out) {
  if (inet_ntop(AF_INET, &address.sin_addr, out, kAgentIpSize) == nullptr) out[0] = '\0';
}

void readAddressTowards(const char* serverHost, uint16_t port, char* out) {
  out[0] = '\0';
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (serverHost[0] == '\0' || getaddrinfo(serverHost, nullptr, &hints, &found) != 0) return;
  sockaddr_in server{};
  memcpy(&server, found->ai_addr, sizeof server);
  freeaddrinfo(found);
  server.sin_port = htons(port != 0 ? port : kRouteProbePort);
  FileDescriptor probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in local{};
  socklen_t size = sizeof local;
  if (probe.get() < 0 ||
      connect(probe.get(), reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0 ||
      getsockname(probe.get(), reinterpret_cast<sockaddr*>(&local), &size) != 0) {
    SLM_TRACE(3, "DEBUG - No route to %s, errno: %d", serverHost, errno);
    return;
  }
  addressText(local, out);
}

// Asks the configured server and port; the configuration is loaded whenever this runs.
void readConfiguredServer(char* host, size_t hostSize, uint16_t* port) {
  char value[16] = "";
  if (getConfigurationValue("server", host, hostSize) != kConfigurationValueFound) host[0] = '\0';
  if (getConfigurationValue("port", value, sizeof value) != kConfigurationValueFound) {
    value[0] = '\0';
  }
  *port = static_cast<uint16_t>(strtol(value, nullptr, 10));
}

// Replaces a missing or loopback address in `identity` with one the kernel gives, with a WARNING
// naming it. False when the host name did not resolve and the kernel gives none either.
bool useLocalAddress(bool resolved, const char* hostName, PlugInIdentity* identity) {
  char server[kServerHostSize];
  uint16_t port = 0;
  readConfiguredServer(server, sizeof server, &port);
  LocalAddresses local{};
  readLocalAddresses(server, port, &local);
  const char* chosen = chooseLocalAddress(local);
  // A loopback address the name resolved to is as good as one the kernel gives.
  if (chosen == nullptr || (resolved && isLoopback(chosen))) return resolved;
  const char* source =
      chosen == local.firstInterface ? "the address of interface" : "the address towards server";
  const char* sourceName = chosen == local.firstInterface ? local.interfaceName : server;
  if (resolved) {
    SLM_TRACE(1, "WARNING - Host name %s resolves only to loopback address %s: reporting %s, %s %s",
              hostName, identity->ipAddress, chosen, source, sourceName);
  } else {
    SLM_TRACE(1, "WARNING - Couldn't resolve host name %s: reporting %s, %s %s", hostName, chosen,
              source, sourceName);
  }
  copyBounded(identity->ipAddress, kAgentIpSize - 1, chosen);
  return true;
}

}  // namespace

void readLocalAddresses(const char* serverHost, uint16_t port, LocalAddresses* local) {
  *local = LocalAddresses{};
  readAddressTowards(serverHost, port, local->towardsServer);
  ifaddrs* interfaces = nullptr;
  if (getifaddrs(&interfaces) != 0) {
    SLM_TRACE(1, "WARNING - Listing the network interfaces failed, errno: %d", errno);
    return;
  }
  for (const ifaddrs* i = interfaces; i != nullptr; i = i->ifa_next) {
    if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET ||
        (i->ifa_flags & IFF_UP) == 0 || (i->ifa_flags & IFF_LOOPBACK) != 0) {
      continue;
    }
    char text[kAgentIpSize];
    addressText(*reinterpret_cast<const sockaddr_in*>(i->ifa_addr), text);
    if (text[0] == '\0' || isLoopback(text)) continue;
    copyBounded(local->firstInterface, kAgentIpSize - 1, text);
    copyBounded(local->interfaceName, IF_NAMESIZE - 1, i->ifa_name);
    break;
  }
  freeifaddrs(interfaces);
}

const char* chooseLocalAddress(const LocalAddresses& local) {
  if (local.towardsServer[0] != '\0' && !isLoopback(local.towardsServer)) {
    return local.towardsServer;
  }
  if (local.firstInterface[0] != '\0') return local.firstInterface;
  return local.towardsServer[0] != '\0' ? local.towardsServer : nullptr;
}

void choosePlugInIdentity(const hostent& entry, const char* hostName, PlugInIdentity* identity) {
  char loopback[kAgentIpSize] = "";
  bool found = false;
  for (int i = 0; entry.h_addr_list != nullptr && entry.h_addr_list[i] != nullptr; ++i) {
    in_addr address;
    memcpy(&address, entry.h_addr_list[i], sizeof address);
    const char* text = inet_ntoa(address);
    if (!isLoopback(text)) {
      SLM_TRACE(3, "DEBUG - The ip address is %s ", text);
      copyBounded(identity->ipAddress, kAgentIpSize - 1, text);
      found = true;
      break;
    }
    // The last loopback address seen is the one reported when there is no other.
    copyBounded(loopback, kAgentIpSize - 1, text);
  }
  if (!found && loopback[0] != '\0') {
    SLM_TRACE(3, "DEBUG - Only loopback address found %s", loopback);
    copyBounded(identity->ipAddress, kAgentIpSize - 1, loopback);
  } else if (!found) {
    SLM_TRACE(3, "DEBUG - No address found use a dummy name 127.0.0.1");
    copyBounded(identity->ipAddress, kAgentIpSize - 1, kDummyAddress);
  }

  if (entry.h_name != nullptr && entry.h_name[0] != '\0') {
    SLM_TRACE(3, "DEBUG - Use %s name to plug-in", entry.h_name);
    copyBounded(identity->name, kAgentTextSize - 1, entry.h_name);
    return;
  }
  for (int i = 0; entry.h_aliases != nullptr && entry.h_aliases[i] != nullptr; ++i) {
    if (entry.h_aliases[i][0] != '\0') {
      SLM_TRACE(3, "DEBUG - Use %s alias to plug-in", entry.h_aliases[i]);
      copyBounded(identity->name, kAgentTextSize - 1, entry.h_aliases[i]);
      return;
    }
  }
  if (found) {
    SLM_TRACE(3, "DEBUG - Use %s ip address to plug-in", identity->ipAddress);
    copyBounded(identity->name, kAgentTextSize - 1, identity->ipAddress);
    return;
  }
  SLM_TRACE(3, "DEBUG - use the gethostname value %s to plug-in", hostName);
  copyBounded(identity->name, kAgentTextSize - 1, hostName);
}

int initCommunication() {
  char hostName[kResolvedHostNameMax + 1] = "";
  if (getAgentCharValue(kAgentHostName, hostName, sizeof hostName) != kAgentValueOk) {
    hostName[0] = '\0';
  }
  // Start-up runs alone, so the resolver's static result is not shared with another thread.
  const hostent* entry = gethostbyname(hostName);
  PlugInIdentity identity{};
  if (entry != nullptr) {
    choosePlugInIdentity(*entry, hostName, &identity);
  } else {
    copyBounded(identity.name, kAgentTextSize - 1, hostName);
  }
  if ((entry == nullptr || isLoopback(identity.ipAddress)) &&
      !useLocalAddress(entry != nullptr, hostName, &identity)) {
    SLM_TRACE(1, "WARNING - Couldn't resolve this machine IP address");
    return kCommFailed;
  }
  (void)setAgentCharValue(kAgentIpAddress, identity.ipAddress);
  (void)setAgentCharValue(kAgentHostName, identity.name);

  ServerAddress proxy{};
  const ServerAddress* proxyRecord = nullptr;
  if (agentUseProxy() != 0) {
    int64_t port = 0;
    if (getAgentCharValue(kAgentProxyHost, proxy.host, sizeof proxy.host) != kAgentValueOk ||
        getAgentIntValue(kAgentProxyPort, &port) != kAgentValueOk) {
      proxy = ServerAddress{};
    }
    proxy.port = static_cast<uint16_t>(port);
    proxyRecord = &proxy;
  }
  // A customer name that cannot be converted leaves the SubjectCustomer and SubjectID headers
  // without values; start-up goes on regardless.
  (void)initSlmServices(proxyRecord, kDefaultServiceTimeoutSeconds);
  SLM_TRACE(1, "OK - Init Communication");
  return kCommOk;
}

int closeCommunication() {
  SLM_TRACE(1, "OK - Close Communication");
  return kCommOk;
}

}  // namespace slm
