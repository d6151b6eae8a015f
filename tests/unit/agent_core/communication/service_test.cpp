#include "agent_core/communication/service.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/communication/comm_init.h"
#include "agent_core/communication/slm.h"
#include "agent_core/communication/slm_http.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/linux/osinfo.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "support/fake_clock.h"
#include "support/runtime_server_process.h"
#include "support/temp_root.h"

namespace slm {
namespace {

using test::readFile;
using test::RuntimeServerProcess;

constexpr int64_t kNow = 1700000000;
const std::string kTime = "1700000000000\r\n";
const std::string kTerminator = "<request:ok>\r\n";

// The text as the body of a JSON string.
std::string jsonText(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\r') {
      out += "\\r";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out.push_back(c);
    }
  }
  return out;
}

// The agent as every test here sets it up: configured ids, tag and customer, then the values the
// services send, set by hand so the request bodies are known to the byte.
class AgentFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    setAgentRoot(root_.path().c_str());
    root_.makeDirs("var/qsam/cache");
    startTrace(root_.file("trace.log").c_str());
    setTraceLevel(3);
    root_.writeFile("etc/kvdagent.ini",
                    "agentid=4711\ndivisionid=-42\ntag=lab\ncustomer=acme\n"
                    "server=127.0.0.1\npath=/\nport=1\n");
    ASSERT_EQ(loadConfigurationFile(root_.file("etc/kvdagent.ini").c_str()), kConfigurationLoaded);
    ASSERT_EQ(initAgentInfo(), kAgentValueOk);
  }
  void TearDown() override {
    if (cacheCreated_) deleteServersCache();
    clearAgentInfo();
    deleteConfigurationVariables();
    setHttpProxy("", 0);
    stopTrace();
    setTraceLevel(-1);
    setAgentRoot("");
  }

  std::string trace() const { return readFile(root_.file("trace.log")); }
  bool traced(const std::string& text) const { return trace().find(text) != std::string::npos; }

  test::TempDir root_;
  bool cacheCreated_ = false;
};

class NodeService : public AgentFixture {
 protected:
  void SetUp() override {
    AgentFixture::SetUp();
    ASSERT_EQ(setAgentCharValue(kAgentIpAddress, "10.0.0.5"), kAgentValueOk);
    ASSERT_EQ(setAgentCharValue(kAgentOsDescription, "Linux 6.1|smp"), kAgentValueOk);
    ASSERT_EQ(setAgentIntValue(kAgentMemoryMiB, 2048), kAgentValueOk);
    ASSERT_EQ(setAgentIntValue(kAgentDiskCount, 2), kAgentValueOk);
    ASSERT_EQ(setAgentIntValue(kAgentCpuCount, 4), kAgentValueOk);
    ASSERT_EQ(setAgentIntValue(kAgentCpuCountCopy, 4), kAgentValueOk);
    ASSERT_EQ(setAgentIntValue(kAgentDriverStatus, 3), kAgentValueOk);
    ASSERT_EQ(initSlmServices(nullptr, 30), kSlmServicesReady);
    // Set after the service layer took its identity header from it: a CR LF in a header value
    // would break the request head, and the field is what is tested here.
    ASSERT_EQ(setAgentCharValue(kAgentHostName, "node|one\r\nx"), kAgentValueOk);
  }

  // Starts the server and makes it the preferred server of a fresh cache.
  void serve(const std::string& scenario) {
    if (cacheCreated_) deleteServersCache();
    cacheCreated_ = false;
    server_.reset();
    server_ = std::make_unique<RuntimeServerProcess>(scenario);
    ASSERT_NE(server_->port(), 0) << "the runtime server did not start";
    remove(root_.file("var/qsam/cache/server.dat").c_str());
    ServerInfo preferred{};
    strcpy(preferred.address.host, "127.0.0.1");
    strcpy(preferred.address.path, "/");
    preferred.address.port = server_->port();
    ASSERT_EQ(createServersCache(&preferred), kSrvsOk);
    cacheCreated_ = true;
    startTrace(root_.file("trace.log").c_str());
    setTraceLevel(3);
  }
  ServerAddress address() const {
    ServerAddress address{};
    strcpy(address.host, "127.0.0.1");
    strcpy(address.path, "/");
    address.port = server_->port();
    return address;
  }
  void expectConforming() const { EXPECT_EQ(server_->violations(), std::vector<std::string>{}); }

