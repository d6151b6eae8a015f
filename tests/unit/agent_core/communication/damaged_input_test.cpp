// Damaged input, from fixed seeds, for the token reader and the node services: every call must give
// a documented result and leave no descriptor open; the sanitizers report memory faults and leaks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <string_view>
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

// One kind of damage to a copy of `out`; random bytes favour the ones the parsers split on.
std::string damage(std::string out, std::mt19937& rng) {
  std::string noise(rng() % 600, '\0');
  for (char& c : noise) c = rng() % 2 ? char(rng()) : "\r\n:,| <>/0123456789-response"[rng() % 28];
  size_t at = rng() % (out.size() + 1), lineEnd = out.find_first_of("\r\n", at);
  unsigned kind = rng() % 5;
  if (kind == 0) return out.substr(0, at);
  if (kind == 1) out.insert(at, 100 + rng() % 5000, rng() % 2 == 0 ? '9' : 'x');
  if (kind == 2) out.insert(at, noise.substr(0, 64));  // NULs included
  if (kind == 3 && lineEnd != std::string::npos) out.erase(lineEnd, 1);
  return kind == 4 ? noise : out;
}

// A lower stream that hands out bytes in memory in reads of varying size.
struct MemoryStream {
  static int none(void*) { return 0; }
  static int read(void* context, char* data, int len, int) {
    std::string_view& rest = static_cast<MemoryStream*>(context)->rest;
    size_t count = std::min({size_t(len), rest.size(), 1 + rest.size() % 613});
    memcpy(data, rest.data(), count);
    rest.remove_prefix(count);
    return rest.empty() && count == 0 ? kStreamEndOfData : static_cast<int>(count);
  }
  std::string bytes;
  std::string_view rest = bytes;
  SlmStream lower{this, none, read, nullptr, none};  // never written
};

// A usable answer carrying `body` under `head`, by default its Content-Length.
std::string answer(const std::string& body, std::string head = "") {
  if (head.empty()) head = "Content-Length: " + std::to_string(body.size());
  return "HTTP/1.0 200 OK\r\nSCPVersion: 1.1.1\r\n" + head + "\r\n\r\n" + body;
}

class DamagedStream : public ::testing::Test {
 protected:
  void SetUp() override {
    setAgentRoot(root_.path().c_str());
    startTrace(root_.file("trace.log").c_str());
    root_.writeFile("etc/kvdagent.ini", "agentid=7\ndivisionid=9\ntag=t\ncustomer=c\n");
    ASSERT_EQ(loadConfigurationFile(root_.file("etc/kvdagent.ini").c_str()), kConfigurationLoaded);
    ASSERT_EQ(initAgentInfo(), kAgentValueOk);
    ASSERT_EQ(initSlmServices(nullptr, 2), kSlmServicesReady);
  }
  void TearDown() override {
    setHttpContentEncoding("");
    clearAgentInfo();
    deleteConfigurationVariables();
    stopTrace();
    setAgentRoot("/");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}),
              descriptors_);
  }

  // Service `which` (plug-in, new agent, parameters, topology) against a peer answering `reply`.
  int service(int which, const std::string& reply) {
    test::LoopbackServer peer({.replies = {reply}});
    ServerInfo preferred{};
    preferred.address = ServerAddress{"127.0.0.1", "/", peer.port()};
    EXPECT_EQ(createServersCache(&preferred), kSrvsOk);
    int32_t words[kParameterWords];
    SlmList* list = createList(sizeof(ServerAddress));
    char command[32] = "x";
    int result = which == 0   ? plugIn(&preferred.address)
                 : which == 1 ? downloadNewAgent(command, sizeof command, list)
                 : which == 2 ? downloadParameters(words)
                              : downloadTopology(list, list);
    deleteList(list);
    deleteServersCache();
    return result;
  }

  test::TempDir root_;
  std::mt19937 rng{65537};
  long descriptors_ = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
};

