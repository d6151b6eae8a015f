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

bool isZeroed(const void* storage, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(storage);
  return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

// The int32 values of one complete walk, from the beginning.
std::vector<int32_t> walk(Arena* arena) {
  std::vector<int32_t> values;
  for (void* element = findArenaNextActiveElement(arena, 1); element != nullptr;
       element = findArenaNextActiveElement(arena, 0)) {
    values.push_back(*static_cast<int32_t*>(element));
  }
  return values;
}

int32_t* newValue(Arena* arena, int32_t value) {
  auto* element = static_cast<int32_t*>(newArenaElement(arena));
  EXPECT_NE(nullptr, element);
  if (element != nullptr) *element = value;
  return element;
}

TEST(Arena, RoundsSizeAndKeepsElementsApartAndAligned) {
  const std::pair<size_t, size_t> cases[] = {{1, 4}, {4, 4}, {5, 8}, {9, 12}, {13, 16}, {276, 276}};
  for (const auto& [requested, stored] : cases) {
    SCOPED_TRACE(requested);
    Arena* arena = initArena(requested, 3);
    ASSERT_NE(nullptr, arena);
    EXPECT_EQ(stored, arena->elementSize);
    // Seven elements span three blocks; each is filled to its full size with its own byte.
    std::vector<uint8_t*> elements;
    for (int i = 0; i < 7; ++i) {
      auto* element = static_cast<uint8_t*>(newArenaElement(arena));
      ASSERT_NE(nullptr, element);
      EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(element) % alignof(std::max_align_t));
      EXPECT_TRUE(isZeroed(element, stored));
      memset(element, 0x10 + i, stored);
      elements.push_back(element);
    }
    for (int i = 0; i < 7; ++i) {
      for (size_t b = 0; b < stored; ++b) ASSERT_EQ(0x10 + i, elements[i][b]);
    }
    deleteArena(arena);
  }
}

TEST(Arena, ReusesLastFreedFirst) {
  Arena* arena = initArena(16, 4);
  ASSERT_NE(nullptr, arena);
  void* a = newArenaElement(arena);
  void* b = newArenaElement(arena);
  void* c = newArenaElement(arena);
  memset(a, 0xAB, 16);
  memset(c, 0xCD, 16);
  deleteArenaElement(arena, a);
  deleteArenaElement(arena, c);

  void* first = newArenaElement(arena);
  EXPECT_EQ(c, first);
  EXPECT_TRUE(isZeroed(first, 16));
  void* second = newArenaElement(arena);
  EXPECT_EQ(a, second);
  EXPECT_TRUE(isZeroed(second, 16));
  void* fresh = newArenaElement(arena);
  EXPECT_NE(a, fresh);
  EXPECT_NE(b, fresh);
  EXPECT_NE(c, fresh);

  // Deleting twice frees the slot once: it is handed out once.
  deleteArenaElement(arena, b);
  deleteArenaElement(arena, b);
  EXPECT_EQ(b, newArenaElement(arena));
  EXPECT_NE(b, newArenaElement(arena));
  deleteArena(arena);
}

TEST(Arena, WalksSlotsInOrderAcrossBlocks) {
  Arena* arena = initArena(sizeof(int32_t), 2);
  ASSERT_NE(nullptr, arena);
  EXPECT_EQ(std::vector<int32_t>{}, walk(arena));
  int32_t* elements[5];
  for (int32_t i = 0; i < 5; ++i) elements[i] = newValue(arena, i + 1);
  EXPECT_EQ((std::vector<int32_t>{1, 2, 3, 4, 5}), walk(arena));

  deleteArenaElement(arena, elements[1]);
  deleteArenaElement(arena, elements[4]);
  EXPECT_EQ((std::vector<int32_t>{1, 3, 4}), walk(arena));
  // The reused slot is visited where it lies, not at the end.
  newValue(arena, 6);
  newValue(arena, 7);
  EXPECT_EQ((std::vector<int32_t>{1, 7, 3, 4, 6}), walk(arena));

  // After the end the next call starts over even without `restart`; `restart` starts over at once.
  EXPECT_EQ(1, *static_cast<int32_t*>(findArenaNextActiveElement(arena, 0)));
  EXPECT_EQ(7, *static_cast<int32_t*>(findArenaNextActiveElement(arena, 0)));
  EXPECT_EQ(1, *static_cast<int32_t*>(findArenaNextActiveElement(arena, 1)));
  EXPECT_EQ(7, *static_cast<int32_t*>(findArenaNextActiveElement(arena, 0)));
  deleteArena(arena);
}

TEST(Arena, CleanKeepsOnlyTheFirstBlock) {
  Arena* arena = initArena(sizeof(int32_t), 2);
  ASSERT_NE(nullptr, arena);
  int32_t* first = newValue(arena, 1);
  int32_t* second = newValue(arena, 2);
  for (int32_t i = 3; i <= 6; ++i) newValue(arena, i);
  deleteArenaElement(arena, second);
  findArenaNextActiveElement(arena, 1);

  cleanArenaSpace(arena);
  EXPECT_EQ(nullptr, findArenaNextActiveElement(arena, 0));
  // Slots are taken from the first block again, in order; the free list is gone.
  EXPECT_EQ(first, newArenaElement(arena));
  EXPECT_TRUE(isZeroed(first, sizeof(int32_t)));
  EXPECT_EQ(second, newArenaElement(arena));
  *second = 2;
  *first = 1;
  newValue(arena, 3);
  EXPECT_EQ((std::vector<int32_t>{1, 2, 3}), walk(arena));
  deleteArena(arena);
}

}  // namespace
}  // namespace slm