  test::FakeClock clock_{kNow};
  std::unique_ptr<RuntimeServerProcess> server_;
};

TEST_F(NodeService, PlugInSendsItsFieldsAndStoresTheNodeId) {
  ASSERT_EQ(setAgentCharValue(kAgentTag, "ABCDEFGHIJ|LMNOPQRSTUVWXYZ0123456789abcdefgh"),
            kAgentValueOk);
  serve(R"({"plugin": {"node_id": "auto", "node_id_base": 1000}})");
  ServerAddress server = address();
  EXPECT_EQ(plugIn(&server), kServiceUnknownAgent);  // the first plug-in on this server
  EXPECT_TRUE(traced("WARNING - First plugin on this server, service"));
  EXPECT_TRUE(traced("SRVCS - Plugging in on server: 127.0.0.1"));
  int64_t nodeId = 0;
  ASSERT_EQ(getAgentIntValue(kAgentNodeId, &nodeId), kAgentValueOk);
  EXPECT_EQ(nodeId, 1001);

  // Masked fields lose their first "|" and first CR LF only; the reserved word reads as the
  // driver status; the node id sent is the one stored by the first plug-in; the tag is cut to 40.
  EXPECT_EQ(plugIn(&server), kServiceOk);
  EXPECT_EQ(server_->lastRequestBody("2"),
            kTime + "1.0\r\n1.1.1.51\r\n4711\r\nnode*one**x\r\n10.0.0.5\r\nUnix\r\n" +
                "Linux 6.1*smp\r\n2048\r\n2\r\n3\r\n4\r\n4\r\n-42\r\n1001\r\n" + kTime +
                "ABCDEFGHIJ*LMNOPQRSTUVWXYZ0123456789abcd\r\n" + kTerminator);
  expectConforming();
}

TEST_F(NodeService, PlugInNodeLines) {
  struct Case {
    const char* nodeLine;  // JSON value of the scenario's node line
    int result;
    int64_t nodeId;  // after the call; 77 before it
    const char* message;
  };
  const Case cases[] = {
      {R"("abc")", kServiceOk, 77, nullptr},
      {R"("00")", kServiceOk, 0, nullptr},
      {R"("0x12")", kServiceOk, 0, nullptr},
      {R"("905")", kServiceOk, 905, nullptr},
      {R"("12abc")", kServiceMalformedPayload, 77, "ERROR - Bad node_id during conversion: 12abc"},
      {"null", kServiceOk, 77, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.nodeLine);
    serve(std::string(R"({"plugin": {"first_result": 0, "node_id": )") + c.nodeLine + "}}");
    ASSERT_EQ(setAgentIntValue(kAgentNodeId, 77), kAgentValueOk);
    ServerAddress server = address();
    EXPECT_EQ(plugIn(&server), c.result);
    int64_t nodeId = -1;
    ASSERT_EQ(getAgentIntValue(kAgentNodeId, &nodeId), kAgentValueOk);
    EXPECT_EQ(nodeId, c.nodeId);
    if (c.message != nullptr) {
      EXPECT_TRUE(traced(c.message)) << trace();
    }
  }
}

TEST_F(NodeService, PlugInResultsOfTheServer) {
  struct Case {
    int serverResult;
    int result;
    const char* message;
  };
  const Case cases[] = {
      {-1, kServiceUnknownAgent, "ERROR - Unknown Agent, service"},
      {-2, kServiceUnknownDivision, "ERROR - Unknown Division, service"},
      {-3, kServiceBadNode, "ERROR - Bad node, service"},
      {-999, kServiceFailed, "WARNING - Server internal error, service"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.serverResult);
    serve(R"({"plugin": {"first_result": )" + std::to_string(c.serverResult) + "}}");
    ServerAddress server = address();
    EXPECT_EQ(plugIn(&server), c.result);
    EXPECT_TRUE(traced(c.message)) << trace();
  }
}

