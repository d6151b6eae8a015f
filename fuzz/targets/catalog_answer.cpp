// The catalog answer (downloadCatalogInBatches) and its merge into the catalog cache, as the
// catalog command does it: the update time, the components section, the files section, the
// trailer, with the records merged a few at a time as they are parsed.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "agent_core/cache/lat.h"
#include "agent_core/communication/catalog.h"
#include "agent_core/communication/slm.h"
#include "support/fuzz_root.h"
#include "support/service_peer.h"

using namespace slm;

namespace {

// A small files index, grown as a run merges a few records at a time.
constexpr int32_t kFuzzFileSlots = 16;

void checkRecords(SlmList* components, SlmList* files) {
  for (void* item = getNext(components, nullptr); item != nullptr;
       item = getNext(components, item)) {
    FUZZ_CHECK(static_cast<const ComponentRecord*>(item)->compId != 0);
  }
  for (void* item = getNext(files, nullptr); item != nullptr; item = getNext(files, item)) {
    const auto* file = static_cast<const FileRecord*>(item);
    FUZZ_CHECK(file->size != 0);
    FUZZ_CHECK(file->componentCount >= 0 && file->componentCount <= kMaxFileComponents);
    FUZZ_CHECK(strnlen(file->name, kFileNameSize) < kFileNameSize);
  }
}

// The batch merge: what the parser hands over is well formed, merges, and is found again.
int mergeAndCheck(SlmList* components, SlmList* files) {
  checkRecords(components, files);
  FUZZ_CHECK(updateCatalog(components, files) == kLatOk);
  fuzz::checkFilesFound(files);
  return kLatOk;
}

// Batches this small split most answers, at every kind of record.
constexpr int32_t kFuzzBatchRecords = 3;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::ServicePeer& peer = fuzz::ServicePeer::instance();
  static const bool created = createComponentsCacheWithSlots(kFuzzFileSlots) == kLatOk;
  FUZZ_CHECK(created);
  SlmList* components = createList(sizeof(ComponentRecord));
  SlmList* files = createList(sizeof(FileRecord));
  int64_t updateTime = 0;
  CatalogBatches batches{mergeAndCheck, kFuzzBatchRecords, kLatOk};
  peer.answerWith(data, size);
  const int result = downloadCatalogInBatches(&updateTime, components, files, &batches);
  FUZZ_CHECK(peer.finish() == 1);
  FUZZ_CHECK(fuzz::isServiceResult(result));
  FUZZ_CHECK(batches.result == kLatOk);
  FUZZ_CHECK(entries(components) + entries(files) < kFuzzBatchRecords);
  checkRecords(components, files);
  if (result == kServiceOk) {
    FUZZ_CHECK(updateTime != 0);
    FUZZ_CHECK(mergeAndCheck(components, files) == kLatOk);
  }
  // A failed answer may have merged batches before its failure.
  FUZZ_CHECK(resetComponentsCache() == kLatOk);
  deleteList(components);
  deleteList(files);
  return 0;
}
