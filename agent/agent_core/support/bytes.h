// Little-endian coding helpers for the fixed record layouts of the cache files and the driver
// device. Records are always encoded field by field through these, never copied as structs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace slm {

inline void putFixed32(uint8_t* dst, uint32_t value) {
  for (int i = 0; i < 4; ++i) dst[i] = static_cast<uint8_t>(value >> (8 * i));
}

inline void putFixed64(uint8_t* dst, uint64_t value) {
  for (int i = 0; i < 8; ++i) dst[i] = static_cast<uint8_t>(value >> (8 * i));
}

inline uint32_t getFixed32(const uint8_t* src) {
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = (value << 8) | src[i];
  return value;
}

inline uint64_t getFixed64(const uint8_t* src) {
  uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = (value << 8) | src[i];
  return value;
}

// Writes a text into a fixed field of `size` bytes: the text's bytes, then zeros to the end of the
// field. A text of `size` bytes or more is cut to `size` bytes (the field holds no terminator
// then).
inline void putText(uint8_t* dst, size_t size, const char* src) {
  size_t length = src == nullptr ? 0 : strnlen(src, size);
  memcpy(dst, src, length);
  memset(dst + length, 0, size - length);
}

// Reads a fixed text field into `dst`, which has room for `size` + 1 bytes: the field's bytes up
// to its first zero, always terminated.
inline void getText(const uint8_t* src, size_t size, char* dst) {
  size_t length = strnlen(reinterpret_cast<const char*>(src), size);
  memcpy(dst, src, length);
  dst[length] = '\0';
}

// The agent's one bounded copy: at most `maxChars` characters of `src`, then a terminator, so `dst`
// needs `maxChars` + 1 bytes. Returns `dst`.
inline char* copyBounded(char* dst, size_t maxChars, const char* src) {
  size_t length = src == nullptr ? 0 : strnlen(src, maxChars);
  memcpy(dst, src, length);
  dst[length] = '\0';
  return dst;
}

}  // namespace slm
