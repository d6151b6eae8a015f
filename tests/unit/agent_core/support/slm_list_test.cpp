#include "agent_core/support/slm_list.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <vector>

namespace slm {
namespace {

struct Record {
  int32_t id;
  char text[8];
};

Record record(int32_t id) {
  Record value{};
  value.id = id;
  value.text[0] = static_cast<char>('a' + id % 26);
  return value;
}

std::vector<int32_t> ids(SlmList* list) {
  std::vector<int32_t> values;
  for (void* current = getNext(list, nullptr); current != nullptr;
       current = getNext(list, current)) {
    values.push_back(static_cast<Record*>(current)->id);
  }
  return values;
}

SlmList* listOf(const std::vector<int32_t>& values) {
  SlmList* list = createList(sizeof(Record));
  EXPECT_NE(nullptr, list);
  for (int32_t id : values) {
    Record value = record(id);
    EXPECT_EQ(kListOk, append(list, &value));
  }
  return list;
}

TEST(SlmList, KeepsCopiesInAppendOrder) {
  std::vector<int32_t> expected(120);
  std::iota(expected.begin(), expected.end(), 0);
  // listOf appends each record from the same local variable: the list must hold copies.
  SlmList* list = listOf(expected);
  ASSERT_NE(nullptr, list);
  EXPECT_EQ(expected, ids(list));
  EXPECT_EQ(120, entries(list));
  EXPECT_EQ('c',
            static_cast<Record*>(getNext(list, getNext(list, getNext(list, nullptr))))->text[0]);
  deleteList(list);
}

TEST(SlmList, RemoveTakesTheFirstEqualRecordAndKeepsTheEnds) {
  const struct {
    std::vector<int32_t> before;
    int32_t removed;
    int result;
    std::vector<int32_t> after;  // then 9 is appended
  } cases[] = {
      {{1, 2, 3}, 1, kListOk, {2, 3, 9}}, {{1, 2, 3}, 2, kListOk, {1, 3, 9}},
      {{1, 2, 3}, 3, kListOk, {1, 2, 9}}, {{1, 2, 3}, 4, kListNotFound, {1, 2, 3, 9}},
      {{1, 2, 1}, 1, kListOk, {2, 1, 9}}, {{1}, 1, kListOk, {9}},
      {{}, 1, kListNotFound, {9}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "remove " << c.removed << " from " << c.before.size());
    SlmList* list = listOf(c.before);
    Record removed = record(c.removed);
    EXPECT_EQ(c.result, listRemove(list, &removed));
    Record nine = record(9);
    ASSERT_EQ(kListOk, append(list, &nine));
    EXPECT_EQ(c.after, ids(list));
    EXPECT_EQ(static_cast<int32_t>(c.after.size()), entries(list));
    deleteList(list);
  }
}

TEST(SlmList, RemoveComparesWholeRecordsAndAnEmptiedListGivesNothing) {
  SlmList* list = listOf({1});
  Record sameIdOtherText = record(1);
  sameIdOtherText.text[1] = 'x';
  EXPECT_EQ(kListNotFound, listRemove(list, &sameIdOtherText));
  void* only = getNext(list, nullptr);
  ASSERT_NE(nullptr, only);
  EXPECT_EQ(nullptr, getNext(list, only));
  Record one = record(1);
  ASSERT_EQ(kListOk, listRemove(list, &one));
  EXPECT_EQ(0, entries(list));
  EXPECT_EQ(nullptr, getNext(list, nullptr));
  // Even with a pointer it once gave, an empty list has no next record.
  EXPECT_EQ(nullptr, getNext(list, only));
  deleteList(list);
}

}  // namespace
}  // namespace slm