TEST_F(NodeService, ParametersFillTheRecord) {
  serve(R"({"require_plugin": false, "parameters": {"attribute": 7, "scope": 1,
            "scan_start_ms": 1700000000123, "scan_rule_type": 2, "scan_rule_value": 3,
            "max_delay": 600, "packet_size": 10, "attempts": 4, "time_threshold": 61,
            "delay_factor": 5, "ping_period": 1800, "parameters_period": 3600,
            "catalog_period": 7200, "topology_period": 14400, "upload_min_time": 120,
            "update_enabled": "YES", "max_update_period": 43200}})");
  int32_t words[kParameterWords] = {};
  EXPECT_EQ(downloadParameters(words), kServiceOk);
  // 1700000000123 is 0x18B'CFE5687B: low half first.
  const int32_t expected[kParameterWords] = {7,     1,    static_cast<int32_t>(0xCFE5687Bu),
                                             0x18B, 2,    3,
                                             600,   10,   4,
                                             61,    5,    1800,
                                             3600,  7200, 14400,
                                             120,   1,    43200};
  for (int i = 0; i < kParameterWords; ++i) EXPECT_EQ(words[i], expected[i]) << "word " << i;
  EXPECT_EQ(server_->lastRequestBody("8"), kTime + "1.0\r\n4711\r\n-42\r\n" + kTerminator);
  EXPECT_TRUE(traced("SRVCS - Parameters from server: 127.0.0.1"));
  expectConforming();
}

TEST_F(NodeService, ParameterPayloadErrors) {
  auto lines = [](const std::string& fifth, const std::string& update) {
    std::string payload = "0\r\n2\r\n0\r\n0\r\n" + fifth + "\r\n";
    for (int i = 6; i <= 15; ++i) payload += "1\r\n";
    return payload + update + "\r\n86400\r\n";
  };
  struct Case {
    std::string payload;
    int result;
    const char* message;
  };
  const Case cases[] = {
      {lines("1", "No"), kServiceOk, nullptr},
      {lines("1", "maybe"), kServiceMalformedPayload, "ERROR - Bad update enable string 'maybe'"},
      {lines("x1", "no"), kServiceMalformedPayload, "ERROR - Bad number in content: x1, number 0"},
      {lines("0", "no"), kServiceOk, nullptr},
      {"0\r\n2\r\n0\r\n", kServiceFailed, nullptr},  // lines missing before the trailer
      {"", kServiceOk, nullptr},                     // no parameters: the record stays as it was
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.payload);
    serve(R"({"require_plugin": false, "services": {"8": {"payload": ")" + jsonText(c.payload) +
          "\"}}}");
    int32_t words[kParameterWords];
    for (int32_t& word : words) word = -9;
    EXPECT_EQ(downloadParameters(words), c.result);
    if (c.message != nullptr) {
      EXPECT_TRUE(traced(c.message)) << trace();
    }
    if (c.payload.empty()) {
      EXPECT_EQ(words[0], -9);
    }
  }

  // The server's own answer: an agent that never plugged in is unknown.
  serve("{}");
  int32_t words[kParameterWords] = {};
  EXPECT_EQ(downloadParameters(words), kServiceUnknownAgent);
  EXPECT_TRUE(traced("ERROR - Unknown Agent, service"));
}

TEST_F(NodeService, PingNeedsAnAnswerOfThisProtocol) {
  serve(R"({"services": {"ping": {"scp_version": null, "count": 1}}})");
  ServerAddress server = address();
  EXPECT_EQ(pingRTServer(&server), kPingFailed);
  EXPECT_TRUE(traced("ERROR - Error in response, service 1"));
  EXPECT_EQ(pingRTServer(&server), kPingAnswered);
  EXPECT_TRUE(traced("SRVCS - Pinging server : 127.0.0.1"));
  EXPECT_EQ(server_->lastRequestBody("1"), kTime + "1.0\r\n" + kTerminator);
  expectConforming();

  // Nobody listens on the port any more.
  server_.reset();
  EXPECT_EQ(pingRTServer(&server), kPingFailed);
  EXPECT_TRUE(traced("ERROR - Error init http request, service: 1"));
}

