// The agent's proxy mode against a real forwarding proxy: the configuration switches the proxy on,
// communication start-up takes it over, and services reach the runtime server through it.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "agent_core/cache/agent.h"
#include "agent_core/communication/comm_init.h"
#include "agent_core/communication/service.h"
#include "agent_core/communication/slm.h"
#include "agent_core/communication/slm_http.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/trace.h"
#include "agent_core/support/unix_common.h"
#include "support/agent_sandbox.h"
#include "support/runtime_server_process.h"
#include "support/tinyproxy_process.h"

namespace slm {
namespace {

class CommProxy : public test::AgentSandbox {
 protected:
  void SetUp() override {
    ASSERT_NE(proxy_.port(), 0) << "tinyproxy did not start";
    ASSERT_NE(server_.port(), 0) << "the runtime server did not start";
    AgentSandbox::SetUp();
    loadConfiguration(
        "agentid=4711\ndivisionid=42\ntag=lab\ncustomer=acme\nuse_proxy=yes\n"
        "proxy=127.0.0.1\nproxy_port=" +
        std::to_string(proxy_.port()) + "\nproxy_security=0\n");
    ASSERT_EQ(initAgentInfo(), kAgentValueOk);
    ASSERT_EQ(initCommunication(), kCommOk);
  }
  void TearDown() override {
    closeCommunication();
    clearAgentInfo();
    setHttpProxy("", 0);
    AgentSandbox::TearDown();
  }

  ServerAddress server() const {
    ServerAddress address{};
    strcpy(address.host, "127.0.0.1");
    strcpy(address.path, "/");
    address.port = server_.port();
    return address;
  }

  test::TinyproxyProcess proxy_;
  test::RuntimeServerProcess server_{"{}"};
};

TEST_F(CommProxy, ServicesReachTheServerThroughTheProxy) {
  EXPECT_TRUE(traced("OK - Using proxy server"));

  ServerAddress address = server();
  EXPECT_EQ(pingRTServer(&address), kPingAnswered);
  // The proxy forwarded the agent's request (its Via line says so) in the origin form, with the
  // agent's body intact.
  std::string ping = server_.lastRequest("1");
  ASSERT_FALSE(ping.empty());
  EXPECT_EQ(ping.rfind("POST / HTTP/1.0\r\n", 0), 0u) << ping;
  EXPECT_NE(ping.find("\r\nVia: "), std::string::npos) << ping;
  EXPECT_NE(server_.lastRequestBody("1").find("<request:ok>\r\n"), std::string::npos);

  // A plug-in through the proxy brings the agent its node id.
  EXPECT_EQ(plugIn(&address), kServiceUnknownAgent);  // the first plug-in on this server
  int64_t node = 0;
  ASSERT_EQ(getAgentIntValue(kAgentNodeId, &node), kAgentValueOk);
  EXPECT_GT(node, 0);
}

TEST_F(CommProxy, AnUnreachableServerBehindTheProxyFailsTheService) {
  ServerAddress address = server();
  strcpy(address.host, "127.0.0.1");
  address.port = 1;  // nothing listens here; the proxy answers with an error status
  EXPECT_NE(pingRTServer(&address), kPingAnswered);
}

}  // namespace
}  // namespace slm
