// Entries and component lists live in two block stores: blocks that are only appended to and
// freed all at once, so that nothing stored ever moves. An entry is 26 bytes and its name, rounded
// up to 4: at a million files of names of a dozen characters that is a tenth of the 408-byte
// record. The index is an array of slots, each an entry's address with a 16-bit tag of its file's
// hash above it, filled by linear probing; entries never leave it one by one, so a free slot always
// ends a search. A lookup reads its slots, the entry and, for a file of several components, the
// list: nothing else.
#include "agent_core/cache/lat_files.h"

#include <bit>
#include <cstdlib>
#include <cstring>

#include "agent_core/support/hash_table.h"
#include "agent_core/support/large_pages.h"

namespace slm {
namespace {

// ---- Block stores.

constexpr size_t kUnitBytes = 4;  // what entries and lists are aligned to
// The first block takes ordinary pages, so that a catalog of up to some 150,000 files costs what it
// holds rather than whole large pages. Once a store needs a second block, the first moves to large
// pages, and every later block is large pages from the start: a lookup in a big catalog then misses
// the TLB far less often.
constexpr size_t kFirstBlockBytes = size_t{8} << 20;
// Left unused at the end of every block, so that a name's last word can be read whole.
constexpr size_t kBlockSpareBytes = 8;
// An index slot holds an entry's address in its low 48 bits, which hold every user-space address
// but those a kernel hands out only when asked for them.
constexpr int kTagShift = 48;
constexpr uint64_t kAddressMask = (uint64_t{1} << kTagShift) - 1;
static_assert(kFirstBlockBytes % kLargePageBytes == 0);

struct Block {
  uint8_t* bytes;
  uint32_t capacity;
  uint32_t used;
};

struct BlockStore {
  Block* blocks = nullptr;
  uint32_t count = 0;
  uint32_t room = 0;   // of `blocks`
  bool large = false;  // the first block has moved to large pages
};

void moveFirstBlock(BlockStore* store) {
  if (store->large || store->count == 0) return;
  moveToLargePages(store->blocks[0].bytes, store->blocks[0].capacity + kBlockSpareBytes);
  store->large = true;
}

bool addBlock(BlockStore* store) {
  if (store->count == store->room) {
    const uint32_t room = store->room == 0 ? 16 : store->room * 2;
    auto* blocks = static_cast<Block*>(realloc(store->blocks, sizeof(Block) * room));
    if (blocks == nullptr) return false;
    store->blocks = blocks;
    store->room = room;
  }
  const size_t bytes = store->count == 0 ? kFirstBlockBytes : kLargePageBytes;
  void* storage = store->count == 0 ? allocateSmallPages(bytes) : allocateLargePages(bytes);
  if (storage == nullptr) return false;
  if (((reinterpret_cast<uintptr_t>(storage) + bytes) & ~kAddressMask) != 0) {
    // Storage a slot could not point into is refused as if memory were short.
    freeLargePages(storage, bytes);
    return false;
  }
  if (store->count == 1) moveFirstBlock(store);
  store->blocks[store->count++] = {static_cast<uint8_t*>(storage),
                                   static_cast<uint32_t>(bytes - kBlockSpareBytes), 0};
  return true;
}

void freeBlocks(BlockStore* store) {
  for (uint32_t i = 0; i < store->count; ++i) {
    freeLargePages(store->blocks[i].bytes, store->blocks[i].capacity + kBlockSpareBytes);
  }
  free(store->blocks);
  *store = BlockStore{};
}

// `bytes` (a multiple of kUnitBytes) after everything in the store, or null when memory is short.
uint8_t* allocateIn(BlockStore* store, size_t bytes) {
  const Block* last = store->count == 0 ? nullptr : &store->blocks[store->count - 1];
  if (last == nullptr || last->capacity - last->used < bytes) {
    if (!addBlock(store)) return nullptr;
  }
  Block& block = store->blocks[store->count - 1];
  uint8_t* at = block.bytes + block.used;
  block.used += static_cast<uint32_t>(bytes);
  return at;
}

constexpr size_t roundToUnit(size_t bytes) {
  return (bytes + kUnitBytes - 1) / kUnitBytes * kUnitBytes;
}

// ---- Entries.

constexpr size_t kEntrySizeOffset = 0;
constexpr size_t kEntryAttribute1Offset = 8;
constexpr size_t kEntryAttribute2Offset = 12;
constexpr size_t kEntryIdsOffset = 16;  // the one id, or the address of the list
constexpr size_t kEntryKindOffset = 24;
constexpr size_t kEntryNameLengthOffset = 25;
constexpr size_t kEntryNameOffset = 26;
static_assert(kEntrySizeOffset + 8 == kEntryAttribute1Offset);
static_assert(kEntryAttribute1Offset + 4 == kEntryAttribute2Offset);
static_assert(kEntryAttribute2Offset + 4 == kEntryIdsOffset);
static_assert(kEntryIdsOffset + 8 == kEntryKindOffset);
static_assert(kEntryKindOffset + 1 == kEntryNameLengthOffset);
static_assert(kEntryNameLengthOffset + 1 == kEntryNameOffset);
constexpr size_t kMaxNameLength = kFileNameSize - 1;
static_assert(kMaxNameLength <= UINT8_MAX);

// How an entry holds its component ids.
constexpr uint8_t kNoIds = 0;   // count 0, every slot 0
constexpr uint8_t kOneId = 1;   // count 1, the id in slot 0 (whatever it is), the others 0
constexpr uint8_t kIdList = 2;  // anything else: a list, kept with its count as it came

template <typename T>
T load(const uint8_t* at) {
  T value;
  memcpy(&value, at, sizeof value);
  return value;
}

template <typename T>
void save(uint8_t* at, T value) {
  memcpy(at, &value, sizeof value);
}

size_t entryBytes(size_t nameLength) {
  return roundToUnit(kEntryNameOffset + nameLength);
}

size_t nameLengthOf(const uint8_t* entry) {
  return entry[kEntryNameLengthOffset];
}

const char* nameOf(const uint8_t* entry) {
  return reinterpret_cast<const char*>(entry + kEntryNameOffset);
}

// A list: its count as it came (signed 32-bit), the number of ids kept, then the ids. Ids are kept
// up to the last non-zero slot and at least up to the count, so that the record comes back byte
// for byte whatever a damaged file held.
constexpr size_t kListCountOffset = 0;
constexpr size_t kListKeptOffset = 4;
constexpr size_t kListIdsOffset = 8;

size_t listBytes(int32_t kept) {
  return kListIdsOffset + 8 * static_cast<size_t>(kept);
}

// ---- Names and hashes.

constexpr uint64_t kOnes = 0x0101010101010101u;

// The agent runs in the C locale (it never calls setlocale), where two names are equal without
// regard to case when their bytes are equal once A-Z are lowered. This lowers eight at once: a
// byte below 0x80 that lies in 'A'..'Z' gains 0x20.
uint64_t lowerWord(uint64_t word) {
  const uint64_t low7 = word & (0x7F * kOnes);
  const uint64_t fromA = low7 + (0x80 - 'A') * kOnes;
  const uint64_t pastZ = low7 + (0x80 - 'Z' - 1) * kOnes;
  const uint64_t upper = fromA & ~pastZ & ~word & (0x80 * kOnes);
  return word | (upper >> 2);
}

// Eight bytes of `text` from `at`, those past `length` made zero. All eight are read: a name is
// either in a record's 256-byte field, whose last word ends inside it, or in an entry, which a
// block's spare bytes follow.
uint64_t wordAt(const char* text, size_t at, size_t length) {
  static_assert(std::endian::native == std::endian::little);
  uint64_t word;
  memcpy(&word, text + at, sizeof word);
  const size_t left = length - at;
  return left >= 8 ? word : word & ((uint64_t{1} << (8 * left)) - 1);
}

bool sameNameIgnoringCase(const char* a, const char* b, size_t length) {
  for (size_t at = 0; at < length; at += 8) {
    if (lowerWord(wordAt(a, at, length)) != lowerWord(wordAt(b, at, length))) return false;
  }
  return true;
}

// The hash of a file: its size and its lowered name, so that files that share a size (a catalog
// may hold thousands) spread over the index like any others.
uint64_t fileHash(int64_t size, const char* name, size_t length) {
  constexpr uint64_t kMultiplier = 0x9E3779B97F4A7C15u;
  uint64_t hash = static_cast<uint64_t>(size) * kMultiplier + length;
  for (size_t at = 0; at < length; at += 8) {
    hash = (hash ^ lowerWord(wordAt(name, at, length))) * kMultiplier;
    hash ^= hash >> 29;
  }
  return mixBits(hash);
}

// ---- Index slots: the entry's address, and above it the tag, 16 low bits of the hash. A search
// starts at the home the hash's high half gives.

uint64_t tagOf(uint64_t hash) {
  return hash << kTagShift;
}

size_t homeOf(uint64_t hash, size_t slotCount) {
  return static_cast<size_t>(((hash >> 32) * slotCount) >> 32);
}

uint8_t* entryOf(uint64_t slot) {
  return reinterpret_cast<uint8_t*>(slot & kAddressMask);
}

// The index grows by half when three quarters are taken; a reserved index is two thirds full at
// most, where a search for a missing file reads about five slots.
constexpr size_t kLoadNumerator = 3;
constexpr size_t kLoadDenominator = 4;

uint64_t* newSlots(size_t count) {
  return static_cast<uint64_t*>(newTableIndex(count, sizeof(uint64_t)));
}

// The component lists' own index: their addresses (null is free), grown at half full.
struct ListSet {
  const uint8_t** slots = nullptr;
  size_t slotCount = 0;  // a power of two
  size_t count = 0;
};

}  // namespace

struct CatalogFiles {
  BlockStore entries;
  BlockStore lists;
  ListSet listSet;
  uint64_t* slots;
  size_t slotCount;
  size_t firstSlotCount;
  int32_t count;
};

namespace {

uint64_t entryHash(const uint8_t* entry) {
  return fileHash(load<int64_t>(entry + kEntrySizeOffset), nameOf(entry), nameLengthOf(entry));
}

// The slot that holds the file, or slotCount when it is not there.
size_t findSlot(const CatalogFiles* files, int64_t size, const char* name, size_t length,
                uint64_t hash) {
  const uint64_t tag = tagOf(hash);
  for (size_t at = homeOf(hash, files->slotCount);; at = at + 1 == files->slotCount ? 0 : at + 1) {
    const uint64_t slot = files->slots[at];
    if (slot == 0) return files->slotCount;
    if ((slot & ~kAddressMask) != tag) continue;
    const uint8_t* entry = entryOf(slot);
    if (load<int64_t>(entry + kEntrySizeOffset) == size && nameLengthOf(entry) == length &&
        sameNameIgnoringCase(nameOf(entry), name, length)) {
      return at;
    }
  }
}

void placeSlot(uint64_t* slots, size_t slotCount, uint64_t hash, uint64_t slot) {
  size_t at = homeOf(hash, slotCount);
  while (slots[at] != 0) at = at + 1 == slotCount ? 0 : at + 1;
  slots[at] = slot;
}

// Moves the index into `slotCount` slots. False when memory is short; the index is then unchanged.
bool resizeIndex(CatalogFiles* files, size_t slotCount) {
  uint64_t* slots = newSlots(slotCount);
  if (slots == nullptr) return false;
  for (size_t i = 0; i < files->slotCount; ++i) {
    const uint64_t slot = files->slots[i];
    if (slot != 0) placeSlot(slots, slotCount, entryHash(entryOf(slot)), slot);
  }
  freeTableIndex(files->slots, files->slotCount * sizeof(uint64_t));
  files->slots = slots;
  files->slotCount = slotCount;
  return true;
}

uint64_t listHash(const uint8_t* list, size_t bytes) {
  uint64_t hash = 0;
  for (size_t at = 0; at < bytes; at += 8) hash = mixBits(hash ^ load<uint64_t>(list + at));
  return hash;
}

bool growListSet(ListSet* set) {
  const size_t slotCount = set->slotCount == 0 ? 64 : set->slotCount * 2;
  auto* slots = static_cast<const uint8_t**>(calloc(slotCount, sizeof(uint8_t*)));
  if (slots == nullptr) return false;
  for (size_t i = 0; i < set->slotCount; ++i) {
    const uint8_t* list = set->slots[i];
    if (list == nullptr) continue;
    size_t at = listHash(list, listBytes(load<int32_t>(list + kListKeptOffset))) & (slotCount - 1);
    while (slots[at] != nullptr) at = (at + 1) & (slotCount - 1);
    slots[at] = list;
  }
  free(set->slots);
  set->slots = slots;
  set->slotCount = slotCount;
  return true;
}

// The stored list whose bytes are `list` (`bytes` of them), stored on first use; null when memory
// is short.
const uint8_t* internList(CatalogFiles* files, const uint8_t* list, size_t bytes) {
  ListSet& set = files->listSet;
  if ((set.count + 1) * 2 > set.slotCount && !growListSet(&set)) return nullptr;
  size_t at = listHash(list, bytes) & (set.slotCount - 1);
  for (; set.slots[at] != nullptr; at = (at + 1) & (set.slotCount - 1)) {
    const uint8_t* stored = set.slots[at];
    if (listBytes(load<int32_t>(stored + kListKeptOffset)) == bytes &&
        memcmp(stored, list, bytes) == 0) {
      return stored;
    }
  }
  uint8_t* storage = allocateIn(&files->lists, bytes);
  if (storage == nullptr) return nullptr;
  memcpy(storage, list, bytes);
  set.slots[at] = storage;
  ++set.count;
  return storage;
}

// How `record` holds its ids: the kind and the value of an entry's ids field. False when a list
// could not be stored.
bool idsOf(CatalogFiles* files, const FileRecord& record, uint8_t* kind, uint64_t* value) {
  int32_t kept = 0;
  for (int32_t i = 0; i < kMaxFileComponents; ++i) {
    if (record.componentIds[i] != 0) kept = i + 1;
  }
  if (record.componentCount == 0 && kept == 0) {
    *kind = kNoIds;
    *value = 0;
    return true;
  }
  if (record.componentCount == 1 && kept <= 1) {
    *kind = kOneId;
    *value = static_cast<uint64_t>(record.componentIds[0]);
    return true;
  }
  if (record.componentCount > kept) {
    kept = record.componentCount > kMaxFileComponents ? kMaxFileComponents : record.componentCount;
  }
  uint8_t list[kListIdsOffset + 8 * kMaxFileComponents] = {};
  save<int32_t>(list + kListCountOffset, record.componentCount);
  save<int32_t>(list + kListKeptOffset, kept);
  for (int32_t i = 0; i < kept; ++i) {
    save<int64_t>(list + kListIdsOffset + 8 * i, record.componentIds[i]);
  }
  const uint8_t* stored = internList(files, list, listBytes(kept));
  if (stored == nullptr) return false;
  *kind = kIdList;
  *value = reinterpret_cast<uintptr_t>(stored);
  return true;
}

// Writes everything of `record` but the name's length into `entry`.
void fillEntry(uint8_t* entry, const FileRecord& record, size_t length, uint8_t kind,
               uint64_t ids) {
  save<int64_t>(entry + kEntrySizeOffset, record.size);
  save<int32_t>(entry + kEntryAttribute1Offset, record.attribute1);
  save<int32_t>(entry + kEntryAttribute2Offset, record.attribute2);
  save<uint64_t>(entry + kEntryIdsOffset, ids);
  entry[kEntryKindOffset] = kind;
  memcpy(entry + kEntryNameOffset, record.name, length);
}

// strnlen(name, kMaxNameLength) of a record's name field, eight bytes at a time: a lookup's key is
// measured on every process start.
size_t nameLength(const FileRecord& record) {
  static_assert(kFileNameSize % 8 == 0);
  for (size_t at = 0; at < kFileNameSize; at += 8) {
    uint64_t word;
    memcpy(&word, record.name + at, sizeof word);
    // The lowest byte that is zero sets its top bit here; bytes above it may too.
    const uint64_t zeros = (word - kOnes) & ~word & (0x80 * kOnes);
    if (zeros != 0) {
      const size_t length = at + static_cast<size_t>(std::countr_zero(zeros)) / 8;
      return length < kMaxNameLength ? length : kMaxNameLength;
    }
  }
  return kMaxNameLength;
}

}  // namespace

CatalogFiles* newCatalogFiles(size_t slots) {
  if (slots == 0) return nullptr;
  auto* files = static_cast<CatalogFiles*>(calloc(1, sizeof(CatalogFiles)));
  if (files == nullptr) return nullptr;
  files->slots = newSlots(slots);
  if (files->slots == nullptr) {
    free(files);
    return nullptr;
  }
  files->slotCount = slots;
  files->firstSlotCount = slots;
  return files;
}

void deleteCatalogFiles(CatalogFiles* files) {
  if (files == nullptr) return;
  freeBlocks(&files->entries);
  freeBlocks(&files->lists);
  free(files->listSet.slots);
  freeTableIndex(files->slots, files->slotCount * sizeof(uint64_t));
  free(files);
}

bool reserveCatalogFiles(CatalogFiles* files, size_t count) {
  const size_t wanted = count + count / 2 + 1;
  if (wanted <= files->slotCount) return true;
  return resizeIndex(files, wanted);
}

const CompactFile* findCatalogFile(const CatalogFiles* files, const FileRecord& key) {
  const size_t length = nameLength(key);
  const size_t at =
      findSlot(files, key.size, key.name, length, fileHash(key.size, key.name, length));
  if (at == files->slotCount) return nullptr;
  return reinterpret_cast<const CompactFile*>(entryOf(files->slots[at]));
}

void expandCatalogFile(const CompactFile* found, FileRecord* record) {
  const auto* entry = reinterpret_cast<const uint8_t*>(found);
  memset(record, 0, sizeof *record);
  memcpy(record->name, nameOf(entry), nameLengthOf(entry));
  record->size = load<int64_t>(entry + kEntrySizeOffset);
  record->attribute1 = load<int32_t>(entry + kEntryAttribute1Offset);
  record->attribute2 = load<int32_t>(entry + kEntryAttribute2Offset);
  const uint64_t ids = load<uint64_t>(entry + kEntryIdsOffset);
  switch (entry[kEntryKindOffset]) {
    case kOneId:
      record->componentIds[0] = static_cast<int64_t>(ids);
      record->componentCount = 1;
      break;
    case kIdList: {
      const auto* list = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(ids));
      const int32_t kept = load<int32_t>(list + kListKeptOffset);
      for (int32_t i = 0; i < kept; ++i) {
        record->componentIds[i] = load<int64_t>(list + kListIdsOffset + 8 * i);
      }
      record->componentCount = load<int32_t>(list + kListCountOffset);
      break;
    }
    default:
      break;
  }
}

