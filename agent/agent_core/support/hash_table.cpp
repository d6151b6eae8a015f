// Hash table entries are arena elements: the entry header, then the value. In a bucket table the
// header holds the key and the bucket-chain link, and new entries go to the head of their bucket's
// chain. In an open table it holds the key alone; the index is an array of slots, each the entry's
// address with a 16-bit tag of its key's hash above it, filled by linear probing and kept free of
// gaps inside a run when an entry goes (entries behind it move back), so that a free slot always
// ends a search.
#include "agent_core/support/hash_table.h"

#include <cstdlib>
#include <cstring>

#include "agent_core/support/large_pages.h"

namespace slm {

struct HtEntry {
  int64_t key;
  HtEntry* next;  // the next entry of the same bucket; not there in an open table's entries
};

namespace {

// Values keep the alignment of the arena's storage.
constexpr size_t kBucketEntryHeaderBytes = arenaAligned(sizeof(HtEntry));
constexpr size_t kOpenEntryHeaderBytes = arenaAligned(sizeof(int64_t));

// A slot holds a user-space address, which takes at most 48 bits, and the tag above it.
constexpr int kTagShift = 48;
constexpr uint64_t kAddressMask = (uint64_t{1} << kTagShift) - 1;
constexpr uint64_t kTagMask = ~kAddressMask;
// An open index grows before a search would have to read long runs of taken slots.
constexpr size_t kOpenLoadNumerator = 3;
constexpr size_t kOpenLoadDenominator = 4;
constexpr size_t kCacheLineBytes = 64;

void* valueOf(const HashTable* table, HtEntry* entry) {
  return reinterpret_cast<uint8_t*>(entry) + table->headerBytes;
}

HtEntry** bucketOf(HashTable* table, int64_t key) {
  int64_t index = key % table->bucketCount;
  // Owners use non-negative keys; a negative one is folded in rather than read outside the array.
  if (index < 0) index += table->bucketCount;
  return &table->buckets[index];
}

uint64_t hashOf(int64_t key) {
  return mixBits(static_cast<uint64_t>(key));
}

// The first slot to look at: the hash's high 32 bits scaled to the slot count (never above 2^32).
// The tag takes its low bits, so two keys with one home seldom share a tag.
size_t homeOf(uint64_t hash, size_t slotCount) {
  return static_cast<size_t>(((hash >> 32) * slotCount) >> 32);
}

uint64_t tagOf(uint64_t hash) {
  return hash << kTagShift;
}

HtEntry* entryOf(uint64_t slot) {
  return reinterpret_cast<HtEntry*>(slot & kAddressMask);
}

size_t nextSlot(const HashTable* table, size_t slot) {
  return slot + 1 == table->slotCount ? 0 : slot + 1;
}

// The bytes of large pages an index of `bytes` takes, or 0 for one that ordinary memory holds.
size_t largeIndexBytes(size_t bytes) {
  if (bytes < kLargePageBytes) return 0;
  return (bytes + kLargePageBytes - 1) / kLargePageBytes * kLargePageBytes;
}

bool matches(const HashTable* table, HtEntry* entry, const void* match, HtCompare compare) {
  if (match == nullptr) return true;
  if (compare != nullptr) return compare(valueOf(table, entry), match) != 0;
  return memcmp(valueOf(table, entry), match, table->valueSize) == 0;
}

// Puts `slot` into the first free slot of its run in `slots`.
void placeSlot(uint64_t* slots, size_t slotCount, uint64_t slot) {
  size_t at = homeOf(hashOf(entryOf(slot)->key), slotCount);
  while (slots[at] != 0) at = at + 1 == slotCount ? 0 : at + 1;
  slots[at] = slot;
}

// Moves the index into one half as large again. False when memory is short; the index is then
// unchanged.
bool growIndex(HashTable* table) {
  const size_t grown = table->slotCount + table->slotCount / 2 + 1;
  auto* slots = static_cast<uint64_t*>(newTableIndex(grown, sizeof(uint64_t)));
  if (slots == nullptr) return false;
  for (size_t i = 0; i < table->slotCount; ++i) {
    if (table->slots[i] != 0) placeSlot(slots, grown, table->slots[i]);
  }
  freeTableIndex(table->slots, table->slotCount * sizeof(uint64_t));
  table->slots = slots;
  table->slotCount = grown;
  return true;
}

void* addOpenElement(HashTable* table, int64_t key) {
  if ((static_cast<size_t>(table->count) + 1) * kOpenLoadDenominator >
          table->slotCount * kOpenLoadNumerator &&
      !growIndex(table)) {
    return nullptr;
  }
  auto* entry = static_cast<HtEntry*>(newArenaElement(table->arena));
  if (entry == nullptr) return nullptr;
  const auto address = reinterpret_cast<uintptr_t>(entry);
  if ((address & kTagMask) != 0) {
    // Not an address this index can hold: the entry is refused as if memory were short.
    deleteArenaElement(table->arena, entry);
    return nullptr;
  }
  entry->key = key;
  placeSlot(table->slots, table->slotCount, tagOf(hashOf(key)) | address);
  ++table->count;
  return valueOf(table, entry);
}

// Asks for every line of an entry at once: the compare reads two of them and the caller copies
// the value, and in a large table each is a miss of its own.
void prefetchEntry(const HashTable* table, const HtEntry* entry) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(entry);
  const size_t size = table->headerBytes + table->valueSize;
  for (size_t line = 0; line < size; line += kCacheLineBytes) __builtin_prefetch(bytes + line);
}

// The slot of the entry with `key` matching `match`, or slotCount when there is none.
size_t findOpenSlot(HashTable* table, int64_t key, const void* match, HtCompare compare) {
  const uint64_t hash = hashOf(key);
  const uint64_t tag = tagOf(hash);
  for (size_t at = homeOf(hash, table->slotCount);; at = nextSlot(table, at)) {
    const uint64_t slot = table->slots[at];
    if (slot == 0) return table->slotCount;
    if ((slot & kTagMask) != tag) continue;
    HtEntry* entry = entryOf(slot);
    prefetchEntry(table, entry);
    if (entry->key == key && matches(table, entry, match, compare)) return at;
  }
}

// Frees `at` and moves back each later entry of the run that may stand there: one whose home is
// not between the freed slot and its own.
void removeOpenSlot(HashTable* table, size_t at) {
  size_t hole = at;
  for (size_t next = nextSlot(table, at); table->slots[next] != 0; next = nextSlot(table, next)) {
    const size_t home = homeOf(hashOf(entryOf(table->slots[next])->key), table->slotCount);
    const bool movable = hole <= next ? home <= hole || home > next : home <= hole && home > next;
    if (movable) {
      table->slots[hole] = table->slots[next];
      hole = next;
    }
  }
  table->slots[hole] = 0;
}

HashTable* newTable(size_t valueSize, size_t headerBytes) {
  auto* table = static_cast<HashTable*>(calloc(1, sizeof(HashTable)));
  if (table == nullptr) return nullptr;
  table->arena = initArena(headerBytes + valueSize, 100);
  table->valueSize = valueSize;
  table->headerBytes = headerBytes;
  return table;
}

}  // namespace

