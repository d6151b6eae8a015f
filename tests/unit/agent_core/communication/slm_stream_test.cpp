#include "agent_core/communication/slm_stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "agent_core/security_settings.h"
#include "agent_core/support/trace.h"
#include "support/fake_clock.h"
#include "support/loopback_server.h"
#include "support/temp_root.h"
#include "support/test_ca.h"

namespace slm {
namespace {

using test::LoopbackScript;
using test::LoopbackServer;

// A buffered stream over bytes in memory: each lower read hands out at most the next scripted
// chunk, then end of data. Lower writes are recorded, or refused with `writeResult` when set.
struct Chunked {
  explicit Chunked(std::vector<std::string> scripted, int capacity = kStreamBufferCount)
      : chunks(std::move(scripted)),
        stream(initBufferStream(capacity, kStreamBufferUnit, &lower)) {}
  ~Chunked() { closeBufferedStream(stream); }
  std::string unread() const { return std::string(stream->cur, stream->buf + stream->stored); }
  static int read(void* context, char* data, int len, int) {
    auto& chunks = static_cast<Chunked*>(context)->chunks;
    if (chunks.empty()) return kStreamEndOfData;
    size_t count = std::min(static_cast<size_t>(len), chunks[0].size());
    memcpy(data, chunks[0].data(), count);
    chunks[0].erase(0, count);
    if (chunks[0].empty()) chunks.erase(chunks.begin());
    return static_cast<int>(count);
  }
  static int write(void* context, const char* data, int len, int) {
    auto* self = static_cast<Chunked*>(context);
    if (self->writeResult == 0) self->written.emplace_back(data, static_cast<size_t>(len));
    return self->writeResult == 0 ? len : self->writeResult;
  }
  static int none(void*) { return 0; }

  std::vector<std::string> chunks, written;
  int writeResult = 0;
  SlmStream lower{this, none, read, write, none};
  BufferedStream* stream;
};

// The descriptor the next open gets: the lowest free one.
int nextDescriptor() {
  int fd = dup(0);
  close(fd);
  return fd;
}

bool closeOnExec(int fd) {
  int flags = fcntl(fd, F_GETFD);
  return flags >= 0 && (flags & FD_CLOEXEC) != 0;
}

// Takes every free descriptor below `above` while it lives, so that the next open gets one past
// select's fixed set.
struct LowDescriptorsTaken {
  explicit LowDescriptorsTaken(int above) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < static_cast<rlim_t>(above) + 64) {
      limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, static_cast<rlim_t>(above) + 64);
      setrlimit(RLIMIT_NOFILE, &limit);
    }
    for (int fd = dup(0); fd >= 0; fd = dup(0)) {
      if (fd >= above) {
        close(fd);
        break;
      }
      taken.push_back(fd);
    }
  }
  ~LowDescriptorsTaken() {
    for (int fd : taken) close(fd);
  }
  std::vector<int> taken;
};

const TokenDesc kCrlf = makeTokenDesc("\r\n", 2);
const TokenDesc kColon = makeTokenDesc(":", 1);
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
  std::string text() const { return std::string(area, std::max(buffer.length, 0)); }
};

TEST(Tokenizer, FindsTheFirstDelimiterAndPrefersBOnlyWhenItEndsFirst) {
  // Input, delimiters A and B, result, token, unread rest.
  const std::tuple<const char*, const TokenDesc*, const TokenDesc*, int, const char*, const char*>
      cases[] = {
          {"Host: h\r\n", &kCrlf, &kColon, kTokenFoundB, "Host", " h\r\n"},
          {"\r\nbody", &kCrlf, &kColon, kTokenFoundA, "", "body"},  // the empty header line
          // At one position the shorter delimiter is complete first; equal ones go to B.
          {"a<response:", &kOpen, &kTag, kTokenFoundA, "a", "response:"},
          {"ab\r\ncd", &kCrlf, &kCrlf, kTokenFoundB, "ab", "cd"},
          // A delimiter that ends exactly at the last byte received is found without another read.
          {"0,0:", &kCrlf, &kColon, kTokenFoundB, "0,0", ""},
      };
  for (const auto& [input, a, b, result, text, rest] : cases) {
    Chunked stream({input});
    Token token;
    EXPECT_EQ(token.next(stream.stream, *a, *b), result) << input;
    EXPECT_EQ(token.text(), text) << input;
    EXPECT_EQ(token.area[token.buffer.length], '\0') << input;
    EXPECT_EQ(stream.unread(), rest) << input;
  }
}

