#include "agent_core/support/hash_table.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace slm {
namespace {

struct Value {
  int64_t id;
  char name[8];
};

Value* add(HashTable* table, int64_t key, const Value& value) {
  auto* stored = static_cast<Value*>(addHtElement(table, key));
  *stored = value;
  return stored;
}

Value* find(HashTable* table, int64_t key, const Value* match = nullptr) {
  return static_cast<Value*>(findHtElement(table, key, match, nullptr));
}

std::vector<int64_t> walkIds(HashTable* table) {
  std::vector<int64_t> ids;
  for (void* v = findHtNextElement(table, 1); v != nullptr; v = findHtNextElement(table, 0))
    ids.push_back(static_cast<Value*>(v)->id);
  return ids;
}

TEST(HashTable, UniqueKeysKeepOneEntryEach) {
  HashTable* table = initHashTable(sizeof(Value), kHashBuckets, 0);
  Value* seven = add(table, 7, {7, "seven"});
  // Adding the key again hands back the entry as it is.
  EXPECT_EQ(seven, addHtElement(table, 7));
  EXPECT_STREQ("seven", seven->name);
  // Keys sharing a bucket, and one beyond 32 bits that lands there as well.
  const int64_t keys[] = {7 + kHashBuckets, 7 + (int64_t{kHashBuckets} << 33)};
  for (int64_t key : keys) add(table, key, {key, "shared"});
  for (int64_t key : keys) EXPECT_EQ(key, find(table, key) ? find(table, key)->id : 0);
  EXPECT_EQ(nullptr, find(table, 7 + 3 * kHashBuckets));
  // The key alone identifies an entry here: a match that fits nothing does not stop the delete.
  Value other{99, "other"};
  EXPECT_EQ(kHtDeleted, deleteHtElement(table, keys[0], &other, nullptr));
  EXPECT_EQ(seven, find(table, 7));
  EXPECT_EQ(keys[1], find(table, keys[1])->id);
  EXPECT_EQ(2, getHtElementsNum(table));
  deleteHashTable(table);
}

TEST(HashTable, DuplicateKeysAreToldApartByValue) {
  HashTable* table = initHashTable(sizeof(Value), kHashBuckets, 1);
  const Value a{1, "a"}, b{2, "b"}, c{3, "c"}, probe{4, "probe"};
  Value* storedA = add(table, 5, a);
  Value* storedB = add(table, 5, b);
  add(table, 5, c);
  EXPECT_EQ(3, find(table, 5)->id);  // the newest first
  EXPECT_EQ(storedB, find(table, 5, &b));
  EXPECT_EQ(kHtNotDeleted, deleteHtElement(table, 5, nullptr, nullptr));
  EXPECT_EQ(kHtDeleted, deleteHtElement(table, 5, &b, nullptr));
  EXPECT_EQ(kHtDeleted, deleteHtElement(table, 5, &c, nullptr));
  EXPECT_EQ(storedA, find(table, 5));
  // A comparison function decides what matches: here the id alone.
  add(table, 5, {4, "four"});
  EXPECT_EQ(nullptr, find(table, 5, &probe));
  auto sameId = [](const void* s, const void* m) {
    return int{static_cast<const Value*>(s)->id == static_cast<const Value*>(m)->id};
  };
  EXPECT_EQ(kHtDeleted, deleteHtElement(table, 5, &probe, sameId));
  EXPECT_EQ(storedA, find(table, 5));
  deleteHashTable(table);
}

TEST(HashTable, WalksInArenaOrderAndResetKeepsTheCount) {
  HashTable* table = initHashTable(sizeof(Value), kHashBuckets, 0);
  // Bucket order would differ (101 lies in bucket 0); the walk follows the arena.
  for (int64_t key : {300, 5, 101}) add(table, key, {key, "k"});
  EXPECT_EQ(kHtDeleted, deleteHtElement(table, 5, nullptr, nullptr));
  add(table, 42, {42, "k"});
  EXPECT_EQ((std::vector<int64_t>{300, 42, 101}), walkIds(table));
  resetHashTable(table);
  EXPECT_EQ(3, getHtElementsNum(table));
  EXPECT_EQ(nullptr, find(table, 300));
  EXPECT_EQ(0, static_cast<Value*>(addHtElement(table, 300))->id);
  deleteHashTable(table);
}

// The open index against the bucket chains under the same adds, finds and deletes: a hundred keys
// with some twenty values each, so that runs of taken slots merge and wrap around the end, and
// deletes that move later entries back. Both keep their entries in one arena order.
TEST(HashTable, OpenIndexFindsAndWalksWhatChainsDo) {
  HashTable* chained = initHashTable(sizeof(Value), kHashBuckets, 1);
  HashTable* open = initOpenHashTable(sizeof(Value), 1);
  std::mt19937_64 random(11);
  std::vector<std::pair<int64_t, Value>> present;
  for (int64_t id = 0; id < 3000; ++id) {
    if (!present.empty() && random() % 3 == 0) {
      const size_t gone = random() % present.size();
      const auto [key, value] = present[gone];
      ASSERT_EQ(kHtDeleted, deleteHtElement(open, key, &value, nullptr));
      ASSERT_EQ(kHtDeleted, deleteHtElement(chained, key, &value, nullptr));
      EXPECT_EQ(nullptr, find(open, key, &value));
      present.erase(present.begin() + static_cast<std::ptrdiff_t>(gone));
      continue;
    }
    const int64_t key = static_cast<int64_t>(random() % 100) << 20;
    const Value value{id, "v"};
    add(open, key, value);
    add(chained, key, value);
    present.emplace_back(key, value);
  }
  for (const auto& [key, value] : present) {
    const Value* found = find(open, key, &value);
    ASSERT_NE(nullptr, found);
    EXPECT_EQ(value.id, found->id);
  }
  EXPECT_EQ(static_cast<int32_t>(present.size()), getHtElementsNum(open));
  EXPECT_EQ(walkIds(chained), walkIds(open));
  resetHashTable(open);
  EXPECT_EQ(nullptr, find(open, present[0].first));
  deleteHashTable(open);
  deleteHashTable(chained);
}

}  // namespace
}  // namespace slm