TEST_F(NodeService, TopologyListsDivisionThenEnterpriseServers) {
  serve(R"({"require_plugin": false, "topology": {
            "division": ["h1|/p|8080", ["127.0.0.1", "/", "self"]],
            "enterprise": [{"host": "e1", "path": "/e", "port": 80}]}})");
  SlmList* servers = createList(sizeof(ServerAddress));
  ASSERT_NE(servers, nullptr);
  EXPECT_EQ(downloadTopology(servers), kServiceOk);
  struct Expected {
    const char* host;
    const char* path;
    uint16_t port;
  };
  const Expected expected[] = {
      {"h1", "/p", 8080}, {"127.0.0.1", "/", server_->port()}, {"e1", "/e", 80}};
  ASSERT_EQ(entries(servers), 3);
  void* entry = nullptr;
  for (const Expected& e : expected) {
    entry = getNext(servers, entry);
    ServerAddress address;
    memcpy(&address, entry, sizeof address);
    EXPECT_STREQ(address.host, e.host);
    EXPECT_STREQ(address.path, e.path);
    EXPECT_EQ(address.port, e.port);
  }
  deleteList(servers);
  EXPECT_EQ(server_->lastRequestBody("11"), kTime + "1.0\r\n4711\r\n-42\r\n" + kTerminator);
  expectConforming();
}

TEST_F(NodeService, TopologyPayloadErrors) {
  struct Case {
    const char* payload;
    int result;
    const char* message;
  };
  const Case cases[] = {
      {R"(<division>\r\nh1|/p|0\r\n</division>\r\n<enterprise>\r\n</enterprise>\r\n)",
       kServiceMalformedPayload, "ERROR - Null server port, string 0"},
      {R"(<division>\r\nh1|/p\r\n</division>\r\n<enterprise>\r\n</enterprise>\r\n)",
       kServiceMalformedPayload, "ERROR - No name-path separator found, string /p"},
      {R"(<division>\r\nh1|/p|8080</division>\r\n<enterprise>\r\n</enterprise>\r\n)",
       kServiceMalformedPayload, "ERROR - No path-port separator found, string 8080"},
      {R"(<division>\r\n</division>\r\n<enterprise>\r\ne1|/e|0\r\n</enterprise>\r\n)",
       kServiceMalformedPayload, "ERROR - Null server port, string 0"},
      {"", kServiceFailed, "ERROR - Not begin divion servers found, string "},
      {R"(<division>\r\n</division>\r\n)", kServiceFailed,
       "ERROR - Not enterprise begin found, string %"},
      {R"(<division>\r\n</division>\r\n<enterprise>\r\n</enterprise>\r\n)", kServiceOk, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.payload);
    serve(std::string(R"({"require_plugin": false, "services": {"11": {"payload": ")") + c.payload +
          "\"}}}");
    SlmList* servers = createList(sizeof(ServerAddress));
    EXPECT_EQ(downloadTopology(servers), c.result);
    if (c.message != nullptr) {
      EXPECT_TRUE(traced(c.message)) << trace();
    }
    deleteList(servers);
  }

  serve(R"({"require_plugin": false, "services": {"11": {"result": -2}}})");
  SlmList* servers = createList(sizeof(ServerAddress));
  EXPECT_EQ(downloadTopology(servers), kServiceUnknownDivision);
  EXPECT_TRUE(traced("ERROR - Unknown Division, service"));
  deleteList(servers);
}

