#include "agent_core/support/slm_list.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace slm {
namespace {

struct Record {
  int32_t id;
  char text[8];
};

std::vector<int32_t> ids(SlmList* list) {
  std::vector<int32_t> values;
  for (void* p = getNext(list, nullptr); p != nullptr; p = getNext(list, p))
    values.push_back(static_cast<Record*>(p)->id);
  return values;
}

// Appends every record from the same local variable: the list must hold copies.
SlmList* listOf(const std::vector<int32_t>& values) {
  SlmList* list = createList(sizeof(Record));
  for (int32_t id : values) {
    Record value{id, {'a'}};
    EXPECT_EQ(kListOk, append(list, &value));
  }
  return list;
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
  };
  for (const auto& c : cases) {
    SlmList* list = listOf(c.before);
    Record removed{c.removed, {'a'}}, nine{9, {'a'}};
    EXPECT_EQ(c.result, listRemove(list, &removed)) << c.removed;
    ASSERT_EQ(kListOk, append(list, &nine));
    EXPECT_EQ(c.after, ids(list)) << c.removed;
    EXPECT_EQ(static_cast<int32_t>(c.after.size()), entries(list));
    deleteList(list);
  }
}

TEST(SlmList, RemoveComparesWholeRecordsAndAnEmptiedListGivesNothing) {
  SlmList* list = listOf({1});
  Record otherText{1, {'a', 'x'}}, one{1, {'a'}};
  EXPECT_EQ(kListNotFound, listRemove(list, &otherText));
  void* only = getNext(list, nullptr);
  ASSERT_EQ(kListOk, listRemove(list, &one));
  EXPECT_EQ(0, entries(list));
  EXPECT_EQ(nullptr, getNext(list, only));  // even with a pointer it once gave
  deleteList(list);
}

}  // namespace
}  // namespace slm
