#include "agent_core/communication/slm_stream.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/loopback_server.h"
#include "support/temp_root.h"

namespace slm {
namespace {

using test::LoopbackScript;
using test::LoopbackServer;

// A buffered stream over bytes in memory: each lower read hands out at most the next scripted
// chunk, then end of data. Lower writes are recorded, or refused with `writeResult` when set.
class Chunked {
 public:
  explicit Chunked(std::vector<std::string> chunks, int capacity = kStreamBufferCount)
      : chunks_(std::move(chunks)) {
    stream_ = initBufferStream(capacity, kStreamBufferUnit, &lower_);
  }
  ~Chunked() { closeBufferedStream(stream_); }
  BufferedStream* operator->() { return stream_; }
  BufferedStream* get() { return stream_; }
  std::string unread() const {
    return std::string(stream_->cur,
                       static_cast<size_t>(stream_->buf + stream_->stored - stream_->cur));
  }

  std::vector<std::string> written;
  int writeResult = 0;

 private:
  static int open(void*) { return 0; }
  static int close(void*) { return 0; }
  static int read(void* context, char* data, int len, int) {
    auto* self = static_cast<Chunked*>(context);
    if (self->next_ == self->chunks_.size()) return kStreamEndOfData;
    std::string& chunk = self->chunks_[self->next_];
    int count = std::min<int>(len, static_cast<int>(chunk.size()));
    memcpy(data, chunk.data(), static_cast<size_t>(count));
    chunk.erase(0, static_cast<size_t>(count));
    if (chunk.empty()) ++self->next_;
    return count;
  }
  static int write(void* context, const char* data, int len, int) {
    auto* self = static_cast<Chunked*>(context);
    if (self->writeResult != 0) return self->writeResult;
    self->written.emplace_back(data, static_cast<size_t>(len));
    return len;
  }

  std::vector<std::string> chunks_;
  size_t next_ = 0;
  SlmStream lower_{this, open, read, write, close};
  BufferedStream* stream_;
};

const TokenDesc kCrlf = makeTokenDesc("\r\n", 2);
const TokenDesc kColon = makeTokenDesc(":", 1);
const TokenDesc kBlank = makeTokenDesc(" ", 1);
const TokenDesc kComma = makeTokenDesc(",", 1);
const TokenDesc kTag = makeTokenDesc("<response:", 10);
const TokenDesc kOpen = makeTokenDesc("<", 1);

// Tokenizes into a fresh area that starts out filled with garbage.
struct Token {
  char area[64];
  TokenBuffer buffer{area, -7, 63};
  Token() { memset(area, 'Z', sizeof area); }
  int next(BufferedStream* stream, const TokenDesc& a, const TokenDesc& b,
           int mode = kTokenConsume) {
    return tokenizeStream(stream, &a, &b, &buffer, mode);
  }
  std::string text() const {
    return buffer.length < 0 ? "<no token>" : std::string(area, static_cast<size_t>(buffer.length));
  }
};

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
    Chunked stream({c.input});
    Token token;
    EXPECT_EQ(token.next(stream.get(), *c.a, *c.b), c.result) << c.input;
    EXPECT_EQ(token.text(), c.token) << c.input;
    EXPECT_EQ(token.area[token.buffer.length], '\0') << "area not cleared: " << c.input;
    EXPECT_EQ(stream.unread(), c.rest) << c.input;
  }
}

TEST(Tokenizer, FindsADelimiterStraddlingTheBufferedDataAfterCompacting) {
  // The first read fills the 8-byte buffer and ends inside the CR LF.
  Chunked stream({"ab:cdef\r", "\nxyz"}, 8);
  Token name, value;
  ASSERT_EQ(name.next(stream.get(), kCrlf, kColon), kTokenFoundB);
  EXPECT_EQ(name.text(), "ab");
  ASSERT_EQ(value.next(stream.get(), kCrlf, kColon), kTokenFoundA);
  EXPECT_EQ(value.text(), "cdef");
  EXPECT_EQ(std::string(stream->buf, 8), "cdef\r\nxy");  // consumed bytes were dropped
  EXPECT_EQ(stream.unread(), "xy");
}

