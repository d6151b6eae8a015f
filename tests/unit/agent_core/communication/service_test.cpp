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
#include "support/agent_sandbox.h"
#include "support/fake_clock.h"
#include "support/runtime_server_process.h"
#include "support/temp_root.h"

namespace slm {
namespace {

using test::RuntimeServerProcess;

const std::string kTime = "1700000000000\r\n";
const std::string kTerminator = "<request:ok>\r\n";

ServerAddress loopback(uint16_t port) {
  ServerAddress address{};
  strcpy(address.host, "127.0.0.1");
  strcpy(address.path, "/");
  address.port = port;
  return address;
}

// The entries of a list of server addresses as "host|path|port"; frees the list.
std::vector<std::string> listed(SlmList* list) {
  std::vector<std::string> out;
  for (void* entry = getNext(list, nullptr); entry != nullptr; entry = getNext(list, entry)) {
    ServerAddress address;
    memcpy(&address, entry, sizeof address);
    out.push_back(std::string(address.host) + "|" + address.path + "|" +
                  std::to_string(address.port));
  }
  EXPECT_EQ(entries(list), static_cast<int32_t>(out.size()));
  deleteList(list);
  return out;
}

// The agent with configured ids, tag and customer, and the values the services send set by hand
// so the request bodies are known to the byte; the reference server as the preferred server of a
// fresh cache.
class NodeService : public test::AgentSandbox {
 protected:
  void SetUp() override {
    AgentSandbox::SetUp();
    loadConfiguration(
        "agentid=4711\ndivisionid=-42\ntag=lab\ncustomer=acme\n"
        "server=127.0.0.1\npath=/\nport=1\n");
    ASSERT_EQ(initAgentInfo(), kAgentValueOk);
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

  void TearDown() override {
    if (cacheCreated_) deleteServersCache();
    clearAgentInfo();
    setHttpProxy("", 0);
    AgentSandbox::TearDown();
  }

  // Starts the server on `scenario` and makes it the preferred server of a fresh cache.
  void serve(const std::string& scenario) {
    if (cacheCreated_) deleteServersCache();
    cacheCreated_ = false;
    server_.reset();
    server_ = std::make_unique<RuntimeServerProcess>(scenario);
    ASSERT_NE(server_->port(), 0) << "the runtime server did not start";
    remove(root_.file("var/qsam/cache/server.dat").c_str());
    ServerInfo preferred{};
    preferred.address = address();
    ASSERT_EQ(createServersCache(&preferred), kSrvsOk);
    cacheCreated_ = true;
    restartTrace();
  }
  // `serve` with a scenario that needs no plug-in first and `more` members.
  void serveUnplugged(const std::string& more) {
    serve(R"({"require_plugin": false)" + (more.empty() ? "" : ", " + more) + "}");
  }
  ServerAddress address() const { return loopback(server_->port()); }
  void expectConforming() const { EXPECT_EQ(server_->violations(), std::vector<std::string>{}); }

  bool cacheCreated_ = false;
  test::FakeClock clock_{1700000000};
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

TEST_F(NodeService, PlugInAnswersSetTheNodeIdAndMapTheResult) {
  const struct {
    const char* plugin;  // members of the scenario's plug-in object
    int result;
    int64_t nodeId;  // after the call; 77 before it
    const char* message;
  } cases[] = {
      {R"("first_result": 0, "node_id": "abc")", kServiceOk, 77, ""},
      {R"("first_result": 0, "node_id": "00")", kServiceOk, 0, ""},
      {R"("first_result": 0, "node_id": "0x12")", kServiceOk, 0, ""},
      {R"("first_result": 0, "node_id": "905")", kServiceOk, 905, ""},
      {R"("first_result": 0, "node_id": "12abc")", kServiceMalformedPayload, 77,
       "ERROR - Bad node_id during conversion: 12abc"},
      // No node line: the trailer's tag is taken as the line, so the trailer cannot be read.
      {R"("first_result": 0, "node_id": null)", kServiceFailed, 77,
       "ERROR - Slm service error '0', error 2"},
      {R"("first_result": -1, "node_id": null)", kServiceFailed, 77,
       "ERROR - Slm service error '0', error 2"},
      {R"("first_result": -2, "node_id": "abc")", kServiceUnknownDivision, 77,
       "ERROR - Unknown Division, service"},
      {R"("first_result": -3, "node_id": "abc")", kServiceBadNode, 77, "ERROR - Bad node, service"},
      {R"("first_result": -999, "node_id": "abc")", kServiceFailed, 77,
       "WARNING - Server internal error, service"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.plugin);
    serve(std::string(R"({"plugin": {)") + c.plugin + "}}");
    ASSERT_EQ(setAgentIntValue(kAgentNodeId, 77), kAgentValueOk);
    ServerAddress server = address();
    EXPECT_EQ(plugIn(&server), c.result);
    int64_t nodeId = -1;
    ASSERT_EQ(getAgentIntValue(kAgentNodeId, &nodeId), kAgentValueOk);
    EXPECT_EQ(nodeId, c.nodeId);
    EXPECT_TRUE(traced(c.message)) << trace();
  }
}

TEST_F(NodeService, ParametersFillTheRecord) {
  serveUnplugged(R"("parameters": {"attribute": 7, "scope": 1,
            "scan_start_ms": 1700000000123, "scan_rule_type": 2, "scan_rule_value": 3,
            "max_delay": 600, "packet_size": 10, "attempts": 4, "time_threshold": 61,
            "delay_factor": 5, "ping_period": 1800, "parameters_period": 3600,
            "catalog_period": 7200, "topology_period": 14400, "upload_min_time": 120,
            "update_enabled": "YES", "max_update_period": 43200})");
  std::vector<int32_t> words(kParameterWords);
  EXPECT_EQ(downloadParameters(words.data()), kServiceOk);
  // 1700000000123 is 0x18B'CFE5687B: low half first.
  EXPECT_EQ(words, (std::vector<int32_t>{7, 1, static_cast<int32_t>(0xCFE5687Bu), 0x18B, 2, 3, 600,
                                         10, 4, 61, 5, 1800, 3600, 7200, 14400, 120, 1, 43200}));
  EXPECT_EQ(server_->lastRequestBody("8"), kTime + "1.0\r\n4711\r\n-42\r\n" + kTerminator);
  EXPECT_TRUE(traced("SRVCS - Parameters from server: 127.0.0.1"));
  expectConforming();
}

TEST_F(NodeService, ParameterPayloadErrors) {
  // The payload as JSON string text: four lines, `fifth`, ten lines, `update`, one line.
  auto lines = [](const std::string& fifth, const std::string& update) {
    std::string payload = R"(0\r\n2\r\n0\r\n0\r\n)" + fifth + R"(\r\n)";
    for (int i = 6; i <= 15; ++i) payload += R"(1\r\n)";
    return payload + update + R"(\r\n86400\r\n)";
  };
  const struct {
    std::string payload;
    int result;
    const char* message;
  } cases[] = {
      {lines("1", "No"), kServiceOk, ""},
      {lines("1", "maybe"), kServiceMalformedPayload, "ERROR - Bad update enable string 'maybe'"},
      {lines("x1", "no"), kServiceMalformedPayload, "ERROR - Bad number in content: x1, number 0"},
      {lines("0", "no"), kServiceOk, ""},
      {R"(0\r\n2\r\n0\r\n)", kServiceFailed, ""},  // lines missing before the trailer
      {"", kServiceOk, ""},                        // no parameters: the record stays as it was
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.payload);
    serveUnplugged(R"("services": {"8": {"payload": ")" + c.payload + "\"}}");
    std::vector<int32_t> words(kParameterWords, -9);
    EXPECT_EQ(downloadParameters(words.data()), c.result);
    EXPECT_TRUE(traced(c.message)) << trace();
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
  serveUnplugged(R"("topology": {"division": ["h1|/p|8080", ["127.0.0.1", "/", "self"]],
                                 "enterprise": [{"host": "e1", "path": "/e", "port": 80}]})");
  SlmList* servers = createList(sizeof(ServerAddress));
  ASSERT_NE(servers, nullptr);
  EXPECT_EQ(downloadTopology(servers), kServiceOk);
  EXPECT_EQ(listed(servers),
            (std::vector<std::string>{
                "h1|/p|8080", "127.0.0.1|/|" + std::to_string(server_->port()), "e1|/e|80"}));
  EXPECT_EQ(server_->lastRequestBody("11"), kTime + "1.0\r\n4711\r\n-42\r\n" + kTerminator);
  expectConforming();
}

TEST_F(NodeService, TopologyPayloadErrors) {
  const std::string none = R"(<division>\r\n</division>\r\n)";
  const std::string noEnterprise = R"(<enterprise>\r\n</enterprise>\r\n)";
  const struct {
    std::string services;  // the scenario's answer to the topology service
    int result;
    const char* message;
  } cases[] = {
      {R"("payload": "<division>\r\nh1|/p|0\r\n</division>\r\n)" + noEnterprise + "\"",
       kServiceMalformedPayload, "ERROR - Null server port, string 0"},
      {R"("payload": "<division>\r\nh1|/p\r\n</division>\r\n)" + noEnterprise + "\"",
       kServiceMalformedPayload, "ERROR - No name-path separator found, string /p"},
      {R"("payload": "<division>\r\nh1|/p|8080</division>\r\n)" + noEnterprise + "\"",
       kServiceMalformedPayload, "ERROR - No path-port separator found, string 8080"},
      {R"("payload": ")" + none + R"(<enterprise>\r\ne1|/e|0\r\n</enterprise>\r\n")",
       kServiceMalformedPayload, "ERROR - Null server port, string 0"},
      {R"("payload": "")", kServiceFailed, "ERROR - Not begin divion servers found, string "},
      {R"("payload": ")" + none + "\"", kServiceFailed,
       "ERROR - Not enterprise begin found, string %"},
      {R"("payload": ")" + none + noEnterprise + "\"", kServiceOk, ""},
      {R"("result": -2)", kServiceUnknownDivision, "ERROR - Unknown Division, service"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.services);
    serveUnplugged(R"("services": {"11": {)" + c.services + "}}");
    SlmList* servers = createList(sizeof(ServerAddress));
    EXPECT_EQ(downloadTopology(servers), c.result);
    EXPECT_TRUE(traced(c.message)) << trace();
    deleteList(servers);
  }
}