TEST_F(NodeService, NewAgentGivesCommandAndFiles) {
  serve(R"({"require_plugin": false, "new_agent": {"command": "/var/qsam/tmp/install.sh -q",
            "files": ["/pkg/kvdagent", "/pkg/install.sh"]}})");
  char command[64] = "current";
  SlmList* files = createList(sizeof(ServerAddress));
  EXPECT_EQ(downloadNewAgent(command, sizeof command, files), kServiceOk);
  EXPECT_STREQ(command, "/var/qsam/tmp/install.sh -q");
  ASSERT_EQ(entries(files), 2);
  const char* paths[] = {"/pkg/kvdagent", "/pkg/install.sh"};
  void* entry = nullptr;
  for (const char* path : paths) {
    entry = getNext(files, entry);
    ServerAddress address;
    memcpy(&address, entry, sizeof address);
    EXPECT_STREQ(address.host, "127.0.0.1");
    EXPECT_STREQ(address.path, path);
    EXPECT_EQ(address.port, server_->port());
  }
  deleteList(files);

  char machine[256], systemName[256], release[256];
  ASSERT_EQ(getSystemEnvironment(machine, systemName, release, 256), kOsInfoSuccess);
  EXPECT_EQ(server_->lastRequestBody("12"),
            kTime + "1.0\r\n4711\r\n1.1.1.51\r\n" + systemName + "\r\n" + release + "\r\n" +
                machine + "\r\n-42\r\nLAB\r\n127.0.0.1\r\n" + std::to_string(server_->port()) +
                "\r\n/\r\nacme\r\ncurrent\r\n" + kTerminator);
  expectConforming();
}

TEST_F(NodeService, NewAgentAnswers) {
  struct Case {
    std::string scenario;
    size_t commandSize;
    int result;
    const char* command;
    const char* message;
  };
  const Case cases[] = {
      {"{}", 64, kServiceNoNewerAgent, "keep", "SRVCS - No Update Agent data"},
      {R"({"services": {"12": {"payload": "run.sh\r\n", "result": 0}}})", 64,
       kServiceMalformedPayload, "run.sh", "ERROR - No download files found in list"},
      {R"({"services": {"12": {"payload": "/var/qsam/run.sh\r\n/f\r\n", "result": 0}}})", 8,
       kServiceOk, "/var/qs", nullptr},
      {R"({"services": {"12": {"result": -6}}})", 64, kServiceFailed, "keep",
       "ERROR - No Agent for this system available, service"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.scenario);
    std::string scenario = c.scenario;
    scenario.insert(1, R"("require_plugin": false)" + std::string(scenario.size() > 2 ? ", " : ""));
    serve(scenario);
    char command[64] = "keep";
    SlmList* files = createList(sizeof(ServerAddress));
    EXPECT_EQ(downloadNewAgent(command, c.commandSize, files), c.result);
    EXPECT_STREQ(command, c.command);
    if (c.message != nullptr) {
      EXPECT_TRUE(traced(c.message)) << trace();
    }
    deleteList(files);
  }
}

TEST_F(NodeService, ServicesWithoutAPreferredServerFail) {
  serve("{}");
  ASSERT_EQ(writeLockSrvsCache(), kSrvsOk);
  ServerHandle preferred = nullptr;
  ASSERT_EQ(findServerbyName("127.0.0.1", &preferred), kSrvsOk);
  ASSERT_EQ(removeServer(preferred), kSrvsOk);
  ASSERT_EQ(releaseLockSrvsCache(), kSrvsOk);
  int32_t words[kParameterWords];
  EXPECT_EQ(downloadParameters(words), kServiceFailed);
  EXPECT_TRUE(traced("ERROR - No preferred server info retrieved"));
  EXPECT_EQ(server_->lastRequest("8"), "");
}

// Builds a resolver answer from texts.
class HostEntry {
 public:
  HostEntry(const char* name, std::vector<const char*> aliases,
            const std::vector<const char*>& addresses)
      : name_(name), aliases_(std::move(aliases)) {
    for (const char* text : addresses) {
      in_addr address{};
      inet_aton(text, &address);
      addresses_.push_back(address);
    }
    for (in_addr& address : addresses_)
      addressPointers_.push_back(reinterpret_cast<char*>(&address));
    addressPointers_.push_back(nullptr);
    for (const char* alias : aliases_) aliasPointers_.push_back(const_cast<char*>(alias));
    aliasPointers_.push_back(nullptr);
    entry_.h_name = const_cast<char*>(name_);
    entry_.h_aliases = aliasPointers_.data();
    entry_.h_addrtype = AF_INET;
    entry_.h_length = sizeof(in_addr);
    entry_.h_addr_list = addressPointers_.data();
  }
  const hostent& get() const { return entry_; }

