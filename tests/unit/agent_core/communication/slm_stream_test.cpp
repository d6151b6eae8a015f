#include "agent_core/communication/slm_stream.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/loopback_server.h"
#include "support/temp_root.h"

namespace slm {
namespace {

using test::LoopbackScript;
using test::LoopbackServer;

// A lower stream over bytes in memory: each read hands out at most the next scripted chunk, then
// end of data. Writes are recorded, or refused with `writeResult` when that is set.
struct ChunkSource {
  std::vector<std::string> chunks;
  size_t next = 0;
  std::vector<std::string> written;
  int writeResult = 0;  // 0: accept every write

  static int open(void*) { return 0; }
  static int read(void* context, char* data, int len, int) {
    auto* self = static_cast<ChunkSource*>(context);
    if (self->next == self->chunks.size()) return kStreamEndOfData;
    std::string& chunk = self->chunks[self->next];
    int count = std::min<int>(len, static_cast<int>(chunk.size()));
    memcpy(data, chunk.data(), static_cast<size_t>(count));
    chunk.erase(0, static_cast<size_t>(count));
    if (chunk.empty()) ++self->next;
    return count;
  }
  static int write(void* context, const char* data, int len, int) {
    auto* self = static_cast<ChunkSource*>(context);
    if (self->writeResult != 0) return self->writeResult;
    self->written.emplace_back(data, static_cast<size_t>(len));
    return len;
  }
  static int close(void*) { return 0; }

  SlmStream lower{this, open, read, write, close};
};

class BufferedOverChunks {
 public:
  explicit BufferedOverChunks(std::vector<std::string> chunks, int capacity = kStreamBufferCount) {
    source_.chunks = std::move(chunks);
    stream_ = initBufferStream(capacity, kStreamBufferUnit, &source_.lower);
  }
  ~BufferedOverChunks() { closeBufferedStream(stream_); }
  BufferedStream* operator->() { return stream_; }
  BufferedStream* get() { return stream_; }
  ChunkSource& source() { return source_; }