TEST(Tokenizer, RefillsOncePerCallAndNeverReadsOnBehindUnconsumedBytes) {
  Chunked stream({"x,aaaa", "bbbb", "\r\n"}, 16);
  Token token;
  ASSERT_EQ(token.next(stream.get(), kCrlf, kComma), kTokenFoundB);
  // One compaction and refill brings "bbbb", then the call gives up.
  EXPECT_EQ(token.next(stream.get(), kCrlf, kComma), kStreamNoDelimiter);
  EXPECT_EQ(stream.unread(), "aaaabbbb");
  // None of it was consumed, so no room can be made although the buffer is half empty.
  EXPECT_EQ(token.next(stream.get(), kCrlf, kComma), kStreamNoRoom);
  EXPECT_EQ(refillBufferedStream(stream.get(), kRefillCompact), kStreamNoRoom);
  EXPECT_EQ(stream.unread(), "aaaabbbb");

  // A first token gets the one refill of the empty buffer only.
  Chunked first({"aaaa", "\r\n"}, 16);
  EXPECT_EQ(token.next(first.get(), kCrlf, kComma), kStreamNoDelimiter);
  EXPECT_EQ(token.next(first.get(), kCrlf, kComma), kStreamNoRoom);

  // Nothing left: the refill's end of data comes back as is.
  Chunked ended({"x,"});
  ASSERT_EQ(token.next(ended.get(), kCrlf, kComma), kTokenFoundB);
  EXPECT_EQ(token.next(ended.get(), kCrlf, kComma), kStreamEndOfData);
}

TEST(Tokenizer, ReportsNoRoomForAFullUnconsumedBufferOrALongToken) {
  Chunked full({"abcdefgh", "\r\n"}, 8);
  ASSERT_EQ(refillBufferedStream(full.get(), kRefillFresh), 8);
  Token token;
  EXPECT_EQ(token.next(full.get(), kCrlf, kColon), kStreamNoRoom);
  EXPECT_EQ(full->cur, full->buf);

  Chunked longToken({"abcdefg\r\nz"});
  char small[4];
  TokenBuffer area{small, 0, 4};
  EXPECT_EQ(tokenizeStream(longToken.get(), &kCrlf, &kColon, &area, kTokenConsume), kStreamNoRoom);
  EXPECT_EQ(longToken.unread(), "abcdefg\r\nz");  // nothing consumed
  char exact[7];
  TokenBuffer fits{exact, 0, 7};
  EXPECT_EQ(tokenizeStream(longToken.get(), &kCrlf, &kColon, &fits, kTokenConsume), kTokenFoundA);
  EXPECT_EQ(std::string(exact, 7), "abcdefg");
}

TEST(Tokenizer, PeekLeavesTheTokenUnreadAndOtherModesSkipOnlyTheToken) {
  Chunked stream({"<response:0,0:"});
  Token peeked, status;
  ASSERT_EQ(peeked.next(stream.get(), kComma, kTag, kTokenPeek), kTokenFoundB);
  EXPECT_EQ(peeked.text(), "");
  EXPECT_EQ(stream.unread(), "<response:0,0:");
  ASSERT_EQ(status.next(stream.get(), kCrlf, kComma, kTokenPeek), kTokenFoundB);
  EXPECT_EQ(status.text(), "<response:0");
  EXPECT_EQ(stream.unread(), "<response:0,0:");
  ASSERT_EQ(status.next(stream.get(), kCrlf, kComma, 0), kTokenFoundB);
  EXPECT_EQ(stream.unread(), ",0:");
  ASSERT_EQ(status.next(stream.get(), kCrlf, kComma), kTokenFoundB);
  EXPECT_EQ(status.text(), "");
  EXPECT_EQ(stream.unread(), "0:");
}

TEST(SlmStream, WriteGrowsOrFlushesWhenTheBufferIsFull) {
  const std::string body(10000, 'b');
  Chunked grown({});
  EXPECT_EQ(writeBufferStr(grown.get(), body.data(), 10000, kWriteGrow), 10000);
  EXPECT_EQ(grown->capacity, 16384);
  EXPECT_EQ(std::string(grown->buf, 10001), body + '\0');
  EXPECT_TRUE(grown.written.empty());

  Chunked flushed({});
  EXPECT_EQ(writeBufferStr(flushed.get(), "head", 4, kWriteFlush), 4);
  EXPECT_EQ(writeBufferStr(flushed.get(), body.data(), 10000, kWriteFlush), 10000);
  EXPECT_EQ(flushed->capacity, 4096);
  EXPECT_EQ(flushed.written,
            (std::vector<std::string>{"head" + body.substr(0, 4092), body.substr(4092, 4096)}));
  EXPECT_EQ(flushBufferedStream(flushed.get()), 10004 - 8192);
  EXPECT_EQ(flushed->stored, 0);
}