 private:
  const char* name_;
  std::vector<const char*> aliases_;
  std::vector<in_addr> addresses_;
  std::vector<char*> addressPointers_;
  std::vector<char*> aliasPointers_;
  hostent entry_{};
};

class CommInit : public AgentFixture {};

TEST_F(CommInit, ChoosesAddressAndPlugInName) {
  struct Case {
    const char* name;
    std::vector<const char*> aliases;
    std::vector<const char*> addresses;
    const char* ip;
    const char* plugInName;
    const char* message;
  };
  const Case cases[] = {
      {"box.example",
       {},
       {"127.0.0.2", "10.0.0.5"},
       "10.0.0.5",
       "box.example",
       "DEBUG - Use box.example name to plug-in"},
      {"", {"", "alias1"}, {"127.0.1.1"}, "127.0.1.1", "alias1", "DEBUG - Use alias1 alias to"},
      {"",
       {},
       {"127.0.0.2", "127.0.1.1"},
       "127.0.1.1",
       "myhost",
       "DEBUG - use the gethostname value myhost to plug-in"},
      {"", {}, {}, "127.0.0.1", "myhost", "DEBUG - No address found use a dummy name 127.0.0.1"},
      {"",
       {""},
       {"127.0.0.3", "10.1.2.3", "192.168.0.1"},
       "10.1.2.3",
       "10.1.2.3",
       "DEBUG - Use 10.1.2.3 ip address to plug-in"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ip);
    HostEntry entry(c.name, c.aliases, c.addresses);
    PlugInIdentity identity{};
    choosePlugInIdentity(entry.get(), "myhost", &identity);
    EXPECT_STREQ(identity.ipAddress, c.ip);
    EXPECT_STREQ(identity.name, c.plugInName);
    EXPECT_TRUE(traced(c.message)) << trace();
  }
  EXPECT_TRUE(traced("DEBUG - The ip address is 10.0.0.5 "));
  EXPECT_TRUE(traced("DEBUG - Only loopback address found 127.0.1.1"));
}

TEST_F(CommInit, StoresTheIdentityAndUsesTheProxy) {
  // A dotted name resolves without asking any name server.
  ASSERT_EQ(setAgentCharValue(kAgentHostName, "10.0.0.5"), kAgentValueOk);
  ASSERT_EQ(initCommunication(), kCommOk);
  char value[kAgentTextSize];
  ASSERT_EQ(getAgentCharValue(kAgentIpAddress, value, sizeof value), kAgentValueOk);
  EXPECT_STREQ(value, "10.0.0.5");
  ASSERT_EQ(getAgentCharValue(kAgentHostName, value, sizeof value), kAgentValueOk);
  EXPECT_STREQ(value, "10.0.0.5");
  EXPECT_TRUE(traced("OK - Init Communication"));
  EXPECT_EQ(default_time_out, kDefaultServiceTimeoutSeconds);

  // With the proxy switch on, services go through the proxy: here the reference server, which
  // takes the request in the absolute form a proxy is sent.
  RuntimeServerProcess proxy("{}");
  ASSERT_NE(proxy.port(), 0);
  ASSERT_EQ(setAgentIntValue(kAgentUseProxy, 1), kAgentValueOk);
  ASSERT_EQ(setAgentCharValue(kAgentProxyHost, "127.0.0.1"), kAgentValueOk);
  ASSERT_EQ(setAgentIntValue(kAgentProxyPort, proxy.port()), kAgentValueOk);
  ASSERT_EQ(initCommunication(), kCommOk);
  ServerAddress server{};
  strcpy(server.host, "rt.invalid");
  strcpy(server.path, "/");
  server.port = 8080;
  EXPECT_EQ(pingRTServer(&server), kPingAnswered);
  EXPECT_EQ(proxy.lastRequest("1").rfind("POST http://rt.invalid:8080/ HTTP/1.0\r\n", 0), 0u)
      << proxy.lastRequest("1");

  EXPECT_EQ(closeCommunication(), kCommOk);
  EXPECT_TRUE(traced("OK - Close Communication"));
}

}  // namespace
}  // namespace slm
