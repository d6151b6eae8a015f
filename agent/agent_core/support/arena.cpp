// Arena blocks are single zeroed allocations: a block header, then the slots. Each slot is an
// 8-byte header holding the active flag, followed by the element's storage, which is never smaller
// than a pointer: a freed slot keeps the free-list link in the first word of its storage.
//
// An arena that has grown past kLargeArenaBytes takes its further blocks as large pages: a table of
// a million catalog files then costs a few hundred page faults to fill instead of a hundred
// thousand, and its lookups rarely miss the TLB. Small arenas never pay for a large block.
#include "agent_core/support/arena.h"

#include <cstdlib>
#include <cstring>
#include <limits>

#include "agent_core/support/large_pages.h"

namespace slm {

struct ArenaBlock {
  ArenaBlock* next;
  size_t capacity;    // slots in this block
  size_t largeBytes;  // non-zero: the block is large pages of this size
};

struct ArenaSlot {
  uint8_t active;  // non-zero while the element is in use
};

namespace {

constexpr size_t kElementSizeMultiple = 4;
// Blocks already held beyond which an arena grows by large blocks.
constexpr size_t kLargeArenaBytes = size_t{4} << 20;
// Nothing stored needs more; a wider alignment would cost a large table (the catalog's files)
// several percent of its memory.
constexpr size_t kStorageAlignment = kArenaAlignment;
static_assert(kStorageAlignment >= alignof(int64_t) && kStorageAlignment >= alignof(void*));

constexpr size_t roundUp(size_t value, size_t multiple) {
  return (value + multiple - 1) / multiple * multiple;
}

constexpr size_t kBlockHeaderBytes = roundUp(sizeof(ArenaBlock), kStorageAlignment);
constexpr size_t kSlotHeaderBytes = roundUp(sizeof(ArenaSlot), kStorageAlignment);
static_assert(kBlockHeaderBytes % kStorageAlignment == 0);
static_assert(kSlotHeaderBytes % kStorageAlignment == 0);

size_t slotBytes(const Arena* arena) {
  return kSlotHeaderBytes + roundUp(arena->elementSize, kStorageAlignment);
}

size_t blockBytes(const Arena* arena, size_t capacity) {
  return kBlockHeaderBytes + slotBytes(arena) * capacity;
}

ArenaSlot* slotAt(const Arena* arena, ArenaBlock* block, size_t index) {
  auto* base = reinterpret_cast<uint8_t*>(block) + kBlockHeaderBytes;
  return reinterpret_cast<ArenaSlot*>(base + slotBytes(arena) * index);
}

void* storageOf(ArenaSlot* slot) {
  return reinterpret_cast<uint8_t*>(slot) + kSlotHeaderBytes;
}

ArenaSlot* slotOf(void* storage) {
  return reinterpret_cast<ArenaSlot*>(static_cast<uint8_t*>(storage) - kSlotHeaderBytes);
}

// The free-list link of a freed slot, kept in its storage.
ArenaSlot*& nextFreeOf(ArenaSlot* slot) {
  return *static_cast<ArenaSlot**>(storageOf(slot));
}

ArenaBlock* newBlock(const Arena* arena, size_t heldBytes) {
  const size_t largeCapacity = (kLargePageBytes - kBlockHeaderBytes) / slotBytes(arena);
  if (heldBytes >= kLargeArenaBytes && largeCapacity > arena->elementsPerBlock) {
    auto* block = static_cast<ArenaBlock*>(allocateLargePages(kLargePageBytes));
    if (block != nullptr) {
      block->capacity = largeCapacity;
      block->largeBytes = kLargePageBytes;
      return block;
    }
    // Without a large block the arena still grows by small ones.
  }
  auto* block = static_cast<ArenaBlock*>(calloc(1, blockBytes(arena, arena->elementsPerBlock)));
  if (block != nullptr) block->capacity = arena->elementsPerBlock;
  return block;
}

void freeBlock(ArenaBlock* block) {
  if (block->largeBytes != 0) {
    freeLargePages(block, block->largeBytes);
  } else {
    free(block);
  }
}

}  // namespace

Arena* initArena(size_t elementSize, size_t elementsPerBlock) {
  constexpr size_t kMax = std::numeric_limits<size_t>::max();
  if (elementsPerBlock == 0 || elementSize > kMax / 2) return nullptr;
  size_t stride =
      kSlotHeaderBytes + roundUp(roundUp(elementSize, kElementSizeMultiple), kStorageAlignment);
  if (elementsPerBlock > (kMax - kBlockHeaderBytes) / stride) return nullptr;

  auto* arena = static_cast<Arena*>(calloc(1, sizeof(Arena)));
  if (arena == nullptr) return nullptr;
  arena->elementSize = roundUp(elementSize, kElementSizeMultiple);
  arena->elementsPerBlock = elementsPerBlock;
  arena->firstBlock = newBlock(arena, 0);
  if (arena->firstBlock == nullptr) {
    free(arena);
    return nullptr;
  }
  arena->currentBlock = arena->firstBlock;
  arena->heldBytes = blockBytes(arena, arena->firstBlock->capacity);
  return arena;
}

void* newArenaElement(Arena* arena) {
  if (arena == nullptr) return nullptr;
  ArenaSlot* slot = arena->freeHead;
  if (slot != nullptr) {
    arena->freeHead = nextFreeOf(slot);
  } else {
    if (arena->usedInCurrent == arena->currentBlock->capacity) {
      ArenaBlock* block = newBlock(arena, arena->heldBytes);
      if (block == nullptr) return nullptr;
      arena->heldBytes += blockBytes(arena, block->capacity);
      arena->currentBlock->next = block;
      arena->currentBlock = block;
      arena->usedInCurrent = 0;
    }
    slot = slotAt(arena, arena->currentBlock, arena->usedInCurrent++);
  }
  slot->active = 1;
  memset(storageOf(slot), 0, roundUp(arena->elementSize, kStorageAlignment));
  return storageOf(slot);
}

void deleteArenaElement(Arena* arena, void* element) {
  if (arena == nullptr || element == nullptr) return;
  ArenaSlot* slot = slotOf(element);
  // A second delete would put the slot on the free list twice and hand it out twice.
  if (!slot->active) return;
  memset(element, 0, arena->elementSize);
  slot->active = 0;
  nextFreeOf(slot) = arena->freeHead;
  arena->freeHead = slot;
}

void* findArenaNextActiveElement(Arena* arena, int restart) {
  if (arena == nullptr) return nullptr;
  if (restart != 0 || arena->walkBlock == nullptr) {
    arena->walkBlock = arena->firstBlock;
    arena->walkSlot = 0;
  }
  for (ArenaBlock* block = arena->walkBlock; block != nullptr; block = block->next) {
    for (size_t index = block == arena->walkBlock ? arena->walkSlot : 0; index < block->capacity;
         ++index) {
      ArenaSlot* slot = slotAt(arena, block, index);
      if (slot->active) {
        arena->walkBlock = block;
        arena->walkSlot = index + 1;
        return storageOf(slot);
      }
    }
  }
  arena->walkBlock = nullptr;
  arena->walkSlot = 0;
  return nullptr;
}

void cleanArenaSpace(Arena* arena) {
  if (arena == nullptr) return;
  ArenaBlock* block = arena->firstBlock->next;
  while (block != nullptr) {
    ArenaBlock* next = block->next;
    freeBlock(block);
    block = next;
  }
  ArenaBlock* first = arena->firstBlock;
  memset(slotAt(arena, first, 0), 0, slotBytes(arena) * first->capacity);
  first->next = nullptr;
  arena->heldBytes = blockBytes(arena, first->capacity);
  arena->currentBlock = arena->firstBlock;
  arena->usedInCurrent = 0;
  arena->freeHead = nullptr;
  arena->walkBlock = nullptr;
  arena->walkSlot = 0;
}

void deleteArena(Arena* arena) {
  if (arena == nullptr) return;
  ArenaBlock* block = arena->firstBlock;
  while (block != nullptr) {
    ArenaBlock* next = block->next;
    freeBlock(block);
    block = next;
  }
  free(arena);
}

}  // namespace slm
