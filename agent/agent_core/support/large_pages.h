// Large zeroed storage for the few tables that grow to hundreds of megabytes (a big catalog):
// mapped on its own, aligned to the huge-page size and offered to the kernel for huge pages. One
// fault then maps 2 MiB instead of 4 KiB, and a lookup into the table misses the TLB far less
// often.
#pragma once

#include <cstddef>

namespace slm {

constexpr size_t kLargePageBytes = size_t{2} << 20;

// Zeroed storage of `bytes` (a multiple of kLargePageBytes), aligned to kLargePageBytes; null when
// memory is short.
void* allocateLargePages(size_t bytes);
// The same storage, but in ordinary pages until moveToLargePages is asked for: a table that may
// stay small does not take a whole large page for a few kilobytes.
void* allocateSmallPages(size_t bytes);
// Moves storage of allocateSmallPages to large pages now, where the kernel can; elsewhere it stays
// as it is and works the same.
void moveToLargePages(void* storage, size_t bytes);
// Returns storage of either allocation to the system at once.
void freeLargePages(void* storage, size_t bytes);

}  // namespace slm