TEST(Tokenizer, FindsADelimiterStraddlingTheBufferedDataAfterCompacting) {
  Chunked stream({"ab:cdef\r", "\nxyz"}, 8);  // the first read fills the buffer inside the CR LF
  Token name, value;
  ASSERT_EQ(name.next(stream.stream, kCrlf, kColon), kTokenFoundB);
  ASSERT_EQ(value.next(stream.stream, kCrlf, kColon), kTokenFoundA);
  EXPECT_EQ(value.text(), "cdef");
  EXPECT_EQ(std::string(stream.stream->buf, 8), "cdef\r\nxy");  // consumed bytes were dropped
}

TEST(Tokenizer, RefillsOncePerCallAndNeverReadsOnBehindUnconsumedBytes) {
  Chunked stream({"x,aaaa", "bbbb", "\r\n"}, 16);
  Token token;
  ASSERT_EQ(token.next(stream.stream, kCrlf, kComma), kTokenFoundB);
  // One compaction and refill brings "bbbb", then the call gives up.
  EXPECT_EQ(token.next(stream.stream, kCrlf, kComma), kStreamNoDelimiter);
  // None of it was consumed, so no room can be made although the buffer is half empty.
  EXPECT_EQ(token.next(stream.stream, kCrlf, kComma), kStreamNoRoom);
  EXPECT_EQ(stream.unread(), "aaaabbbb");
}

TEST(Tokenizer, ReportsNoRoomForAFullUnconsumedBufferOrALongToken) {
  Chunked full({"abcdefgh", "\r\n"}, 8);
  ASSERT_EQ(refillBufferedStream(full.stream, kRefillFresh), 8);
  Token token;
  EXPECT_EQ(token.next(full.stream, kCrlf, kColon), kStreamNoRoom);
  Chunked longToken({"abcdefg\r\nz"});
  char small[6];
  TokenBuffer area{small, 0, 6};
  EXPECT_EQ(tokenizeStream(longToken.stream, &kCrlf, &kColon, &area, kTokenConsume), kStreamNoRoom);
}

TEST(Tokenizer, PeekLeavesTheTokenUnreadAndOtherModesSkipOnlyTheToken) {
  Chunked stream({"<response:0,0:"});
  Token status;
  ASSERT_EQ(status.next(stream.stream, kCrlf, kComma, kTokenPeek), kTokenFoundB);
  EXPECT_EQ(status.text(), "<response:0");
  EXPECT_EQ(stream.unread(), "<response:0,0:");
  ASSERT_EQ(status.next(stream.stream, kCrlf, kComma, 0), kTokenFoundB);
  EXPECT_EQ(stream.unread(), ",0:");
}

TEST(SlmStream, WriteFlushesWhenTheBufferIsFull) {
  const std::string body(10000, 'b');
  Chunked flushed({});
  EXPECT_EQ(writeBufferStr(flushed.stream, "head", 4, kWriteFlush), 4);
  EXPECT_EQ(writeBufferStr(flushed.stream, body.data(), 10000, kWriteFlush), 10000);
  EXPECT_EQ(flushed.written,
            (std::vector<std::string>{"head" + body.substr(0, 4092), body.substr(4092, 4096)}));
  EXPECT_EQ(flushBufferedStream(flushed.stream), 10004 - 8192);
}

TEST(SlmStream, FailedFlushKeepsTheBufferAndEndsTheWrite) {
  Chunked stream({}, 8);
  stream.writeResult = kStreamIoError;
  // Five bytes go in before the buffer is full and its flush fails.
  EXPECT_EQ(writeBufferStr(stream.stream, "abc", 3, kWriteFlush), 3);
  EXPECT_EQ(writeBufferStr(stream.stream, "defghij", 7, kWriteFlush), 5);
  EXPECT_EQ(writeBufferStr(stream.stream, "ij", 2, kWriteFlush), kStreamIoError);
  EXPECT_EQ(flushBufferedStream(stream.stream), kStreamIoError);
  EXPECT_EQ(std::string(stream.stream->buf, stream.stream->stored), "abcdefgh");
}

