// An agent sandbox whose agent information, service layer and server cache are ready for service
// calls, with the reference runtime server as the preferred server and agent time held still.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/communication/slm.h"
#include "support/agent_sandbox.h"
#include "support/fake_clock.h"
#include "support/runtime_server_process.h"

namespace slm::test {

// The request time line that the held clock gives, and the request terminator.
inline const std::string kRequestTime = "1700000000000\r\n";
inline const std::string kRequestEnd = "<request:ok>\r\n";

class ServiceSandbox : public AgentSandbox {
 protected:
  void SetUp() override {
    AgentSandbox::SetUp();
    loadConfiguration("agentid=4711\ndivisionid=-42\ntag=lab\ncustomer=acme\nserver=127.0.0.1\n");
    ASSERT_EQ(initAgentInfo(), kAgentValueOk);
    ASSERT_EQ(initSlmServices(nullptr, 30), kSlmServicesReady);
  }
  void TearDown() override {
    if (cacheCreated_) deleteServersCache();
    clearAgentInfo();
    AgentSandbox::TearDown();
  }

  // Starts the server on `scenario` and makes it the preferred server of a fresh cache.
  void serve(const std::string& scenario) {
    if (std::exchange(cacheCreated_, false)) deleteServersCache();
    server_ = std::make_unique<RuntimeServerProcess>(scenario);
    ASSERT_NE(server_->port(), 0) << "the runtime server did not start";
    ServerInfo preferred{};
    preferred.address = address();
    ASSERT_EQ(createServersCache(&preferred), kSrvsOk);
    cacheCreated_ = true;
    restartTrace();
  }
  ServerAddress address() const { return {"127.0.0.1", "/", server_->port()}; }
  void expectConforming() const { EXPECT_EQ(server_->violations(), std::vector<std::string>{}); }

  bool cacheCreated_ = false;
  FakeClock clock_{1700000000};
  std::unique_ptr<RuntimeServerProcess> server_;
};

}  // namespace slm::test