TEST_F(DamagedStream, TokensStayInsideTheirAreasAndMatchTheUnreadText) {
  const TokenDesc delims[] = {makeTokenDesc("\r\n", 2), makeTokenDesc(":", 1),
                              makeTokenDesc(",", 1), makeTokenDesc("<response:", 10),
                              makeTokenDesc("</division>\r\n", 13)};
  const std::string sample = answer("<division>\r\nh|/p|80\r\n</division>\r\n<response:0,-5:\r\n");
  for (int round = 0; round < 3000; ++round) {
    MemoryStream memory{damage(sample, rng)};  // small buffers make delimiters straddle refills
    BufferedStream* stream = initBufferStream(8 + static_cast<int>(rng() % 4089), 1, &memory.lower);
    for (int step = 0, result = 0; step < 40 && result != kStreamEndOfData; ++step) {
      const TokenDesc &a = delims[rng() % 5], &b = delims[rng() % 5];
      std::vector<char> area(1 + rng() % 300);  // a write past it is a sanitizer report
      TokenBuffer out{area.data(), -7, static_cast<int>(area.size())};
      int mode = rng() % 2 == 0 ? kTokenConsume : kTokenPeek;
      result = tokenizeStream(stream, &a, &b, &out, mode);
      ASSERT_TRUE(result == kStreamEndOfData || (result != 0 && result * result <= 4)) << result;
      if (result < 1) continue;
      std::string token(area.data(), out.length);
      const TokenDesc& found = result == kTokenFoundB ? b : a;
      const char* at = mode == kTokenPeek ? stream->cur : stream->cur - found.length - out.length;
      EXPECT_EQ(std::string(at, token.size() + found.length), token + found.text);  // unread text
    }
    closeBufferedStream(stream);
  }
}

TEST_F(DamagedStream, DamagedServiceAnswersGiveDocumentedResults) {
  const std::string payloads[] = {
      "123456\r\n", "install.sh -q\r\n/agent/kvdagent\r\n/agent/kvdagent.sign\r\n",
      "1\r\n2\r\n3000000000\r\n4\r\n5\r\n6\r\n7\r\n8\r\n9\r\n0\r\n1\r\n2\r\n3\r\n4\r\n5\r\nno\r\n7"
      "\r\n",
      "<division>\r\nh1|/p|80\r\n</division>\r\n<enterprise>\r\ne1|/|90\r\n</enterprise>\r\n"};
  const std::set<int> results = {
      kServiceOk,      kServiceFailed,       kServiceObsoleteScan,    kServiceUnknownAgent,
      kServiceBadNode, kServiceNoNewerAgent, kServiceUnknownDivision, kServiceMalformedPayload};
  // A length that lies is harmless up to the answer's limit; past it the answer is refused.
  const std::pair<std::string, int> heads[] = {
      {"Content-Length: 1048576", kServiceOk},
      {"Content-Length: 1048577", kServiceFailed},
      {"Content-Length: 2147483647", kServiceFailed},
      {std::string("Service: 3\0", 11), kServiceOk},
      {"Content-Length: -1", kServiceFailed},
      {"Content-Length: -2147483648", kServiceFailed},
      {"Content-Length: 99999999999999999999", kServiceFailed},
      {std::string(200, 'n') + ": v", kServiceFailed}};
  for (int which = 0; which < 4; ++which) {
    setHttpContentEncoding(which % 2 == 1 ? kAsciiEncoding : "");  // converting bodies or not
    const std::string body = payloads[which] + "<response:0,0:\r\n", valid = answer(body);
    for (const auto& [head, expected] : heads) {
      EXPECT_EQ(service(which, answer(body, head)), expected) << which << head;
    }
    for (int round = 0; round < 40; ++round) {
      size_t cut = rng() % (valid.size() - 2);  // short of the trailer's closing ':', so no success
      int result = service(which, valid.substr(0, cut));
      EXPECT_TRUE(result == kServiceFailed || result == kServiceMalformedPayload) << which << cut;
      EXPECT_TRUE(results.count(service(which, damage(valid, rng)))) << which;
    }
  }
}

}  // namespace
}  // namespace slm
