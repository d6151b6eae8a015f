// Start-up of the communication layer: who the agent says it is, and the service layer's proxy
// and default time-out.
#include "agent_core/communication/comm_init.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

#include "agent_core/communication/server_address.h"
#include "agent_core/communication/slm.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/trace.h"

namespace slm {
namespace {

constexpr char kLoopbackPrefix[] = "127.";
constexpr char kDummyAddress[] = "127.0.0.1";

bool isLoopback(const char* address) {
  return strncmp(address, kLoopbackPrefix, sizeof kLoopbackPrefix - 1) == 0;
}

}  // namespace

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
  if (entry == nullptr) {
    SLM_TRACE(1, "WARNING - Couldn't resolve this machine IP address");
    return kCommFailed;
  }
  PlugInIdentity identity{};
  choosePlugInIdentity(*entry, hostName, &identity);
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