int putCatalogFile(CatalogFiles* files, const FileRecord& record) {
  const size_t length = nameLength(record);
  const uint64_t hash = fileHash(record.size, record.name, length);
  uint8_t kind = kNoIds;
  uint64_t ids = 0;
  const size_t at = findSlot(files, record.size, record.name, length, hash);
  if (at != files->slotCount) {
    if (!idsOf(files, record, &kind, &ids)) return kCatalogFileNoMemory;
    // The same file: its name differs at most in case, so the new one takes the old one's room.
    fillEntry(entryOf(files->slots[at]), record, length, kind, ids);
    return kCatalogFileReplaced;
  }
  if ((static_cast<size_t>(files->count) + 1) * kLoadDenominator >
          files->slotCount * kLoadNumerator &&
      !resizeIndex(files, files->slotCount + files->slotCount / 2 + 1)) {
    return kCatalogFileNoMemory;
  }
  if (!idsOf(files, record, &kind, &ids)) return kCatalogFileNoMemory;
  uint8_t* entry = allocateIn(&files->entries, entryBytes(length));
  if (entry == nullptr) return kCatalogFileNoMemory;
  // The lists of a big catalog are read as often as its entries are.
  if (files->entries.large) moveFirstBlock(&files->lists);
  memset(entry, 0, entryBytes(length));
  entry[kEntryNameLengthOffset] = static_cast<uint8_t>(length);
  fillEntry(entry, record, length, kind, ids);
  placeSlot(files->slots, files->slotCount, hash, tagOf(hash) | reinterpret_cast<uintptr_t>(entry));
  ++files->count;
  return kCatalogFileAdded;
}

