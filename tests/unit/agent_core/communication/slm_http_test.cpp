#include "agent_core/communication/slm_http.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "agent_core/support/trace.h"
#include "support/loopback_server.h"
#include "support/temp_root.h"

namespace slm {
namespace {

using test::LoopbackScript;
using test::LoopbackServer;
using HandlePtr = std::unique_ptr<HttpHandle, decltype(&freeHttpHandle)>;

constexpr const char* kSource = "File: agent/agent_core/communication/slm_http.cpp";
const TokenDesc kCrlf = makeTokenDesc("\r\n", 2);
const TokenDesc kBar = makeTokenDesc("|", 1);

LoopbackScript replyWith(std::string reply, bool closeAfter = true) {
  LoopbackScript script;
  script.replies = {std::move(reply)};
  script.closeAfterReplies = closeAfter;
  return script;
}

std::string okAnswer(const std::string& body) {
  return "HTTP/1.0 200 OK\r\nContent-Length:" + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// The head of a request, blank line included, or its body.
std::string partOf(const std::string& request, bool head) {
  size_t end = request.find("\r\n\r\n") + 4;
  return head ? request.substr(0, end) : request.substr(end);
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
    stopTrace();
    setTraceLevel(-1);
  }

  void restartTrace() {
    startTrace(tracePath_.c_str());
    setTraceLevel(2);
  }
  std::string trace() const { return test::readFile(tracePath_); }

  static HandlePtr open(const LoopbackServer& server, int method = kHttpPost, int timeout = 5) {
    return HandlePtr(
        newHttpHandle(method, "/x", "HTTP/1.0", "127.0.0.1", server.port(), timeout, 0),
        freeHttpHandle);
  }

  test::TempDir dir_;
  std::string tracePath_ = dir_.file("traceagt.log");
};

TEST_F(HttpClient, SendsAServiceRequestHeadByteForByte) {
  setDefaults(kHeaderSubjectCustomer, "ACME");
  setDefaults(kHeaderSubjectId, "node-7");
  LoopbackServer server(replyWith(okAnswer("")));
  HandlePtr handle = open(server);
  ASSERT_NE(handle, nullptr);
  ASSERT_EQ(putHeader(handle.get(), kHeaderService, "3"), 1);
  const std::string body = "0123456789abcdefghijklmnopqrstuvwxyzABCD\r\n";
  ASSERT_EQ(sendContent(handle.get(), body.data(), 20), 1);
  ASSERT_EQ(sendContent(handle.get(), body.data() + 20, 22), 1);
  EXPECT_EQ(getAnswer(handle.get()), 1);
  EXPECT_EQ(server.request(),
            "POST /x HTTP/1.0\r\n"
            "Host:127.0.0.1\r\n"
            "Connection:close\r\n"
            "Pragma:no-cache\r\n"
            "Cache-Control:no-cache\r\n"
            "User-Agent:SLMAgent\r\n"
            "Accept-Charset:UTF-8\r\n"
            "Content-Length:42\r\n"
            "Content-Type:text/plain\r\n"
            "SCPVersion:1.1.1\r\n"
            "Service:3\r\n"
            "SubjectCustomer:ACME\r\n"
            "SubjectID:node-7\r\n"
            "SubjectType:SLMAgent\r\n"
            "\r\n" +
                body);
  EXPECT_EQ(trace(), "");
}

TEST_F(HttpClient, ProxyRequestLineNamesTheServerAndItsPortUnless80) {
  const struct {
    uint16_t serverPort;  // 0: the loopback peer's own port
    int flags;
    const char* start;
  } cases[] = {
      {80, 0, "POST http://h/x HTTP/1.0\r\nHost:h\r\nConnection:close\r\n"},
      {8080, 0, "POST http://h:8080/x HTTP/1.0\r\nHost:h\r\nConnection:close\r\n"},
      // Told to bypass the proxy, the handle connects to the server itself.
      {0, kHttpNoProxy, "POST /x HTTP/1.0\r\nHost:127.0.0.1\r\nConnection:close\r\n"},
  };
  for (const auto& c : cases) {
    LoopbackServer server(replyWith(okAnswer("")));
    bool proxied = c.flags == 0;
    setHttpProxy(proxied ? "127.0.0.1" : "no-such-proxy.invalid", proxied ? server.port() : 3128);
    HandlePtr handle(newHttpHandle(kHttpPost, "/x", "HTTP/1.0", proxied ? "h" : "127.0.0.1",
                                   proxied ? c.serverPort : server.port(), 5, c.flags),
                     freeHttpHandle);
    ASSERT_NE(handle, nullptr) << c.start;
    EXPECT_EQ(handle->proxy, proxied ? 1 : 0);
    ASSERT_EQ(sendContent(handle.get(), "x", 1), 1);
    EXPECT_EQ(getAnswer(handle.get()), 1);
    EXPECT_EQ(server.request().rfind(c.start, 0), 0u) << server.request();
  }
}

TEST_F(HttpClient, HeaderValuesDefaultsSuppressionAndCustomHeadersOnTheWire) {
  LoopbackServer server(replyWith(okAnswer("")));
  HandlePtr handle = open(server, kHttpGet);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(putHeader(handle.get(), kHeaderUserAgent, kHeaderSuppressed), 1);
  EXPECT_EQ(putHeader(handle.get(), kHeaderHost, "alias"), 1);
  EXPECT_EQ(putHeader(handle.get(), kHeaderServer, "srv"), 1);
  EXPECT_EQ(putHeader(handle.get(), kHeaderServer, nullptr), 1);
  EXPECT_EQ(putHeader(handle.get(), kHeaderContentEncoding, "***"), 1);
  EXPECT_EQ(putHeader(handle.get(), kHeaderContentEncoding, "UTF-16"), 0);
  EXPECT_EQ(headerValue(handle.get(), kHeaderContentEncoding), "***");
  EXPECT_EQ(putHeader(handle.get(), kHeaderCount, "x"), 0);
  EXPECT_EQ(setDefaults(-1, "x"), 0);
  for (int i = 1; i <= 6; ++i) {
    CustomHeader record{};
    snprintf(record.name, sizeof record.name, "X-%d", i);
    snprintf(record.value, sizeof record.value, "v%d", i);
    EXPECT_EQ(putCustomHearder(handle.get(), &record), i <= 5 ? 1 : 0) << i;
  }
  EXPECT_EQ(putCustomHearder(handle.get(), nullptr), 0);

  EXPECT_EQ(getAnswer(handle.get()), 1);
  // No body: no Content-Length.
  EXPECT_EQ(server.request(),
            "GET /x HTTP/1.0\r\n"
            "Host:127.0.0.1\r\n"
            "Host:alias\r\n"
            "Connection:close\r\n"
            "Pragma:no-cache\r\n"
            "Cache-Control:no-cache\r\n"
            "Accept-Charset:UTF-8\r\n"
            "Server:srv\r\n"
            "Content-Type:text/plain\r\n"
            "SCPVersion:1.1.1\r\n"
            "SubjectType:SLMAgent\r\n"
            "X-1:v1\r\nX-2:v2\r\nX-3:v3\r\nX-4:v4\r\nX-5:v5\r\n"
            "\r\n");
  std::string log = trace();
  EXPECT_NE(log.find(kSource), std::string::npos) << log;
  for (const char* message :
       {"  NET - No enconding set\n", "  ERROR - Encoding UTF-16 not valid\n",
        "  ERROR - Header number 15 not valid\n", "  ERROR - Header number -1 not valid\n"}) {
    EXPECT_NE(log.find(message), std::string::npos) << log;
  }
}

TEST_F(HttpClient, RequestBodiesLargerThanOneBufferGoOutWhole) {
  for (size_t size : {4095u, 4096u, 10000u}) {
    std::string body(size, 'q');
    body.back() = 'e';
    LoopbackServer server(replyWith(okAnswer("")));
    HandlePtr handle = open(server);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(sendContent(handle.get(), body.data(), static_cast<int>(body.size())), 1);
    EXPECT_EQ(getAnswer(handle.get()), 1) << size;
    std::string request = server.request();
    EXPECT_NE(partOf(request, true).find("\r\nContent-Length:" + std::to_string(size) + "\r\n"),
              std::string::npos)
        << size;
    EXPECT_EQ(partOf(request, false), body) << size;
  }
}

TEST_F(HttpClient, ParsesAnAnswerSplitAtEveryOffsetBehindTheVersion) {
  const std::string answer =
      "HTTP/1.1 200 OK\r\nContent-Length:5\r\nSCPVersion: 1.1.1\r\nX-Foo: bar\r\n\r\nhello";
  // Each head token gets one further read; the first has nothing before it, so the first read
  // must hold the version and its blank.
  for (size_t split = answer.find(' ') + 1; split < answer.size(); ++split) {
    SCOPED_TRACE(split);
    LoopbackScript script;
    script.replies = {answer.substr(0, split), answer.substr(split)};
    script.pauseBetween = std::chrono::milliseconds(2);
    LoopbackServer server(script);
    HandlePtr handle = open(server);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(getAnswer(handle.get()), 1);
    EXPECT_STREQ(handle->status, "200");
    EXPECT_EQ(headerValue(handle.get(), kHeaderScpVersion), " 1.1.1");
    EXPECT_EQ(headerValue(handle.get(), kHeaderContentLength), "5");
    EXPECT_EQ(customValue(handle.get(), "X-Foo"), " bar");
    char chunk[64];
    EXPECT_EQ(getContentChunk(handle.get(), chunk, sizeof chunk), 5);
    EXPECT_STREQ(chunk, "hello");
    EXPECT_EQ(getContentChunk(handle.get(), chunk, sizeof chunk), kContentEnd);
  }
  EXPECT_EQ(trace(), "");
}

TEST_F(HttpClient, HeadLineNeedingASecondFurtherReadFailsTheAnswer) {
  LoopbackScript script;
  script.replies = {"HTTP/1.0 200 OK\r\nServer: ", "ab", "c\r\n\r\n"};
  script.pauseBetween = std::chrono::milliseconds(200);
  LoopbackServer server(script);
  HandlePtr handle = open(server);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(getAnswer(handle.get()), 0);
  EXPECT_EQ(trace(), "");
}

TEST_F(HttpClient, AcceptsOnlyWholeHttp1TwoHundredHeads) {
  const struct {
    const char* reply;
    bool closeAfter;  // false: the peer falls silent and the read times out
    int result;
    const char* message;  // empty: no message at all
  } cases[] = {
      {"HTTP/1.1 200 OK\r\nServer: s\r\n\r\n", true, 1, ""},
      {"HTTP/1.0 204 No Content\r\n\r\n", true, 1, ""},
      {"HTTP/2 200 OK\r\n\r\n", true, 0, "ERROR - Http version HTTP/2 not supported"},
      {"HTTP/1.0 100 Continue\r\n\r\n", true, 0, "ERROR - Http response 100 not managed"},
      {"HTTP/1.0 302 Found\r\n\r\n", true, 0, "ERROR - Http response 302 not managed"},
      {"HTTP/1.0 503 Busy\r\n\r\n", true, 0, "ERROR - Http response 503 not managed"},
      {"HTTP/1.0 600 X\r\n\r\n", true, 0, ""},
      {"HTTP/1.0 200\r\n\r\n", true, 0, ""},  // the status must end at a blank
      {"HTTP/1.0\r\n\r\n", true, 0, ""},
      {"HTTP/1.0 200 OK\r\nServer: x\r\n", false, 0, ""},
      {"HTTP/1.0 200 OK\r\nServer: x\r\n", true, 0, ""},
      {"", true, 0, ""},
      {"HTTP/1.0 200 OK\r\nNoColon\r\n\r\n", true, 0, ""},
      {"HTTP/1.0 200 OK\r\nContent-Length:-5\r\n\r\n", true, 0, ""},
  };
  for (const auto& c : cases) {
    restartTrace();
    LoopbackServer server(replyWith(c.reply, c.closeAfter));
    HandlePtr handle = open(server, kHttpPost, 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(getAnswer(handle.get()), c.result) << c.reply;
    std::string log = trace();
    if (c.message[0] == '\0') {
      EXPECT_EQ(log, "") << c.reply;
    } else {
      EXPECT_NE(log.find(std::string("  ") + c.message + "\n"), std::string::npos) << log;
      EXPECT_NE(log.find(kSource), std::string::npos) << log;
    }
  }
}

TEST_F(HttpClient, ResponseHeadersFillTheTableAndFiveCustomSlots) {
  const std::string longValue(70, 'v');
  LoopbackServer server(replyWith(
      "HTTP/1.0 200 OK\r\nServer: real\r\nX-Foo: bar\r\nX-B:2\r\nX-C: 3\r\nX-D: 4\r\nX-Long: " +
      longValue + "\r\nX-F: 6\r\n\r\n"));
  HandlePtr handle = open(server);
  ASSERT_NE(handle, nullptr);
  CustomHeader sent{"X-Sent", "request only"};
  ASSERT_EQ(putCustomHearder(handle.get(), &sent), 1);
  ASSERT_EQ(putHeader(handle.get(), kHeaderService, "3"), 1);
  ASSERT_EQ(getAnswer(handle.get()), 1);

  // The request's headers are gone; the response's replace them.
  EXPECT_EQ(headerValue(handle.get(), kHeaderService), "");
  EXPECT_EQ(customValue(handle.get(), "X-Sent"), "<absent>");
  EXPECT_EQ(headerValue(handle.get(), kHeaderServer), " real");
  EXPECT_EQ(customValue(handle.get(), "Server"), " real");
  ASSERT_NE(handle->custom[0], nullptr);
  EXPECT_STREQ(handle->custom[0]->name, "X-Foo");
  EXPECT_STREQ(handle->custom[0]->value, " bar");
  EXPECT_EQ(customValue(handle.get(), "X-B"), "2");
  EXPECT_EQ(customValue(handle.get(), "X-Long"), " " + longValue.substr(0, 62));
  EXPECT_EQ(customValue(handle.get(), "X-F"), "<absent>");  // the sixth is dropped
  EXPECT_EQ(customValue(handle.get(), "x-foo"), "<absent>");

  EXPECT_EQ(headerValue(handle.get(), kHeaderCount), "");  // 15 names no header
  EXPECT_EQ(headerValue(handle.get(), kHeaderCount + 1), "<invalid>");
  EXPECT_EQ(headerValue(handle.get(), -1), "<invalid>");
}

TEST_F(HttpClient, BodyBufferIsSizedFromContentLength) {
  const std::string body = std::string(5000, 'a') + "|tail\r\n";
  for (const char* name : {"Content-Length", "content-length"}) {
    LoopbackServer server(replyWith(std::string("HTTP/1.0 200 OK\r\n") + name + ":" +
                                    std::to_string(body.size()) + "\r\n\r\n" + body));
    HandlePtr handle = open(server);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(getAnswer(handle.get()), 1);
    std::string area(8192, 'Z');
    TokenBuffer token{area.data(), 0, 8192};
    int result = getContentToken(handle.get(), &kCrlf, &kBar, &token, kTokenConsume);
    if (name[0] == 'c') {
      // Not the known name: the buffer stays small and cannot hold the token.
      EXPECT_EQ(handle->bodyStream->capacity, 4096);
      EXPECT_EQ(result, kStreamNoDelimiter);
      continue;
    }
    EXPECT_EQ(handle->bodyStream->capacity, 5007);
    ASSERT_EQ(result, kTokenFoundB);
    EXPECT_EQ(area.substr(0, 5001), std::string(5000, 'a') + '\0');
  }
}

TEST_F(HttpClient, ContentTokenIsTerminatedInsideItsArea) {
  LoopbackServer server(replyWith(okAnswer("abcdefgh|\r\nxy|")));
  HandlePtr handle = open(server);
  ASSERT_NE(handle, nullptr);
  ASSERT_EQ(getAnswer(handle.get()), 1);
  char area[8];
  TokenBuffer token{area, 0, 8};
  // A token that fills its area loses its last byte to the terminator.
  EXPECT_EQ(getContentToken(handle.get(), &kCrlf, &kBar, &token, kTokenConsume), kTokenFoundB);
  EXPECT_EQ(token.length, 8);
  EXPECT_STREQ(area, "abcdefg");
  EXPECT_EQ(getContentToken(handle.get(), &kCrlf, &kBar, &token, kTokenConsume), kTokenFoundA);
  EXPECT_EQ(token.length, 0);
  EXPECT_EQ(getContentToken(handle.get(), &kCrlf, &kBar, &token, kTokenPeek), kTokenFoundB);
  EXPECT_STREQ(area, "xy");
  EXPECT_EQ(getContentToken(handle.get(), &kCrlf, &kBar, &token, kTokenConsume), kTokenFoundB);
  EXPECT_STREQ(area, "xy");
}

TEST_F(HttpClient, ContentChunkDistinguishesTimeOutFromClose) {
  LoopbackServer server(replyWith("HTTP/1.0 200 OK\r\nContent-Length:10\r\n\r\nhello", false));
  HandlePtr handle = open(server, kHttpPost, 1);
  ASSERT_NE(handle, nullptr);
  ASSERT_EQ(getAnswer(handle.get()), 1);
  char chunk[64];
  EXPECT_EQ(getContentChunk(handle.get(), chunk, sizeof chunk), 5);  // then the peer fell silent
  EXPECT_STREQ(chunk, "hello");
  EXPECT_EQ(getContentChunk(handle.get(), chunk, sizeof chunk), 0);
}

TEST_F(HttpClient, RefusedConnectionGivesNoHandle) {
  uint16_t port = test::closedLoopbackPort();
  ASSERT_NE(port, 0);
  EXPECT_EQ(newHttpHandle(kHttpGet, "/", "HTTP/1.0", "127.0.0.1", port, 1, 0), nullptr);
  EXPECT_EQ(trace(), "");
}

TEST_F(HttpClient, AsciiEncodingMasksBodiesBothWays) {
  // By the handle's header, which also goes on the wire, or by the process-wide name alone.
  for (bool byHeader : {true, false}) {
    if (!byHeader) setHttpContentEncoding(kAsciiEncoding);
    LoopbackServer server(replyWith(okAnswer("d\xC3\xA9j\xC3\xA0")));
    HandlePtr handle = open(server);
    ASSERT_NE(handle, nullptr);
    if (byHeader) {
      ASSERT_EQ(putHeader(handle.get(), kHeaderContentEncoding, kAsciiEncoding), 1);
    }
    ASSERT_EQ(sendContent(handle.get(), "caf\xC3\xA9", 5), 1);
    ASSERT_EQ(getAnswer(handle.get()), 1);
    std::string request = server.request();
    EXPECT_NE(partOf(request, true).find("\r\nContent-Length:5\r\n"), std::string::npos) << request;
    const char* line = byHeader ? "\r\nContent-Enconding:US_ASCII\r\n" : "Content-Enconding";
    EXPECT_EQ(partOf(request, true).find(line) != std::string::npos, byHeader) << request;
    EXPECT_EQ(partOf(request, false), "caf??");
    char chunk[16];
    EXPECT_EQ(getContentChunk(handle.get(), chunk, sizeof chunk), 6);
    EXPECT_STREQ(chunk, "d??j??");
  }
  EXPECT_NE(trace().find("  NET - ASCII enconding set\n"), std::string::npos) << trace();
}

}  // namespace
}  // namespace slm
