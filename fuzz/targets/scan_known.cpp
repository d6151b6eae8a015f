// The decoder of scanknown.dat (decodeKnownFiles), as the first walk of a run uses it: a file is
// used whole, exactly as the agent would have written it, or not at all.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "inventory/linux/searcher.h"
#include "support/fuzz_root.h"

using namespace slm;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::fuzzRoot();
  std::vector<KnownFile> files{{1, 2}};
  if (decodeKnownFiles(data, size, &files)) {
    FUZZ_CHECK(files.size() <= kMaxKnownFiles);
    const std::vector<uint8_t> again = encodeKnownFiles(files);
    FUZZ_CHECK(again.size() == size && memcmp(again.data(), data, size) == 0);
  } else {
    FUZZ_CHECK(files.empty());
  }
  return 0;
}
