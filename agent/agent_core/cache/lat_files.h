// The catalog's files table in compact form. Each file is kept as its size, its two attributes, its
// component ids (inline when it has one, else a reference to a list stored once for all the files
// that share it) and its name at its real length, in chained blocks that only grow; an index of
// 8-byte slots finds them. A lookup builds the 408-byte record back from the entry. Files go only
// all at once, so the blocks hold them in the order they were first added: the order the catalog
// is stored in. No locking: the catalog cache guards the table, walks included.
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent_core/cache/lat.h"

namespace slm {

struct CatalogFiles;
struct CompactFile;  // an entry; only this table reads it

// Null when memory is short or `slots` is 0. The index starts with `slots` slots.
CatalogFiles* newCatalogFiles(size_t slots);
void deleteCatalogFiles(CatalogFiles* files);
// Makes the index large enough for `count` files in all, so that adding them never grows it (a
// load that knows its number of records). False when memory is short; the table is unchanged.
bool reserveCatalogFiles(CatalogFiles* files, size_t count);

// The entry of the file that `key` names (its size, and its name without regard to case); null
// when there is none.
const CompactFile* findCatalogFile(const CatalogFiles* files, const FileRecord& key);
// The record `entry` was last stored from; the name comes out zero-padded.
void expandCatalogFile(const CompactFile* entry, FileRecord* record);

constexpr int kCatalogFileAdded = 0;
constexpr int kCatalogFileReplaced = 1;
constexpr int kCatalogFileNoMemory = 2;
// Stores `record`. When the table has the same file, the record replaces its entry whole (name,
// attributes and component ids); otherwise it is added after every other entry.
// kCatalogFileAdded, kCatalogFileReplaced, or kCatalogFileNoMemory with the file unchanged.
[[nodiscard]] int putCatalogFile(CatalogFiles* files, const FileRecord& record);

// A walk over the entries in the order they were added. A zeroed walk starts at the first.
struct CatalogFilesWalk {
  uint32_t block;
  uint32_t offset;
};
// Expands the next entry of the walk into *record and moves past it; false at the end.
bool nextCatalogFile(const CatalogFiles* files, CatalogFilesWalk* walk, FileRecord* record);

int32_t catalogFilesCount(const CatalogFiles* files);
// Removes every entry and gives their memory back; the index returns to its first size.
void resetCatalogFiles(CatalogFiles* files);

}  // namespace slm
