// The HTTP client's answer reader (getAnswer, then the body through getContentChunk or
// getContentToken) on a real loopback connection. Selector byte: bit 0 reads the body with the
// ASCII conversion, bit 1 reads it as tokens (as the services do) instead of chunks (as the
// downloads do). The rest is the answer as the server sends it.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "agent_core/communication/slm.h"
#include "agent_core/communication/slm_http.h"
#include "support/answer_server.h"
#include "support/fuzz_root.h"

using namespace slm;

namespace {

constexpr int kReadTimeoutSeconds = 30;
constexpr int kChunkSize = 4048;
constexpr int kTokenSize = 256;

void checkHead(const HttpHandle* handle) {
  FUZZ_CHECK(handle->status[0] == '2');
  FUZZ_CHECK(strnlen(handle->status, kHttpStatusBytes) < kHttpStatusBytes);
  for (int id = 0; id <= kHeaderCount; ++id) {
    char value[kHeaderValueBytes];
    FUZZ_CHECK(getHeaderById(handle, id, value) == 1);
    FUZZ_CHECK(strnlen(value, sizeof value) < sizeof value);
  }
  for (const CustomHeader* custom : handle->custom) {
    if (custom == nullptr) continue;
    CustomHeader asked{};
    strcpy(asked.name, custom->name);
    FUZZ_CHECK(getHeaderByName(handle, &asked) == 1);
  }
}

// Chunks until the end of the data; without a conversion they are the answer's last bytes.
void readChunks(HttpHandle* handle, const std::string& answer, bool converted) {
  std::string body;
  char chunk[kChunkSize];
  for (;;) {
    const int got = getContentChunk(handle, chunk, kChunkSize);
    if (got <= 0) break;
    FUZZ_CHECK(got <= kChunkSize);
    body.append(chunk, static_cast<size_t>(got));
  }
  if (!converted) {
    FUZZ_CHECK(body.size() <= answer.size());
    FUZZ_CHECK(answer.compare(answer.size() - body.size(), body.size(), body) == 0);
  }
}

// Tokens as the services read them, up to the first failure; each is terminated in its area.
void readTokens(HttpHandle* handle) {
  for (int read = 0; read < 100000; ++read) {
    char area[kTokenSize];
    TokenBuffer token{area, 0, kTokenSize};
    const int found = getContentToken(handle, &crlf_tk, &response_tag_tk, &token, kTokenConsume);
    FUZZ_CHECK(memchr(area, '\0', sizeof area) != nullptr);
    if (found < 1) return;
    FUZZ_CHECK(token.length >= 0 && token.length <= kTokenSize);
  }
  FUZZ_CHECK(!"the body never ends");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::AnswerServer* const server = [] {
    fuzz::fuzzRoot();
    return new fuzz::AnswerServer;
  }();
  if (size < 1) return 0;
  const bool converted = (data[0] & 1) != 0;
  const bool tokens = (data[0] & 2) != 0;
  const std::string answer(reinterpret_cast<const char*>(data + 1), size - 1);
  server->setAnswer(answer);

  HttpHandle* handle = newHttpHandle(kHttpPost, "/", "HTTP/1.0", "127.0.0.1", server->port(),
                                     kReadTimeoutSeconds, 0);
  FUZZ_CHECK(handle != nullptr);
  if (converted) FUZZ_CHECK(putHeader(handle, kHeaderContentEncoding, kAsciiEncoding) == 1);
  FUZZ_CHECK(sendContent(handle, "ping\r\n", 6) == 1);
  const int answered = getAnswer(handle);
  FUZZ_CHECK(answered == 0 || answered == 1);
  if (answered == 1) {
    checkHead(handle);
    if (tokens) {
      readTokens(handle);
    } else {
      readChunks(handle, answer, converted);
    }
  }
  freeHttpHandle(handle);
  FUZZ_CHECK(server->waitIdle() == 1);
  return 0;
}