bool nextCatalogFile(const CatalogFiles* files, CatalogFilesWalk* walk, FileRecord* record) {
  const BlockStore& store = files->entries;
  while (walk->block < store.count && walk->offset >= store.blocks[walk->block].used) {
    ++walk->block;
    walk->offset = 0;
  }
  if (walk->block >= store.count) return false;
  const uint8_t* entry = store.blocks[walk->block].bytes + walk->offset;
  expandCatalogFile(reinterpret_cast<const CompactFile*>(entry), record);
  walk->offset += static_cast<uint32_t>(entryBytes(nameLengthOf(entry)));
  return true;
}

int32_t catalogFilesCount(const CatalogFiles* files) {
  return files == nullptr ? 0 : files->count;
}

void resetCatalogFiles(CatalogFiles* files) {
  freeBlocks(&files->entries);
  freeBlocks(&files->lists);
  free(files->listSet.slots);
  files->listSet = ListSet{};
  files->count = 0;
  // A catalog emptied after it was large does not keep its large index resident.
  uint64_t* slots = newSlots(files->firstSlotCount);
  if (slots == nullptr) {
    memset(files->slots, 0, files->slotCount * sizeof(uint64_t));
    return;
  }
  freeTableIndex(files->slots, files->slotCount * sizeof(uint64_t));
  files->slots = slots;
  files->slotCount = files->firstSlotCount;
}

}  // namespace slm
