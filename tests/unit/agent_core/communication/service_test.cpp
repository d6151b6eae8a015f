#include "agent_core/communication/service.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/communication/slm.h"
#include "agent_core/support/linux/osinfo.h"
#include "support/service_sandbox.h"

namespace slm {
namespace {

const std::string kTime = test::kRequestTime;
const std::string kTerminator = test::kRequestEnd;

// The agent's values set by hand.
class NodeService : public test::ServiceSandbox {
 protected:
  void SetUp() override {
    ServiceSandbox::SetUp();
    ASSERT_EQ(setAgentCharValue(kAgentIpAddress, "10.0.0.5"), kAgentValueOk);
    ASSERT_EQ(setAgentCharValue(kAgentOsDescription, "Linux 6.1|smp"), kAgentValueOk);
    const int ids[] = {kAgentMemoryMiB, kAgentDiskCount, kAgentCpuCount, kAgentCpuCountCopy,
                       kAgentDriverStatus};
    const int values[] = {2048, 2, 4, 4, 3};
    for (int i = 0; i < 5; ++i) ASSERT_EQ(setAgentIntValue(ids[i], values[i]), kAgentValueOk);
    // Set after the service layer made its identity header: the field's masking is tested here.
    ASSERT_EQ(setAgentCharValue(kAgentHostName, "node|one\r\nx"), kAgentValueOk);
  }

  // Calls p(lug-in), a (parameters), t(opology) or n(ew agent); after_: parameter word 0 (-9
  // before), the command ("keep" before) or else the node id (77 before), then servers listed.
  int call(char service, size_t commandSize = 64) {
    EXPECT_EQ(setAgentIntValue(kAgentNodeId, 77), kAgentValueOk);
    ServerAddress server = address();
    std::vector<int32_t> words(kParameterWords, -9);
    char command[64] = "keep";
    SlmList* list = createList(sizeof(ServerAddress));
    int result = service == 'p'   ? plugIn(&server)
                 : service == 'a' ? downloadParameters(words.data())
                 : service == 't' ? downloadTopology(list, list)
                                  : downloadNewAgent(command, commandSize, list);
    int64_t nodeId = -1;
    EXPECT_EQ(getAgentIntValue(kAgentNodeId, &nodeId), kAgentValueOk);
    after_ = service == 'n' ? command : std::to_string(service == 'a' ? words[0] : nodeId);
    for (void* entry = getNext(list, nullptr); entry != nullptr; entry = getNext(list, entry)) {
      const auto* a = static_cast<const ServerAddress*>(entry);
      after_ += std::string(" ") + a->host + "|" + a->path + "|" +
                (a->port == server.port ? "self" : std::to_string(a->port));
    }
    deleteList(list);
    return result;
  }

  std::string after_;
};

TEST_F(NodeService, PlugInSendsItsFieldsAndStoresTheNodeId) {
  ASSERT_EQ(setAgentCharValue(kAgentTag, "ABCDEFGHIJ|LMNOPQRSTUVWXYZ0123456789abcdefgh"),
            kAgentValueOk);
  serve(R"({"plugin": {"node_id": "auto", "node_id_base": 1000}})");
  ServerAddress server = address();
  EXPECT_EQ(plugIn(&server), kServiceUnknownAgent);  // the first plug-in on this server
  EXPECT_TRUE(traced("WARNING - First plugin on this server, service"));
  // Masked fields lose their first "|" and first CR LF only; the reserved word reads as the
  // driver status; the node id sent is the one stored by the first plug-in; the tag is cut to 40.
  EXPECT_EQ(plugIn(&server), kServiceOk);
  EXPECT_EQ(server_->lastRequestBody("2"),
            kTime + "1.0\r\n1.1.1.51\r\n4711\r\nnode*one**x\r\n10.0.0.5\r\nUnix\r\n" +
                "Linux 6.1*smp\r\n2048\r\n2\r\n3\r\n4\r\n4\r\n-42\r\n1001\r\n" + kTime +
                "ABCDEFGHIJ*LMNOPQRSTUVWXYZ0123456789abcd\r\n" + kTerminator);
  expectConforming();
}

TEST_F(NodeService, ParametersFillTheRecordAndTopologyAsksTheSame) {
  serve(R"({"require_plugin": false, "parameters": {"attribute": 7, "scope": 1,
            "scan_start_ms": 1700000000123, "scan_rule_type": 2, "scan_rule_value": 3,
            "max_delay": 600, "packet_size": 10, "attempts": 4, "time_threshold": 61,
            "delay_factor": 5, "ping_period": 1800, "parameters_period": 3600,
            "catalog_period": 7200, "topology_period": 14400, "upload_min_time": 120,
            "update_enabled": "YES", "max_update_period": 43200}})");
  std::vector<int32_t> words(kParameterWords);
  EXPECT_EQ(downloadParameters(words.data()), kServiceOk);
  // 1700000000123 is 0x18B'CFE5687B: low half first.
  EXPECT_EQ(words, (std::vector<int32_t>{7, 1, static_cast<int32_t>(0xCFE5687Bu), 0x18B, 2, 3, 600,
                                         10, 4, 61, 5, 1800, 3600, 7200, 14400, 120, 1, 43200}));
  EXPECT_EQ(call('t'), kServiceOk);  // the topology request is the same
  EXPECT_EQ(server_->lastRequestBody("8"), kTime + "1.0\r\n4711\r\n-42\r\n" + kTerminator);
  EXPECT_EQ(server_->lastRequestBody("11"), server_->lastRequestBody("8"));
  expectConforming();
}

