#include "agent_core/support/large_pages.h"

#include <sys/mman.h>

#include <cstdint>

// Older C libraries do not name it; the kernel has known it since Linux 6.1.
#ifndef MADV_COLLAPSE
#define MADV_COLLAPSE 25
#endif

namespace slm {

namespace {

// Zeroed storage of `bytes` aligned to kLargePageBytes, or null.
void* mapAligned(size_t bytes) {
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
  return reinterpret_cast<void*>(aligned);
}

}  // namespace

void* allocateLargePages(size_t bytes) {
  void* storage = mapAligned(bytes);
#ifdef MADV_HUGEPAGE
  // Only advice: where huge pages are off, the storage works the same with small ones.
  if (storage != nullptr) (void)madvise(storage, bytes, MADV_HUGEPAGE);
#endif
  return storage;
}

void* allocateSmallPages(size_t bytes) {
  void* storage = mapAligned(bytes);
#ifdef MADV_NOHUGEPAGE
  // A kernel that gives every mapping huge pages would otherwise fill this one with them too.
  if (storage != nullptr) (void)madvise(storage, bytes, MADV_NOHUGEPAGE);
#endif
  return storage;
}

void moveToLargePages(void* storage, size_t bytes) {
#ifdef MADV_HUGEPAGE
  (void)madvise(storage, bytes, MADV_HUGEPAGE);
  // Collapsed at once rather than in the kernel's own scan, which may take minutes; an older kernel
  // refuses the request and collapses the pages in its own time.
  (void)madvise(storage, bytes, MADV_COLLAPSE);
#endif
}

void freeLargePages(void* storage, size_t bytes) {
  if (storage != nullptr) munmap(storage, bytes);
}

}  // namespace slm
