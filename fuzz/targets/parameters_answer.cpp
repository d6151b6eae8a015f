// The parameters answer (downloadParameters): seventeen lines or none, then the result trailer.
#include <cstddef>
#include <cstdint>

#include "agent_core/communication/service.h"
#include "agent_core/communication/slm.h"
#include "support/fuzz_root.h"
#include "support/service_peer.h"

using namespace slm;

namespace {
constexpr int32_t kUntouched = 0x5A5A5A5A;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::ServicePeer& peer = fuzz::ServicePeer::instance();
  int32_t words[kParameterWords + 1];
  for (int32_t& word : words) word = kUntouched;
  peer.answerWith(data, size);
  const int result = downloadParameters(words);
  FUZZ_CHECK(peer.finish() == 1);
  FUZZ_CHECK(fuzz::isServiceResult(result));
  // The record has eighteen words and nothing is written behind them.
  FUZZ_CHECK(words[kParameterWords] == kUntouched);
  if (result == kServiceOk && words[kParameterUpdateEnableWord] != kUntouched) {
    FUZZ_CHECK(words[kParameterUpdateEnableWord] == 0 || words[kParameterUpdateEnableWord] == 1);
  }
  return 0;
}