TEST_F(NodeService, PingNeedsAnAnswerOfThisProtocol) {
  serve(R"({"services": {"ping": {"scp_version": null, "count": 1}}})");
  ServerAddress server = address();
  EXPECT_EQ(pingRTServer(&server), kPingFailed);
  EXPECT_TRUE(traced("ERROR - Error in response, service 1"));
  EXPECT_EQ(pingRTServer(&server), kPingAnswered);
  EXPECT_EQ(server_->lastRequestBody("1"), kTime + "1.0\r\n" + kTerminator);
  expectConforming();
}

TEST_F(NodeService, NewAgentGivesCommandAndFiles) {
  serve(R"({"require_plugin": false, "new_agent": {"command": "/var/qsam/tmp/install.sh -q",
                                    "files": ["/pkg/a", "/pkg/b"]}})");
  EXPECT_EQ(call('n'), kServiceOk);
  EXPECT_EQ(after_, "/var/qsam/tmp/install.sh -q 127.0.0.1|/pkg/a|self 127.0.0.1|/pkg/b|self");
  char machine[256], systemName[256], release[256];
  ASSERT_EQ(getSystemEnvironment(machine, systemName, release, 256), kOsInfoSuccess);
  EXPECT_EQ(server_->lastRequestBody("12"),
            kTime + "1.0\r\n4711\r\n1.1.1.51\r\n" + systemName + "\r\n" + release + "\r\n" +
                machine + "\r\n-42\r\nLAB\r\n127.0.0.1\r\n" + std::to_string(server_->port()) +
                "\r\n/\r\nacme\r\nkeep\r\n" + kTerminator);
  expectConforming();
}

