// The tokenizer of the buffered stream (tokenizeStream) in its three modes, over a lower stream
// that hands the bytes out in pieces of varying size, as a socket does. Three control bytes, then
// the stream's bytes:
//   0: bits 0-1 the mode (consume, peek, past the token only, consume), bits 2-3 the token area
//      (256, 512, 128 or 8 bytes), bit 4 a 64-byte stream buffer instead of the usual 4096;
//   1: the two delimiters, from the protocol's own (the service framing's and the HTTP head's);
//   2: the largest piece a read delivers (1 to 4096 bytes) and the seed of the piece sizes.
// Each result is checked against the bytes: the token is what lies at the read position, the
// delimiter follows it, no delimiter begins earlier within what was buffered, the tie rule holds
// and the position moves as the mode says.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "agent_core/communication/slm.h"
#include "agent_core/communication/slm_stream.h"
#include "support/fuzz_root.h"

using namespace slm;

namespace {

constexpr size_t kControlBytes = 3;
constexpr int kModes[] = {kTokenConsume, kTokenPeek, 0, kTokenConsume};
constexpr int kTokenAreas[] = {256, 512, 128, 8};
constexpr int kSmallBuffer = 64;
const TokenDesc kBlank = makeTokenDesc(" ", 1);
const TokenDesc kColon = makeTokenDesc(":", 1);
const TokenDesc* const kDelimiters[] = {
    &crlf_tk,        &fld_sep_tk,   &response_tag_tk, &response_sep_tk, &response_end_tk,
    &begin_comps_tk, &end_comps_tk, &begin_files_tk,  &end_files_tk,    &begin_div_tk,
    &end_div_tk,     &begin_ent_tk, &end_ent_tk,      &kBlank,          &kColon};
constexpr size_t kDelimiterCount = sizeof kDelimiters / sizeof kDelimiters[0];

struct Pieces {
  const uint8_t* data;
  size_t size;
  size_t delivered;
  uint32_t largest;
  uint32_t state;
};

int readPiece(void* context, char* buffer, int length, int) {
  auto* pieces = static_cast<Pieces*>(context);
  if (pieces->delivered == pieces->size) return kStreamEndOfData;
  pieces->state = pieces->state * 1103515245u + 12345u;
  size_t piece = 1 + (pieces->state >> 8) % pieces->largest;
  piece = std::min({piece, static_cast<size_t>(length), pieces->size - pieces->delivered});
  memcpy(buffer, pieces->data + pieces->delivered, piece);
  pieces->delivered += piece;
  return static_cast<int>(piece);
}
int openNothing(void*) {
  return 0;
}
int writeNothing(void*, const char*, int, int) {
  return kStreamIoError;
}

struct Run {
  const uint8_t* bytes;  // the stream's bytes
  Pieces pieces;
  BufferedStream* stream;
  const TokenDesc* a;
  const TokenDesc* b;

  // The offset of the next unread byte in `bytes`.
  size_t position() const {
    return pieces.delivered - static_cast<size_t>(stream->stored - (stream->cur - stream->buf));
  }
  bool delimiterAt(size_t at, const TokenDesc* delimiter) const {
    const size_t length = static_cast<size_t>(delimiter->length);
    return at + length <= pieces.delivered && memcmp(bytes + at, delimiter->text, length) == 0;
  }

  // One call, checked. Returns its result.
  int tokenize(int mode, int area) {
    char token[512 + 1];
    TokenBuffer out{token, 0, area};
    const size_t before = position();
    const int result = tokenizeStream(stream, a, b, &out, mode);
    const size_t after = position();
    if (result < 1) {
      FUZZ_CHECK(result == kStreamNoRoom || result == kStreamNoDelimiter ||
                 result == kStreamEndOfData);
      FUZZ_CHECK(after == before);
      if (result == kStreamNoDelimiter) {
        for (size_t at = before; at < pieces.delivered; ++at) {
          FUZZ_CHECK(!delimiterAt(at, a) && !delimiterAt(at, b));
        }
      }
      return result;
    }
    FUZZ_CHECK(result == kTokenFoundA || result == kTokenFoundB);
    const size_t length = static_cast<size_t>(out.length);
    FUZZ_CHECK(out.length >= 0 && out.length <= area);
    FUZZ_CHECK(memcmp(token, bytes + before, length) == 0);
    for (size_t at = before; at < before + length; ++at) {
      FUZZ_CHECK(!delimiterAt(at, a) && !delimiterAt(at, b));
    }
    const size_t at = before + length;
    const bool atA = delimiterAt(at, a);
    const bool atB = delimiterAt(at, b);
    // At one position the shorter delimiter wins, B on a tie.
    const bool bWins = atB && (!atA || b->length <= a->length);
    FUZZ_CHECK(result == (bWins ? kTokenFoundB : kTokenFoundA));
    FUZZ_CHECK(bWins || atA);
    const size_t skipped = static_cast<size_t>((bWins ? b : a)->length);
    const size_t expected = mode == kTokenConsume ? at + skipped : mode == kTokenPeek ? before : at;
    FUZZ_CHECK(after == expected);
    return result;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kControlBytes) return 0;
  const int mode = kModes[data[0] & 3];
  const int area = kTokenAreas[(data[0] >> 2) & 3];
  const int bufferBytes = (data[0] & 0x10) != 0 ? kSmallBuffer : kStreamBufferCount;
  Run run{};
  run.a = kDelimiters[data[1] % kDelimiterCount];
  run.b = kDelimiters[(data[1] / kDelimiterCount) % kDelimiterCount];
  run.bytes = data + kControlBytes;
  run.pieces = Pieces{run.bytes, size - kControlBytes, 0, 1u << (data[2] % 13), data[2]};
  SlmStream lower{&run.pieces, openNothing, readPiece, writeNothing, openNothing};
  run.stream = initBufferStream(bufferBytes, kStreamBufferUnit, &lower);
  FUZZ_CHECK(run.stream != nullptr);
  // Every call that finds a token moves on by at least one byte, so the loop ends.
  while (run.tokenize(mode, area) >= 1) {
    if (mode != kTokenConsume && run.tokenize(kTokenConsume, area) < 1) break;
  }
  closeBufferedStream(run.stream);
  return 0;
}
