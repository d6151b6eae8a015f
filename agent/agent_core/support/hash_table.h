// The hash table: values of a fixed size keyed by non-negative 64-bit integers, a fixed number of
// buckets (never rehashed), entries taken from an arena. Optionally several entries per key, told
// apart by their values; among equal keys the newest is found first. A very large table may take an
// open-addressed index instead of buckets (the catalog's files had one before they were kept
// compact; its benchmarks still compare with that layout). No locking: the owner guards each table,
// walks included.
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent_core/support/arena.h"

namespace slm {

// Spreads the bits of a 64-bit value over all 64, so that values far from evenly spread (file
// sizes, inode numbers) index a table evenly.
inline uint64_t mixBits(uint64_t value) {
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9u;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EBu;
  return value ^ (value >> 31);
}

// Every table of the agent has this many buckets.
constexpr int32_t kHashBuckets = 101;

// Compares a stored value with a `match`; non-zero means equal.
using HtCompare = int (*)(const void* stored, const void* match);

struct HtEntry;

struct HashTable {
  Arena* arena;       // the entries
  HtEntry** buckets;  // null in an open table
  uint64_t* slots;    // an open table's index: entry address and key tag, 0 when free
  size_t slotCount;
  size_t valueSize;
  size_t headerBytes;  // of an entry, before its value
  int32_t bucketCount;
  int32_t duplicates;  // non-zero: several entries may share a key
  int32_t count;
};

// Null when memory is short or `bucketCount` is not positive.
HashTable* initHashTable(size_t valueSize, int32_t bucketCount, int32_t duplicates);
// A table whose index is one array of slots instead of bucket chains: a lookup reads a run of
// adjacent slots and touches only the entries whose slot carries its key's tag, so a table of a
// million entries costs about one memory miss per lookup less. Several entries may share a key;
// its owner never stores two that match the same value (it looks before it adds), so which of
// several matches a find returns is not defined. The index starts with `slots` slots and grows by
// half whenever three quarters are taken. Null when memory is short or `slots` is 0.
HashTable* initOpenHashTable(size_t valueSize, size_t slots);
// Storage for the value of a new entry with `key`, zeroed, or null when memory is short. Without
// duplicates, an existing entry's value is returned unchanged instead and nothing is added.
void* addHtElement(HashTable* table, int64_t key);
// The value of the newest entry with `key` whose value matches `match` (any value when `match` is
// null), compared by `compare` or byte for byte; null when there is none.
void* findHtElement(HashTable* table, int64_t key, const void* match, HtCompare compare);

constexpr int kHtNotDeleted = 0;
constexpr int kHtDeleted = 1;
// Removes the newest entry with `key` (and, with duplicates, a value matching `match`, which is
// then required). 1 when an entry was removed, 0 otherwise.
int deleteHtElement(HashTable* table, int64_t key, const void* match, HtCompare compare);
// Walks all values in the arena's order, not by key; as findArenaNextActiveElement.
void* findHtNextElement(HashTable* table, int restart);
int32_t getHtElementsNum(const HashTable* table);
// Removes every entry but keeps the entry count: owners reset or ignore it themselves.
void resetHashTable(HashTable* table);
void deleteHashTable(HashTable* table);

// Zeroed storage for an index of `count` items of `size` bytes, or null when memory is short; and
// its release, given the same `count` times `size`.
void* newTableIndex(size_t count, size_t size);
void freeTableIndex(void* index, size_t bytes);

}  // namespace slm
