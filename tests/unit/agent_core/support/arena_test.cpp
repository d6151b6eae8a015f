#include "agent_core/support/arena.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace slm {
namespace {

std::vector<int32_t> walk(Arena* arena) {
  std::vector<int32_t> values;
  for (void* e = findArenaNextActiveElement(arena, 1); e; e = findArenaNextActiveElement(arena, 0))
    values.push_back(*static_cast<int32_t*>(e));
  return values;
}

int32_t* newValue(Arena* arena, int32_t value) {
  auto* element = static_cast<int32_t*>(newArenaElement(arena));
  *element = value;
  return element;
}

TEST(Arena, RoundsSizeAndKeepsElementsApartAndAligned) {
  for (const auto& [requested, stored] : {std::pair<size_t, size_t>{1, 4}, {4, 4}, {5, 8}}) {
    Arena* arena = initArena(requested, 3);
    EXPECT_EQ(stored, arena->elementSize);
    // Seven elements span three blocks; each is filled to its full size with its own byte.
    uint8_t* elements[7];
    for (int i = 0; i < 7; ++i) {
      elements[i] = static_cast<uint8_t*>(newArenaElement(arena));
      EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(elements[i]) % kArenaAlignment);
      EXPECT_EQ(stored, std::count(elements[i], elements[i] + stored, 0));
      memset(elements[i], 0x10 + i, stored);
    }
    for (int i = 0; i < 7; ++i)
      EXPECT_EQ(stored, std::count(elements[i], elements[i] + stored, 0x10 + i)) << requested;
    deleteArena(arena);
  }
}

TEST(Arena, ReusesLastFreedFirst) {
  Arena* arena = initArena(16, 4);
  auto* a = static_cast<uint8_t*>(newArenaElement(arena));
  void* b = newArenaElement(arena);
  void* c = newArenaElement(arena);
  memset(a, 0xAB, 16);
  deleteArenaElement(arena, a);
  deleteArenaElement(arena, c);
  EXPECT_EQ(c, newArenaElement(arena));
  EXPECT_EQ(a, newArenaElement(arena));
  EXPECT_EQ(16, std::count(a, a + 16, 0));
  // Deleting twice frees the slot once: it is handed out once.
  deleteArenaElement(arena, b);
  deleteArenaElement(arena, b);
  EXPECT_EQ(b, newArenaElement(arena));
  EXPECT_NE(b, newArenaElement(arena));
  deleteArena(arena);
}

TEST(Arena, WalksSlotsInOrderAndCleanKeepsOnlyTheFirstBlock) {
  Arena* arena = initArena(sizeof(int32_t), 2);
  int32_t* elements[5];
  for (int32_t i = 0; i < 5; ++i) elements[i] = newValue(arena, i + 1);
  deleteArenaElement(arena, elements[1]);
  deleteArenaElement(arena, elements[4]);
  EXPECT_EQ((std::vector<int32_t>{1, 3, 4}), walk(arena));
  newValue(arena, 6);
  newValue(arena, 7);  // the reused slot is visited where it lies, not at the end
  EXPECT_EQ((std::vector<int32_t>{1, 7, 3, 4, 6}), walk(arena));
  // After the end the next call starts over even without `restart`; `restart` starts over at once.
  EXPECT_EQ(1, *static_cast<int32_t*>(findArenaNextActiveElement(arena, 0)));
  EXPECT_EQ(7, *static_cast<int32_t*>(findArenaNextActiveElement(arena, 0)));
  deleteArenaElement(arena, elements[1]);
  cleanArenaSpace(arena);
  EXPECT_EQ(nullptr, findArenaNextActiveElement(arena, 1));
  // Slots are taken from the first block again, in order; the free list is gone.
  EXPECT_EQ(elements[0], newArenaElement(arena));
  EXPECT_EQ(elements[1], newArenaElement(arena));
  deleteArena(arena);
}

// Past a few megabytes an arena grows by large blocks: the walk still visits every element in the
// order it was taken, across the change of block size, and a clean drops the large blocks too.
TEST(Arena, GrowsByLargeBlocksWithoutChangingOrderOrReuse) {
  Arena* arena = initArena(400, 100);
  constexpr int32_t kCount = 30000;  // about 12 MiB: several large blocks
  std::vector<int32_t*> elements;
  for (int32_t i = 0; i < kCount; ++i) elements.push_back(newValue(arena, i));
  EXPECT_GT(arena->heldBytes, size_t{12} << 20);
  std::vector<int32_t> expected(kCount);
  for (int32_t i = 0; i < kCount; ++i) expected[i] = i;
  EXPECT_EQ(expected, walk(arena));
  deleteArenaElement(arena, elements[kCount - 2]);
  EXPECT_EQ(elements[kCount - 2], newValue(arena, -1));
  EXPECT_EQ(0, reinterpret_cast<uintptr_t>(elements[kCount - 1]) % kArenaAlignment);
  cleanArenaSpace(arena);
  EXPECT_EQ(std::vector<int32_t>{}, walk(arena));
  for (int32_t i = 0; i < kCount; ++i) newValue(arena, i);
  EXPECT_EQ(expected, walk(arena));
  deleteArena(arena);
}

}  // namespace
}  // namespace slm
