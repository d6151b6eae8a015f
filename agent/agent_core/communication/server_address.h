// How a service or a download names its server: host, path of the service on it, port. The server
// cache keeps its server information in this shape, and the proxy setting travels in it too.
#pragma once

#include <cstddef>
#include <cstdint>

namespace slm {

constexpr size_t kServerHostSize = 256;  // at most 255 characters, then a terminator
constexpr size_t kServerPathSize = 256;  // at most 255 characters, then a terminator

struct ServerAddress {
  char host[kServerHostSize];
  char path[kServerPathSize];
  uint16_t port;
};

// Where the fields sit when the address is part of a file record: the port takes a 32-bit word
// whose upper half is 0.
constexpr size_t kServerAddressHostOffset = 0;
constexpr size_t kServerAddressPathOffset = kServerAddressHostOffset + kServerHostSize;
constexpr size_t kServerAddressPortOffset = kServerAddressPathOffset + kServerPathSize;
constexpr size_t kServerAddressRecordSize = kServerAddressPortOffset + 4;
static_assert(kServerAddressPortOffset == 512);
static_assert(kServerAddressRecordSize == 516);

}  // namespace slm
