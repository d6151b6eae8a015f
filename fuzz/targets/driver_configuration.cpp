// The driver configuration file (findKernelExtensions over the kernel-configuration-file stream):
// lines of six tuple patterns, "=", then module paths. The system is fixed so that the lines of
// the seeds can match it. The result is a documented one and every module path found is non-empty,
// free of white space and commas, and fits a server path.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "agent_core/cache/system_tuple.h"
#include "agent_core/communication/server_address.h"
#include "kernel/linux/agent/driver_check.h"
#include "support/fuzz_root.h"

using namespace slm;

namespace {
constexpr char kConfFile[] = "tmp/qsam/kvdkagent.conf";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::fuzzRoot();
  static char tuple[kSystemTupleSize];
  static const bool built = [] {
    encodeSystemTuple("Linux", "2.4.18", "x86", "#1 SMP Tue Jun 4 16:05:29 CDT 2002", tuple);
    return true;
  }();
  (void)built;
  fuzz::writeRootFile(kConfFile, data, size);
  SlmList* modules = createList(kServerPathSize);
  const int found = findKernelExtensions(tuple, fuzz::rootFile(kConfFile).c_str(), modules);
  FUZZ_CHECK(found == kKernelExtensionsFound || found == kKernelExtensionsNotFound);
  if (found == kKernelExtensionsNotFound) FUZZ_CHECK(entries(modules) == 0);
  for (void* item = getNext(modules, nullptr); item != nullptr; item = getNext(modules, item)) {
    const char* path = static_cast<const char*>(item);
    const size_t length = strnlen(path, kServerPathSize);
    FUZZ_CHECK(length >= 1 && length < kServerPathSize);
    FUZZ_CHECK(strpbrk(path, ", \t\r\n\v\f") == nullptr);
  }
  deleteList(modules);
  return 0;
}
