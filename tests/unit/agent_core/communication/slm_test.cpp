// The service exchange against a loopback peer; signed downloads against the reference server.
#include "agent_core/communication/slm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/communication/slm_http.h"
#include "agent_core/security_settings.h"
#include "agent_core/site_signature.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "agent_core/verifySign.h"
#include "support/fake_clock.h"
#include "support/loopback_server.h"
#include "support/runtime_server_process.h"
#include "support/site_signer.h"
#include "support/temp_root.h"

namespace slm {
namespace {

using test::LoopbackScript;
using test::LoopbackServer;
using ::testing::HasSubstr;

// A 200 answer with the given header lines (each ending in CR LF), then `body`.
std::string answer(const std::string& body = "<response:0,0:\r\n",
                   const std::string& headers = "SCPVersion: 1.1.1\r\nService: 3\r\n") {
  return "HTTP/1.0 200 OK\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

ServerAddress addressOf(const std::string& path, uint16_t port) {
  ServerAddress server{"127.0.0.1", "", port};
  snprintf(server.path, sizeof(server.path), "%s", path.c_str());
  return server;
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
    ASSERT_EQ(initSlmServices(nullptr, 5), kSlmServicesReady);
  }
  void TearDown() override {
    stopTrace();
    clearAgentInfo();
    setAgentRoot("/");
  }

  // The trace written since the last call.
  std::string traceText() {
    std::string text = test::readFile(root_.file("trace.log"));
    startTrace(root_.file("trace.log").c_str());
    setTraceLevel(3);
    return text;
  }

  // Runs a service sending `contents` ("~" first: masked, "!" first: no separator) to a peer
  // answering `reply`: endSlmService's result, or -100 + the response check's when that failed.
  int runService(const std::string& reply, const std::vector<std::string>& contents = {}) {
    traceText();
    LoopbackServer peer(LoopbackScript{.replies = {reply}});
    ServerAddress server = addressOf("/svc", peer.port());
    HttpHandle* handle = newSlmService(&server, kServiceCatalog, 0);
    if (handle == nullptr) return -200;
    for (const std::string& c : contents) {
      bool mask = c[0] == '~', last = c[0] == '!';
      EXPECT_EQ(sendSlmContent(handle, c.c_str() + mask + last, last ? nullptr : &par_sep_tk,
                               mask ? kMask : kNoMask),
                kContentSent);
    }
    EXPECT_EQ(endSlmRequest(handle), kContentSent);
    int checked = getSlmServiceResponse(handle);
    int result = checked == kServiceAnswerUsable ? endSlmService(handle) : -100 + checked;
    if (checked != kServiceAnswerUsable) freeHttpHandle(handle);
    request_ = peer.request();
    return result;
  }

  // Fetches `server`'s file with a local-path buffer of `size` bytes starting as `dir`.
  int fetch(ServerAddress* server, bool isSigned, const std::string& dir, size_t size = 4096) {
    std::string local = dir + std::string(size - dir.size(), '\0');
    int result = isSigned ? slmGetSignedFile(server, local.data(), size)
                          : slmGetFile(server, local.data(), size);
    saved_ = local.c_str();
    return result;
  }

  // Downloads `path` from a peer answering `replies` into `dir`; see fetch().
  int download(const std::string& path, std::vector<std::string> replies, size_t size = 4096,
               const std::string& dir = "", bool close = true) {
    traceText();
    LoopbackServer peer(LoopbackScript{.replies = std::move(replies), .closeAfterReplies = close});
    ServerAddress server = addressOf(path, port_ = peer.port());
    int result = fetch(&server, false, dir.empty() ? dir_ : dir, size);
    request_ = peer.request();
    return result;
  }

  test::TempDir root_;
  const std::string dir_ = root_.path() + "/";
  std::string request_, saved_;
  uint16_t port_ = 0;
};

TEST_F(SlmService, FramesTheRequestByteForByte) {
  test::FakeClock clock(1700000000);
  ASSERT_EQ(runService(answer(), {"42", "~x|y|z", "~a\r\nb\r\nc", "p|q", "!tail"}), kServiceOk);
  EXPECT_EQ(request_,
            "POST /svc HTTP/1.0\r\nHost:127.0.0.1\r\nConnection:close\r\nPragma:no-cache\r\n"
            "Cache-Control:no-cache\r\nUser-Agent:SLMAgent\r\nAccept-Charset:UTF-8\r\n"
            "Content-Length:63\r\nContent-Type:text/plain\r\nSCPVersion:1.1.1\r\nService:3\r\n"
            "SubjectCustomer:ACME\r\nSubjectID:node7\r\nSubjectType:SLMAgent\r\n\r\n"
            "1700000000000\r\n1.0\r\n42\r\nx*y|z\r\na**b\r\nc\r\np|q\r\ntail<request:ok>\r\n");
  test::FakeClock zero(0);  // no milliseconds appended to time zero
  ASSERT_EQ(runService(answer()), kServiceOk);
  EXPECT_EQ(request_.substr(request_.find("\r\n\r\n") + 4), "0\r\n1.0\r\n<request:ok>\r\n");
}

TEST_F(SlmService, EscapesTheCustomerHeader) {
  const std::pair<const char*, const char*> cases[] = {
      {"a\\b", "a\\\\b"},                    // a lone backslash is doubled
      {"a\\u00e9", "a\\u00e9"},              // an escape already present passes
      {"caf\xC3\xA9", "caf\\u00E9"},         // above 127
      {"x\x13y\x14z", "x\\u0013y\x14z"},     // below 20; 20 to 31 pass
      {"t\tn\nr\rf\f", "t\\tn\\nr\\rf\\f"},  // the four named controls
      {"end\\", "end\\\\"},                  // a backslash at the end has no next unit
  };
  for (const auto& c : cases) {
    ASSERT_EQ(setAgentCharValue(kAgentCustomer, c.first), kAgentValueOk);
    ASSERT_EQ(initSlmServices(nullptr, 5), kSlmServicesReady);
    EXPECT_EQ(runService(answer()), kServiceOk);
    EXPECT_THAT(request_, HasSubstr(std::string("\r\nSubjectCustomer:") + c.second + "\r\n"));
  }
  for (const char* bad : {"cut \xC3", "\xF0\x9F\x98\x80", "\xFF"}) {
    ASSERT_EQ(setAgentCharValue(kAgentCustomer, bad), kAgentValueOk);
    EXPECT_EQ(initSlmServices(nullptr, 5), kSlmServicesBadCustomer) << bad;
  }
}

TEST_F(SlmService, AcceptsOnlyAnswersOfItsProtocolVersion) {
  const std::string ok = "<response:0,0:\r\n", differs = "SCP version different, actual 1.1.1, ";
  EXPECT_EQ(runService(answer(ok, "SCPVersion: \t\v\f1.1.1\r\n")), kServiceOk);
  EXPECT_EQ(runService(answer(ok, "SCPVersion: 1.1.1.0\r\n")), -101);
  EXPECT_THAT(traceText(), HasSubstr(differs + "server '1.1.1.0'"));
  EXPECT_EQ(runService(answer(ok, "Service: 3\r\n")), -101);
  EXPECT_THAT(traceText(), HasSubstr(differs + "server ''"));
  EXPECT_EQ(runService("HTTP/1.0 404 Not Found\r\nSCPVersion: 1.1.1\r\n\r\n"), -101);
  EXPECT_THAT(traceText(), HasSubstr("ERROR - Http in response, error 0"));
}

TEST_F(SlmService, MapsEveryTrailerCode) {
  const struct {
    const char* body;
    int expected;
    const char* message;
    size_t named;  // lines naming the service, the message ending the first
  } cases[] = {
      {"payload\r\n<response:0,0:rest\r\n", kServiceOk, "", 0},  // the tag skips a payload line
      {"<response:0,1:\r\n", kServiceUnknownAgent, "WARNING - First plugin on this server", 1},
      {"<response:0,-1:\r\n", kServiceUnknownAgent, "ERROR - Unknown Agent", 1},
      {"<response:0,-2:\r\n", kServiceUnknownDivision, "ERROR - Unknown Division", 1},
      {"<response:0,-3:\r\n", kServiceBadNode, "ERROR - Bad node", 1},
      {"<response:0,-4:\r\n", kServiceObsoleteScan, "WARNING - Obsolete scan", 1},
      {"<response:0,-5:\r\n", kServiceNoNewerAgent, "OK - Agent is the newer available", 1},
      {"<response:0,-6:\r\n", kServiceFailed, "ERROR - No Agent for this system available", 1},
      {"<response:0,-503:\r\n", kServiceFailed, "incorrect (probably the agent_id)", 2},
      {"<response:0,-999:\r\n", kServiceFailed, "WARNING - Server internal error", 1},
      {"<response:0,7:\r\n", kServiceFailed, "ERROR - Unknown server error: 7", 1},
      {"<response:1,0:\r\n", kServiceFailed, "ERROR - Slm service, communication error 1", 0},
      {"<response:0\r\n", kServiceFailed, "ERROR - Slm service: 0, error 2", 0},
      {"<response:0,5\r\n", kServiceFailed, "ERROR - Slm service error '5', error 2", 0},
      {"no trailer, only payload\r\n", kServiceFailed, "error 'no trailer', error 2", 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(runService(answer(c.body)), c.expected) << c.body;
    std::string trace = traceText();
    EXPECT_THAT(trace, HasSubstr(c.message + std::string(c.named ? ", service  3" : "")));
    size_t named = 0;
    for (size_t at = 0; (at = trace.find("service  3", at)) != std::string::npos; ++at) ++named;
    EXPECT_EQ(named, c.named) << c.body;
  }
}

class SlmServiceDownload : public SlmService {};

TEST_F(SlmServiceDownload, SavesTheBodyChunkByChunkUntilThePeerCloses) {
  std::string content(10000, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i % 251);
  ASSERT_EQ(download("/pkg/agent.tar", {"HTTP/1.0 200 OK\r\n\r\n", content.substr(0, 3000),
                                        content.substr(3000, 5000), content.substr(8000)}),
            kDownloadDone);
  EXPECT_EQ(test::readFile(dir_ + "agent.tar"), content);
  EXPECT_THAT(traceText(), HasSubstr("OK - Get /pkg/agent.tar, 10000 bytes in " + saved_));
  EXPECT_EQ(request_.substr(0, request_.find("\r\n")), "GET /pkg/agent.tar HTTP/1.0");
  EXPECT_THAT(request_, ::testing::Not(::testing::ContainsRegex("Content-(Length|Enc)")));
}

TEST_F(SlmServiceDownload, NamesTheLocalFile) {
  ASSERT_EQ(download("/pkg/a", {answer("data", "")}), kDownloadDone);
  EXPECT_EQ(saved_, dir_ + "127.0.0.1" + std::to_string(port_));  // any one-character name
  ASSERT_EQ(download("/agent.tar", {answer("data", "")}), kDownloadDone);
  EXPECT_EQ(saved_, dir_ + "/agent.tar");  // the only "/" starts the path and stays
  ASSERT_EQ(download("/pkg/agent.tar", {answer("data", "")}, dir_.size() + 4), kDownloadDone);
  EXPECT_EQ(saved_, dir_ + "age");  // the buffer bounds the name
  EXPECT_EQ(test::readFile(saved_), "data");
}

TEST_F(SlmServiceDownload, ReportsEachFailure) {
  EXPECT_EQ(download("/pkg/gone", {"HTTP/1.0 404 Not Found\r\n\r\n"}), kDownloadNoAnswer);
  EXPECT_FALSE(test::fileExists(dir_ + "gone"));
  std::string missing = dir_ + "no/such/dir/";
  EXPECT_EQ(download("/pkg/file", {answer("data", "")}, 4096, missing), kDownloadFailed);
  EXPECT_THAT(traceText(), HasSubstr("open file " + missing + "file for saving (errno=2)"));
  // A peer that goes quiet without closing: the read time-out ends the download.
  ASSERT_EQ(initSlmServices(nullptr, 1), kSlmServicesReady);
  EXPECT_EQ(download("/pkg/slow", {"HTTP/1.0 200 OK\r\n\r\n", "part"}, 4096, "", false),
            kDownloadFailed);
  EXPECT_THAT(traceText(), HasSubstr("ERROR - Getting Http content, error 0"));
}

TEST_F(SlmServiceDownload, FileOverTheDownloadLimitIsRefused) {
  struct Restore {
    ~Restore() { setSecuritySettings(SecuritySettings{}); }
  } restore;
  SecuritySettings settings;
  settings.maxDownloadBytes = 4;
  setSecuritySettings(settings);
  EXPECT_EQ(download("/pkg/fits", {answer("data", "")}), kDownloadDone);
  // Announced over the limit: refused before any file is made.
  EXPECT_EQ(download("/pkg/big", {answer("data!", "")}), kDownloadNoAnswer);
  EXPECT_FALSE(test::fileExists(dir_ + "big"));
  EXPECT_THAT(traceText(),
              HasSubstr("ERROR - Answer of /pkg/big over its limit of 4 bytes (5 announced)\n"));
  // Not announced: the download fails at the byte past the limit.
  EXPECT_EQ(download("/pkg/long", {"HTTP/1.0 200 OK\r\n\r\n", "data!"}), kDownloadFailed);
  EXPECT_THAT(traceText(), HasSubstr("ERROR - Answer of /pkg/long over its limit of 4 bytes\n"));
}

class SignedDownload : public SlmService {
 protected:
  static bool run(const std::string& command) { return std::system(command.c_str()) == 0; }
  // Writes pkg/`name` with `content` and a signature made by the openssl tool with `key`.
  void publish(const std::string& name, const std::string& content,
               const std::string& key = SLM_SOURCE_DIR "/tests/data/keys/dev_private.pem") {
    std::string file = served_.file("pkg/" + name);
    served_.writeFile("pkg/" + name, content);
    ASSERT_TRUE(run("openssl dgst -md5 -sign '" + key + "' -out '" + file + ".sign' " + file));
  }

  test::TempDir served_;
};

TEST_F(SignedDownload, KeepsOnlyFilesWithTheSigningKeysSignature) {
  std::string content(5000, 'm'), other = served_.file("other.pem");
  ASSERT_TRUE(run("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:512 -out '" + other +
                  "' 2>/dev/null"));
  publish("good.o", content);
  publish("changed.o", content);
  served_.writeFile("pkg/changed.o", content.substr(0, 4000) + "n" + content.substr(4001));
  publish("short.o", content);
  served_.writeFile("pkg/short.o.sign",
                    test::readFile(served_.file("pkg/short.o.sign")).substr(0, 63));
  publish("foreign.o", content, other);
  test::RuntimeServerProcess server("{\"downloads\": {\"root\": \"" + served_.path() + "\"}}");
  ASSERT_NE(server.port(), 0);
  ASSERT_EQ(initSlmRSAContext(), kRsaContextReady);
  for (std::string name : {"good.o", "changed.o", "short.o", "foreign.o", "missing.o"}) {
    ServerAddress address = addressOf("/pkg/" + name, server.port());
    int expected = name == "good.o" ? kDownloadDone : kDownloadFailed;
    EXPECT_EQ(fetch(&address, true, dir_), expected) << name;
    EXPECT_FALSE(test::fileExists(saved_ + ".sign")) << name;
    // No file, no signature request.
    EXPECT_EQ(std::string(address.path), "/pkg/" + name + (name == "missing.o" ? "" : ".sign"));
  }
  EXPECT_EQ(test::readFile(dir_ + "good.o"), content);
  disposeSlmRSAContext();
}

TEST_F(SignedDownload, UnderTheSitePolicyTheSiteSignatureMustPassToo) {
  test::SiteSigner site(root_, "site");
  site.trustUnder(root_);
  const std::string content(5000, 'm');
  for (const char* name : {"good.o", "renamed.o", "legacy.o", "long.o"}) publish(name, content);
  site.sign({served_.file("pkg/good.o"), served_.file("pkg/long.o")});
  // Signed for another name: its bytes are the same, its name is not.
  served_.writeFile("pkg/renamed.o.sig", test::readFile(served_.file("pkg/good.o.sig")));
  served_.writeFile("pkg/long.o.sig", test::readFile(served_.file("pkg/long.o.sig")) + "\n");
  test::RuntimeServerProcess server("{\"downloads\": {\"root\": \"" + served_.path() + "\"}}");
  ASSERT_NE(server.port(), 0);
  ASSERT_EQ(initSlmRSAContext(), kRsaContextReady);
  uint8_t other[kSha256Size] = {};
  const struct {
    const char* name;
    const uint8_t* required;
    int expected;
    const char* traced;
  } cases[] = {
      {"good.o", nullptr, kSignedFileValid, ""},
      {"good.o", other, kSignedFileOtherDigest, ""},
      {"renamed.o", nullptr, kSiteSignatureMismatch,
       "ERROR - Site signature check failed for /pkg/renamed.o.sig: no site key signed it as "
       "renamed.o\n"},
      {"legacy.o", nullptr, kSiteSignatureNotDownloaded,
       "ERROR - No site signature /pkg/legacy.o.sig for legacy.o\n"},
      {"long.o", nullptr, kSiteSignatureMismatch,
       "ERROR - Site signature /pkg/long.o.sig is not 64 bytes\n"},
  };
  for (const auto& c : cases) {
    traceText();
    remove((dir_ + "good.o").c_str());
    ServerAddress address = addressOf(std::string("/pkg/") + c.name, server.port());
    char local[kLocalPathSize], signature[kLocalPathSize];
    copyBounded(local, sizeof local - 1, dir_.c_str());
    EXPECT_EQ(fetchSignedFile(&address, local, sizeof local, signature, c.required), c.expected)
        << c.name;
    EXPECT_EQ(test::fileExists(local), c.expected == kSignedFileValid) << c.name;
    EXPECT_FALSE(test::fileExists(std::string(local) + ".sig")) << c.name;
    EXPECT_THAT(traceText(), HasSubstr(c.traced));
  }
  // The legacy signature is checked first, and both are asked for.
  std::vector<std::string> good;
  for (const std::string& path : server.rows("SELECT path FROM requests ORDER BY id")) {
    if (path.rfind("/pkg/good.o", 0) == 0) good.push_back(path);
  }
  EXPECT_THAT(good, ::testing::ElementsAre("/pkg/good.o", "/pkg/good.o.sign", "/pkg/good.o.sig",
                                           "/pkg/good.o", "/pkg/good.o.sign", "/pkg/good.o.sig"));

  ServerAddress address = addressOf("/pkg/good.o", server.port());
  char local[kLocalPathSize];
  copyBounded(local, sizeof local - 1, dir_.c_str());
  std::string text;
  EXPECT_EQ(fetchSiteSignedText(&address, local, sizeof local, 5000, &text), kSignedFileValid);
  EXPECT_EQ(text, content);
  address = addressOf("/pkg/good.o", server.port());
  copyBounded(local, sizeof local - 1, dir_.c_str());
  EXPECT_EQ(fetchSiteSignedText(&address, local, sizeof local, 4999, &text), kSignedFileTooLarge);
  // The text is never kept as a file.
  EXPECT_FALSE(test::fileExists(dir_ + "good.o"));
  disposeSlmRSAContext();
  setSecuritySettings(SecuritySettings{});
}

}  // namespace
}  // namespace slm
