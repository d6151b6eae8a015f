// The loader of catalog.dat (loadCatalogFile, and the start-up's load that merges batches as it
// reads, through createComponentsCache): the cache header, the component count and records, then
// file records to the end. What was loaded is merged; every loaded file is found again; and
// storing is stable: a catalog loaded from its own store stores the same bytes again.
#include <cstddef>
#include <cstdint>
#include <string>

#include "agent_core/cache/cache_file.h"
#include "agent_core/cache/lat.h"
#include "support/fuzz_root.h"

using namespace slm;

namespace {

constexpr char kCatalogDat[] = "var/qsam/cache/catalog.dat";
constexpr int32_t kFuzzFileSlots = 16;

// Loads the file in place into fresh lists; with `present`, each file loaded must be in the
// catalog already. Returns the loader's result.
int loadFile(bool present) {
  SlmList* components = createList(sizeof(ComponentRecord));
  SlmList* files = createList(sizeof(FileRecord));
  const int loaded = loadCatalogFile(components, files);
  FUZZ_CHECK(loaded == kLatOk || loaded == kLatFailed || loaded == kCacheFileMissing);
  if (present) fuzz::checkFilesFound(files);
  deleteList(components);
  deleteList(files);
  return loaded;
}

// Makes the cache as start-up does (loading the file in place), stores it and frees it.
std::string createAndStore() {
  FUZZ_CHECK(createComponentsCacheWithSlots(kFuzzFileSlots) == kLatOk);
  FUZZ_CHECK(storeCatalog() == kLatOk);
  std::string stored = fuzz::readRootFile(kCatalogDat);
  FUZZ_CHECK(loadFile(true) == kLatOk);
  discardComponentsCache();
  return stored;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::initAgentValues();
  // The catalog names the preferred server in its file.
  FUZZ_CHECK(fuzz::preferredServerReady());

  // The loader's own result, on a cache made without a file.
  fuzz::removeRootFile(kCatalogDat);
  FUZZ_CHECK(createComponentsCacheWithSlots(kFuzzFileSlots) == kLatOk);
  fuzz::writeRootFile(kCatalogDat, data, size);
  loadFile(false);
  discardComponentsCache();

  // Start-up with the file, a store, and start-up from that store, which stores the same again.
  fuzz::writeRootFile(kCatalogDat, data, size);
  const std::string first = createAndStore();
  FUZZ_CHECK(createAndStore() == first);
  return 0;
}
