// The file record of an inventory and of an upload of unknown files: what the scanner finds, what
// "scan.dat" keeps until it is delivered, and what the upload service sends one line each.
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent_core/cache/lat.h"

namespace slm {

constexpr size_t kInventoryDirectorySize = 401;
constexpr size_t kInventoryText1Size = 80;
constexpr size_t kInventoryText2Size = 40;
constexpr size_t kInventoryText3Size = 80;
constexpr size_t kInventoryText4Size = 83;

// Its name, size and first two integers are laid out as in a catalog file record.
struct InventoryRecord {
  char name[kFileNameSize];
  int64_t size;
  uint32_t first;
  uint32_t second;
  uint32_t reserved;  // carried, never sent
  char directory[kInventoryDirectorySize];
  char text1[kInventoryText1Size];
  char text2[kInventoryText2Size];
  char text3[kInventoryText3Size];
  char text4[kInventoryText4Size];
};

constexpr size_t kInventoryReservedOffset = kFilePaddingOffset;
constexpr size_t kInventoryDirectoryOffset = kFileKeySize;
constexpr size_t kInventoryText1Offset = 677;
constexpr size_t kInventoryText2Offset = 757;
constexpr size_t kInventoryText3Offset = 797;
constexpr size_t kInventoryText4Offset = 877;
constexpr size_t kInventoryRecordSize = 960;
static_assert(kInventoryDirectoryOffset + kInventoryDirectorySize == kInventoryText1Offset);
static_assert(kInventoryText1Offset + kInventoryText1Size == kInventoryText2Offset);
static_assert(kInventoryText2Offset + kInventoryText2Size == kInventoryText3Offset);
static_assert(kInventoryText3Offset + kInventoryText3Size == kInventoryText4Offset);
static_assert(kInventoryText4Offset + kInventoryText4Size == kInventoryRecordSize);

// Writes "?" over every control byte of the text (0x01 to 0x1F and 0x7F) up to its terminator:
// a file or directory name a local user chose then travels as one field of one record. Other bytes,
// UTF-8 sequences among them, stay as they are.
void replaceControlBytes(char* text);

// Text fields are written as held.
void encodeInventoryRecord(const InventoryRecord& record, uint8_t* out);
// Every text field is terminated in its last byte.
void decodeInventoryRecord(const uint8_t* in, InventoryRecord* record);

}  // namespace slm
