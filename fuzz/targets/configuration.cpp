// The configuration file reader (loadConfigurationFile) and the agent values built from what it
// loaded (initAgentInfo: ids, tag in upper case, customer, proxy settings). The result is a
// documented one; every value found is at most 200 characters of one line, without its line end
// or trailing blanks.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "agent_core/cache/agent.h"
#include "agent_core/slm_conf.h"
#include "support/fuzz_root.h"

using namespace slm;

namespace {
constexpr char kConfigurationFile[] = "etc/kvdagent.ini";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::fuzzRoot();
  fuzz::writeRootFile(kConfigurationFile, data, size);
  deleteConfigurationVariables();
  const int loaded = loadConfigurationFile(fuzz::rootFile(kConfigurationFile).c_str());
  FUZZ_CHECK(loaded == kConfigurationLoaded || loaded == kConfigurationRefused ||
             loaded == kConfigurationEmptyValue);
  for (const char* key : kConfigurationKeys) {
    char value[kConfigurationValueChars + 2];
    memset(value, 'x', sizeof value);
    if (getConfigurationValue(key, value, sizeof value) != kConfigurationValueFound) continue;
    const size_t length = strnlen(value, sizeof value);
    FUZZ_CHECK(length >= 1 && length <= kConfigurationValueChars);
    FUZZ_CHECK(strchr(value, '\n') == nullptr);
    const char last = value[length - 1];
    FUZZ_CHECK(last != ' ' && last != '\t' && last != '\r');
    (void)aToSlmInt64(value);
  }
  if (loaded == kConfigurationLoaded) {
    const int built = initAgentInfo();
    FUZZ_CHECK(built == kAgentValueOk || built == kAgentValueFailed);
    clearAgentInfo();
  }
  deleteConfigurationVariables();
  return 0;
}