TEST(SlmStream, FailedFlushKeepsTheBufferAndEndsTheWrite) {
  Chunked stream({}, 8);
  stream.writeResult = kStreamIoError;
  // Five bytes go in before the buffer is full and its flush fails.
  EXPECT_EQ(writeBufferStr(stream.get(), "abc", 3, kWriteFlush), 3);
  EXPECT_EQ(writeBufferStr(stream.get(), "defghij", 7, kWriteFlush), 5);
  EXPECT_EQ(std::string(stream->buf, 8), "abcdefgh");
  EXPECT_EQ(writeBufferStr(stream.get(), "ij", 2, kWriteFlush), kStreamIoError);
  EXPECT_EQ(flushBufferedStream(stream.get()), kStreamIoError);
  EXPECT_EQ(stream->stored, 8);
}

TEST(SlmStream, ReadRefillsAcrossChunksAndReportsTheEnd) {
  Chunked stream({"abc", "defg", "hi"}, 4);
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
  Chunked stream({"abcdef"});
  char data[2];
  ASSERT_EQ(readBufferStr(stream.get(), data, 2), 2);
  EXPECT_EQ(adjustBufferStream(stream.get(), -1), kStreamIoError);
  EXPECT_EQ(adjustBufferStream(stream.get(), 100), 0);
  EXPECT_EQ(stream->capacity, 4096);
  ASSERT_EQ(adjustBufferStream(stream.get(), 10000), 0);
  EXPECT_EQ(stream->capacity, 10000);
  EXPECT_EQ(stream.unread(), "cdef");
}

TEST(SlmStream, ConvertToAsciiMasksHighBytesAndStopsAtZero) {
  const struct {
    std::string source;
    int length;
    std::string copied;
  } cases[] = {
      {"\xC3\xA9z", 3, "??z"},
      {std::string("ab\0cd", 5), 5, "ab"},
      {"abcdef", 4, "abcd"},
      {"\x7F\x80\xFF", 3, "\x7F??"},
  };
  for (const auto& c : cases) {
    char destination[8];
    memset(destination, 'Z', sizeof destination);
    EXPECT_EQ(convertToAscii(c.source.data(), destination, c.length),
              static_cast<int>(c.copied.size()));
    EXPECT_EQ(std::string(destination, c.copied.size() + 1), c.copied + 'Z');  // no terminator
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
  SocketBuffered(const char* host, uint16_t port, int16_t timeoutSeconds)
      : lower_(newSocketStream(host, static_cast<int>(strlen(host)), port, timeoutSeconds)),
        stream_(initBufferStream(kStreamBufferCount, kStreamBufferUnit, lower_)) {}
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
  LoopbackScript script{LoopbackScript::Start::kOnConnect, {"first|", "second\r\n"}};
  script.pauseBetween = std::chrono::milliseconds(20);
  LoopbackServer server(script);
  ASSERT_NE(server.port(), 0);
  {
    SocketBuffered socket("localhost", server.port(), 5);  // a name: resolved by the resolver
    ASSERT_NE(socket.get(), nullptr);
    ASSERT_EQ(writeBufferStr(socket.get(), "ping\r\n", 6, kWriteFlush), 6);
    ASSERT_EQ(flushBufferedStream(socket.get()), 6);
    Token token;
    const TokenDesc bar = makeTokenDesc("|", 1);
    EXPECT_EQ(token.next(socket.get(), kCrlf, bar), kTokenFoundB);
    EXPECT_EQ(token.text(), "first");
    EXPECT_EQ(token.next(socket.get(), kCrlf, bar), kTokenFoundA);
    EXPECT_EQ(token.text(), "second");
    char rest[8];
    EXPECT_EQ(readBufferStr(socket.get(), rest, sizeof rest), kStreamEndOfData);
  }
  EXPECT_EQ(server.received(), "ping\r\n");
}

TEST(SlmStream, SocketOpenFailsForARefusedPortOrAnUnknownHost) {
  uint16_t port = test::closedLoopbackPort();
  ASSERT_NE(port, 0);
  for (const char* host : {"127.0.0.1", "no-such-host.invalid"}) {
    SlmStream* lower = newSocketStream(host, static_cast<int>(strlen(host)), port, 1);
    ASSERT_NE(lower, nullptr);
    EXPECT_EQ(slm_sopen(lower->context), kStreamIoError) << host;
    EXPECT_EQ(initBufferStream(kStreamBufferCount, kStreamBufferUnit, lower), nullptr) << host;
    closeSocketStream(lower);
  }
}

}  // namespace
}  // namespace slm