TEST(SlmStream, AdjustNeverShrinksTheBuffer) {
  Chunked stream({});
  EXPECT_EQ(adjustBufferStream(stream.stream, 100), 0);
  EXPECT_EQ(stream.stream->capacity, 4096);
}

TEST(SlmStream, ConvertToAsciiMasksHighBytesAndStopsAtZero) {
  const std::tuple<std::string, int, std::string> cases[] = {
      {"\x7F\x80\xFF", 3, "\x7F??"}, {std::string("ab\0cd", 5), 5, "ab"}, {"abcdef", 4, "abcd"}};
  for (const auto& [source, length, copied] : cases) {
    char destination[8];
    memset(destination, 'Z', sizeof destination);
    EXPECT_EQ(convertToAscii(source.data(), destination, length), static_cast<int>(copied.size()));
    EXPECT_EQ(std::string(destination, copied.size() + 1), copied + 'Z');  // no terminator
  }
}

TEST(SlmStream, KernelConfigurationLinesLoseAllWhiteSpace) {
  test::TempDir dir;
  dir.writeFile("driver.conf", " foo bar\t=1\n\n\va b\r\nlast");
  std::string path = dir.file("driver.conf");
  SlmStream* file = newKerConfFileStream(path.c_str(), static_cast<int>(path.size()));
  int fd = nextDescriptor();
  ASSERT_EQ(slm_kcfopen(file->context), 0);
  EXPECT_TRUE(closeOnExec(fd));  // a module loader the agent starts does not inherit it
  char line[1000];
  EXPECT_EQ(slm_kcfread(file->context, line, sizeof line, 0), 9);
  EXPECT_STREQ(line, "foobar=1");
  EXPECT_EQ(slm_kcfread(file->context, line, sizeof line, 0), 1);
  EXPECT_EQ(slm_kcfread(file->context, line, sizeof line, 0), 3);
  EXPECT_STREQ(line, "ab");
  EXPECT_EQ(slm_kcfread(file->context, line, 4, 0), kStreamNoRoom);  // "last" needs 5 bytes
  EXPECT_EQ(slm_kcfread(file->context, line, sizeof line, 0), kStreamEndOfData);
  EXPECT_EQ(slm_kcfwrite(file->context, "x", 1, 0), kStreamIoError);
  slm_kcfclose(file->context);
  closeKerConfFileStream(file);
  path = dir.file("missing.conf");
  SlmStream* absent = newKerConfFileStream(path.c_str(), static_cast<int>(path.size()));
  EXPECT_EQ(initBufferStream(kStreamBufferCount, kStreamBufferUnit, absent), nullptr);
  closeKerConfFileStream(absent);
}

TEST(SlmStream, SocketCarriesBytesBothWaysAndSeesThePeerClose) {
  LoopbackServer server(
      {LoopbackScript::Start::kOnConnect, {"first|", "second\r\n"}, std::chrono::milliseconds(20)});
  SlmStream* lower = newSocketStream("localhost", 9, server.port(), 5);  // by the resolver
  BufferedStream* socket = initBufferStream(kStreamBufferCount, kStreamBufferUnit, lower);
  ASSERT_NE(socket, nullptr);
  ASSERT_EQ(writeBufferStr(socket, "ping\r\n", 6, kWriteFlush), 6);
  ASSERT_EQ(flushBufferedStream(socket), 6);
  Token token;
  EXPECT_EQ(token.next(socket, kCrlf, makeTokenDesc("|", 1)), kTokenFoundB);
  EXPECT_EQ(token.next(socket, kCrlf, makeTokenDesc("|", 1)), kTokenFoundA);
  EXPECT_EQ(token.text(), "second");
  char rest[8];
  EXPECT_EQ(readBufferStr(socket, rest, sizeof rest), kStreamEndOfData);
  closeBufferedStream(socket);
  closeSocketStream(lower);
  EXPECT_EQ(server.received(), "ping\r\n");
}

