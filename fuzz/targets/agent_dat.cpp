// The loader of agent.dat (loadParameter): 4-byte slots without a header. Every parameter id is
// read back from the file as written, or refused when the file ends before its slot; a saved value
// reads back without changing any other slot.
#include <cstddef>
#include <cstdint>
#include <string>

#include "agent_core/cache/agent.h"
#include "agent_core/support/bytes.h"
#include "support/fuzz_root.h"

using namespace slm;

namespace {

constexpr char kAgentDat[] = "var/qsam/cache/agent.dat";
constexpr int32_t kHighestId = 8;

size_t slotOffset(int32_t id) {
  return kAgentDatSlotSize * static_cast<size_t>(id <= 1 ? id : id - 1);
}

// Every slot reads as `bytes` holds it.
void checkSlots(const std::string& bytes) {
  for (int32_t id = 0; id <= kHighestId; ++id) {
    int32_t value = 0;
    const int loaded = loadParameter(id, &value);
    const size_t offset = slotOffset(id);
    if (offset + kAgentDatSlotSize > bytes.size()) {
      FUZZ_CHECK(loaded == kParameterFailed);
    } else {
      FUZZ_CHECK(loaded == kParameterOk);
      FUZZ_CHECK(static_cast<uint32_t>(value) ==
                 getFixed32(reinterpret_cast<const uint8_t*>(bytes.data()) + offset));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::fuzzRoot();
  fuzz::writeRootFile(kAgentDat, data, size);
  std::string bytes(reinterpret_cast<const char*>(data), size);
  checkSlots(bytes);

  // The slot saved into and the value follow from the file's size.
  const int32_t savedId = static_cast<int32_t>(size % (kHighestId + 1));
  const int32_t value = static_cast<int32_t>(0x80000000u | size);
  FUZZ_CHECK(saveParameter(savedId, value) == kParameterOk);
  const size_t offset = slotOffset(savedId);
  if (bytes.size() < offset + kAgentDatSlotSize) bytes.resize(offset + kAgentDatSlotSize, '\0');
  putFixed32(reinterpret_cast<uint8_t*>(bytes.data()) + offset, static_cast<uint32_t>(value));
  FUZZ_CHECK(fuzz::readRootFile(kAgentDat) == bytes);
  checkSlots(bytes);
  return 0;
}
