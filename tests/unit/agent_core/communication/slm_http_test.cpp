#include "agent_core/communication/slm_http.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <tuple>

#include "agent_core/security_settings.h"
#include "agent_core/support/trace.h"
#include "support/loopback_server.h"
#include "support/temp_root.h"

namespace slm {
namespace {

using test::LoopbackScript;
using test::LoopbackServer;
using HandlePtr = std::unique_ptr<HttpHandle, decltype(&freeHttpHandle)>;

const TokenDesc kCrlf = makeTokenDesc("\r\n", 2);
const TokenDesc kBar = makeTokenDesc("|", 1);

std::string okAnswer(const std::string& body) {
  return "HTTP/1.0 200 OK\r\nContent-Length:" + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string customValue(const HttpHandle* handle, const char* name) {
  CustomHeader record{};
  strcpy(record.name, name);
  return getHeaderByName(handle, &record) == 1 ? record.value : "<absent>";
}

std::string headerValue(const HttpHandle* handle, int id) {
  char value[kHeaderValueBytes];
  return getHeaderById(handle, id, value) == 1 ? value : "<invalid>";
}

class HttpClient : public ::testing::Test {
 protected:
  void SetUp() override { restartTrace(); }
  void TearDown() override {
    setDefaults(kHeaderSubjectCustomer, "");
    setDefaults(kHeaderSubjectId, "");
    setHttpProxy("", 0);
    setHttpContentEncoding("");
    setSecuritySettings(SecuritySettings{});
    stopTrace();
    setTraceLevel(-1);
  }
  void restartTrace() {
    startTrace(tracePath_.c_str());
    setTraceLevel(2);
  }
  std::string trace() const { return test::readFile(tracePath_); }

  // A handle on a peer playing `script`.
  HandlePtr open(LoopbackScript script, int method = kHttpPost) {
    server_.emplace(std::move(script));
    HandlePtr handle(newHttpHandle(method, "/x", "HTTP/1.0", "127.0.0.1", server_->port(), 1, 0),
                     freeHttpHandle);
    EXPECT_NE(handle, nullptr);
    return handle;
  }

  test::TempDir dir_;
  std::string tracePath_ = dir_.file("traceagt.log");
  std::optional<LoopbackServer> server_;
};

TEST_F(HttpClient, SendsAServiceRequestHeadByteForByte) {
  setDefaults(kHeaderSubjectCustomer, "ACME");
  setDefaults(kHeaderSubjectId, "node-7");
  HandlePtr handle = open({.replies = {okAnswer("")}});
  ASSERT_EQ(putHeader(handle.get(), kHeaderService, "3"), 1);
  const std::string body = "0123456789abcdefghijklmnopqrstuvwxyzABCD\r\n";
  ASSERT_EQ(sendContent(handle.get(), body.data(), 20), 1);
  ASSERT_EQ(sendContent(handle.get(), body.data() + 20, 22), 1);
  EXPECT_EQ(getAnswer(handle.get()), 1);
  EXPECT_EQ(server_->request(),
            "POST /x HTTP/1.0\r\nHost:127.0.0.1\r\nConnection:close\r\nPragma:no-cache\r\n"
            "Cache-Control:no-cache\r\nUser-Agent:SLMAgent\r\nAccept-Charset:UTF-8\r\n"
            "Content-Length:42\r\nContent-Type:text/plain\r\nSCPVersion:1.1.1\r\nService:3\r\n"
            "SubjectCustomer:ACME\r\nSubjectID:node-7\r\nSubjectType:SLMAgent\r\n\r\n" +
                body);
}

TEST_F(HttpClient, ProxyRequestLineNamesTheServerAndItsPortUnless80) {
  const std::tuple<uint16_t, int, const char*> cases[] = {
      {80, 0, "POST http://h/x HTTP/1.0\r\nHost:h\r\n"},
      {8080, 0, "POST http://h:8080/x HTTP/1.0\r\nHost:h\r\n"},
      {0, kHttpNoProxy, "POST /x HTTP/1.0\r\nHost:127.0.0.1\r\n"},  // the server itself
  };
  for (const auto& [serverPort, flags, start] : cases) {
    LoopbackServer server(LoopbackScript{.replies = {okAnswer("")}});
    bool proxied = flags == 0;
    setHttpProxy(proxied ? "127.0.0.1" : "no-such-proxy.invalid", proxied ? server.port() : 3128);
    HandlePtr handle(newHttpHandle(kHttpPost, "/x", "HTTP/1.0", proxied ? "h" : "127.0.0.1",
                                   proxied ? serverPort : server.port(), 5, flags),
                     freeHttpHandle);
    ASSERT_NE(handle, nullptr) << start;
    ASSERT_EQ(sendContent(handle.get(), "x", 1), 1);
    EXPECT_EQ(getAnswer(handle.get()), 1);
    EXPECT_EQ(server.request().rfind(start, 0), 0u) << server.request();
  }
}

TEST_F(HttpClient, TunnelTheProxyDoesNotOpenIsRefusedAndNothingFollowsTheConnect) {
  SecuritySettings tls;
  tls.serverTls = true;
  setSecuritySettings(tls);
  const std::pair<const char*, const char*> cases[] = {
      {"HTTP/1.0 403 Filtered\r\n\r\n", "refused: 403 Filtered"},
      {"HTTP/1.1 407\r\nProxy-Authenticate: Basic\r\n\r\n", "refused: 407"},
      // A proxy answering in the server's place.
      {"HTTP/1.0 200 OK\r\n\r\nHTTP/1.0 200 OK\r\n\r\n", "refused: bytes before the TLS handshake"},
      {"SSH-2.0-x\r\n", "refused: no HTTP answer"},
      {"HTTP/1.0 200 Connection established\r\nProxy-agent: x\r\n",
       "refused: its answer does not end"},
  };
  for (const auto& [reply, refusal] : cases) {
    restartTrace();
    LoopbackServer proxy(LoopbackScript{.replies = {reply}});
    setHttpProxy("127.0.0.1", proxy.port());
    EXPECT_EQ(newHttpHandle(kHttpPost, "/x", "HTTP/1.0", "h", 8443, 5, 0), nullptr) << reply;
    EXPECT_EQ(proxy.received(), "CONNECT h:8443 HTTP/1.0\r\nHost:h:8443\r\n\r\n");
    EXPECT_NE(trace().find(std::string("ERROR - Proxy tunnel to h:8443 ") + refusal + "\n"),
              std::string::npos)
        << trace();
  }
}

TEST_F(HttpClient, HeaderValuesDefaultsSuppressionAndCustomHeadersOnTheWire) {
  HandlePtr handle = open({.replies = {okAnswer("")}}, kHttpGet);
  EXPECT_EQ(putHeader(handle.get(), kHeaderUserAgent, kHeaderSuppressed), 1);
  EXPECT_EQ(putHeader(handle.get(), kHeaderHost, "alias"), 1);
  EXPECT_EQ(putHeader(handle.get(), kHeaderServer, "srv"), 1);
  EXPECT_EQ(putHeader(handle.get(), kHeaderContentEncoding, "UTF-16"), 0);
  EXPECT_EQ(putHeader(handle.get(), kHeaderCount, "x"), 0);
  CustomHeader record{"X-0", "v0"};
  for (char i = '1'; i <= '6'; ++i) {
    record.name[2] = record.value[1] = i;
    EXPECT_EQ(putCustomHearder(handle.get(), &record), i <= '5' ? 1 : 0) << i;
  }
  EXPECT_EQ(getAnswer(handle.get()), 1);
  EXPECT_EQ(server_->request(),  // no body: no Content-Length
            "GET /x HTTP/1.0\r\nHost:127.0.0.1\r\nHost:alias\r\nConnection:close\r\n"
            "Pragma:no-cache\r\nCache-Control:no-cache\r\nAccept-Charset:UTF-8\r\nServer:srv\r\n"
            "Content-Type:text/plain\r\nSCPVersion:1.1.1\r\nSubjectType:SLMAgent\r\n"
            "X-1:v1\r\nX-2:v2\r\nX-3:v3\r\nX-4:v4\r\nX-5:v5\r\n\r\n");
  EXPECT_NE(trace().find("  ERROR - Encoding UTF-16 not valid\n"), std::string::npos) << trace();
}

TEST_F(HttpClient, RequestBodyLargerThanOneBufferGoesOutWhole) {
  const std::string body(10000, 'q');
  HandlePtr handle = open({.replies = {okAnswer("")}});
  ASSERT_EQ(sendContent(handle.get(), body.data(), static_cast<int>(body.size())), 1);
  EXPECT_EQ(getAnswer(handle.get()), 1);
  std::string request = server_->request();
  EXPECT_NE(request.find("\r\nContent-Length:10000\r\n"), std::string::npos);
  EXPECT_EQ(request.substr(request.find("\r\n\r\n") + 4), body);
}

TEST_F(HttpClient, ParsesAnAnswerSplitAtEveryOffsetBehindTheVersion) {
  const std::string answer =
      "HTTP/1.1 200 OK\r\nContent-Length:5\r\nSCPVersion: 1.1.1\r\nX-Foo: bar\r\n\r\nhello";
  // Each head token gets one further read, so the first read must hold the version and its blank.
  for (size_t split = answer.find(' ') + 1; split < answer.size(); ++split) {
    HandlePtr handle = open({.replies = {answer.substr(0, split), answer.substr(split)},
                             .pauseBetween = std::chrono::milliseconds(2)});
    ASSERT_EQ(getAnswer(handle.get()), 1) << split;
    EXPECT_EQ(customValue(handle.get(), "X-Foo"), " bar") << split;
    char chunk[64];
    EXPECT_EQ(getContentChunk(handle.get(), chunk, sizeof chunk), 5) << split;
    EXPECT_STREQ(chunk, "hello");
    EXPECT_EQ(getContentChunk(handle.get(), chunk, sizeof chunk), kContentEnd);
  }
}

TEST_F(HttpClient, HeadLineNeedingASecondFurtherReadFailsTheAnswer) {
  HandlePtr handle = open({.replies = {"HTTP/1.0 200 OK\r\nServer: ", "ab", "c\r\n\r\n"},
                           .pauseBetween = std::chrono::milliseconds(200)});
  EXPECT_EQ(getAnswer(handle.get()), 0);
}

TEST_F(HttpClient, AcceptsOnlyWholeHttp1TwoHundredHeads) {
  // Reply, whether the peer then closes rather than falls silent, result, message (empty: none).
  const std::tuple<const char*, bool, int, std::string> cases[] = {
      {"HTTP/1.1 200 OK\r\nServer: s\r\n\r\n", true, 1, ""},
      {"HTTP/1.0 204 No Content\r\n\r\n", true, 1, ""},
      {"HTTP/2 200 OK\r\n\r\n", true, 0, "ERROR - Http version HTTP/2 not supported"},
      {"HTTP/1.0 302 Found\r\n\r\n", true, 0, "ERROR - Http response 302 not managed"},
      {"HTTP/1.1 100 Continue\r\n\r\n", true, 0, "ERROR - Http response 100 not managed"},
      {"HTTP/1.0 600 X\r\n\r\n", true, 0, ""},
      {"HTTP/1.0 200\r\n\r\n", true, 0, ""},  // the status must end at a blank
      {"HTTP/1.0 200 OK\r\nServer: x\r\n", false, 0, ""},
      {"HTTP/1.0 200 OK\r\nServer: x\r\n", true, 0, ""},
      {"HTTP/1.0 200 OK\r\nNoColon\r\n\r\n", true, 0, ""},
      {"HTTP/1.0 200 OK\r\nContent-Length:-5\r\n\r\n", true, 0, ""},
  };
  for (const auto& [reply, close, result, message] : cases) {
    restartTrace();
    HandlePtr handle = open({.replies = {reply}, .closeAfterReplies = close});
    EXPECT_EQ(getAnswer(handle.get()), result) << reply;
    EXPECT_TRUE(message.empty() ? trace().empty()
                                : trace().find("  " + message + "\n") != std::string::npos)
        << trace();
  }
}

TEST_F(HttpClient, ResponseHeadersFillTheTableAndFiveCustomSlots) {
  HandlePtr handle = open({.replies = {"HTTP/1.0 200 OK\r\nServer: real\r\nX-A: 1\r\nX-B:2\r\n"
                                       "X-C: 3\r\nX-D: 4\r\nX-Long: " +
                                       std::string(70, 'v') + "\r\nX-F: 6\r\n\r\n"}});
  ASSERT_EQ(putHeader(handle.get(), kHeaderService, "3"), 1);
  ASSERT_EQ(getAnswer(handle.get()), 1);
  EXPECT_EQ(headerValue(handle.get(), kHeaderService), "");  // the request's headers are gone
  EXPECT_EQ(headerValue(handle.get(), kHeaderServer), " real");
  EXPECT_EQ(customValue(handle.get(), "X-Long"), " " + std::string(62, 'v'));
  EXPECT_EQ(customValue(handle.get(), "X-F"), "<absent>");  // the sixth is dropped
  EXPECT_EQ(customValue(handle.get(), "x-b"), "<absent>");
  EXPECT_EQ(headerValue(handle.get(), kHeaderCount), "");  // names no header, but is accepted
  EXPECT_EQ(headerValue(handle.get(), kHeaderCount + 1), "<invalid>");
}

TEST_F(HttpClient, BodyBufferGrowsTowardsContentLengthOnlyAsTheBodyArrives) {
  const std::string body = std::string(5000, 'a') + "|tail\r\n";
  const std::string whole = std::to_string(body.size());
  // Header line, body, whether the long token is found. Only the known spelling lets the buffer
  // grow; otherwise it stays small and cannot hold the token. A length far beyond the body costs
  // nothing until bytes come.
  const std::tuple<std::string, std::string, bool> cases[] = {
      {"Content-Length:" + whole, body, true},
      {"content-length:" + whole, body, false},
      {"Content-Length:2000000000", "0123456789", false},
  };
  for (const auto& [header, sent, found] : cases) {
    HandlePtr handle = open({.replies = {"HTTP/1.0 200 OK\r\n" + header + "\r\n\r\n" + sent}});
    setAnswerLimit(handle.get(), int64_t{1} << 32);
    ASSERT_EQ(getAnswer(handle.get()), 1) << header;
    std::string area(8192, 'Z');
    TokenBuffer token{area.data(), 0, 8192};
    int result = getContentToken(handle.get(), &kCrlf, &kBar, &token, kTokenConsume);
    EXPECT_EQ(result == kTokenFoundB, found) << header;
    EXPECT_EQ(area.substr(0, 5001) == std::string(5000, 'a') + '\0', found) << header;
    // Grown by doubling only while reads filled the buffer.
    EXPECT_LE(handle->bodyStream->capacity, std::max<int>(2 * sent.size(), kStreamBufferCount))
        << header;
  }
}

TEST_F(HttpClient, AnswerOverItsLimitIsRefusedByItsLengthOrItsBytes) {
  constexpr int kLimit = 100;
  // Content-Length (empty: none), body size, result of getAnswer, what the reads deliver (-1:
  // they fail), the refusal's message (empty: none).
  const std::tuple<std::string, int, int, int, std::string> cases[] = {
      {"100", 100, 1, 100, ""},
      {"", 100, 1, 100, ""},
      {"101", 101, 0, 0, "Answer of service 3 over its limit of 100 bytes (101 announced)"},
      {"", 101, 1, -1, "Answer of service 3 over its limit of 100 bytes"},
      {"10", 5000, 1, -1, "Answer of service 3 over its limit of 100 bytes"},  // a length that lies
  };
  for (const auto& [length, size, answered, delivered, message] : cases) {
    SCOPED_TRACE(length + " " + std::to_string(size));
    restartTrace();
    std::string head = "HTTP/1.0 200 OK\r\n";
    if (!length.empty()) head += "Content-Length: " + length + "\r\n";
    HandlePtr handle = open({.replies = {head + "\r\n" + std::string(size, 'b')}});
    setAnswerLimit(handle.get(), kLimit);
    ASSERT_EQ(putHeader(handle.get(), kHeaderService, "3"), 1);
    ASSERT_EQ(getAnswer(handle.get()), answered);
    if (answered == 1) {
      std::string body;
      char chunk[64];
      int got = 0;
      while ((got = getContentChunk(handle.get(), chunk, sizeof chunk)) > 0)
        body.append(chunk, got);
      EXPECT_EQ(got, delivered < 0 ? 0 : kContentEnd);
      EXPECT_EQ(body.size(), static_cast<size_t>(std::max(delivered, 0)));
      EXPECT_EQ(getContentChunk(handle.get(), chunk, sizeof chunk), got);  // and stays so
    }
    const std::string traced = trace();
    EXPECT_EQ(traced.find("ERROR - " + message + "\n") != std::string::npos, !message.empty())
        << traced;
    EXPECT_EQ(traced.find("ERROR - ") != std::string::npos, !message.empty()) << traced;
  }
  // Without a service, the path names the answer.
  restartTrace();
  HandlePtr handle = open({.replies = {okAnswer("12345")}}, kHttpGet);
  setAnswerLimit(handle.get(), 4);
  EXPECT_EQ(getAnswer(handle.get()), 0);
  EXPECT_NE(trace().find("ERROR - Answer of /x over its limit of 4 bytes (5 announced)\n"),
            std::string::npos);
}

TEST_F(HttpClient, ContentTokenIsTerminatedInsideItsArea) {
  HandlePtr handle = open({.replies = {okAnswer("abcdefgh|\r\n")}});
  ASSERT_EQ(getAnswer(handle.get()), 1);
  char area[8];
  TokenBuffer token{area, 0, 8};
  // A token that fills its area loses its last byte to the terminator.
  EXPECT_EQ(getContentToken(handle.get(), &kCrlf, &kBar, &token, kTokenConsume), kTokenFoundB);
  EXPECT_STREQ(area, "abcdefg");
}

TEST_F(HttpClient, ContentChunkDistinguishesTimeOutFromClose) {
  HandlePtr handle = open({.replies = {"HTTP/1.0 200 OK\r\nContent-Length:10\r\n\r\nhello"},
                           .closeAfterReplies = false});
  ASSERT_EQ(getAnswer(handle.get()), 1);
  char chunk[64];
  EXPECT_EQ(getContentChunk(handle.get(), chunk, sizeof chunk), 5);  // then the peer fell silent
  EXPECT_EQ(getContentChunk(handle.get(), chunk, sizeof chunk), 0);
}

TEST_F(HttpClient, RefusedConnectionGivesNoHandle) {
  uint16_t closed = test::closedLoopbackPort();
  EXPECT_EQ(newHttpHandle(kHttpGet, "/", "HTTP/1.0", "127.0.0.1", closed, 1, 0), nullptr);
}

TEST_F(HttpClient, AsciiEncodingMasksBodiesBothWays) {
  // By the handle's header, which also goes on the wire, or by the process-wide name alone.
  for (bool byHeader : {true, false}) {
    if (!byHeader) setHttpContentEncoding(kAsciiEncoding);
    HandlePtr handle = open({.replies = {okAnswer("d\xC3\xA9j\xC3\xA0")}});
    ASSERT_TRUE(!byHeader || putHeader(handle.get(), kHeaderContentEncoding, kAsciiEncoding));
    ASSERT_EQ(sendContent(handle.get(), "caf\xC3\xA9", 5), 1);
    ASSERT_EQ(getAnswer(handle.get()), 1);
    std::string request = server_->request();
    EXPECT_EQ(request.find("\r\nContent-Enconding:US_ASCII\r\n") != std::string::npos, byHeader);
    EXPECT_EQ(request.substr(request.size() - 5), "caf??");
    char chunk[16];
    EXPECT_EQ(getContentChunk(handle.get(), chunk, sizeof chunk), 6);
    EXPECT_STREQ(chunk, "d??j??");
  }
}

}  // namespace
}  // namespace slm
