#include "agent_core/support/hash_table.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace slm {
namespace {

struct Value {
  int64_t id;
  char name[8];
};

Value valueOf(int64_t id, const char* name) {
  Value value{};
  value.id = id;
  strncpy(value.name, name, sizeof value.name - 1);
  return value;
}

Value* add(HashTable* table, int64_t key, const Value& value) {
  auto* stored = static_cast<Value*>(addHtElement(table, key));
  EXPECT_NE(nullptr, stored);
  if (stored != nullptr) *stored = value;
  return stored;
}

Value* find(HashTable* table, int64_t key, const Value* match = nullptr,
            HtCompare compare = nullptr) {
  return static_cast<Value*>(findHtElement(table, key, match, compare));
}

std::vector<int64_t> walkIds(HashTable* table) {
  std::vector<int64_t> ids;
  for (void* value = findHtNextElement(table, 1); value != nullptr;
       value = findHtNextElement(table, 0)) {
    ids.push_back(static_cast<Value*>(value)->id);
  }
  return ids;
}

int sameId(const void* stored, const void* match) {
  return static_cast<const Value*>(stored)->id == static_cast<const Value*>(match)->id;
}

TEST(HashTable, UniqueKeysKeepOneEntryEach) {
  HashTable* table = initHashTable(sizeof(Value), kHashBuckets, 0);
  ASSERT_NE(nullptr, table);
  Value* seven = add(table, 7, valueOf(7, "seven"));
  // Adding the key again hands back the entry as it is.
  EXPECT_EQ(seven, addHtElement(table, 7));
  EXPECT_STREQ("seven", seven->name);
  EXPECT_EQ(1, getHtElementsNum(table));

  // Keys sharing a bucket, and one beyond 32 bits that lands there as well.
  const int64_t keys[] = {7 + kHashBuckets, 7 + 2 * kHashBuckets,
                          7 + (int64_t{kHashBuckets} << 33)};
  for (int64_t key : keys) add(table, key, valueOf(key, "shared"));
  EXPECT_EQ(4, getHtElementsNum(table));
  EXPECT_EQ(seven, find(table, 7));
  for (int64_t key : keys) {
    ASSERT_NE(nullptr, find(table, key));
    EXPECT_EQ(key, find(table, key)->id);
  }
  EXPECT_EQ(nullptr, find(table, 8));
  EXPECT_EQ(nullptr, find(table, 7 + 3 * kHashBuckets));

  // The key alone identifies an entry here: a match that fits nothing does not stop the delete.
  Value other = valueOf(99, "other");
  EXPECT_EQ(kHtDeleted, deleteHtElement(table, keys[0], &other, nullptr));
  EXPECT_EQ(kHtNotDeleted, deleteHtElement(table, keys[0], nullptr, nullptr));
  EXPECT_EQ(nullptr, find(table, keys[0]));
  EXPECT_EQ(seven, find(table, 7));
  EXPECT_EQ(keys[1], find(table, keys[1])->id);
  EXPECT_EQ(3, getHtElementsNum(table));
  deleteHashTable(table);
}

TEST(HashTable, DuplicateKeysAreToldApartByValue) {
  HashTable* table = initHashTable(sizeof(Value), kHashBuckets, 1);
  ASSERT_NE(nullptr, table);
  const Value a = valueOf(1, "a"), b = valueOf(2, "b"), c = valueOf(3, "c");
  Value* storedA = add(table, 5, a);
  Value* storedB = add(table, 5, b);
  add(table, 5, c);
  EXPECT_EQ(3, getHtElementsNum(table));
  EXPECT_EQ(3, find(table, 5)->id);  // the newest first
  EXPECT_EQ(storedB, find(table, 5, &b));

  EXPECT_EQ(kHtNotDeleted, deleteHtElement(table, 5, nullptr, nullptr));
  EXPECT_EQ(3, getHtElementsNum(table));
  EXPECT_EQ(kHtDeleted, deleteHtElement(table, 5, &b, nullptr));
  EXPECT_EQ(kHtNotDeleted, deleteHtElement(table, 5, &b, nullptr));
  EXPECT_EQ(nullptr, find(table, 5, &b));
  EXPECT_EQ(kHtDeleted, deleteHtElement(table, 5, &c, nullptr));
  EXPECT_EQ(storedA, find(table, 5));
  EXPECT_EQ(1, getHtElementsNum(table));

  // A comparison function decides what matches: here the id alone.
  add(table, 5, valueOf(4, "four"));
  const Value probe = valueOf(4, "probe");
  EXPECT_EQ(nullptr, find(table, 5, &probe));
  ASSERT_NE(nullptr, find(table, 5, &probe, sameId));
  EXPECT_STREQ("four", find(table, 5, &probe, sameId)->name);
  EXPECT_EQ(kHtDeleted, deleteHtElement(table, 5, &probe, sameId));
  EXPECT_EQ(storedA, find(table, 5));
  deleteHashTable(table);
}

TEST(HashTable, WalksInArenaOrderAndResetKeepsTheCount) {
  HashTable* table = initHashTable(sizeof(Value), kHashBuckets, 0);
  ASSERT_NE(nullptr, table);
  // Bucket order would be 5, 101 (bucket 0 first: 101), 300; the walk follows the arena.
  for (int64_t key : {300, 5, 101}) add(table, key, valueOf(key, "k"));
  EXPECT_EQ((std::vector<int64_t>{300, 5, 101}), walkIds(table));
  EXPECT_EQ(kHtDeleted, deleteHtElement(table, 5, nullptr, nullptr));
  add(table, 42, valueOf(42, "k"));
  EXPECT_EQ((std::vector<int64_t>{300, 42, 101}), walkIds(table));

  resetHashTable(table);
  EXPECT_EQ(3, getHtElementsNum(table));
  EXPECT_EQ(std::vector<int64_t>{}, walkIds(table));
  EXPECT_EQ(nullptr, find(table, 300));
  auto* fresh = static_cast<Value*>(addHtElement(table, 300));
  ASSERT_NE(nullptr, fresh);
  EXPECT_EQ(0, fresh->id);
  EXPECT_EQ(4, getHtElementsNum(table));
  deleteHashTable(table);
}

}  // namespace
}  // namespace slm
