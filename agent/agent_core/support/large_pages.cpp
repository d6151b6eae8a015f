#include "agent_core/support/large_pages.h"

#include <sys/mman.h>

#include <cstdint>

namespace slm {

void* allocateLargePages(size_t bytes) {
  if (bytes == 0 || bytes % kLargePageBytes != 0) return nullptr;
  // One huge page more is mapped so that an aligned span lies inside; the rest is unmapped again.
  const size_t span = bytes + kLargePageBytes;
  void* mapped = mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) return nullptr;
  const auto first = reinterpret_cast<uintptr_t>(mapped);
  const uintptr_t aligned = (first + kLargePageBytes - 1) & ~(uintptr_t{kLargePageBytes} - 1);
  if (aligned > first) munmap(mapped, aligned - first);
  const uintptr_t tail = first + span - (aligned + bytes);
  if (tail > 0) munmap(reinterpret_cast<void*>(aligned + bytes), tail);
#ifdef MADV_HUGEPAGE
  // Only advice: where huge pages are off, the storage works the same with small ones.
  (void)madvise(reinterpret_cast<void*>(aligned), bytes, MADV_HUGEPAGE);
#endif
  return reinterpret_cast<void*>(aligned);
}

void freeLargePages(void* storage, size_t bytes) {
  if (storage != nullptr) munmap(storage, bytes);
}

}  // namespace slm