TEST_F(NodeService, AnswersMapToResults) {
  // The scenario answering service `id` with `members`, or with `text` as its payload.
  auto answer = [](const std::string& id, const std::string& members) {
    return R"({"require_plugin": false, "services": {")" + id + R"(": {)" + members + "}}}";
  };
  auto payload = [&](const std::string& id, const std::string& text) {
    return answer(id, R"("payload": ")" + text + "\"");
  };
  auto words = [&](const std::string& fifth, const std::string& update) {  // 18 lines
    return payload("8", R"(0\r\n2\r\n0\r\n0\r\n)" + fifth +
                            R"(\r\n1\r\n1\r\n1\r\n1\r\n1\r\n1\r\n1\r\n1\r\n1\r\n1\r\n)" + update +
                            R"(\r\n86400\r\n)");
  };
  auto division = [&](const std::string& lines) {
    return payload(
        "11", R"(<division>\r\n)" + lines + R"(</division>\r\n<enterprise>\r\n</enterprise>\r\n)");
  };
  const std::string plugin = R"({"plugin": {"first_result": )";
  constexpr int kBad = kServiceMalformedPayload, kFail = kServiceFailed;
  const struct {
    std::string scenario;
    char service;  // see call()
    int result;
    std::string after;  // see call()
    const char* message;
    size_t commandSize = 64;
  } cases[] = {
      {plugin + R"(0, "node_id": "abc"}})", 'p', kServiceOk, "77", ""},
      {plugin + R"(0, "node_id": "0x12"}})", 'p', kServiceOk, "0", ""},
      {plugin + R"(0, "node_id": "905"}})", 'p', kServiceOk, "905", ""},
      {plugin + R"(0, "node_id": "12abc"}})", 'p', kBad, "77", "node_id during conversion: 12abc"},
      // No node line: the trailer's tag is taken as the line, so the trailer cannot be read.
      {plugin + R"(0, "node_id": null}})", 'p', kFail, "77", "error '0', error 2"},
      {plugin + R"(-2, "node_id": "abc"}})", 'p', kServiceUnknownDivision, "77",
       "Unknown Division"},
      {words("1", "No"), 'a', kServiceOk, "0", "SRVCS - Parameters from server: 127.0.0.1"},
      {words("1", "maybe"), 'a', kBad, "0", "Bad update enable string 'maybe'"},
      {words("x1", "no"), 'a', kBad, "0", "Bad number in content: x1, number 0"},
      {payload("8", ""), 'a', kServiceOk, "-9", ""},  // no parameters: the record stays
      {"{}", 'a', kServiceUnknownAgent, "-9", "Unknown Agent, service"},
      {R"({"require_plugin": false, "topology": {"division": ["h1|/p|8080", ["127.0.0.1", "/",
          "self"]], "enterprise": [{"host": "e1", "path": "/e", "port": 80}]}})",
       't', kServiceOk, "77 h1|/p|8080 127.0.0.1|/|self e1|/e|80", ""},  // division first
      {division(R"(h1|/p|0\r\n)"), 't', kBad, "77", "Null server port, string 0"},
      // A server whose host is no host name is left out, the others stay.
      {division(R"(h_1|/p|80\r\nh1|/p|8080\r\n)"), 't', kServiceOk, "77 h1|/p|8080",
       "ERROR - Server host h_1 refused: neither a host name nor an IPv4 address"},
      {division(R"(h\u001b[2J|/p|80\r\n)"), 't', kServiceOk, "77",
       "ERROR - Server host h?[2J refused"},
      {answer("8", R"("content_length": 1048577)"), 'a', kFail, "-9",
       "ERROR - Answer of service 8 over its limit of 1048576 bytes (1048577 announced)"},
      {division(R"(h1|/p\r\n)"), 't', kBad, "77", "No name-path separator found, string /p"},
      {division(R"(h1|/p|8080)"), 't', kBad, "77", "No path-port separator found, string 8080"},
      {payload("11", ""), 't', kFail, "77", "Not begin divion servers found, string "},
      {payload("11", R"(<division>\r\n</division>\r\n)"), 't', kFail, "77",
       "Not enterprise begin found"},
      {R"({"require_plugin": false})", 'n', kServiceNoNewerAgent, "keep", "No Update Agent data"},
      {answer("12", R"("payload": "run.sh\r\n", "result": 0)"), 'n', kBad, "run.sh",
       "No download files found in list"},
      {answer("12", R"("payload": "/var/qsam/run.sh\r\n/f\r\n", "result": 0)"), 'n', kServiceOk,
       "/var/qs 127.0.0.1|/f|self", "", 8},
      {answer("12", R"("result": -6)"), 'n', kFail, "keep", "No Agent for this system available"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.scenario);
    serve(c.scenario);
    EXPECT_EQ(call(c.service, c.commandSize), c.result);
    EXPECT_EQ(after_, c.after);
    EXPECT_TRUE(traced(c.message)) << trace();
  }
}

TEST_F(NodeService, ServicesWithoutAPreferredServerFail) {
  serve("{}");
  ASSERT_EQ(writeLockSrvsCache(), kSrvsOk);
  ServerHandle preferred = nullptr;
  ASSERT_EQ(findServerbyName("127.0.0.1", &preferred), kSrvsOk);
  ASSERT_EQ(removeServer(preferred), kSrvsOk);
  ASSERT_EQ(releaseLockSrvsCache(), kSrvsOk);
  EXPECT_EQ(call('a'), kServiceFailed);
  EXPECT_TRUE(traced("ERROR - No preferred server info retrieved"));
  EXPECT_EQ(server_->lastRequest("8"), "");
}

TEST(ServerHost, IsAHostNameOrAFourPartIpv4Address) {
  const std::string label63(63, 'a');
  const std::string name253 = label63 + "." + label63 + "." + label63 + "." + std::string(61, 'b');
  const std::pair<std::string, bool> cases[] = {
      {"127.0.0.1", true},
      {"localhost", true},
      {"h2", true},
      {"Srv-01.example.COM", true},
      {"0.0.0.0", true},
      {"255.255.255.255", true},
      {"1a.2b", true},
      {"123.example", true},
      {label63 + ".x", true},
      {name253, true},
      {"", false},
      {name253 + "b", false},  // 254 characters
      {label63 + "a.x", false},
      {"-h", false},
      {"h-", false},
      {"a..b", false},
      {".a", false},
      {"example.com.", false},  // no final dot
      {"h_1", false},
      {"h 1", false},
      {"h:80", false},
      {"h/p", false},
      {"ex\xC3\xA4mple", false},
      {"256.0.0.1", false},
      {"1.2.3", false},
      {"1.2.3.4.5", false},
      {"010.0.0.1", false},  // a leading zero reads as octal to some resolvers
      {"123", false},
      {"example.123", false},
      {"1.2.3.x4", true},
  };
  for (const auto& [host, accepted] : cases)
    EXPECT_EQ(acceptableServerHost(host.c_str()), accepted) << host;
}

}  // namespace
}  // namespace slm
