// What every service exchange of the agent does around its payload: find the preferred server,
// open the service, send the request fields, read the answer's head, and read payload tokens.
// Used on the thread of the command or the inventory run that calls the service.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent_core/communication/server_address.h"
#include "agent_core/communication/slm.h"
#include "agent_core/communication/slm_http.h"

namespace slm {

// One request field: its text and whether its first "|" and CR LF are masked.
struct ServiceField {
  std::string text;
  int mask;
};

// Field texts: an agent value (empty or 0 when it cannot be read), decimal 64- and 32-bit numbers.
std::string agentText(int32_t id);
int64_t agentInt(int32_t id);
std::string int64Text(int64_t value);
std::string int32Text(int64_t value);

// The preferred server's address, copied under the server cache's read lock. kServiceOk, or
// kServiceFailed after "ERROR - No preferred server info retrieved".
[[nodiscard]] int preferredServer(ServerAddress* server);

// Opens service `serviceId` on `server` with a read time-out of `timeoutSeconds`, its answer
// bounded by the catalog limit of the security settings for the catalog, else by
// kMaxServiceAnswerBytes. Null, after its message, when no connection could be made.
[[nodiscard]] HttpHandle* openService(const ServerAddress& server, const char* serviceId,
                                      uint16_t timeoutSeconds);
// Ends the request (when `sent`, the fields having gone out) and reads the answer's head. The
// handle ready for the payload, or null after the failure's message, the handle freed.
[[nodiscard]] HttpHandle* finishRequest(HttpHandle* handle, const char* serviceId, bool sent);
// openService, every field followed by CR LF, then finishRequest.
[[nodiscard]] HttpHandle* requestService(const ServerAddress& server, const char* serviceId,
                                         const std::vector<ServiceField>& fields,
                                         uint16_t timeoutSeconds);

// Ends a service whose payload could not be used: frees the handle and returns `result`.
int abandonService(HttpHandle* handle, int result);

// One payload token, terminated, in its own area of kSize bytes.
template <int kSize>
class PayloadToken {
 public:
  // Only the first byte is cleared: a token area is filled a few bytes at a time, and a catalog
  // answer reads seven tokens a line.
  PayloadToken() { area_[0] = '\0'; }
  // The tokenizer's result: kTokenFoundA, kTokenFoundB or a stream error.
  int read(HttpHandle* handle, const TokenDesc* delimA, const TokenDesc* delimB,
           int mode = kTokenConsume) {
    buffer_ = TokenBuffer{area_, 0, kSize};
    return getContentToken(handle, delimA, delimB, &buffer_, mode);
  }
  const char* text() const { return area_; }

 private:
  char area_[kSize];
  TokenBuffer buffer_{area_, 0, kSize};
};

}  // namespace slm