// That of a large table (the catalog's files) takes large pages, as its arena does.
void* newTableIndex(size_t count, size_t size) {
  const size_t large = largeIndexBytes(count * size);
  if (large != 0) return allocateLargePages(large);
  return calloc(count, size);
}

void freeTableIndex(void* index, size_t bytes) {
  const size_t large = largeIndexBytes(bytes);
  if (large != 0) {
    freeLargePages(index, large);
  } else {
    free(index);
  }
}

HashTable* initHashTable(size_t valueSize, int32_t bucketCount, int32_t duplicates) {
  if (bucketCount <= 0) return nullptr;
  HashTable* table = newTable(valueSize, kBucketEntryHeaderBytes);
  if (table == nullptr) return nullptr;
  table->buckets = static_cast<HtEntry**>(newTableIndex(bucketCount, sizeof(HtEntry*)));
  table->bucketCount = bucketCount;
  table->duplicates = duplicates;
  if (table->arena == nullptr || table->buckets == nullptr) {
    deleteHashTable(table);
    return nullptr;
  }
  return table;
}

HashTable* initOpenHashTable(size_t valueSize, size_t slots) {
  if (slots == 0) return nullptr;
  HashTable* table = newTable(valueSize, kOpenEntryHeaderBytes);
  if (table == nullptr) return nullptr;
  table->slots = static_cast<uint64_t*>(newTableIndex(slots, sizeof(uint64_t)));
  table->slotCount = slots;
  table->duplicates = 1;
  if (table->arena == nullptr || table->slots == nullptr) {
    deleteHashTable(table);
    return nullptr;
  }
  return table;
}

