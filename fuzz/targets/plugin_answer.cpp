// The plug-in answer (plugIn): an optional node id line, then the result trailer.
#include <cctype>
#include <cstddef>
#include <cstdint>

#include "agent_core/cache/agent.h"
#include "agent_core/communication/service.h"
#include "agent_core/communication/slm.h"
#include "support/fuzz_root.h"
#include "support/service_peer.h"

using namespace slm;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::ServicePeer& peer = fuzz::ServicePeer::instance();
  FUZZ_CHECK(setAgentIntValue(kAgentNodeId, 0) == kAgentValueOk);
  peer.answerWith(data, size);
  const ServerAddress server = peer.address();
  const int result = plugIn(&server);
  FUZZ_CHECK(peer.finish() == 1);
  FUZZ_CHECK(fuzz::isServiceResult(result));
  // A node id is taken only from a first line that starts with a digit.
  int64_t node = 0;
  FUZZ_CHECK(getAgentIntValue(kAgentNodeId, &node) == kAgentValueOk);
  if (node != 0) FUZZ_CHECK(size > 0 && isdigit(data[0]));
  return 0;
}
