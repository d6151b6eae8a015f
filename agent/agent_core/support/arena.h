// The arena: fixed-size elements carved from chained blocks, freed elements reused last-freed
// first, and one walk over the elements in use. Blocks go back to the system only when the arena is
// cleaned or deleted, so an element's storage never moves. No locking: the owner guards each arena,
// walks included, since the walk position lives in the arena.
#pragma once

#include <cstddef>
#include <cstdint>

namespace slm {

// Element storage is aligned for 64-bit integers and pointers, which is all any record holds.
constexpr size_t kArenaAlignment = 8;

// Rounds a header size up so that what follows it in an element keeps the arena's alignment.
constexpr size_t arenaAligned(size_t bytes) {
  return (bytes + kArenaAlignment - 1) / kArenaAlignment * kArenaAlignment;
}

struct ArenaBlock;
struct ArenaSlot;

struct Arena {
  size_t elementSize;       // the requested size rounded up to a multiple of 4
  size_t elementsPerBlock;  // of a small block; a large block holds what fits
  size_t heldBytes;         // of all blocks
  ArenaBlock* firstBlock;
  ArenaBlock* currentBlock;  // the last block; slots are taken from it in order
  size_t usedInCurrent;      // slots of the current block ever taken
  ArenaSlot* freeHead;       // the slot freed last, or null
  ArenaBlock* walkBlock;     // null: the next walk starts at the first slot
  size_t walkSlot;           // the next slot the walk looks at
};

// Null when memory is short; the first block is allocated at once.
Arena* initArena(size_t elementSize, size_t elementsPerBlock);
// Zeroed storage of the element size, aligned to kArenaAlignment, or null when memory is short.
void* newArenaElement(Arena* arena);
// Zeroes the storage and makes it the next one handed out. Deleting a free element does nothing.
void deleteArenaElement(Arena* arena, void* element);
// The next element in use, in slot order, or null at the end; the call after a null, or any call
// with `restart` non-zero, starts again at the first slot.
void* findArenaNextActiveElement(Arena* arena, int restart);
// Empties the arena, keeping only its first block.
void cleanArenaSpace(Arena* arena);
void deleteArena(Arena* arena);

}  // namespace slm