void* addHtElement(HashTable* table, int64_t key) {
  if (table == nullptr) return nullptr;
  if (table->slots != nullptr) return addOpenElement(table, key);
  HtEntry** bucket = bucketOf(table, key);
  if (!table->duplicates) {
    for (HtEntry* entry = *bucket; entry != nullptr; entry = entry->next) {
      if (entry->key == key) return valueOf(table, entry);
    }
  }
  auto* entry = static_cast<HtEntry*>(newArenaElement(table->arena));
  if (entry == nullptr) return nullptr;
  entry->key = key;
  entry->next = *bucket;
  *bucket = entry;
  ++table->count;
  return valueOf(table, entry);
}

void* findHtElement(HashTable* table, int64_t key, const void* match, HtCompare compare) {
  if (table == nullptr) return nullptr;
  if (table->slots != nullptr) {
    const size_t at = findOpenSlot(table, key, match, compare);
    return at == table->slotCount ? nullptr : valueOf(table, entryOf(table->slots[at]));
  }
  for (HtEntry* entry = *bucketOf(table, key); entry != nullptr; entry = entry->next) {
    if (entry->key == key && matches(table, entry, match, compare)) return valueOf(table, entry);
  }
  return nullptr;
}

int deleteHtElement(HashTable* table, int64_t key, const void* match, HtCompare compare) {
  if (table == nullptr) return kHtNotDeleted;
  if (table->duplicates && match == nullptr) return kHtNotDeleted;
  if (table->slots != nullptr) {
    const size_t at = findOpenSlot(table, key, match, compare);
    if (at == table->slotCount) return kHtNotDeleted;
    HtEntry* entry = entryOf(table->slots[at]);
    removeOpenSlot(table, at);
    deleteArenaElement(table->arena, entry);
    --table->count;
    return kHtDeleted;
  }
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
  return entry == nullptr ? nullptr : valueOf(table, static_cast<HtEntry*>(entry));
}

int32_t getHtElementsNum(const HashTable* table) {
  return table == nullptr ? 0 : table->count;
}

void resetHashTable(HashTable* table) {
  if (table == nullptr) return;
  if (table->slots != nullptr) {
    memset(table->slots, 0, sizeof(uint64_t) * table->slotCount);
  } else {
    memset(table->buckets, 0, sizeof(HtEntry*) * table->bucketCount);
  }
  cleanArenaSpace(table->arena);
}

void deleteHashTable(HashTable* table) {
  if (table == nullptr) return;
  deleteArena(table->arena);
  if (table->buckets != nullptr)
    freeTableIndex(table->buckets, sizeof(HtEntry*) * table->bucketCount);
  if (table->slots != nullptr) freeTableIndex(table->slots, sizeof(uint64_t) * table->slotCount);
  free(table);
}

}  // namespace slm
