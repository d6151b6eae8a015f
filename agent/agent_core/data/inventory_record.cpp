// The inventory record codec.
#include "agent_core/data/inventory_record.h"

#include <cstring>

#include "agent_core/support/bytes.h"
#include "agent_core/support/trace.h"

namespace slm {
namespace {

void getField(const uint8_t* in, size_t size, char* field) {
  memcpy(field, in, size);
  field[size - 1] = '\0';
}

}  // namespace

void replaceControlBytes(char* text) {
  for (; *text != '\0'; ++text) {
    if (isControlByte(static_cast<unsigned char>(*text))) *text = '?';
  }
}

void encodeInventoryRecord(const InventoryRecord& record, uint8_t* out) {
  encodeFileKey(record.name, record.size, record.first, record.second, out);
  putFixed32(out + kInventoryReservedOffset, record.reserved);
  memcpy(out + kInventoryDirectoryOffset, record.directory, kInventoryDirectorySize);
  memcpy(out + kInventoryText1Offset, record.text1, kInventoryText1Size);
  memcpy(out + kInventoryText2Offset, record.text2, kInventoryText2Size);
  memcpy(out + kInventoryText3Offset, record.text3, kInventoryText3Size);
  memcpy(out + kInventoryText4Offset, record.text4, kInventoryText4Size);
}

void decodeInventoryRecord(const uint8_t* in, InventoryRecord* record) {
  decodeFileKey(in, record->name, &record->size, &record->first, &record->second);
  record->reserved = getFixed32(in + kInventoryReservedOffset);
  getField(in + kInventoryDirectoryOffset, kInventoryDirectorySize, record->directory);
  getField(in + kInventoryText1Offset, kInventoryText1Size, record->text1);
  getField(in + kInventoryText2Offset, kInventoryText2Size, record->text2);
  getField(in + kInventoryText3Offset, kInventoryText3Size, record->text3);
  getField(in + kInventoryText4Offset, kInventoryText4Size, record->text4);
}

}  // namespace slm
