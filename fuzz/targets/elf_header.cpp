// The executable predicate of the disk scan (elfExecPred), through the scanner's own file test
// (processFile): the input is a file in the root. A file is recorded exactly when the predicate
// holds, and the predicate's answer does not depend on how many of the file's bytes it was handed
// once it has the whole ELF header: what it lacks it reads through the descriptor.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>

#include "agent_core/data/inventory_record.h"
#include "inventory/linux/searcher.h"
#include "support/fuzz_root.h"

using namespace slm;

namespace {
constexpr char kProgram[] = "bin/prog";
// The 64-bit ELF header with its program header fields.
constexpr size_t kElfHeaderBytes = 64;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = [] {
    std::filesystem::create_directories(fuzz::rootFile("bin"));
    return true;
  }();
  (void)ready;
  fuzz::writeRootFile(kProgram, data, size);
  struct stat status;
  FUZZ_CHECK(stat(fuzz::rootFile(kProgram).c_str(), &status) == 0);
  SlmList* list = createList(sizeof(InventoryRecord));
  char path[kSearchPathSize] = "/bin/prog";
  const int tested = processFile(list, path, status);
  FUZZ_CHECK(tested == (size < kExecHeaderBytes ? kSearchUnreadable : kSearchOk));
  const bool recorded = entries(list) == 1;
  if (recorded) {
    const auto* record = static_cast<const InventoryRecord*>(getNext(list, nullptr));
    FUZZ_CHECK(strcmp(record->name, "prog") == 0);
    FUZZ_CHECK(record->size == static_cast<int32_t>(size));
  }
  deleteList(list);
  if (size < kExecHeaderBytes) return 0;

  const int fd = open(fuzz::rootFile(kProgram).c_str(), O_RDONLY | O_CLOEXEC);
  FUZZ_CHECK(fd >= 0);
  for (size_t available : {kElfHeaderBytes, kExecPrefixBytes, size}) {
    available = std::min(available, size);
    if (available < kElfHeaderBytes && available < size) continue;
    FUZZ_CHECK((elfExecPred(data, available, fd) == kIsExecutable) == recorded);
  }
  close(fd);
  return 0;
}
