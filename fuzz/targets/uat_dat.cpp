// The loader of uat.dat (readUnknownFileList, through createUATCache): the cache header, then
// unknown file entries to the end. The result is a documented one, and storing is stable: a table
// loaded from its own store stores the same bytes again.
#include <cstddef>
#include <cstdint>
#include <string>

#include "agent_core/cache/cache_file.h"
#include "agent_core/cache/uat.h"
#include "support/fuzz_root.h"

using namespace slm;

namespace {

constexpr char kUatDat[] = "var/qsam/cache/uat.dat";

// Makes the table as start-up does (loading the file in place), stores it and frees it.
std::string createAndStore() {
  FUZZ_CHECK(createUATCache() == kUatOk);
  FUZZ_CHECK(writeUnknownFileList() == kUatOk);
  discardUATCache();
  return fuzz::readRootFile(kUatDat);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::fuzzRoot();
  // The table names the preferred server in its file.
  FUZZ_CHECK(fuzz::preferredServerReady());

  // The loader's own result, on a table made without a file.
  fuzz::removeRootFile(kUatDat);
  FUZZ_CHECK(createUATCache() == kUatOk);
  fuzz::writeRootFile(kUatDat, data, size);
  const int loaded = readUnknownFileList();
  FUZZ_CHECK(loaded == kUatOk || loaded == kUatFailed || loaded == kCacheFileMissing);
  discardUATCache();

  fuzz::writeRootFile(kUatDat, data, size);
  const std::string first = createAndStore();
  FUZZ_CHECK(createAndStore() == first);
  return 0;
}