 private:
  ChunkSource source_;
  BufferedStream* stream_;
};

const TokenDesc kCrlf = makeTokenDesc("\r\n", 2);
const TokenDesc kColon = makeTokenDesc(":", 1);
const TokenDesc kBlank = makeTokenDesc(" ", 1);
const TokenDesc kComma = makeTokenDesc(",", 1);
const TokenDesc kTag = makeTokenDesc("<response:", 10);
const TokenDesc kOpen = makeTokenDesc("<", 1);

// Tokenizes with a fresh area that starts out filled with garbage.
struct Token {
  char area[64];
  TokenBuffer buffer{area, -7, 63};
  Token() { memset(area, 'Z', sizeof area); }
  int next(BufferedStream* stream, const TokenDesc& a, const TokenDesc& b, int mode) {
    return tokenizeStream(stream, &a, &b, &buffer, mode);
  }
  std::string text() const {
    return buffer.length < 0 ? "<no token>" : std::string(area, static_cast<size_t>(buffer.length));
  }
};

std::string unread(BufferedStream* stream) {
  return std::string(stream->cur, static_cast<size_t>(stream->buf + stream->stored - stream->cur));
}

TEST(Tokenizer, FindsTheFirstDelimiterAndPrefersBOnlyWhenItEndsFirst) {
  struct Case {
    const char* input;
    const TokenDesc* a;
    const TokenDesc* b;
    int result;
    const char* token;
    const char* rest;
  };
  const Case cases[] = {
      {"Host: h\r\n", &kCrlf, &kColon, kTokenFoundB, "Host", " h\r\n"},
      {"\r\nbody", &kCrlf, &kColon, kTokenFoundA, "", "body"},  // the empty header line
      {"HTTP/1.0 200 OK\r\n", &kCrlf, &kBlank, kTokenFoundB, "HTTP/1.0", "200 OK\r\n"},
      {"OK\r\n x", &kCrlf, &kBlank, kTokenFoundA, "OK", " x"},
      {"0,7:rest", &kCrlf, &kComma, kTokenFoundB, "0", "7:rest"},
      {"x<response:0,", &kComma, &kTag, kTokenFoundB, "x", "0,"},
      {"ab,c<response:", &kComma, &kTag, kTokenFoundA, "ab", "c<response:"},
      // At one position the shorter delimiter is complete first; equal ones go to B.
      {"a<response:", &kOpen, &kTag, kTokenFoundA, "a", "response:"},
      {"a<response:", &kTag, &kOpen, kTokenFoundB, "a", "response:"},
      {"ab\r\ncd", &kCrlf, &kCrlf, kTokenFoundB, "ab", "cd"},
      // A delimiter that ends exactly at the last byte received is found without another read.
      {"0,0:", &kCrlf, &kColon, kTokenFoundB, "0,0", ""},
  };
  for (const Case& c : cases) {
    BufferedOverChunks stream({c.input});
    Token token;
    EXPECT_EQ(token.next(stream.get(), *c.a, *c.b, kTokenConsume), c.result) << c.input;
    EXPECT_EQ(token.text(), c.token) << c.input;
    EXPECT_EQ(token.area[token.buffer.length], '\0') << "area not cleared: " << c.input;
    EXPECT_EQ(unread(stream.get()), c.rest) << c.input;
  }
}

TEST(Tokenizer, FindsADelimiterStraddlingTheBufferedDataAfterCompacting) {
  // The first read fills the 8-byte buffer and ends inside the CR LF.
  BufferedOverChunks stream({"ab:cdef\r", "\nxyz"}, 8);
  Token name;
  ASSERT_EQ(name.next(stream.get(), kCrlf, kColon, kTokenConsume), kTokenFoundB);
  EXPECT_EQ(name.text(), "ab");
  Token value;
  ASSERT_EQ(value.next(stream.get(), kCrlf, kColon, kTokenConsume), kTokenFoundA);
  EXPECT_EQ(value.text(), "cdef");
  EXPECT_EQ(std::string(stream->buf, 8), "cdef\r\nxy");  // consumed bytes were dropped
  EXPECT_EQ(unread(stream.get()), "xy");
}

TEST(Tokenizer, RefillsOncePerCallThenGivesUp) {
  BufferedOverChunks stream({"aaaa", "bbbb", "cc", "\r\n"}, 16);
  Token token;
  EXPECT_EQ(token.next(stream.get(), kCrlf, kColon, kTokenConsume), kStreamNoDelimiter);
  EXPECT_EQ(stream->stored, 4);  // "bbbb" was not read
  // Nothing consumed, but room behind: the next call reads on.
  EXPECT_EQ(token.next(stream.get(), kCrlf, kColon, kTokenConsume), kStreamNoDelimiter);
  EXPECT_EQ(unread(stream.get()), "aaaabbbb");

  char skipped;
  ASSERT_EQ(readBufferStr(stream.get(), &skipped, 1), 1);
  EXPECT_EQ(token.next(stream.get(), kCrlf, kColon, kTokenConsume), kStreamNoDelimiter);
  EXPECT_EQ(std::string(stream->buf, 9), "aaabbbbcc");  // the consumed byte was dropped
  EXPECT_EQ(token.next(stream.get(), kCrlf, kColon, kTokenConsume), kTokenFoundA);
  EXPECT_EQ(token.text(), "aaabbbbcc");
  // Nothing left: the refill's end of data comes back as is.
  EXPECT_EQ(token.next(stream.get(), kCrlf, kColon, kTokenConsume), kStreamEndOfData);
}

TEST(Tokenizer, ReportsNoRoomForAFullUnconsumedBufferOrALongToken) {
  BufferedOverChunks full({"abcdefgh", "\r\n"}, 8);
  ASSERT_EQ(refillBufferedStream(full.get(), kRefillFresh), 8);
  Token token;
  EXPECT_EQ(token.next(full.get(), kCrlf, kColon, kTokenConsume), kStreamNoRoom);
  EXPECT_EQ(full->cur, full->buf);

  BufferedOverChunks longToken({"abcdefg\r\nz"});
  char small[4];
  TokenBuffer area{small, 0, 4};
  EXPECT_EQ(tokenizeStream(longToken.get(), &kCrlf, &kColon, &area, kTokenConsume), kStreamNoRoom);
  EXPECT_EQ(unread(longToken.get()), "abcdefg\r\nz");  // nothing consumed
  char exact[7];
  TokenBuffer fits{exact, 0, 7};
  EXPECT_EQ(tokenizeStream(longToken.get(), &kCrlf, &kColon, &fits, kTokenConsume), kTokenFoundA);
  EXPECT_EQ(std::string(exact, 7), "abcdefg");
}

TEST(Tokenizer, PeekLeavesTheTokenUnread) {
  BufferedOverChunks stream({"<response:0,0:"});
  Token peeked;
  ASSERT_EQ(peeked.next(stream.get(), kComma, kTag, kTokenPeek), kTokenFoundB);
  EXPECT_EQ(peeked.text(), "");
  EXPECT_EQ(unread(stream.get()), "<response:0,0:");

  Token status;
  ASSERT_EQ(status.next(stream.get(), kCrlf, kComma, kTokenPeek), kTokenFoundB);
  EXPECT_EQ(status.text(), "<response:0");
  EXPECT_EQ(unread(stream.get()), "<response:0,0:");
  ASSERT_EQ(status.next(stream.get(), kCrlf, kComma, kTokenConsume), kTokenFoundB);
  EXPECT_EQ(unread(stream.get()), "0:");
}

TEST(SlmStream, WriteGrowsOrFlushesWhenTheBufferIsFull) {
  const std::string body(10000, 'b');
  BufferedOverChunks grown({});
  EXPECT_EQ(writeBufferStr(grown.get(), body.data(), 10000, kWriteGrow), 10000);
  EXPECT_EQ(grown->capacity, 16384);
  EXPECT_EQ(grown->stored, 10000);
  EXPECT_EQ(std::string(grown->buf, 10000), body);
  EXPECT_EQ(grown->buf[10000], '\0');
  EXPECT_TRUE(grown.source().written.empty());

  BufferedOverChunks flushed({});
  EXPECT_EQ(writeBufferStr(flushed.get(), "head", 4, kWriteFlush), 4);
  EXPECT_EQ(writeBufferStr(flushed.get(), body.data(), 10000, kWriteFlush), 10000);
  EXPECT_EQ(flushed->capacity, 4096);
  ASSERT_EQ(flushed.source().written.size(), 2u);
  EXPECT_EQ(flushed.source().written[0], "head" + body.substr(0, 4092));
  EXPECT_EQ(flushed.source().written[1], body.substr(4092, 4096));
  EXPECT_EQ(flushed->stored, 10004 - 8192);
  EXPECT_EQ(flushBufferedStream(flushed.get()), 10004 - 8192);
  EXPECT_EQ(flushed->stored, 0);
}

TEST(SlmStream, FailedFlushKeepsTheBufferAndEndsTheWrite) {
  BufferedOverChunks stream({}, 8);
  stream.source().writeResult = kStreamIoError;
  // Five bytes go in before the buffer is full and its flush fails.
  EXPECT_EQ(writeBufferStr(stream.get(), "abc", 3, kWriteFlush), 3);
  EXPECT_EQ(writeBufferStr(stream.get(), "defghij", 7, kWriteFlush), 5);
  EXPECT_EQ(std::string(stream->buf, 8), "abcdefgh");
  EXPECT_EQ(writeBufferStr(stream.get(), "ij", 2, kWriteFlush), kStreamIoError);
  EXPECT_EQ(flushBufferedStream(stream.get()), kStreamIoError);
  EXPECT_EQ(stream->stored, 8);
}

TEST(SlmStream, ReadRefillsAcrossChunksAndReportsTheEnd) {
  BufferedOverChunks stream({"abc", "defg", "hi"}, 4);
  char data[16] = {};
  EXPECT_EQ(readBufferStr(stream.get(), data, 2), 2);
  EXPECT_EQ(std::string(data, 2), "ab");
  EXPECT_EQ(readBufferStr(stream.get(), data, 6), 6);
  EXPECT_EQ(std::string(data, 6), "cdefgh");
  EXPECT_EQ(readBufferStr(stream.get(), data, 6), 1);  // partial count, not the error
  EXPECT_EQ(data[0], 'i');
  EXPECT_EQ(readBufferStr(stream.get(), data, 6), kStreamEndOfData);
  EXPECT_EQ(refillBufferedStream(stream.get(), 16), 0);
}

TEST(SlmStream, AdjustEnlargesOnlyAndKeepsThePosition) {
  BufferedOverChunks stream({"abcdef"});
  char data[2];
  ASSERT_EQ(readBufferStr(stream.get(), data, 2), 2);
  EXPECT_EQ(adjustBufferStream(stream.get(), -1), kStreamIoError);
  EXPECT_EQ(adjustBufferStream(stream.get(), 100), 0);
  EXPECT_EQ(stream->capacity, 4096);
  ASSERT_EQ(adjustBufferStream(stream.get(), 10000), 0);
  EXPECT_EQ(stream->capacity, 10000);
  EXPECT_EQ(unread(stream.get()), "cdef");
}

TEST(SlmStream, ConvertToAsciiMasksHighBytesAndStopsAtZero) {
  struct Case {
    std::string source;
    int length;
    std::string copied;
  };
  const Case cases[] = {
      {"\xC3\xA9"
       "a",
       3, "??a"},
      {std::string("ab\0cd", 5), 5, "ab"},
      {"abcdef", 4, "abcd"},
      {"\x7F\x80\xFF", 3, "\x7F??"},
  };
  for (const Case& c : cases) {
    char destination[8];
    memset(destination, 'Z', sizeof destination);
    EXPECT_EQ(convertToAscii(c.source.data(), destination, c.length),
              static_cast<int>(c.copied.size()));
    EXPECT_EQ(std::string(destination, c.copied.size()), c.copied);
    EXPECT_EQ(destination[c.copied.size()], 'Z');  // no terminator written
  }
}

TEST(SlmStream, KernelConfigurationLinesLoseAllWhiteSpace) {
  test::TempDir dir;
  dir.writeFile("driver.conf", " foo bar\t=1\n\n\va b\r\nlast");
  std::string path = dir.file("driver.conf");
  SlmStream* file = newKerConfFileStream(path.c_str(), static_cast<int>(path.size()));
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(slm_kcfopen(file->context), 0);
  char line[1000];
  EXPECT_EQ(slm_kcfread(file->context, line, sizeof line, 0), 9);
  EXPECT_STREQ(line, "foobar=1");
  EXPECT_EQ(slm_kcfread(file->context, line, sizeof line, 0), 1);
  EXPECT_STREQ(line, "");
  EXPECT_EQ(slm_kcfread(file->context, line, sizeof line, 0), 3);
  EXPECT_STREQ(line, "ab");
  EXPECT_EQ(slm_kcfread(file->context, line, 4, 0), kStreamNoRoom);  // "last" needs 5 bytes
  EXPECT_EQ(slm_kcfread(file->context, line, sizeof line, 0), kStreamEndOfData);
  EXPECT_EQ(slm_kcfwrite(file->context, "x", 1, 0), kStreamIoError);
  slm_kcfclose(file->context);
  closeKerConfFileStream(file);

  std::string missing = dir.file("missing.conf");
  SlmStream* absent = newKerConfFileStream(missing.c_str(), static_cast<int>(missing.size()));
  EXPECT_EQ(initBufferStream(kStreamBufferCount, kStreamBufferUnit, absent), nullptr);
  closeKerConfFileStream(absent);
}

// A buffered stream over a socket stream, freed in the documented order.
class SocketBuffered {
 public:
  SocketBuffered(const char* host, uint16_t port, int16_t timeoutSeconds) {
    lower_ = newSocketStream(host, static_cast<int>(strlen(host)), port, timeoutSeconds);
    stream_ = initBufferStream(kStreamBufferCount, kStreamBufferUnit, lower_);
  }
  ~SocketBuffered() {
    closeBufferedStream(stream_);
    closeSocketStream(lower_);
  }
  BufferedStream* get() { return stream_; }

