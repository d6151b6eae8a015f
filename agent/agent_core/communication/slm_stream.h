// The agent's byte streams: a lower stream (socket, body encoder or kernel-configuration file)
// under a buffered stream that the HTTP client and the service layer read, write and split into
// tokens at delimiter strings. A stream belongs to one handle or reader and is used by one thread
// at a time; nothing here is locked. The socket stream traces the one event it alone sees: an
// exchange cut for moving too little.
#pragma once

#include <cstdint>

namespace slm {

// Results shared by every operation of the layer. 0 from a read also means nothing was read.
constexpr int kStreamNoRoom = -1;       // buffer cannot be compacted, token longer than its area
constexpr int kStreamNoDelimiter = -2;  // no delimiter within what is buffered after one refill
constexpr int kStreamIoError = -3;      // I/O error or invalid argument
constexpr int kStreamReadTimeout = -5;  // nothing arrived within the read time-out
constexpr int kStreamEndOfData = -6;    // peer closed the connection, end of file

// Every buffered stream of this system holds 4096 elements of one byte.
constexpr int kStreamBufferCount = 4096;
constexpr int kStreamBufferUnit = 1;

// Refill modes.
constexpr int kRefillFresh = 15;    // reset the buffer, then read up to its capacity
constexpr int kRefillCompact = 31;  // drop the consumed bytes, then read behind the unread ones

// Tokenizer modes and results.
constexpr int kTokenConsume = 47;  // '/': the token and its delimiter are consumed
constexpr int kTokenPeek = 63;     // '?': the token is looked at, the read position stays
constexpr int kTokenFoundB = 1;
constexpr int kTokenFoundA = 2;

// Write growth: request bodies grow in memory, everything else is flushed when full.
constexpr int kWriteFlush = 0;
constexpr int kWriteGrow = 1;

// A socket exchange that moves (sends and receives) fewer than kExchangeMinimumBytes within a
// window of kExchangeWindowSeconds is cut: a peer trickling a byte now and then never meets the
// read time-out and would otherwise hold the agent's thread for ever.
constexpr int kExchangeWindowSeconds = 180;
constexpr int kExchangeMinimumBytes = 1024;

// A lower stream: one context owned by the stream object and four operations on it. `flags` is
// always 0.
struct SlmStream {
  void* context;
  int (*open)(void* context);
  int (*read)(void* context, char* buffer, int length, int flags);
  int (*write)(void* context, const char* buffer, int length, int flags);
  int (*close)(void* context);
};

// A buffer over a lower stream. `buf` holds `capacity` bytes and, until the buffer is enlarged for
// a response body, one more byte that stays 0 so the contents read as a string. Reading consumes
// from `cur` up to `buf` + `stored`; writing appends at `cur`.
struct BufferedStream {
  char* buf;
  char* cur;
  int unit;
  int capacity;
  int stored;
  SlmStream* lower;  // not owned: the creator frees it
  // A refill whose read fills the buffer doubles it, up to this many bytes, and reads on: a body
  // is held whole up to its announced length, but memory follows the bytes that really came.
  int growLimit;
};

// A delimiter: its text and its length, twice.
struct TokenDesc {
  const char* text;
  int length;
  int size;
};

constexpr TokenDesc makeTokenDesc(const char* text, int length) {
  return TokenDesc{text, length, length};
}

// Where a token is delivered: the caller's area, the token's length, the area's capacity.
struct TokenBuffer {
  char* area;
  int length;
  int capacity;
};

// Allocates a buffer of count × unit bytes over `lower` and opens the lower stream. Null when an
// allocation or the open fails; the lower stream object is then still the caller's to free.
BufferedStream* initBufferStream(int count, int unit, SlmStream* lower);
// Null-safe. Frees the buffer, closes the lower stream's resource (not the lower stream object).
void closeBufferedStream(BufferedStream* stream);
// Zeroes the buffer, empties it and moves the position to its start. Returns 0.
int resetBufferedStream(BufferedStream* stream);
int getStoredBytes(const BufferedStream* stream);
// Enlarges the buffer to `size` bytes keeping the position; a smaller size changes nothing.
// Returns 0, kStreamIoError for a negative size or when the memory cannot be had.
[[nodiscard]] int adjustBufferStream(BufferedStream* stream, int size);
// Mode kRefillFresh or kRefillCompact (any other mode reads nothing and returns 0). Reads into the
// free room, growing the buffer towards `growLimit` while the reads fill it. Returns the bytes
// read, kStreamNoRoom when compaction is asked of a buffer that holds bytes none of which were
// consumed, or the first lower read's result below 1 (then `stored` is unchanged).
int refillBufferedStream(BufferedStream* stream, int mode);
// Writes the stored bytes to the lower stream. A result below 1 is returned and the buffer keeps
// its contents; otherwise the buffer is reset and the lower write's result returned.
int flushBufferedStream(BufferedStream* stream);
// Appends `len` bytes. When the buffer fills, grow kWriteGrow doubles it, any other grow flushes
// it. Returns the bytes taken; when a flush fails first, the bytes taken before it if any, else
// the flush result.
int writeBufferStr(BufferedStream* stream, const char* data, int len, int grow);
// Reads `len` bytes, refilling (kRefillFresh) whenever the buffer runs dry. Returns `len`, or the
// bytes delivered before a refill failed, or that refill's result when none were.
int readBufferStr(BufferedStream* stream, char* data, int len);
// Finds the first occurrence of `delimA` or `delimB` in the unread bytes and delivers the bytes
// before it into `out`, terminated when there is room (an empty text until something is
// delivered). At one position the delimiter
// that ends first wins, B on a tie. kTokenConsume moves the position past token and delimiter,
// kTokenPeek leaves it, any other mode moves it past the token only. Returns kTokenFoundB or
// kTokenFoundA; kStreamNoRoom when the token is longer than `out` or the buffered bytes need more
// room while none of them were consumed; kStreamNoDelimiter when no delimiter is found after one
// compaction and refill; a refill result below 1 as is.
int tokenizeStream(BufferedStream* stream, const TokenDesc* delimA, const TokenDesc* delimB,
                   TokenBuffer* out, int mode);
// Copies up to `length` bytes or up to a 0 byte (not copied), each byte with its high bit set
// replaced by '?'. Returns the number of bytes copied.
int convertToAscii(const char* source, char* destination, int length);

// Socket stream: a TCP connection to `host` with a time-out in seconds for each wait to read or to
// send. A host text that starts with '1' to '9' is tried as a dotted address first; anything else
// is resolved by name. The socket is not inherited by programs the agent starts. The exchange is
// timed on the agent clock from the connection on (kExchangeWindowSeconds); once it is cut, after
// "ERROR - Exchange with HOST:PORT cut ...", every read gives -5 and every write -3.
SlmStream* newSocketStream(const char* host, int hostLength, uint16_t port, int16_t timeout);
void closeSocketStream(SlmStream* stream);
// Runs TLS over the open socket stream's connection (to the server, or to a proxy's tunnel to it)
// with the process's TLS context: the certificate checked for `serverHost`, the pins, if any,
// checked after the handshake, each wait bounded by the stream's time-out. From then on reads and
// writes carry TLS records; a read gives kStreamEndOfData only after the server's close_notify
// and kStreamIoError when the connection ends without it; close sends close_notify. 0, or
// kStreamIoError after an ERROR line naming HOST:PORT and the reason; the stream then carries
// nothing more and must be closed. The server's port only names it in the trace.
[[nodiscard]] int startSocketTls(SlmStream* stream, const char* serverHost, uint16_t serverPort);
int slm_sopen(void* context);  // 0, or kStreamIoError when no address, socket or connection
int slm_sread(void* context, char* data, int len, int flags);  // count, -3, -5 or -6
// Sends all `len` bytes: `len`, or -3 when the send fails or waits in vain.
int slm_swrite(void* context, const char* data, int len, int flags);
int slm_sclose(void* context);

// Encoding stream: sits between the body stream and the head stream of an HTTP handle. Writing
// to it sends the whole request (head with Content-Length, then body); reading from it reads the
// response body from the head stream, never more than the handle's answer may still take
// (answerRoom of slm_http): a read that takes the answer over its limit gives kStreamIoError, and
// so does every read after it. A null conversion passes bytes through.
struct HttpHandle;
using ConvertFn = int (*)(const char* source, char* destination, int length);
SlmStream* newEncodingStream(ConvertFn encodeFn, float writeFactor, ConvertFn decodeFn,
                             float readFactor, HttpHandle* httpHandle,
                             BufferedStream* bufferedStream);
void encodingStreamSet(SlmStream* stream, ConvertFn encodeFn, float writeFactor, ConvertFn decodeFn,
                       float readFactor);
void closeEncodingStream(SlmStream* stream);
int encoder_open(void* context);
int decode_read(void* context, char* data, int len, int flags);
int encode_write(void* context, const char* data, int len, int flags);
int encoder_close(void* context);

// Kernel-configuration-file stream: each read delivers one line of the file at `path` (opened
// close-on-exec) with all white space removed, terminated; the result is its length with the
// terminator (1 for an empty line), kStreamEndOfData at end of file, kStreamNoRoom when the line
// does not fit in `len`.
SlmStream* newKerConfFileStream(const char* path, int pathLength);
void closeKerConfFileStream(SlmStream* stream);
int slm_kcfopen(void* context);
int slm_kcfread(void* context, char* data, int len, int flags);
int slm_kcfwrite(void* context, const char* data, int len, int flags);  // always kStreamIoError
int slm_kcfclose(void* context);

}  // namespace slm
