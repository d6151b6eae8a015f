// The reader of scan.dat (getNextFromFile), as the inventory send uses it: the 4-byte scan time,
// then 960-byte records in the order of the scan. Only records a scan can have written come out,
// in the file's order, and the reader ends at the end of the file or at a cut record.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "agent_core/data/inventory_record.h"
#include "agent_core/invthr.h"
#include "support/fuzz_root.h"

using namespace slm;

namespace {
constexpr char kScanDat[] = "var/qsam/cache/scan.dat";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::fuzzRoot();
  fuzz::writeRootFile(kScanDat, data, size);
  FILE* file = fopen(fuzz::rootFile(kScanDat).c_str(), "rb");
  FUZZ_CHECK(file != nullptr);
  uint8_t time[kScanFileRecordsOffset];
  if (fread(time, 1, sizeof time, file) == sizeof time) {
    size_t next = kScanFileRecordsOffset;  // where the next record may begin
    InventoryRecord record;
    while (getNextFromFile(file, &record)) {
      FUZZ_CHECK(record.name[0] != '\0' && record.first == 0 && record.second == 0);
      for (const char* text :
           {record.directory, record.text1, record.text2, record.text3, record.text4}) {
        FUZZ_CHECK(strcmp(text, " ") == 0);
      }
      // The record is the file's next one or a later one, whole, as written.
      uint8_t encoded[kInventoryRecordSize];
      encodeInventoryRecord(record, encoded);
      const long end = ftell(file);
      FUZZ_CHECK(end >= static_cast<long>(next + kInventoryRecordSize));
      FUZZ_CHECK((static_cast<size_t>(end) - kScanFileRecordsOffset) % kInventoryRecordSize == 0);
      FUZZ_CHECK(memcmp(encoded, data + end - kInventoryRecordSize, kInventoryRecordSize) == 0);
      next = static_cast<size_t>(end);
    }
    FUZZ_CHECK(feof(file));
  }
  fclose(file);
  return 0;
}
