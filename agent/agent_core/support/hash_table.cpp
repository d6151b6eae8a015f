// Hash table entries are arena elements: the entry header (key and bucket-chain link), then the
// value. New entries go to the head of their bucket's chain.
#include "agent_core/support/hash_table.h"

#include <cstdlib>
#include <cstring>

#include "agent_core/support/large_pages.h"

namespace slm {

struct HtEntry {
  int64_t key;
  HtEntry* next;  // the next entry of the same bucket
};

namespace {

// Values keep the alignment of the arena's storage.
constexpr size_t kEntryHeaderBytes = arenaAligned(sizeof(HtEntry));

void* valueOf(HtEntry* entry) {
  return reinterpret_cast<uint8_t*>(entry) + kEntryHeaderBytes;
}

HtEntry** bucketOf(HashTable* table, int64_t key) {
  int64_t index = key % table->bucketCount;
  // Owners use non-negative keys; a negative one is folded in rather than read outside the array.
  if (index < 0) index += table->bucketCount;
  return &table->buckets[index];
}

// A bucket array of a large table (the catalog's files) takes large pages, as its arena does.
size_t largeBucketBytes(int32_t bucketCount) {
  const size_t bytes = sizeof(HtEntry*) * static_cast<size_t>(bucketCount);
  if (bytes < kLargePageBytes) return 0;
  return (bytes + kLargePageBytes - 1) / kLargePageBytes * kLargePageBytes;
}

HtEntry** newBuckets(int32_t bucketCount) {
  const size_t large = largeBucketBytes(bucketCount);
  if (large != 0) return static_cast<HtEntry**>(allocateLargePages(large));
  return static_cast<HtEntry**>(calloc(bucketCount, sizeof(HtEntry*)));
}

void freeBuckets(HtEntry** buckets, int32_t bucketCount) {
  const size_t large = largeBucketBytes(bucketCount);
  if (large != 0) {
    freeLargePages(buckets, large);
  } else {
    free(buckets);
  }
}

bool matches(const HashTable* table, HtEntry* entry, const void* match, HtCompare compare) {
  if (match == nullptr) return true;
  if (compare != nullptr) return compare(valueOf(entry), match) != 0;
  return memcmp(valueOf(entry), match, table->valueSize) == 0;
}

}  // namespace

HashTable* initHashTable(size_t valueSize, int32_t bucketCount, int32_t duplicates) {
  if (bucketCount <= 0) return nullptr;
  auto* table = static_cast<HashTable*>(calloc(1, sizeof(HashTable)));
  if (table == nullptr) return nullptr;
  table->arena = initArena(kEntryHeaderBytes + valueSize, 100);
  table->buckets = newBuckets(bucketCount);
  if (table->arena == nullptr || table->buckets == nullptr) {
    deleteArena(table->arena);
    if (table->buckets != nullptr) freeBuckets(table->buckets, bucketCount);
    free(table);
    return nullptr;
  }
  table->valueSize = valueSize;
  table->bucketCount = bucketCount;
  table->duplicates = duplicates;
  return table;
}

void* addHtElement(HashTable* table, int64_t key) {
  if (table == nullptr) return nullptr;
  HtEntry** bucket = bucketOf(table, key);
  if (!table->duplicates) {
    for (HtEntry* entry = *bucket; entry != nullptr; entry = entry->next) {
      if (entry->key == key) return valueOf(entry);
    }
  }
  auto* entry = static_cast<HtEntry*>(newArenaElement(table->arena));
  if (entry == nullptr) return nullptr;
  entry->key = key;
  entry->next = *bucket;
  *bucket = entry;
  ++table->count;
  return valueOf(entry);
}

void* findHtElement(HashTable* table, int64_t key, const void* match, HtCompare compare) {
  if (table == nullptr) return nullptr;
  for (HtEntry* entry = *bucketOf(table, key); entry != nullptr; entry = entry->next) {
    if (entry->key == key && matches(table, entry, match, compare)) return valueOf(entry);
  }
  return nullptr;
}

int deleteHtElement(HashTable* table, int64_t key, const void* match, HtCompare compare) {
  if (table == nullptr) return kHtNotDeleted;
  if (table->duplicates && match == nullptr) return kHtNotDeleted;
  // Without duplicates the key alone identifies the entry; `match` is not looked at.
  const void* valueMatch = table->duplicates ? match : nullptr;
  for (HtEntry** link = bucketOf(table, key); *link != nullptr; link = &(*link)->next) {
    HtEntry* entry = *link;
    if (entry->key == key && matches(table, entry, valueMatch, compare)) {
      *link = entry->next;
      deleteArenaElement(table->arena, entry);
      --table->count;
      return kHtDeleted;
    }
  }
  return kHtNotDeleted;
}

void* findHtNextElement(HashTable* table, int restart) {
  if (table == nullptr) return nullptr;
  void* entry = findArenaNextActiveElement(table->arena, restart);
  return entry == nullptr ? nullptr : valueOf(static_cast<HtEntry*>(entry));
}

int32_t getHtElementsNum(const HashTable* table) {
  return table == nullptr ? 0 : table->count;
}

void resetHashTable(HashTable* table) {
  if (table == nullptr) return;
  memset(table->buckets, 0, sizeof(HtEntry*) * table->bucketCount);
  cleanArenaSpace(table->arena);
}

void deleteHashTable(HashTable* table) {
  if (table == nullptr) return;
  deleteArena(table->arena);
  freeBuckets(table->buckets, table->bucketCount);
  free(table);
}

}  // namespace slm