TEST_F(NodeService, NewAgentGivesCommandAndFiles) {
  serveUnplugged(R"("new_agent": {"command": "/var/qsam/tmp/install.sh -q",
                                  "files": ["/pkg/kvdagent", "/pkg/install.sh"]})");
  char command[64] = "current";
  SlmList* files = createList(sizeof(ServerAddress));
  EXPECT_EQ(downloadNewAgent(command, sizeof command, files), kServiceOk);
  EXPECT_STREQ(command, "/var/qsam/tmp/install.sh -q");
  std::string port = std::to_string(server_->port());
  EXPECT_EQ(listed(files), (std::vector<std::string>{"127.0.0.1|/pkg/kvdagent|" + port,
                                                     "127.0.0.1|/pkg/install.sh|" + port}));

  char machine[256], systemName[256], release[256];
  ASSERT_EQ(getSystemEnvironment(machine, systemName, release, 256), kOsInfoSuccess);
  EXPECT_EQ(server_->lastRequestBody("12"), kTime + "1.0\r\n4711\r\n1.1.1.51\r\n" + systemName +
                                                "\r\n" + release + "\r\n" + machine +
                                                "\r\n-42\r\nLAB\r\n127.0.0.1\r\n" + port +
                                                "\r\n/\r\nacme\r\ncurrent\r\n" + kTerminator);
  expectConforming();
}

