// The loader of plugin.dat (isToBeUpdatedSlmTuple): the version pair, the agent's record with the
// installed driver's name, the system tuple the driver was chosen for. The file is usable exactly
// when it is whole and of this version; a file of another version is deleted; the driver name
// read from it is written back byte for byte by the next store, which then matches this system.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/system_tuple.h"
#include "agent_core/support/bytes.h"
#include "support/fuzz_root.h"

using namespace slm;

namespace {
constexpr char kPluginDat[] = "var/qsam/cache/plugin.dat";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::initAgentValues();
  static const std::string tuple = [] {
    char built[kSystemTupleSize];
    FUZZ_CHECK(getSystemTuple(built) == kSystemTupleBuilt);
    return std::string(built, sizeof built);
  }();
  FUZZ_CHECK(setAgentCharValue(kAgentDriverName, "") == kAgentValueOk);
  fuzz::writeRootFile(kPluginDat, data, size);

  const int result = isToBeUpdatedSlmTuple();
  const bool versioned = size >= kCacheVersionSize;
  const bool thisVersion = versioned && decodeCacheVersion(data) == kPluginCacheVersion;
  const bool whole = thisVersion && size >= kPluginDatSize;
  if (!whole) {
    FUZZ_CHECK(result == kTupleUnreadable);
    // Only a file whose version pair could be read and differs is deleted.
    FUZZ_CHECK(fuzz::rootFileExists(kPluginDat) == (!versioned || thisVersion));
    return 0;
  }
  const bool matches = memcmp(data + kPluginTupleOffset, tuple.data(), kSystemTupleSize) == 0;
  FUZZ_CHECK(result == (matches ? kTupleMatches : kTupleDiffers));

  FUZZ_CHECK(storePluginData() == kPluginStored);
  const std::string stored = fuzz::readRootFile(kPluginDat);
  FUZZ_CHECK(stored.size() == kPluginDatSize);
  FUZZ_CHECK(memcmp(stored.data() + kPluginDriverNameOffset, data + kPluginDriverNameOffset,
                    kAgentTextSize) == 0);
  FUZZ_CHECK(isToBeUpdatedSlmTuple() == kTupleMatches);
  return 0;
}
