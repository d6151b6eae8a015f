#include "support/service_peer.h"

#include <cstring>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/communication/slm.h"
#include "support/fuzz_root.h"

namespace slm::fuzz {
namespace {

constexpr uint16_t kDefaultTimeoutSeconds = 30;

}  // namespace

ServicePeer& ServicePeer::instance() {
  static ServicePeer peer;
  return peer;
}

ServicePeer::ServicePeer() {
  initAgentValues();
  FUZZ_CHECK(initSlmServices(nullptr, kDefaultTimeoutSeconds) == kSlmServicesReady);
  ServerInfo preferred{};
  preferred.address = address();
  FUZZ_CHECK(createServersCache(&preferred) == kSrvsOk);
}

void ServicePeer::answerWith(const uint8_t* payload, size_t size) {
  std::string answer = "HTTP/1.0 200 OK\r\nConnection: close\r\nContent-Type: text/plain\r\n";
  answer += "Content-Length: " + std::to_string(size) + "\r\nSCPVersion: 1.1.1\r\n\r\n";
  answer.append(reinterpret_cast<const char*>(payload), size);
  server_.setAnswer(std::move(answer));
}

ServerAddress ServicePeer::address() const {
  ServerAddress address{};
  strcpy(address.host, "127.0.0.1");
  strcpy(address.path, "/");
  address.port = server_.port();
  return address;
}

void ServicePeer::resetServerCache() {
  deleteServersCache();
  // The cache wrote its lists at deletion; the next one must start from the answer server alone.
  removeRootFile("var/qsam/cache/server.dat");
  ServerInfo preferred{};
  preferred.address = address();
  FUZZ_CHECK(createServersCache(&preferred) == kSrvsOk);
}

bool isServiceResult(int result) {
  switch (result) {
    case kServiceOk:
    case kServiceFailed:
    case kServiceMalformedPayload:
    case kServiceObsoleteScan:
    case kServiceUnknownAgent:
    case kServiceUnknownDivision:
    case kServiceBadNode:
    case kServiceNoNewerAgent:
      return true;
    default:
      return false;
  }
}

}  // namespace slm::fuzz
