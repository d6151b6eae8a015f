// The set-up the service targets share: the agent's values from a small configuration, the
// service layer, and a server cache whose preferred server is an answer server on loopback. A
// target hands the payload it got from libFuzzer to `answerWith`, calls its service and then
// `finish`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "agent_core/communication/server_address.h"
#include "support/answer_server.h"

namespace slm::fuzz {

class ServicePeer {
 public:
  // Made on first use, for the life of the process.
  static ServicePeer& instance();

  // The next service call is answered with `size` bytes of `payload` behind the head of a usable
  // answer (status 200, this protocol's version, the payload's length).
  void answerWith(const uint8_t* payload, size_t size);
  // Waits until the answer server is done; returns the connections the service made.
  int finish() { return server_.waitIdle(); }
  ServerAddress address() const;
  // Replaces the server cache by one that holds the answer server alone, as at start-up.
  void resetServerCache();

 private:
  ServicePeer();
  AnswerServer server_;
};

// Whether `result` is one that a service documents (kServiceOk ... kServiceNoNewerAgent).
bool isServiceResult(int result);

}  // namespace slm::fuzz