 private:
  SlmStream* lower_;
  BufferedStream* stream_;
};

TEST(SlmStream, SocketCarriesBytesBothWaysAndSeesThePeerClose) {
  LoopbackScript script;
  script.start = LoopbackScript::Start::kOnConnect;
  script.replies = {"first|", "second\r\n"};
  script.pauseBetween = std::chrono::milliseconds(20);
  LoopbackServer server(script);
  ASSERT_NE(server.port(), 0);
  {
    // A name, not a dotted address: resolved by the resolver.
    SocketBuffered socket("localhost", server.port(), 5);
    ASSERT_NE(socket.get(), nullptr);
    ASSERT_EQ(writeBufferStr(socket.get(), "ping\r\n", 6, kWriteFlush), 6);
    ASSERT_EQ(flushBufferedStream(socket.get()), 6);
    Token token;
    const TokenDesc bar = makeTokenDesc("|", 1);
    EXPECT_EQ(token.next(socket.get(), kCrlf, bar, kTokenConsume), kTokenFoundB);
    EXPECT_EQ(token.text(), "first");
    EXPECT_EQ(token.next(socket.get(), kCrlf, bar, kTokenConsume), kTokenFoundA);
    EXPECT_EQ(token.text(), "second");
    char rest[8];
    EXPECT_EQ(readBufferStr(socket.get(), rest, sizeof rest), kStreamEndOfData);
  }
  EXPECT_EQ(server.received(), "ping\r\n");
}

TEST(SlmStream, SocketReadTimesOutWhenThePeerStaysSilent) {
  LoopbackScript script;
  script.start = LoopbackScript::Start::kOnConnect;
  script.replies = {"partial"};
  script.closeAfterReplies = false;
  LoopbackServer server(script);
  SocketBuffered socket("127.0.0.1", server.port(), 1);
  ASSERT_NE(socket.get(), nullptr);
  char data[16];
  EXPECT_EQ(readBufferStr(socket.get(), data, 7), 7);
  EXPECT_EQ(readBufferStr(socket.get(), data, 1), kStreamReadTimeout);
}

TEST(SlmStream, SocketOpenFailsForARefusedPortOrAnUnknownHost) {
  // A port that was bound and released: nothing listens there.
  int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length), 0);
  close(probe);

  const char* hosts[] = {"127.0.0.1", "no-such-host.invalid"};
  for (const char* host : hosts) {
    SlmStream* lower =
        newSocketStream(host, static_cast<int>(strlen(host)), ntohs(address.sin_port), 1);
    ASSERT_NE(lower, nullptr);
    EXPECT_EQ(slm_sopen(lower->context), kStreamIoError) << host;
    EXPECT_EQ(initBufferStream(kStreamBufferCount, kStreamBufferUnit, lower), nullptr) << host;
    closeSocketStream(lower);
  }
}

}  // namespace
}  // namespace slm
