// Damaged and hostile input for the byte streams, the HTTP client, the service exchange and the
// node services' payloads: valid inputs cut short, with a byte replaced, a NUL or an over-long run
// put in or a line end lost, and random bytes, all from fixed seeds. Every call must return one of
// its documented results, keep its outputs inside their buffers and leave no descriptor open; the
// sanitizers report any memory fault and, at exit, any leak.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/communication/service.h"
#include "agent_core/communication/slm.h"
#include "agent_core/communication/slm_http.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "support/loopback_server.h"
#include "support/temp_root.h"

namespace slm {
namespace {

using Rng = std::mt19937;
using test::LoopbackScript;
using test::LoopbackServer;

const std::set<int> kEndResults = {
    kServiceOk,           kServiceFailed,          kServiceObsoleteScan,
    kServiceUnknownAgent, kServiceUnknownDivision, kServiceBadNode,
    kServiceNoNewerAgent};

// The bytes the parsers split on come up as often as all others together.
std::string randomBytes(Rng& rng, size_t count) {
  static const std::string kFavoured = "\r\n:,| <>/0123456789-response";
  std::string out;
  for (unsigned pick = rng() % 512; out.size() < count; pick = rng() % 512) {
    out += pick < 256 ? static_cast<char>(pick) : kFavoured[pick % kFavoured.size()];
  }
  return out;
}

// One kind of damage, picked by the generator, to a copy of a valid input.
std::string damage(std::string out, Rng& rng) {
  size_t at = rng() % (out.size() + 1);
  unsigned kind = rng() % 6;
  if (kind == 0) return out.substr(0, at);
  if (kind == 1 && at < out.size()) out[at] = static_cast<char>(rng());
  if (kind == 2) out.insert(at, 1, '\0');
  if (kind == 3) out.insert(at, 100 + rng() % 5000, rng() % 2 == 0 ? '9' : 'x');
  size_t lineEnd = out.find_first_of("\r\n", at);
  if (kind == 4 && lineEnd != std::string::npos) out.erase(lineEnd, 1);
  if (kind == 5) out.insert(at, randomBytes(rng, rng() % 64));
  return out;
}

// A lower stream over bytes in memory that hands them out in reads of random size.
struct MemoryStream {
  static int read(void* context, char* data, int len, int) {
    auto* self = static_cast<MemoryStream*>(context);
    int count = std::min({len, static_cast<int>(self->bytes.size() - self->next),
                          1 + static_cast<int>((*self->rng)() % 700)});
    if (self->next == self->bytes.size()) return kStreamEndOfData;
    memcpy(data, self->bytes.data() + self->next, static_cast<size_t>(count));
    self->next += static_cast<size_t>(count);
    return count;
  }
  std::string bytes;
  Rng* rng;
  size_t next = 0;
  SlmStream lower{this, [](void*) { return 0; }, read,
                  [](void*, const char*, int, int) { return kStreamIoError; },
                  [](void*) { return 0; }};
};

std::string answer(const std::string& headers, const std::string& body) {
  return "HTTP/1.0 200 OK\r\nSCPVersion: 1.1.1\r\n" + headers +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

auto openDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class DamagedStream : public ::testing::Test {
 protected:
  void SetUp() override {
    setAgentRoot(root_.path().c_str());
    root_.makeDirs("var/qsam/cache");
    startTrace(root_.file("trace.log").c_str());
    root_.writeFile("etc/kvdagent.ini", "agentid=7\ndivisionid=9\ntag=t\ncustomer=c\n");
    ASSERT_EQ(loadConfigurationFile(root_.file("etc/kvdagent.ini").c_str()), kConfigurationLoaded);
    ASSERT_EQ(initAgentInfo(), kAgentValueOk);
    setHttpProxy("", 0);
    ASSERT_EQ(initSlmServices(nullptr, 2), kSlmServicesReady);
  }
  void TearDown() override {
    if (cached_) deleteServersCache();
    clearAgentInfo();
    deleteConfigurationVariables();
    stopTrace();
    setAgentRoot("/");
    EXPECT_EQ(openDescriptors(), descriptors_) << "a descriptor was left open";
  }

  // One empty service against a peer answering `reply`: the answer check's result and, for a
  // usable answer, the trailer's result.
  std::pair<int, int> exchange(const std::string& reply, bool ascii = false) {
    LoopbackServer peer(LoopbackScript{.replies = {reply}});
    ServerAddress server{"127.0.0.1", "/", peer.port()};
    HttpHandle* handle = newSlmService(&server, kServiceCatalog, 0);
    if (handle == nullptr) return {0, 0};
    EXPECT_TRUE(!ascii || putHeader(handle, kHeaderContentEncoding, kAsciiEncoding) == 1);
    EXPECT_EQ(endSlmRequest(handle), kContentSent);
    int checked = getSlmServiceResponse(handle);
    if (checked == kServiceAnswerUsable) return {checked, endSlmService(handle)};
    freeHttpHandle(handle);
    return {checked, -1};
  }

  // Node service `which` (plug-in, parameters, topology, new agent) against a peer, the preferred
  // server of a fresh cache, answering `payload` under a usable head.
  int service(int which, const std::string& payload) {
    LoopbackServer peer(LoopbackScript{.replies = {answer("", payload)}});
    if (cached_) deleteServersCache();
    remove(root_.file("var/qsam/cache/server.dat").c_str());
    ServerInfo preferred{};
    preferred.address = ServerAddress{"127.0.0.1", "/", peer.port()};
    cached_ = createServersCache(&preferred) == kSrvsOk;
    EXPECT_TRUE(cached_);
    int32_t words[kParameterWords];
    SlmList* list = createList(sizeof(ServerAddress));
    char command[32] = "x";
    int result = which == 0   ? plugIn(&preferred.address)
                 : which == 1 ? downloadParameters(words)
                 : which == 2 ? downloadTopology(list)
                              : downloadNewAgent(command, sizeof command, list);
    EXPECT_LT(strnlen(command, sizeof command), sizeof command);
    deleteList(list);
    return result;
  }

  test::TempDir root_;
  long descriptors_ = openDescriptors();
  bool cached_ = false;
};

TEST_F(DamagedStream, TokensStayInsideTheirAreasAndEndBeforeTheFirstDelimiter) {
  const std::set<int> results = {kTokenFoundA, kTokenFoundB, kStreamNoRoom, kStreamNoDelimiter,
                                 kStreamEndOfData};
  const TokenDesc delims[] = {
      makeTokenDesc("\r\n", 2),        makeTokenDesc(":", 1),
      makeTokenDesc(" ", 1),           makeTokenDesc(",", 1),
      makeTokenDesc("<response:", 10), makeTokenDesc("</division>\r\n", 13)};
  const std::string samples[] = {"HTTP/1.0 200 OK\r\nContent-Length: 12\r\n\r\n",
                                 "<division>\r\nh|/p|80\r\n</division>\r\n<response:0,-5:\r\n"};
  Rng rng(20240611);
  for (int round = 0; round < 3000; ++round) {
    MemoryStream memory{
        round % 3 == 0 ? randomBytes(rng, rng() % 9000) : damage(samples[round % 2], rng), &rng};
    // Buffers from 8 bytes up make tokens and delimiters straddle compactions.
    BufferedStream* stream = initBufferStream(8 + static_cast<int>(rng() % 4089), 1, &memory.lower);
    for (int step = 0, result = 0; step < 40 && result != kStreamEndOfData; ++step) {
      const TokenDesc& a = delims[rng() % 6];
      const TokenDesc& b = delims[rng() % 6];
      int capacity = 1 + static_cast<int>(rng() % 300);
      std::vector<char> area(static_cast<size_t>(capacity) + 16, 'Z');
      TokenBuffer out{area.data(), -7, capacity};
      int mode = rng() % 2 == 0 ? kTokenConsume : kTokenPeek;
      result = tokenizeStream(stream, &a, &b, &out, mode);
      ASSERT_TRUE(results.count(result)) << result;
      ASSERT_TRUE(
          std::all_of(area.begin() + capacity, area.end(), [](char c) { return c == 'Z'; }));
      ASSERT_TRUE(stream->cur >= stream->buf && stream->cur <= stream->buf + stream->stored);
      if (result < 1) continue;
      // The token is the unread text up to the delimiter it reports, and holds neither delimiter.
      std::string token(area.data(), static_cast<size_t>(out.length));
      const TokenDesc& found = result == kTokenFoundB ? b : a;
      const char* at = mode == kTokenPeek ? stream->cur : stream->cur - found.length - out.length;
      ASSERT_TRUE(out.length <= capacity && at >= stream->buf);
      EXPECT_EQ(std::string(at, token.size() + static_cast<size_t>(found.length)),
                token + std::string(found.text, static_cast<size_t>(found.length)));
      EXPECT_EQ(token.find(a.text, 0, static_cast<size_t>(a.length)), std::string::npos);
      EXPECT_EQ(token.find(b.text, 0, static_cast<size_t>(b.length)), std::string::npos);
    }
    closeBufferedStream(stream);
  }
}

TEST_F(DamagedStream, DamagedAnswersGiveDocumentedResults) {
  const std::string body = "payload\r\n<response:0,-5:\r\n";
  const std::string valid = answer("Service: 3\r\nX-Tag: a\r\n", body);
  const size_t headSize = valid.size() - body.size();
  // Cut short: a head is refused, a trailer cut before its closing ':' fails.
  for (size_t cut = 0; cut < valid.size(); ++cut) {
    auto [checked, ended] = exchange(valid.substr(0, cut));
    EXPECT_EQ(checked, cut < headSize ? kServiceAnswerRejected : kServiceAnswerUsable) << cut;
    EXPECT_TRUE(cut < headSize ||
                ended == (cut + 2 < valid.size() ? kServiceFailed : kServiceNoNewerAgent))
        << cut;
  }
  // Hostile heads, with and without body conversion; 0 where either check result is allowed.
  const std::pair<std::string, int> heads[] = {
      {"Content-Length: -1\r\n", kServiceAnswerRejected},
      {"Content-Length: -2147483648\r\n", kServiceAnswerRejected},
      {"Content-Length: abc\r\n", kServiceAnswerUsable},
      {"Content-Length:\r\n", kServiceAnswerUsable},
      {"Content-Length: 2147483647\r\n", kServiceAnswerUsable},
      {"Content-Length: 99999999999999999999\r\n", 0},
      {std::string(200, 'n') + ": v\r\n", kServiceAnswerRejected},
      {"A: 1\r\nB: 2\r\nC: 3\r\nD: 4\r\nE: 5\r\nF: 6\r\nG: 7\r\n", kServiceAnswerUsable},
      {std::string("Service: 3\0\r\n", 13), kServiceAnswerUsable},
  };
  for (bool ascii : {false, true}) {
    for (const auto& [head, expected] : heads) {
      auto [checked, ended] =
          exchange("HTTP/1.0 200 OK\r\nSCPVersion: 1.1.1\r\n" + head + "\r\n" + body, ascii);
      EXPECT_TRUE(expected == 0 || checked == expected) << head;
      EXPECT_TRUE(checked != kServiceAnswerUsable || ended == kServiceNoNewerAgent) << head;
    }
  }
  Rng rng(4711);
  for (int round = 0; round < 120; ++round) {
    auto [checked, ended] = exchange(
        round % 5 == 0 ? randomBytes(rng, rng() % 600) : damage(valid, rng), round % 7 == 0);
    EXPECT_TRUE(checked == kServiceAnswerUsable || checked == kServiceAnswerRejected) << checked;
    EXPECT_TRUE(checked != kServiceAnswerUsable || kEndResults.count(ended)) << ended;
  }
}

TEST_F(DamagedStream, DamagedServicePayloadsGiveDocumentedResults) {
  const std::string payloads[] = {
      "123456\r\n",
      "1\r\n2\r\n3000000000\r\n4\r\n5\r\n6\r\n7\r\n8\r\n9\r\n10\r\n11\r\n12\r\n13\r\n14\r\n15\r\n"
      "yes\r\n17\r\n",
      "<division>\r\nh1|/p|80\r\nh2|/q|81\r\n</division>\r\n<enterprise>\r\ne1|/|90\r\n"
      "</enterprise>\r\n",
      "install.sh -q\r\n/agent/kvdagent\r\n/agent/kvdagent.sign\r\n"};
  std::set<int> results = kEndResults;
  results.insert(kServiceMalformedPayload);
  Rng rng(65537);
  for (int which = 0; which < 4; ++which) {
    const std::string valid = payloads[which] + "<response:0,0:\r\n";
    EXPECT_EQ(service(which, valid), kServiceOk) << which;
    // Cut short before the trailer's closing ':', no service succeeds.
    for (size_t cut = 0; cut + 2 < valid.size(); cut += 1 + rng() % 4) {
      int result = service(which, valid.substr(0, cut));
      EXPECT_TRUE(result == kServiceFailed || result == kServiceMalformedPayload) << which << cut;
    }
    for (int round = 0; round < 30; ++round) {
      int result =
          service(which, round % 6 == 0 ? randomBytes(rng, rng() % 400) : damage(valid, rng));
      EXPECT_TRUE(results.count(result)) << which << ": " << result;
    }
  }
}

}  // namespace
}  // namespace slm