TEST_F(NodeService, NewAgentAnswers) {
  const struct {
    const char* services;  // the scenario's answer to the new agent service
    size_t commandSize;
    int result;
    const char* command;
    const char* message;
  } cases[] = {
      {"", 64, kServiceNoNewerAgent, "keep", "SRVCS - No Update Agent data"},
      {R"("payload": "run.sh\r\n", "result": 0)", 64, kServiceMalformedPayload, "run.sh",
       "ERROR - No download files found in list"},
      {R"("payload": "/var/qsam/run.sh\r\n/f\r\n", "result": 0)", 8, kServiceOk, "/var/qs", ""},
      {R"("result": -6)", 64, kServiceFailed, "keep",
       "ERROR - No Agent for this system available, service"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.services);
    serveUnplugged(
        c.services[0] == '\0' ? "" : R"("services": {"12": {)" + std::string(c.services) + "}}");
    char command[64] = "keep";
    SlmList* files = createList(sizeof(ServerAddress));
    EXPECT_EQ(downloadNewAgent(command, c.commandSize, files), c.result);
    EXPECT_STREQ(command, c.command);
    EXPECT_TRUE(traced(c.message)) << trace();
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

std::vector<std::string> splitAtBars(const std::string& text) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t bar; !text.empty() && (bar = text.find('|', start)) != std::string::npos;
       start = bar + 1) {
    parts.push_back(text.substr(start, bar - start));
  }
  if (!text.empty()) parts.push_back(text.substr(start));
  return parts;
}

