// The service exchange against real peers on 127.0.0.1: a scripted loopback peer for the framing,
// the version check, the trailer and plain downloads, and the reference runtime server for signed
// downloads (which take two connections). Expected bytes are written out by hand.
#include "agent_core/communication/slm.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/communication/slm_http.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "agent_core/verifySign.h"
#include "support/fake_clock.h"
#include "support/loopback_server.h"
#include "support/runtime_server_process.h"
#include "support/temp_root.h"

namespace slm {
namespace {

using test::LoopbackScript;
using test::LoopbackServer;

// A 2xx answer head with the given extra header lines (each ending in CR LF), then `body`.
std::string answer(const std::string& headers, const std::string& body) {
  return "HTTP/1.0 200 OK\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

std::string serviceAnswer(const std::string& body = "<response:0,0:\r\n") {
  return answer("SCPVersion: 1.1.1\r\nService: 3\r\n", body);
}

ServerAddress addressOf(const std::string& path, uint16_t port) {
  ServerAddress server{};
  snprintf(server.host, sizeof(server.host), "127.0.0.1");
  snprintf(server.path, sizeof(server.path), "%s", path.c_str());
  server.port = port;
  return server;
}

// Fetches `server`'s file with a local-path buffer of `size` bytes that starts out as `dir`; the
// buffer's final text goes to `saved`.
int fetch(ServerAddress* server, const std::string& dir, std::string* saved, bool isSigned = false,
          size_t size = 4096) {
  std::vector<char> local(size, '\0');
  snprintf(local.data(), size, "%s", dir.c_str());
  int result = isSigned ? slmGetSignedFile(server, local.data(), size)
                        : slmGetFile(server, local.data(), size);
  *saved = local.data();
  return result;
}

class SlmService : public ::testing::Test {
 protected:
  void SetUp() override {
    setAgentRoot(root_.path().c_str());
    root_.writeFile("etc/kvdagent.ini", "agentid=7\ndivisionid=9\ntag=t\ncustomer=c\n");
    ASSERT_EQ(loadConfigurationFile(root_.file("etc/kvdagent.ini").c_str()), kConfigurationLoaded);
    ASSERT_EQ(initAgentInfo(), kAgentValueOk);
    deleteConfigurationVariables();
    ASSERT_EQ(setAgentCharValue(kAgentHostName, "node7"), kAgentValueOk);
    ASSERT_EQ(setAgentCharValue(kAgentCustomer, "ACME"), kAgentValueOk);
    setHttpProxy("", 0);
    ASSERT_EQ(initSlmServices(nullptr, 5), kSlmServicesReady);
    restartTraceCapture();
  }
  void TearDown() override {
    stopTrace();
    deleteConfigurationVariables();
    clearAgentInfo();
    setAgentRoot("/");
  }

  void restartTraceCapture() {
    startTrace(root_.file("trace.log").c_str());
    setTraceLevel(3);
  }
  std::string traceText() { return test::readFile(root_.file("trace.log")); }

  // Runs one empty service against a peer answering `reply`; returns endSlmService's result, or
  // -100 + the response check's result when the answer was rejected. The request sent goes to
  // `request`.
  int runService(const std::string& reply, std::string* request = nullptr) {
    LoopbackServer peer(LoopbackScript{.replies = {reply}});
    ServerAddress server = addressOf("/svc", peer.port());
    HttpHandle* handle = newSlmService(&server, kServiceCatalog, 0);
    if (handle == nullptr) return -200;
    EXPECT_EQ(endSlmRequest(handle), kContentSent);
    int checked = getSlmServiceResponse(handle);
    int result = checked == kServiceAnswerUsable ? endSlmService(handle) : -100 + checked;
    if (checked != kServiceAnswerUsable) freeHttpHandle(handle);
    if (request != nullptr) *request = peer.request();
    return result;
  }

  // The value of request header `name` sent with an empty service.
  std::string sentHeader(const char* name) {
    std::string request;
    EXPECT_EQ(runService(serviceAnswer(), &request), kServiceOk);
    std::string key = std::string("\r\n") + name + ":";
    size_t at = request.find(key);
    if (at == std::string::npos) return "missing";
    size_t end = request.find("\r\n", at + key.size());
    return request.substr(at + key.size(), end - at - key.size());
  }

  test::TempDir root_;
  const std::string dir_ = root_.path() + "/";
};

TEST_F(SlmService, FramesTheRequestByteForByte) {
  test::FakeClock clock(1700000000);
  LoopbackServer peer(LoopbackScript{.replies = {serviceAnswer()}});
  ServerAddress server = addressOf("/svc", peer.port());
  HttpHandle* handle = newSlmService(&server, kServiceCatalog, 0);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(sendSlmContent(handle, "42", &par_sep_tk, kNoMask), kContentSent);
  // Masking touches only the first "|" and the first CR LF.
  EXPECT_EQ(sendSlmContent(handle, "x|y|z", &par_sep_tk, kMask), kContentSent);
  EXPECT_EQ(sendSlmContent(handle, "a\r\nb\r\nc", &par_sep_tk, kMask), kContentSent);
  EXPECT_EQ(sendSlmContent(handle, "p|q", &par_sep_tk, kNoMask), kContentSent);
  EXPECT_EQ(sendSlmContent(handle, "tail", nullptr, kNoMask), kContentSent);
  EXPECT_EQ(endSlmRequest(handle), kContentSent);
  ASSERT_EQ(getSlmServiceResponse(handle), kServiceAnswerUsable);
  EXPECT_EQ(endSlmService(handle), kServiceOk);

  const std::string body =
      "1700000000000\r\n"  // 15
      "1.0\r\n"            // 5
      "42\r\n"             // 4
      "x*y|z\r\n"          // 7
      "a**b\r\nc\r\n"      // 9
      "p|q\r\n"            // 5
      "tail"               // 4
      "<request:ok>\r\n";  // 14
  EXPECT_EQ(peer.request(),
            "POST /svc HTTP/1.0\r\n"
            "Host:127.0.0.1\r\n"
            "Connection:close\r\n"
            "Pragma:no-cache\r\n"
            "Cache-Control:no-cache\r\n"
            "User-Agent:SLMAgent\r\n"
            "Accept-Charset:UTF-8\r\n"
            "Content-Length:63\r\n"
            "Content-Type:text/plain\r\n"
            "SCPVersion:1.1.1\r\n"
            "Service:3\r\n"
            "SubjectCustomer:ACME\r\n"
            "SubjectID:node7\r\n"
            "SubjectType:SLMAgent\r\n"
            "\r\n" +
                body);
}

TEST_F(SlmService, SendsTimeZeroWithoutMilliseconds) {
  test::FakeClock clock(0);
  std::string request;
  ASSERT_EQ(runService(serviceAnswer(), &request), kServiceOk);
  EXPECT_EQ(request.substr(request.find("\r\n\r\n") + 4), "0\r\n1.0\r\n<request:ok>\r\n");
}

TEST_F(SlmService, EscapesTheCustomerHeader) {
  const struct {
    const char* customer;
    const char* header;
  } cases[] = {
      {"a\\b", "a\\\\b"},                    // a lone backslash is doubled
      {"a\\u00e9", "a\\u00e9"},              // an escape already present passes
      {"caf\xC3\xA9", "caf\\u00E9"},         // above 127
      {"\xE4\xB8\xAD", "\\u4E2D"},           // a three-byte character is one unit
      {"x\x13y", "x\\u0013y"},               // below 20
      {"x\x14y\x1Fz", "x\x14y\x1Fz"},        // 20 to 31 pass as they are
      {"t\tn\nr\rf\f", "t\\tn\\nr\\rf\\f"},  // the four named controls
      {"~\x7F", "~\x7F"},                    // 127 is not above 127
      {"end\\", "end\\\\"},                  // a backslash at the end has no next unit
  };
  for (const auto& c : cases) {
    ASSERT_EQ(setAgentCharValue(kAgentCustomer, c.customer), kAgentValueOk);
    ASSERT_EQ(initSlmServices(nullptr, 5), kSlmServicesReady) << c.customer;
    EXPECT_EQ(sentHeader("SubjectCustomer"), c.header) << c.customer;
  }
  EXPECT_EQ(sentHeader("SubjectID"), "node7");

  for (const char* bad : {"cut \xC3", "\xF0\x9F\x98\x80", "\xFF"}) {
    ASSERT_EQ(setAgentCharValue(kAgentCustomer, bad), kAgentValueOk);
    EXPECT_EQ(initSlmServices(nullptr, 5), kSlmServicesBadCustomer) << bad;
  }
}

TEST_F(SlmService, AcceptsOnlyAnswersOfItsProtocolVersion) {
  const std::string trailer = "<response:0,0:\r\n";
  const std::string differs = "ERROR - SCP version different, actual 1.1.1, server ";
  const struct {
    std::string reply;
    int expected;
    std::string message;
  } cases[] = {
      {serviceAnswer(), kServiceOk, ""},
      {answer("SCPVersion:1.1.1\r\n", trailer), kServiceOk, ""},
      {answer("SCPVersion: \t\v\f1.1.1\r\n", trailer), kServiceOk, ""},
      {answer("SCPVersion: 1.1.2\r\n", trailer), -101, differs + "'1.1.2'"},
      {answer("SCPVersion: 1.1.1.0\r\n", trailer), -101, differs + "'1.1.1.0'"},
      {answer("Service: 3\r\n", trailer), -101, differs + "''"},
      {"HTTP/1.0 404 Not Found\r\nSCPVersion: 1.1.1\r\n\r\n", -101,
       "ERROR - Http in response, error 0"},
  };
  for (const auto& c : cases) {
    restartTraceCapture();
    EXPECT_EQ(runService(c.reply), c.expected) << c.reply;
    EXPECT_NE(traceText().find(c.message), std::string::npos) << c.reply;
  }
}

TEST_F(SlmService, MapsEveryTrailerCode) {
  const struct {
    const char* code;
    int expected;
    std::vector<const char*> messages;
  } cases[] = {
      {"0", kServiceOk, {}},
      {"1", kServiceUnknownAgent, {"WARNING - First plugin on this server, service  3"}},
      {"-1", kServiceUnknownAgent, {"ERROR - Unknown Agent, service  3"}},
      {"-2", kServiceUnknownDivision, {"ERROR - Unknown Division, service  3"}},
      {"-3", kServiceBadNode, {"ERROR - Bad node, service  3"}},
      {"-4", kServiceObsoleteScan, {"WARNING - Obsolete scan, service  3"}},
      {"-5", kServiceNoNewerAgent, {"OK - Agent is the newer available, service  3"}},
      {"-6", kServiceFailed, {"ERROR - No Agent for this system available, service  3"}},
      {"-503",
       kServiceFailed,
       {"ERROR - Illegal update. Some date is incorrect (probably the agent_id), service  3",
        "WARNING - Server internal error, service  3"}},
      {"-999", kServiceFailed, {"WARNING - Server internal error, service  3"}},
      {"7", kServiceFailed, {"ERROR - Unknown server error: 7, service  3"}},
  };
  for (const auto& c : cases) {
    restartTraceCapture();
    // A payload line before the trailer is skipped with the tag.
    std::string body = std::string("payload\r\n<response:0,") + c.code + ":rest\r\n";
    EXPECT_EQ(runService(serviceAnswer(body)), c.expected) << c.code;
    std::string trace = traceText();
    for (const char* message : c.messages) {
      EXPECT_NE(trace.find(message), std::string::npos) << c.code << ": " << message;
    }
    // No other row's message: each row writes only its own lines.
    size_t lines = 0;
    for (size_t at = trace.find("service  3"); at != std::string::npos;
         at = trace.find("service  3", at + 1)) {
      ++lines;
    }
    EXPECT_EQ(lines, c.messages.size()) << c.code;
  }
}

TEST_F(SlmService, RejectsBrokenTrailers) {
  const struct {
    const char* body;
    const char* message;
  } cases[] = {
      {"<response:1,0:\r\n", "ERROR - Slm service, communication error 1"},
      {"<response:0\r\n", "ERROR - Slm service: 0, error 2"},
      {"<response:0,5\r\n", "ERROR - Slm service error '5', error 2"},
      {"no trailer, only payload\r\n", "ERROR - Slm service error 'no trailer', error 2"},
      {"payload\r\n", "ERROR - Slm service error '"},
  };
  for (const auto& c : cases) {
    restartTraceCapture();
    EXPECT_EQ(runService(serviceAnswer(c.body)), kServiceFailed) << c.body;
    EXPECT_NE(traceText().find(c.message), std::string::npos) << c.body << "\n" << traceText();
  }
}

class SlmServiceDownload : public SlmService {
 protected:
  // Downloads `path` from a peer answering `replies` into `dir`; see fetch().
  int download(const std::string& path, std::vector<std::string> replies, std::string* saved,
               const std::string& dir, size_t size = 4096, bool close = true) {
    LoopbackServer peer(LoopbackScript{.replies = std::move(replies), .closeAfterReplies = close});
    port_ = peer.port();
    ServerAddress server = addressOf(path, peer.port());
    int result = fetch(&server, dir, saved, false, size);
    request_ = peer.request();
    return result;
  }

  uint16_t port_ = 0;
  std::string request_;
};

TEST_F(SlmServiceDownload, SavesTheBodyChunkByChunkUntilThePeerCloses) {
  std::string content(10000, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i % 251);
  std::string head = "HTTP/1.0 200 OK\r\nContent-Type: application/octet-stream\r\n\r\n";
  std::string saved;
  ASSERT_EQ(
      download("/pkg/agent.tar",
               {head, content.substr(0, 3000), content.substr(3000, 5000), content.substr(8000)},
               &saved, dir_),
      kDownloadDone);
  EXPECT_EQ(saved, dir_ + "agent.tar");
  EXPECT_EQ(test::readFile(saved), content);
  EXPECT_NE(traceText().find("OK - Get /pkg/agent.tar, 10000 bytes in " + saved),
            std::string::npos);
  // A plain GET: no body, no content length, no encoding header.
  EXPECT_EQ(request_.substr(0, request_.find("\r\n")), "GET /pkg/agent.tar HTTP/1.0");
  EXPECT_EQ(request_.find("Content-Length"), std::string::npos);
  EXPECT_EQ(request_.find("Content-Enconding"), std::string::npos);
  EXPECT_EQ(request_.substr(request_.size() - 4), "\r\n\r\n");
}

TEST_F(SlmServiceDownload, NamesTheLocalFile) {
  const struct {
    const char* path;
    size_t size;
    std::string name;  // "@" stands for host and port
  } cases[] = {
      {"/pkg/agent.tar", 4096, "agent.tar"},
      {"/", 4096, "@"},
      {"/pkg/a", 4096, "@"},                       // any one-character name
      {"/agent.tar", 4096, "/agent.tar"},          // the only "/" starts the path and stays
      {"/pkg/agent.tar", dir_.size() + 4, "age"},  // the buffer bounds the name
  };
  for (const auto& c : cases) {
    std::string saved;
    ASSERT_EQ(download(c.path, {answer("", "data")}, &saved, dir_, c.size), kDownloadDone);
    std::string name = c.name == "@" ? "127.0.0.1" + std::to_string(port_) : c.name;
    EXPECT_EQ(saved, dir_ + name) << c.path;
    EXPECT_EQ(test::readFile(saved), "data") << c.path;
  }
}

TEST_F(SlmServiceDownload, ReportsEachFailure) {
  std::string saved;
  EXPECT_EQ(download("/pkg/gone", {"HTTP/1.0 404 Not Found\r\n\r\n"}, &saved, dir_),
            kDownloadNoAnswer);
  EXPECT_FALSE(test::fileExists(dir_ + "gone"));
  EXPECT_NE(traceText().find("ERROR - Http in response, error 0"), std::string::npos);

  std::string missing = dir_ + "no/such/dir/";
  EXPECT_EQ(download("/pkg/file", {answer("", "data")}, &saved, missing), kDownloadFailed);
  EXPECT_NE(traceText().find("ERROR - Couldn't open file " + missing + "file for saving (errno=2)"),
            std::string::npos);

  // A peer that goes quiet without closing: the read time-out ends the download.
  ASSERT_EQ(initSlmServices(nullptr, 1), kSlmServicesReady);
  EXPECT_EQ(download("/pkg/slow", {"HTTP/1.0 200 OK\r\n\r\n", "part"}, &saved, dir_, 4096, false),
            kDownloadFailed);
  EXPECT_NE(traceText().find("ERROR - Getting Http content, error 0"), std::string::npos);
}

class SignedDownload : public SlmService {
 protected:
  void SetUp() override {
    SlmService::SetUp();
    ASSERT_EQ(initSlmRSAContext(), kRsaContextReady);
  }
  void TearDown() override {
    disposeSlmRSAContext();
    SlmService::TearDown();
  }

  // Writes pkg/`name` with `content` and a signature made by the openssl tool with `key`.
  void publish(const std::string& name, const std::string& content, const std::string& key) {
    served_.writeFile("pkg/" + name, content);
    std::string file = served_.file("pkg/" + name);
    std::string command =
        "openssl dgst -md5 -sign '" + key + "' -out '" + file + ".sign' '" + file + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }

  test::TempDir served_;
};

TEST_F(SignedDownload, KeepsOnlyFilesWithTheSigningKeysSignature) {
  std::string otherKey = root_.file("other.pem");
  ASSERT_EQ(std::system(("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:512 -out '" +
                         otherKey + "' 2>/dev/null")
                            .c_str()),
            0);
  const std::string devKey = std::string(SLM_SOURCE_DIR) + "/tests/data/keys/dev_private.pem";
  std::string content(5000, 'm');
  content[17] = '\0';
  std::string changed = content;
  changed[4000] = 'n';
  publish("good.o", content, devKey);
  publish("changed.o", content, devKey);
  served_.writeFile("pkg/changed.o", changed);
  publish("short.o", content, devKey);
  std::string signature = test::readFile(served_.file("pkg/short.o.sign"));
  ASSERT_EQ(signature.size(), kSignatureSize);
  served_.writeFile("pkg/short.o.sign", signature.substr(0, 63));
  publish("foreign.o", content, otherKey);
  served_.writeFile("pkg/unsigned.o", content);

  test::RuntimeServerProcess server("{\"downloads\": {\"root\": \"" + served_.path() + "\"}}");
  ASSERT_NE(server.port(), 0);
  const struct {
    std::string name;
    int expected;
    std::string saved;  // what the downloaded file holds afterwards
  } cases[] = {
      {"good.o", kDownloadDone, content},       {"changed.o", kDownloadFailed, changed},
      {"short.o", kDownloadFailed, content},    {"foreign.o", kDownloadFailed, content},
      {"unsigned.o", kDownloadFailed, content},
  };
  for (const auto& c : cases) {
    ServerAddress address = addressOf("/pkg/" + c.name, server.port());
    std::string saved;
    EXPECT_EQ(fetch(&address, dir_, &saved, true), c.expected) << c.name;
    EXPECT_EQ(saved, dir_ + c.name);
    EXPECT_EQ(test::readFile(saved), c.saved) << c.name;
    EXPECT_EQ(std::string(address.path), "/pkg/" + c.name + ".sign") << c.name;
    EXPECT_FALSE(test::fileExists(dir_ + c.name + ".sign")) << c.name;
  }

  // No file, no signature request.
  ServerAddress missing = addressOf("/pkg/missing.o", server.port());
  std::string saved;
  EXPECT_EQ(fetch(&missing, dir_, &saved, true), kDownloadFailed);
  EXPECT_EQ(std::string(missing.path), "/pkg/missing.o");
}

}  // namespace
}  // namespace slm