TEST(SlmStream, SocketPastSelectsSetIsReadAndNotInherited) {
  LoopbackServer server({LoopbackScript::Start::kOnConnect, {"hello"}});
  LowDescriptorsTaken low(FD_SETSIZE);
  int fd = nextDescriptor();
  ASSERT_GE(fd, FD_SETSIZE);
  SlmStream* lower = newSocketStream("127.0.0.1", 9, server.port(), 5);
  ASSERT_EQ(slm_sopen(lower->context), 0);
  // The descriptor taken is the connection's.
  struct stat status {};
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  ASSERT_EQ(fstat(fd, &status), 0);
  ASSERT_TRUE(S_ISSOCK(status.st_mode));
  ASSERT_EQ(getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size), 0);
  EXPECT_EQ(ntohs(peer.sin_port), server.port());
  EXPECT_TRUE(closeOnExec(fd));
  char data[16];
  EXPECT_EQ(slm_sread(lower->context, data, sizeof data, 0), 5);
  slm_sclose(lower->context);
  closeSocketStream(lower);
}

TEST(SlmStream, ExchangeMovingTooLittleInAWindowIsCutInTheClearAndOverTls) {
  test::TempDir dir;
  const test::TestCa ca({"127.0.0.1"});
  SecuritySettings settings;
  strcpy(settings.tlsCaFile, ca.caFile().c_str());
  setSecuritySettings(settings);
  for (bool tls : {false, true}) {
    SCOPED_TRACE(tls ? "TLS" : "in the clear");
    startTrace(dir.file("trace.log").c_str());
    setTraceLevel(0);
    test::FakeClock clock(1700000000);
    // A window's worth, then a byte now and then.
    std::optional<test::LoopbackTls> served;
    if (tls) served = test::LoopbackTls{ca.certFile(), ca.keyFile()};
    LoopbackServer server({LoopbackScript::Start::kOnConnect,
                           {std::string(kExchangeMinimumBytes, 'x'), "y", "z"},
                           std::chrono::milliseconds(20),
                           true,
                           served});
    SlmStream* lower = newSocketStream("127.0.0.1", 9, server.port(), 5);
    ASSERT_EQ(slm_sopen(lower->context), 0);
    ASSERT_EQ(tls ? startSocketTls(lower, "127.0.0.1", server.port()) : 0, 0);
    char data[2 * kExchangeMinimumBytes];
    for (int got = 0; got < kExchangeMinimumBytes;) {
      int read = slm_sread(lower->context, data, kExchangeMinimumBytes - got, 0);
      ASSERT_GT(read, 0);
      got += read;
    }
    clock.advance(kExchangeWindowSeconds);  // the window moved enough: a new one begins
    EXPECT_GT(slm_sread(lower->context, data, sizeof data, 0), 0);
    clock.advance(kExchangeWindowSeconds - 1);  // "z", or the end when it came with "y"
    EXPECT_NE(slm_sread(lower->context, data, sizeof data, 0), kStreamReadTimeout);
    clock.advance(1);  // this window moved a byte or two (a few records)
    EXPECT_EQ(slm_sread(lower->context, data, sizeof data, 0), kStreamReadTimeout);
    EXPECT_EQ(slm_swrite(lower->context, "late", 4, 0), kStreamIoError);
    slm_sclose(lower->context);
    closeSocketStream(lower);
    stopTrace();
    setTraceLevel(-1);
    EXPECT_NE(test::readFile(dir.file("trace.log"))
                  .find("ERROR - Exchange with 127.0.0.1:" + std::to_string(server.port()) +
                        " cut: fewer than 1024 bytes in 180 seconds\n"),
              std::string::npos);
  }
  setSecuritySettings(SecuritySettings{});
}

TEST(SlmStream, SocketOpenFailsForARefusedPortOrAnUnknownHost) {
  uint16_t port = test::closedLoopbackPort();
  for (const char* host : {"127.0.0.1", "no-such-host.invalid"}) {
    SlmStream* lower = newSocketStream(host, static_cast<int>(strlen(host)), port, 1);
    EXPECT_EQ(initBufferStream(kStreamBufferCount, kStreamBufferUnit, lower), nullptr) << host;
    closeSocketStream(lower);
  }
}

}  // namespace
}  // namespace slm