// A resolver answer built from texts; the aliases and addresses are separated by "|".
class HostEntry {
 public:
  HostEntry(std::string name, const std::string& aliases, const std::string& addresses)
      : name_(std::move(name)), aliases_(splitAtBars(aliases)) {
    for (const std::string& text : splitAtBars(addresses)) {
      addresses_.emplace_back();
      inet_aton(text.c_str(), &addresses_.back());
    }
    for (in_addr& address : addresses_) addressList_.push_back(reinterpret_cast<char*>(&address));
    for (std::string& alias : aliases_) aliasList_.push_back(alias.data());
    addressList_.push_back(nullptr);
    aliasList_.push_back(nullptr);
    entry_ = {name_.data(), aliasList_.data(), AF_INET, sizeof(in_addr), addressList_.data()};
  }
  const hostent& get() const { return entry_; }

 private:
  std::string name_;
  std::vector<std::string> aliases_;
  std::vector<in_addr> addresses_;
  std::vector<char*> addressList_, aliasList_;
  hostent entry_{};
};

class CommInit : public NodeService {};

TEST_F(CommInit, ChoosesAddressAndPlugInName) {
  const struct {
    const char* name;
    const char* aliases;
    const char* addresses;
    const char* ip;
    const char* plugInName;
    const char* message;
  } cases[] = {
      {"box.example", "", "127.0.0.2|10.0.0.5", "10.0.0.5", "box.example",
       "DEBUG - Use box.example name to plug-in"},
      {"", "|alias1", "127.0.1.1", "127.0.1.1", "alias1", "DEBUG - Use alias1 alias to"},
      {"", "", "127.0.0.2|127.0.1.1", "127.0.1.1", "myhost",
       "DEBUG - use the gethostname value myhost to plug-in"},
      {"", "", "", "127.0.0.1", "myhost", "DEBUG - No address found use a dummy name 127.0.0.1"},
      {"", "|", "127.0.0.3|10.1.2.3|192.168.0.1", "10.1.2.3", "10.1.2.3",
       "DEBUG - Use 10.1.2.3 ip address to plug-in"},
  };
  for (const auto& c : cases) {
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
  for (int id : {kAgentIpAddress, kAgentHostName}) {
    ASSERT_EQ(getAgentCharValue(id, value, sizeof value), kAgentValueOk);
    EXPECT_STREQ(value, "10.0.0.5") << id;
  }
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
  ServerAddress server = loopback(8080);
  strcpy(server.host, "rt.invalid");
  EXPECT_EQ(pingRTServer(&server), kPingAnswered);
  EXPECT_EQ(proxy.lastRequest("1").rfind("POST http://rt.invalid:8080/ HTTP/1.0\r\n", 0), 0u)
      << proxy.lastRequest("1");

  EXPECT_EQ(closeCommunication(), kCommOk);
  EXPECT_TRUE(traced("OK - Close Communication"));
}

}  // namespace
}  // namespace slm
