// The answer to an upload of file records (uploadUnidentifiedList, sendInventory): only the
// result trailer. The records sent are fixed; the answer is the input.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "agent_core/communication/catalog.h"
#include "agent_core/data/inventory_record.h"
#include "support/fuzz_root.h"
#include "support/service_peer.h"

using namespace slm;

namespace {

InventoryRecord record(const char* name, int64_t size, const char* directory) {
  InventoryRecord made{};
  strcpy(made.name, name);
  made.size = size;
  strcpy(made.directory, directory);
  for (char* text : {made.text1, made.text2, made.text3, made.text4}) strcpy(text, " ");
  return made;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::ServicePeer& peer = fuzz::ServicePeer::instance();
  static SlmList* const records = [] {
    SlmList* list = createList(sizeof(InventoryRecord));
    const InventoryRecord unknown = record("tool", 4096, "/opt/app|bin");
    const InventoryRecord scanned = record("sh", 125560, " ");
    FUZZ_CHECK(append(list, &unknown) == kListOk && append(list, &scanned) == kListOk);
    return list;
  }();
  peer.answerWith(data, size);
  const int result = uploadUnidentifiedList(records);
  FUZZ_CHECK(peer.finish() == 1);
  FUZZ_CHECK(fuzz::isServiceResult(result));
  return 0;
}
